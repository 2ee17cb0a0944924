#include "tools/qzfi/progress.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <unistd.h>

#include "tools/qzfi/text.h"
#include "tools/qzfi/tool.h"

namespace qzfi::tool {

namespace {

using Clock = std::chrono::steady_clock;

// Read by the threads that work.
std::atomic<int> signal_came = 0;
static_assert(std::atomic<int>::is_always_lock_free);

void note_signal(int) {
    signal_came = 1;
}

// Guards all of what is shown: progress comes from the threads that work.
struct Display {
    std::mutex mutex;
    bool shown = false;
    bool terminal = false;
    bool line_open = false;
    std::string operation; // of the last progress; rates count from its first one
    Clock::time_point began, last_line;
    uint64_t bytes_at_start = 0;
};
Display display;

double seconds_between(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// How far it is, between 0 and 1; by bytes where they are known. Negative: not known.
double share_done(const qfi_progress &progress) {
    if (progress.bytes_total > 0)
        return std::min(1.0, static_cast<double>(progress.bytes_done) / static_cast<double>(progress.bytes_total));
    if (progress.entries_total > 0)
        return std::min(1.0, static_cast<double>(progress.entries_done) / static_cast<double>(progress.entries_total));
    return -1;
}

std::string numbers(const qfi_progress &progress, double seconds) {
    std::string text = counted(progress.entries_done, "entry", "entries");
    if (progress.bytes_done > 0)
        text += "  " + size_text(progress.bytes_done);
    if (seconds >= 0.5 && progress.bytes_done > display.bytes_at_start)
        text += "  " +
                size_text(static_cast<uint64_t>(static_cast<double>(progress.bytes_done - display.bytes_at_start) /
                                                seconds)) +
                "/s";
    return text;
}

void draw_bar(const qfi_progress &progress, double seconds) {
    constexpr std::size_t cells = 20;
    std::string line = progress.operation;
    const double share = share_done(progress);
    if (share >= 0) {
        const auto full = static_cast<std::size_t>(share * cells);
        line += " [" + std::string(full, '#') + std::string(cells - full, '.') + "] " +
                std::to_string(static_cast<int>(share * 100)) + "%";
    }
    line += "  " + numbers(progress, seconds);
    if (share > 0.01 && seconds >= 1)
        line += "  " + clock_text(seconds * (1 - share) / share) + " left";
    line += "  " + printable(progress.object);
    // A line that wraps could not be drawn over.
    std::fprintf(stderr, "\r\033[K%s", shortened(line, terminal_width(STDERR_FILENO) - 1).c_str());
    (void)std::fflush(stderr);
    display.line_open = true;
}

int32_t on_progress(qfi_progress_handler *, const qfi_progress *progress) {
    const std::lock_guard lock(display.mutex);
    const auto now = Clock::now();
    if (display.operation != progress->operation) {
        display.operation = progress->operation;
        display.began = display.last_line = now;
        display.bytes_at_start = progress->bytes_done;
    }
    if (display.shown && display.terminal) {
        draw_bar(*progress, seconds_between(display.began, now));
    } else if (display.shown && now - display.last_line >= std::chrono::seconds(10)) {
        display.last_line = now;
        std::fprintf(stderr, "%s %s: %s\n", progress->operation, printable(progress->object).c_str(),
                     numbers(*progress, seconds_between(display.began, now)).c_str());
    }
    return signal_came;
}

qfi_progress_handler handler = {sizeof(qfi_progress_handler), on_progress};

constexpr std::array<int, 3> ending_signals = {SIGINT, SIGTERM, SIGHUP};
std::array<struct sigaction, ending_signals.size()> earlier_actions;
struct sigaction earlier_pipe_action;

} // namespace

qfi_progress_handler *progress_handler() {
    return &handler;
}

ShownProgress::ShownProgress(bool quiet) {
    const std::lock_guard lock(display.mutex);
    display.shown = !quiet;
    // A bar is drawn again and again in its place, which not every terminal can do.
    const char *const kind = std::getenv("TERM");
    display.terminal = isatty(STDERR_FILENO) == 1 && kind != nullptr && std::string_view(kind) != "dumb";
    display.operation.clear();
}

ShownProgress::~ShownProgress() {
    const std::lock_guard lock(display.mutex);
    if (display.line_open)
        std::fputs("\r\033[K", stderr);
    display.line_open = display.shown = false;
}

Interruptible::Interruptible() {
    struct sigaction action = {};
    action.sa_handler = note_signal;
    action.sa_flags = SA_RESTART;
    for (std::size_t index = 0; index < ending_signals.size(); ++index) {
        (void)sigaction(ending_signals[index], nullptr, &earlier_actions[index]);
        // One that the caller ignores, as nohup does with SIGHUP, stays ignored.
        if (earlier_actions[index].sa_handler != SIG_IGN)
            (void)sigaction(ending_signals[index], &action, nullptr);
    }
    // Nobody reading what is said is no reason to leave something half-made.
    action.sa_handler = SIG_IGN;
    (void)sigaction(SIGPIPE, &action, &earlier_pipe_action);
}

Interruptible::~Interruptible() {
    for (std::size_t index = 0; index < ending_signals.size(); ++index)
        (void)sigaction(ending_signals[index], &earlier_actions[index], nullptr);
    (void)sigaction(SIGPIPE, &earlier_pipe_action, nullptr);
}

void check_interrupted(const std::string &action) {
    if (signal_came != 0)
        check(QFI_FI_CANCELLED, action);
}

} // namespace qzfi::tool
