#include <cerrno>
#include <string>

#include "load_hooks.h"
#include "support/fault.h"

namespace {

using namespace catalog_support;
using fault::Call;

class CatalogFaults : public load_hooks::LoadTest {
protected:
    void SetUp() override {
        LoadTest::SetUp();
        write_catalog("en_US", "key \"plain\"\n");
    }

    /// A failed call that the load cannot do without gives null and nothing else; the next call loads.
    static void expect_null_while_it_fails(Call call, fault::Failure failure = {}) {
        const std::ptrdiff_t before = open_descriptors();
        fault::for_each(
            call,
            [before](fault::Trial &trial) {
                trial.arm();
                const char *const format = qzfi_getlfmt("key");
                trial.disarm();
                EXPECT_EQ(format == nullptr, trial.fired());
                EXPECT_EQ(lfmts == nullptr, trial.fired());
                EXPECT_EQ(lfmtbuf == nullptr, trial.fired());
                EXPECT_EQ(nlfmt, trial.fired() ? 0 : 1);
                EXPECT_EQ(lfmtbusy, 0);
                EXPECT_TRUE(lock_is_free());
                EXPECT_EQ(open_descriptors(), before);
                EXPECT_EQ(format_of("key"), "plain");
                qzfi_ufini();
            },
            failure);
    }

    /// A failed call that the load can do without changes nothing.
    static void expect_format_although_it_fails(Call call, fault::Failure failure = {}) {
        fault::for_each(
            call,
            [](fault::Trial &trial) {
                trial.arm();
                const char *const format = qzfi_getlfmt("key");
                trial.disarm();
                EXPECT_STREQ(format, "plain");
                EXPECT_EQ(lfmtbusy, 0);
                qzfi_ufini();
            },
            failure);
    }
};

TEST_F(CatalogFaults, every_allocation) {
    expect_null_while_it_fails(Call::allocation);
}

TEST_F(CatalogFaults, every_read) {
    expect_null_while_it_fails(Call::read);
}

TEST_F(CatalogFaults, every_stat) {
    expect_null_while_it_fails(Call::stat);
}

TEST_F(CatalogFaults, every_open_from_the_mapping_file_or_the_catalog_on) {
    expect_null_while_it_fails(Call::open, {EMFILE, true});
}

TEST_F(CatalogFaults, of_one_open_are_made_good_by_the_fallback) {
    expect_format_although_it_fails(Call::open);
}

TEST_F(CatalogFaults, an_interrupted_read_is_repeated) {
    expect_format_although_it_fails(Call::read, {EINTR});
}

TEST_F(CatalogFaults, short_reads_are_continued) {
    const fault::ShortTransfers one_byte(1);
    EXPECT_EQ(format_of("key"), "plain");
}

TEST_F(CatalogFaults, a_failed_close_changes_nothing) {
    expect_format_although_it_fails(Call::close);
}

/// With a mapping file that ties the C locale's word to another catalog than the table does.
class MappingFaults : public CatalogFaults {
protected:
    void SetUp() override {
        CatalogFaults::SetUp();
        write_catalog("de_DE", "key \"mapped\"\n");
        write_mapping("de_DE C\n");
    }
};

TEST_F(MappingFaults, a_mapping_file_that_cannot_be_opened_is_none) {
    const std::ptrdiff_t before = open_descriptors();
    for (const Call call : {Call::open, Call::stat, Call::fopen}) {
        const fault::Armed armed(call, 1);
        EXPECT_EQ(format_of("key"), "plain");
        EXPECT_TRUE(fault::Armed::fired());
        EXPECT_EQ(open_descriptors(), before);
        qzfi_ufini();
    }
    EXPECT_EQ(format_of("key"), "mapped");
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(MappingFaults, a_line_whose_catalog_cannot_be_opened_is_passed_over) {
    const fault::Armed armed(Call::open, 2);
    EXPECT_EQ(format_of("key"), "plain");
    EXPECT_TRUE(fault::Armed::fired());
}

} // namespace
