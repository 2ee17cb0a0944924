// What the tests of the context process share: what is seen across processes, and talking to the process by hand.
#pragma once

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <new>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <qzfi.h>

#include "support/fault.h"
#include "util/qzfiutil_context.h"

namespace context {

using Descriptors = std::set<int>;

/// One report that reached the host's handler, in whichever process.
struct Report {
    pid_t process;
    uint32_t severity;
    char text[100];
};

/// Memory that the test and all processes forked from it see.
struct Shared {
    std::atomic<int> reports{0};
    Report report[64]{};
    std::atomic<int> sleeps{0};
    std::atomic<unsigned> slept_seconds{0};
    std::atomic<int> limit_queries{0};
    std::atomic<int> limit_command{0};
    std::atomic<long> limit{-2}; // the answer of ulimit; -2 for the system's own
    std::atomic<bool> is_handler_first{false};
    std::atomic<bool> is_handler_late{false};
    std::atomic<int> opened_by_listing{-1}; // a descriptor that closing the first listing opens; -1 for none
    std::atomic<bool> is_handler_blocking{false};
    std::atomic<int> blocked_handlers{0};
    std::atomic<int> counter{0};
    std::atomic<int> process{0};
};

inline Shared &shared() {
    static Shared *const memory = [] {
        void *const pages = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (pages == MAP_FAILED)
            std::abort();
        return new (pages) Shared;
    }();
    return *memory;
}

/// Waits for something that other processes bring about; false when it does not come.
inline bool wait_until(const std::function<bool()> &is_true) {
    using Clock = std::chrono::steady_clock;
    for (const auto end = Clock::now() + std::chrono::seconds(60); Clock::now() < end;) {
        if (is_true())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return is_true();
}

inline Descriptors descriptors_of(pid_t process) {
    Descriptors open;
    const std::string path = "/proc/" + std::to_string(process) + "/fd";
    DIR *const directory = opendir(path.c_str());
    if (directory == nullptr)
        return open;
    while (const dirent *const entry = readdir(directory))
        if (entry->d_name[0] != '.')
            open.insert(std::atoi(entry->d_name));
    if (process == getpid())
        open.erase(dirfd(directory));
    closedir(directory);
    return open;
}

/// What a descriptor of a process refers to, as in "pipe:[1234]".
inline std::string target_of(pid_t process, int fd) {
    const std::string path = "/proc/" + std::to_string(process) + "/fd/" + std::to_string(fd);
    char target[256] = {};
    return readlink(path.c_str(), target, sizeof target - 1) > 0 ? target : "";
}

/// The fields of /proc/<pid>/stat from the state on; empty when there is no such process.
inline std::vector<std::string> stat_of(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string line;
    std::getline(file, line);
    const auto name_end = line.rfind(')');
    if (name_end == std::string::npos)
        return {};
    std::istringstream fields(line.substr(name_end + 1));
    return {std::istream_iterator<std::string>(fields), {}};
}

/// The state letter of a process, '-' when there is none.
inline char state_of(pid_t process) {
    const auto fields = stat_of(process);
    return fields.empty() ? '-' : fields[0][0];
}

/// True when nothing, not even a zombie, is left of a process.
inline bool is_gone(pid_t process) {
    return state_of(process) == '-';
}

inline long cpu_ticks_of(pid_t process) {
    const auto fields = stat_of(process);
    return fields.size() > 12 ? std::stol(fields[11]) + std::stol(fields[12]) : -1;
}

/// The processes whose parent is the given one.
inline std::vector<pid_t> children_of(pid_t parent) {
    std::vector<pid_t> children;
    DIR *const directory = opendir("/proc");
    while (const dirent *const entry = readdir(directory)) {
        const pid_t process = std::atoi(entry->d_name);
        const auto fields = process > 0 ? stat_of(process) : std::vector<std::string>{};
        if (fields.size() > 1 && std::stoi(fields[1]) == parent)
            children.push_back(process);
    }
    closedir(directory);
    return children;
}

/// Runs a body in a process of its own, as a host; true when it ended by itself and no expectation failed.
inline bool passes_in_own_process(const std::function<void()> &body) {
    const pid_t process = fork();
    if (process == 0) {
        body();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    while (waitpid(process, &status, 0) == -1 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// Sends a frame as it stands, in one piece: the process may end before it has read all of it.
inline void send_frame(uint64_t length, const char *text, size_t size) {
    std::string frame(reinterpret_cast<const char *>(&length), sizeof length);
    frame.append(text, size);
    for (size_t sent = 0; sent < frame.size();) {
        // Straight to the system, so that the call is not among those that a test counts.
        const ssize_t count =
            syscall(SYS_write, command_iop[QFI_CONTEXT_COMMAND_WRITE], frame.data() + sent, frame.size() - sent);
        ASSERT_TRUE(count > 0 || errno == EINTR);
        sent += count > 0 ? static_cast<size_t>(count) : 0;
    }
}

inline void send_command(const std::string &text) {
    send_frame(text.size() + 1, text.c_str(), text.size() + 1);
}

/// Everything that a pipe gives, up to `size` bytes.
inline std::string read_pipe(int fd, size_t size) {
    std::string bytes;
    while (bytes.size() < size) {
        char chunk[512];
        const ssize_t count = syscall(SYS_read, fd, chunk, std::min(sizeof chunk, size - bytes.size()));
        if (count == 0 || (count < 0 && errno != EINTR))
            break;
        bytes.append(chunk, count > 0 ? static_cast<size_t>(count) : 0);
    }
    return bytes;
}

/// The next status word; a value that is none when the pipe ends.
inline int64_t next_word() {
    int32_t word = 0;
    const std::string bytes = read_pipe(command_iop[QFI_CONTEXT_STATUS_READ], sizeof word);
    if (bytes.size() != sizeof word)
        return INT64_MIN;
    std::memcpy(&word, bytes.data(), sizeof word);
    return word;
}

inline int64_t run(const std::string &text) {
    send_command(text);
    return next_word();
}

/// What comes over the status pipe up to its end, as words.
inline std::vector<int32_t> remaining_words() {
    const std::string bytes = read_pipe(command_iop[QFI_CONTEXT_STATUS_READ], 4096);
    std::vector<int32_t> words(bytes.size() / sizeof(int32_t));
    EXPECT_EQ(bytes.size() % sizeof(int32_t), 0u);
    if (!words.empty())
        std::memcpy(words.data(), bytes.data(), words.size() * sizeof(int32_t));
    return words;
}

inline int pending_on(int slot) {
    int pending = -1;
    EXPECT_EQ(ioctl(command_iop[slot], FIONREAD, &pending), 0);
    return pending;
}

inline pid_t context_process() {
    return command_iop[QFI_CONTEXT_PID];
}

/// The ends that the context process keeps, by the record.
inline Descriptors kept_descriptors() {
    return {1,
            2,
            command_iop[QFI_CONTEXT_COMMAND_READ],
            command_iop[QFI_CONTEXT_STATUS_WRITE],
            command_iop[QFI_CONTEXT_OUTPUT_WRITE],
            command_iop[QFI_CONTEXT_ERROR_WRITE]};
}

/// Waits for a child's end without reaping it; its exit code, or minus the signal that ended it.
inline int exit_code_of(pid_t process) {
    siginfo_t info = {};
    while (waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOWAIT) == -1 && errno == EINTR) {
    }
    return info.si_code == CLD_EXITED ? info.si_status : -info.si_status;
}

/// The host's handler: takes down every report, whichever process makes it.
inline void take_down(qfi_handler *, const char *text, const char *, uint32_t severity) {
    Shared &memory = shared();
    Report &report = memory.report[memory.reports % 64];
    report.process = getpid();
    report.severity = severity;
    std::snprintf(report.text, sizeof report.text, "%s", text);
    ++memory.reports;
    if (!memory.is_handler_blocking)
        return;
    ++memory.blocked_handlers;
    for (;;)
        pause();
}

/// The texts of all reports so far.
inline std::vector<std::string> reported() {
    std::vector<std::string> texts;
    for (int index = 0; index < shared().reports; ++index)
        texts.emplace_back(shared().report[index].text);
    return texts;
}

/// The ids of the calling thread's error records; they are deleted.
inline std::vector<std::string> take_recorded() {
    std::vector<std::string> ids;
    for (const qfi_error_thread *node = err_info_list; node != nullptr; node = nullptr) {
        const qfi_error_info *record = node->errors;
        do {
            ids.emplace_back(record->message_id);
            EXPECT_EQ(record->count, 1);
            EXPECT_EQ(record->status, -1);
            record = record->next;
        } while (record != node->errors);
    }
    fi_del_all_errors();
    return ids;
}

using Texts = std::vector<std::string>;

class Fixture : public testing::Test {
protected:
    Fixture() : before_(descriptors_of(getpid())) {
        // The first use of the harness makes what it shares with the processes that are forked after it.
        const fault::ShortTransfers first_use(SIZE_MAX);
        shared().~Shared();
        new (&shared()) Shared;
        setenv("ICU_DATA", "/nowhere", 1);
        util_ehandler = &handler_;
    }
    ~Fixture() override {
        shared().is_handler_blocking = false;
        for (int left = 100; left > 0 && (reference_count_context != 0 || command_iop != nullptr); --left)
            qzfi_close_context();
        fi_del_all_errors();
        util_ehandler = nullptr;
        EXPECT_EQ(command_iop, nullptr);
        EXPECT_EQ(descriptors_of(getpid()), before_);
        EXPECT_TRUE(wait_until([] {
            qzfi::reap_closed_contexts();
            return children_of(getpid()).empty();
        }));
        prctl(PR_SET_CHILD_SUBREAPER, 0); // set by tests that reap the orphans of their hosts
        unsetenv("ICU_DATA");
    }

    const Descriptors &before() const { return before_; }

private:
    qfi_handler handler_{take_down, nullptr, nullptr, nullptr};
    Descriptors before_;
};

} // namespace context
