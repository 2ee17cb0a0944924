#include "log/log_support.h"
#include "support/fault.h"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

namespace {

using namespace log_support;

TEST(Trace, hands_the_text_to_the_host_with_its_severity) {
    RecordingHost host;
    qzfi_tracelog(3, "Entering %s", "qzfi_analyze");
    qzfi_tracelog(3, "Exiting %s with %d", "qzfi_analyze", -1);
    qzfi_tracelog(0xffffffff, "%%");
    EXPECT_EQ(host.reports, (std::vector<Report>{{"Entering qzfi_analyze", false, 3},
                                                 {"Exiting qzfi_analyze with -1", false, 3},
                                                 {"%", false, 0xffffffff}}));
}

TEST(Trace, goes_to_the_host_and_not_to_the_log) {
    RecordingHost host;
    const MemoryLog log;
    qzfi_tracelog(3, "x");
    fflush(get_qzfi_msgout());
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(host.reports.size(), 1u);
}

TEST(Trace, of_a_null_or_empty_format_is_none) {
    RecordingHost host;
    const char *none = nullptr;
    qzfi_tracelog(3, none, 1);
    const char *empty = "";
    qzfi_tracelog(3, empty, 1);
    EXPECT_TRUE(host.reports.empty());
}

TEST(Trace, of_an_empty_text_is_handed_on) {
    RecordingHost host;
    qzfi_tracelog(3, "%s", "");
    EXPECT_EQ(host.reports, (std::vector<Report>{{"", false, 3}}));
}

TEST(Trace, without_a_host_is_dropped) {
    ASSERT_EQ(util_ehandler, nullptr);
    fault::for_each(fault::Call::allocation, [](fault::Trial &trial) {
        trial.arm();
        qzfi_tracelog(3, "%s", std::string(5000, 'x').c_str());
        trial.disarm();
    });
    qfi_handler without_callback{};
    util_ehandler = &without_callback;
    qzfi_tracelog(3, "x");
    util_ehandler = nullptr;
}

struct Growth {
    std::size_t length;
    int allocations; // made for a text of this length
    std::size_t smallest;
    std::size_t largest; // bounds of the last buffer's size, with what malloc may round up
};

void PrintTo(const Growth &row, std::ostream *out) {
    *out << row.length << "_characters";
}

class TraceGrowth : public testing::TestWithParam<Growth> {};

TEST_P(TraceGrowth, ends_in_a_complete_text_or_none) {
    const Growth &row = GetParam();
    const std::string text = "<" + std::string(row.length - 2, 'x') + ">";
    int runs = 0;
    fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
        ++runs;
        RecordingHost host;
        trial.arm();
        qzfi_tracelog(7, "%s%c%s", text.substr(0, 1).c_str(), text[1], text.c_str() + 2);
        trial.disarm();
        if (trial.fired()) {
            EXPECT_TRUE(host.reports.empty());
            return;
        }
        EXPECT_EQ(host.reports, (std::vector<Report>{{text, false, 7}}));
        EXPECT_GE(host.buffer_size, row.smallest);
        EXPECT_LT(host.buffer_size, row.largest);
    });
    EXPECT_EQ(runs, row.allocations + 1);
}

INSTANTIATE_TEST_SUITE_P(Trace, TraceGrowth,
                         testing::Values(Growth{2, 1, 2048, 2100}, Growth{2046, 1, 2048, 2100},
                                         Growth{2047, 2, 4096, 4150}, Growth{2048, 2, 4096, 4150},
                                         Growth{2049, 2, 2051, 2100}, Growth{4095, 2, 4097, 4150},
                                         Growth{4096, 2, 4098, 4150}, Growth{100000, 2, 100002, 104200}));

TEST(Trace, that_never_formats_is_dropped_at_a_mebibyte) {
    const wchar_t unrepresentable[] = {0x110000, 0};
    int runs = 0;
    fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
        ++runs;
        RecordingHost host;
        trial.arm();
        qzfi_tracelog(3, "%ls", unrepresentable);
        trial.disarm();
        EXPECT_TRUE(host.reports.empty());
    });
    EXPECT_EQ(runs, 11); // 2048 bytes, nine doublings up to 1048576, and the run without a fault
}

TEST(Trace, restarts_the_arguments_for_every_attempt) {
    RecordingHost host;
    const std::string filler(3000, 'f');
    qzfi_tracelog(3, "%d %s %ld %.1f %s", 1, filler.c_str(), 2L, 3.5, "end");
    EXPECT_EQ(host.reports, (std::vector<Report>{{"1 " + filler + " 2 3.5 end", false, 3}}));
}

TEST(Trace, of_two_threads_is_whole) {
    struct Counter {
        qfi_handler handler;
        std::atomic<int> whole;
    } counter{};
    counter.handler.error = [](qfi_handler *self, const char *text, const char *, uint32_t) {
        const std::string line = text;
        if (line == std::string(3000, 'a') || line == std::string(3000, 'b'))
            ++reinterpret_cast<Counter *>(self)->whole;
    };
    util_ehandler = &counter.handler;
    const auto trace = [](char letter) {
        for (int i = 0; i < 100; ++i)
            qzfi_tracelog(3, "%s", std::string(3000, letter).c_str());
    };
    std::thread other(trace, 'b');
    trace('a');
    other.join();
    util_ehandler = nullptr;
    EXPECT_EQ(counter.whole, 200);
}

} // namespace
