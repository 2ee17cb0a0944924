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
#include <linux/openat2.h>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
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

/// A name that is free; what gets it is removed, with errno kept.
class Scratch {
public:
    Scratch() : path_("/tmp/qzfi_fault_calls_" + std::to_string(getpid()) + "_" + std::to_string(++count_)) {}
    ~Scratch() {
        const int error = errno;
        remove(path_.c_str());
        errno = error;
    }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    operator const char *() const { return path_.c_str(); }

private:
    static inline int count_ = 0;
    std::string path_;
};

/// An open file, with an extended attribute or without. Made by a program, so that no wrapped call is taken for it.
class ScratchFile {
public:
    explicit ScratchFile(bool has_attribute = false) {
        const int error = errno;
        const std::string made = std::string(path_);
        const std::string command = has_attribute ? ": >" + made + "; setfattr -n user.a -v b " + made : ": >" + made;
        is_made_ = std::system(command.c_str()) == 0;
        stream_ = std::freopen(path_, "r+", std::tmpfile());
        errno = error;
    }
    ~ScratchFile() {
        const int error = errno;
        std::fclose(stream_);
        errno = error;
    }
    ScratchFile(const ScratchFile &) = delete;
    ScratchFile &operator=(const ScratchFile &) = delete;
    operator int() const { return fileno(stream_); }
    const char *path() const { return path_; }

private:
    Scratch path_;
    bool is_made_ = false;
    std::FILE *stream_ = nullptr;
};

constexpr std::align_val_t aligned{4096};

