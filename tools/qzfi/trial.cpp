#include "tools/qzfi/trial.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qzfi::tool {

namespace {

constexpr int exit_threw = 9;

[[noreturn]] void be_the_child(int output, Json (*work)(const std::string &), const std::string &argument) {
    const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        (void)dup2(nowhere, standard);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // Its own group, so that the whole of it can be ended.
    setpgid(0, 0);
    std::string text;
    int code = 0;
    try {
        text = work(argument).dump(-1, ' ', false, Json::error_handler_t::replace);
    } catch (const std::exception &error) {
        text = error.what();
        code = exit_threw;
    }
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t written = write(output, text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR)
            break;
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
    _exit(code);
}

// To the pipe's end; false when that does not come in time.
bool read_all(int source, std::string &text, int patience_seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(patience_seconds);
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        pollfd input{source, POLLIN, 0};
        if (left <= 0)
            return false;
        if (poll(&input, 1, static_cast<int>(left)) <= 0)
            continue;
        std::array<char, 4096> buffer;
        const ssize_t count = read(source, buffer.data(), buffer.size());
        if (count == 0)
            return true;
        if (count > 0)
            text.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

int wait_for(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

} // namespace

TrialResult try_out(Json (*work)(const std::string &), const std::string &argument, int patience_seconds) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
        return {{}, std::string("could not begin: pipe2: ") + std::strerror(errno)};
    const pid_t child = fork();
    if (child == 0)
        be_the_child(ends[1], work, argument);
    const int fork_error = errno;
    close(ends[1]);
    std::string text;
    const bool has_ended = child > 0 && read_all(ends[0], text, patience_seconds);
    close(ends[0]);
    if (child < 0)
        return {{}, std::string("could not begin: fork: ") + std::strerror(fork_error)};
    if (!has_ended && kill(-child, SIGKILL) != 0)
        kill(child, SIGKILL);
    const int status = wait_for(child);
    if (!has_ended)
        return {{}, "did not come back within " + std::to_string(patience_seconds) + " s"};
    if (WIFSIGNALED(status))
        return {{}, std::string("crashed (") + strsignal(WTERMSIG(status)) + ")"};
    if (WEXITSTATUS(status) == exit_threw)
        return {{}, "failed: " + text};
    Json result = Json::parse(text, nullptr, false);
    if (WEXITSTATUS(status) != 0 || result.is_discarded())
        return {{}, "ended the process with exit code " + std::to_string(WEXITSTATUS(status))};
    return {std::move(result), {}};
}

} // namespace qzfi::tool
