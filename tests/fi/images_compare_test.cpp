// Verifying images, differences, backup sets.
#include "images_support.h"

#include <qzfi_provider.h>
#include <sys/stat.h>

namespace images {
namespace {

using Compare = Images;
INSTANTIATE_TEST_SUITE_P(On, Compare, testing::Values("copy", "ext4", "xfs", "btrfs"), name_of);

struct Change {
    uint32_t change;
    std::string path;
    uint64_t old_size, new_size;
    bool operator==(const Change &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Change &one) {
    return out << one.change << " " << one.path << " " << one.old_size << " " << one.new_size;
}

std::vector<Change> taken(qfi_diff *diff) {
    std::vector<Change> changes;
    for (uint64_t index = 0; diff != nullptr && index < diff->count; ++index) {
        const qfi_diff_entry &entry = diff->entries[index];
        changes.push_back({entry.change, entry.path, entry.old_size, entry.new_size});
    }
    qfi_op_free_buffer(diff);
    return changes;
}

std::vector<Change> diff_of(const Tree &from, const Tree *to, bool digest = false) {
    qfi_diff_options options;
    QFI_INIT(options);
    options.digest = digest ? 1 : 0;
    qfi_diff *diff = nullptr;
    EXPECT_EQ(qfi_op_get_snapdiff(from.get(), to != nullptr ? to->get() : nullptr, &options, &diff), 0) << last_error();
    return taken(diff);
}

void change(const fs::path &object) {
    write_file(object / "plain", "longer than before");
    write_file(object / "sub" / "added", "new");
    fs::remove(object / "absolute");
    fs::remove(object / "empty");
    fs::create_symlink("x", object / "empty");
    chmod((object / "sub" / "deeper").c_str(), 0700);
}

const std::vector<Change> changed{
    {QFI_CHANGE_REMOVED, "absolute", 4, 0},     {QFI_CHANGE_TYPE, "empty", 0, 1},
    {QFI_CHANGE_CONTENT, "plain", 13, 18},      {QFI_CHANGE_ADDED, "sub/added", 0, 3},
    {QFI_CHANGE_ATTRIBUTE, "sub/deeper", 0, 0},
};

TEST_P(Compare, images_with_each_other) {
    for (const bool digest : {true, false}) {
        const Tree first = freeze({object}, store, nullptr, digest);
        fs::rename(object, top / "aside");
        keep(top / "aside", object);
        change(object);
        const Tree second = freeze({object}, store, nullptr, digest);
        EXPECT_EQ(diff_of(first, &second), changed);
        EXPECT_EQ(diff_of(first, &first), std::vector<Change>{});
        fs::remove_all(object);
        fs::rename(top / "aside", object);
    }
}

TEST_P(Compare, an_image_with_the_originals) {
    const Tree tree = freeze({object}, store);
    EXPECT_EQ(diff_of(tree, nullptr), std::vector<Change>{});
    change(object);
    EXPECT_EQ(diff_of(tree, nullptr), changed);
    EXPECT_EQ(diff_of(tree, nullptr, true), changed);
}

TEST_P(Compare, an_image_with_a_tree_that_is_not_frozen) {
    const Tree tree = freeze({object}, store);
    keep(object, top / "elsewhere");
    const Tree elsewhere({top / "elsewhere"});
    EXPECT_EQ(diff_of(tree, &elsewhere), std::vector<Change>{});
    change(top / "elsewhere");
    EXPECT_EQ(diff_of(tree, &elsewhere), changed);
    const Tree both({object, top / "elsewhere"});
    std::vector<Change> added = diff_of(tree, &both);
    EXPECT_EQ(added.size(), zoo_entries) << "of several, those of the same path are compared";
    for (const Change &one : added)
        EXPECT_EQ(one.change, static_cast<uint32_t>(QFI_CHANGE_ADDED)) << one;
    qfi_diff *diff = nullptr;
    EXPECT_EQ(qfi_op_get_snapdiff(elsewhere.get(), tree.get(), nullptr, &diff), QFI_FI_WRONG_STATE);
    EXPECT_EQ(qfi_op_get_backupset(tree.get(), 0, elsewhere.get(), 0, &diff), QFI_FI_WRONG_STATE);
}

TEST_P(Compare, data_where_sizes_and_times_agree_when_asked_to) {
    for (const bool digest : {true, false}) {
        const Tree tree = freeze({object}, store, nullptr, digest);
        const auto time = fs::last_write_time(object / "plain");
        write_file(object / "plain", "PLAIN CONTENT");
        fs::last_write_time(object / "plain", time);
        EXPECT_EQ(diff_of(tree, nullptr), std::vector<Change>{});
        EXPECT_EQ(diff_of(tree, nullptr, true), (std::vector<Change>{{QFI_CHANGE_CONTENT, "plain", 13, 13}}));
        write_file(object / "plain", "plain content");
        fs::last_write_time(object / "plain", time);
    }
}

TEST_P(Compare, an_image_with_an_original_that_is_gone) {
    const Tree tree = freeze({object}, store);
    fs::remove_all(object);
    const std::vector<Change> changes = diff_of(tree, nullptr);
    EXPECT_EQ(changes.size(), zoo_entries);
    for (const Change &one : changes)
        EXPECT_EQ(one.change, static_cast<uint32_t>(QFI_CHANGE_REMOVED)) << one;
}

TEST_P(Compare, leaves_the_store_in_the_object_out) {
    const Tree tree = freeze({object}, object / "store");
    EXPECT_EQ(diff_of(tree, nullptr), std::vector<Change>{});
}

TEST_P(Compare, gives_a_backup_all_files_or_those_that_changed) {
    const Tree first = freeze({object}, store);
    qfi_diff *files = nullptr;
    ASSERT_EQ(qfi_op_get_backupset(first.get(), 0, nullptr, 0, &files), 0) << last_error();
    const std::vector<Change> all = taken(files);
    EXPECT_EQ(all.size(), zoo_entries);
    for (const Change &one : all)
        EXPECT_EQ(one.change, static_cast<uint32_t>(QFI_CHANGE_NONE)) << one;
    change(object);
    const Tree second = freeze({object}, store);
    files = nullptr;
    ASSERT_EQ(qfi_op_get_backupset(second.get(), 0, first.get(), 0, &files), 0) << last_error();
    EXPECT_EQ(taken(files), changed);
    EXPECT_EQ(qfi_op_get_backupset(second.get(), 1, nullptr, 0, &files), QFI_STATUS_INVALID_ARGUMENT);
}

TEST_P(Compare, takes_no_nested_subvolume_for_a_difference) {
    if (std::string(GetParam()) != "btrfs")
        GTEST_SKIP() << "only Btrfs has subvolumes";
    run({"btrfs", "subvolume", "create", object / "nested"});
    write_file(object / "nested" / "file", "left out");
    for (const char *const method : {"btrfs", "copy"}) {
        const Tree tree = freeze({object}, store, method);
        EXPECT_EQ(diff_of(tree, nullptr), std::vector<Change>{}) << method;
        write_file(object / "plain", "changed");
        ASSERT_EQ(qfi_op_resync(tree.get(), nullptr, nullptr), 0) << last_error();
        EXPECT_EQ(content_of(object / "plain"), "plain content") << method;
        EXPECT_EQ(content_of(object / "nested" / "file"), "left out") << method;
    }
}

TEST_P(Compare, verifies_an_image_that_is_whole) {
    const Tree tree = freeze({object}, store);
    qfi_report *report = nullptr;
    ASSERT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_VERIFY, nullptr, &report), 0) << last_error();
    const Report told(report);
    EXPECT_EQ(told.lines, std::vector<Line>{});
    EXPECT_EQ(told.entries, zoo_entries);
}

TEST_P(Compare, verify_tells_what_is_not_as_it_was) {
    const Tree tree = freeze({object}, store, "copy");
    const fs::path image = tree.image_path();
    const auto time = fs::last_write_time(image / "plain");
    write_file(image / "plain", "PLAIN CONTENT");
    fs::last_write_time(image / "plain", time);
    write_file(image / "sub" / "added", "more");
    fs::remove(image / "absolute");
    qfi_report *report = nullptr;
    EXPECT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_VERIFY, nullptr, &report), QFI_FI_DAMAGED);
    EXPECT_EQ(last_error(), "qzfi_objctl: image " + tree.image_id() + " is damaged: " + object.string() +
                                "/absolute: missing: 3 entries are not as its manifest says\n");
    const std::string path = object;
    EXPECT_EQ(Report(report).lines, (std::vector<Line>{
                                        {QFI_REMARK_WARNING, path, "absolute", "missing"},
                                        {QFI_REMARK_WARNING, path, "plain", "other content"},
                                        {QFI_REMARK_WARNING, path, "sub/added", "not in the manifest"},
                                    }));
}

