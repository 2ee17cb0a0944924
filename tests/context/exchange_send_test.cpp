// Sending commands through a record whose other side is the test.
#include "context/exchange_support.h"
#include "context/replaced_sleep.h"

using namespace exchange;
using fault::Armed;
using fault::Call;

namespace {

class SendCommand : public RecordFixture {
protected:
    SendCommand() { pauses = 0; }

    /// Sends in both modes with something failing: 11 and this message, locked on return in mode 0 only.
    void expect_failure(const std::function<void()> &arrange, Call call, int nth, const char *id, const char *text) {
        for (const uint32_t mode : {QFI_LOCK_KEEP, QFI_LOCK_RELEASE}) {
            SCOPED_TRACE(mode);
            close_record();
            open_record();
            arrange();
            uint32_t status = 0;
            {
                const Armed armed(call, nth);
                status = qzfi_sendcmd(handle(), "true", mode);
            }
            EXPECT_TRUE(Armed::fired());
            EXPECT_EQ(status, 11u);
            expect_raised(id, text);
            if (mode == QFI_LOCK_KEEP)
                unlock();
            EXPECT_FALSE(is_locked(mutex_iop));
        }
    }
    int sent() const { return pending(slot(QFI_CONTEXT_COMMAND_READ)); }
};

TEST_F(SendCommand, bad_arguments_are_refused_with_nothing_locked_or_sent) {
    say("left over");
    int32_t other[QFI_CONTEXT_SLOTS] = {};
    EXPECT_EQ(qzfi_sendcmd(handle(), nullptr, QFI_LOCK_KEEP), 3u);
    EXPECT_EQ(qzfi_sendcmd(nullptr, "true", QFI_LOCK_KEEP), 3u);
    EXPECT_EQ(qzfi_sendcmd(other, "true", QFI_LOCK_RELEASE), 3u);
    EXPECT_EQ(qzfi_sendcmd(handle(), "true", 2), 3u);
    EXPECT_EQ(qzfi_sendcmd(handle(), "true", UINT32_MAX), 3u);
    EXPECT_FALSE(is_locked(mutex_iop));
    EXPECT_EQ(sent(), 0);
    EXPECT_EQ(get_pending(slot(QFI_CONTEXT_OUTPUT_READ)), "left over");
    expect_nothing_raised();
}

TEST_F(SendCommand, bad_arguments_leave_a_held_lock_held) {
    pthread_mutex_lock(&mutex_iop);
    EXPECT_EQ(qzfi_sendcmd(handle(), nullptr, QFI_LOCK_RELEASE), 3u);
    EXPECT_EQ(qzfi_sendcmd(handle(), "true", 2), 3u);
    unlock();
}

TEST_F(SendCommand, without_a_context_no_handle_is_good) {
    void *const stale = handle();
    __atomic_store_n(&command_iop, nullptr, __ATOMIC_RELEASE);
    EXPECT_EQ(qzfi_sendcmd(stale, "true", QFI_LOCK_KEEP), 3u);
    EXPECT_EQ(qzfi_sendcmd(nullptr, "true", QFI_LOCK_KEEP), 3u);
    EXPECT_FALSE(is_locked(mutex_iop));
    EXPECT_EQ(sent(), 0);
}

TEST_F(SendCommand, a_frame_is_the_length_in_host_order_and_the_text_with_its_terminator) {
    EXPECT_EQ(qzfi_sendcmd(handle(), "echo hi", QFI_LOCK_RELEASE), 0u);
    EXPECT_EQ(get_pending(slot(QFI_CONTEXT_COMMAND_READ)), std::string("\x8\0\0\0\0\0\0\0echo hi\0", 16));
    expect_nothing_raised();
}

TEST_F(SendCommand, an_empty_command_is_its_terminator_alone) {
    EXPECT_EQ(qzfi_sendcmd(handle(), "", QFI_LOCK_RELEASE), 0u);
    EXPECT_EQ(get_pending(slot(QFI_CONTEXT_COMMAND_READ)), std::string("\x1\0\0\0\0\0\0\0\0", 9));
}

TEST_F(SendCommand, mode_0_returns_with_the_lock_and_mode_1_without) {
    EXPECT_EQ(qzfi_sendcmd(handle(), "true", QFI_LOCK_KEEP), 0u);
    EXPECT_TRUE(is_locked(mutex_iop));
    EXPECT_EQ(qzfi_unlock_iop(handle()), 0u);
    EXPECT_FALSE(is_locked(mutex_iop));
    EXPECT_EQ(qzfi_sendcmd(handle(), "true", QFI_LOCK_RELEASE), 0u);
    EXPECT_FALSE(is_locked(mutex_iop));
}

TEST_F(SendCommand, a_text_larger_than_the_pipe_arrives_whole) {
    const std::string text(300000, 'x');
    std::string received;
    {
        const Peer peer([&] { received = next_frame(); });
        EXPECT_EQ(qzfi_sendcmd(handle(), text.c_str(), QFI_LOCK_RELEASE), 0u);
    }
    EXPECT_EQ(received, std::string(text.c_str(), text.size() + 1));
}

TEST_F(SendCommand, short_writes_are_continued) {
    const fault::ShortTransfers three_at_a_time(3);
    EXPECT_EQ(qzfi_sendcmd(handle(), "echo hi", QFI_LOCK_RELEASE), 0u);
    EXPECT_EQ(get_pending(slot(QFI_CONTEXT_COMMAND_READ)), std::string("\x8\0\0\0\0\0\0\0echo hi\0", 16));
}

TEST_F(SendCommand, interrupted_reads_and_writes_are_continued) {
    for (const auto &[call, nth] : {std::pair{Call::read, 1}, {Call::write, 1}, {Call::write, 2}}) {
        say("left over");
        {
            const Armed armed(call, nth, {EINTR, false});
            EXPECT_EQ(qzfi_sendcmd(handle(), "true", QFI_LOCK_RELEASE), 0u);
        }
        EXPECT_TRUE(Armed::fired());
        EXPECT_EQ(get_pending(slot(QFI_CONTEXT_COMMAND_READ)), std::string("\x5\0\0\0\0\0\0\0true\0", 13));
        EXPECT_EQ(pending(slot(QFI_CONTEXT_OUTPUT_READ)), 0);
    }
    expect_nothing_raised();
}

TEST_F(SendCommand, leftovers_on_both_pipes_are_discarded_with_a_pause_after_each_full_chunk) {
    const struct {
        std::size_t size;
        int pauses;
    } rows[] = {{0, 0}, {1, 0}, {255, 0}, {256, 1}, {257, 1}, {511, 1}, {512, 2}, {1000, 3}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.size);
        for (const int end : {QFI_CONTEXT_OUTPUT_WRITE, QFI_CONTEXT_ERROR_WRITE}) {
            pauses = 0;
            put(slot(end), pattern(row.size));
            EXPECT_EQ(qzfi_sendcmd(handle(), "true", QFI_LOCK_RELEASE), 0u);
            EXPECT_EQ(pauses, row.pauses);
            EXPECT_EQ(pending(slot(QFI_CONTEXT_OUTPUT_READ)), 0);
            EXPECT_EQ(pending(slot(QFI_CONTEXT_ERROR_READ)), 0);
        }
    }
    EXPECT_TRUE(pauses_are_two_seconds);
}

