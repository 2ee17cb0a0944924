// The operations, each forwarded to its slot. A bound call costs one load and one jump; all else is out of line.
#include "api/qzfiapi.h"

#include <iterator>
#include <string_view>

#include <qzfi/log.h>
#include <qzfi/status.h>

#include "api/qzfiapi_parameters.h"
#include "common/qzfilock.h"

namespace qzfi {
namespace {

struct Entry {
    int slot;
    std::string_view name;
};
constexpr Entry entries[] = {
#define QZFI_ENTRY(slot, name, ...) {slot, "qzfi_" #name},
#define QZFI_OWN QZFI_ENTRY
#define QZFI_OPERATION QZFI_ENTRY
#define QZFI_TREE QZFI_ENTRY
#define QZFI_SPARE QZFI_ENTRY
#define QZFI_ALIAS(slot, name, ...)
#include <qzfi/operations.def>
};

/// The slots of the forwarders that are written by hand, from the table like all others.
enum TreeSlot : int {
#define QZFI_OWN(slot, name)
#define QZFI_SPARE(slot, name)
#define QZFI_OPERATION(slot, name, ...)
#define QZFI_ALIAS(slot, name, ...)
#define QZFI_TREE(slot, name, ...) name##_slot = slot,
#include <qzfi/operations.def>
};

struct Operation {
    int slot;
    std::string_view entry;
    bool is_alias;
};
constexpr Operation operations[] = {
#define QZFI_OWN(slot, name)
#define QZFI_SPARE(slot, name)
#define QZFI_OPERATION(slot, name, ...) {slot, "qzfi_" #name, false},
#define QZFI_TREE QZFI_OPERATION
#define QZFI_ALIAS(slot, name, ...) {slot, "qzfi_" #name, true},
#include <qzfi/operations.def>
};

constexpr bool slots_are_in_order() {
    for (int index = 0; index < int{std::size(entries)}; ++index)
        if (entries[index].slot != index)
            return false;
    return true;
}

constexpr bool operations_reach_their_entries() {
    for (const Operation &operation : operations)
        if ((entries[operation.slot].name == operation.entry) == operation.is_alias)
            return false;
    return true;
}

static_assert(std::size(entries) == 91);
static_assert(std::size(operations) == 88);
static_assert(slots_are_in_order());
static_assert(operations_reach_their_entries());

template <int slot, class... Arguments>
[[gnu::always_inline]] inline int32_t call(Arguments... arguments) {
    return reinterpret_cast<int32_t (*)(Arguments...)>(fiapi[slot].function)(arguments...);
}

/// Calls the slot unless the state has dropped since the caller entered.
template <int slot, class... Arguments>
int32_t call_if_bound(Arguments... arguments) {
    if (load_acquire(fimod.state) == unbound)
        return QFI_STATUS_NOT_STARTED;
    return call<slot>(arguments...);
}

template <int slot, class... Arguments>
[[gnu::noinline, gnu::cold]] int32_t bind_and_call(Arguments... arguments) {
    const int32_t status = qzfi_enter(&fimod);
    if (status != QFI_STATUS_OK)
        return status;
    return call_if_bound<slot>(arguments...);
}

/// A tail call either way, so that the fast path saves no register.
template <int slot, class... Arguments>
[[gnu::always_inline]] inline int32_t forward(Arguments... arguments) {
    if (load_acquire(fimod.state) != bound) [[unlikely]]
        return bind_and_call<slot>(arguments...);
    return call<slot>(arguments...);
}

/// The tree behind a result pointer. Dumped whatever the status: the cell holds a valid tree or null before the call.
const qfi_domain *tree_at(const void *cell) {
    return cell != nullptr ? *static_cast<qfi_domain *const *>(cell) : nullptr;
}

constexpr uint32_t trace_severity = 3;
constexpr int32_t dump_depth = 1;

/// Makes a call between the traces of its entry and exit, once the module is bound.
template <class Call>
int32_t traced(const char *name, Call call_bound) {
    const int32_t entered = qzfi_enter(&fimod);
    if (entered != QFI_STATUS_OK)
        return entered;
    qzfi_tracelog(trace_severity, "Entering %s", name);
    const int32_t status = call_bound();
    qzfi_tracelog(trace_severity, "Exiting %s with %d", name, status);
    return status;
}

} // namespace
} // namespace qzfi

#define QZFI_OWN(slot, name)
#define QZFI_SPARE(slot, name)
#define QZFI_TREE(slot, name, ...)
#define QZFI_OPERATION(slot, name, ...)                                                                                \
    int32_t qzfiapi_##name(QZFI_PARAMETERS(__VA_ARGS__)) {                                                             \
        return qzfi::forward<slot>(QZFI_ARGUMENTS(__VA_ARGS__));                                                       \
    }
#define QZFI_ALIAS QZFI_OPERATION
#include <qzfi/operations.def>

using qzfi::call_if_bound;

int32_t qzfiapi_gentree(void *objects, int32_t count, void *options, void *tree) {
    const int32_t entered = qzfi_enter(&fimod);
    if (entered != QFI_STATUS_OK)
        return entered;
    const int32_t status = call_if_bound<qzfi::gentree_slot>(objects, count, options, tree);
    qzfi_print_tree(qzfi::tree_at(tree), qzfi::dump_depth);
    return status;
}

int32_t qzfiapi_build_alttree(void *tree, void *second, void *third) {
    return qzfi::traced("qfi_build_alttree", [=] {
        const int32_t status = call_if_bound<qzfi::build_alttree_slot>(tree, second, third);
        qzfi_print_tree(static_cast<const qfi_domain *>(tree), qzfi::dump_depth);
        return status;
    });
}

int32_t qzfiapi_reaccess_tree(void *first, void *tree, void *third, void *fourth, void *fifth, int32_t sixth) {
    return qzfi::traced("qfi_reaccess_tree", [=] {
        const int32_t status = call_if_bound<qzfi::reaccess_tree_slot>(first, tree, third, fourth, fifth, sixth);
        qzfi_print_tree(qzfi::tree_at(tree), qzfi::dump_depth);
        return status;
    });
}

int32_t qzfiapi_refresh_tree(void *tree, int32_t second, int32_t third, void *fourth, int32_t fifth, void *sixth,
                             void *seventh, int32_t eighth) {
    return qzfi::traced("qfi_refresh_tree", [=] {
        const int32_t status =
            call_if_bound<qzfi::refresh_tree_slot>(tree, second, third, fourth, fifth, sixth, seventh, eighth);
        qzfi_print_tree(static_cast<const qfi_domain *>(tree), qzfi::dump_depth);
        return status;
    });
}