TEST_P(Compare, verify_says_when_there_is_no_manifest) {
    if (std::string(GetParam()) != "btrfs")
        GTEST_SKIP() << "only snapshots have no manifest";
    const Tree tree = freeze({object}, store, "btrfs", false);
    qfi_report *report = nullptr;
    ASSERT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_VERIFY, nullptr, &report), 0) << last_error();
    EXPECT_EQ(Report(report).lines,
              (std::vector<Line>{
                  {QFI_REMARK_WARNING, object, "", "without a manifest: only that the image is there was verified"}}));
}

TEST_P(Compare, verify_misses_a_manifest) {
    const Tree tree = freeze({object}, store);
    fs::remove(store / "images" / tree.image_id() / "manifest.0");
    EXPECT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_VERIFY, nullptr, nullptr), QFI_FI_DAMAGED);
    EXPECT_EQ(last_error(),
              "qzfi_objctl: image " + tree.image_id() + " is damaged: manifest.0: No such file or directory (2)\n");
}

TEST_P(Compare, verify_misses_an_object) {
    const Tree tree = freeze({object}, store, "copy");
    fs::remove_all(tree.image_path());
    EXPECT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_VERIFY, nullptr, nullptr), QFI_FI_DAMAGED);
}

} // namespace
} // namespace images
