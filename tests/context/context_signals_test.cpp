// Signals, the end of the process, the end of the host, and hosts with many threads.
#include <linux/filter.h>
#include <linux/seccomp.h>

#include "context/context_support.h"
#include "support/fault.h"

namespace {

using context::context_process;
using context::run;
using context::shared;
using context::Texts;

using ContextSignals = context::Fixture;
using ContextHost = context::Fixture;

/// Sends a signal to the context process and expects it to end with code 0, reaped by nobody yet.
void expect_end_by_sigio() {
    ASSERT_EQ(kill(context_process(), SIGIO), 0);
    EXPECT_EQ(context::exit_code_of(context_process()), 0);
}

/// A test host that creates a context, tells its process's id and does what it is told.
pid_t fork_host(const std::function<void()> &body) {
    shared().process = 0;
    const pid_t host = fork();
    if (host != 0)
        return host;
    body();
    for (;;)
        pause();
}

/// The context process of the test host, once it is ready.
pid_t context_of_host() {
    EXPECT_TRUE(context::wait_until([] { return shared().process != 0; }));
    return shared().process;
}

/// Makes this test the parent of processes whose own is gone, so that it sees how they end.
void adopt_orphans() {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
}

void kill_and_reap(pid_t process) {
    kill(process, SIGKILL);
    EXPECT_EQ(waitpid(process, nullptr, 0), process);
}

void create_and_tell() {
    if (qzfi_create_context() == 0)
        shared().process = context_process();
}

TEST_F(ContextSignals, sigio_ends_an_idle_process_with_code_0) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    expect_end_by_sigio();
    EXPECT_EQ(qzfi_close_context(), 0);
}

TEST_F(ContextSignals, the_last_close_stops_the_process_by_a_signal_that_it_obeys_with_code_0) {
    static std::atomic<int> code{0};
    static std::atomic<int> status{-1};
    struct sigaction action = {};
    struct sigaction previous = {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = [](int, siginfo_t *info, void *) {
        code = info->si_code;
        status = info->si_status;
    };
    ASSERT_EQ(qzfi_create_context(), 0u);
    ASSERT_EQ(sigaction(SIGCHLD, &action, &previous), 0);
    EXPECT_EQ(qzfi_close_context(), 0);
    EXPECT_TRUE(context::wait_until([] { return code != 0; }));
    EXPECT_EQ(code, CLD_EXITED);
    EXPECT_EQ(status, 0);
    sigaction(SIGCHLD, &previous, nullptr);
}

TEST_F(ContextSignals, sigio_ends_a_process_that_runs_a_command) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    context::send_command("exec sleep 1000");
    std::vector<pid_t> commands;
    EXPECT_TRUE(context::wait_until([&commands] {
        commands = context::children_of(context_process());
        return commands.size() == 1;
    }));
    expect_end_by_sigio();
    for (const pid_t command : commands)
        kill(command, SIGKILL);
}

TEST_F(ContextSignals, sigio_at_any_instant_ends_the_process_with_code_0) {
    for (int round = 0; round < 60; ++round) {
        ASSERT_EQ(qzfi_create_context(), 0u);
        context::send_command(round % 2 == 0 ? "exit 1" : "kill -9 $$");
        usleep(static_cast<useconds_t>(round * 40));
        expect_end_by_sigio();
        EXPECT_EQ(qzfi_close_context(), 0);
    }
}

TEST_F(ContextSignals, sigio_ends_a_process_whose_report_waits_for_ever) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    shared().is_handler_blocking = true;
    context::send_command("kill -9 $$");
    EXPECT_TRUE(context::wait_until([] { return shared().blocked_handlers == 1; }));
    const pid_t reporter = shared().report[0].process;
    expect_end_by_sigio();
    EXPECT_TRUE(context::wait_until([reporter] { return context::is_gone(reporter); }));
}

TEST_F(ContextSignals, sigio_ends_a_process_that_makes_a_stuck_report_itself) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    shared().is_handler_blocking = true;
    const fault::Armed armed(fault::Call::fork, 1, {EAGAIN, true});
    context::send_command("exit 1");
    EXPECT_TRUE(context::wait_until([] { return shared().blocked_handlers == 1; }));
    expect_end_by_sigio();
}

