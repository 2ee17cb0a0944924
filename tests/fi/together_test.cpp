// Several threads and processes with the same trees, and hosts that call operations from their own callbacks.
#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <mutex>
#include <set>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <qzfi/context.h>

#include "host.h"

namespace {

struct Caller : qfi_progress_handler {
    Caller() : qfi_progress_handler{} {
        size = sizeof(qfi_progress_handler);
        progress = [](qfi_progress_handler *self, const qfi_progress *told) {
            return static_cast<Caller *>(self)->call(*told);
        };
    }
    std::function<int32_t(const qfi_progress &)> call = [](const qfi_progress &) { return 0; };
};

class Together : public Host {
protected:
    void SetUp() override {
        Host::SetUp();
        stop();
        handler_.reserved1 = &caller_;
        start();
    }
    void TearDown() override {
        caller_.call = [](const qfi_progress &) { return 0; };
        Host::TearDown();
    }

    qfi_domain *frozen(const std::string &name) {
        qfi_domain *const tree = tree_of({make_object(name)});
        auto options = sized_record<qfi_freeze_options>();
        options.fim_id = "copy";
        options.digest = 1;
        EXPECT_EQ(qfi_op_make(tree, &options, nullptr), 0) << last_error();
        return tree;
    }
    static int32_t diff(const qfi_domain *from, const qfi_domain *to) {
        qfi_diff *given = nullptr;
        const int32_t status = qfi_op_get_snapdiff(from, to, nullptr, &given);
        qfi_op_free_buffer(given);
        return status;
    }
    static int32_t verify(qfi_domain *tree) { return qfi_op_objctl(tree, QFI_OBJCTL_VERIFY, nullptr, nullptr); }

    // A deadlock ends the process, and so fails the test.
    struct Patience {
        Patience() { alarm(60); }
        ~Patience() { alarm(0); }
    };

    Caller caller_;
};

TEST_F(Together, a_handler_that_compares_two_trees_holds_up_nobody_who_compares_with_its_own) {
    const Patience patience;
    qfi_domain *const worked = frozen("worked"), *const one = frozen("one"), *const two = frozen("two");
    std::thread other;
    int32_t others = -1, inner = -1;
    caller_.call = [&](const qfi_progress &told) {
        if (std::string(told.operation) != "objctl" || other.joinable())
            return 0;
        // Waits for the tree that this handler's operation holds.
        other = std::thread([&] { others = diff(worked, one); });
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        inner = diff(two, two);
        if (inner == 0)
            inner = diff(two, one);
        return 0;
    };
    EXPECT_EQ(verify(worked), 0) << last_error();
    ASSERT_TRUE(other.joinable());
    other.join();
    EXPECT_EQ(others, 0);
    // It waits for no tree: one that the other thread has taken already is busy.
    EXPECT_TRUE(inner == 0 || inner == QFI_FI_BUSY) << inner;
    for (qfi_domain *const tree : {worked, one, two})
        qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Together, handlers_of_two_operations_that_want_each_others_trees_are_told_that_they_are_busy) {
    const Patience patience;
    qfi_domain *const trees[] = {frozen("first"), frozen("second")};
    std::atomic<int> inside{0};
    std::atomic<int> busy{0}, calls{0};
    caller_.call = [&](const qfi_progress &told) {
        if (std::string(told.operation) != "objctl")
            return 0;
        const bool is_first = std::string(told.object) == path("first");
        static thread_local bool was_here = false;
        if (std::exchange(was_here, true))
            return 0;
        ++inside;
        while (inside < 2)
            std::this_thread::yield();
        ++calls;
        busy += verify(trees[is_first ? 1 : 0]) == QFI_FI_BUSY ? 1 : 0;
        // Neither goes on before both have tried.
        while (calls < 2)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        return 0;
    };
    for (qfi_domain *const tree : trees)
        EXPECT_EQ(qfi_op_config(tree, "workers", 0, "1"), 1027);
    std::thread first([&] { EXPECT_EQ(verify(trees[0]), 0); });
    std::thread second([&] { EXPECT_EQ(verify(trees[1]), 0); });
    first.join();
    second.join();
    EXPECT_EQ(busy, 2);
    for (qfi_domain *const tree : trees)
        qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Together, a_handler_that_calls_back_on_its_own_tree_is_told_that_it_is_busy_whatever_thread_calls_it) {
    const Patience patience;
    const std::string object = make_object("object");
    // Enough of work for several threads to tell.
    for (int folder = 0; folder < 100; ++folder) {
        const std::string inner = object + "/" + std::to_string(folder);
        std::filesystem::create_directory(inner);
        for (int file = 0; file < 100; ++file)
            write_file(inner + "/" + std::to_string(file), "content");
    }
    qfi_domain *tree = nullptr;
    auto options = sized_record<qfi_freeze_options>();
    options.fim_id = "copy";
    std::mutex mutex;
    std::set<std::thread::id> threads;
    std::set<int32_t> statuses, lookups;
    std::string text;
    caller_.call = [&](const qfi_progress &) {
        const int32_t status = verify(tree);
        const std::string said = last_error();
        auto now = sized_record<qfi_operation_status>();
        const int32_t looked = qfi_op_get_status(tree, &now);
        const std::lock_guard lock(mutex);
        threads.insert(std::this_thread::get_id());
        statuses.insert(status);
        lookups.insert(looked);
        text = said;
        return 0;
    };
    for (int tries = 0; tries < 30 && threads.size() < 2; ++tries) {
        tree = tree_of({object});
        ASSERT_EQ(qfi_op_make(tree, &options, nullptr), 0) << last_error();
        EXPECT_EQ(qfi_op_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr), 0) << last_error();
    }
    EXPECT_GE(threads.size(), 2u) << "no worker told";
    EXPECT_EQ(statuses, std::set<int32_t>{QFI_FI_BUSY});
    EXPECT_EQ(lookups, std::set<int32_t>{0}) << "get_status waits for nobody";
    EXPECT_EQ(text, "qzfi_objctl: the tree of " + object + " is in use by another operation");
}

