// Creating, counting and closing.
#include "context/context_support.h"
#include "support/fault.h"
#include "util/qzfiutil_pipe.h"

namespace {

using context::descriptors_of;
using context::Texts;
using fault::Call;

using ContextLife = context::Fixture;
using ContextFailures = context::Fixture;

constexpr const char pipe_text[] = "qzfi_create_context: couldn't create pipe\n";
constexpr const char *pipe_ids[] = {"MSG_QFI_UTIL_E0054", "MSG_QFI_UTIL_E0055", "MSG_QFI_UTIL_E0056",
                                    "MSG_QFI_UTIL_E0057"};

bool is_free(pthread_mutex_t &lock) {
    bool result = false;
    std::thread([&] {
        result = pthread_mutex_trylock(&lock) == 0;
        if (result)
            pthread_mutex_unlock(&lock);
    }).join();
    return result;
}

/// A creation that failed before there was a process: a handle without a single live descriptor number.
void expect_dead_record() {
    ASSERT_NE(command_iop, nullptr);
    for (int slot = 0; slot < QFI_CONTEXT_PID; ++slot)
        EXPECT_EQ(command_iop[slot], -1) << slot;
    EXPECT_LE(command_iop[QFI_CONTEXT_PID], 0);
    EXPECT_EQ(reference_count_context, 0u);
    void *handle = nullptr;
    EXPECT_EQ(qzfi_get_iop(&handle), 0u);
    EXPECT_EQ(handle, command_iop);
}

/// A context that works: it runs a command and ends.
void expect_usable_context() {
    ASSERT_EQ(qzfi_create_context(), 0u);
    EXPECT_EQ(reference_count_context, 1u);
    EXPECT_EQ(context::run("exit 6"), 6);
    EXPECT_EQ(qzfi_close_context(), 0);
    EXPECT_EQ(command_iop, nullptr);
}

TEST_F(ContextLife, create_makes_a_child_process_and_counts_one_user) {
    EXPECT_EQ(qzfi_create_context(), 0u);
    EXPECT_EQ(reference_count_context, 1u);
    ASSERT_NE(command_iop, nullptr);
    EXPECT_EQ(context::children_of(getpid()), std::vector<pid_t>{context::context_process()});
    EXPECT_TRUE(is_free(mutex));
    EXPECT_TRUE(is_free(mutex_iop));
    EXPECT_EQ(context::reported(), Texts{});
}

TEST_F(ContextLife, the_host_keeps_four_ends_that_commands_of_its_own_do_not_inherit) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    context::Descriptors expected = before();
    for (const int slot :
         {QFI_CONTEXT_COMMAND_WRITE, QFI_CONTEXT_STATUS_READ, QFI_CONTEXT_OUTPUT_READ, QFI_CONTEXT_ERROR_READ}) {
        expected.insert(command_iop[slot]);
        EXPECT_EQ(fcntl(command_iop[slot], F_GETFD), FD_CLOEXEC) << slot;
    }
    EXPECT_EQ(descriptors_of(getpid()), expected);
    EXPECT_EQ(expected.size(), before().size() + 4);
}

TEST_F(ContextLife, each_pipe_connects_the_slots_of_its_pair) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    const pid_t process = context::context_process();
    const struct {
        int host, process;
    } pairs[] = {{QFI_CONTEXT_COMMAND_WRITE, QFI_CONTEXT_COMMAND_READ},
                 {QFI_CONTEXT_STATUS_READ, QFI_CONTEXT_STATUS_WRITE},
                 {QFI_CONTEXT_OUTPUT_READ, QFI_CONTEXT_OUTPUT_WRITE},
                 {QFI_CONTEXT_ERROR_READ, QFI_CONTEXT_ERROR_WRITE}};
    std::set<std::string> pipes;
    for (const auto &pair : pairs) {
        const std::string target = context::target_of(getpid(), command_iop[pair.host]);
        EXPECT_EQ(target.substr(0, 5), "pipe:");
        EXPECT_EQ(context::target_of(process, command_iop[pair.process]), target);
        pipes.insert(target);
    }
    EXPECT_EQ(pipes.size(), 4u);
    EXPECT_EQ(context::target_of(process, 1), context::target_of(getpid(), command_iop[QFI_CONTEXT_OUTPUT_READ]));
    EXPECT_EQ(context::target_of(process, 2), context::target_of(getpid(), command_iop[QFI_CONTEXT_ERROR_READ]));
}

