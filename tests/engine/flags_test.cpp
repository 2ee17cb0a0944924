// Flags that forbid changes: what is there keeps them when it could not be brought up to date, or removed.
#include "engine_support.h"

#include <qzfi_fi.h>

#include "support/fault.h"

using namespace qzfi::engine;

namespace {

class Flags : public EngineTest {
protected:
    std::string flags_of(const std::string &paths) {
        return output("for d in " + paths + "; do lsattr -d $d | cut -c5,6; done");
    }
};

TEST_F(Flags, of_directories_stay_when_an_update_fails) {
    sh("mkdir -p s/a/b c/a/b; printf new > s/a/b/f; printf x > c/a/b/old; chattr +a c/a/b; chattr +i c/a c");
    options.workers = 1;
    options.entries = true;
    host.refuse_entry_at = 1;
    EXPECT_NE(update("s", "c").status, 0);
    EXPECT_EQ(flags_of("c c/a c/a/b"), "i-\ni-\n-a\n");
    host.entries.clear();
    host.refuse_entry_at = 0;
    EXPECT_EQ(update("s", "c").status, 0) << host.failed_operation << " " << host.failed_object;
    EXPECT_EQ(flags_of("c c/a c/a/b"), "--\n--\n--\n");
    expect_equal("s", "c");
}

TEST_F(Flags, of_more_directories_than_may_be_open_stay_when_an_update_fails) {
    sh("p=s; q=c; for i in $(seq 400); do p=$p/d; q=$q/d; done; mkdir -p $p $q; printf f > $p/f; chattr -R +i c");
    options.entries = true;
    for (const uint32_t workers : {1u, 4u}) {
        options.workers = workers;
        host.entries.clear();
        host.refuse_entry_at = 1;
        EXPECT_NE(update("s", "c").status, 0);
        EXPECT_EQ(output("find c -type d -print0 | xargs -0 lsattr -d | grep -c '^....i'"), "401\n");
    }
}

TEST_F(Flags, of_a_directory_stay_when_what_is_extra_in_it_cannot_be_removed) {
    sh("mkdir -p s/a c/a/extra/deep; printf x > c/a/extra/deep/f; chattr +i c/a/extra/deep c/a/extra c/a");
    options.workers = 1;
    const Folder source(at + "/s"), target(at);
    Result result;
    {
        const fault::Armed armed(fault::Call::remove, 1, {.error = EIO, .from_then_on = true});
        result = bring_up_to_date(source.fd, target.fd, "c", options, host.record);
    }
    EXPECT_NE(result.status, 0);
    EXPECT_EQ(flags_of("c/a c/a/extra c/a/extra/deep"), "i-\ni-\ni-\n");
    EXPECT_EQ(update("s", "c").status, 0) << host.failed_operation << " " << host.failed_object;
    expect_equal("s", "c");
}

} // namespace