TEST_F(ContextSignals, a_handler_that_needs_a_lock_held_at_the_fork_does_not_block_the_end) {
    static std::mutex held;
    static qfi_handler handler{[](qfi_handler *, const char *, const char *, uint32_t) {
                                   ++shared().blocked_handlers;
                                   const std::lock_guard guard(held);
                               },
                               nullptr, nullptr, nullptr};
    util_ehandler = &handler;
    std::atomic<int> step{0};
    std::thread other([&] {
        const std::lock_guard guard(held);
        step = 1;
        while (step != 2)
            usleep(1000);
    });
    while (step != 1)
        usleep(1000);
    EXPECT_EQ(qzfi_create_context(), 0u);
    step = 2;
    other.join();
    EXPECT_EQ(run("kill -9 $$"), -1); // answered although the report never comes back
    context::send_command("kill -9 $$");
    EXPECT_TRUE(context::wait_until([] { return shared().blocked_handlers == 2; }));
    expect_end_by_sigio();
}

TEST_F(ContextSignals, signals_that_the_creating_thread_blocks_are_obeyed) {
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    EXPECT_EQ(qzfi_create_context(), 0u);
    EXPECT_EQ(run("exit 3"), 3);
    EXPECT_EQ(run("grep -c -E '^SigBlk:.0{16}$' /proc/self/status"), 0);
    expect_end_by_sigio();
    sigset_t still;
    pthread_sigmask(SIG_SETMASK, &previous, &still);
    EXPECT_EQ(sigismember(&still, SIGIO), 1);
    EXPECT_EQ(sigismember(&still, SIGUSR1), 1);
}

TEST_F(ContextSignals, handlers_of_the_host_never_run_in_the_process) {
    struct sigaction action = {};
    struct sigaction previous = {};
    action.sa_handler = [](int) { ++shared().counter; };
    ASSERT_EQ(sigaction(SIGTERM, &action, &previous), 0);
    EXPECT_EQ(qzfi_create_context(), 0u);
    kill(context_process(), SIGTERM);
    EXPECT_EQ(context::exit_code_of(context_process()), -SIGTERM);
    EXPECT_EQ(shared().counter, 0);
    sigaction(SIGTERM, &previous, nullptr);
}

TEST_F(ContextSignals, interruptions_change_nothing) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    std::atomic<bool> is_done{false};
    std::thread pest([&] {
        while (!is_done) {
            kill(context_process(), SIGURG);
            kill(context_process(), SIGPIPE);
            usleep(100);
        }
    });
    for (int code = 1; code <= 30; ++code)
        EXPECT_EQ(run("exit " + std::to_string(code) + " #" + std::string(5000, 'x')), code);
    is_done = true;
    pest.join();
}

TEST_F(ContextSignals, the_sigio_handler_exits_with_code_0) {
    const pid_t process = fork();
    if (process == 0) {
        qzfi_sigio_handler(SIGIO);
        _exit(5);
    }
    int status = -1;
    EXPECT_EQ(waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
}

TEST_F(ContextSignals, the_sigchld_handler_reaps_the_command_and_keeps_errno) {
    sig_pid = fork();
    if (sig_pid == 0)
        _exit(6);
    const pid_t process = sig_pid;
    EXPECT_EQ(context::exit_code_of(process), 6);
    sig_chld_status = 99;
    errno = E2BIG;
    qzfi_sigchld_handler(SIGCHLD);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(sig_pid, process);
    EXPECT_TRUE(WIFEXITED(sig_chld_status));
    EXPECT_EQ(WEXITSTATUS(sig_chld_status), 6);
    EXPECT_TRUE(context::is_gone(process));

    errno = E2BIG;
    qzfi_sigchld_handler(SIGCHLD);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(sig_pid, -1);
    EXPECT_EQ(sig_chld_status, 0);
}

TEST_F(ContextSignals, the_sigchld_handler_clears_both_while_the_command_runs) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t process = fork();
    if (process == 0) {
        char byte = 0;
        close(ends[1]);
        _exit(read(ends[0], &byte, 1) == 0 ? 0 : 1);
    }
    sig_pid = process;
    sig_chld_status = 99;
    qzfi_sigchld_handler(SIGCHLD);
    EXPECT_EQ(sig_pid, 0);
    EXPECT_EQ(sig_chld_status, 0);
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(waitpid(process, nullptr, 0), process);
}