TEST_F(ContextLife, the_handshake_takes_the_ready_word_and_nothing_else) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    EXPECT_EQ(context::pending_on(QFI_CONTEXT_STATUS_READ), 0);
    EXPECT_EQ(context::run("exit 4"), 4);
    EXPECT_EQ(context::pending_on(QFI_CONTEXT_STATUS_READ), 0);
    EXPECT_EQ(context::pending_on(QFI_CONTEXT_OUTPUT_READ), 0);
    EXPECT_EQ(context::pending_on(QFI_CONTEXT_ERROR_READ), 0);
}

TEST_F(ContextLife, a_second_create_counts_and_two_closes_end_it) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    int32_t *const record = command_iop;
    const pid_t process = context::context_process();
    {
        const fault::Armed no_fork(Call::fork, 1);
        const fault::Armed no_pipe(Call::pipe, 1);
        EXPECT_EQ(qzfi_create_context(), 0u);
        EXPECT_FALSE(fault::Armed::fired());
    }
    EXPECT_EQ(command_iop, record);
    EXPECT_EQ(context::context_process(), process);
    EXPECT_EQ(reference_count_context, 2u);

    EXPECT_EQ(qzfi_close_context(), 0);
    EXPECT_EQ(reference_count_context, 1u);
    EXPECT_EQ(command_iop, record);
    EXPECT_EQ(context::run("exit 3"), 3);
    EXPECT_TRUE(is_free(mutex_iop));

    EXPECT_EQ(qzfi_close_context(), 0);
    EXPECT_EQ(reference_count_context, 0u);
    EXPECT_EQ(command_iop, nullptr);
    EXPECT_TRUE(context::is_gone(process));
}

TEST_F(ContextLife, nothing_is_left_after_the_last_close_and_a_new_context_works) {
    for (int round = 0; round < 5; ++round) {
        ASSERT_EQ(qzfi_create_context(), 0u);
        const pid_t process = context::context_process();
        EXPECT_EQ(qzfi_close_context(), 0);
        EXPECT_TRUE(context::is_gone(process));
        EXPECT_EQ(descriptors_of(getpid()), before());
    }
    expect_usable_context();
}

TEST_F(ContextLife, there_is_no_handle_before_create_and_after_the_last_close) {
    const auto expect_none = [] {
        int untouched = 0;
        void *handle = &untouched;
        EXPECT_EQ(qzfi_get_iop(&handle), 3u);
        EXPECT_EQ(handle, &untouched);
        EXPECT_EQ(qzfi_is_child_context(), 0);
        EXPECT_EQ(qzfi_unlock_iop(nullptr), 3u);
        EXPECT_EQ(qzfi_unlock_iop(&untouched), 3u);
    };
    expect_none();
    ASSERT_EQ(qzfi_create_context(), 0u);
    EXPECT_EQ(qzfi_close_context(), 0);
    expect_none();
}

TEST_F(ContextLife, the_handle_is_the_record) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    void *handle = nullptr;
    EXPECT_EQ(qzfi_get_iop(&handle), 0u);
    EXPECT_EQ(handle, command_iop);
    EXPECT_EQ(qzfi_get_iop(nullptr), 3u);
    EXPECT_EQ(qzfi_is_child_context(), 1);
}

TEST_F(ContextLife, unlock_releases_for_the_handle_and_for_nothing_else) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    int other = 0;
    pthread_mutex_lock(&mutex_iop);
    EXPECT_EQ(qzfi_unlock_iop(nullptr), 3u);
    EXPECT_EQ(qzfi_unlock_iop(&other), 3u);
    EXPECT_FALSE(is_free(mutex_iop));
    EXPECT_EQ(qzfi_unlock_iop(command_iop), 0u);
    EXPECT_TRUE(is_free(mutex_iop));
}

