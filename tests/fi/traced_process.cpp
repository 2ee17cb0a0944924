#include "traced_process.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <stdexcept>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace traced {

namespace {

bool is_one_of(uint64_t number, const std::set<uint64_t> &numbers) {
    return numbers.count(number) != 0;
}

// Calls whose first argument is a descriptor, or a directory's with a path as the second one.
const std::set<uint64_t> by_descriptor{
    SYS_fsync,     SYS_fdatasync, SYS_syncfs,   SYS_flock, SYS_fchmod,  SYS_fchown,     SYS_fsetxattr, SYS_ftruncate,
    SYS_fallocate, SYS_write,     SYS_pwrite64, SYS_read,  SYS_pread64, SYS_getdents64, SYS_ioctl,     SYS_fcntl,
};
const std::set<uint64_t> by_directory{
    SYS_mkdirat,   SYS_renameat2, SYS_renameat, SYS_unlinkat, SYS_linkat,  SYS_mknodat,
    SYS_utimensat, SYS_fchmodat,  SYS_fchownat, SYS_openat,   SYS_openat2,
};
const std::set<uint64_t> by_path{
    SYS_mkdir, SYS_rmdir, SYS_unlink, SYS_rename, SYS_open, SYS_mknod, SYS_setxattr, SYS_lsetxattr,
};

std::string text_at(pid_t thread, uint64_t address) {
    std::array<char, PATH_MAX> buffer{};
    // Not beyond the page, for the next one may not be there.
    const std::size_t size = std::min<std::size_t>(buffer.size() - 1, 4096 - address % 4096);
    const iovec local{buffer.data(), size}, remote{reinterpret_cast<void *>(address), size};
    return process_vm_readv(thread, &local, 1, &remote, 1, 0) > 0 ? buffer.data() : "";
}

std::string file_of(pid_t thread, int descriptor) {
    const std::string root = "/proc/" + std::to_string(thread);
    const std::string link = descriptor == AT_FDCWD ? root + "/cwd" : root + "/fd/" + std::to_string(descriptor);
    std::array<char, PATH_MAX> target{};
    return readlink(link.c_str(), target.data(), target.size() - 1) > 0 ? target.data() : "";
}

bool opens_to_make(const Call &call) {
    if (call.number == SYS_openat)
        return (call.arguments[2] & (O_CREAT | O_TRUNC)) != 0;
    uint64_t flags = 0;
    const iovec local{&flags, sizeof flags}, remote{reinterpret_cast<void *>(call.arguments[2]), sizeof flags};
    return process_vm_readv(call.thread, &local, 1, &remote, 1, 0) == sizeof flags && (flags & O_CREAT) != 0;
}

} // namespace

std::string Call::path() const {
    const int descriptor = static_cast<int>(arguments[0]);
    if (is_one_of(number, by_descriptor))
        return file_of(thread, descriptor);
    if (number == SYS_symlinkat)
        return file_of(thread, static_cast<int>(arguments[1])) + "/" + text_at(thread, arguments[2]);
    if (number == SYS_copy_file_range)
        return file_of(thread, static_cast<int>(arguments[2]));
    if (is_one_of(number, by_path))
        return text_at(thread, arguments[0]);
    if (!is_one_of(number, by_directory))
        return {};
    const std::string name = text_at(thread, arguments[1]);
    return name.empty() || name[0] == '/' ? name : file_of(thread, descriptor) + "/" + name;
}

bool changes_something(const Call &call) {
    static const std::set<uint64_t> changing{
        SYS_mkdirat,   SYS_mkdir,     SYS_renameat2, SYS_renameat,  SYS_rename,   SYS_unlinkat,
        SYS_unlink,    SYS_rmdir,     SYS_linkat,    SYS_symlinkat, SYS_mknodat,  SYS_mknod,
        SYS_fsync,     SYS_fdatasync, SYS_syncfs,    SYS_flock,     SYS_fchmod,   SYS_fchmodat,
        SYS_fchown,    SYS_fchownat,  SYS_utimensat, SYS_fsetxattr, SYS_setxattr, SYS_lsetxattr,
        SYS_ftruncate, SYS_fallocate, SYS_write,     SYS_pwrite64,  SYS_ioctl,    SYS_copy_file_range,
        SYS_kill,      SYS_clone,     SYS_clone3,    SYS_vfork,     SYS_fork,     SYS_execve,
    };
    if (call.number == SYS_openat || call.number == SYS_openat2)
        return opens_to_make(call);
    return is_one_of(call.number, changing);
}

