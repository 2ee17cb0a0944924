// The context process: its descriptors, its command loop and its failures.
#include <fstream>

#include "context/context_support.h"
#include "support/fault.h"
#include "support/sanitized.h"

namespace {

using context::context_process;
using context::descriptors_of;
using context::kept_descriptors;
using context::run;
using context::shared;
using context::Texts;
using fault::Call;
using Words = std::vector<int32_t>;

using ContextProcess = context::Fixture;
using ContextLoopFailures = context::Fixture;

/// A fifo, with which a command is held up until the test lets it go on.
class Gate {
public:
    Gate() {
        std::snprintf(path_, sizeof path_, "/tmp/qzfi-gate-XXXXXX");
        EXPECT_NE(mkdtemp(path_), nullptr);
        fifo_ = std::string(path_) + "/fifo";
        EXPECT_EQ(mkfifo(fifo_.c_str(), 0600), 0);
    }
    ~Gate() {
        unlink(fifo_.c_str());
        rmdir(path_);
    }
    /// A command text that waits.
    std::string wait() const { return ": < " + fifo_; }
    /// Lets the command go on, once it waits.
    void open() const { close(::open(fifo_.c_str(), O_WRONLY)); }

private:
    char path_[64];
    std::string fifo_;
};

/// Creates a context and waits until its process waits for a frame.
void create_idle() {
    ASSERT_EQ(qzfi_create_context(), 0u);
    ASSERT_TRUE(context::wait_until([] { return context::state_of(context_process()) == 'S'; }));
}

TEST_F(ContextProcess, only_its_own_descriptors_are_open) {
    const int inherited = dup(2);
    const int high = fcntl(2, F_DUPFD, 700);
    ASSERT_EQ(qzfi_create_context(), 0u);
    EXPECT_EQ(descriptors_of(context_process()), kept_descriptors());
    EXPECT_EQ(kept_descriptors().size(), 6u);
    EXPECT_EQ(shared().limit_queries, 0);
    close(inherited);
    close(high);
}

TEST_F(ContextProcess, the_sweep_by_limit_leaves_the_same_set) {
    for (int nth = 1; nth <= 2; ++nth) {
        const int high = fcntl(2, F_DUPFD, 700);
        const int queries = shared().limit_queries;
        {
            const fault::Armed armed(Call::opendir, nth);
            ASSERT_EQ(qzfi_create_context(), 0u);
        }
        EXPECT_EQ(descriptors_of(context_process()), kept_descriptors());
        EXPECT_EQ(shared().limit_queries, queries + 1);
        EXPECT_EQ(shared().limit_command, 4);
        EXPECT_EQ(run("exit 8"), 8);
        EXPECT_EQ(qzfi_close_context(), 0);
        close(high);
    }
}

TEST_F(ContextProcess, a_listing_that_fails_in_any_call_leads_to_the_sweep_by_limit) {
    fault::for_each(Call::readdir, [](fault::Trial &trial) {
        const int queries = shared().limit_queries;
        trial.arm();
        ASSERT_EQ(qzfi_create_context(), 0u);
        trial.disarm();
        EXPECT_EQ(shared().limit_queries, queries + (trial.fired() ? 1 : 0));
        EXPECT_EQ(descriptors_of(context_process()), kept_descriptors());
        EXPECT_EQ(qzfi_close_context(), 0);
    });
}

TEST_F(ContextProcess, a_limit_of_a_thousand_million_is_swept_at_once) {
    shared().limit = 1000000000;
    const fault::Armed armed(Call::opendir, 1);
    ASSERT_EQ(qzfi_create_context(), 0u);
    EXPECT_EQ(descriptors_of(context_process()), kept_descriptors());
}

TEST_F(ContextProcess, the_sweep_closes_below_the_limit_and_nothing_from_it_on) {
    const int below = fcntl(2, F_DUPFD, 699);
    const int at = fcntl(2, F_DUPFD, 700);
    ASSERT_EQ(at, 700);
    shared().limit = 700;
    {
        const fault::Armed armed(Call::opendir, 1);
        ASSERT_EQ(qzfi_create_context(), 0u);
    }
    context::Descriptors expected = kept_descriptors();
    expected.insert(at);
    EXPECT_EQ(descriptors_of(context_process()), expected);
    close(below);
    close(at);
}

TEST_F(ContextProcess, a_limit_of_0_or_an_unknown_one_closes_nothing) {
    for (const long limit : {0L, -1L}) {
        shared().limit = limit;
        const int inherited = dup(2);
        {
            const fault::Armed armed(Call::opendir, 1);
            ASSERT_EQ(qzfi_create_context(), 0u);
        }
        context::Descriptors expected = before();
        expected.insert({inherited, 1, 2});
        for (int slot = 0; slot < QFI_CONTEXT_PID; ++slot)
            expected.insert(command_iop[slot]);
        EXPECT_EQ(descriptors_of(context_process()), expected);
        EXPECT_EQ(qzfi_close_context(), 0);
        close(inherited);
    }
}

TEST_F(ContextProcess, closeall_moves_pipes_off_the_standard_descriptors_first) {
    EXPECT_TRUE(context::passes_in_own_process([] {
        int ends[8];
        for (int pair = 0; pair < 8; pair += 2)
            ASSERT_EQ(pipe(ends + pair), 0);
        // As a host would have it that closed all three: command 0, status 1, output 2, and the output end on 1 again.
        int32_t record[QFI_CONTEXT_SLOTS] = {0, ends[1], ends[2], 1, ends[4], 2, ends[6], ends[7], 0};
        const std::string command = context::target_of(getpid(), ends[0]);
        const std::string status = context::target_of(getpid(), ends[3]);
        const std::string output = context::target_of(getpid(), ends[5]);
        const std::string error = context::target_of(getpid(), ends[7]);
        dup2(ends[0], 0);
        dup2(ends[3], 1);
        dup2(ends[5], 2);
        qzfi_closeall(record);
        EXPECT_EQ(descriptors_of(getpid()), (context::Descriptors{1, 2, record[0], record[3], record[5], record[7]}));
        EXPECT_EQ(context::target_of(getpid(), record[0]), command);
        EXPECT_EQ(context::target_of(getpid(), record[3]), status);
        EXPECT_EQ(context::target_of(getpid(), record[5]), output);
        EXPECT_EQ(context::target_of(getpid(), record[7]), error);
        EXPECT_EQ(context::target_of(getpid(), 1), output);
        EXPECT_EQ(context::target_of(getpid(), 2), error);
        EXPECT_EQ(fcntl(record[0], F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(fcntl(record[3], F_GETFD), FD_CLOEXEC);
        for (const int passed_on : {1, 2, record[5], record[7]})
            EXPECT_EQ(fcntl(passed_on, F_GETFD), 0);
    }));
}

TEST_F(ContextProcess, the_list_names_the_open_descriptors_and_that_of_the_listing) {
    const int high = fcntl(2, F_DUPFD, 600);
    int32_t *list = nullptr;
    int32_t count = -1;
    ASSERT_EQ(qzfi_get_open_fd_list(&list, &count), 0u);
    const context::Descriptors listed(list, list + count);
    EXPECT_EQ(listed.size(), static_cast<size_t>(count));
    context::Descriptors expected = descriptors_of(getpid());
    EXPECT_EQ(expected.count(600), 1u);
    for (const int fd : listed)
        if (fcntl(fd, F_GETFD) == -1)
            expected.insert(fd); // the listing's own, closed by now
    EXPECT_EQ(expected.size(), descriptors_of(getpid()).size() + 1);
    EXPECT_EQ(listed, expected);
    free(list);
    close(high);
}

TEST_F(ContextProcess, the_list_fails_with_1_in_every_call_that_can_fail) {
    for (const Call call : {Call::opendir, Call::readdir, Call::allocation}) {
        fault::for_each(call, [](fault::Trial &trial) {
            int32_t *list = nullptr;
            int32_t count = -7;
            trial.arm();
            const uint32_t status = qzfi_get_open_fd_list(&list, &count);
            trial.disarm();
            EXPECT_EQ(status, trial.fired() ? 1u : 0u);
            EXPECT_EQ(list == nullptr, trial.fired());
            EXPECT_EQ(count == -7, trial.fired());
            free(list);
        });
    }
}

TEST_F(ContextProcess, the_list_fails_with_1_when_the_second_pass_finds_more) {
    int32_t *list = nullptr;
    int32_t count = -7;
    shared().opened_by_listing = 600;
    EXPECT_EQ(qzfi_get_open_fd_list(&list, &count), 1u);
    EXPECT_EQ(shared().opened_by_listing, -1);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(count, -7);
    EXPECT_EQ(close(600), 0);
}

TEST_F(ContextProcess, exit_codes_arrive_as_they_are) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    for (const int code : {0, 1, 3, 5, 11, 127, 255})
        EXPECT_EQ(run("exit " + std::to_string(code)), code);
    EXPECT_EQ(context::reported(), Texts{});
}

TEST_F(ContextProcess, a_command_killed_by_a_signal_is_an_abend_with_code_minus_1) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    for (const char *const text : {"kill -9 $$", "kill -SEGV $$"})
        EXPECT_EQ(run(text), -1);
    EXPECT_EQ(context::reported(), (Texts{"qzfi_doshell: shell abend\n", "qzfi_doshell: shell abend\n"}));
    EXPECT_EQ(shared().report[0].severity, 3u);
    EXPECT_NE(shared().report[0].process, getpid());
    EXPECT_EQ(context::take_recorded(), Texts{}); // what the context process records is lost to the host
    EXPECT_EQ(run("exit 3"), 3);
}

TEST_F(ContextProcess, the_exit_code_is_right_also_when_the_handler_reaps_first) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    shared().is_handler_first = true;
    EXPECT_EQ(run("exit 7"), 7);
    EXPECT_EQ(run("exit 0"), 0);
    EXPECT_EQ(run("kill -9 $$"), -1);
    EXPECT_EQ(context::reported(), Texts{"qzfi_doshell: shell abend\n"});
    EXPECT_EQ(run("exit 9"), 9);
}