TEST_F(ContextLife, closing_without_a_context_does_nothing_however_often) {
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(qzfi_close_context(), 0);
        EXPECT_EQ(reference_count_context, 0u);
        EXPECT_EQ(command_iop, nullptr);
    }
    ASSERT_EQ(qzfi_create_context(), 0u);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(qzfi_close_context(), 0);
        EXPECT_EQ(reference_count_context, 0u);
    }
    EXPECT_TRUE(is_free(mutex_iop));
    expect_usable_context();
}

TEST_F(ContextLife, create_runs_under_the_utility_lock_and_not_under_that_of_the_pipes) {
    static std::atomic<int> utility_lock{0};
    static std::atomic<int> pipe_lock{0};
    static std::atomic<bool> is_observed{true};
    pthread_atfork(
        [] {
            if (!is_observed)
                return;
            utility_lock = pthread_mutex_trylock(&mutex);
            pipe_lock = pthread_mutex_trylock(&mutex_iop);
            if (pipe_lock == 0)
                pthread_mutex_unlock(&mutex_iop);
        },
        nullptr, nullptr);
    const uint32_t status = qzfi_create_context();
    is_observed = false;
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(utility_lock, EBUSY);
    EXPECT_EQ(pipe_lock, 0);
}

TEST_F(ContextLife, close_waits_for_the_exchange_of_another_thread) {
    ASSERT_EQ(qzfi_create_context(), 0u);
    pthread_mutex_lock(&mutex_iop);
    std::atomic<pid_t> closer{0};
    std::thread thread([&] {
        closer = gettid();
        EXPECT_EQ(qzfi_close_context(), 0);
    });
    EXPECT_TRUE(context::wait_until([&] { return closer != 0 && context::state_of(closer) == 'S'; }));
    EXPECT_EQ(reference_count_context, 1u);
    EXPECT_EQ(context::run("exit 2"), 2);
    EXPECT_EQ(qzfi_unlock_iop(command_iop), 0u);
    thread.join();
    EXPECT_EQ(command_iop, nullptr);
}

TEST_F(ContextLife, the_locks_are_usable_before_the_first_create_and_after_the_last_close) {
    EXPECT_TRUE(is_free(mutex_iop));
    expect_usable_context();
    EXPECT_TRUE(is_free(mutex_iop));
}

TEST_F(ContextLife, a_host_that_closed_standard_descriptors_keeps_them_closed) {
    for (int closed = 1; closed < 8; ++closed) {
        SCOPED_TRACE(closed);
        EXPECT_TRUE(context::passes_in_own_process([closed] {
            for (int fd = 0; fd < 3; ++fd)
                if ((closed & (1 << fd)) != 0)
                    close(fd);
            const context::Descriptors open = descriptors_of(getpid());
            ASSERT_EQ(qzfi_create_context(), 0u);
            for (int slot = 0; slot < QFI_CONTEXT_PID; ++slot)
                EXPECT_GE(command_iop[slot], 3);
            for (int fd = 0; fd < 3; ++fd)
                EXPECT_EQ(fcntl(fd, F_GETFD) == -1, (closed & (1 << fd)) != 0);
            EXPECT_EQ(descriptors_of(context::context_process()), context::kept_descriptors());
            EXPECT_EQ(context::run("echo out; echo err >&2; exit 9"), 9);
            EXPECT_EQ(context::read_pipe(command_iop[QFI_CONTEXT_OUTPUT_READ], 4), "out\n");
            EXPECT_EQ(context::read_pipe(command_iop[QFI_CONTEXT_ERROR_READ], 4), "err\n");
            EXPECT_EQ(qzfi_close_context(), 0);
            EXPECT_EQ(descriptors_of(getpid()), open);
        }));
    }
}

