// Reading from the pipes: growing buffers, and copies to a caller's descriptor.
#include "context/exchange_support.h"
#include "context/replaced_sleep.h"

using namespace exchange;
using fault::Armed;
using fault::Call;

namespace {

class ReadFd : public RecordFixture {
protected:
    ReadFd() { pauses = 0; }
    ~ReadFd() override { qzfi_free_buf(buffer_, length_); }

    uint32_t read_output() { return qzfi_readfd(slot(QFI_CONTEXT_OUTPUT_READ), &buffer_, &length_); }
    std::string text() const { return {buffer_ != nullptr ? buffer_ : "", length_}; }

    char *buffer_ = nullptr;
    uint32_t length_ = 0;
};

TEST_F(ReadFd, takes_all_that_is_there_with_a_pause_after_each_full_chunk) {
    const struct {
        std::size_t size;
        int pauses;
    } rows[] = {{1, 0}, {255, 0}, {256, 1}, {257, 1}, {512, 2}, {1000, 3}, {10240, 40}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.size);
        pauses = 0;
        say(pattern(row.size));
        EXPECT_EQ(read_output(), 0u);
        EXPECT_EQ(text(), pattern(row.size));
        EXPECT_EQ(pauses, row.pauses);
        qzfi_free_buf(std::exchange(buffer_, nullptr), std::exchange(length_, 0u));
    }
    EXPECT_TRUE(pauses_are_two_seconds);
    expect_nothing_raised();
}

TEST_F(ReadFd, appends_to_what_the_buffer_holds) {
    say("one ");
    EXPECT_EQ(read_output(), 0u);
    say(std::string("t\0wo", 4));
    EXPECT_EQ(read_output(), 0u);
    EXPECT_EQ(text(), std::string("one t\0wo", 8));
}

TEST_F(ReadFd, an_ended_pipe_gives_nothing) {
    close_slot(QFI_CONTEXT_OUTPUT_WRITE);
    EXPECT_EQ(read_output(), 0u);
    EXPECT_EQ(buffer_, nullptr);
    EXPECT_EQ(length_, 0u);
}

TEST_F(ReadFd, reads_up_to_the_end) {
    say(pattern(300));
    close_slot(QFI_CONTEXT_OUTPUT_WRITE);
    EXPECT_EQ(read_output(), 0u);
    EXPECT_EQ(text(), pattern(300));
}

TEST_F(ReadFd, a_failing_read_gives_nothing_and_is_no_failure) {
    say("text");
    {
        const Armed armed(Call::read, 1);
        EXPECT_EQ(read_output(), 0u);
    }
    EXPECT_EQ(buffer_, nullptr);
    EXPECT_EQ(qzfi_readfd(-1, &buffer_, &length_), 0u);
    EXPECT_EQ(buffer_, nullptr);
    expect_nothing_raised();
    EXPECT_EQ(read_output(), 0u);
    EXPECT_EQ(text(), "text");
}

TEST_F(ReadFd, an_interrupted_read_goes_on) {
    say("text");
    {
        const Armed armed(Call::read, 1, {EINTR, false});
        EXPECT_EQ(read_output(), 0u);
    }
    EXPECT_EQ(text(), "text");
}

TEST_F(ReadFd, a_failing_count_is_status_11_with_the_chunk_kept) {
    say(pattern(256) + "more");
    {
        const Armed armed(Call::ioctl, 1);
        EXPECT_EQ(read_output(), 11u);
    }
    EXPECT_EQ(text(), pattern(256));
    expect_raised("MSG_QFI_UTIL_E0058", "qzfi_readfd: fstat failure\n");
    EXPECT_EQ(get_pending(slot(QFI_CONTEXT_OUTPUT_READ)), "more");
}

TEST_F(ReadFd, lack_of_memory_is_status_5_with_the_old_buffer_intact) {
    const std::string kept = pattern(256);
    for (int nth = 1; nth <= 3; ++nth) {
        SCOPED_TRACE(nth);
        say(pattern(256) + pattern(256) + pattern(100));
        {
            const Armed armed(Call::allocation, nth);
            EXPECT_EQ(read_output(), 5u);
        }
        std::string expected;
        for (int chunk = 1; chunk < nth; ++chunk)
            expected += kept;
        EXPECT_EQ(text(), expected);
        get_pending(slot(QFI_CONTEXT_OUTPUT_READ));
        qzfi_free_buf(std::exchange(buffer_, nullptr), std::exchange(length_, 0u));
    }
    expect_nothing_raised();
}

TEST_F(ReadFd, a_length_that_would_overflow_is_refused_with_the_buffer_intact) {
    buffer_ = static_cast<char *>(qzfi_alloc_buf(1));
    char *const before = buffer_;
    length_ = UINT32_MAX;
    say("x");
    EXPECT_EQ(read_output(), 5u);
    EXPECT_EQ(buffer_, before);
    EXPECT_EQ(std::exchange(length_, 1u), UINT32_MAX);
}

