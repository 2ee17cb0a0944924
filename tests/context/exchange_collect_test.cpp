// Collecting output and exit code through a record whose other side is the test.
#include "context/exchange_support.h"
#include "context/replaced_sleep.h"

#include <sys/resource.h>

using namespace exchange;
using fault::Armed;
using fault::Call;

namespace {

class Collect : public RecordFixture {
protected:
    Collect() {
        pauses = 0;
        signal(SIGPIPE, SIG_DFL);
    }

    /// Runs a command while the other side follows a script that begins when the frame has come.
    Result run_against(const std::function<void()> &script) {
        const Peer peer([&] {
            EXPECT_EQ(next_frame(), std::string("command\0", 8));
            script();
        });
        return run("command");
    }
    /// As above with the n-th of these calls failing. The peer's own calls do not count.
    Result run_failing(Call call, int nth, const std::function<void()> &script) {
        Result result;
        {
            const Peer peer([&] {
                next_frame();
                script();
            });
            const Armed armed(call, nth);
            result = run("command");
        }
        EXPECT_TRUE(Armed::fired());
        EXPECT_FALSE(is_locked(mutex_iop));
        return result;
    }
};

TEST_F(Collect, null_arguments_are_refused_with_nothing_touched) {
    char byte = 'x';
    char *buffer = &byte;
    uint32_t length = 77;
    EXPECT_EQ(qzfi_exec_cmd_in_child_context(nullptr, &buffer, &length), 3u);
    EXPECT_EQ(qzfi_exec_cmd_in_child_context("true", nullptr, &length), 3u);
    EXPECT_EQ(qzfi_exec_cmd_in_child_context("true", &buffer, nullptr), 3u);
    EXPECT_EQ(buffer, &byte);
    EXPECT_EQ(length, 77u);
    EXPECT_FALSE(is_locked(mutex_iop));
    EXPECT_EQ(pending(slot(QFI_CONTEXT_COMMAND_READ)), 0);
    expect_nothing_raised();
}

TEST_F(Collect, without_a_context_the_status_is_3_and_the_buffer_null) {
    __atomic_store_n(&command_iop, nullptr, __ATOMIC_RELEASE);
    char byte = 'x';
    char *buffer = &byte;
    uint32_t length = 77;
    EXPECT_EQ(qzfi_exec_cmd_in_child_context("true", &buffer, &length), 3u);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(length, 77u);
    EXPECT_FALSE(is_locked(mutex_iop));
    expect_nothing_raised();
}

TEST_F(Collect, a_context_that_is_closed_during_the_wait_for_the_lock_is_status_3) {
    Result result;
    close_while_waiting([&] { result = run("command"); });
    EXPECT_EQ(result, nothing(3));
    EXPECT_FALSE(is_locked(mutex_iop));
    EXPECT_EQ(pending(slot(QFI_CONTEXT_COMMAND_READ)), 0);
    expect_nothing_raised();
}

TEST_F(Collect, exit_code_0_gives_the_output_and_others_the_error_output) {
    const struct {
        int32_t code;
        uint32_t status;
    } rows[] = {{1, 1}, {3, 3}, {5, 5}, {11, 11}, {255, 255}, {-1, no_exit}};
    const auto say_both = [this](int32_t code) {
        say(std::string("out\0put", 7));
        complain(std::string("err\0or", 6));
        exit_with(code);
    };
    EXPECT_EQ(run_against([&] { say_both(0); }), output(std::string("out\0put", 7)));
    for (const auto &row : rows)
        EXPECT_EQ(run_against([&] { say_both(row.code); }), errors(row.status, std::string("err\0or", 6)));
    EXPECT_FALSE(is_locked(mutex_iop));
    expect_nothing_raised();
}

TEST_F(Collect, output_of_the_wrong_kind_gives_a_null_buffer) {
    EXPECT_EQ(run_against([this] {
                  complain("a warning");
                  exit_with(0);
              }),
              nothing(0));
    EXPECT_EQ(run_against([this] {
                  say("progress");
                  exit_with(4);
              }),
              nothing(4));
}

TEST_F(Collect, output_that_comes_after_the_exit_code_is_waited_for_when_there_was_none) {
    EXPECT_EQ(run_against([this] {
                  exit_with(0);
                  nap(100);
                  say("late");
              }),
              output("late"));
}

TEST_F(Collect, output_that_comes_after_the_exit_code_is_left_when_there_was_some) {
    EXPECT_EQ(run_against([this] {
                  say("early");
                  EXPECT_TRUE(eventually([this] { return pending(slot(QFI_CONTEXT_OUTPUT_READ)) == 0; }));
                  exit_with(0);
                  EXPECT_TRUE(eventually([this] { return pending(slot(QFI_CONTEXT_STATUS_READ)) == 0; }));
                  nap(50);
                  say("late");
              }),
              output("early"));
    EXPECT_EQ(run_against([this] {
                  say("next");
                  exit_with(0);
              }),
              output("next"));
}

TEST_F(Collect, fragments_are_put_together) {
    const std::string text = pattern(40), complaint = pattern(30);
    EXPECT_EQ(run_against([&] {
                  for (std::size_t index = 0; index < text.size(); index += 10) {
                      say(text.substr(index, 10));
                      nap(3);
                  }
                  for (const char byte : complaint)
                      complain(std::string(1, byte));
                  for (const char byte : {'\x2a', '\0', '\0', '\0'}) {
                      put(slot(QFI_CONTEXT_STATUS_WRITE), std::string(1, byte));
                      nap(3);
                  }
              }),
              errors(42, complaint));
}

TEST_F(Collect, more_than_the_pipes_hold_on_both_at_once_is_collected) {
    const std::string text = pattern(200000), complaint = pattern(150001);
    for (const int code : {0, 9}) {
        const Result result = run_against([&] {
            {
                const Peer complainer([&] { complain(complaint); });
                say(text);
            }
            exit_with(code);
        });
        EXPECT_EQ(result, code == 0 ? output(text) : errors(9, complaint));
    }
    EXPECT_TRUE(pauses_are_two_seconds);
}

TEST_F(Collect, a_pause_follows_each_full_chunk) {
    EXPECT_EQ(run_against([&] {
                  say(pattern(1000));
                  exit_with(0);
              }),
              output(pattern(1000)));
    EXPECT_EQ(pauses, 3);
}

TEST_F(Collect, a_stale_exit_code_is_taken_for_the_next_commands_own) {
    exit_with(7); // of a command that was sent by itself
    EXPECT_EQ(run_against([this] {
                  complain("first");
                  exit_with(0);
              }),
              errors(7, "first"));
    EXPECT_EQ(run_against([this] {
                  say("second");
                  exit_with(3);
              }),
              output("second"));
}

TEST_F(Collect, a_final_word_is_read_as_an_exit_code_and_its_other_half_ends_the_wait) {
    const int32_t final[2] = {3070, 0};
    EXPECT_EQ(run_against([&] {
                  put(slot(QFI_CONTEXT_STATUS_WRITE), final, sizeof final);
                  close_slot(QFI_CONTEXT_STATUS_WRITE);
                  close_slot(QFI_CONTEXT_COMMAND_READ);
              }),
              nothing(3070));
    EXPECT_EQ(pending(slot(QFI_CONTEXT_STATUS_READ)), 4);
    expect_nothing_raised();
    EXPECT_EQ(run("next"), nothing(11));
    expect_raised("MSG_QFI_UTIL_E0059", "qzfi_sendcmd: write size error\n");
}

TEST_F(Collect, the_end_of_the_status_pipe_is_status_11_and_no_wait) {
    EXPECT_EQ(run_against([this] {
                  say("lost");
                  complain("lost");
                  close_slot(QFI_CONTEXT_STATUS_WRITE);
              }),
              nothing(11));
    expect_raised("MSG_QFI_UTIL_E0053", "qzfi_exec_cmd_in_child_context: read size error\n");
    EXPECT_FALSE(is_locked(mutex_iop));
}

TEST_F(Collect, half_an_exit_code_is_none) {
    EXPECT_EQ(run_against([this] {
                  put(slot(QFI_CONTEXT_STATUS_WRITE), std::string(2, '\0'));
                  close_slot(QFI_CONTEXT_STATUS_WRITE);
              }),
              nothing(11));
    expect_raised("MSG_QFI_UTIL_E0053", "qzfi_exec_cmd_in_child_context: read size error\n");
}

TEST_F(Collect, all_pipes_ended_at_once_is_status_11) {
    EXPECT_EQ(run_against([this] {
                  for (const int end : {QFI_CONTEXT_OUTPUT_WRITE, QFI_CONTEXT_ERROR_WRITE, QFI_CONTEXT_STATUS_WRITE})
                      close_slot(end);
              }),
              nothing(11));
    expect_raised("MSG_QFI_UTIL_E0053", "qzfi_exec_cmd_in_child_context: read size error\n");
}

TEST_F(Collect, ended_output_pipes_do_not_keep_the_host_busy) {
    Result result;
    {
        const Peer peer([&] {
            next_frame();
            close_slot(QFI_CONTEXT_OUTPUT_WRITE);
            close_slot(QFI_CONTEXT_ERROR_WRITE);
            nap(300);
            exit_with(6);
        });
        const Armed tenth_wait(Call::select, 10);
        result = run("command");
    }
    EXPECT_FALSE(Armed::fired()) << "waits again and again for a pipe that has ended";
    EXPECT_EQ(result, nothing(6));
}

TEST_F(Collect, a_null_buffer_has_length_0_also_after_a_failure) {
    char byte = 'x';
    const auto expect_none = [&byte](uint32_t status) {
        char *buffer = &byte;
        uint32_t length = 77;
        EXPECT_EQ(qzfi_exec_cmd_in_child_context("command", &buffer, &length), status);
        EXPECT_EQ(buffer, nullptr);
        EXPECT_EQ(length, 0u);
    };
    put(slot(QFI_CONTEXT_STATUS_WRITE), std::string(8, '\0')); // the second word ends the wait for output
    expect_none(0);
    close_slot(QFI_CONTEXT_COMMAND_READ);
    close_slot(QFI_CONTEXT_STATUS_READ);
    expect_none(11);
}

TEST_F(Collect, nothing_is_awaited_when_sending_failed) {
    close_slot(QFI_CONTEXT_COMMAND_READ);
    EXPECT_EQ(run("command"), nothing(11));
    expect_raised("MSG_QFI_UTIL_E0059", "qzfi_sendcmd: write size error\n");
    {
        const Armed armed(Call::ioctl, 1);
        EXPECT_EQ(run("command"), nothing(11));
    }
    expect_raised("MSG_QFI_UTIL_E0058", "qzfi_sendcmd: fstat failure\n");
    EXPECT_FALSE(is_locked(mutex_iop));
}

TEST_F(Collect, a_record_that_a_failed_creation_left_is_a_failed_count) {
    for (int number = 0; number < QFI_CONTEXT_PID; ++number)
        close_slot(number);
    EXPECT_EQ(run("command"), nothing(11));
    expect_raised("MSG_QFI_UTIL_E0058", "qzfi_sendcmd: fstat failure\n");
    EXPECT_FALSE(is_locked(mutex_iop));
}

TEST_F(Collect, a_last_word_of_a_context_process_that_is_gone_is_the_result) {
    const int32_t final[2] = {5, 0};
    put(slot(QFI_CONTEXT_STATUS_WRITE), final, sizeof final);
    for (const int end :
         {QFI_CONTEXT_STATUS_WRITE, QFI_CONTEXT_COMMAND_READ, QFI_CONTEXT_OUTPUT_WRITE, QFI_CONTEXT_ERROR_WRITE})
        close_slot(end);
    EXPECT_EQ(run("command"), nothing(5));
    expect_raised("MSG_QFI_UTIL_E0059", "qzfi_sendcmd: write size error\n");
    for (int times = 0; times < 2; ++times) { // the other half of the word, then nothing
        EXPECT_EQ(run("command"), nothing(11));
        expect_raised("MSG_QFI_UTIL_E0059", "qzfi_sendcmd: write size error\n");
    }
    EXPECT_FALSE(is_locked(mutex_iop));
}

TEST_F(Collect, a_failing_select_is_status_11) {
    EXPECT_EQ(run_failing(Call::select, 1, [] {}), nothing(11));
    expect_raised("MSG_QFI_UTIL_E0053", "qzfi_exec_cmd_in_child_context: read size error\n");
}

TEST_F(Collect, a_failing_select_after_the_exit_code_is_status_11) {
    EXPECT_EQ(run_failing(Call::select, 2, [this] { exit_with(0); }), nothing(11));
    expect_raised("MSG_QFI_UTIL_E0053", "qzfi_exec_cmd_in_child_context: read size error\n");
}

TEST_F(Collect, a_failing_select_after_output_loses_none_of_the_memory) {
    EXPECT_EQ(run_failing(Call::select, 2, [this] { say("gathered"); }), nothing(11));
    expect_raised("MSG_QFI_UTIL_E0053", "qzfi_exec_cmd_in_child_context: read size error\n");
}

TEST_F(Collect, an_interrupted_select_goes_on) {
    Result result;
    {
        const Peer peer([&] {
            next_frame();
            say("text");
            exit_with(0);
        });
        const Armed armed(Call::select, 1, {EINTR, false});
        result = run("command");
    }
    EXPECT_TRUE(Armed::fired());
    EXPECT_EQ(result, output("text"));
    expect_nothing_raised();
}

TEST_F(Collect, a_failing_read_of_the_exit_code_is_the_status_of_sending) {
    EXPECT_EQ(run_failing(Call::read, 1, [this] { exit_with(9); }), nothing(0));
    expect_raised("MSG_QFI_UTIL_E0053", "qzfi_exec_cmd_in_child_context: read size error\n");
}

TEST_F(Collect, an_interrupted_read_of_the_exit_code_goes_on) {
    Result result;
    {
        const Peer peer([&] {
            next_frame();
            exit_with(9);
            EXPECT_TRUE(eventually([&] { return pending(slot(QFI_CONTEXT_STATUS_READ)) == 0; }));
            complain("text");
        });
        const Armed armed(Call::read, 1, {EINTR, false});
        result = run("command");
    }
    EXPECT_TRUE(Armed::fired());
    EXPECT_EQ(result, errors(9, "text"));
}

TEST_F(Collect, one_failing_read_of_output_is_made_up_for_by_the_next) {
    EXPECT_EQ(run_failing(Call::read, 1,
                          [this] {
                              say("text");
                              EXPECT_TRUE(eventually([&] { return pending(slot(QFI_CONTEXT_OUTPUT_READ)) == 0; }));
                              exit_with(0);
                          }),
              output("text"));
    expect_nothing_raised();
}

TEST_F(Collect, a_failing_count_of_more_output_is_the_status_of_sending) {
    EXPECT_EQ(run_failing(Call::ioctl, 3, [this] { say(pattern(256)); }), nothing(0));
    expect_raised("MSG_QFI_UTIL_E0058", "qzfi_readfd: fstat failure\n");
}

TEST_F(Collect, short_reads_and_writes_lose_nothing) {
    const fault::ShortTransfers limit(3);
    EXPECT_EQ(run_against([this] {
                  complain(pattern(700));
                  say(pattern(50));
                  exit_with(1);
              }),
              errors(1, pattern(700)));
    EXPECT_EQ(pauses, 2);
}

TEST_F(Collect, lack_of_memory_is_the_status_of_sending_and_loses_no_memory) {
    fault::for_each(Call::allocation, [this](fault::Trial &trial) {
        close_record();
        open_record();
        Result result;
        {
            const Peer peer([&] {
                next_frame();
                complain("error");
                say(pattern(600));
                EXPECT_TRUE(eventually([&] { return Armed::fired() || pending(slot(QFI_CONTEXT_OUTPUT_READ)) == 0; }));
                exit_with(0);
            });
            trial.arm();
            result = run("command");
            trial.disarm();
        }
        EXPECT_EQ(result, trial.fired() ? nothing(0) : output(pattern(600)));
        EXPECT_FALSE(is_locked(mutex_iop));
        expect_nothing_raised();
    });
}

class HighDescriptors : public Collect {
protected:
    /// Moves the record's descriptors to where no fd_set reaches.
    HighDescriptors() {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 8192);
        if (limit.rlim_cur < 4096 || setrlimit(RLIMIT_NOFILE, &limit) != 0) {
            ADD_FAILURE() << "no descriptors above 1024 here";
            return;
        }
        auto *const record = static_cast<int32_t *>(handle());
        for (int number = 0; number < QFI_CONTEXT_PID; ++number) {
            const int moved = fcntl(record[number], F_DUPFD_CLOEXEC, 3000 + 5 * number);
            EXPECT_GE(moved, 3000);
            close(std::exchange(record[number], moved));
        }
    }
};

TEST_F(HighDescriptors, are_waited_for_like_others) {
    EXPECT_EQ(run_against([this] {
                  say("output");
                  complain("error");
                  exit_with(0);
              }),
              output("output"));
    EXPECT_EQ(run_against([this] {
                  nap(20);
                  complain("error");
                  nap(20);
                  exit_with(2);
              }),
              errors(2, "error"));
}

TEST_F(HighDescriptors, without_memory_for_them_nothing_is_sent) {
    {
        const Armed armed(Call::allocation, 1);
        EXPECT_EQ(run("command"), nothing(5));
    }
    EXPECT_EQ(pending(slot(QFI_CONTEXT_COMMAND_READ)), 0);
    EXPECT_FALSE(is_locked(mutex_iop));
}

} // namespace
