#include "api/qzfiapi.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include <qzfi/errors.h>
#include <qzfi/status.h>
#include <qzfi/system.h>

#include "common/qzfilock.h"
#include "common/qzfitext.h"
#include "util/qzfiutil_messages.h"
#include "util/qzfiutil_settings.h"

#define QZFI_ENTRY(slot, name, ...) {"qzfi_" #name, nullptr},
#define QZFI_OWN QZFI_ENTRY
#define QZFI_OPERATION QZFI_ENTRY
#define QZFI_TREE QZFI_ENTRY
#define QZFI_SPARE QZFI_ENTRY
#define QZFI_ALIAS(slot, name, ...)
// Every forwarded call reads these two; they stay off the cache lines of what others write.
alignas(64) qzfi_entry fiapi[] = {
#include <qzfi/operations.def>
    {nullptr, nullptr}};
alignas(64) qzfi_module fimod = {qzfi::api_library_path, "QFI_API_LIB", nullptr, qzfi::unbound, nullptr};

qzfi_modrow qzfi_modtbl[2] = {{&fimod, QFI_STATUS_API_FIRST, QFI_STATUS_API_LAST, &fiapi[qzfi::errmsg_slot].function},
                              {nullptr, 0, 0, nullptr}};
qfi_handler *ehandler = nullptr;
char *qzfi_lib = nullptr;

namespace qzfi {
namespace {

// Guard every module's state. Not the utility layer's pair of the same names, which is exported.
// Statically initialised and never destroyed: a call before start or after shutdown then fails instead of touching a
// dead lock.
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t cv = PTHREAD_COND_INITIALIZER;

constexpr char routine[] = "modstart";

struct LibraryCloser {
    void operator()(void *handle) const noexcept { qzfi_dlclose(handle); }
};
using Library = std::unique_ptr<void, LibraryCloser>;
using Functions = std::unique_ptr<void *[], FreeDeleter>;

class Binding;
/// The latest binding that this thread began and has in progress.
// In the thread's static block: one made on first use would end the process when memory is short.
[[gnu::tls_model("initial-exec")]] thread_local const Binding *innermost = nullptr;

/// A binding that this thread has in progress; a start entry that calls back into its own module would wait for
/// itself for ever.
class Binding {
public:
    explicit Binding(const qzfi_module &module) noexcept : module_(&module), outer_(innermost) { innermost = this; }
    ~Binding() { innermost = outer_; }
    Binding(const Binding &) = delete;
    Binding &operator=(const Binding &) = delete;

