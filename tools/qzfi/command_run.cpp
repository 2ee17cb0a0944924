// qzfi run: a command in the context process, as pre and post commands run.
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tools/qzfi/commands.h"

namespace qzfi::tool {

namespace {

struct Options {
    std::vector<std::string> words;
};

std::string quoted(const std::string &word) {
    std::string text = "'";
    for (const char letter : word)
        text += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
    return text + "'";
}

// One word is a text for the shell; several are a command and its arguments.
std::string shell_text(const std::vector<std::string> &words) {
    if (words.size() == 1)
        return words[0];
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : " ") + quoted(word);
    return text;
}

class Context {
public:
    Context() {
        const auto status = static_cast<int32_t>(qzfi_create_context());
        // Only a failed handshake leaves a reference.
        if (status != QFI_STATUS_OK && reference_count_context > 0)
            qzfi_close_context();
        check(status, "start the context process");
    }
    ~Context() { qzfi_close_context(); }
    Context(const Context &) = delete;
    Context &operator=(const Context &) = delete;
};

[[noreturn]] void fail(const std::string &action) {
    throw Failure(action + ": " + std::strerror(errno));
}

// False when the reader has gone.
bool write_all(int target, const char *data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = write(target, data, size);
        if (written < 0 && errno == EPIPE)
            return false;
        if (written < 0 && errno != EINTR)
            fail(target == STDOUT_FILENO ? "write to standard output" : "write to standard error");
        const std::size_t done = written > 0 ? static_cast<std::size_t>(written) : 0;
        data += done;
        size -= done;
    }
    return true;
}

// Nobody reads on: the command finds its output as it would find the reader's own pipe, and ends, or does not care.
void close_pipe(int source) {
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    // Not by close: the number is the context's, which closes it at the end.
    if (nothing < 0 || dup3(nothing, source, O_CLOEXEC) < 0)
        fail("let go of the command's output");
    close(nothing);
}

enum class Flow { goes_on, has_ended, is_unread };

// Hands on what one read gives.
Flow hand_on(int source, int target) {
    std::array<char, 65536> buffer;
    const ssize_t count = read(source, buffer.data(), buffer.size());
    if (count < 0 && errno != EINTR)
        fail("read the command's output");
    if (count > 0 && !write_all(target, buffer.data(), static_cast<std::size_t>(count))) {
        close_pipe(source);
        return Flow::is_unread;
    }
    return count != 0 ? Flow::goes_on : Flow::has_ended;
}

// Nothing when the context process is gone.
std::optional<int32_t> read_exit_code(int source) {
    int32_t code = 0;
    ssize_t count = -1;
    do
        count = read(source, &code, sizeof code);
    while (count < 0 && errno == EINTR);
    if (count != static_cast<ssize_t>(sizeof code))
        return std::nullopt;
    return code;
}

// A signal that came to this process, until it is dealt with.
volatile std::sig_atomic_t signal_came = 0, is_from_terminal = 0;

void note_signal(int signal, siginfo_t *info, void *) {
    is_from_terminal = info->si_code == SI_KERNEL;
    signal_came = signal;
}

// As by Ctrl-C without anybody who notes it: a shell's loop goes on where it is an exit code.
[[noreturn]] void end_by(int signal) {
    (void)std::signal(signal, SIG_DFL);
    (void)raise(signal);
    _exit(exit_interrupted);
}

void note_ending_signals() {
    struct sigaction action = {};
    action.sa_sigaction = note_signal;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction present = {};
        // One that the caller ignores, as nohup does with SIGHUP, stays ignored.
        if (sigaction(signal, nullptr, &present) == 0 && present.sa_handler != SIG_IGN)
            (void)sigaction(signal, &action, nullptr);
    }
}

