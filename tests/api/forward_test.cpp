#include <atomic>
#include <map>
#include <set>
#include <utility>

#include "frontend_fixture.h"

namespace {

/// Drops the state between entering and calling, as a shutdown on another thread would.
bool drops_state_after_entering = false;

} // namespace

extern "C" {

int32_t __real_qzfi_enter(qzfi_module *module);
int32_t __wrap_qzfi_enter(qzfi_module *module);
int32_t __wrap_qzfi_enter(qzfi_module *module) {
    const int32_t status = __real_qzfi_enter(module);
    if (drops_state_after_entering)
        __atomic_store_n(&module->state, 0, __ATOMIC_RELEASE);
    return status;
}
}

namespace {

struct Published {
    std::string name;
    int slot;
    std::string kinds;

    bool operator==(const Published &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Published &operation) {
    return out << operation.name << " " << operation.slot << " " << operation.kinds;
}

const std::vector<Published> published = {
#include "published_operations.inc"
};

constexpr char kind_letter(void *) {
    return 'P';
}
constexpr char kind_letter(int32_t) {
    return 'I';
}

template <class... Arguments>
std::string kinds_of(int32_t (*)(Arguments...)) {
    return {kind_letter(Arguments{})...};
}

const std::vector<Published> table = {
#define QZFI_OWN(slot, name)
#define QZFI_SPARE(slot, name)
#define QZFI_OPERATION(slot, name, ...) {#name, slot, kinds_of(qzfiapi_##name)},
#define QZFI_TREE QZFI_OPERATION
#define QZFI_ALIAS QZFI_OPERATION
#include <qzfi/operations.def>
};

qfi_domain *no_tree = nullptr;

/// Arguments that a tree forwarder reads as trees; every other one is an arbitrary value.
const std::map<std::pair<std::string, std::size_t>, void *> tree_arguments = {
    {{"gentree", 3}, &no_tree},
    {{"reaccess_tree", 1}, &no_tree},
    {{"build_alttree", 0}, nullptr},
    {{"refresh_tree", 0}, nullptr},
};

/// A value of its own for each position, with bits set over its whole width.
template <class Argument>
Argument argument(const std::string &name, std::size_t position) {
    if constexpr (std::is_same_v<Argument, void *>) {
        const auto tree = tree_arguments.find({name, position});
        if (tree != tree_arguments.end())
            return tree->second;
        return reinterpret_cast<void *>(0x9876543210abc000u + position);
    } else {
        return static_cast<int32_t>(0xfedcb000u + position);
    }
}

uint64_t widened(void *value) {
    return reinterpret_cast<uintptr_t>(value);
}
uint64_t widened(int32_t value) {
    return static_cast<uint32_t>(value);
}

class Forwarding : public Frontend {
protected:
    Forwarding() { path = use("complete"); }

    MockApi &bind() {
        start();
        EXPECT_EQ(qzfi_enter(&fimod), 0);
        return api_at(path);
    }

    template <class... Arguments>
    static void expect_forwarded(MockApi &api, const char *name, int slot, int32_t (*forwarder)(Arguments...)) {
        expect_forwarded(api, name, slot, forwarder, std::index_sequence_for<Arguments...>{});
    }