TEST_F(SendCommand, short_reads_do_not_end_the_discarding) {
    say(pattern(1000));
    complain(pattern(100));
    const fault::ShortTransfers seven_at_a_time(7);
    EXPECT_EQ(qzfi_sendcmd(handle(), "true", QFI_LOCK_RELEASE), 0u);
    EXPECT_EQ(pending(slot(QFI_CONTEXT_OUTPUT_READ)), 0);
    EXPECT_EQ(pending(slot(QFI_CONTEXT_ERROR_READ)), 0);
    EXPECT_EQ(pauses, 3);
}

TEST_F(SendCommand, a_stale_exit_code_is_not_discarded) {
    exit_with(7);
    EXPECT_EQ(qzfi_sendcmd(handle(), "true", QFI_LOCK_RELEASE), 0u);
    EXPECT_EQ(pending(slot(QFI_CONTEXT_STATUS_READ)), 4);
}

TEST_F(SendCommand, a_failing_count_of_leftover_output_is_reported) {
    expect_failure([this] { complain("stays"); }, Call::ioctl, 1, "MSG_QFI_UTIL_E0058",
                   "qzfi_sendcmd: fstat failure\n");
    EXPECT_EQ(get_pending(slot(QFI_CONTEXT_ERROR_READ)), "stays");
    EXPECT_EQ(sent(), 0);
}

