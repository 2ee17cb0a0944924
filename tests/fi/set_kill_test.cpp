// Freezes of two file systems into two stores, killed before each call that changes something: both images or none.
#include "images_support.h"

#include <csignal>
#include <map>
#include <set>

#include "support/sanitized.h"
#include "traced_process.h"

namespace images {
namespace {

class SetKill : public testing::Test {
protected:
    void SetUp() override {
        for (const char *const type : {"btrfs", "xfs"})
            if (const auto missing = LoopFilesystem::obstacle(type))
                GTEST_SKIP() << *missing;
        if (const auto obstacle = traced::obstacle())
            GTEST_SKIP() << *obstacle;
        disks_[0] = std::make_unique<LoopFilesystem>("btrfs", 160);
        disks_[1] = std::make_unique<LoopFilesystem>("xfs", 320);
        for (const int disk : {0, 1}) {
            fs::create_directory(object(disk));
            write_file(object(disk) / "file", "content");
        }
        root_ = fs::path(disks_[1]->path()) / "root";
    }

    fs::path object(int disk) const { return fs::path(disks_[disk]->path()) / "object"; }
    fs::path store(int disk) const { return fs::path(disks_[disk]->path()) / ".qzfi"; }

    // Of each set the image that is in the store.
    std::map<std::string, std::string> images_in(int disk) const {
        std::map<std::string, std::string> sets;
        if (!fs::exists(store(disk) / "catalog.db"))
            return sets;
        qfi_image_list *list = nullptr;
        // A killed maker may have left a catalog without its tables: there are no images then.
        if (qfi_op_snapreplica_list(nullptr, store(disk).c_str(), &list) != 0)
            return sets;
        for (const qfi_image_list *one = list; one != nullptr; one = one->next)
            sets[one->image.set_id] = one->image.image_id;
        qfi_op_free_snapreplica_list(list);
        return sets;
    }

    void freeze_both() const {
        const Framework framework(root_);
        const Tree tree({object(0), object(1)});
        traced::begin();
        _exit(qfi_op_make(tree.get(), nullptr, nullptr) == 0 ? 0 : 1);
    }

    // Exit code 10: nothing of it is there. 11: all of it; it is removed again. Looks into the store `first` first.
    void look(int first) const {
        const Framework framework(root_);
        const int second = 1 - first;
        const std::map<std::string, std::string> one = images_in(first);
        EXPECT_LE(one.size(), 1u);
        // The second is looked at when the first one's image is gone already.
        for (const int disk : {first, second}) {
            if (!fs::exists(store(disk) / "catalog.db"))
                continue;
            const std::map<std::string, std::string> present = images_in(disk);
            EXPECT_EQ(present.size(), one.size()) << "the store that is looked into first tells of what the other has";
            for (const auto &[set, image] : present) {
                EXPECT_EQ(one.count(set), 1u);
                EXPECT_EQ(
                    qfi_op_detach(Tree::of_image(image, store(disk)).release(), nullptr, QFI_DETACH_REMOVE, nullptr), 0)
                    << last_error();
            }
        }
        for (const int disk : {first, second})
            if (fs::exists(store(disk) / "catalog.db") &&
                qfi_op_objctl(nullptr, QFI_OBJCTL_REPAIR, store(disk).c_str(), nullptr) == 0) {
                EXPECT_TRUE(fs::is_empty(store(disk) / "images"));
            }
        _exit(testing::Test::HasFailure() ? 1 : one.empty() ? 10 : 11);
    }

    fs::path exported() const { return fs::path(disks_[1]->path()) / "exported"; }
    fs::path imported() const { return fs::path(disks_[1]->path()) / "imported"; }

    // One image is moved, the other copied; `begin` is called in between.
    void export_both(const std::function<void()> &begin) const {
        const Framework framework(root_);
        const Tree tree({object(0), object(1)});
        EXPECT_EQ(qfi_op_make(tree.get(), nullptr, nullptr), 0) << last_error();
        begin();
        EXPECT_EQ(qfi_op_deport_tree(tree.get(), exported().c_str(), nullptr), 0) << last_error();
    }

    // Exports what the stores still hold, and imports all. Exit code 10: nothing was exported; 11: some, and the rest
    // now; 12: all.
    void complete_export() const {
        const Framework framework(root_);
        const std::map<std::string, std::string> held[] = {images_in(0), images_in(1)};
        const bool was_begun = fs::exists(exported()), was_complete = held[0].empty() && held[1].empty();
        if (!was_complete) {
            const auto &[set, image] = *held[held[0].empty() ? 1 : 0].begin();
            const std::string id = held[0].size() == held[1].size() ? set : image;
            Tree tree;
            EXPECT_EQ(qfi_op_reaccess_tree(nullptr, &tree, id.c_str(), nullptr, nullptr, 0), 0) << last_error();
            EXPECT_EQ(qfi_op_deport_tree(tree.get(), exported().c_str(), nullptr), 0) << last_error();
        }
        Tree tree;
        EXPECT_EQ(qfi_op_import_tree(exported().c_str(), imported().c_str(), nullptr, &tree), 0) << last_error();
        EXPECT_FALSE(fs::exists(exported()));
        qfi_image_list *list = nullptr;
        EXPECT_EQ(qfi_op_query_tree_status(tree.get(), nullptr, &list), 0) << last_error();
        std::set<std::string> objects;
        for (const qfi_image_list *one = list; one != nullptr; one = one->next) {
            EXPECT_EQ(differences(one->image.objects[0], one->image.paths[0]), "");
            objects.insert(one->image.objects[0]);
        }
        qfi_op_free_valid_sec_list(list);
        EXPECT_EQ(objects, (std::set<std::string>{object(0), object(1)}));
        EXPECT_EQ(qfi_op_detach(tree.release(), nullptr, QFI_DETACH_REMOVE, nullptr), 0) << last_error();
        for (const fs::path &one : {store(0), store(1), imported()}) {
            EXPECT_EQ(qfi_op_objctl(nullptr, QFI_OBJCTL_REPAIR, one.c_str(), nullptr), 0) << last_error();
            EXPECT_TRUE(fs::is_empty(one / "images")) << one;
        }
        fflush(stdout);
        _exit(testing::Test::HasFailure() ? 1 : was_complete ? 12 : was_begun ? 11 : 10);
    }