    std::string path;

private:
    template <class... Arguments, std::size_t... positions>
    static void expect_forwarded(MockApi &api, const char *name, int slot, int32_t (*forwarder)(Arguments...),
                                 std::index_sequence<positions...>) {
        SCOPED_TRACE(name);
        const std::vector<uint64_t> sent = {widened(argument<Arguments>(name, positions))...};
        for (const int32_t status : {0, 1000 + slot, -slot}) {
            api.status = status;
            api.last = {};
            const int32_t calls = api.calls;
            EXPECT_EQ(forwarder(argument<Arguments>(name, positions)...), status);
            EXPECT_EQ(api.calls, calls + 1);
            EXPECT_EQ(api.last.slot, slot);
            EXPECT_EQ(std::vector<uint64_t>(api.last.values, api.last.values + api.last.count), sent);
        }
    }
};

TEST_F(Forwarding, the_operations_are_the_published_ones) {
    ASSERT_EQ(published.size(), 88u);
    EXPECT_EQ(table, published);
}

TEST_F(Forwarding, every_operation_hands_its_arguments_to_its_slot_and_its_status_back) {
    MockApi &api = bind();
#define QZFI_OWN(slot, name)
#define QZFI_SPARE(slot, name)
#define QZFI_OPERATION(slot, name, ...) expect_forwarded(api, #name, slot, qzfiapi_##name);
#define QZFI_TREE QZFI_OPERATION
#define QZFI_ALIAS QZFI_OPERATION
#include <qzfi/operations.def>
    EXPECT_EQ(api.calls, 3 * 88);
}

TEST_F(Forwarding, delete_and_get_of_the_last_error_reach_the_same_entry) {
    MockApi &api = bind();
    int cell = 0;
    qzfiapi_get_last_error(&cell);
    EXPECT_EQ(api.last.slot, 43);
    api.last = {};
    qzfiapi_del_last_error(&cell);
    EXPECT_EQ(api.last.slot, 43);
    EXPECT_EQ(api.last.values[0], reinterpret_cast<uintptr_t>(&cell));
}

TEST_F(Forwarding, calls_run_in_parallel_on_any_number_of_threads) {
    MockApi &api = bind();
    api.status = 5;
    std::atomic<int> good{0};
    in_threads(8, [&](int) {
        for (int repeat = 0; repeat < 1000; ++repeat)
            good += qzfiapi_set_op_status(nullptr, repeat) == 5;
    });
    EXPECT_EQ(good, 8000);
    EXPECT_EQ(api.calls, 8000);
}

TEST_F(Forwarding, calls_do_not_wait_for_one_another) {
    static constexpr int thread_count = 8;
    static std::atomic<int> inside;
    MockApi &api = bind();
    inside = 0;
    api.on_call = [] { // hangs unless all of them get here
        inside += 1;
        while (inside < thread_count)
            std::this_thread::yield();
    };
    in_threads(thread_count, [](int) { qzfiapi_set_op_status(nullptr, 1); });
    EXPECT_EQ(api.calls, thread_count);
}

TEST_F(Forwarding, a_state_that_dropped_after_entering_gives_2_without_a_call) {
    start();
    drops_state_after_entering = true;
    EXPECT_EQ(qzfiapi_set_fim_name(nullptr), 2);
    drops_state_after_entering = false;
    __atomic_store_n(&fimod.state, 2, __ATOMIC_RELEASE);
    EXPECT_EQ(api_at(path).calls, 0);
}

TEST_F(Forwarding, without_a_library_every_operation_returns_2) {
    setenv("QFI_API_LIB", (scratch / "none").c_str(), 1);
    start();
    int refused = 0;
#define QZFI_OWN(slot, name)
#define QZFI_SPARE(slot, name)
#define QZFI_OPERATION(slot, name, ...) refused += call_with_zeros(qzfiapi_##name) == 2;
#define QZFI_TREE QZFI_OPERATION
#define QZFI_ALIAS QZFI_OPERATION
    const auto call_with_zeros = []<class... Arguments>(int32_t (*forwarder)(Arguments...)) {
        return forwarder(Arguments{}...);
    };
#include <qzfi/operations.def>
    EXPECT_EQ(refused, 88);
    EXPECT_EQ(raised().size(), 88u);
    EXPECT_TRUE(recorder.reports.empty()); // in particular no trace
}

class TreeForwarding : public Forwarding {
protected:
    /// The one dump line that a tree of one node named "vol" gives at depth 1.
    static inline const Report dump{"  vol", "(null)", 4};

    static Report entering(const std::string &name) { return {"Entering " + name, "(null)", 3}; }
    static Report exiting(const std::string &name, int status) {
        return {"Exiting " + name + " with " + std::to_string(status), "(null)", 3};
    }

    /// Binds a library whose entries give a status and tell when they are called: among the reports. They leave the
    /// tree in `cell` only then, which is null before.
    MockApi &bind_with(int32_t status) {
        static TreeForwarding *test;
        test = this;
        recorder.reports.clear();
        cell = nullptr;
        MockApi &api = fimod.state == 2 ? api_at(path) : bind();
        api.status = status;
        api.on_call = [] {
            test->recorder.error(&test->recorder, "called", nullptr, 0);
            test->cell = &test->node;
        };
        return api;
    }

    static inline const Report called{"called", "(null)", 0};