TEST_F(ReadFd, short_reads_are_continued) {
    say(pattern(700));
    const fault::ShortTransfers seven_at_a_time(7);
    EXPECT_EQ(read_output(), 0u);
    EXPECT_EQ(text(), pattern(700));
    EXPECT_EQ(pauses, 2);
}

TEST_F(ReadFd, null_arguments_are_refused_with_nothing_read) {
    say("text");
    EXPECT_EQ(qzfi_readfd(slot(QFI_CONTEXT_OUTPUT_READ), nullptr, &length_), 3u);
    EXPECT_EQ(qzfi_readfd(slot(QFI_CONTEXT_OUTPUT_READ), &buffer_, nullptr), 3u);
    EXPECT_EQ(get_pending(slot(QFI_CONTEXT_OUTPUT_READ)), "text");
}

/// The two copying calls differ in the pipe and in the name that they report.
struct Copier {
    uint32_t (*call)(void *, int32_t, uint32_t);
    const char *name;
    int read_end, write_end, other_write_end, other_read_end;
};
std::ostream &operator<<(std::ostream &out, const Copier &copier) {
    return out << copier.name;
}
const Copier copiers[] = {{qzfi_readoutpipe, "qzfi_readoutpipe", QFI_CONTEXT_OUTPUT_READ, QFI_CONTEXT_OUTPUT_WRITE,
                           QFI_CONTEXT_ERROR_WRITE, QFI_CONTEXT_ERROR_READ},
                          {qzfi_readerrpipe, "qzfi_readerrpipe", QFI_CONTEXT_ERROR_READ, QFI_CONTEXT_ERROR_WRITE,
                           QFI_CONTEXT_OUTPUT_WRITE, QFI_CONTEXT_OUTPUT_READ}};

class CopyPipe : public RecordFixture, public testing::WithParamInterface<Copier> {
protected:
    CopyPipe() { EXPECT_EQ(pipe2(destination_, O_CLOEXEC), 0); }
    ~CopyPipe() override {
        close(destination_[0]);
        if (destination_[1] >= 0)
            close(destination_[1]);
    }

    uint32_t copy(uint32_t mode) { return GetParam().call(handle(), destination_[1], mode); }
    void fill(const std::string &bytes) { put(slot(GetParam().write_end), bytes); }
    int left() const { return pending(slot(GetParam().read_end)); }
    std::string copied() { return get_pending(destination_[0]); }

    /// With something failing in both modes: 11, this message, and the lock as the mode says.
    void expect_failure(Call call, int nth, const char *id, const char *what, const std::string &bytes = "text") {
        for (const uint32_t mode : {QFI_LOCK_KEEP, QFI_LOCK_RELEASE}) {
            SCOPED_TRACE(mode);
            get_pending(slot(GetParam().read_end));
            fill(bytes);
            pthread_mutex_lock(&mutex_iop);
            {
                const Armed armed(call, nth);
                EXPECT_EQ(copy(mode), 11u);
            }
            EXPECT_TRUE(Armed::fired());
            if (mode == QFI_LOCK_KEEP)
                unlock();
            EXPECT_FALSE(is_locked(mutex_iop));
            expect_raised(id, (std::string(GetParam().name) + what).c_str());
        }
    }

    int destination_[2] = {-1, -1};
};

