#include "fi/fi_provider_trial.h"

#include <csignal>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <qzfi/log.h>

#include "fi/fi_library.h"

namespace qzfi::fi {

namespace {

std::string folder_of(const std::string &path) {
    return path.substr(0, path.rfind('/') + 1);
}

// The folder that this code was loaded from; libfi.so lies beside "qzfi/".
std::string own_folder() {
    Dl_info info{};
    static const char anchor = 0;
    if (dladdr(&anchor, &info) == 0 || info.dli_fname == nullptr)
        return {};
    return folder_of(info.dli_fname);
}

std::string find_program(const std::string &library_path) {
    for (const std::string &folder :
         {own_folder() + "qzfi/", installation_root() + "/lib/qzfi/", folder_of(library_path) + "../"}) {
        std::string path = folder + trial_program;
        if (access(path.c_str(), X_OK) == 0)
            return path;
    }
    return {};
}

// What the spawned process begins with: no file of the host but the pipe, no signal ignored or blocked.
class SpawnPlan {
public:
    explicit SpawnPlan(int report) {
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawn_file_actions_init(&files_); // these two cannot fail
        posix_spawnattr_init(&attributes_);
        is_whole_ = posix_spawn_file_actions_adddup2(&files_, report, trial_report) == 0 &&
                    posix_spawn_file_actions_addopen(&files_, STDIN_FILENO, "/dev/null", O_RDONLY, 0) == 0 &&
                    posix_spawn_file_actions_addopen(&files_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0) == 0 &&
                    posix_spawn_file_actions_addopen(&files_, STDERR_FILENO, "/dev/null", O_WRONLY, 0) == 0 &&
                    posix_spawn_file_actions_addclosefrom_np(&files_, trial_report + 1) == 0 &&
                    posix_spawnattr_setsigmask(&attributes_, &none) == 0 &&
                    posix_spawnattr_setsigdefault(&attributes_, &all) == 0 &&
                    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF) == 0;
    }
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&files_);
        posix_spawnattr_destroy(&attributes_);
    }
    SpawnPlan(const SpawnPlan &) = delete;
    SpawnPlan &operator=(const SpawnPlan &) = delete;

    /// 0, or the errno.
    int spawn(pid_t &child, const std::string &program, const char *argument) {
        if (!is_whole_)
            return ENOMEM;
        std::string name = program, word = argument;
        char *arguments[] = {name.data(), word.data(), nullptr};
        return posix_spawn(&child, program.c_str(), &files_, &attributes_, arguments, environ);
    }

private:
    posix_spawn_file_actions_t files_;
    posix_spawnattr_t attributes_;
    bool is_whole_ = false;
};

// Takes what the process tells until it ends; false when that does not come in time. The pipe's end is not the
// process's: a plugin may close what it did not open, or leave it to a process of its own.
bool follow(const Descriptor &process, int report, char &step, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    pollfd inputs[] = {{report, POLLIN, 0}, {process.get(), POLLIN, 0}};
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        if (poll(inputs, std::size(inputs), process ? static_cast<int>(left.count()) : 0) < 0)
            continue;
        if (inputs[0].revents != 0) {
            char told[64];
            const ssize_t count = read(report, told, sizeof told);
            if (count > 0) {
                step = told[count - 1];
                continue;
            }
            inputs[0].fd = -1;
        }
        if (!process || inputs[1].revents != 0)
            return true;
    }
}

// A host may reap its children itself; then nothing is known of the end.
std::string way_of_end(pid_t child) {
    int status = 0;
    pid_t reaped = -1;
    do
        reaped = waitpid(child, &status, 0);
    while (reaped == -1 && errno == EINTR);
    if (reaped != child)
        return "(no exit status)";
    return WIFSIGNALED(status) ? "(signal " + std::to_string(WTERMSIG(status)) + ")"
                               : "(exit code " + std::to_string(WEXITSTATUS(status)) + ")";
}

const char *doing(char step) {
    switch (step) {
    case trial_starting:
        return "starting";
    case trial_stopping:
        return "stopping";
    default:
        return "loading";
    }
}

} // namespace

std::string failed_trial(const char *library_path, std::chrono::milliseconds limit) {
    const std::string program = find_program(library_path);
    if (program.empty()) {
        qzfi_tracelog(3, "%s is not installed: %s is loaded without a trial", trial_program, library_path);
        return {};
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return "its trial could not begin: " + error_text(errno);
    const Descriptor reading(ends[0]);
    Descriptor writing(ends[1]);
    pid_t child = -1;
    const int error = SpawnPlan(writing.get()).spawn(child, program, library_path);
    writing.reset(-1);
    if (error != 0)
        return "its trial could not begin: " + error_text(error);
    // Gone already where a host lets the system reap its children.
    const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    const int obstacle = process || errno == ESRCH ? 0 : errno;
    char step = trial_loading;
    const bool has_ended = obstacle == 0 && follow(process, reading.get(), step, limit);
    if (!has_ended)
        kill(child, SIGKILL);
    const std::string end = way_of_end(child);
    if (obstacle != 0)
        return "its trial could not begin: " + error_text(obstacle);
    if (!has_ended)
        return std::string("did not come back from ") + doing(step);
    if (step == trial_over)
        return {};
    return std::string("crashed while ") + doing(step) + " " + end;
}

} // namespace qzfi::fi
