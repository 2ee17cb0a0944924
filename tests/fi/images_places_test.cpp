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

} // namespace
} // namespace images