    void import_both() const {
        const Framework framework(root_);
        qfi_import_options options;
        QFI_INIT(options);
        options.keep_source = 1;
        qfi_op_set_import_options(&options, nullptr, 0, nullptr);
        traced::begin();
        _exit(qfi_op_import_tree(exported().c_str(), imported().c_str(), nullptr, nullptr) == 0 ? 0 : 1);
    }

    // Exit code 10: nothing of the import is there; 12: both images; they are removed again.
    void look_at_import() const {
        const Framework framework(root_);
        int images = 0;
        std::string set;
        qfi_image_list *list = nullptr;
        if (fs::exists(imported() / "catalog.db") && qfi_op_snapreplica_list(nullptr, imported().c_str(), &list) == 0)
            for (const qfi_image_list *one = list; one != nullptr; one = one->next, ++images)
                set = one->image.set_id;
        qfi_op_free_snapreplica_list(list);
        if (images != 0) {
            EXPECT_EQ(qfi_op_detach(Tree::of_image(set, imported()).release(), nullptr, QFI_DETACH_REMOVE, nullptr), 0)
                << last_error();
        }
        if (fs::exists(imported() / "catalog.db") &&
            qfi_op_objctl(nullptr, QFI_OBJCTL_REPAIR, imported().c_str(), nullptr) == 0) {
            EXPECT_TRUE(fs::is_empty(imported() / "images"));
        }
        _exit(testing::Test::HasFailure() ? 1 : 10 + images);
    }

private:
    std::unique_ptr<LoopFilesystem> disks_[2];
    fs::path root_;
};

TEST_F(SetKill, of_an_import_leaves_both_images_or_none) {
    ASSERT_EQ(in_child([&] { export_both([] {}); }), 0);
    int nones = 0, alls = 0;
    constexpr int stride = is_sanitized ? 3 : 1;
    for (int step = 1;; step += stride) {
        const traced::Outcome outcome =
            traced::run({step, 0, traced::changes_something, false}, [&] { import_both(); });
        const int seen = in_child([&] { look_at_import(); });
        ASSERT_TRUE(seen == 10 || seen == 12)
            << seen << ", step " << step << ": call " << outcome.call.number << " of " << outcome.path;
        (seen == 10 ? nones : alls) += 1;
        if (!outcome.was_reached)
            break;
    }
    EXPECT_GE(nones, 20);
    EXPECT_GE(alls, is_sanitized ? 1 : 2);
}

TEST_F(SetKill, of_an_export_loses_nothing_and_lets_another_complete_it) {
    int nones = 0, parts = 0, alls = 0;
    constexpr int stride = is_sanitized ? 3 : 1;
    for (int step = 1;; step += stride) {
        const traced::Outcome outcome =
            traced::run({step, 0, traced::changes_something, false}, [&] { export_both(traced::begin); });
        const int seen = in_child([&] { complete_export(); });
        ASSERT_TRUE(seen >= 10 && seen <= 12)
            << seen << ", step " << step << ": call " << outcome.call.number << " of " << outcome.path;
        (seen == 10 ? nones : seen == 11 ? parts : alls) += 1;
        if (!outcome.was_reached)
            break;
    }
    EXPECT_GE(nones, 30 / stride);
    EXPECT_GE(parts, 9 / stride);
    EXPECT_GE(alls, 1);
}

TEST_F(SetKill, before_any_change_leaves_both_images_or_none) {
    int nones = 0, alls = 0;
    constexpr int stride = is_sanitized ? 3 : 1;
    for (int step = 1;; step += stride) {
        const traced::Outcome outcome =
            traced::run({step, 0, traced::changes_something, false}, [&] { freeze_both(); });
        const int seen = in_child([&] { look(step % 2); });
        ASSERT_TRUE(seen == 10 || seen == 11)
            << "step " << step << ": call " << outcome.call.number << " of " << outcome.path;
        (seen == 10 ? nones : alls) += 1;
        if (!outcome.was_reached)
            break;
    }
    EXPECT_GE(nones, 20);
    EXPECT_GE(alls, is_sanitized ? 2 : 3) << "also between the two commits";
}

} // namespace
} // namespace images