TEST_F(SendCommand, a_failing_count_of_leftover_errors_is_reported_after_the_output_was_discarded) {
    expect_failure(
        [this] {
            say("goes");
            complain("stays");
        },
        Call::ioctl, 2, "MSG_QFI_UTIL_E0058", "qzfi_sendcmd: fstat failure\n");
    EXPECT_EQ(pending(slot(QFI_CONTEXT_OUTPUT_READ)), 0);
    EXPECT_EQ(get_pending(slot(QFI_CONTEXT_ERROR_READ)), "stays");
    EXPECT_EQ(sent(), 0);
}

TEST_F(SendCommand, a_failing_count_after_a_full_chunk_is_reported) {
    expect_failure([this] { say(pattern(600)); }, Call::ioctl, 2, "MSG_QFI_UTIL_E0058",
                   "qzfi_sendcmd: fstat failure\n");
    EXPECT_EQ(pending(slot(QFI_CONTEXT_OUTPUT_READ)), 344);
    EXPECT_EQ(sent(), 0);
}

TEST_F(SendCommand, a_failing_read_of_leftovers_is_reported) {
    for (const bool is_error : {false, true})
        expect_failure([&] { is_error ? complain("left") : say("left"); }, Call::read, 1, "MSG_QFI_UTIL_E0053",
                       "qzfi_sendcmd: read size error\n");
    EXPECT_EQ(sent(), 0);
}

TEST_F(SendCommand, a_frame_that_was_not_begun_leaves_the_command_pipe_usable) {
    expect_failure([] {}, Call::write, 1, "MSG_QFI_UTIL_E0059", "qzfi_sendcmd: write size error\n");
    EXPECT_EQ(sent(), 0);
    EXPECT_EQ(qzfi_sendcmd(handle(), "true", QFI_LOCK_RELEASE), 0u);
    EXPECT_EQ(next_frame(), std::string("true\0", 5));
}

TEST_F(SendCommand, a_frame_that_broke_off_closes_the_command_pipe) {
    expect_failure([] {}, Call::write, 2, "MSG_QFI_UTIL_E0059", "qzfi_sendcmd: write size error\n");
    EXPECT_EQ(slot(QFI_CONTEXT_COMMAND_WRITE), -1);
    EXPECT_EQ(get(slot(QFI_CONTEXT_COMMAND_READ), 100), std::string("\x5\0\0\0\0\0\0\0", 8)); // then its end
    EXPECT_EQ(qzfi_sendcmd(handle(), "true", QFI_LOCK_RELEASE), 11u);
    expect_raised("MSG_QFI_UTIL_E0059", "qzfi_sendcmd: write size error\n");
}

TEST_F(SendCommand, a_length_that_broke_off_closes_the_command_pipe) {
    const fault::ShortTransfers three_at_a_time(3);
    expect_failure([] {}, Call::write, 3, "MSG_QFI_UTIL_E0059", "qzfi_sendcmd: write size error\n");
    EXPECT_EQ(slot(QFI_CONTEXT_COMMAND_WRITE), -1);
    EXPECT_EQ(get(slot(QFI_CONTEXT_COMMAND_READ), 100), std::string("\x5\0\0\0\0\0", 6));
}

TEST_F(SendCommand, a_record_without_pipes_is_a_failed_count) {
    for (int number = 0; number < QFI_CONTEXT_PID; ++number)
        close_slot(number);
    EXPECT_EQ(qzfi_sendcmd(handle(), "true", QFI_LOCK_RELEASE), 11u);
    expect_raised("MSG_QFI_UTIL_E0058", "qzfi_sendcmd: fstat failure\n");
}