TEST_F(ContextFailures, each_pipe_has_its_message) {
    fault::for_each(Call::pipe, [this](fault::Trial &trial) {
        const int reports = context::shared().reports;
        trial.arm();
        const uint32_t status = qzfi_create_context();
        trial.disarm();
        if (!trial.fired()) {
            EXPECT_EQ(trial.nth(), 5);
            EXPECT_EQ(status, 0u);
            EXPECT_EQ(qzfi_close_context(), 0);
            return;
        }
        EXPECT_EQ(status, 11u);
        expect_dead_record();
        ASSERT_EQ(context::shared().reports, reports + 1);
        EXPECT_STREQ(context::shared().report[reports].text, pipe_text);
        EXPECT_EQ(context::shared().report[reports].severity, 3u);
        EXPECT_EQ(context::take_recorded(), Texts{pipe_ids[trial.nth() - 1]});
        EXPECT_TRUE(is_free(mutex));
        EXPECT_EQ(descriptors_of(getpid()), before());
    });
    expect_usable_context();
}

TEST_F(ContextFailures, a_pipe_whose_ends_cannot_be_prepared_counts_as_failed) {
    fault::for_each(Call::fcntl, [this](fault::Trial &trial) {
        trial.arm();
        const uint32_t status = qzfi_create_context();
        trial.disarm();
        if (trial.nth() > 8) { // the context process's own, which do not matter to the host
            EXPECT_EQ(status, 0u);
            EXPECT_EQ(qzfi_close_context(), 0);
            return;
        }
        EXPECT_EQ(status, 11u);
        expect_dead_record();
        EXPECT_EQ(context::take_recorded(), Texts{pipe_ids[(trial.nth() - 1) / 2]});
        EXPECT_EQ(descriptors_of(getpid()), before());
    });
}

TEST_F(ContextFailures, a_pipe_that_cannot_be_moved_off_a_standard_descriptor_counts_as_failed) {
    EXPECT_TRUE(context::passes_in_own_process([] {
        close(0);
        const context::Descriptors open = descriptors_of(getpid());
        const fault::Armed armed(Call::fcntl, 1);
        EXPECT_EQ(qzfi_create_context(), 11u);
        expect_dead_record();
        EXPECT_EQ(context::take_recorded(), Texts{pipe_ids[0]});
        EXPECT_EQ(descriptors_of(getpid()), open);
    }));
}

TEST_F(ContextFailures, a_failed_fork_has_its_own_message_and_no_other) {
    {
        const fault::Armed armed(Call::fork, 1);
        EXPECT_EQ(qzfi_create_context(), 11u);
        EXPECT_TRUE(fault::Armed::fired());
    }
    expect_dead_record();
    EXPECT_EQ(context::reported(), Texts{"qzfi_create_context: couldn't fork\n"});
    EXPECT_EQ(context::shared().report[0].severity, 3u);
    EXPECT_EQ(context::take_recorded(), Texts{"MSG_QFI_UTIL_E0050"});
    EXPECT_EQ(descriptors_of(getpid()), before());
    EXPECT_TRUE(is_free(mutex));
    sigset_t blocked;
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &blocked), 0);
    EXPECT_EQ(sigismember(&blocked, SIGIO), 0);
    expect_usable_context();
}

TEST_F(ContextFailures, without_memory_the_status_is_5_and_nothing_is_reported) {
    {
        const fault::Armed armed(Call::allocation, 1);
        EXPECT_EQ(qzfi_create_context(), 5u);
        EXPECT_TRUE(fault::Armed::fired());
    }
    EXPECT_EQ(command_iop, nullptr);
    EXPECT_EQ(reference_count_context, 0u);
    EXPECT_EQ(context::reported(), Texts{});
    EXPECT_EQ(context::take_recorded(), Texts{});
    EXPECT_TRUE(is_free(mutex));
    expect_usable_context();
}

TEST_F(ContextFailures, a_failed_handshake_stays_counted) {
    {
        const fault::Armed armed(Call::read, 1, {EIO, true});
        EXPECT_EQ(qzfi_create_context(), 11u);
    }
    EXPECT_EQ(reference_count_context, 1u);
    ASSERT_NE(command_iop, nullptr);
    EXPECT_EQ(context::take_recorded(), Texts{"MSG_QFI_UTIL_E0053"});
    const auto texts = context::reported();
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "qzfi_create_context: read size error\n"), 1);
    EXPECT_TRUE(is_free(mutex));
    EXPECT_EQ(qzfi_close_context(), 0);
    EXPECT_EQ(reference_count_context, 0u);
    expect_usable_context();
}