INSTANTIATE_TEST_SUITE_P(Both, CopyPipe, testing::ValuesIn(copiers),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_P(CopyPipe, bad_arguments_are_refused_with_the_lock_as_it_was) {
    int32_t other[QFI_CONTEXT_SLOTS] = {};
    fill("text");
    pthread_mutex_lock(&mutex_iop);
    EXPECT_EQ(GetParam().call(nullptr, destination_[1], QFI_LOCK_RELEASE), 3u);
    EXPECT_EQ(GetParam().call(other, destination_[1], QFI_LOCK_RELEASE), 3u);
    EXPECT_EQ(copy(2), 3u);
    EXPECT_EQ(copy(UINT32_MAX), 3u);
    unlock();
    EXPECT_EQ(left(), 4);
    EXPECT_EQ(copied(), "");
    expect_nothing_raised();
}

TEST_P(CopyPipe, copies_what_is_pending_on_its_own_pipe) {
    put(slot(GetParam().other_write_end), "other");
    for (const std::size_t size : {0u, 1u, 255u, 256u, 257u, 512u, 1000u, 60000u}) {
        for (const uint32_t mode : {QFI_LOCK_KEEP, QFI_LOCK_RELEASE}) {
            fill(pattern(size));
            pthread_mutex_lock(&mutex_iop);
            EXPECT_EQ(copy(mode), 0u);
            EXPECT_EQ(is_locked(mutex_iop), mode == QFI_LOCK_KEEP);
            if (mode == QFI_LOCK_KEEP)
                pthread_mutex_unlock(&mutex_iop);
            EXPECT_EQ(copied(), pattern(size));
            EXPECT_EQ(left(), 0);
        }
    }
    EXPECT_EQ(get_pending(slot(GetParam().other_read_end)), "other");
    expect_nothing_raised();
}

TEST_P(CopyPipe, leaves_what_comes_while_it_copies) {
    const int room = fcntl(destination_[1], F_SETPIPE_SZ, 4096);
    ASSERT_GE(room, 4096);
    put(destination_[1], pattern(static_cast<std::size_t>(room)));
    fill(pattern(300));
    {
        const Peer copier([this] { EXPECT_EQ(copy(QFI_LOCK_KEEP), 0u); });
        EXPECT_TRUE(eventually([this] { return left() == 44; })); // waits to write the first chunk
        fill(pattern(500));
        EXPECT_EQ(copied(), pattern(static_cast<std::size_t>(room)));
    }
    EXPECT_EQ(copied(), pattern(300));
    EXPECT_EQ(left(), 500);
}

TEST_P(CopyPipe, makes_no_pauses_and_takes_no_lock) {
    pauses = 0;
    fill(pattern(1000));
    EXPECT_EQ(copy(QFI_LOCK_KEEP), 0u);
    EXPECT_FALSE(is_locked(mutex_iop));
    EXPECT_EQ(pauses, 0);
}

TEST_P(CopyPipe, copies_up_to_the_end_of_an_ended_pipe) {
    fill("last words");
    close_slot(GetParam().write_end);
    EXPECT_EQ(copy(QFI_LOCK_KEEP), 0u);
    EXPECT_EQ(copied(), "last words");
    EXPECT_EQ(copy(QFI_LOCK_KEEP), 0u);
    EXPECT_EQ(copied(), "");
}

TEST_P(CopyPipe, short_reads_and_writes_are_continued) {
    fill(pattern(1000));
    const fault::ShortTransfers limit(7);
    EXPECT_EQ(copy(QFI_LOCK_KEEP), 0u);
    EXPECT_EQ(copied(), pattern(1000));
}

TEST_P(CopyPipe, interrupted_reads_and_writes_are_continued) {
    for (const Call call : {Call::read, Call::write})
        for (const int nth : {1, 2}) {
            fill(pattern(300));
            {
                const Armed armed(call, nth, {EINTR, false});
                EXPECT_EQ(copy(QFI_LOCK_KEEP), 0u);
            }
            EXPECT_TRUE(Armed::fired());
            EXPECT_EQ(copied(), pattern(300));
        }
    expect_nothing_raised();
}

TEST_P(CopyPipe, a_failing_fstat_is_reported) {
    expect_failure(Call::stat, 1, "MSG_QFI_UTIL_E0058", ": fstat failure\n");
    EXPECT_EQ(left(), 4);
}

TEST_P(CopyPipe, a_failing_count_is_reported) {
    expect_failure(Call::ioctl, 1, "MSG_QFI_UTIL_E0058", ": fstat failure\n");
    EXPECT_EQ(left(), 4);
}

TEST_P(CopyPipe, a_failing_read_is_reported) {
    expect_failure(Call::read, 1, "MSG_QFI_UTIL_E0053", ": read size error\n");
    EXPECT_EQ(copied(), "");
    expect_failure(Call::read, 2, "MSG_QFI_UTIL_E0053", ": read size error\n", pattern(300));
    EXPECT_EQ(copied(), pattern(256) + pattern(256)); // the first chunk in both modes
}

TEST_P(CopyPipe, a_failing_write_is_reported) {
    expect_failure(Call::write, 1, "MSG_QFI_UTIL_E0059", ": write size error\n");
    EXPECT_EQ(copied(), "");
    expect_failure(Call::write, 2, "MSG_QFI_UTIL_E0059", ": write size error\n", pattern(300));
    EXPECT_EQ(copied(), pattern(256) + pattern(256)); // the first chunk in both modes
}

TEST_P(CopyPipe, a_destination_without_a_reader_is_a_status_and_no_signal) {
    signal(SIGPIPE, SIG_DFL);
    close(destination_[0]);
    fill("text");
    EXPECT_EQ(copy(QFI_LOCK_KEEP), 11u);
    expect_raised("MSG_QFI_UTIL_E0059", (std::string(GetParam().name) + ": write size error\n").c_str());
    destination_[0] = dup(destination_[1]); // for the fixture to close
}

TEST_P(CopyPipe, a_bad_destination_matters_only_when_there_is_something_to_copy) {
    EXPECT_EQ(GetParam().call(handle(), -1, QFI_LOCK_KEEP), 0u);
    fill("text");
    EXPECT_EQ(GetParam().call(handle(), -1, QFI_LOCK_KEEP), 11u);
    expect_raised("MSG_QFI_UTIL_E0059", (std::string(GetParam().name) + ": write size error\n").c_str());
}

TEST_P(CopyPipe, a_record_without_pipes_is_a_failed_fstat) {
    close_slot(GetParam().read_end);
    EXPECT_EQ(copy(QFI_LOCK_KEEP), 11u);
    expect_raised("MSG_QFI_UTIL_E0058", (std::string(GetParam().name) + ": fstat failure\n").c_str());
}

} // namespace