pid_t parent_of(const std::string &pid) {
    std::ifstream file("/proc/" + pid + "/stat");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const std::size_t place = text.rfind(')'); // what is before may be any text
    int parent = 0;
    char state = 0;
    return place != std::string::npos && std::sscanf(text.c_str() + place + 1, " %c %d", &state, &parent) == 2 ? parent
                                                                                                               : 0;
}

std::multimap<pid_t, pid_t> children_by_parent() {
    std::multimap<pid_t, pid_t> children;
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator("/proc", error))
        if (const std::string name = entry.path().filename(); name.find_first_not_of("0123456789") == std::string::npos)
            children.emplace(parent_of(name), static_cast<pid_t>(std::atol(name.c_str())));
    return children;
}

void signal_below(pid_t top, int signal) {
    const std::multimap<pid_t, pid_t> children = children_by_parent();
    std::vector<pid_t> found = {top};
    for (std::size_t index = 0; index < found.size(); ++index) {
        const auto [begin, end] = children.equal_range(found[index]);
        for (auto child = begin; child != end; ++child)
            found.push_back(child->second);
    }
    for (std::size_t index = 1; index < found.size(); ++index)
        (void)kill(found[index], signal);
}

bool has_ended(pid_t child) {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == child;
}

// The command's process, a child of the context process. That one tells how it ended, unless a signal ended it first,
// as Ctrl-C does: then the command may still be cleaning up.
class Command {
public:
    explicit Command(pid_t context) : context_(context) {}
    ~Command() {
        if (handle_ >= 0)
            close(handle_);
    }
    Command(const Command &) = delete;
    Command &operator=(const Command &) = delete;

    // Finds it once it is there; it is so two seconds before the command itself begins.
    void look() {
        if (handle_ >= 0)
            return;
        const std::multimap<pid_t, pid_t> children = children_by_parent();
        const auto child = children.find(context_);
        if (child == children.end())
            return;
        pid_ = child->second;
        handle_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0u));
        if (handle_ >= 0 && parent_of(std::to_string(pid_)) != context_) { // another one has its number by now
            close(handle_);
            handle_ = -1;
        }
    }

    // With what it started; not the context process.
    void signal(int number) const {
        signal_below(context_, number);
        if (!is_left_alone())
            return;
        (void)kill(pid_, number);
        signal_below(pid_, number);
    }

    // The context process has ended or is about to: what did it was for all of the group.
    bool context_ends() const {
        for (int naps = 0; naps < 10 && !has_ended(context_); ++naps)
            (void)poll(nullptr, 0, 10);
        return has_ended(context_);
    }

    // Nobody is there any more who would tell how it ended.
    bool is_lost() const { return has_ended(context_) && !is_left_alone(); }

private:
    bool is_left_alone() const {
        pollfd end{handle_, POLLIN, 0};
        return handle_ >= 0 && has_ended(context_) && poll(&end, 1, 0) == 0;
    }

    pid_t context_, pid_ = 0;
    int handle_ = -1;
};

// The signal that came first, 0 for none. One from the terminal, or to the whole group, has reached the command too;
// any other is handed on. The command's end is awaited, unless the terminal asks again.
int interrupted_by(const Command &command) {
    static int first = 0;
    if (const int signal = signal_came; signal != 0) {
        signal_came = 0;
        if (is_from_terminal != 0 && first != 0)
            end_by(signal);
        if (is_from_terminal == 0 && !(first == 0 && command.context_ends()))
            command.signal(signal);
        first = first == 0 ? signal : first;
    }
    return first;
}

// The context process is gone, and with it whoever could be stopped in order.
[[noreturn]] void end_interrupted(int signal) {
    if (is_from_terminal != 0)
        end_by(signal);
    std::cerr << "qzfi: run: interrupted\n";
    _exit(exit_interrupted);
}