TEST_F(ContextProcess, the_exit_code_is_right_also_when_the_handler_comes_late) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    shared().is_handler_late = true;
    EXPECT_EQ(run("kill -9 $$"), -1);
    EXPECT_EQ(run("exit 7"), 7);
    EXPECT_EQ(run("kill -9 $$"), -1);
    EXPECT_EQ(context::reported(), (Texts{"qzfi_doshell: shell abend\n", "qzfi_doshell: shell abend\n"}));
}

TEST_F(ContextProcess, many_short_commands_keep_their_exit_codes) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    for (int code = 0; code < 100; ++code)
        EXPECT_EQ(run("exit " + std::to_string(code)), code);
    EXPECT_EQ(context::children_of(context_process()), std::vector<pid_t>{});
}

TEST_F(ContextProcess, each_command_pauses_two_seconds_before_the_shell) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    EXPECT_EQ(shared().sleeps, 0);
    EXPECT_EQ(run("exit 1"), 1);
    EXPECT_EQ(shared().sleeps, 1);
    EXPECT_EQ(shared().slept_seconds, 2u);
    EXPECT_EQ(run("exit 1"), 1);
    EXPECT_EQ(shared().sleeps, 2);
    EXPECT_EQ(shared().slept_seconds, 4u);
}

TEST_F(ContextProcess, a_command_has_the_output_pipes_and_no_other_end) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    context::send_command("echo; exec sleep 1000");
    EXPECT_EQ(context::read_pipe(command_iop[QFI_CONTEXT_OUTPUT_READ], 1), "\n");
    const std::vector<pid_t> commands = context::children_of(context_process());
    ASSERT_EQ(commands.size(), 1u);
    const context::Descriptors expected{1, 2, command_iop[QFI_CONTEXT_OUTPUT_WRITE],
                                        command_iop[QFI_CONTEXT_ERROR_WRITE]};
    // A program that is just starting has its libraries open for a moment.
    EXPECT_TRUE(context::wait_until([&] { return descriptors_of(commands[0]) == expected; }));
    EXPECT_EQ(context::target_of(commands[0], 1), context::target_of(getpid(), command_iop[QFI_CONTEXT_OUTPUT_READ]));
    EXPECT_EQ(context::target_of(commands[0], 2), context::target_of(getpid(), command_iop[QFI_CONTEXT_ERROR_READ]));
    kill(commands[0], SIGKILL);
    EXPECT_EQ(context::next_word(), -1);
}

