// Counts the steps by which a store changes: system calls of the library (wrapped at link time), those of SQLite
// (through its table of system calls), and allocations of C++ and of SQLite. The n-th step fails, or kills the process.
#pragma once

namespace step_faults {

enum class Kind { calls, constructions, sqlite_allocations };

/// To be called before SQLite is used for the first time.
void install();
/// The n-th step of the kind fails with the errno, or, 0, kills the process with SIGKILL.
void arm(Kind kind, int nth, int error);
/// True when it failed.
bool disarm();

} // namespace step_faults
