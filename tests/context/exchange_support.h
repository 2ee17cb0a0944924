// What the tests of command exchanges share.
#pragma once

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <qzfi.h>

#include "err/lists.h"
#include "support/fault.h"

namespace exchange {

using lists::is_locked;

constexpr uint32_t no_exit = UINT32_MAX; // the exit code of a command that a signal ended

/// A text with all its bytes, NULs included.
inline std::string pattern(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t index = 0; index < size; ++index)
        bytes[index] = static_cast<char>(index * 7 % 251);
    return bytes;
}

inline void nap(int milliseconds) {
    const timespec length{milliseconds / 1000, milliseconds % 1000 * 1000000L};
    nanosleep(&length, nullptr);
}

/// Waits until something holds; false after a minute.
inline bool eventually(const std::function<bool()> &holds) {
    for (int tries = 0; tries < 6000; ++tries) {
        if (holds())
            return true;
        nap(10);
    }
    return false;
}

inline int pending(int fd) {
    int count = -1;
    ioctl(fd, FIONREAD, &count);
    return count;
}

// Straight to the kernel: these transfers of the tests are neither counted nor shortened by the fault harness.

inline void put(int fd, const void *bytes, std::size_t size) {
    for (std::size_t done = 0; done < size;) {
        const long written = syscall(SYS_write, fd, static_cast<const char *>(bytes) + done, size - done);
        if (written < 0 && errno == EINTR)
            continue;
        ASSERT_GT(written, 0);
        done += static_cast<std::size_t>(written);
    }
}

inline void put(int fd, const std::string &bytes) {
    put(fd, bytes.data(), bytes.size());
}

inline void put_word(int fd, int32_t word) {
    put(fd, &word, sizeof word);
}

/// Reads `size` bytes, fewer at the end of the file.
inline std::string get(int fd, std::size_t size) {
    std::string bytes(size, '\0');
    std::size_t done = 0;
    while (done < size) {
        const long received = syscall(SYS_read, fd, bytes.data() + done, size - done);
        if (received < 0 && errno == EINTR)
            continue;
        if (received < 1)
            break;
        done += static_cast<std::size_t>(received);
    }
    bytes.resize(done);
    return bytes;
}

inline std::string get_pending(int fd) {
    return get(fd, static_cast<std::size_t>(pending(fd)));
}

/// What an exchange gave its caller.
struct Result {
    uint32_t status = 0;
    bool has_buffer = false;
    std::string text;
    bool operator==(const Result &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const Result &result) {
    if (!result.has_buffer)
        return out << result.status << " (null)";
    return out << result.status << " [" << result.text << "]";
}

inline Result output(std::string text) {
    return {0, true, std::move(text)};
}
inline Result errors(uint32_t status, std::string text) {
    return {status, true, std::move(text)};
}
inline Result nothing(uint32_t status) {
    return {status, false, ""};
}

/// Runs a command through the context and releases the buffer. A null buffer has length 0.
inline Result run(const std::string &command) {
    char *buffer = nullptr;
    uint32_t length = 0;
    Result result;
    result.status = qzfi_exec_cmd_in_child_context(command.c_str(), &buffer, &length);
    result.has_buffer = buffer != nullptr;
    if (buffer != nullptr)
        result.text.assign(buffer, length);
    else
        EXPECT_EQ(length, 0u);
    qzfi_free_buf(buffer, length);
    return result;
}

/// Collects what is reported to the host.
class Fixture : public testing::Test {
protected:
    Fixture() {
        setenv("ICU_DATA", "", 1);
        EXPECT_EQ(qzfi_uinit0(&handler_), 0);
        fi_del_all_errors();
        reports_.clear();
    }
    ~Fixture() override {
        EXPECT_FALSE(is_locked(mutex_iop));
        qzfi_ufini();
        fi_del_all_errors();
    }

