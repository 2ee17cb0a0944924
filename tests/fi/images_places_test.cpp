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

} // namespace
} // namespace images
