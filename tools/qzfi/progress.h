// Progress of long operations on standard error, and the signals that end them.
#pragma once

#include <string>

#include <qzfi_fi.h>

namespace qzfi::tool {

/// What the framework's handler record carries. Shows progress only while a `ShownProgress` lives; cancels the running
/// operation once a signal came while an `Interruptible` lives.
qfi_progress_handler *progress_handler();

/// While it lives, progress is shown as that of `work`, such as "freeze": a bar with rate and time left on a terminal,
/// else a line every ten seconds, and less often the longer it takes. Nothing when `quiet`. The bar is gone afterwards.
class ShownProgress {
public:
    ShownProgress(bool quiet, const char *work);
    ~ShownProgress();
    ShownProgress(const ShownProgress &) = delete;
    ShownProgress &operator=(const ShownProgress &) = delete;
};

/// While it lives, SIGINT, SIGTERM and SIGHUP do not end the process: the running operation is cancelled, which leaves
/// nothing half-made, and `check_interrupted` throws. Further signals change nothing.
class Interruptible {
public:
    Interruptible();
    ~Interruptible();
    Interruptible(const Interruptible &) = delete;
    Interruptible &operator=(const Interruptible &) = delete;
};

/// Throws Failure with `exit_interrupted` when a signal came; `action` as for `check`.
void check_interrupted(const std::string &action);

} // namespace qzfi::tool