TEST_F(SendCommand, a_handle_that_went_stale_during_the_wait_for_the_lock_is_refused) {
    uint32_t status = 0;
    close_while_waiting([&] { status = qzfi_sendcmd(handle(), "true", QFI_LOCK_KEEP); });
    EXPECT_EQ(status, 3u);
    EXPECT_FALSE(is_locked(mutex_iop));
    EXPECT_EQ(sent(), 0);
}

class BrokenCommandPipe : public SendCommand {
protected:
    BrokenCommandPipe() {
        close_slot(QFI_CONTEXT_COMMAND_READ);
        sigemptyset(&broken_pipe_);
        sigaddset(&broken_pipe_, SIGPIPE);
    }
    ~BrokenCommandPipe() override {
        signal(SIGPIPE, SIG_IGN); // drops what a test left pending
        pthread_sigmask(SIG_UNBLOCK, &broken_pipe_, nullptr);
        signal(SIGPIPE, SIG_DFL);
    }
    void send_in_vain() {
        EXPECT_EQ(qzfi_sendcmd(handle(), "true", QFI_LOCK_RELEASE), 11u);
        expect_raised("MSG_QFI_UTIL_E0059", "qzfi_sendcmd: write size error\n");
    }
    void block() { pthread_sigmask(SIG_BLOCK, &broken_pipe_, nullptr); }
    static bool is_blocked() {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        return sigismember(&mask, SIGPIPE) == 1;
    }
    static bool is_pending() {
        sigset_t set;
        sigpending(&set);
        return sigismember(&set, SIGPIPE) == 1;
    }
    /// How often a pending signal can be taken.
    int times_pending() const {
        const timespec at_once{0, 0};
        int times = 0;
        while (sigtimedwait(&broken_pipe_, nullptr, &at_once) == SIGPIPE)
            ++times;
        return times;
    }

    sigset_t broken_pipe_;
};

TEST_F(BrokenCommandPipe, is_a_status_and_no_signal) {
    signal(SIGPIPE, SIG_DFL);
    send_in_vain();
    EXPECT_FALSE(is_blocked());
    EXPECT_FALSE(is_pending());
}

TEST_F(BrokenCommandPipe, does_not_call_the_handler_of_the_host) {
    static std::atomic<int> calls;
    calls = 0;
    struct sigaction action = {};
    action.sa_handler = [](int) { ++calls; };
    sigaction(SIGPIPE, &action, nullptr);
    send_in_vain();
    EXPECT_EQ(calls, 0);
    raise(SIGPIPE);
    EXPECT_EQ(calls, 1);
}

TEST_F(BrokenCommandPipe, leaves_an_ignoring_host_ignoring) {
    signal(SIGPIPE, SIG_IGN);
    send_in_vain();
    EXPECT_FALSE(is_pending());
    EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_IGN);
}

TEST_F(BrokenCommandPipe, leaves_a_blocking_host_blocking_with_nothing_pending) {
    block();
    send_in_vain();
    EXPECT_TRUE(is_blocked());
    EXPECT_FALSE(is_pending());
}

TEST_F(BrokenCommandPipe, leaves_the_signal_pending_that_the_host_had_pending) {
    block();
    raise(SIGPIPE); // to the thread
    send_in_vain();
    EXPECT_TRUE(is_blocked());
    EXPECT_EQ(times_pending(), 1);
    kill(getpid(), SIGPIPE); // to the process
    send_in_vain();
    EXPECT_EQ(times_pending(), 1);
}

TEST(Buffers, are_zero_filled_and_released_whatever_the_length) {
    auto *const buffer = static_cast<char *>(qzfi_alloc_buf(5000));
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(std::string(buffer, 5000), std::string(5000, '\0'));
    qzfi_free_buf(buffer, 1);
    qzfi_free_buf(qzfi_alloc_buf(0), 77);
    qzfi_free_buf(nullptr, 5);
    const Armed armed(Call::allocation, 1);
    EXPECT_EQ(qzfi_alloc_buf(10), nullptr);
}

} // namespace