TEST_F(ContextProcess, a_command_starts_with_default_signals_and_none_blocked) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    EXPECT_EQ(run("kill -PIPE $$"), -1); // ignored in the context process, not in the command
    EXPECT_EQ(run("grep -c -E '^Sig(Blk|Ign):.0{16}$' /proc/self/status"), 0);
    EXPECT_EQ(context::read_pipe(command_iop[QFI_CONTEXT_OUTPUT_READ], 2), "2\n");
}

TEST_F(ContextProcess, a_text_of_4096_bytes_needs_no_memory_and_one_of_4097_does) {
    for (const size_t length : {size_t{4096}, size_t{4097}}) {
        SCOPED_TRACE(length);
        std::string text = "exit 5 #";
        text.resize(length - 1, 'x');
        create_idle();
        EXPECT_EQ(run(text), 5);
        const fault::Armed armed(Call::allocation, 1);
        context::send_command(text);
        if (length == 4096) {
            EXPECT_EQ(context::next_word(), 5);
            EXPECT_FALSE(fault::Armed::fired());
        } else {
            EXPECT_EQ(context::remaining_words(), (Words{5, 0}));
            EXPECT_TRUE(fault::Armed::fired());
            EXPECT_EQ(context::exit_code_of(context_process()), 0);
        }
        EXPECT_EQ(context::reported(), Texts{});
        EXPECT_EQ(qzfi_close_context(), 0);
    }
}