    char name[4] = "vol";
    qfi_objid_t id = {name, 3, 0};
    qfi_domain node = [this] {
        qfi_domain made{};
        made.objid = &id;
        return made;
    }();
    qfi_domain *cell = &node;
};

TEST_F(TreeForwarding, refresh_traces_and_dumps_its_first_argument) {
    for (const int32_t status : {0, 41}) {
        bind_with(status);
        EXPECT_EQ(qzfiapi_refresh_tree(&node, 1, 2, nullptr, 3, nullptr, nullptr, 4), status);
        EXPECT_EQ(recorder.reports, (std::vector<Report>{entering("qfi_refresh_tree"), called, dump,
                                                         exiting("qfi_refresh_tree", status)}));
    }
}

TEST_F(TreeForwarding, reaccess_traces_and_dumps_what_its_second_argument_points_to_then) {
    for (const int32_t status : {0, -3}) {
        bind_with(status);
        EXPECT_EQ(qzfiapi_reaccess_tree(nullptr, &cell, nullptr, nullptr, nullptr, 1), status);
        EXPECT_EQ(recorder.reports, (std::vector<Report>{entering("qfi_reaccess_tree"), called, dump,
                                                         exiting("qfi_reaccess_tree", status)}));
    }
}

TEST_F(TreeForwarding, build_alttree_traces_and_dumps_its_first_argument) {
    for (const int32_t status : {0, 7}) {
        bind_with(status);
        EXPECT_EQ(qzfiapi_build_alttree(&node, nullptr, nullptr), status);
        EXPECT_EQ(recorder.reports, (std::vector<Report>{entering("qfi_build_alttree"), called, dump,
                                                         exiting("qfi_build_alttree", status)}));
    }
}

TEST_F(TreeForwarding, gentree_dumps_what_its_fourth_argument_points_to_then_whatever_the_status_untraced) {
    for (const int32_t status : {0, 12}) {
        bind_with(status);
        EXPECT_EQ(qzfiapi_gentree(nullptr, 0, nullptr, &cell), status);
        EXPECT_EQ(recorder.reports, (std::vector<Report>{called, dump}));
    }
}

TEST_F(TreeForwarding, absent_trees_dump_nothing) {
    bind();
    EXPECT_EQ(qzfiapi_gentree(nullptr, 0, nullptr, nullptr), 0);
    EXPECT_EQ(qzfiapi_gentree(nullptr, 0, nullptr, &no_tree), 0);
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_EQ(qzfiapi_reaccess_tree(nullptr, nullptr, nullptr, nullptr, nullptr, 1), 0);
    EXPECT_EQ(recorder.reports, (std::vector<Report>{entering("qfi_reaccess_tree"), exiting("qfi_reaccess_tree", 0)}));
}

TEST_F(TreeForwarding, a_failed_binding_is_not_traced) {
    setenv("QFI_API_LIB", (scratch / "none").c_str(), 1);
    start();
    EXPECT_EQ(qzfiapi_refresh_tree(&node, 1, 2, nullptr, 3, nullptr, nullptr, 4), 2);
    EXPECT_EQ(qzfiapi_reaccess_tree(nullptr, &cell, nullptr, nullptr, nullptr, 1), 2);
    EXPECT_EQ(qzfiapi_build_alttree(&node, nullptr, nullptr), 2);
    EXPECT_EQ(qzfiapi_gentree(nullptr, 0, nullptr, &cell), 2);
    EXPECT_TRUE(recorder.reports.empty());
}

TEST_F(TreeForwarding, a_state_that_dropped_after_entering_gives_2_traced_and_dumped_without_a_call) {
    MockApi &api = bind();
    const auto drop_during = [](const auto &operation) {
        drops_state_after_entering = true;
        EXPECT_EQ(operation(), 2);
        drops_state_after_entering = false;
        __atomic_store_n(&fimod.state, 2, __ATOMIC_RELEASE);
    };
    drop_during([this] { return qzfiapi_refresh_tree(&node, 1, 2, nullptr, 3, nullptr, nullptr, 4); });
    drop_during([this] { return qzfiapi_reaccess_tree(nullptr, &cell, nullptr, nullptr, nullptr, 1); });
    drop_during([this] { return qzfiapi_build_alttree(&node, nullptr, nullptr); });
    drop_during([this] { return qzfiapi_gentree(nullptr, 0, nullptr, &cell); });
    EXPECT_EQ(api.calls, 0);
    EXPECT_EQ(recorder.reports,
              (std::vector<Report>{entering("qfi_refresh_tree"), dump, exiting("qfi_refresh_tree", 2),
                                   entering("qfi_reaccess_tree"), dump, exiting("qfi_reaccess_tree", 2),
                                   entering("qfi_build_alttree"), dump, exiting("qfi_build_alttree", 2), dump}));
}

} // namespace
