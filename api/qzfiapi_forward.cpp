// The operations, each forwarded to its slot. A bound call costs one load and one jump; all else is out of line.
#include "api/qzfiapi.h"

#include <iterator>
#include <string_view>

#include <qzfi/log.h>
#include <qzfi/status.h>

#include "common/qzfilock.h"

namespace qzfi {
namespace {

constexpr std::string_view entry_names[] = {
#define QZFI_ENTRY(slot, name, ...) "qzfi_" #name,
#define QZFI_OWN QZFI_ENTRY
#define QZFI_OPERATION QZFI_ENTRY
#define QZFI_TREE QZFI_ENTRY
#define QZFI_SPARE QZFI_ENTRY
#define QZFI_ALIAS(slot, name, ...)
#include <qzfi/operations.def>
};
constexpr int entry_slots[] = {
#define QZFI_SLOT(slot, name, ...) slot,
#define QZFI_OWN QZFI_SLOT
#define QZFI_OPERATION QZFI_SLOT
#define QZFI_TREE QZFI_SLOT
#define QZFI_SPARE QZFI_SLOT
#define QZFI_ALIAS(slot, name, ...)
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
#define QZFI_TREE(slot, name, ...) {slot, "qzfi_" #name, false},
#define QZFI_ALIAS(slot, name, ...) {slot, "qzfi_" #name, true},
#include <qzfi/operations.def>
};

constexpr bool slots_are_in_order() {
    for (int index = 0; index < int{std::size(entry_slots)}; ++index)
        if (entry_slots[index] != index)
            return false;
    return true;
}

constexpr bool operations_reach_their_entries() {
    for (const Operation &operation : operations)
        if ((entry_names[operation.slot] == operation.entry) == operation.is_alias)
            return false;
    return true;
}

static_assert(std::size(entry_names) == 91);
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

void trace_entry(const char *name) {
    qzfi_tracelog(trace_severity, "Entering %s", name);
}

int32_t trace_exit(const char *name, int32_t status) {
    qzfi_tracelog(trace_severity, "Exiting %s with %d", name, status);
    return status;
}

} // namespace
} // namespace qzfi

#define QZFI_PARAMETERS_1(k) QZFI_KIND_##k a1
#define QZFI_PARAMETERS_2(k, ...) QZFI_KIND_##k a2, QZFI_PARAMETERS_1(__VA_ARGS__)
#define QZFI_PARAMETERS_3(k, ...) QZFI_KIND_##k a3, QZFI_PARAMETERS_2(__VA_ARGS__)
#define QZFI_PARAMETERS_4(k, ...) QZFI_KIND_##k a4, QZFI_PARAMETERS_3(__VA_ARGS__)
#define QZFI_PARAMETERS_5(k, ...) QZFI_KIND_##k a5, QZFI_PARAMETERS_4(__VA_ARGS__)
#define QZFI_PARAMETERS_6(k, ...) QZFI_KIND_##k a6, QZFI_PARAMETERS_5(__VA_ARGS__)
#define QZFI_PARAMETERS_7(k, ...) QZFI_KIND_##k a7, QZFI_PARAMETERS_6(__VA_ARGS__)
#define QZFI_PARAMETERS_8(k, ...) QZFI_KIND_##k a8, QZFI_PARAMETERS_7(__VA_ARGS__)
#define QZFI_PARAMETERS_9(k, ...) QZFI_KIND_##k a9, QZFI_PARAMETERS_8(__VA_ARGS__)
#define QZFI_PARAMETERS_10(k, ...) QZFI_KIND_##k a10, QZFI_PARAMETERS_9(__VA_ARGS__)
#define QZFI_PARAMETERS_11(k, ...) QZFI_KIND_##k a11, QZFI_PARAMETERS_10(__VA_ARGS__)
#define QZFI_PARAMETERS_12(k, ...) QZFI_KIND_##k a12, QZFI_PARAMETERS_11(__VA_ARGS__)
#define QZFI_PARAMETERS_13(k, ...) QZFI_KIND_##k a13, QZFI_PARAMETERS_12(__VA_ARGS__)
#define QZFI_PARAMETERS(...) QZFI_PASTE(QZFI_PARAMETERS_, QZFI_COUNT(__VA_ARGS__))(__VA_ARGS__)

#define QZFI_ARGUMENTS_1 a1
#define QZFI_ARGUMENTS_2 a2, QZFI_ARGUMENTS_1
#define QZFI_ARGUMENTS_3 a3, QZFI_ARGUMENTS_2
#define QZFI_ARGUMENTS_4 a4, QZFI_ARGUMENTS_3
#define QZFI_ARGUMENTS_5 a5, QZFI_ARGUMENTS_4
#define QZFI_ARGUMENTS_6 a6, QZFI_ARGUMENTS_5
#define QZFI_ARGUMENTS_7 a7, QZFI_ARGUMENTS_6
#define QZFI_ARGUMENTS_8 a8, QZFI_ARGUMENTS_7
#define QZFI_ARGUMENTS_9 a9, QZFI_ARGUMENTS_8
#define QZFI_ARGUMENTS_10 a10, QZFI_ARGUMENTS_9
#define QZFI_ARGUMENTS_11 a11, QZFI_ARGUMENTS_10
#define QZFI_ARGUMENTS_12 a12, QZFI_ARGUMENTS_11
#define QZFI_ARGUMENTS_13 a13, QZFI_ARGUMENTS_12
#define QZFI_ARGUMENTS(...) QZFI_PASTE(QZFI_ARGUMENTS_, QZFI_COUNT(__VA_ARGS__))

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
    const int32_t status = call_if_bound<3>(objects, count, options, tree);
    qzfi_print_tree(qzfi::tree_at(tree), qzfi::dump_depth);
    return status;
}

int32_t qzfiapi_build_alttree(void *tree, void *second, void *third) {
    const int32_t entered = qzfi_enter(&fimod);
    if (entered != QFI_STATUS_OK)
        return entered;
    qzfi::trace_entry("qfi_build_alttree");
    const int32_t status = call_if_bound<9>(tree, second, third);
    qzfi_print_tree(static_cast<const qfi_domain *>(tree), qzfi::dump_depth);
    return qzfi::trace_exit("qfi_build_alttree", status);
}

int32_t qzfiapi_reaccess_tree(void *first, void *tree, void *third, void *fourth, void *fifth, int32_t sixth) {
    const int32_t entered = qzfi_enter(&fimod);
    if (entered != QFI_STATUS_OK)
        return entered;
    qzfi::trace_entry("qfi_reaccess_tree");
    const int32_t status = call_if_bound<13>(first, tree, third, fourth, fifth, sixth);
    qzfi_print_tree(qzfi::tree_at(tree), qzfi::dump_depth);
    return qzfi::trace_exit("qfi_reaccess_tree", status);
}

int32_t qzfiapi_refresh_tree(void *tree, int32_t second, int32_t third, void *fourth, int32_t fifth, void *sixth,
                             void *seventh, int32_t eighth) {
    const int32_t entered = qzfi_enter(&fimod);
    if (entered != QFI_STATUS_OK)
        return entered;
    qzfi::trace_entry("qfi_refresh_tree");
    const int32_t status = call_if_bound<82>(tree, second, third, fourth, fifth, sixth, seventh, eighth);
    qzfi_print_tree(static_cast<const qfi_domain *>(tree), qzfi::dump_depth);
    return qzfi::trace_exit("qfi_refresh_tree", status);
}