TEST_F(ContextProcess, long_and_short_texts_may_follow_each_other) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    const std::string padding(60000, 'y');
    EXPECT_EQ(run("exit 4 #" + padding), 4);
    EXPECT_EQ(run("exit 6"), 6);
    EXPECT_EQ(run("echo " + padding + " | wc -c | grep -qx 60001"), 0);
}

TEST_F(ContextProcess, a_text_that_the_system_cannot_pass_to_the_shell_ends_its_process_at_once) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    EXPECT_EQ(run("exit 0 #" + std::string(1 << 20, 'z')), 127);
    EXPECT_EQ(run("exit 4"), 4);
}

TEST_F(ContextProcess, a_text_ends_with_its_frame) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    context::send_frame(0, "", 0);
    EXPECT_EQ(context::next_word(), 0);
    EXPECT_EQ(run(""), 0);
    context::send_frame(7, "exit 23", 7); // no terminator
    EXPECT_EQ(context::next_word(), 23);
    EXPECT_EQ(run("exit 3 # after it, nothing of the longer text before is left"), 3);
    context::send_frame(6, "exit 4", 6);
    EXPECT_EQ(context::next_word(), 4);
    for (const size_t length : {size_t{4096}, size_t{4097}, size_t{5000}}) {
        const std::string full = std::string(length - 7, ' ') + "exit 19";
        context::send_frame(full.size(), full.data(), full.size());
        EXPECT_EQ(context::next_word(), 19) << length;
    }
}

TEST_F(ContextProcess, a_length_that_no_memory_can_hold_is_status_5) {
    if (is_sanitized)
        GTEST_SKIP() << "a sanitizer ends the process instead";
    for (const uint64_t length : {UINT64_MAX, UINT64_MAX - 1, UINT64_MAX / 2}) {
        ASSERT_EQ(qzfi_create_context(), 0u);
        context::send_frame(length, "", 0);
        EXPECT_EQ(context::remaining_words(), (Words{5, 0})) << length;
        EXPECT_EQ(context::exit_code_of(context_process()), 0);
        EXPECT_EQ(qzfi_close_context(), 0);
    }
    EXPECT_EQ(context::reported(), Texts{});
}

TEST_F(ContextProcess, a_frame_may_arrive_byte_by_byte) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    const uint64_t length = 8;
    char frame[16];
    std::memcpy(frame, &length, sizeof length);
    std::memcpy(frame + 8, "exit 44", 8);
    for (const char &byte : frame) {
        ASSERT_EQ(syscall(SYS_write, command_iop[QFI_CONTEXT_COMMAND_WRITE], &byte, 1), 1);
        EXPECT_TRUE(context::wait_until([] { return context::state_of(context_process()) == 'S'; }));
    }
    EXPECT_EQ(context::next_word(), 44);
}

