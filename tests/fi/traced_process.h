// Hosts under ptrace: the n-th system call of those that count fails with an errno, or the process is killed just
// before it. Unlike calls that are wrapped at link time this reaches what was built, with all libraries that it uses.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>

namespace traced {

/// A system call that is about to be made.
struct Call {
    pid_t thread = 0;
    uint64_t number = 0;
    std::array<uint64_t, 6> arguments{};

    /// The file that it works on: that of its descriptor, or its path; empty when it names none.
    std::string path() const;
};

/// True for calls that change what others can see: files, directories, attributes, locks, and processes.
bool changes_something(const Call &call);
/// True for calls that could meet a disk that fails: opening, reading, writing, syncing, naming, attributes.
bool meets_disk(const Call &call);

struct Plan {
    int step = 1;                             ///< which of the calls that count; from 1
    int error = 0;                            ///< the errno with which it fails; 0: the caller is killed
    std::function<bool(const Call &)> counts; ///< which calls count
    bool children = false;                    ///< calls of its child processes count, and only those
    bool after = false;                       ///< the caller is killed when the call has ended, not before it begins
};

struct Outcome {
    bool was_reached = false; ///< the step came
    int exit_code = 0;        ///< of the process; minus the signal that ended it
    Call call;                ///< the call of that step
    std::string path;         ///< and what it worked on
};

/// Why processes cannot be traced here; nothing when they can.
std::optional<std::string> obstacle();

/// Runs a body in a child process, which counts from its call of `begin` on. Waits for the child, and with `children`
/// for all that came of it.
Outcome run(const Plan &plan, const std::function<void()> &body);
/// To be called in the body, once.
void begin();

} // namespace traced
