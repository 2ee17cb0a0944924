// Commands: through the context process, and the post command's guard, which outlives this process.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <qzfi/context.h>

#include "fi/fi_guard.h"
#include "fi/fi_guard_folder.h"
#include "fi/fi_temporary.h"
#include "fi/fi_tree.h"

namespace qzfi::fi {

namespace {

std::mutex context_mutex;
bool has_context = false;

// True when somebody ended it, and in a child that was forked off the host, whose commands are not the host's.
bool is_context_gone() noexcept {
    if (command_iop == nullptr)
        return true;
    siginfo_t end{};
    const auto process = static_cast<id_t>(command_iop[QFI_CONTEXT_PID]);
    if (waitid(P_PID, process, &end, WEXITED | WNOHANG | WNOWAIT) != 0)
        return errno == ECHILD;
    return end.si_pid != 0;
}

bool ensure_context() {
    const std::lock_guard lock(context_mutex);
    if (has_context && is_context_gone()) {
        qzfi_close_context();
        has_context = false;
    }
    if (!has_context)
        has_context = qzfi_create_context() == 0;
    return has_context;
}

// Runs a script that prints something, as ours do: one that is silent would be waited for ten seconds.
bool exchange(const std::string &script, std::string &output) {
    if (!ensure_context())
        return false;
    char *text = nullptr;
    uint32_t length = 0;
    const uint32_t status = qzfi_exec_cmd_in_child_context(script.c_str(), &text, &length);
    const std::unique_ptr<char, void (*)(void *)> owner(text, std::free);
    if (status == 0 && text != nullptr)
        output.assign(text, length);
    return status == 0;
}

// Whether a process, which is no child of this one, has not ended.
bool is_running(pid_t process) {
    const Descriptor file(open(("/proc/" + std::to_string(process) + "/stat").c_str(), O_RDONLY | O_CLOEXEC));
    char text[512]; // "PID (NAME) STATE ...", the name of 64 bytes at most
    const ssize_t size = file ? read(file.get(), text, sizeof text) : -1;
    const std::string_view stat(text, size > 0 ? static_cast<std::size_t>(size) : 0);
    const std::size_t end = stat.rfind(") ");
    return end != std::string_view::npos && stat.substr(end + 2).find_first_of("ZX") != 0;
}

std::string quoted(std::string_view text) {
    std::string result = "'";
    for (const char letter : text) {
        if (letter == '\'')
            result += "'\\''";
        else
            result += letter;
    }
    return result + "'";
}

constexpr std::size_t most_said = 200;

// A command's last words, of which one byte more came than is kept: cut, they begin with a line, or, all of one line,
// with a character.
std::string_view last_words(std::string_view said) {
    if (said.size() <= most_said)
        return said;
    const std::size_t end = said.find('\n');
    if (end != std::string_view::npos && said.find_first_not_of('\n', end) != std::string_view::npos)
        return said.substr(end + 1);
    said.remove_prefix(1);
    while (!said.empty() && (static_cast<unsigned char>(said.front()) & 0xC0u) == 0x80)
        said.remove_prefix(1);
    return said;
}

// "WORD CODE\nOUTPUT."; anything else means that nobody knows what became of the command.
CommandResult parse(std::string_view answer, std::string_view word, std::string_view otherwise) {
    CommandResult result;
    result.output = otherwise;
    if (answer.substr(0, word.size()) != word || answer.size() <= word.size() || answer[word.size()] != ' ')
        return result;
    answer.remove_prefix(word.size() + 1);
    const std::size_t end = answer.find('\n');
    if (end == std::string_view::npos || end == 0 || end > 3)
        return result;
    result.was_run = true;
    result.exit_code = std::atoi(std::string(answer.substr(0, end)).c_str());
    answer.remove_prefix(end + 1);
    if (answer.ends_with('.')) // it keeps the shell from dropping line ends
        answer.remove_suffix(1);
    result.output = last_words(answer);
    while (!result.output.empty() && result.output.back() == '\n')
        result.output.pop_back();
    if (result.output.empty())
        result.output = "it said nothing";
    return result;
}

// $1 the command, $2 the lock that tells a guard that the command runs, or nothing. The output goes to a file without a
// name: what the command leaves running in the background may keep writing, and is not waited for. The last 201 bytes
// of it are what the context process hands over in one piece.
constexpr char runner[] = R"sh(
text=$(mktemp 2>/dev/null) && exec 9<>"$text" && rm -f -- "$text" || exec 9<>/dev/null
if [ -n "$2" ]; then
    exec 2>/dev/null
    exec 7<>"$2" && flock -n -s 7 || exit 1
fi
/bin/bash -c "$1" </dev/null >&9 2>&1 7>&- 9>&-
code=$?
printf "qzfi %d\n%s" "$code" "$(tail -c 201 /dev/fd/9 2>/dev/null | tr -d "\0"; printf .)"
)sh";

// $1 the folder, $2 the command, $3 this process. Waits for "run", or the end of the FIFO that this process holds open
// (a child that was forked off without another program may hold it too, so the process is also looked at), then for a
// pre command that still runs, and runs the command where a pre command is run; waiting there would keep a file system
// from being unmounted. Signals meant for a group or a service do not end the waiting.
constexpr char guard[] = R"sh(
trap "" INT TERM HUP QUIT PIPE
here=$(pwd -P)
cd /
exec 4<>"$1/in" 3<"$1/in" 5<>"$1/out" 6<>"$1/text" 8<>"$1/lock" || exit 1
exec 4>&-
look() {
    life=
    IFS= read -r stat 2>/dev/null <"/proc/$1/stat" || return
    set -- ${stat##*) }
    case $1 in Z|X) ;; *) life=${20} ;; esac
}
look "$3"
born=$life
printf "ready\n" >&5
IFS= read -r word <&3
if [ "$word" != armed ]; then
    rm -rf -- "$1"
    exit 0