TEST_F(ContextProcess, the_hosts_buffered_text_and_exit_handlers_stay_with_the_host) {
    char path[] = "/tmp/qzfi-stdio-XXXXXX";
    const int file = mkstemp(path);
    ASSERT_NE(file, -1);
    const pid_t host = fork();
    if (host == 0) {
        dup2(file, 1);
        std::atexit([] { ++shared().counter; });
        static char buffer[4096];
        std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
        std::fputs("unflushed", stdout);
        EXPECT_EQ(qzfi_create_context(), 0u);
        EXPECT_EQ(run("exit 3"), 3);
        EXPECT_EQ(run("kill -9 $$"), -1);
        kill(context_process(), SIGIO);
        EXPECT_EQ(context::exit_code_of(context_process()), 0);
        EXPECT_EQ(context::read_pipe(command_iop[QFI_CONTEXT_OUTPUT_READ], 100), "");
        EXPECT_EQ(context::read_pipe(command_iop[QFI_CONTEXT_ERROR_READ], 100), "");
        EXPECT_EQ(shared().counter, 0);
        qzfi_close_context();
        std::fflush(stdout);
        std::exit(testing::Test::HasFailure() ? 1 : 0);
    }
    EXPECT_EQ(context::exit_code_of(host), 0);
    waitpid(host, nullptr, 0);
    EXPECT_EQ(shared().counter, 1);
    std::ifstream written(path);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(written), {}), "unflushed"); // and no failure of the host's

    close(file);
    unlink(path);
}

TEST_F(ContextLoopFailures, a_command_that_cannot_be_forked_ends_the_process) {
    create_idle();
    const fault::Armed armed(Call::fork, 1);
    context::send_command("exit 1");
    EXPECT_EQ(context::remaining_words(), (Words{11, 0}));
    EXPECT_EQ(context::exit_code_of(context_process()), 0);
    EXPECT_EQ(context::reported(), Texts{"qzfi_doshell: couldn't fork\n"});
}

TEST_F(ContextLoopFailures, a_report_needs_no_process_of_its_own) {
    create_idle();
    const fault::Armed armed(Call::fork, 1, {EAGAIN, true});
    context::send_command("exit 1");
    EXPECT_EQ(context::remaining_words(), (Words{11, 0}));
    EXPECT_EQ(context::exit_code_of(context_process()), 0);
    EXPECT_EQ(context::reported(), Texts{"qzfi_doshell: couldn't fork\n"});
    EXPECT_EQ(shared().report[0].process, context_process());
}

TEST_F(ContextLoopFailures, a_report_that_never_returns_costs_a_second_and_not_the_process) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    shared().is_handler_blocking = true;
    EXPECT_EQ(run("kill -9 $$"), -1);
    EXPECT_EQ(shared().blocked_handlers, 1);
    EXPECT_EQ(context::children_of(context_process()), std::vector<pid_t>{});
    EXPECT_EQ(run("exit 8"), 8);
}

TEST_F(ContextLoopFailures, a_report_that_never_returns_ends_a_process_that_cannot_fork) {
    create_idle();
    shared().is_handler_blocking = true;
    const fault::Armed armed(Call::fork, 1, {EAGAIN, true});
    context::send_command("exit 1");
    EXPECT_EQ(context::remaining_words(), (Words{11, 0}));
    EXPECT_EQ(context::exit_code_of(context_process()), 0);
    EXPECT_EQ(shared().blocked_handlers, 1);
}

TEST_F(ContextLoopFailures, an_exit_code_that_cannot_be_written_ends_the_process) {
    const Gate gate;
    ASSERT_EQ(qzfi_create_context(), 0u);
    context::send_command(gate.wait());
    const fault::Armed armed(Call::write, 1);
    gate.open();
    EXPECT_EQ(context::remaining_words(), (Words{11, 0}));
    EXPECT_EQ(context::exit_code_of(context_process()), 0);
    EXPECT_EQ(context::reported(), Texts{"qzfi_doshell: status write failed\n"});
}

TEST_F(ContextLoopFailures, a_host_that_closed_its_status_end_gets_both_messages_and_no_signal_kills_the_process) {
    const Gate gate;
    ASSERT_EQ(qzfi_create_context(), 0u);
    context::send_command(gate.wait());
    close(command_iop[QFI_CONTEXT_STATUS_READ]);
    command_iop[QFI_CONTEXT_STATUS_READ] = -1;
    gate.open();
    EXPECT_EQ(context::exit_code_of(context_process()), 0);
    EXPECT_EQ(context::reported(),
              (Texts{"qzfi_doshell: status write failed\n", "qzfi_child_process: status write failed\n"}));
}

