// Images of objects with nested subvolumes, with them and without.
#include "images_support.h"

#include <chrono>
#include <qzfi_provider.h>
#include <sys/stat.h>
#include <unistd.h>

namespace images {
namespace {

class Nested : public Images {
protected:
    void SetUp() override {
        Images::SetUp();
        if (IsSkipped())
            return;
        run({"btrfs", "subvolume", "create", volume()});
        write_file(volume() / "file", "nested content");
        fs::create_directory(volume() / "folder");
        write_file(volume() / "folder" / "below", "more");
    }
    fs::path volume() const { return object / "volume"; }
};
INSTANTIATE_TEST_SUITE_P(On, Nested, testing::Values("btrfs"), name_of);

Tree freeze_nested(const fs::path &object, const fs::path &store, const char *method, bool digest, bool nested = true) {
    Tree tree({object});
    qfi_freeze_options options;
    QFI_INIT(options);
    options.fim_id = method;
    options.store = store.c_str();
    options.digest = digest ? 1 : 0;
    options.nested = nested ? 1 : 0;
    EXPECT_EQ(qfi_op_make(tree.get(), &options, nullptr), 0) << last_error();
    return tree;
}

std::vector<std::string> paths_of(qfi_diff *diff) {
    std::vector<std::string> paths;
    for (uint64_t index = 0; diff != nullptr && index < diff->count; ++index)
        paths.push_back(std::to_string(diff->entries[index].change) + " " + diff->entries[index].path);
    qfi_op_free_buffer(diff);
    return paths;
}

std::vector<std::string> diff_of(const Tree &from, const Tree *to = nullptr) {
    qfi_diff *diff = nullptr;
    EXPECT_EQ(qfi_op_get_snapdiff(from.get(), to != nullptr ? to->get() : nullptr, nullptr, &diff), 0) << last_error();
    return paths_of(diff);
}

int32_t verify(const Tree &tree) {
    return qfi_op_objctl(tree.get(), QFI_OBJCTL_VERIFY, nullptr, nullptr);
}

int32_t restore(const Tree &tree, const char *to = nullptr, const char *only = nullptr) {
    qfi_restore_options options;
    QFI_INIT(options);
    options.to = to;
    options.only = only;
    return qfi_op_restore(tree.get(), &options, nullptr);
}

Report resync(const Tree &tree, bool dry_run) {
    qfi_restore_options options;
    QFI_INIT(options);
    options.dry_run = dry_run ? 1 : 0;
    qfi_report *report = nullptr;
    EXPECT_EQ(qfi_op_resync(tree.get(), &options, &report), 0) << last_error();
    return Report(report);
}

void change(const fs::path &volume) {
    write_file(volume / "file", "changed since");
    fs::remove_all(volume / "folder");
    write_file(volume / "new", "new");
}
const std::vector<std::string> changes{
    std::to_string(QFI_CHANGE_CONTENT) + " volume/file", std::to_string(QFI_CHANGE_REMOVED) + " volume/folder",
    std::to_string(QFI_CHANGE_REMOVED) + " volume/folder/below", std::to_string(QFI_CHANGE_ADDED) + " volume/new"};

struct Way {
    const char *method;
    bool digest;
};
constexpr Way ways[] = {{"btrfs", true}, {"btrfs", false}, {"copy", true}, {"copy", false}};

TEST_P(Nested, sound_images_verify_and_differ_in_what_changed) {
    for (const Way &way : ways) {
        SCOPED_TRACE(std::string(way.method) + (way.digest ? " with digests" : ""));
        const Tree tree = freeze_nested(object, store, way.method, way.digest);
        EXPECT_EQ(verify(tree), 0) << last_error();
        EXPECT_EQ(diff_of(tree), std::vector<std::string>{});
        qfi_diff *files = nullptr;
        ASSERT_EQ(qfi_op_get_backupset(tree.get(), 0, nullptr, 0, &files), 0) << last_error();
        EXPECT_EQ(paths_of(files).size(), zoo_entries + 4);
        run({"btrfs", "subvolume", "snapshot", volume(), top / "aside"});
        change(volume());
        EXPECT_EQ(diff_of(tree), changes);
        EXPECT_EQ(diff_of(tree, std::make_unique<Tree>(freeze_nested(object, store, way.method, way.digest)).get()),
                  changes);
        run({"btrfs", "subvolume", "delete", volume()});
        fs::rename(top / "aside", volume());
    }
}

TEST_P(Nested, a_resynchronisation_brings_them_back_and_its_dry_run_says_so) {
    for (const Way &way : ways) {
        SCOPED_TRACE(std::string(way.method) + (way.digest ? " with digests" : ""));
        const Tree tree = freeze_nested(object, store, way.method, way.digest);
        change(volume());
        run({"btrfs", "subvolume", "create", object / "later"});
        write_file(object / "later" / "mine", "keep me");
        EXPECT_EQ(resync(tree, true).changed, changes.size());
        EXPECT_EQ(resync(tree, false).changed, changes.size());
        EXPECT_EQ(content_of(volume() / "file"), "nested content");
        EXPECT_EQ(content_of(volume() / "folder" / "below"), "more");
        EXPECT_FALSE(fs::exists(volume() / "new"));
        EXPECT_EQ(content_of(object / "later" / "mine"), "keep me") << "no image holds it";
        run({"btrfs", "subvolume", "delete", object / "later"});
        EXPECT_EQ(diff_of(tree), std::vector<std::string>{});
        struct stat status {};
        ASSERT_EQ(stat(volume().c_str(), &status), 0);
        EXPECT_EQ(status.st_ino, 256u) << "still a subvolume";
    }
}

TEST_P(Nested, a_restore_makes_them_again) {
    for (const Way &way : ways) {
        SCOPED_TRACE(std::string(way.method) + (way.digest ? " with digests" : ""));
        fs::remove_all(top / "kept");
        fs::last_write_time(object, fs::file_time_type::clock::now() - std::chrono::hours(1)); // none of today's
        keep(object, top / "kept");
        const Tree tree = freeze_nested(object, store, way.method, way.digest);
        ASSERT_EQ(restore(tree, (top / "new").c_str()), 0) << last_error();
        EXPECT_EQ(differences(top / "kept", top / "new"), "");
        fs::remove_all(top / "new");
        run({"btrfs", "subvolume", "snapshot", volume(), top / "aside"});
        run({"btrfs", "subvolume", "delete", volume()});
        fs::remove_all(object);
        ASSERT_EQ(restore(tree), 0) << last_error();
        EXPECT_EQ(differences(top / "kept", object), "");
        fs::remove_all(volume());
        fs::rename(top / "aside", volume());
    }
}

// Exports to another file system, and imports from there.
Tree moved(Tree tree, const fs::path &store) {
    const fs::path elsewhere = fs::path(testing::TempDir()) / ("qzfi-nested-" + std::to_string(getpid()));
    EXPECT_EQ(qfi_op_deport_tree(tree.get(), elsewhere.c_str(), nullptr), 0) << last_error();
    qfi_import_options options;
    QFI_INIT(options);
    options.verify = 1;
    EXPECT_EQ(qfi_op_set_import_options(&options, nullptr, 0, nullptr), 0);
    Tree imported;
    EXPECT_EQ(qfi_op_import_tree(elsewhere.c_str(), store.c_str(), nullptr, &imported), 0) << last_error();
    fs::remove_all(elsewhere);
    return imported;
}

TEST_P(Nested, an_image_that_moved_still_knows_them) {
    for (const Way &way : ways) {
        SCOPED_TRACE(std::string(way.method) + (way.digest ? " with digests" : ""));
        const Tree imported = moved(freeze_nested(object, store, way.method, way.digest), store);
        EXPECT_EQ(verify(imported), 0) << last_error();
        EXPECT_EQ(diff_of(imported), std::vector<std::string>{});
        change(volume());
        EXPECT_EQ(resync(imported, true).changed, changes.size());
        EXPECT_EQ(resync(imported, false).changed, changes.size());
        EXPECT_EQ(content_of(volume() / "file"), "nested content");
    }
}

TEST_P(Nested, an_image_without_them_is_sound_also_after_it_moved) {
    for (const Way &way : ways) {
        SCOPED_TRACE(std::string(way.method) + (way.digest ? " with digests" : ""));
        Tree tree = freeze_nested(object, store, way.method, way.digest, false);
        EXPECT_EQ(verify(tree), 0) << last_error();
        EXPECT_EQ(diff_of(tree), std::vector<std::string>{});
        const uint64_t remarks = remarks_of(tree);
        const Tree imported = moved(std::move(tree), store);
        EXPECT_EQ(remarks_of(imported), remarks);
        EXPECT_EQ(verify(imported), 0) << last_error();
        EXPECT_EQ(diff_of(imported), std::vector<std::string>{});
        EXPECT_EQ(resync(imported, false).changed, 0u);
        EXPECT_EQ(content_of(volume() / "file"), "nested content");
    }
}

// Where a subvolume was that the image does not hold.
TEST_P(Nested, an_ordinary_folder_in_the_place_of_one_is_not_lost) {
    for (const Way &way : ways) {
        SCOPED_TRACE(std::string(way.method) + (way.digest ? " with digests" : ""));
        run({"btrfs", "subvolume", "snapshot", volume(), top / "aside"});
        Tree tree = freeze_nested(object, store, way.method, way.digest, false);
        run({"btrfs", "subvolume", "delete", volume()});
        keep(top / "aside", volume());
        const auto refuses = [&](const Tree &one) {
            EXPECT_EQ(restore(one), QFI_STATUS_NOT_SUPPORTED);
            EXPECT_EQ(last_error(), "qzfi_restore: " + volume().string() + " would be lost: unreadable when image " +
                                        one.image_id() + " was made; move it away first\n");
            EXPECT_EQ(qfi_op_resync(one.get(), nullptr, nullptr), QFI_STATUS_NOT_SUPPORTED);
            EXPECT_EQ(content_of(volume() / "file"), "nested content");
        };
        refuses(tree);
        const Tree imported = moved(std::move(tree), store);
        refuses(imported);
        fs::rename(volume(), top / "mine");
        EXPECT_EQ(restore(imported), 0) << last_error();
        EXPECT_FALSE(fs::exists(volume()));
        fs::remove_all(top / "mine");
        fs::rename(top / "aside", volume());
    }
}

// In a copy of a whole subvolume an empty directory that nobody can write into stands there.
TEST_P(Nested, what_stands_for_one_is_in_nobodys_way) {
    const fs::path whole = top / "whole";
    run({"btrfs", "subvolume", "create", whole});
    fs::create_directory(whole / "sub");
    write_file(whole / "sub" / "file", "content");
    run({"btrfs", "subvolume", "create", whole / "sub" / "volume"});
    const Tree tree = freeze_nested(whole, store, "btrfs", true, false);
    ASSERT_EQ(restore(tree, (top / "again").c_str()), 0) << last_error();
    const Tree below = freeze_nested(whole / "sub", store, "btrfs", true, false);
    run({"btrfs", "subvolume", "delete", whole / "sub" / "volume"});
    run({"btrfs", "subvolume", "delete", whole});
    fs::rename(top / "again", whole);
    ASSERT_TRUE(fs::exists(whole / "sub" / "volume"));
    EXPECT_EQ(diff_of(below), std::vector<std::string>{});
    ASSERT_EQ(resync(below, false).changed, 0u);
    write_file(whole / "sub" / "file", "changed");
    ASSERT_EQ(restore(below), 0) << last_error();
    EXPECT_EQ(content_of(whole / "sub" / "file"), "content");
}

} // namespace
} // namespace images