TEST_F(Together, a_tree_that_another_one_was_compared_with_is_not_left_running) {
    qfi_domain *const one = frozen("one"), *const two = frozen("two");
    ASSERT_EQ(diff(one, two), 0) << last_error();
    for (const qfi_domain *const tree : {one, two}) {
        auto status = sized_record<qfi_operation_status>();
        ASSERT_EQ(qfi_op_get_status(tree, &status), 0) << last_error();
        EXPECT_EQ(status.running, 0);
        EXPECT_EQ(status.status, 0);
    }
    for (qfi_domain *const tree : {one, two})
        qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Together, a_forked_child_that_shuts_down_leaves_the_trees_of_its_parent_alone) {
    const Patience patience;
    qfi_domain *const tree = tree_of({make_object("object")});
    const std::string post = "echo post >>" + path("log");
    ASSERT_EQ(qfi_op_config(tree, "post_command", 0, post.c_str()), 0);
    ASSERT_EQ(qfi_op_select(tree, nullptr, "copy", nullptr), 0) << last_error();
    ASSERT_EQ(qfi_op_prepare(tree, 0, nullptr, nullptr), 0) << last_error();
    ASSERT_EQ(qfi_op_quiesce(tree), 0) << last_error();
    const std::vector<std::string> in_the_making = names_in(copy_store() + "/images");
    const pid_t child = fork();
    if (child == 0) {
        qfi_domain **trees = nullptr;
        int32_t count = -1;
        bool is_well = qfi_op_unquiesce(tree) == 3 && !last_error().empty();
        is_well = is_well && qfi_op_get_active_resources(&trees, &count) == 0 && count == 0;
        auto now = sized_record<qfi_operation_status>();
        is_well = is_well && qfi_op_get_status(tree, &now) == 3 && qfi_op_set_op_status(tree, 1) == 3;
        is_well = is_well && qfi_op_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr) == 3;
        _exit(qzfiapi_shutdown() == 0 && is_well ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read_file(path("log")), "") << "the application is still held";
    EXPECT_EQ(names_in(copy_store() + "/images"), in_the_making);
    ASSERT_EQ(qfi_op_split(tree, nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(qfi_op_unquiesce(tree), 0) << last_error();
    EXPECT_EQ(read_file(path("log")), "post\n");
    EXPECT_EQ(verify(tree), 0) << last_error();
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Together, a_forked_child_runs_commands_of_its_own) {
    const Patience patience;
    const auto freeze = [&](const std::string &word) {
        qfi_domain *const tree = tree_of({path("object")});
        auto options = sized_record<qfi_freeze_options>();
        const std::string pre = "echo " + word + " >>" + path("log");
        options.fim_id = "copy";
        options.pre_command = pre.c_str();
        const int32_t status = qfi_op_make(tree, &options, nullptr);
        qfi_op_detach(tree, nullptr, 0, nullptr);
        return status;
    };
    make_object("object");
    ASSERT_EQ(freeze("parent"), 0) << last_error();
    const pid_t context = command_iop[QFI_CONTEXT_PID];
    const pid_t child = fork();
    if (child == 0) {
        const bool is_well = freeze("child") == 0 && command_iop[QFI_CONTEXT_PID] != context;
        _exit(qzfiapi_shutdown() == 0 && is_well ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(freeze("parent"), 0) << last_error();
    EXPECT_EQ(command_iop[QFI_CONTEXT_PID], context) << "the parent's was left to it";
    EXPECT_EQ(read_file(path("log")), "parent\nchild\nparent\n");
}

TEST_F(Together, a_context_process_that_somebody_ended_is_made_again) {
    const Patience patience;
    make_object("object");
    for (int round = 0; round < 2; ++round) {
        qfi_domain *const tree = tree_of({path("object")});
        auto options = sized_record<qfi_freeze_options>();
        const std::string pre = "echo pre >>" + path("log"), post = "echo post >>" + path("log");
        options.fim_id = "copy";
        options.pre_command = pre.c_str();
        options.post_command = post.c_str();
        EXPECT_EQ(qfi_op_make(tree, &options, nullptr), 0) << last_error();
        qfi_op_detach(tree, nullptr, 0, nullptr);
        ASSERT_NE(command_iop, nullptr);
        ASSERT_EQ(kill(command_iop[QFI_CONTEXT_PID], SIGKILL), 0);
        // Ended, but not reaped: that is the framework's to do.
        siginfo_t end{};
        ASSERT_EQ(waitid(P_PID, static_cast<id_t>(command_iop[QFI_CONTEXT_PID]), &end, WEXITED | WNOWAIT), 0);
    }
    EXPECT_EQ(read_file(path("log")), "pre\npost\npre\npost\n");
}

} // namespace
