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
#include <vector>

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
    std::string work;
    std::string operation; // of the last progress; rates count from its first one
    Clock::time_point began, last_line;
    uint64_t bytes_at_start = 0;
};
Display display;

double seconds_between(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// What an entry costs beside its data, in bytes of data: many small files are work too.
constexpr double bytes_per_entry = 16384;

double work_of(uint64_t entries, uint64_t bytes) {
    return static_cast<double>(entries) * bytes_per_entry + static_cast<double>(bytes);
}

// How far it is, between 0 and 1; by bytes where they are known. Negative: not known.
double share_done(const qfi_progress &progress) {
    if (progress.entries_total == 0 && progress.bytes_total == 0)
        return -1;
    const bool by_entries = progress.entries_total > 0, by_bytes = progress.bytes_total > 0;
    return std::min(1.0, work_of(by_entries ? progress.entries_done : 0, by_bytes ? progress.bytes_done : 0) /
                             work_of(progress.entries_total, progress.bytes_total));
}

std::string percent_text(double share) {
    return std::to_string(static_cast<int>(share * 100)) + "%";
}

// Entries, bytes, rate and time left, as far as they are known; the last ones say the most.
std::vector<std::string> numbers(const qfi_progress &progress, double share, double seconds) {
    std::vector<std::string> texts = {counted(progress.entries_done, "entry", "entries")};
    if (progress.bytes_done > 0)
        texts.push_back(size_text(progress.bytes_done));
    if (seconds >= 0.5 && progress.bytes_done > display.bytes_at_start)
        texts.push_back(size_text(static_cast<uint64_t>(
                            static_cast<double>(progress.bytes_done - display.bytes_at_start) / seconds)) +
                        "/s");
    if (share > 0.01 && seconds >= 1)
        texts.push_back(clock_text(seconds * (1 - share) / share) + " left");
    return texts;
}

std::string bar(double share, std::size_t columns) {
    const std::size_t cells = columns < 60 ? 8 : columns < 100 ? 12 : 20;
    const auto full = static_cast<std::size_t>(share * static_cast<double>(cells));
    return " [" + std::string(full, '#') + std::string(cells - full, '.') + "] " + percent_text(share);
}

// What has no room is left out, what says the least first: the object, then entries, bytes, rate.
std::string bar_line(const qfi_progress &progress, double seconds, std::size_t columns) {
    constexpr std::size_t least_of_object = 12;
    const double share = share_done(progress);
    std::string line = display.work + (share >= 0 ? bar(share, columns) : "");
    std::vector<std::string> texts = numbers(progress, share, seconds);
    const auto needed = [&] {
        std::size_t sum = columns_of(line);
        for (const std::string &text : texts)
            sum += 2 + columns_of(text);
        return sum;
    };
    while (!texts.empty() && needed() > columns)
        texts.erase(texts.begin());
    for (const std::string &text : texts)
        line += "  " + text;
    if (const std::size_t used = columns_of(line); used + 2 + least_of_object <= columns)
        line += "  " + shortened(printable(progress.object), columns - used - 2);
    return shortened(line, columns);
}

void draw_bar(const qfi_progress &progress, double seconds) {
    // A line that wraps could not be drawn over.
    const std::size_t columns = terminal_width(STDERR_FILENO) - 1;
    std::fprintf(stderr, "\r\033[K%s", bar_line(progress, seconds, columns).c_str());
    (void)std::fflush(stderr);
    display.line_open = true;
}

// For a log that is read afterwards: "freeze /data: 45%, 12,000 entries, 1.5 GiB, 120 MiB/s, 0:15 min left".
void print_line(const qfi_progress &progress, double seconds) {
    const double share = share_done(progress);
    std::vector<std::string> texts = numbers(progress, share, seconds);
    if (share >= 0)
        texts.insert(texts.begin(), percent_text(share));
    std::fprintf(stderr, "%s %s: %s\n", display.work.c_str(), printable(progress.object).c_str(),
                 joined(texts).c_str());
}

bool is_line_due(Clock::time_point now) {
    const auto pause = std::max<Clock::duration>(std::chrono::seconds(10), (now - display.began) / 10);
    return now - display.last_line >= pause;
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
    } else if (display.shown && is_line_due(now)) {
        display.last_line = now;
        print_line(*progress, seconds_between(display.began, now));
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

ShownProgress::ShownProgress(bool quiet, const char *work) {
    const std::lock_guard lock(display.mutex);
    display.work = work;
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