fi
while :; do
    IFS= read -r -t 2 word <&3
    [ $? -le 128 ] && break
    look "$3"
    [ "$life" = "$born" ] || break
done
flock 8
(
    trap - INT TERM HUP QUIT PIPE
    cd -- "$here" 2>/dev/null
    exec /bin/bash -c "$2" </dev/null >&6 2>&1 3<&- 5>&- 6>&- 8>&-
)
code=$?
said=$(tail -c 201 /dev/fd/6 | tr -d "\0"; printf .)
rm -rf -- "$1"
printf "ended %d\n%s" "$code" "$said" >&5
)sh";

} // namespace

std::string CommandResult::how() const {
    return was_run ? "exit code " + std::to_string(exit_code) : "no exit code";
}

CommandResult run_locked(const std::string &command, const std::string &lock) {
    const std::string script = "/bin/bash -c " + quoted(runner) + " qzfi " + quoted(command) + " " + quoted(lock);
    std::string answer;
    if (!exchange(script, answer))
        return {false, -1, "the context process ended first, as by a signal, or could not begin it"};
    return parse(answer, "qzfi", "the context process did not run it to its end");
}

CommandResult run_command(const std::string &command) {
    return run_locked(command, "");
}

void close_context() noexcept {
    const std::lock_guard lock(context_mutex);
    if (has_context)
        qzfi_close_context();
    has_context = false;
}

struct PostGuard::State {
    std::string command;
    std::string folder;
    const char *operation = "";
    const pid_t process = getpid();
    Descriptor in, out;

