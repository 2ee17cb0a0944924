// How long exchanges take, with the real pauses. Lower bounds are the pacing itself; upper bounds are generous.
#include "context/exchange_support.h"

#include <sys/resource.h>

using namespace exchange;

namespace {

double now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double cpu_seconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

class Pacing : public Fixture {
protected:
    Pacing() { EXPECT_EQ(qzfi_create_context(), 0u); }
    ~Pacing() override { qzfi_close_context(); }

    /// Runs a command and expects it to take at least `least` and less than `limit` seconds.
    static void expect_time(double least, double limit, const std::string &command, const Result &expected) {
        const double begin = now();
        EXPECT_EQ(run(command), expected);
        const double taken = now() - begin;
        EXPECT_GE(taken, least - 0.1); // clocks of the kernel's timeouts are coarser than this one
        EXPECT_LT(taken, limit);
    }
};

TEST_F(Pacing, two_seconds_pass_before_a_command_is_run) {
    expect_time(2, 8, "echo output", output("output\n"));
}

TEST_F(Pacing, two_seconds_pass_after_each_full_chunk) {
    expect_time(6, 14, "head -c 600 /dev/zero", output(std::string(600, '\0')));
}

TEST_F(Pacing, two_seconds_pass_after_each_full_chunk_of_leftovers) {
    void *handle = nullptr;
    ASSERT_EQ(qzfi_get_iop(&handle), 0u);
    ASSERT_EQ(qzfi_sendcmd(handle, "head -c 600 /dev/zero", QFI_LOCK_RELEASE), 0u);
    ASSERT_EQ(get(command_iop[QFI_CONTEXT_STATUS_READ], 4), std::string(4, '\0'));
    const double begin = now();
    EXPECT_EQ(qzfi_sendcmd(handle, "exit 1", QFI_LOCK_RELEASE), 0u);
    EXPECT_GE(now() - begin, 4 - 0.1);
}

TEST_F(Pacing, a_command_without_output_costs_ten_seconds_in_all) {
    expect_time(10, 17, "true", nothing(0));
}

TEST_F(Pacing, an_empty_command_costs_ten_seconds_in_all) {
    expect_time(10, 17, "", nothing(0));
}

TEST_F(Pacing, what_the_command_took_is_taken_from_the_ten_seconds) {
    expect_time(10, 17, "command -p sleep 5; exit 4", nothing(4));
}

TEST_F(Pacing, a_command_without_output_that_takes_longer_ends_at_once) {
    expect_time(14, 21, "command -p sleep 12; exit 4", nothing(4));
}

TEST_F(Pacing, a_command_with_output_ends_at_once) {
    expect_time(3, 8, "echo output; command -p sleep 1", output("output\n"));
}

TEST_F(Pacing, output_after_more_than_ten_seconds_is_collected) {
    expect_time(13, 20, "echo early; command -p sleep 11; echo late", output("early\nlate\n"));
}

TEST_F(Pacing, a_long_command_does_not_keep_the_host_busy) {
    const double before = cpu_seconds();
    expect_time(32, 45, "command -p sleep 30; exit 2", nothing(2));
    EXPECT_LT(cpu_seconds() - before, 1); // of 32 that a busy wait would cost
}

TEST_F(Pacing, a_host_that_is_interrupted_all_the_time_waits_as_long) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr); // without SA_RESTART
    const itimerval storm{{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &storm, nullptr);
    expect_time(10, 17, "true", nothing(0));
    const itimerval none{};
    setitimer(ITIMER_REAL, &none, nullptr);
    signal(SIGALRM, SIG_DFL);
}

} // namespace