bool meets_disk(const Call &call) {
    static const std::set<uint64_t> meeting{
        SYS_mkdirat,   SYS_mkdir,     SYS_renameat2, SYS_renameat,  SYS_rename,     SYS_unlinkat,
        SYS_linkat,    SYS_unlink,    SYS_rmdir,     SYS_symlinkat, SYS_mknodat,    SYS_fsync,
        SYS_fdatasync, SYS_syncfs,    SYS_fchmod,    SYS_fchmodat,  SYS_fchown,     SYS_fchownat,
        SYS_utimensat, SYS_fsetxattr, SYS_ftruncate, SYS_fallocate, SYS_write,      SYS_pwrite64,
        SYS_read,      SYS_pread64,   SYS_openat,    SYS_openat2,   SYS_getdents64, SYS_copy_file_range,
    };
    return is_one_of(call.number, meeting);
}

namespace {

pid_t process_of(pid_t thread) {
    std::ifstream status("/proc/" + std::to_string(thread) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("Tgid:", 0) == 0)
            return static_cast<pid_t>(std::stoi(line.substr(5)));
    return 0;
}

class Tracer {
public:
    Tracer(const Plan &plan, pid_t child) : plan_(plan), child_(child) {}

    Outcome run() {
        int status = 0;
        // The child stops itself when it begins, and is not looked at before.
        if (waitpid(child_, &status, WUNTRACED) != child_ || !WIFSTOPPED(status)) {
            outcome_.exit_code = code_of(status);
            return outcome_;
        }
        long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE;
        if (plan_.children)
            options |= PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK;
        if (ptrace(PTRACE_SETOPTIONS, child_, nullptr, options) != 0)
            throw std::runtime_error("PTRACE_SETOPTIONS");
        resume(child_, 0);
        for (pid_t thread; (thread = waitpid(-1, &status, __WALL)) > 0;)
            if (WIFSTOPPED(status))
                stopped(thread, status);
            else if (thread == child_)
                outcome_.exit_code = code_of(status);
        return outcome_;
    }

private:
    static int code_of(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status); }

    void resume(pid_t thread, int signal) const {
        // Calls after the step are nobody's concern, but for the return of the one that fails.
        const bool is_watched = !outcome_.was_reached || failing_.count(thread) != 0;
        ptrace(is_watched ? PTRACE_SYSCALL : PTRACE_CONT, thread, nullptr, signal);
    }

    void stopped(pid_t thread, int status) {
        const int signal = WSTOPSIG(status);
        if (signal == (SIGTRAP | 0x80))
            at_call(thread);
        // New threads begin with a stop; further events and the trap of an execve are no signals either.
        const bool is_ours = signal == (SIGTRAP | 0x80) || signal == SIGTRAP || signal == SIGSTOP;
        resume(thread, is_ours ? 0 : signal);
    }

    void at_call(pid_t thread) {
        __ptrace_syscall_info info{};
        if (ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof info, &info) <= 0)
            return;
        if (info.op == PTRACE_SYSCALL_INFO_EXIT && failing_.erase(thread) != 0)
            return end_step(thread);
        if (info.op != PTRACE_SYSCALL_INFO_ENTRY || outcome_.was_reached)
            return;
        Call call{thread, info.entry.nr, {}};
        std::copy(std::begin(info.entry.args), std::end(info.entry.args), call.arguments.begin());
        const pid_t process = plan_.children ? process_of(thread) : child_;
        if ((plan_.children && process == child_) || !plan_.counts(call) || ++seen_ != plan_.step)
            return;
        outcome_.was_reached = true;
        outcome_.call = call;
        outcome_.path = call.path();
        if (plan_.error == 0 && !plan_.after) {
            kill(process, SIGKILL);
            return;
        }
        if (plan_.error != 0)
            set_register(thread, &user_regs_struct::orig_rax, static_cast<uint64_t>(-1));
        failing_.insert(thread);
    }

    void end_step(pid_t thread) const {
        if (plan_.error == 0)
            kill(plan_.children ? process_of(thread) : child_, SIGKILL);
        else
            set_register(thread, &user_regs_struct::rax, static_cast<uint64_t>(-plan_.error));
    }

    template <class Register>
    static void set_register(pid_t thread, Register which, uint64_t value) {
        user_regs_struct registers{};
        ptrace(PTRACE_GETREGS, thread, nullptr, &registers);
        registers.*which = value;
        ptrace(PTRACE_SETREGS, thread, nullptr, &registers);
    }

    const Plan &plan_;
    const pid_t child_;
    Outcome outcome_;
    std::set<pid_t> failing_;
    int seen_ = 0;
};

} // namespace

std::optional<std::string> obstacle() {
    const pid_t child = fork();
    if (child == 0)
        _exit(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 ? 0 : errno);
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return std::nullopt;
    return std::string("no right to trace processes: ") + std::strerror(WEXITSTATUS(status));
}

void begin() {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
}

Outcome run(const Plan &plan, const std::function<void()> &body) {
    const pid_t child = fork();
    if (child == 0) {
        body();
        _exit(0);
    }
    return Tracer(plan, child).run();
}

} // namespace traced
