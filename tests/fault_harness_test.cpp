#include "support/fault.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <ace/SString.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

namespace {

const void *volatile looked_at; // keeps the compiler from leaving out memory that is not used

/// Whether an allocation succeeds. The compiler may leave out one whose memory is not used.
bool allocates() {
    void *volatile const memory = malloc(1);
    free(memory);
    return memory != nullptr;
}

TEST(FaultHarness, fails_exactly_the_nth_allocation) {
    const fault::Armed armed(fault::Call::allocation, 2);
    void *volatile const first = malloc(1);
    void *volatile const second = malloc(1);
    void *volatile const third = malloc(1);
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
        void *volatile const first = calloc(1, 1);
        void *volatile const second = calloc(1, 1);
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

/// A text too long to be kept without memory of its own, made inside the standard library.
std::string long_text() {
    return std::to_string(1) + std::string(100, 'x');
}

TEST(FaultHarness, fails_constructions_inside_shared_libraries_too) {
    // ACE and the instantiations of the standard library's own file are not linked into the program.
    ACE_String_Base<char> kept("x");
    const std::string text(100, 'x');
    std::ostringstream stream;
    {
        const fault::Armed armed(fault::Call::construction, 1);
        stream << text;
        EXPECT_TRUE(fault::Armed::fired());
    }
    EXPECT_TRUE(stream.bad());
    {
        const fault::Armed armed(fault::Call::construction, 1);
        kept = ACE_String_Base<char>(text.c_str());
        EXPECT_TRUE(fault::Armed::fired());
    }
    EXPECT_NE(kept, ACE_String_Base<char>(text.c_str()));
}

TEST(FaultHarness, fails_every_construction_of_a_scenario_and_loses_nothing) {
    int runs = 0;
    int caught = 0;
    fault::for_each(fault::Call::construction, [&](fault::Trial &trial) {
        ++runs;
        bool is_caught = false;
        trial.arm();
        try {
            const std::vector<std::string> texts(3, long_text());
            looked_at = texts.data();
        } catch (const std::bad_alloc &) {
            is_caught = true;
        }
        trial.disarm();
        EXPECT_EQ(is_caught, trial.fired());
        caught += is_caught;
    });
    EXPECT_EQ(caught, runs - 1);
    EXPECT_GE(caught, 5); // the text, the list and its three copies
}

TEST(FaultHarness, tells_constructions_from_allocations) {
    const auto construct_and_allocate = [] {
        const std::unique_ptr<int> made(new (std::nothrow) int(1));
        looked_at = made.get();
        return std::pair(looked_at != nullptr, allocates());
    };
    {
        const fault::Armed armed(fault::Call::allocation, 1);
        EXPECT_EQ(construct_and_allocate(), std::pair(true, false));
    }
    {
        const fault::Armed armed(fault::Call::construction, 1);
        EXPECT_EQ(construct_and_allocate(), std::pair(false, true));
    }
    EXPECT_EQ(construct_and_allocate(), std::pair(true, true));
}

TEST(FaultHarness, shortens_transfers) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    {
        const fault::ShortTransfers shortened(3);
        EXPECT_EQ(write(ends[1], "abcdef", 6), 3);
        char buffer[6];
        EXPECT_EQ(read(ends[0], buffer, 2), 2);
        volatile std::size_t size = 6; // a hardened build checks a size that it does not know
        EXPECT_EQ(read(ends[0], buffer, size), 1);
    }
    EXPECT_EQ(write(ends[1], "abcdef", 6), 6);
    close(ends[0]);
    close(ends[1]);
}

TEST(FaultHarness, refuses_a_scenario_without_such_a_call) {
    EXPECT_NONFATAL_FAILURE(fault::for_each(fault::Call::kill, [](fault::Trial &trial) { trial.arm(); }),
                            "the scenario makes no call of this kind");
}

TEST(FaultHarnessDeathTest, stops_at_a_fatal_failure_and_names_its_case) {
    const auto fail_in_the_second_case = [] {
        int runs = 0;
        fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
            ++runs;
            trial.arm();
            (void)allocates();
            (void)allocates();
            trial.disarm();
            ASSERT_NE(trial.nth(), 2);
        });
        std::fflush(nullptr);
        _exit(runs);
    };
    EXPECT_EXIT(fail_in_the_second_case(), testing::ExitedWithCode(2), "QZFI_FAULT=allocation:2\n$");
}

/// The n of every run of a scenario with five allocations.
std::vector<int> runs_of_five_allocations() {
    std::vector<int> runs;
    fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
        runs.push_back(trial.nth());
        trial.arm();
        for (int call = 1; call <= 5; ++call)
            EXPECT_EQ(allocates(), call != trial.nth());
    });
    return runs;
}

