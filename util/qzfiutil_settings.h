// Process-wide settings of the utility layer.
//
// Plain globals, set before start by one thread; `sema1` guards the credential text only.
#pragma once

#include <cstdint>
#include <pthread.h>
#include <semaphore.h>

#include <qzfi/settings.h>

#pragma GCC visibility push(hidden)
extern "C" {

extern int32_t qzfi_started;              // 1 between a successful start and shutdown
extern char *qzfi_install_root;           // owned; the root given by the caller, or null
extern char *qzfi_root;                   // owned; the root in force while started
extern const char *const default_root;    // used when no root was given
extern char *qzfi_consumer;               // owned; or null
extern char *credential_blob;             // owned; or null; every access holds sema1
extern sem_t sema1;                       // guards credential_blob
extern pthread_mutex_t ssod_mutex;        // for other layers
extern int16_t app_version[4];            // the caller's version as accepted by start
extern char qzfi_lang[8];                 // current language tag, empty when unset
extern const char *const qzfi_langtbl[4]; // none, "root", "ja", "zh"
}
#pragma GCC visibility pop

namespace qzfi {

/// The kind of version that `compare_with_lib_version` takes for an application's; any other is a plugin's.
inline constexpr int32_t application_kind = 1;

/// Makes the credential lock free, whoever left it held.
void free_credential_lock() noexcept;

/// Replaces an owned setting by a copy of a text, or clears it for null. Returns 0, or 5 with the setting null.
int32_t replace_or_clear(char *&setting, const char *text) noexcept;

} // namespace qzfi