TEST_F(ContextFailures, a_process_that_cannot_say_that_it_is_ready_reports_and_ends_with_code_0) {
    {
        const fault::Armed armed(Call::write, 1, {EIO, true});
        EXPECT_EQ(qzfi_create_context(), 11u);
        EXPECT_EQ(context::exit_code_of(context::context_process()), 0);
    }
    // The host finds the end of the pipe once the process is gone, so the order is fixed.
    EXPECT_EQ(context::reported(),
              (Texts{"qzfi_child_process: read size error\n", "qzfi_child_process: status write failed\n",
                     "qzfi_create_context: read size error\n"}));
    EXPECT_EQ(context::take_recorded(), Texts{"MSG_QFI_UTIL_E0053"});
    EXPECT_EQ(reference_count_context, 1u);
    EXPECT_EQ(qzfi_close_context(), 0);
}

TEST_F(ContextFailures, the_value_of_the_ready_word_is_not_examined) {
    {
        const fault::Armed armed(Call::write, 1); // the ready word fails, the final 3070 arrives in its place
        EXPECT_EQ(qzfi_create_context(), 0u);
    }
    EXPECT_EQ(context::remaining_words(), std::vector<int32_t>{0}); // the second half of the final word
    EXPECT_EQ(context::reported(), Texts{"qzfi_child_process: read size error\n"});
    EXPECT_EQ(context::exit_code_of(context::context_process()), 0);
}

TEST_F(ContextFailures, the_record_of_a_failed_create_is_freed_by_a_close_or_replaced_by_a_create) {
    const auto fail = [] {
        const fault::Armed armed(Call::pipe, 2);
        EXPECT_EQ(qzfi_create_context(), 11u);
    };
    fail();
    EXPECT_EQ(qzfi_close_context(), 0);
    EXPECT_EQ(command_iop, nullptr);
    EXPECT_EQ(reference_count_context, 0u);
    fail();
    fail();
    expect_usable_context();
}

TEST_F(ContextFailures, the_handler_of_a_failure_may_ask_for_a_context) {
    static qfi_handler handler{[](qfi_handler *, const char *, const char *, uint32_t) {
                                   context::shared().counter = qzfi_create_context() == 0 ? 1 : 2;
                               },
                               nullptr, nullptr, nullptr};
    util_ehandler = &handler;
    const fault::Armed armed(Call::fork, 1);
    EXPECT_EQ(qzfi_create_context(), 11u);
    EXPECT_EQ(context::shared().counter, 1);
    EXPECT_EQ(reference_count_context, 1u);
}

TEST_F(ContextFailures, create_with_transfers_of_one_byte_works) {
    const fault::ShortTransfers one(1);
    expect_usable_context();
}

TEST_F(ContextFailures, no_system_call_of_a_close_that_fails_does_harm) {
    for (const Call call : {Call::close, Call::kill, Call::waitpid}) {
        fault::for_each(call, [](fault::Trial &trial) {
            ASSERT_EQ(qzfi_create_context(), 0u);
            const pid_t process = context::context_process();
            const context::Descriptors ends = {command_iop[1], command_iop[2], command_iop[4], command_iop[6]};
            trial.arm();
            EXPECT_EQ(qzfi_close_context(), 0);
            trial.disarm();
            EXPECT_EQ(command_iop, nullptr);
            EXPECT_EQ(reference_count_context, 0u);
            for (const int end : ends)
                close(end); // what a failed close left
            kill(process, SIGIO);
            EXPECT_TRUE(context::wait_until([process] {
                qzfi::reap_closed_contexts();
                waitpid(process, nullptr, WNOHANG); // what a failed wait gave up
                return context::is_gone(process);
            }));
        });
    }
}

} // namespace