TEST_F(ContextSignals, a_stopped_process_is_ended_by_close) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    const pid_t process = context_process();
    kill(process, SIGSTOP);
    EXPECT_TRUE(context::wait_until([process] { return context::state_of(process) == 'T'; }));
    EXPECT_EQ(qzfi_close_context(), 0);
    EXPECT_TRUE(context::wait_until([process] {
        qzfi::reap_closed_contexts();
        return context::is_gone(process);
    }));
}

TEST_F(ContextSignals, a_process_that_outlives_its_close_is_reaped_by_what_comes_later) {
    for (const auto &later : {std::function<void()>([] {
                                  EXPECT_EQ(qzfi_create_context(), 0u);
                                  EXPECT_EQ(qzfi_close_context(), 0);
                              }),
                              std::function<void()>([] { EXPECT_EQ(qzfi_close_context(), 0); }),
                              std::function<void()>([] { EXPECT_EQ(qzfi_ufini(), 0); })}) {
        ASSERT_EQ(qzfi_create_context(), 0u);
        const pid_t process = context_process();
        {
            const fault::Armed deaf(fault::Call::kill, 1, {EPERM, true});
            EXPECT_EQ(qzfi_close_context(), 0);
        }
        EXPECT_EQ(command_iop, nullptr);
        EXPECT_FALSE(context::is_gone(process));
        kill(process, SIGIO);
        EXPECT_EQ(context::exit_code_of(process), 0);
        EXPECT_EQ(context::state_of(process), 'Z');
        later();
        EXPECT_TRUE(context::is_gone(process));
    }
}

TEST_F(ContextSignals, a_process_that_was_killed_is_closed_without_a_signal_to_anybody) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    const pid_t process = context_process();
    kill(process, SIGKILL);
    EXPECT_EQ(context::exit_code_of(process), -SIGKILL);
    const fault::Armed none(fault::Call::kill, 1);
    EXPECT_EQ(qzfi_close_context(), 0);
    EXPECT_FALSE(fault::Armed::fired());
    EXPECT_TRUE(context::is_gone(process));
}

TEST_F(ContextSignals, a_process_reaped_elsewhere_is_closed_without_a_signal_to_anybody) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    kill_and_reap(context_process());
    const fault::Armed none(fault::Call::kill, 1);
    EXPECT_EQ(qzfi_close_context(), 0);
    EXPECT_FALSE(fault::Armed::fired());
}

void expect_context_like_any_other() {
    ASSERT_EQ(qzfi_create_context(), 0u);
    const pid_t process = context_process();
    EXPECT_EQ(run("exit 3"), 3);
    EXPECT_EQ(run("kill -9 $$"), -1);
    EXPECT_EQ(qzfi_close_context(), 0);
    EXPECT_TRUE(context::is_gone(process));
}

TEST_F(ContextHost, a_host_that_ignores_sigchld_has_a_context_like_any_other) {
    EXPECT_TRUE(context::passes_in_own_process([] {
        std::signal(SIGCHLD, SIG_IGN);
        for (int round = 0; round < 3; ++round)
            expect_context_like_any_other();
    }));
}

TEST_F(ContextHost, a_host_that_reaps_every_child_has_a_context_like_any_other) {
    EXPECT_TRUE(context::passes_in_own_process([] {
        struct sigaction action = {};
        action.sa_handler = [](int) {
            const int error = errno;
            while (waitpid(-1, nullptr, WNOHANG) > 0)
                ++shared().counter;
            errno = error;
        };
        ASSERT_EQ(sigaction(SIGCHLD, &action, nullptr), 0);
        for (int round = 0; round < 10; ++round)
            expect_context_like_any_other();
    }));
}