    ~State() {
        if (process != getpid())
            return;
        // What the guard has not taken with it yet; it holds what it needs.
        if (!in && !folder.empty())
            remove_folder();
    }
    void remove_folder() const noexcept {
        const Descriptor directory(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        for (const char *const name : guard_folder_names)
            unlinkat(directory.get(), name, 0);
        rmdir(folder.c_str());
    }

    [[noreturn]] void give_up(const std::string &why) {
        in.reset(-1);
        fail(message::guard_failed, QFI_FI_POST_COMMAND, operation, {why});
    }

    void make_folder() {
        const std::string base = temporary_base();
        remove_left_guard_folders(base);
        std::string made = base + "/" + guard_folder_prefix + "XXXXXX";
        if (mkdtemp(made.data()) == nullptr)
            give_up("mkdtemp in " + base + ": " + error_text(errno));
        folder = made;
        for (const char *const name : {"in", "out"})
            if (mkfifo((folder + "/" + name).c_str(), 0600) != 0)
                give_up("mkfifo in " + folder + ": " + error_text(errno));
        // Both directions of the first: opening does not wait for the guard, nor does writing break off without it.
        in = Descriptor(open((folder + "/in").c_str(), O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        out = Descriptor(open((folder + "/out").c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        if (!in || !out)
            give_up("open in " + folder + ": " + error_text(errno));
    }

    void start() {
        const std::string script = "setsid /bin/bash -c " + quoted(guard) + " qzfi-guard " + quoted(folder) + " " +
                                   quoted(command) + " " + std::to_string(getpid()) +
                                   " </dev/null >/dev/null 2>&1 & printf %d $!";
        std::string answer;
        if (!exchange(script, answer))
            give_up("the context process did not start it");
        if (!is_ready(std::atoi(answer.c_str())))
            give_up("the shell that is to wait for it did not start");
    }

    // However slow the shell is: while it lives, it is on its way. A limit in time alone would be reached by a system
    // that is crowded, or was stopped meanwhile.
    bool is_ready(pid_t shell) const {
        constexpr int look_ms = 1000, most_looks = 600;
        std::string word;
        for (int looks = 0; looks < most_looks; ++looks) {
            const bool was_running = is_running(shell);
            if (read_answer(word, was_running ? look_ms : 0, '\n'))
                return word == "ready\n";
            if (!was_running)
                return false;
        }
        return false;
    }

    void send(std::string_view word) const noexcept {
        while (write(in.get(), word.data(), word.size()) < 0 && errno == EINTR) {
        }
    }

    // Reads to `last`, or to the end; false when neither comes in time (-1: ever).
    bool read_answer(std::string &answer, int patience_ms, int last) const {
        for (;;) {
            pollfd input{out.get(), POLLIN, 0};
            const int ready = poll(&input, 1, patience_ms);
            if (ready == 0 || (ready < 0 && errno != EINTR))
                return false;
            char buffer[256];
            const ssize_t count = ready > 0 ? read(out.get(), buffer, sizeof buffer) : -1;
            if (count == 0)
                return true;
            if (count > 0)
                answer.append(buffer, static_cast<std::size_t>(count));
            if (!answer.empty() && answer.back() == last)
                return true;
        }
    }
};

PostGuard::PostGuard(const std::string &command, const char *operation) : state_(std::make_unique<State>()) {
    state_->command = command;
    state_->operation = operation;
    state_->make_folder();
    state_->start();
    state_->send("armed\n");
}

// The FIFO's end alone would not do: a child that was forked off may hold it too.
PostGuard::~PostGuard() {
    if (state_->in && state_->process == getpid())
        state_->send("run\n");
}

const std::string &PostGuard::command() const noexcept {
    return state_->command;
}

std::string PostGuard::lock() const {
    return state_->folder + "/lock";
}

CommandResult PostGuard::run() {
    State &state = *state_;
    std::string answer;
    state.send("run\n");
    state.read_answer(answer, -1, -1);
    state.in.reset(-1);
    CommandResult result = parse(answer, "ended", "");
    // Somebody ended the guard; it may have run the command, but better twice than not at all.
    return result.was_run ? result : run_command(state.command);
}

} // namespace qzfi::fi
