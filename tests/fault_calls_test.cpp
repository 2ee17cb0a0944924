// Every call of the table can be made to fail, and is the real one when it is left alone.
#include "support/fault.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

// What a hardened build makes of a plain call whose buffer it knows.
extern "C" {
int checked_open(const char *path, int flags) __asm__("__open_2");
int checked_poll(pollfd *fds, nfds_t count, int limit, size_t bound) __asm__("__poll_chk");
char *checked_getcwd(char *buffer, size_t size, size_t bound) __asm__("__getcwd_chk");
ssize_t checked_read(int fd, void *buffer, size_t size, size_t bound) __asm__("__read_chk");
}

namespace {

using fault::Call;

char buffer[4096] = "text";

void *volatile looked_at; // keeps the compiler from leaving out an allocation whose memory is not used

/// Takes back what a call made; false when it made nothing.
bool undo(void *memory) {
    looked_at = memory;
    free(memory);
    return looked_at != nullptr;
}
bool undo(FILE *stream) {
    return stream != nullptr && fclose(stream) == 0;
}
bool undo(DIR *stream) {
    return stream != nullptr && closedir(stream) == 0;
}
bool undo(int fd) {
    return fd >= 0 && close(fd) == 0;
}
bool undo(int status, const int *ends) {
    return status == 0 && undo(ends[0]) && undo(ends[1]);
}

pid_t ended_child() {
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    return child;
}

/// A descriptor for one call, closed with errno kept.
class Descriptor {
public:
    explicit Descriptor(const char *path) : fd_(open(path, O_RDWR)) {}
    ~Descriptor() {
        const int error = errno;
        close(fd_);
        errno = error;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    operator int() const { return fd_; }

private:
    int fd_;
};

struct Row {
    const char *name;
    Call call;
    int usual_error;
    bool (*succeeds)();
};

const Row rows[] = {
    {"malloc", Call::allocation, ENOMEM, [] { return undo(malloc(1)); }},
    {"calloc", Call::allocation, ENOMEM, [] { return undo(calloc(1, 1)); }},
    {"realloc", Call::allocation, ENOMEM, [] { return undo(realloc(nullptr, 1)); }},
    {"strdup", Call::allocation, ENOMEM, [] { return undo(strdup(buffer)); }},
    {"strndup", Call::allocation, ENOMEM, [] { return undo(strndup(buffer, 1)); }},
    {"open", Call::open, EMFILE, [] { return undo(open("/dev/null", O_RDONLY)); }},
    {"__open_2", Call::open, EMFILE, [] { return undo(checked_open("/dev/null", O_RDONLY)); }},
    {"close", Call::close, EIO, [] { return undo(dup(1)); }},
    {"read", Call::read, EIO, [] { return read(Descriptor("/dev/null"), buffer, 1) == 0; }},
    {"__read_chk", Call::read, EIO, [] { return checked_read(Descriptor("/dev/null"), buffer, 1, 1) == 0; }},
    {"write", Call::write, EIO, [] { return write(Descriptor("/dev/null"), buffer, 1) == 1; }},
    {"pipe", Call::pipe, EMFILE,
     [] {
         int ends[2];
         return undo(pipe(ends), ends);
     }},
    {"pipe2", Call::pipe, EMFILE,
     [] {
         int ends[2];
         return undo(pipe2(ends, O_CLOEXEC), ends);
     }},
    {"dup", Call::dup, EMFILE, [] { return undo(dup(1)); }},
    {"dup2", Call::dup, EMFILE, [] { return undo(dup2(1, 99)); }},
    {"dup3", Call::dup, EMFILE, [] { return undo(dup3(1, 99, O_CLOEXEC)); }},
    {"fork", Call::fork, EAGAIN,
     [] {
         const pid_t child = ended_child();
         return child > 0 && waitpid(child, nullptr, 0) == child;
     }},
    {"waitpid", Call::waitpid, ECHILD,
     [] {
         const pid_t child = ended_child();
         return waitpid(child, nullptr, 0) == child;
     }},
    {"kill", Call::kill, ESRCH, [] { return kill(getpid(), 0) == 0; }},
    {"select", Call::select, EBADF,
     [] {
         timeval none{};
         return select(0, nullptr, nullptr, nullptr, &none) == 0;
     }},
    {"poll", Call::poll, ENOMEM, [] { return poll(nullptr, 0, 0) == 0; }},
    {"__poll_chk", Call::poll, ENOMEM, [] { return checked_poll(nullptr, 0, 0, 0) == 0; }},
    {"ioctl", Call::ioctl, EIO,
     [] {
         int ends[2];
         int pending = 0;
         return pipe(ends) == 0 && write(ends[1], buffer, 3) == 3 && ioctl(ends[0], FIONREAD, &pending) == 0 &&
                pending == 3 && undo(0, ends);
     }},
    {"fcntl", Call::fcntl, EINVAL, [] { return undo(fcntl(1, F_DUPFD_CLOEXEC, 50)); }},
    {"stat", Call::stat, EACCES,
     [] {
         struct stat status {};
         return stat("/dev/null", &status) == 0 && S_ISCHR(status.st_mode);
     }},
    {"fstat", Call::stat, EIO,
     [] {
         struct stat status {};
         return fstat(Descriptor("/dev/null"), &status) == 0 && S_ISCHR(status.st_mode);
     }},
    {"access", Call::access, EACCES, [] { return access("/", F_OK) == 0; }},
    {"getcwd", Call::getcwd, ENOENT, [] { return getcwd(buffer, sizeof buffer) == buffer; }},
    {"__getcwd_chk", Call::getcwd, ENOENT,
     [] { return checked_getcwd(buffer, sizeof buffer, sizeof buffer) == buffer; }},
    {"opendir", Call::opendir, EMFILE, [] { return undo(opendir("/")); }},
    {"readdir", Call::readdir, EIO,
     [] {
         DIR *const directory = opendir("/");
         const bool is_read = readdir(directory) != nullptr;
         return undo(directory) && is_read;
     }},
    {"mmap", Call::mmap, ENODEV,
     [] {
         void *const page = mmap(nullptr, 1, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
         return page != MAP_FAILED && munmap(page, 1) == 0;
     }},
    {"munmap", Call::munmap, EINVAL,
     [] { return munmap(mmap(nullptr, 1, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0), 1) == 0; }},
    {"fopen", Call::fopen, EMFILE, [] { return undo(fopen("/dev/null", "r")); }},
    {"fdopen", Call::fopen, ENOMEM, [] { return undo(fdopen(open("/dev/null", O_RDONLY), "r")); }},
    {"tempnam", Call::tempnam, ENOMEM, [] { return undo(tempnam("/tmp", "qzfi")); }},
    {"dlopen", Call::dlopen, ENOMEM,
     [] {
         void *const program = dlopen(nullptr, RTLD_LAZY);
         return program != nullptr && dlclose(program) == 0;
     }},
    {"dlsym", Call::dlsym, 0, [] { return dlsym(RTLD_DEFAULT, "strlen") != nullptr; }},
};

void PrintTo(const Row &row, std::ostream *out) {
    *out << row.name;
}

class FaultCall : public testing::TestWithParam<Row> {};

TEST_P(FaultCall, fails_when_armed_and_is_the_real_one_otherwise) {
    const Row &row = GetParam();
    EXPECT_TRUE(row.succeeds());
    {
        const fault::Armed armed(row.call, 1);
        errno = EXDEV;
        EXPECT_FALSE(row.succeeds());
        EXPECT_EQ(errno, row.usual_error);
        EXPECT_TRUE(fault::Armed::fired());
    }
    {
        const fault::Armed armed(row.call, 1, {.error = EXDEV});
        EXPECT_FALSE(row.succeeds());
        EXPECT_EQ(errno, EXDEV);
    }
    EXPECT_TRUE(row.succeeds());
}

INSTANTIATE_TEST_SUITE_P(, FaultCall, testing::ValuesIn(rows), [](const auto &row) {
    std::string name = row.param.name;
    name.erase(std::remove(name.begin(), name.end(), '_'), name.end());
    return name;
});

TEST(FaultCalls, are_all_in_the_table_above) {
    std::vector<std::string> wrapped = {
#define WRAP(call, result, name, parameters, arguments, on_failure, error) #name,
#define WRAP_BY_HAND(name) #name,
#include "support/wrapped_calls.def"
    };
    std::vector<std::string> tested;
    for (const Row &row : rows)
        tested.emplace_back(row.name);
    std::sort(wrapped.begin(), wrapped.end());
    std::sort(tested.begin(), tested.end());
    EXPECT_EQ(tested, wrapped);
}

} // namespace
