// The trial of a plugin: a process of its own loads it, starts it and stops it, so that a crash there is none here.
//
// The process runs the small program `qzfi_provider_probe`, which lies in lib/qzfi/. It is spawned, which neither
// copies a large host's memory nor runs any of a host's code in the child, as a forked throw-away child would have to,
// with the locks that other threads held. A trial takes milliseconds, where a command of the context process takes
// seconds.
#pragma once

#include <chrono>
#include <string>

namespace qzfi::fi {

inline constexpr auto longest_trial = std::chrono::seconds(30);

/// Why the plugin must not be loaded ("crashed while loading (signal 11)"); empty when it may be. Without the program
/// the trial is left out, which is traced.
std::string failed_trial(const char *library_path, std::chrono::milliseconds limit = longest_trial);

/// The program's descriptor for what it tells: each step before it is begun, and the last one when all is over.
inline constexpr int trial_report = 3;
inline constexpr char trial_loading = 'l', trial_starting = 's', trial_stopping = 't', trial_over = '.';

inline constexpr char trial_program[] = "qzfi_provider_probe";

} // namespace qzfi::fi
