// Entries whose n-th allocation fails: the status of that or success, nothing half done, the post command run once.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sstream>

#include "fi/fi_entries.h"
#include "fi/fi_providers.h"
#include "support/fault.h"

namespace {

namespace fs = std::filesystem;

class EntryFaults : public testing::TestWithParam<fault::Call> {
protected:
    void SetUp() override {
        std::string pattern = testing::TempDir() + "/qzfi-faults-XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        top_ = pattern;
        fs::create_directories(top_ / "root");
        fs::create_directories(top_ / "tmp");
        fs::create_directories(top_ / "object/sub");
        std::ofstream(top_ / "object/sub/file") << "content";
        setenv("QFI_DIR", PLUGIN_DIRECTORY, 1);
        setenv("TMPDIR", (top_ / "tmp").c_str(), 1);
        ASSERT_EQ(qzfiapi_set_init_env((top_ / "root").c_str(), nullptr), 0);
        post_ = "echo post >>" + log();
        store_ = top_ / "store";
        options_.size = sizeof options_;
        options_.post_command = post_.c_str();
        options_.fim_id = "copy";
        options_.store = store_.c_str();
        // The plugins are loaded, and the store made, once.
        qfi_domain *const tree = new_tree();
        ASSERT_EQ(qzfi_make(tree, &options_, nullptr), 0);
        ASSERT_EQ(qzfi_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr), 0);
        ASSERT_EQ(take_log(), "post\n");
    }
    void TearDown() override {
        qzfi_shutdown();
        fi_del_all_errors();
        unsetenv("TMPDIR");
        fs::remove_all(top_);
    }

    std::string log() const { return top_ / "log"; }
    std::string take_log() const {
        std::ostringstream text;
        text << std::ifstream(log()).rdbuf();
        fs::remove(log());
        return fs::exists(log()) ? "" : text.str();
    }
    bool store_is_empty() const { return fs::is_empty(top_ / "store/images"); }

    qfi_domain *new_tree() const {
        const std::string path = top_ / "object";
        const qfi_object object = {path.c_str(), nullptr};
        qfi_domain *tree = nullptr;
        EXPECT_EQ(qzfi_gentree(const_cast<qfi_object *>(&object), 1, nullptr, &tree), 0) << said();
        return tree;
    }

    // Every one of the first calls, then ever fewer; to the end of what the body makes.
    void for_many(const std::function<int32_t()> &arrange_and_act, const std::function<void(int32_t)> &check) {
        int failures = 0;
        for (int nth = 1;; nth += 1 + nth / 8) {
            nth_ = nth;
            const int32_t status = arrange_and_act();
            const bool has_failed = fault::Armed::fired();
            EXPECT_TRUE(status == QFI_STATUS_OK || status == QFI_STATUS_NO_MEMORY) << "call " << nth << ": " << status;
            EXPECT_TRUE(has_failed || status == QFI_STATUS_OK) << "call " << nth << ": " << status;
            check(status);
            fi_del_all_errors();
            failures += status != QFI_STATUS_OK ? 1 : 0;
            if (!has_failed || HasFailure())
                break;
        }
        EXPECT_GE(failures, 1);
    }
    // The text of the last failure.
    static std::string said() {
        qfi_error_info *error = nullptr;
        char *text = nullptr;
        if (qzfi_get_last_error(&error) != 0 || error == nullptr ||
            qzfi_get_locale_message(error, &text, nullptr, nullptr) != 0)
            return "nothing was said";
        const std::string copy = text;
        qzfi_del_locale_message(text);
        return copy;
    }
    int32_t armed(const std::function<int32_t()> &act) const {
        const fault::Armed one(GetParam(), nth_);
        return act();
    }

    fs::path top_;
    std::string post_, store_;
    qfi_freeze_options options_{};

private:
    int nth_ = 0;
};
INSTANTIATE_TEST_SUITE_P(Of, EntryFaults, testing::Values(fault::Call::construction, fault::Call::allocation),
                         [](const auto &each) {
                             return std::string(each.param == fault::Call::construction ? "new" : "malloc");
                         });

TEST_P(EntryFaults, gentree_gives_a_tree_or_nothing) {
    const std::string path = top_ / "object";
    const qfi_object object = {path.c_str(), nullptr};
    qfi_domain *tree = nullptr;
    for_many([&] { return armed([&] { return qzfi_gentree(const_cast<qfi_object *>(&object), 1, nullptr, &tree); }); },
             [&](int32_t status) {
                 EXPECT_EQ(tree != nullptr, status == 0);
                 if (tree != nullptr) {
                     EXPECT_EQ(qzfi_detach(tree, nullptr, 0, nullptr), 0);
                 }
                 tree = nullptr;
             });
}

TEST_P(EntryFaults, split_makes_the_image_or_nothing_and_the_post_command_runs_once) {
    qfi_domain *tree = nullptr;
    for_many(
        [&] {
            tree = new_tree();
            EXPECT_EQ(qzfi_select(tree, nullptr, const_cast<char *>("copy"), store_.data()), 0) << said();
            EXPECT_EQ(qzfi_prepare(tree, 0, &options_, nullptr), 0) << said();
            EXPECT_EQ(qzfi_quiesce(tree), 0) << said();
            qfi_report *report = nullptr;
            const int32_t status = armed([&] { return qzfi_split(tree, nullptr, &report); });
            qzfi_free_buffer(report);
            return status;
        },
        [&](int32_t status) {
            EXPECT_EQ(store_is_empty(), status != 0);
            EXPECT_EQ(qzfi_unquiesce(tree), 0) << said();
            EXPECT_EQ(take_log(), "post\n");
            EXPECT_EQ(qzfi_detach(tree, nullptr, status == 0 ? QFI_DETACH_REMOVE : 0, nullptr), 0) << said();
            EXPECT_TRUE(store_is_empty());
        });
}

TEST_P(EntryFaults, lists_of_trees_are_given_whole_or_not_at_all) {
    qfi_domain *const tree = new_tree();
    ASSERT_EQ(qzfi_make(tree, &options_, nullptr), 0);
    qfi_domain_tree_list_t *list = nullptr;
    for_many([&] { return armed([&] { return qzfi_enumerate_trees(&list); }); },
             [&](int32_t status) {
                 EXPECT_EQ(list != nullptr, status == 0);
                 EXPECT_EQ(qzfi_free_tree_list(list), 0);
                 list = nullptr;
             });
    EXPECT_EQ(qzfi_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr), 0);
}

} // namespace