/// Whether an operator new, called by itself, gives memory rather than null or std::bad_alloc.
template <typename... Form>
bool constructs(const Form &...form) {
    void *memory = nullptr;
    try {
        memory = ::operator new(1, form...);
    } catch (const std::bad_alloc &) {
        return false;
    }
    ::operator delete(memory, form...);
    return memory != nullptr;
}
template <typename... Form>
bool constructs_array(const Form &...form) {
    void *memory = nullptr;
    try {
        memory = ::operator new[](1, form...);
    } catch (const std::bad_alloc &) {
        return false;
    }
    ::operator delete[](memory, form...);
    return memory != nullptr;
}

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
    {"_Znwm", Call::construction, ENOMEM, [] { return constructs(); }},
    {"_Znam", Call::construction, ENOMEM, [] { return constructs_array(); }},
    {"_ZnwmRKSt9nothrow_t", Call::construction, ENOMEM, [] { return constructs(std::nothrow); }},
    {"_ZnamRKSt9nothrow_t", Call::construction, ENOMEM, [] { return constructs_array(std::nothrow); }},
    {"_ZnwmSt11align_val_t", Call::construction, ENOMEM, [] { return constructs(aligned); }},
    {"_ZnamSt11align_val_t", Call::construction, ENOMEM, [] { return constructs_array(aligned); }},
    {"_ZnwmSt11align_val_tRKSt9nothrow_t", Call::construction, ENOMEM,
     [] { return constructs(aligned, std::nothrow); }},
    {"_ZnamSt11align_val_tRKSt9nothrow_t", Call::construction, ENOMEM,
     [] { return constructs_array(aligned, std::nothrow); }},
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
    {"openat", Call::open, EMFILE, [] { return undo(openat(AT_FDCWD, "/dev/null", O_RDONLY)); }},
    {"syscall", Call::open, EMFILE,
     [] {
         open_how how{};
         return undo(static_cast<int>(syscall(SYS_openat2, AT_FDCWD, "/dev/null", &how, sizeof how)));
     }},
    {"pread", Call::read, EIO, [] { return pread(Descriptor("/dev/null"), buffer, 1, 0) == 0; }},
    {"pwrite", Call::write, EIO, [] { return pwrite(Descriptor("/dev/null"), buffer, 1, 0) == 1; }},
    {"copy_file_range", Call::write, EIO,
     [] {
         const ScratchFile from, to;
         return write(from, buffer, 4) == 4 && lseek(from, 0, SEEK_SET) == 0 &&
                copy_file_range(from, nullptr, to, nullptr, 4, 0) == 4;
     }},
    {"ftruncate", Call::write, EIO, [] { return ftruncate(ScratchFile(), 3) == 0; }},
    {"statx", Call::stat, EIO,
     [] {
         struct statx status {};
         return statx(AT_FDCWD, "/dev/null", 0, STATX_BASIC_STATS, &status) == 0 && S_ISCHR(status.stx_mode);
     }},
    {"readlinkat", Call::stat, EIO, [] { return readlinkat(AT_FDCWD, "/proc/self/exe", buffer, sizeof buffer) > 0; }},
    {"mkdirat", Call::make, ENOSPC, [] { return mkdirat(AT_FDCWD, Scratch(), 0700) == 0; }},
    {"mknodat", Call::make, ENOSPC, [] { return mknodat(AT_FDCWD, Scratch(), S_IFIFO | 0600, 0) == 0; }},
    {"symlinkat", Call::make, ENOSPC, [] { return symlinkat("x", AT_FDCWD, Scratch()) == 0; }},
    {"linkat", Call::make, ENOSPC, [] { return linkat(AT_FDCWD, ScratchFile().path(), AT_FDCWD, Scratch(), 0) == 0; }},
    {"renameat", Call::make, ENOSPC, [] { return renameat(AT_FDCWD, ScratchFile().path(), AT_FDCWD, Scratch()) == 0; }},
    {"unlinkat", Call::remove, EIO, [] { return unlinkat(AT_FDCWD, ScratchFile().path(), 0) == 0; }},
    {"fchown", Call::attribute, EPERM, [] { return fchown(ScratchFile(), getuid(), getgid()) == 0; }},
    {"fchownat", Call::attribute, EPERM,
     [] { return fchownat(AT_FDCWD, ScratchFile().path(), getuid(), getgid(), 0) == 0; }},
    {"fchmod", Call::attribute, EPERM, [] { return fchmod(ScratchFile(), 0600) == 0; }},
    {"fchmodat", Call::attribute, EPERM, [] { return fchmodat(AT_FDCWD, ScratchFile().path(), 0600, 0) == 0; }},
    {"futimens", Call::attribute, EPERM, [] { return futimens(ScratchFile(), nullptr) == 0; }},
    {"utimensat", Call::attribute, EPERM, [] { return utimensat(AT_FDCWD, ScratchFile().path(), nullptr, 0) == 0; }},
    {"flistxattr", Call::xattr, EIO, [] { return flistxattr(ScratchFile(), buffer, sizeof buffer) >= 0; }},
    {"llistxattr", Call::xattr, EIO, [] { return llistxattr(ScratchFile().path(), buffer, sizeof buffer) >= 0; }},
    {"listxattr", Call::xattr, EIO, [] { return listxattr(ScratchFile().path(), buffer, sizeof buffer) >= 0; }},
    {"fsetxattr", Call::xattr, EIO, [] { return fsetxattr(ScratchFile(), "user.a", "b", 1, 0) == 0; }},
    {"lsetxattr", Call::xattr, EIO, [] { return lsetxattr(ScratchFile().path(), "user.a", "b", 1, 0) == 0; }},
    {"setxattr", Call::xattr, EIO, [] { return setxattr(ScratchFile().path(), "user.a", "b", 1, 0) == 0; }},
    {"fgetxattr", Call::xattr, EIO, [] { return fgetxattr(ScratchFile(true), "user.a", buffer, 9) == 1; }},
    {"lgetxattr", Call::xattr, EIO, [] { return lgetxattr(ScratchFile(true).path(), "user.a", buffer, 9) == 1; }},
    {"getxattr", Call::xattr, EIO, [] { return getxattr(ScratchFile(true).path(), "user.a", buffer, 9) == 1; }},
    {"fremovexattr", Call::xattr, EIO, [] { return fremovexattr(ScratchFile(true), "user.a") == 0; }},
    {"lremovexattr", Call::xattr, EIO, [] { return lremovexattr(ScratchFile(true).path(), "user.a") == 0; }},
    {"removexattr", Call::xattr, EIO, [] { return removexattr(ScratchFile(true).path(), "user.a") == 0; }},
    {"lseek", Call::seek, EINVAL, [] { return lseek(ScratchFile(), 1, SEEK_SET) == 1; }},
    {"syncfs", Call::sync, EIO, [] { return syncfs(Descriptor("/dev/null")) == 0; }},
    {"pthread_create", Call::thread, EAGAIN,
     [] {
         pthread_t thread;
         const auto nothing = [](void *) -> void * { return nullptr; };
         return pthread_create(&thread, nullptr, nothing, nullptr) == 0 && pthread_join(thread, nullptr) == 0;
     }},
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
#define REPLACED(name) #name,
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
