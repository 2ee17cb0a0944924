// The front end's descriptors, and the binding of the API implementation library.
#pragma once

#include <cstdint>

#include <qzfi/frontend.h>

// Hidden declarations too, so that every access is direct: a forwarder must not go through the global offset table.
#pragma GCC visibility push(hidden)
extern "C" {

struct qzfi_entry {
    const char *name;
    void *function; // null until the first binding
};

struct qzfi_module {
    const char *library_path; // below the installation root
    const char *env_name;     // the variable that overrides the whole path
    qzfi_entry *entries;      // null until the first start succeeds
    int32_t state;            // 0 unbound, 1 binding, 2 bound; read with acquire, see `qzfi_enter`
    void *handle;             // null when the library is not loaded
};

struct qzfi_modrow {
    qzfi_module *module; // null ends the table
    int32_t lowest;
    int32_t highest;
    void **errmsg; // the function cell of the module's message-text entry
};

extern qzfi_module fimod;
extern qzfi_entry fiapi[92];
extern qzfi_modrow qzfi_modtbl[2];
extern qfi_handler *ehandler; // what the caller gave to start
extern char *qzfi_lib;        // owned path of the loaded API implementation library, or null

/// Binds a module unless it is bound: loads its library, resolves every entry and calls the start entry, once under
/// any number of threads. Returns 0; 2 not started, not loaded or not bound; 5 out of memory.
int32_t qzfi_enter(qzfi_module *module);
}
#pragma GCC visibility pop

namespace qzfi {

/// What `qzfi_module.state` says.
enum BindingState : int32_t { unbound = 0, binding = 1, bound = 2 };

/// The path that marks the API implementation library among modules.
inline constexpr char api_library_path[] = "/lib/libfi.so";

/// The entries that the front end calls itself, by slot.
enum OwnSlot { start_slot = 0, shutdown_slot = 1, errmsg_slot = 2 };
using StartEntry = int32_t (*)(void *, int32_t, qfi_handler *, int32_t);
using ShutdownEntry = int32_t (*)();
using ErrmsgEntry = uint32_t (*)(uint32_t, const char **);

/// Shuts a bound module down and unloads it. No other call may be in progress.
void unbind(qzfi_module &module) noexcept;

} // namespace qzfi