TEST_F(ContextHost, when_the_host_is_killed_the_process_ends_by_itself_with_code_0) {
    adopt_orphans();
    const pid_t host = fork_host(create_and_tell);
    const pid_t process = context_of_host();
    kill_and_reap(host);
    int status = -1;
    EXPECT_EQ(waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
}

TEST_F(ContextHost, when_the_host_exits_without_closing_the_process_ends_by_itself) {
    adopt_orphans();
    const pid_t host = fork_host([] {
        create_and_tell();
        _exit(3);
    });
    const pid_t process = context_of_host();
    EXPECT_EQ(waitpid(host, nullptr, 0), host);
    int status = -1;
    EXPECT_EQ(waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
}

TEST_F(ContextHost, when_the_host_is_killed_during_a_command_the_process_ends_by_itself) {
    adopt_orphans();
    const pid_t host = fork_host([] {
        create_and_tell();
        context::send_command("exec sleep 1000");
    });
    const pid_t process = context_of_host();
    std::vector<pid_t> commands;
    EXPECT_TRUE(context::wait_until([&] { return (commands = context::children_of(process)).size() == 1; }));
    kill_and_reap(host);
    int status = -1;
    EXPECT_EQ(waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
    for (const pid_t command : commands)
        kill_and_reap(command);
}

TEST_F(ContextHost, the_process_ends_with_the_host_also_when_another_process_holds_the_command_pipe) {
    adopt_orphans();
    const pid_t host = fork_host([] {
        create_and_tell();
        const pid_t other = fork();
        while (other == 0)
            pause();
        shared().counter = other;
    });
    const pid_t process = context_of_host();
    EXPECT_TRUE(context::wait_until([] { return shared().counter > 0; }));
    kill_and_reap(host);
    int status = -1;
    EXPECT_EQ(waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
    kill_and_reap(shared().counter);
}

TEST_F(ContextHost, the_context_outlives_the_thread_that_created_it_but_not_the_host) {
    adopt_orphans();
    const pid_t host = fork_host([] {
        std::thread([] { EXPECT_EQ(qzfi_create_context(), 0u); }).join();
        std::thread([] { EXPECT_EQ(run("exit 4"), 4); }).join();
        shared().counter = static_cast<int>(run("exit 5"));
        shared().process = context_process();
    });
    const pid_t process = context_of_host();
    EXPECT_EQ(shared().counter, 5);
    EXPECT_EQ(context::state_of(process), 'S');
    kill_and_reap(host);
    int status = -1;
    EXPECT_EQ(waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
}

TEST_F(ContextHost, at_the_end_of_the_command_pipe_the_process_waits_quietly_for_the_stop_signal) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    const pid_t process = context_process();
    close(command_iop[QFI_CONTEXT_COMMAND_WRITE]);
    command_iop[QFI_CONTEXT_COMMAND_WRITE] = -1;
    EXPECT_TRUE(context::wait_until([process] { return context::state_of(process) == 'S'; }));
    const long ticks = context::cpu_ticks_of(process);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(context::state_of(process), 'S');
    // It may have been asleep in its read yet when the ticks were taken first; a busy wait costs 150.
    EXPECT_LE(context::cpu_ticks_of(process), ticks + 10);
    EXPECT_EQ(context::pending_on(QFI_CONTEXT_STATUS_READ), 0);
    expect_end_by_sigio();
}

TEST_F(ContextHost, an_end_of_the_command_pipe_inside_a_frame_runs_nothing) {
    for (const size_t sent : {size_t{0}, size_t{7}}) {
        ASSERT_EQ(qzfi_create_context(), 0u);
        context::send_frame(100, "exit 1;", sent);
        close(command_iop[QFI_CONTEXT_COMMAND_WRITE]);
        command_iop[QFI_CONTEXT_COMMAND_WRITE] = -1;
        expect_end_by_sigio();
        EXPECT_EQ(context::remaining_words(), std::vector<int32_t>{});
        EXPECT_EQ(shared().sleeps, 0);
        EXPECT_EQ(qzfi_close_context(), 0);
    }
}

TEST_F(ContextHost, a_process_that_waits_at_the_end_of_its_pipe_ends_with_the_host) {
    adopt_orphans();
    const pid_t host = fork_host([] {
        EXPECT_EQ(qzfi_create_context(), 0u);
        close(command_iop[QFI_CONTEXT_COMMAND_WRITE]);
        shared().process = context_process();
    });
    const pid_t process = context_of_host();
    kill_and_reap(host);
    int status = -1;
    EXPECT_EQ(waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
}

TEST_F(ContextHost, a_copy_of_the_host_that_closes_leaves_the_hosts_context_alone) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    EXPECT_TRUE(context::passes_in_own_process([] {
        EXPECT_EQ(qzfi_close_context(), 0);
        EXPECT_EQ(command_iop, nullptr);
        ASSERT_EQ(qzfi_create_context(), 0u);
        EXPECT_EQ(run("exit 2"), 2);
        EXPECT_EQ(qzfi_close_context(), 0);
    }));
    EXPECT_EQ(run("exit 9"), 9);
}

/// The sweep without close_range, as on an older system.
TEST_F(ContextHost, the_sweep_by_limit_works_on_a_system_that_cannot_close_ranges) {
    EXPECT_TRUE(context::passes_in_own_process([] {
        sock_filter rules[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0), // the system call's number
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close_range, 0, 1),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        };
        const sock_fprog program{4, rules};
        ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
        ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
        ASSERT_EQ(syscall(SYS_close_range, 5000, 5000, 0), -1);
        fcntl(2, F_DUPFD, 700);
        shared().limit = 800;
        const fault::Armed armed(fault::Call::opendir, 1);
        ASSERT_EQ(qzfi_create_context(), 0u);
        EXPECT_EQ(context::descriptors_of(context_process()), context::kept_descriptors());
        EXPECT_EQ(run("exit 6"), 6);
        EXPECT_EQ(qzfi_close_context(), 0);
    }));
    EXPECT_EQ(shared().limit_queries, 1);
}

/// Threads that allocate, raise errors and log through a handler with a lock.
class BusyHost {
public:
    explicit BusyHost(std::mutex &lock) {
        for (int index = 0; index < 3; ++index)
            threads_.emplace_back([this, &lock] {
                while (!is_done_) {
                    std::vector<std::string> texts;
                    for (size_t size = 1; size < 40; ++size)
                        texts.emplace_back(size * 97, 'x');
                    fi_create_error_info("MSG_QFI_UTIL_E0050", 0, nullptr, nullptr, nullptr, 1, "%s\n", "busy");
                    qzfi_getmsg("MSG_QFI_UTIL_E0050", 3, "%s: busy\n", "test");
                    fi_del_all_errors();
                    const std::lock_guard guard(lock);
                    ++turns_;
                }
            });
    }
    ~BusyHost() {
        is_done_ = true;
        for (std::thread &thread : threads_)
            thread.join();
    }
    long turns() const { return turns_; }

private:
    std::atomic<bool> is_done_{false};
    std::atomic<long> turns_{0};
    std::vector<std::thread> threads_;
};

TEST_F(ContextHost, a_busy_host_creates_and_closes_200_contexts) {
    static std::mutex lock;
    static qfi_handler handler{
        [](qfi_handler *, const char *, const char *, uint32_t) { const std::lock_guard guard(lock); }, nullptr,
        nullptr, nullptr};
    util_ehandler = &handler;
    BusyHost host(lock);
    for (int round = 0; round < 200; ++round) {
        ASSERT_EQ(qzfi_create_context(), 0u);
        const pid_t process = context_process();
        if (round % 10 == 0) {
            EXPECT_EQ(run("exit 3"), 3);
        }
        EXPECT_EQ(qzfi_close_context(), 0);
        EXPECT_TRUE(context::is_gone(process));
    }
    EXPECT_GT(host.turns(), 0);
}

TEST_F(ContextHost, threads_may_create_and_close_at_the_same_time) {
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index)
        threads.emplace_back([] {
            for (int round = 0; round < 50; ++round) {
                EXPECT_EQ(qzfi_create_context(), 0u);
                void *handle = nullptr;
                EXPECT_EQ(qzfi_get_iop(&handle), 0u);
                EXPECT_EQ(qzfi_is_child_context(), 1);
                EXPECT_EQ(qzfi_close_context(), 0);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(reference_count_context, 0u);
    EXPECT_EQ(command_iop, nullptr);
}

} // namespace
