// Real commands through the real context process.
#include "context/exchange_support.h"
#include "context/replaced_sleep.h"

#include <filesystem>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

using namespace exchange;
using fault::Armed;
using fault::Call;

namespace {

/// With a context, and a directory of its own for what commands leave behind.
class Command : public Fixture {
protected:
    Command() {
        signal(SIGPIPE, SIG_DFL);
        const fault::ShortTransfers shares_the_harness_with_the_context_process(SIZE_MAX);
        prctl(PR_SET_CHILD_SUBREAPER, 1); // what a command leaves running can be waited for
        EXPECT_NE(mkdtemp(directory_.data()), nullptr);
        open_context();
    }
    ~Command() override {
        const pid_t last = command_iop != nullptr ? context_pid() : 0;
        qzfi_close_context();
        EXPECT_EQ(command_iop, nullptr);
        if (last != 0) {
            EXPECT_EQ(kill(last, 0), -1) << "the context process is left";
        }
        EXPECT_TRUE(eventually([] { return waitpid(-1, nullptr, WNOHANG) == -1; })) << "a process is left";
        std::filesystem::remove_all(directory_);
    }

    static void open_context() { EXPECT_EQ(qzfi_create_context(), 0u); }
    static void reopen_context() {
        qzfi_close_context();
        open_context();
    }
    std::string path(const std::string &name) const { return directory_ + "/" + name; }
    bool exists(const std::string &name) const { return access(path(name).c_str(), F_OK) == 0; }
    void touch(const std::string &name) const { close(open(path(name).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600)); }
    std::string content(const std::string &name) const {
        const int fd = open(path(name).c_str(), O_RDONLY | O_CLOEXEC);
        const std::string bytes = get(fd, 1000000);
        close(fd);
        return bytes;
    }
    static pid_t context_pid() { return command_iop[QFI_CONTEXT_PID]; }

    /// Kills the context process and waits for its end, without reaping it.
    static void kill_context() {
        siginfo_t end{};
        EXPECT_EQ(kill(context_pid(), SIGKILL), 0);
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(context_pid()), &end, WEXITED | WNOWAIT), 0);
    }

    /// Runs a command, and `meanwhile` once the command has made the file "ready".
    Result run_during(const std::string &command, const std::function<void()> &meanwhile) {
        const Peer peer([&] {
            EXPECT_TRUE(eventually([&] { return exists("ready"); }));
            meanwhile();
        });
        return run("cd " + directory_ + "; " + command);
    }

private:
    std::string directory_ = "/tmp/qzfi_exchange_XXXXXX";
};

constexpr char await_go[] = "while [ ! -e go ]; do command -p sleep 0.02; done; ";

TEST_F(Command, exit_codes_arrive_with_the_output_that_goes_with_them) {
    const std::string say_both = "echo output; echo error >&2; ";
    EXPECT_EQ(run(say_both + "exit 0"), output("output\n"));
    for (const uint32_t code : {1u, 3u, 5u, 11u, 127u, 255u})
        EXPECT_EQ(run(say_both + "exit " + std::to_string(code)), errors(code, "error\n"));
    EXPECT_FALSE(is_locked(mutex_iop));
    expect_nothing_raised();
}

TEST_F(Command, a_command_that_a_signal_ends_gives_all_bits_set) {
    EXPECT_EQ(run("echo error >&2; kill -KILL $$"), errors(no_exit, "error\n"));
    EXPECT_EQ(run("echo error >&2; kill -TERM $$"), errors(no_exit, "error\n"));
    EXPECT_EQ(run("echo next"), output("next\n"));
}

TEST_F(Command, output_needs_no_newline_and_may_hold_any_byte) {
    EXPECT_EQ(run("printf text"), output("text"));
    std::string all;
    std::string escapes;
    for (int byte = 0; byte < 256; ++byte) {
        all += static_cast<char>(byte);
        char escape[6];
        snprintf(escape, sizeof escape, "\\%03o", static_cast<unsigned>(byte));
        escapes += escape;
    }
    EXPECT_EQ(run("printf '" + escapes + "'"), output(all));
    EXPECT_EQ(run("printf '" + escapes + "' >&2; exit 1"), errors(1, all));
}

TEST_F(Command, sizes_around_the_chunk_arrive_whole) {
    for (const std::size_t size : {1u, 255u, 256u, 257u, 512u, 1000u})
        EXPECT_EQ(run("head -c " + std::to_string(size) + " /dev/zero"), output(std::string(size, '\0')));
    EXPECT_TRUE(pauses_are_two_seconds);
}