// Output as it comes, until the exit code is there and the pipes hold nothing more. Not to the pipes' end: the context
// process holds them open, and so may what the command left running.
int32_t hand_on_all(const int32_t *record, Command &command, bool &is_unread) {
    std::array<pollfd, 3> sources{{{record[QFI_CONTEXT_OUTPUT_READ], POLLIN, 0},
                                   {record[QFI_CONTEXT_ERROR_READ], POLLIN, 0},
                                   {record[QFI_CONTEXT_STATUS_READ], POLLIN, 0}}};
    std::optional<int32_t> code;
    bool is_over = false;
    for (;;) {
        // Not for ever: a signal may come just before.
        const int ready = poll(sources.data(), sources.size(), is_over ? 0 : 250);
        if (ready < 0 && errno != EINTR)
            fail("wait for the command");
        command.look();
        const int signal = interrupted_by(command);
        if (ready == 0 && code)
            return *code;
        if (ready == 0 && is_over)
            end_interrupted(signal);
        if (ready == 0 && signal == 0 && sources[2].fd < 0)
            throw Failure("the context process ended before the command did");
        for (std::size_t index = 0; ready > 0 && index < 2; ++index)
            if (sources[index].revents != 0) {
                const Flow flow = hand_on(sources[index].fd, index == 0 ? STDOUT_FILENO : STDERR_FILENO);
                is_unread = is_unread || flow == Flow::is_unread;
                sources[index].fd = flow == Flow::goes_on ? sources[index].fd : -1;
            }
        if (ready > 0 && sources[2].revents != 0) {
            code = read_exit_code(sources[2].fd);
            sources[2].fd = -1;
        }
        // Then once more around for what was printed last.
        is_over = code || (signal != 0 && command.is_lost());
    }
}

// The context, held for one command; closing it would wait for ever otherwise.
class Exchange {
public:
    explicit Exchange(const std::string &command) {
        check(static_cast<int32_t>(qzfi_get_iop(&handle_)), "find the context process");
        // Locked also when it fails, but for arguments that these are not.
        const auto status = static_cast<int32_t>(qzfi_sendcmd(handle_, command.c_str(), QFI_LOCK_KEEP));
        if (status != QFI_STATUS_OK)
            qzfi_unlock_iop(handle_);
        check(status, "send the command to the context process");
    }
    ~Exchange() { qzfi_unlock_iop(handle_); }
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;
    const int32_t *record() const { return static_cast<const int32_t *>(handle_); }

private:
    void *handle_ = nullptr;
};

int run(const Settings &settings, const Options &options) {
    if (options.words.front().find_first_not_of(" \t\n") == std::string::npos) // as a variable that is not set
        throw Failure("run: the command is empty", exit_usage);
    const Session session(settings);
    const Context context;
    // The context process has closed its standard input: what the command opens first would be taken for it.
    const std::string command = shell_text(options.words);
    note_ending_signals();
    (void)std::signal(SIGPIPE, SIG_IGN); // a reader that went away is noticed, and the command's end awaited
    const Exchange exchange("exec </dev/null\n" + command);
    Command process(exchange.record()[QFI_CONTEXT_PID]);
    bool is_unread = false;
    const int32_t code = hand_on_all(exchange.record(), process, is_unread);
    if (interrupted_by(process) != 0)
        throw Failure("run " + command + ": interrupted", exit_interrupted);
    if (is_unread && code <= 0)
        return exit_unread;
    if (code < 0)
        throw Failure("run " + command + ": it was ended by a signal", exit_failed, take_errors());
    return code;
}

} // namespace

void add_run(CommandLine &line) {
    add_command<Options>(
        line, "run", "Run a command as pre and post commands run, in the context process", run,
        [](Arguments &command, Options &options) {
            command.footer(
                "Write \"--\" before the command. One word is a text for /bin/bash; several are a command and "
                "its arguments. It starts after two seconds, has nothing to read on standard input, and its exit "
                "code becomes that of qzfi.");
            command.add_option("COMMAND", options.words, "The command, with its arguments").required();
        });
}

} // namespace qzfi::tool