TEST(FaultHarness, repeats_the_case_that_was_printed_alone) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(runs_of_five_allocations(), (std::vector<int>{1, 2, 3, 4, 5, 6}));
    std::string printed;
    for (int nth = 1; nth <= 6; ++nth)
        printed += "[  FAULT   ] QZFI_FAULT=allocation:" + std::to_string(nth) + "\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), printed);

    setenv("QZFI_FAULT", "allocation:3", 1);
    EXPECT_EQ(runs_of_five_allocations(), std::vector<int>{3});
    setenv("QZFI_FAULT", "read:3", 1); // another call's scenarios run as ever
    EXPECT_EQ(runs_of_five_allocations().size(), 6u);
    unsetenv("QZFI_FAULT");
}

TEST(FaultHarnessDeathTest, takes_no_case_that_there_is_not) {
    for (const char *request : {"", "allocation", "allocation:", "allocation:0", "allocation:x", "alloc:3", ":3"}) {
        setenv("QZFI_FAULT", request, 1);
        EXPECT_EXIT(runs_of_five_allocations(), testing::ExitedWithCode(2), "is not a call and a number") << request;
    }
    unsetenv("QZFI_FAULT");
}

TEST(FaultHarness, fails_one_call_of_all_that_threads_make) {
    for (const bool from_then_on : {false, true}) {
        const fault::Armed armed(fault::Call::allocation, 50, {.from_then_on = from_then_on});
        std::atomic<int> failed{0};
        std::vector<std::thread> threads;
        for (int thread = 0; thread < 4; ++thread)
            threads.emplace_back([&] {
                for (int call = 0; call < 25; ++call)
                    failed += !allocates();
            });
        for (std::thread &each : threads)
            each.join();
        EXPECT_EQ(failed, from_then_on ? 51 : 1);
    }
}

TEST(FaultHarness, threads_of_the_background_may_go_on_while_others_arm) {
    std::atomic<bool> is_over{false};
    std::thread background([&] {
        while (!is_over)
            (void)allocates();
    });
    for (int nth = 1; nth <= 100; ++nth)
        const fault::Armed armed(fault::Call::allocation, nth, {ENOMEM, nth % 2 == 0});
    is_over = true;
    background.join();
}

/// The exit status of a forked process: how many of its calls failed.
int failed_in_child(int calls) {
    const pid_t child = fork();
    if (child == 0) {
        int failed = 0;
        for (int call = 0; call < calls; ++call)
            failed += close(-1) == -1 && errno == EXDEV;
        _exit(failed);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(FaultHarness, counts_the_calls_of_forked_processes_and_learns_that_one_failed) {
    int failed_here = 0;
    int failed_there = 0;
    int runs = 0;
    fault::for_each(fault::Call::close,
                    [&](fault::Trial &trial) {
                        ++runs;
                        trial.arm();
                        failed_here += close(-1) == -1 && errno == EXDEV;
                        failed_there += failed_in_child(3);
                        failed_here += close(-1) == -1 && errno == EXDEV;
                        trial.disarm();
                        EXPECT_EQ(trial.fired(), runs <= 5);
                    },
                    {.error = EXDEV});
    EXPECT_EQ(runs, 6);
    EXPECT_EQ(failed_here, 2);
    EXPECT_EQ(failed_there, 3);
}

#ifdef QZFI_ADDRESS_SANITIZER
TEST(FaultHarnessDeathTest, finds_the_case_that_loses_memory) {
    const auto lose_memory_in_the_second_case = [] {
        fault::for_each(fault::Call::allocation, [](fault::Trial &trial) {
            trial.arm();
            char *first = strdup("first");
            looked_at = first;
            char *second = strdup("second");
            trial.disarm();
            if (second != nullptr)
                free(first);
            first = nullptr;
            free(second);
        });
        std::fprintf(stderr, "%d failure", testing::Test::HasNonfatalFailure());
        std::fflush(nullptr);
        _exit(3);
    };
    EXPECT_EXIT(lose_memory_in_the_second_case(), testing::ExitedWithCode(3),
                "allocation:2\n(.*\n)*.*strdup(.*\n)*1 failure");
}
#endif

#ifdef QZFI_ADDRESS_SANITIZER
TEST(FaultHarnessDeathTest, leaves_it_to_the_sanitizer_to_tell_how_memory_was_made) {
    const auto release = [](void *memory) {
        looked_at = memory;
        ::operator delete(const_cast<void *>(looked_at));
    };
    EXPECT_DEATH(release(std::malloc(1)), "alloc-dealloc-mismatch");
    EXPECT_DEATH(release(new char[1]), "alloc-dealloc-mismatch");
}
#endif

} // namespace