TEST_F(ContextLoopFailures, a_length_that_cannot_be_read_ends_the_process) {
    create_idle();
    const fault::Armed armed(Call::read, 2); // the first is that of the text; the length was asked for before
    EXPECT_EQ(run("exit 6"), 6);
    EXPECT_EQ(context::remaining_words(), (Words{3070, 0}));
    EXPECT_EQ(context::exit_code_of(context_process()), 0);
    EXPECT_EQ(context::reported(), Texts{"qzfi_child_process: read size error\n"});
}

TEST_F(ContextLoopFailures, what_arrived_of_a_text_is_run_and_its_rest_is_never_a_command) {
    create_idle();
    const fault::ShortTransfers six(6);
    const fault::Armed armed(Call::read, 2); // of the text's reads
    context::send_command("exit 7; exit 9");
    EXPECT_EQ(context::next_word(), 7);
    EXPECT_EQ(context::reported(), Texts{"qzfi_child_process: read size error\n"});
    EXPECT_EQ(run("exit 5"), 5);
}

TEST_F(ContextLoopFailures, a_text_of_which_nothing_can_be_read_is_run_empty_before_the_end) {
    create_idle();
    const fault::Armed armed(Call::read, 1, {EIO, true});
    context::send_command("exit 7");
    EXPECT_EQ(context::remaining_words(), (Words{0, 3070, 0}));
    EXPECT_EQ(context::exit_code_of(context_process()), 0);
    EXPECT_EQ(context::reported(),
              (Texts{"qzfi_child_process: read size error\n", "qzfi_child_process: read size error\n"}));
}

TEST_F(ContextLoopFailures, a_final_word_that_cannot_be_written_is_reported) {
    create_idle();
    close(command_iop[QFI_CONTEXT_STATUS_READ]);
    command_iop[QFI_CONTEXT_STATUS_READ] = -1;
    const fault::Armed armed(Call::allocation, 1);
    context::send_command("exit 0 #" + std::string(4096, 'x'));
    EXPECT_EQ(context::exit_code_of(context_process()), 0);
    EXPECT_EQ(context::reported(), Texts{"qzfi_child_process: status write failed\n"});
}

TEST_F(ContextLoopFailures, failures_are_recorded_in_the_processs_own_list_with_the_messages_id) {
    static qfi_handler handler{[](qfi_handler *, const char *, const char *, uint32_t) {
                                   // The list as it was before this failure.
                                   if (context::take_recorded() == Texts{"MSG_QFI_UTIL_E0051"})
                                       ++shared().counter;
                               },
                               nullptr, nullptr, nullptr};
    util_ehandler = &handler;
    ASSERT_EQ(qzfi_create_context(), 0u);
    EXPECT_EQ(run("kill -9 $$"), -1);
    EXPECT_EQ(shared().counter, 0);
    EXPECT_EQ(run("kill -9 $$"), -1);
    EXPECT_EQ(shared().counter, 1);
}

TEST_F(ContextLoopFailures, failures_are_raised_in_a_process_that_inherited_held_locks) {
    // The process runs in a child of this test, whose exit status is seen here.
    int ends[8];
    for (int pair = 0; pair < 8; pair += 2)
        ASSERT_EQ(pipe(ends + pair), 0);
    int32_t record[QFI_CONTEXT_SLOTS] = {};
    std::copy(ends, ends + 8, record);
    pthread_mutex_lock(&err_mutex);
    pthread_mutex_lock(&hl_err_mutex);
    qzfi::context_host = getpid();
    const pid_t process = fork();
    if (process == 0)
        qzfi_child_process(record);
    pthread_mutex_unlock(&hl_err_mutex);
    pthread_mutex_unlock(&err_mutex);
    int32_t word = -1;
    EXPECT_EQ(read(ends[2], &word, sizeof word), ssize_t{sizeof word});
    EXPECT_EQ(word, 0);
    const uint64_t length = 11;
    EXPECT_EQ(write(ends[1], &length, sizeof length), ssize_t{sizeof length});
    EXPECT_EQ(write(ends[1], "kill -9 $$", 11), 11);
    EXPECT_EQ(read(ends[2], &word, sizeof word), ssize_t{sizeof word});
    EXPECT_EQ(word, -1);
    EXPECT_EQ(context::reported(), Texts{"qzfi_doshell: shell abend\n"});
    kill(process, SIGIO);
    int status = -1;
    EXPECT_EQ(waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
    for (const int end : ends)
        close(end);
}

} // namespace
