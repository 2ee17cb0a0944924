// Countdown fault injection: makes the n-th allocation or system call of a scenario fail, for every n.
//
//     fault::for_each(fault::Call::allocation, [](fault::Trial &trial) {
//         arrange();
//         trial.arm();
//         const auto status = act();
//         trial.disarm();
//         EXPECT_EQ(status, trial.fired() ? 5 : 0);
//         clean_up();
//     });
//
// The scenario runs with n = 1, 2, ... until it passes untouched. Only calls made by objects linked into the test
// program count: the library's objects of the static archive, and the test's own. Constructions are the exception: the
// operators new of the whole process count, those that shared libraries use included. The calls of all threads and of
// forked processes count together, so with several of them n fixes the case only as far as their order is fixed.
//
// Each case prints, before it runs, the value of QZFI_FAULT that repeats it alone, for example QZFI_FAULT=allocation:3:
// the last one printed belongs to a crash or a hang. Memory that a case loses fails that case under the address
// sanitizer.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>

namespace fault {

enum class Call {
    allocation,
    construction, // operator new and new[]: std::bad_alloc, or null from the forms that do not throw
    open,
    close,
    read,
    write,
    pipe,
    dup,
    fork,
    waitpid,
    kill,
    select,
    poll,
    ioctl,
    fcntl,
    stat,
    access,
    getcwd,
    opendir,
    readdir,
    mmap,
    munmap,
    fopen,
    tempnam,
    dlopen,
    dlsym,
    make,      // of directories, links, nodes; renames
    remove,    // unlinkat
    attribute, // owners, modes, times
    xattr,
    copy, // within the kernel
    seek,
    sync,
    thread,
};

/// How a call fails.
struct Failure {
    int error = 0;             // errno, 0 for the call's usual one
    bool from_then_on = false; // the n-th and every later call, not only the n-th
};

/// Makes the n-th call (from 1) fail while it lives, also for threads and processes that live longer. One at a time.
class Armed {
public:
    Armed(Call call, int nth, Failure failure = {});
    ~Armed();
    Armed(const Armed &) = delete;
    Armed &operator=(const Armed &) = delete;

    /// True once a call was made to fail, in this process or one forked, until the next one is armed.
    static bool fired();
};

/// Limits every read and write to a number of bytes while it lives.
class ShortTransfers {
public:
    explicit ShortTransfers(std::size_t limit);
    ~ShortTransfers();
    ShortTransfers(const ShortTransfers &) = delete;
    ShortTransfers &operator=(const ShortTransfers &) = delete;
};

/// One run of a scenario.
class Trial {
public:
    Trial(Call call, int nth, Failure failure) : call_(call), nth_(nth), failure_(failure) {}

    void arm();
    void disarm();
    /// True when the call failed in this run.
    bool fired() const { return fired_; }
    int nth() const { return nth_; }

private:
    Call call_;
    int nth_;
    Failure failure_;
    std::optional<Armed> armed_;
    bool fired_ = false;
};

/// Runs a scenario with the first, second, ... call failing until it passes untouched; fails the test when the
/// scenario makes no such call at all.
void for_each(Call call, const std::function<void(Trial &)> &scenario, Failure failure = {});

} // namespace fault
