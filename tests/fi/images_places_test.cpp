// What a restore or a resynchronisation may not reach from where it works.
#include "images_support.h"

#include <sys/mount.h>

namespace images {
namespace {

using Places = Images;
INSTANTIATE_TEST_SUITE_P(On, Places, testing::Values("ext4", "xfs", "btrfs"), name_of);

using Operation = int32_t (*)(qfi_domain *, const qfi_restore_options *, qfi_report **);
constexpr Operation operations[] = {qfi_op_restore, qfi_op_resync};

int32_t call(Operation operation, const Tree &tree, const char *only, bool dry_run = false) {
    qfi_restore_options options;
    QFI_INIT(options);
    options.only = only;
    options.dry_run = dry_run ? 1 : 0;
    return operation(tree.get(), &options, nullptr);
}

TEST_P(Places, on_another_mount_below_the_object_are_not_its_own) {
    fs::create_directory(object / "empty" / "below");
    write_file(object / "empty" / "below" / "file", "frozen");
    write_file(object / "empty" / "file", "frozen");
    const Tree tree = freeze({object}, store);
    const fs::path mounted = object / "empty";
    ASSERT_EQ(mount("none", mounted.c_str(), "tmpfs", 0, nullptr), 0);
    fs::create_directory(mounted / "below");
    write_file(mounted / "below" / "mine", "keep me");
    write_file(mounted / "below" / "file", "keep me");
    write_file(mounted / "file", "keep me");
    for (const Operation operation : operations) {
        for (const bool dry_run : {true, false}) {
            for (const char *const only : {"empty", "empty/file", "empty/below", "empty/below/file", "empty/new"}) {
                EXPECT_NE(call(operation, tree, only, dry_run), 0) << only;
            }
            EXPECT_EQ(call(operation, tree, "empty/below", dry_run), QFI_STATUS_NOT_SUPPORTED);
            EXPECT_NE(last_error().find((mounted / "below").string() +
                                        " cannot be replaced: another file system is mounted above it"),
                      std::string::npos)
                << last_error();
            EXPECT_EQ(call(operation, tree, "empty", dry_run), QFI_STATUS_NOT_SUPPORTED);
        }
    }
    for (const char *const kept : {"file", "below/file", "below/mine"})
        EXPECT_EQ(content_of(mounted / kept), "keep me") << kept;
    ASSERT_EQ(umount(mounted.c_str()), 0);
    for (const Operation operation : operations) {
        write_file(object / "empty" / "file", "changed");
        EXPECT_EQ(call(operation, tree, "empty/file"), 0) << last_error();
        EXPECT_EQ(content_of(object / "empty" / "file"), "frozen");
        fs::remove(object / "empty" / "below" / "file");
        EXPECT_EQ(call(operation, tree, "empty/below"), 0) << last_error();
        EXPECT_EQ(content_of(object / "empty" / "below" / "file"), "frozen");
    }
}

std::string attribute(const qfi_domain *node, const char *name) {
    char *value = nullptr;
    EXPECT_EQ(qfi_op_getattr(node, name, nullptr, &value), 0) << last_error();
    const std::string text = value != nullptr ? value : "";
    qfi_op_free_buffer(value);
    return text;
}

TEST_P(Places, on_a_mount_that_another_one_hides_are_not_found_there) {
    const fs::path place = top / "place", below = place / "a" / "b";
    fs::create_directories(below);
    ASSERT_EQ(mount("hidden", below.c_str(), "tmpfs", 0, nullptr), 0);
    ASSERT_EQ(mount("seen", place.c_str(), "tmpfs", 0, nullptr), 0);
    fs::create_directories(below / "object");
    {
        const Tree tree({below / "object"});
        EXPECT_EQ(attribute(tree.get()->fid_children, "device"), "seen");
        EXPECT_EQ(attribute(tree.get()->fid_children, "mountpoint"), place.string());
    }
    const auto is_listed = [](const fs::path &mount_point) {
        qfi_node_list *nodes = nullptr;
        EXPECT_EQ(qfi_op_enumerate_provider_nodes("copy", mount_point.c_str(), nullptr, 0, &nodes), 0) << last_error();
        const bool is_there = nodes != nullptr;
        qfi_op_free_node_list(nodes);
        return is_there;
    };
    EXPECT_TRUE(is_listed(place));
    EXPECT_FALSE(is_listed(below));
    ASSERT_EQ(umount(place.c_str()), 0);
    EXPECT_TRUE(is_listed(below));
    ASSERT_EQ(umount(below.c_str()), 0);
}

TEST_P(Places, of_stores_are_left_out_whatever_paths_they_are_known_by) {
    const fs::path other = top / "other", bound = top / "bound", linked = top / "linked";
    for (const fs::path &folder : {other, bound})
        fs::create_directory(folder);
    fs::create_directory_symlink(object, linked);
    ASSERT_EQ(mount((object / "empty").c_str(), bound.c_str(), nullptr, MS_BIND, nullptr), 0);
    freeze({other}, bound / "store");
    freeze({other}, linked / "sub" / "store");
    for (const char *const method : {static_cast<const char *>(nullptr), "copy"}) {
        const Tree tree = freeze({object}, store, method);
        const fs::path image = tree.image_path();
        EXPECT_TRUE(fs::exists(image / "empty"));
        EXPECT_FALSE(fs::exists(image / "empty" / "store"));
        EXPECT_TRUE(fs::exists(image / "sub" / "two names"));
        EXPECT_FALSE(fs::exists(image / "sub" / "store"));
        EXPECT_EQ(call(qfi_op_resync, tree, nullptr), 0) << last_error();
        EXPECT_TRUE(fs::exists(object / "empty" / "store" / "catalog.db"));
        EXPECT_TRUE(fs::exists(object / "sub" / "store" / "catalog.db"));
    }
    ASSERT_EQ(umount(bound.c_str()), 0);
}

struct Canceller : qfi_progress_handler {
    Canceller() : qfi_progress_handler{} {
        size = sizeof(qfi_progress_handler);
        progress = [](qfi_progress_handler *self, const qfi_progress *told) -> int32_t {
            auto &canceller = *static_cast<Canceller *>(self);
            ++canceller.calls;
            canceller.most_entries = std::max(canceller.most_entries, told->entries_done);
            return canceller.cancels ? 1 : 0;
        };
        handler.reserved1 = static_cast<qfi_progress_handler *>(this);
    }
    qfi_handler handler{};
    bool cancels = false;
    int calls = 0;
    uint64_t most_entries = 0;
};

TEST_P(Places, are_looked_at_with_a_host_that_can_cancel) {
    Canceller canceller;
    stop();
    start(&canceller.handler);
    {
        const Tree tree = freeze({object}, store, "copy");
        const auto expect = [&](Operation operation, bool dry_run, int32_t status) {
            canceller.calls = 0;
            canceller.cancels = false;
            EXPECT_EQ(call(operation, tree, nullptr, dry_run), status) << last_error();
            EXPECT_GT(canceller.calls, 0);
            canceller.cancels = true;
            EXPECT_EQ(call(operation, tree, nullptr, dry_run), QFI_FI_CANCELLED) << last_error();
        };
        // What an image lacks is told after all of it was walked.
        const fs::path kept = top / "kept";
        fs::rename(fs::path(tree.image_path()) / "plain", kept);
        canceller.most_entries = 0;
        for (const Operation operation : operations)
            for (const bool dry_run : {true, false})
                expect(operation, dry_run, QFI_FI_DAMAGED);
        EXPECT_EQ(canceller.most_entries, 0u) << "what is looked at first is no part of the work";
        fs::rename(kept, fs::path(tree.image_path()) / "plain");
        // So is what is in the way in the original.
        canceller.cancels = false;
        fs::create_directories(object / "sub" / "store" / "images");
        for (const char *const name : {"catalog.db", "reserve"})
            write_file(object / "sub" / "store" / name, "");
        expect(qfi_op_restore, false, QFI_STATUS_NOT_SUPPORTED);
    }
    stop();
    start();
}

// A link there is what is replaced; nothing goes through it.
TEST_P(Places, below_an_object_may_be_links) {
    write_file(top / "victim", "keep me");
    fs::create_directory(top / "folder");
    write_file(top / "folder" / "mine", "keep me");
    const Tree tree = freeze({object}, store);
    for (const Operation operation : operations) {
        fs::remove(object / "absolute");
        fs::create_symlink("elsewhere", object / "absolute");
        fs::remove(object / "plain");
        fs::create_symlink(top / "victim", object / "plain");
        for (const char *const only : {"absolute", "plain"}) {
            EXPECT_EQ(call(operation, tree, only, true), 0) << last_error();
            EXPECT_EQ(call(operation, tree, only), 0) << last_error();
        }
        EXPECT_EQ(fs::read_symlink(object / "absolute"), "/etc");
        EXPECT_FALSE(fs::is_symlink(object / "plain"));
        EXPECT_EQ(content_of(object / "plain"), "plain content");
        EXPECT_EQ(content_of(top / "victim"), "keep me");
    }
    fs::remove_all(object / "empty");
    fs::create_directory_symlink(top / "folder", object / "empty");
    EXPECT_EQ(call(qfi_op_restore, tree, "empty"), 0) << last_error();
    EXPECT_FALSE(fs::is_symlink(object / "empty"));
    EXPECT_EQ(content_of(top / "folder" / "mine"), "keep me");
}

TEST_P(Places, of_objects_are_not_resolved_again_when_a_tree_is_refreshed) {
    fs::create_directories(top / "above" / "object");
    fs::create_directories(top / "secret" / "object");
    const Tree tree({top / "above" / "object"});
    ASSERT_EQ(qfi_op_refresh_tree(tree.get()), 0) << last_error();
    fs::rename(top / "above", top / "aside");
    fs::create_directory_symlink(top / "secret", top / "above");
    EXPECT_EQ(qfi_op_refresh_tree(tree.get()), QFI_FI_UNSAFE);
    EXPECT_EQ(last_error(), "qzfi_refresh_tree: " + (top / "secret" / "object").string() +
                                " leaves its place: a symbolic link leads here now\n");
}

TEST_P(Places, without_room_for_a_comparison_are_named) {
    for (int number = 0; number < 1000; ++number)
        write_file(object / ("a file with a name of some length, for a long manifest " + std::to_string(number)), "");
    const Tree tree = freeze({object}, store);
    const fs::path small = top / "small";
    fs::create_directory(small);
    ASSERT_EQ(mount("none", small.c_str(), "tmpfs", 0, "size=64k"), 0);
    setenv("TMPDIR", small.c_str(), 1);
    EXPECT_EQ(call(qfi_op_restore, tree, nullptr), QFI_FI_NO_SPACE);
    EXPECT_EQ(last_error().find("qzfi_restore: no space left on the file system of " + small.string()), 0u)
        << last_error();
    qfi_restore_options options;
    QFI_INIT(options);
    const std::string to = top / "new";
    options.to = to.c_str();
    qfi_report *report = nullptr;
    EXPECT_EQ(qfi_op_restore(tree.get(), &options, &report), 0) << last_error();
    unsetenv("TMPDIR");
    ASSERT_EQ(umount(small.c_str()), 0);
    const Report told(report);
    ASSERT_EQ(told.lines.size(), 1u);
    EXPECT_EQ(told.lines[0].detail.find("the image could not be looked at for damage: no space left"), 0u);
    EXPECT_EQ(differences(object, to), "");
}

TEST_P(Places, that_cannot_be_changed_stop_a_restore_of_several_objects_before_the_first) {
    const fs::path other = top / "other";
    fs::create_directory(other);
    ASSERT_EQ(mount("none", other.c_str(), "tmpfs", 0, nullptr), 0);
    make_zoo(other / "second");
    const Tree tree = freeze({object, other / "second"}, store, "copy");
    write_file(object / "plain", "as it is");
    ASSERT_EQ(mount(nullptr, other.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_EQ(call(qfi_op_restore, tree, nullptr), QFI_FI_NO_RIGHT) << last_error();
    EXPECT_NE(last_error().find((other / "second").string()), std::string::npos) << last_error();
    EXPECT_EQ(content_of(object / "plain"), "as it is");
    EXPECT_EQ(call(qfi_op_restore, tree, nullptr, true), 0) << last_error();
    ASSERT_EQ(umount(other.c_str()), 0);
}

TEST_P(Places, whose_folder_is_gone_are_told_with_what_to_do) {
    const Tree tree = freeze({object}, store);
    fs::remove_all(object / "sub");
    for (const Operation operation : operations) {
        EXPECT_EQ(call(operation, tree, "sub/two names"), QFI_FI_NO_SUCH_OBJECT);
        EXPECT_NE(last_error().find((object / "sub").string() +
                                    ": No such file or directory (2); restore this first, or to another place"),
                  std::string::npos)
            << last_error();
    }
    ASSERT_EQ(call(qfi_op_restore, tree, "sub"), 0) << last_error();
    EXPECT_TRUE(fs::exists(object / "sub" / "two names"));
}

} // namespace
} // namespace images