    /// The calling thread raised this, and nothing else was reported since the last time.
    static void expect_raised(const char *id, const char *text) {
        const std::scoped_lock lock(mutex_);
        EXPECT_EQ(reports_, (std::vector<std::string>{std::string("3 ") + text}));
        reports_.clear();
        const qfi_error_info *const record = lists::last_record();
        ASSERT_NE(record, nullptr);
        EXPECT_STREQ(record->message_id, id);
        EXPECT_EQ(record->count, 1);
        EXPECT_EQ(record->status, -1);
        EXPECT_EQ(record->session, nullptr);
        fi_del_all_errors();
    }
    static void expect_nothing_raised() {
        const std::scoped_lock lock(mutex_);
        EXPECT_EQ(reports_, std::vector<std::string>{});
        EXPECT_EQ(err_info_list, nullptr);
    }
    static void forget_raised() {
        const std::scoped_lock lock(mutex_);
        reports_.clear();
        fi_del_all_errors();
    }

private:
    static void take(qfi_handler *, const char *text, const char *, uint32_t severity) {
        const std::scoped_lock lock(mutex_);
        reports_.push_back(std::to_string(severity) + " " + text);
    }

    static inline std::mutex mutex_;
    static inline std::vector<std::string> reports_;
    qfi_handler handler_ = {take, nullptr, nullptr, nullptr};
};

/// With a context record whose other side is the test itself, so that every order and every fragment can be made.
class RecordFixture : public Fixture {
protected:
    RecordFixture() { open_record(); }
    ~RecordFixture() override { close_record(); }

    void open_record() {
        for (int pair = 0; pair < 4; ++pair)
            EXPECT_EQ(pipe2(&record_[static_cast<std::size_t>(pair) * 2], O_CLOEXEC), 0);
        __atomic_store_n(&command_iop, record_.data(), __ATOMIC_RELEASE);
    }
    void close_record() {
        __atomic_store_n(&command_iop, nullptr, __ATOMIC_RELEASE);
        for (int slot = 0; slot < QFI_CONTEXT_PID; ++slot)
            close_slot(slot);
    }
    void close_slot(int slot) {
        int32_t &fd = record_[static_cast<std::size_t>(slot)];
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
    int slot(int number) const { return record_[static_cast<std::size_t>(number)]; }
    void *handle() { return record_.data(); }

    /// The text of the next command frame, with its terminator.
    std::string next_frame() {
        uint64_t length = 0;
        const std::string word = get(slot(QFI_CONTEXT_COMMAND_READ), sizeof length);
        if (word.size() != sizeof length)
            return {};
        std::memcpy(&length, word.data(), sizeof length);
        return get(slot(QFI_CONTEXT_COMMAND_READ), length);
    }
    void say(const std::string &bytes) { put(slot(QFI_CONTEXT_OUTPUT_WRITE), bytes); }
    void complain(const std::string &bytes) { put(slot(QFI_CONTEXT_ERROR_WRITE), bytes); }
    void exit_with(int32_t code) { put_word(slot(QFI_CONTEXT_STATUS_WRITE), code); }

    /// Takes the context away while a call waits for `mutex_iop`.
    static void close_while_waiting(const std::function<void()> &call) {
        std::atomic<long> waiter{0};
        pthread_mutex_lock(&mutex_iop);
        std::thread caller([&] {
            waiter = syscall(SYS_gettid);
            call();
        });
        const auto is_asleep = [&] {
            if (waiter == 0)
                return false;
            const std::string path = "/proc/self/task/" + std::to_string(waiter) + "/stat";
            const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
            const std::string line = get(fd, 200);
            close(fd);
            return line.find(") S ") != std::string::npos;
        };
        EXPECT_TRUE(eventually(is_asleep));
        __atomic_store_n(&command_iop, nullptr, __ATOMIC_RELEASE);
        pthread_mutex_unlock(&mutex_iop);
        caller.join();
    }

    /// Unlocks `mutex_iop` after a call that kept it.
    static void unlock() {
        EXPECT_TRUE(is_locked(mutex_iop));
        pthread_mutex_unlock(&mutex_iop);
    }

private:
    std::array<int32_t, QFI_CONTEXT_SLOTS> record_{};
};

/// The other side of the record, on a thread of its own for as long as it lives.
class Peer {
public:
    explicit Peer(std::function<void()> script) : thread_(std::move(script)) {}
    ~Peer() { thread_.join(); }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

private:
    std::thread thread_;
};

} // namespace exchange