TEST_F(Command, more_than_the_pipes_hold_on_both_at_once_is_collected) {
    const std::string fill =
        "head -c 200000 /dev/zero | tr '\\0' o & head -c 180000 /dev/zero | tr '\\0' e >&2; wait; ";
    EXPECT_EQ(run(fill), output(std::string(200000, 'o')));
    EXPECT_EQ(run(fill + "exit 9"), errors(9, std::string(180000, 'e')));
}

TEST_F(Command, a_command_may_close_its_outputs_and_go_on) {
    EXPECT_EQ(run("cd " + path("") +
                  "; echo output; echo error >&2; exec >&- 2>&-; command -p sleep 0.2; : >done; "
                  "exit 5"),
              errors(5, "error\n"));
    EXPECT_TRUE(exists("done"));
    EXPECT_EQ(run("echo next"), output("next\n"));
}

TEST_F(Command, a_background_process_does_not_delay_the_end_and_its_output_is_discarded) {
    EXPECT_EQ(run("cd " + path("") + "; (" + await_go + "echo late; echo late >&2; : >done) & echo now"),
              output("now\n"));
    EXPECT_EQ(run("echo next"), output("next\n"));
    touch("go");
    EXPECT_TRUE(eventually([&] { return exists("done"); }));
    EXPECT_EQ(run("echo last; echo error >&2"), output("last\n"));
    EXPECT_EQ(run("echo last; echo error >&2; exit 4"), errors(4, "error\n"));
}

TEST_F(Command, a_background_process_outlives_the_context) {
    EXPECT_EQ(run("cd " + path("") + "; (" + await_go + ": >done) & echo now"), output("now\n"));
    reopen_context();
    EXPECT_EQ(run("echo next"), output("next\n"));
    touch("go");
    EXPECT_TRUE(eventually([&] { return exists("done"); }));
}

TEST_F(Command, texts_around_the_fixed_buffer_run) {
    const std::string begin = "text=", end = "; echo ${#text}";
    for (const std::size_t size : {4095u, 4096u, 4097u, 70000u}) { // with the terminator
        const std::size_t filling = size - 1 - begin.size() - end.size();
        EXPECT_EQ(run(begin + std::string(filling, 'x') + end), output(std::to_string(filling) + "\n"));
    }
    EXPECT_EQ(run("echo short again"), output("short again\n"));
}

TEST_F(Command, a_text_that_exec_refuses_is_exit_code_127) {
    const std::string command = "echo output #" + std::string(1 << 20, 'x');
    EXPECT_EQ(run(command), nothing(127));
    EXPECT_EQ(run("echo next"), output("next\n"));
}

TEST_F(Command, a_shell_that_does_not_find_the_command_says_127) {
    const Result result = run("exec /nonexistent/program");
    EXPECT_EQ(result.status, 127u);
    EXPECT_NE(result.text.find("/nonexistent/program"), std::string::npos);
}