    static bool is_in_progress(const qzfi_module &module) noexcept {
        for (const Binding *each = innermost; each != nullptr; each = each->outer_)
            if (each->module_ == &module)
                return true;
        return false;
    }

private:
    const qzfi_module *module_;
    const Binding *outer_;
};

/// The path to load from; null when memory is short. Always a copy: the environment may change while it is in use.
Text library_path(const qzfi_module &module) noexcept {
    const char *const path = std::getenv(module.env_name);
    if (path != nullptr)
        return duplicate(path);
    const std::size_t size = std::strlen(qzfi_root) + std::strlen(module.library_path) + 2;
    Text composed{static_cast<char *>(std::malloc(size))};
    if (composed)
        qzfi_snprintf(composed.get(), size, "%s%s", qzfi_root, module.library_path);
    return composed;
}

bool is_api_library(const qzfi_module &module) noexcept {
    return std::strcmp(module.library_path, api_library_path) == 0;
}

std::size_t count_entries(const qzfi_module &module) noexcept {
    std::size_t count = 0;
    while (module.entries[count].name != nullptr)
        ++count;
    return count;
}

const char *loader_error() noexcept {
    const char *const text = qzfi_dlerror();
    return text != nullptr ? text : "dlerror call returned null string";
}

Library load(const char *path) noexcept {
    qzfi_dlerror(); // a stale error must not be taken for this call's
    Library library{qzfi_dlopen_lib(path)};
    if (!library)
        raise(message::library_not_loaded, routine, path, loader_error());
    return library;
}

void *look_up(const Library &library, const char *name) noexcept {
    qzfi_dlerror(); // as above
    return qzfi_dlsym(library.get(), name);
}

bool resolve(const qzfi_module &module, const Library &library, const char *path, Functions &functions) noexcept {
    for (std::size_t slot = 0; module.entries[slot].name != nullptr; ++slot) {
        const char *const name = module.entries[slot].name;
        functions[slot] = look_up(library, name);
        if (functions[slot] != nullptr)
            continue;
        std::fprintf(stderr, "Unable to load symbol from lib %s for QzFI API %s: error=%s\n", path, name,
                     loader_error());
        raise(message::entry_not_found, routine, name);
        return false;
    }
    return true;
}

/// Makes everything that a bound module consists of visible but for its state.
void install(qzfi_module &module, Library library, Text path, const Functions &functions) noexcept {
    for (std::size_t slot = 0; module.entries[slot].name != nullptr; ++slot)
        module.entries[slot].function = functions[slot];
    store_release(fi_get_pgn_f, reinterpret_cast<decltype(fi_get_pgn_f)>(look_up(library, "fi_get_pgn")));
    module.handle = library.release();
    if (is_api_library(module))
        qzfi_lib = path.release();
}

/// Loads, resolves and starts. Nothing of it is visible, and the library is closed again, unless all succeeds: a
/// half-filled table is never callable.
int32_t bind(qzfi_module &module) noexcept {
    Text path = library_path(module);
    Functions functions{static_cast<void **>(std::calloc(count_entries(module) + 1, sizeof(void *)))};
    if (!path || !functions)
        return QFI_STATUS_NO_MEMORY;
    Library library = load(path.get());
    if (!library || !resolve(module, library, path.get(), functions))
        return QFI_STATUS_NOT_STARTED;
    if (reinterpret_cast<StartEntry>(functions[start_slot])(nullptr, 0, ehandler, 0) != 0)
        return QFI_STATUS_NOT_STARTED;
    install(module, std::move(library), std::move(path), functions);
    return QFI_STATUS_OK;
}

/// Waits until the module is bound or nobody is binding it. True when this thread is to bind it.
bool claim(qzfi_module &module) noexcept {
    const LockGuard guard{mutex};
    while (module.state == binding)
        pthread_cond_wait(&cv, &mutex);
    if (module.state == bound)
        return false;
    store_release(module.state, binding);
    return true;
}

void settle(qzfi_module &module, BindingState state) noexcept {
    const LockGuard guard{mutex};
    store_release(module.state, state);
    pthread_cond_broadcast(&cv);
}

[[gnu::noinline, gnu::cold]] int32_t enter_unbound(qzfi_module &module) noexcept {
    if (qzfi_started == 0 || module.entries == nullptr || Binding::is_in_progress(module))
        return QFI_STATUS_NOT_STARTED;
    // One that waited for a failed binding tries again itself: its own failure is the one recorded for its thread.
    if (!claim(module))
        return QFI_STATUS_OK;
    const Binding in_progress{module};
    const int32_t status = bind(module);
    settle(module, status == QFI_STATUS_OK ? bound : unbound);
    return status;
}

} // namespace

void unbind(qzfi_module &module) noexcept {
    reinterpret_cast<ShutdownEntry>(module.entries[shutdown_slot].function)();
    // The library's own shutdown may still have used it; from here on it would dangle.
    store_release(fi_get_pgn_f, nullptr);
    qzfi_dlclose(module.handle);
    module.handle = nullptr;
    store_release(module.state, unbound);
    if (is_api_library(module)) {
        std::free(qzfi_lib);
        qzfi_lib = nullptr;
    }
}

} // namespace qzfi

int32_t qzfi_enter(qzfi_module *module) {
    if (qzfi::load_acquire(module->state) == qzfi::bound) [[likely]]
        return QFI_STATUS_OK;
    return qzfi::enter_unbound(*module);
}
