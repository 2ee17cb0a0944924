#include "support/fault.h"

#include <cerrno>
#include <cstdlib>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

TEST(FaultHarness, fails_exactly_the_nth_allocation) {
    const fault::Armed armed(fault::Call::allocation, 2);
    void *first = malloc(1);
    void *second = malloc(1);
    void *third = malloc(1);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
    EXPECT_NE(third, nullptr);
    EXPECT_TRUE(fault::Armed::fired());
    free(first);
    free(third);
}

TEST(FaultHarness, fails_every_later_call_when_told_so) {
    const fault::Armed armed(fault::Call::close, 2, {.error = EINTR, .from_then_on = true});
    EXPECT_EQ(close(dup(1)), 0);
    const int fd = dup(1);
    EXPECT_EQ(close(fd), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(close(fd), -1);
}

TEST(FaultHarness, runs_a_scenario_until_it_passes_untouched) {
    int runs = 0;
    int failed_first = 0;
    int failed_second = 0;
    fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
        ++runs;
        trial.arm();
        char *first = strdup("a");
        void *second = calloc(1, 1);
        trial.disarm();
        failed_first += first == nullptr;
        failed_second += second == nullptr;
        EXPECT_EQ(trial.fired(), first == nullptr || second == nullptr);
        free(first);
        free(second);
    });
    EXPECT_EQ(runs, 3);
    EXPECT_EQ(failed_first, 1);
    EXPECT_EQ(failed_second, 1);
}

TEST(FaultHarness, shortens_transfers) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    {
        const fault::ShortTransfers shortened(3);
        EXPECT_EQ(write(ends[1], "abcdef", 6), 3);
        char buffer[6];
        EXPECT_EQ(read(ends[0], buffer, 2), 2);
        EXPECT_EQ(read(ends[0], buffer, 6), 1);
    }
    EXPECT_EQ(write(ends[1], "abcdef", 6), 6);
    close(ends[0]);
    close(ends[1]);
}

} // namespace