TEST_F(Command, four_threads_get_their_own_output_each) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([thread] {
            for (int number = 0; number < 50; ++number) {
                const std::string words = std::to_string(thread) + " " + std::to_string(number);
                if (number % 2 == 0)
                    EXPECT_EQ(run("echo " + words), output(words + "\n"));
                else
                    EXPECT_EQ(run("echo no; echo " + words + " >&2; exit 7"), errors(7, words + "\n"));
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    expect_nothing_raised();
}

TEST_F(Command, sent_by_itself_leaves_output_and_exit_code_to_the_caller) {
    void *handle = nullptr;
    ASSERT_EQ(qzfi_get_iop(&handle), 0u);
    const int status_fd = command_iop[QFI_CONTEXT_STATUS_READ];
    const int end = open(path("copy").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    const int error_end = open(path("errors").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    int32_t code = -1;
    for (const uint32_t mode : {QFI_LOCK_KEEP, QFI_LOCK_RELEASE}) {
        EXPECT_EQ(qzfi_sendcmd(handle, "echo output; echo error >&2; exit 6", mode), 0u);
        EXPECT_EQ(is_locked(mutex_iop), mode == QFI_LOCK_KEEP);
        if (mode == QFI_LOCK_RELEASE)
            pthread_mutex_lock(&mutex_iop);
        std::memcpy(&code, get(status_fd, 4).data(), 4);
        EXPECT_EQ(code, 6);
        EXPECT_EQ(qzfi_readoutpipe(handle, end, QFI_LOCK_KEEP), 0u);
        EXPECT_TRUE(is_locked(mutex_iop));
        EXPECT_EQ(qzfi_readerrpipe(handle, error_end, QFI_LOCK_RELEASE), 0u);
        EXPECT_FALSE(is_locked(mutex_iop));
    }
    close(end);
    close(error_end);
    EXPECT_EQ(content("copy"), "output\noutput\n");
    EXPECT_EQ(content("errors"), "error\nerror\n");
}

TEST_F(Command, a_stale_exit_code_is_taken_for_the_next_commands_own) {
    void *handle = nullptr;
    ASSERT_EQ(qzfi_get_iop(&handle), 0u);
    EXPECT_EQ(qzfi_sendcmd(handle, "exit 9", QFI_LOCK_RELEASE), 0u);
    EXPECT_TRUE(eventually([] { return pending(command_iop[QFI_CONTEXT_STATUS_READ]) == 4; }));
    EXPECT_EQ(run("echo first >&2"), errors(9, "first\n"));
    EXPECT_EQ(run("echo second; exit 3"), output("second\n"));
}

TEST_F(Command, after_the_last_close_the_status_is_3) {
    void *stale = nullptr;
    ASSERT_EQ(qzfi_get_iop(&stale), 0u);
    qzfi_close_context();
    EXPECT_EQ(run("echo output"), nothing(3));
    EXPECT_EQ(qzfi_sendcmd(stale, "true", QFI_LOCK_KEEP), 3u);
    EXPECT_EQ(qzfi_readoutpipe(stale, 1, QFI_LOCK_KEEP), 3u);
    EXPECT_FALSE(is_locked(mutex_iop));
    expect_nothing_raised();
    open_context();
    EXPECT_EQ(run("echo output"), output("output\n"));
}

TEST_F(Command, a_context_process_that_was_killed_before_is_status_11_and_no_signal) {
    kill_context();
    for (int times = 0; times < 2; ++times) {
        EXPECT_EQ(run("echo output"), nothing(11));
        expect_raised("MSG_QFI_UTIL_E0059", "qzfi_sendcmd: write size error\n");
        EXPECT_FALSE(is_locked(mutex_iop));
    }
    void *handle = nullptr;
    ASSERT_EQ(qzfi_get_iop(&handle), 0u);
    EXPECT_EQ(qzfi_sendcmd(handle, "true", QFI_LOCK_RELEASE), 11u);
    EXPECT_FALSE(is_locked(mutex_iop));
    EXPECT_EQ(qzfi_sendcmd(handle, "true", QFI_LOCK_KEEP), 11u);
    EXPECT_TRUE(is_locked(mutex_iop));
    EXPECT_EQ(qzfi_unlock_iop(handle), 0u);
    forget_raised();
    reopen_context();
    EXPECT_EQ(run("echo output"), output("output\n"));
}

TEST_F(Command, a_context_process_that_is_killed_during_a_command_is_status_11_and_no_wait) {
    EXPECT_EQ(run_during(std::string("echo output; : >ready; ") + await_go + ": >done", [] { kill_context(); }),
              nothing(11));
    expect_raised("MSG_QFI_UTIL_E0053", "qzfi_exec_cmd_in_child_context: read size error\n");
    EXPECT_FALSE(is_locked(mutex_iop));
    touch("go");
    EXPECT_TRUE(eventually([&] { return exists("done"); }));
    reopen_context();
    EXPECT_EQ(run("echo output"), output("output\n"));
}

TEST_F(Command, a_long_text_to_a_stopped_context_process_that_is_killed_then_is_status_11) {
    EXPECT_EQ(kill(context_pid(), SIGSTOP), 0);
    {
        const Peer killer([] {
            EXPECT_TRUE(eventually([] { return is_locked(mutex_iop); }));
            nap(50);
            kill_context();
        });
        EXPECT_EQ(run("echo output #" + std::string(1 << 20, 'x')), nothing(11));
    }
    expect_raised("MSG_QFI_UTIL_E0059", "qzfi_sendcmd: write size error\n");
    EXPECT_FALSE(is_locked(mutex_iop));
    EXPECT_EQ(command_iop[QFI_CONTEXT_COMMAND_WRITE], -1) << "a frame that broke off";
}

TEST_F(Command, a_host_that_is_interrupted_all_the_time_gets_the_same) {
    static std::atomic<int> interruptions;
    interruptions = 0;
    struct sigaction action = {};
    action.sa_handler = [](int) { ++interruptions; };
    sigaction(SIGALRM, &action, nullptr); // without SA_RESTART
    const itimerval storm{{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &storm, nullptr);
    const std::string size = "command -p sleep 0.1; head -c 3000 /dev/zero; head -c 2000 /dev/zero >&2; ";
    for (int times = 0; times < 5; ++times) {
        EXPECT_EQ(run(size + "exit 0"), output(std::string(3000, '\0')));
        EXPECT_EQ(run(size + "exit 3"), errors(3, std::string(2000, '\0')));
    }
    EXPECT_EQ(run(": " + std::string(100000, 'x') + "; echo ok"), output("ok\n"));
    const itimerval none{};
    setitimer(ITIMER_REAL, &none, nullptr);
    signal(SIGALRM, SIG_DFL);
    EXPECT_GT(interruptions, 50);
    expect_nothing_raised();
}

TEST_F(Command, short_reads_and_writes_on_both_sides_lose_nothing) {
    const fault::ShortTransfers limit(3);
    reopen_context();
    EXPECT_EQ(run("head -c 700 /dev/zero; echo error >&2"), output(std::string(700, '\0')));
    EXPECT_EQ(run("echo output; echo error >&2; exit 255"), errors(255, "error\n"));
    EXPECT_EQ(run(": " + std::string(5000, 'x') + "; echo ok"), output("ok\n"));
    expect_nothing_raised();
}

TEST_F(Command, descriptors_beyond_an_fd_set_work) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit before = limit;
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
    ASSERT_GE(limit.rlim_cur, 2048u);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    qzfi_close_context();
    std::vector<int> occupied;
    for (int fd = 0; fd < 1100;) {
        fd = fcntl(0, F_DUPFD_CLOEXEC, 3);
        ASSERT_GE(fd, 3);
        occupied.push_back(fd);
    }
    open_context();
    EXPECT_GT(command_iop[QFI_CONTEXT_STATUS_READ], 1024);
    EXPECT_EQ(run("head -c 1000 /dev/zero"), output(std::string(1000, '\0')));
    EXPECT_EQ(run("echo output; echo error >&2; exit 5"), errors(5, "error\n"));
    for (const int fd : occupied)
        close(fd);
    setrlimit(RLIMIT_NOFILE, &before);
}

struct NamedCall {
    Call call;
    const char *name;
};
std::ostream &operator<<(std::ostream &out, const NamedCall &row) {
    return out << row.name;
}
/// Runs one exchange with the n-th of these calls failing, on either side, then one in a new context.
class FailingCall : public Command, public testing::WithParamInterface<NamedCall> {};

INSTANTIATE_TEST_SUITE_P(OnEitherSide, FailingCall,
                         testing::Values(NamedCall{Call::read, "read"}, NamedCall{Call::write, "write"},
                                         NamedCall{Call::select, "select"}, NamedCall{Call::ioctl, "ioctl"},
                                         NamedCall{Call::fork, "fork"}, NamedCall{Call::waitpid, "waitpid"}),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_P(FailingCall, ends_the_exchange_with_a_status_and_the_lock_free) {
    fault::for_each(GetParam().call, [](fault::Trial &trial) {
        reopen_context();
        trial.arm();
        const Result result = run("head -c 300 /dev/zero; echo error >&2");
        trial.disarm();
        EXPECT_FALSE(is_locked(mutex_iop));
        const bool is_failure = result == nothing(0) || result == nothing(11) || result == nothing(3070) ||
                                result == errors(11, "error\n") || result == errors(no_exit, "error\n");
        const bool is_success = result == output(std::string(300, '\0'));
        // One failing read of output is made up for by the next one, and an end of the command that waitpid did not
        // see was seen by the handler.
        if (!trial.fired())
            EXPECT_TRUE(is_success) << result;
        else
            EXPECT_TRUE(is_failure || is_success) << result;
        forget_raised();
        reopen_context();
        EXPECT_EQ(run("echo next"), output("next\n"));
    });
}

TEST_F(Command, lack_of_memory_loses_no_memory_and_frees_the_lock) {
    fault::for_each(Call::allocation, [](fault::Trial &trial) {
        reopen_context();
        trial.arm();
        const Result result = run("head -c 600 /dev/zero; echo error >&2");
        trial.disarm();
        EXPECT_EQ(result, trial.fired() ? nothing(0) : output(std::string(600, '\0')));
        EXPECT_FALSE(is_locked(mutex_iop));
        expect_nothing_raised();
    });
}

TEST_F(Command, a_context_process_without_memory_for_a_long_text_says_5) {
    {
        const Armed armed(Call::allocation, 1);
        EXPECT_EQ(run("echo output #" + std::string(5000, 'x')), nothing(5));
    }
    EXPECT_TRUE(Armed::fired());
    EXPECT_FALSE(is_locked(mutex_iop));
}

} // namespace
