// The front end's descriptors, and the binding of the API implementation library.
#pragma once

#include <cstdint>

#include <qzfi/frontend.h>

extern "C" {

typedef struct qzfi_entry {
    const char *name;
    void *function; // null until the first binding
} qzfi_entry;

typedef struct qzfi_module {
    const char *library_path; // below the installation root
    const char *env_name;     // the variable that overrides the whole path
    qzfi_entry *entries;      // null until the first start succeeds
    int32_t state;            // 0 unbound, 1 binding, 2 bound; read with acquire, see `qzfi_enter`
    void *handle;             // null when the library is not loaded
} qzfi_module;

typedef struct qzfi_modrow {
    qzfi_module *module; // null ends the table
    int32_t lowest;
    int32_t highest;
    void **errmsg; // the function cell of the module's message-text entry
} qzfi_modrow;

extern qzfi_module fimod;
extern qzfi_entry fiapi[92];
extern qzfi_modrow qzfi_modtbl[2];
extern qfi_handler *ehandler; // what the caller gave to start
extern char *qzfi_lib;        // owned path of the loaded API implementation library, or null

/// Binds a module unless it is bound: loads its library, resolves every entry and calls the start entry, once under
/// any number of threads. Returns 0; 2 not started, not loaded or not bound; 5 out of memory.
int32_t qzfi_enter(qzfi_module *module);
}
