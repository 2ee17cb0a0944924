// Restoring and resynchronising.
#include "images_support.h"

#include <fcntl.h>
#include <qzfi_provider.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace images {
namespace {

using Restore = Images;
INSTANTIATE_TEST_SUITE_P(On, Restore, testing::Values("copy", "ext4", "xfs", "btrfs"), name_of);

int32_t restore(const Tree &tree, const char *to = nullptr, const char *only = nullptr) {
    qfi_restore_options options;
    QFI_INIT(options);
    options.to = to;
    options.only = only;
    return qfi_op_restore(tree.get(), &options, nullptr);
}

void spoil(const fs::path &object) {
    write_file(object / "plain", "changed since");
    write_file(object / "sub" / "added", "new");
    fs::remove(object / "absolute");
    fs::remove_all(object / "sub" / "deeper");
    fs::remove(object / "fifo");
    fs::create_directory(object / "fifo");
}

// Nothing of a restore is left beside the object.
void expect_clean(const fs::path &directory) {
    for (const fs::directory_entry &entry : fs::directory_iterator(directory))
        EXPECT_EQ(entry.path().filename().string().rfind(".qzfi", 0), std::string::npos) << entry.path();
}

TEST_P(Restore, brings_everything_back_exactly) {
    keep(object, top / "kept");
    const Tree tree = freeze({object}, store);
    spoil(object);
    ASSERT_EQ(restore(tree), 0) << last_error();
    EXPECT_EQ(differences(top / "kept", object), "");
    EXPECT_EQ(differences(object, top / "kept"), "");
    expect_clean(top);
}

TEST_P(Restore, makes_an_object_that_is_gone) {
    keep(object, top / "kept");
    const Tree tree = freeze({object}, store);
    fs::remove_all(object);
    ASSERT_EQ(restore(tree), 0) << last_error();
    EXPECT_EQ(differences(top / "kept", object), "");
}

TEST_P(Restore, counts_what_it_made) {
    const Tree tree = freeze({object}, store);
    qfi_report *report = nullptr;
    ASSERT_EQ(qfi_op_restore(tree.get(), nullptr, &report), 0) << last_error();
    const Report told(report);
    EXPECT_EQ(told.entries, zoo_entries);
    EXPECT_EQ(told.changed, told.entries);
    EXPECT_EQ(told.count, 0u);
}

TEST_P(Restore, goes_into_a_new_directory_or_an_empty_one) {
    const Tree tree = freeze({object}, store);
    ASSERT_EQ(restore(tree, (top / "new").c_str()), 0) << last_error();
    EXPECT_EQ(differences(object, top / "new"), "");
    fs::create_directory(top / "empty");
    ASSERT_EQ(restore(tree, (top / "empty").c_str()), 0) << last_error();
    EXPECT_EQ(differences(object, top / "empty"), "");
    expect_clean(top);
}

TEST_P(Restore, refuses_a_directory_with_something_in_it) {
    const Tree tree = freeze({object}, store);
    fs::create_directory(top / "full");
    write_file(top / "full" / "mine", "keep me");
    EXPECT_EQ(restore(tree, (top / "full").c_str()), QFI_FI_EXISTS);
    EXPECT_EQ(last_error(), "qzfi_restore: " + (top / "full").string() + " exists already\n");
    EXPECT_EQ(content_of(top / "full" / "mine"), "keep me");
}

TEST_P(Restore, gives_each_of_several_objects_a_directory) {
    make_zoo(top / "second");
    const Tree tree = freeze({object, top / "second"}, store);
    ASSERT_EQ(restore(tree, (top / "new").c_str()), 0) << last_error();
    EXPECT_EQ(differences(object, top / "new" / "object"), "");
    EXPECT_EQ(differences(top / "second", top / "new" / "second"), "");
}

TEST_P(Restore, replaces_one_file_only) {
    const Tree tree = freeze({object}, store);
    spoil(object);
    ASSERT_EQ(restore(tree, nullptr, "plain"), 0) << last_error();
    EXPECT_EQ(content_of(object / "plain"), "plain content");
    struct stat status {};
    ASSERT_EQ(stat((object / "plain").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 04751u);
    EXPECT_EQ(content_of(object / "sub" / "added"), "new");
    expect_clean(object);
}

TEST_P(Restore, replaces_one_link_or_directory_only) {
    const Tree tree = freeze({object}, store);
    spoil(object);
    ASSERT_EQ(restore(tree, nullptr, "absolute"), 0) << last_error();
    EXPECT_EQ(fs::read_symlink(object / "absolute"), "/etc");
    ASSERT_EQ(restore(tree, nullptr, "sub/deeper"), 0) << last_error();
    EXPECT_EQ(content_of(object / "sub" / "deeper" / "other name"), "linked");
    EXPECT_EQ(content_of(object / "sub" / "added"), "new");
    EXPECT_EQ(content_of(object / "plain"), "changed since");
}

TEST_P(Restore, takes_a_part_of_several_objects_by_its_whole_path) {
    const fs::path second = top / "object two"; // begins like the first one
    make_zoo(second);
    const Tree tree = freeze({object, second}, store);
    spoil(object);
    spoil(second);
    ASSERT_EQ(restore(tree, nullptr, (second / "plain").c_str()), 0) << last_error();
    EXPECT_EQ(content_of(second / "plain"), "plain content");
    EXPECT_EQ(content_of(second / "sub" / "added"), "new");
    EXPECT_EQ(content_of(object / "plain"), "changed since");

    qfi_restore_options options;
    QFI_INIT(options);
    const std::string folder = (second / "sub/").string();
    options.only = folder.c_str();
    qfi_report *report = nullptr;
    options.dry_run = 1;
    ASSERT_EQ(qfi_op_resync(tree.get(), &options, &report), 0) << last_error();
    for (const Line &line : Report(report).lines)
        EXPECT_EQ((std::pair{line.object, line.path.substr(0, 3)}), (std::pair{second.string(), std::string("sub")}));
    options.dry_run = 0;
    ASSERT_EQ(qfi_op_resync(tree.get(), &options, nullptr), 0) << last_error();
    EXPECT_FALSE(fs::exists(second / "sub" / "added"));
    EXPECT_FALSE(fs::exists(second / "absolute"));

    ASSERT_EQ(restore(tree, nullptr, second.c_str()), 0) << last_error();
    EXPECT_TRUE(fs::is_symlink(second / "absolute"));
    EXPECT_EQ(content_of(object / "plain"), "changed since");
    EXPECT_EQ(content_of(object / "sub" / "added"), "new");
    ASSERT_EQ(restore(tree, (top / "new").c_str(), (object / "sub").c_str()), 0) << last_error();
    EXPECT_EQ(content_of(top / "new" / "two names"), "linked");
}

TEST_P(Restore, refuses_a_part_of_which_the_object_is_not_told) {
    make_zoo(top / "second");
    const Tree tree = freeze({object, top / "second"}, store);
    EXPECT_EQ(restore(tree, nullptr, "plain"), QFI_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(last_error(), "qzfi_restore: invalid argument: a path below the object needs a tree of one object\n");
    for (const fs::path &only :
         {top / "third" / "plain", top, fs::path(top.string() + "/second more"), fs::path("/")}) {
        EXPECT_EQ(restore(tree, nullptr, only.c_str()), QFI_STATUS_INVALID_ARGUMENT) << only;
        EXPECT_EQ(last_error(),
                  "qzfi_restore: invalid argument: the whole path of a part must lie in an object of the tree\n");
    }
    EXPECT_EQ(restore(tree, nullptr, (object / "sub" / ".." / "plain").c_str()), QFI_STATUS_INVALID_ARGUMENT);
}

TEST_P(Restore, forgets_all_other_places_once_a_part_went_to_its_own) {
    make_zoo(top / "second");
    const Tree tree = freeze({object, top / "second"}, store);
    const std::string elsewhere = (top / "elsewhere").string();
    const char *const paths[] = {elsewhere.c_str(), nullptr};
    ASSERT_EQ(qfi_op_set_restorepaths(tree.get(), paths, 2), 0) << last_error();
    write_file(top / "second" / "plain", "changed since");
    ASSERT_EQ(restore(tree, nullptr, (top / "second" / "plain").c_str()), 0) << last_error();
    EXPECT_EQ(content_of(top / "second" / "plain"), "plain content");
    write_file(object / "plain", "changed since");
    ASSERT_EQ(restore(tree), 0) << last_error();
    EXPECT_EQ(content_of(object / "plain"), "plain content");
    EXPECT_FALSE(fs::exists(elsewhere));
}

TEST_P(Restore, copies_one_file_to_a_new_directory) {
    const Tree tree = freeze({object}, store);
    ASSERT_EQ(restore(tree, (top / "new").c_str(), "sub/two names"), 0) << last_error();
    EXPECT_EQ(content_of(top / "new" / "two names"), "linked");
}

TEST_P(Restore, copies_one_file_of_any_name) {
    for (const char *const name : {"entry", "holder", "tree"})
        write_file(object / "sub" / name, name);
    const Tree tree = freeze({object}, store);
    for (const std::string name : {"entry", "holder", "tree"}) {
        ASSERT_EQ(restore(tree, (top / ("new " + name)).c_str(), ("sub/" + name).c_str()), 0) << last_error();
        EXPECT_EQ(content_of(top / ("new " + name) / name), name);
        write_file(object / "sub" / name, "changed");
        ASSERT_EQ(restore(tree, nullptr, ("sub/" + name).c_str()), 0) << last_error();
        EXPECT_EQ(content_of(object / "sub" / name), name);
    }
}

// Its other names stay names of it.
TEST_P(Restore, resync_of_one_file_that_is_as_it_was_changes_nothing) {
    const Tree tree = freeze({object}, store);
    fs::create_hard_link(object / "plain", top / "another name");
    const auto resync = [&](const char *only, uint32_t digest) {
        qfi_restore_options options;
        QFI_INIT(options);
        options.only = only;
        options.digest = digest;
        qfi_report *report = nullptr;
        EXPECT_EQ(qfi_op_resync(tree.get(), &options, &report), 0) << last_error();
        return Report(report).changed;
    };
    struct stat before {
    }, after{};
    ASSERT_EQ(stat((object / "plain").c_str(), &before), 0);
    EXPECT_EQ(resync("plain", 0), 0u);
    EXPECT_EQ(resync("plain", 1), 0u);
    EXPECT_EQ(resync("absolute", 0), 0u);
    EXPECT_EQ(resync("fifo", 0), 0u);
    ASSERT_EQ(stat((object / "plain").c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(after.st_nlink, 2u);
    // Other bytes of the same size and time are seen when contents are compared.
    write_file(object / "plain", "PLAIN content");
    const timespec times[] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, (object / "plain").c_str(), times, 0), 0);
    EXPECT_EQ(resync("plain", 0), 0u);
    EXPECT_EQ(resync("plain", 1), 1u);
    EXPECT_EQ(content_of(object / "plain"), "plain content");
    fs::permissions(object / "plain", fs::perms::owner_read);
    EXPECT_EQ(resync("plain", 0), 1u);
    EXPECT_EQ(::access((top / "another name").c_str(), F_OK), 0);
    fs::remove(object / "absolute");
    fs::create_symlink("/usr", object / "absolute");
    EXPECT_EQ(resync("absolute", 0), 2u) << "the one goes, the other is made";
    EXPECT_EQ(fs::read_symlink(object / "absolute"), "/etc");
    EXPECT_TRUE(fs::is_directory("/usr")) << "the link was not followed";
    EXPECT_EQ(content_of(object / "sub" / "two names"), "linked") << "nothing else was removed";
}

TEST_P(Restore, resync_of_an_original_that_another_resynchronises_is_refused) {
    const Tree tree = freeze({object}, store);
    write_file(object / "plain", "changed");
    const int other = open(object.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(other, LOCK_EX), 0);
    qfi_restore_options options;
    QFI_INIT(options);
    for (const char *const only : {static_cast<const char *>(nullptr), "sub", "plain"}) {
        options.only = only;
        EXPECT_EQ(qfi_op_resync(tree.get(), &options, nullptr), QFI_FI_BUSY);
    }
    EXPECT_EQ(content_of(object / "plain"), "changed");
    close(other);
    EXPECT_EQ(qfi_op_resync(tree.get(), nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(content_of(object / "plain"), "plain content");
    EXPECT_EQ(qfi_op_resync(tree.get(), nullptr, nullptr), 0) << "it was let go of: " << last_error();
}

TEST_P(Restore, refuses_what_the_image_does_not_hold) {
    const Tree tree = freeze({object}, store);
    EXPECT_EQ(restore(tree, nullptr, "no such"), QFI_FI_NO_SUCH_OBJECT);
    EXPECT_EQ(last_error(), "qzfi_restore: " + tree.image_path() + "/no such: No such file or directory (2)\n");
    for (const char *const path : {"", "..", "sub/../plain", "/plain", "sub//deeper", "./plain"})
        EXPECT_EQ(restore(tree, nullptr, path), QFI_STATUS_INVALID_ARGUMENT) << path;
}

TEST_P(Restore, goes_once_where_its_paths_say) {
    const Tree tree = freeze({object}, store);
    const std::string other = top / "other";
    const char *const paths[] = {other.c_str()};
    ASSERT_EQ(qfi_op_set_restorepaths(tree.get(), paths, 1), 0);
    write_file(object / "plain", "mine");
    ASSERT_EQ(restore(tree), 0) << last_error();
    EXPECT_EQ(content_of(other + "/plain"), "plain content");
    EXPECT_EQ(content_of(object / "plain"), "mine");
    ASSERT_EQ(restore(tree), 0) << last_error();
    EXPECT_EQ(content_of(object / "plain"), "plain content");
    EXPECT_EQ(qfi_op_set_restorepaths(tree.get(), paths, 2), QFI_STATUS_INVALID_ARGUMENT);
}

TEST_P(Restore, writes_through_no_link_above_the_object) {
    fs::create_directories(top / "above");
    make_zoo(top / "above" / "object");
    const Tree tree = freeze({top / "above" / "object"}, store);
    fs::rename(top / "above", top / "moved");
    fs::create_directories(top / "victim" / "object");
    write_file(top / "victim" / "object" / "mine", "keep me");
    fs::create_directory_symlink(top / "victim", top / "above");
    EXPECT_EQ(restore(tree), QFI_FI_UNSAFE);
    EXPECT_EQ(last_error(), "qzfi_restore: " + (top / "above").string() +
                                " leaves its place: " + (top / "above").string() + " is a symbolic link\n");
    EXPECT_EQ(qfi_op_resync(tree.get(), nullptr, nullptr), QFI_FI_UNSAFE);
    EXPECT_EQ(content_of(top / "victim" / "object" / "mine"), "keep me");
    EXPECT_EQ(restore(tree, (top / "above" / "new").c_str()), QFI_FI_UNSAFE);
    EXPECT_FALSE(fs::exists(top / "victim" / "new"));
}

TEST_P(Restore, replaces_no_link_in_the_objects_place) {
    const Tree tree = freeze({object}, store);
    fs::rename(object, top / "moved");
    fs::create_directory(top / "victim");
    write_file(top / "victim" / "mine", "keep me");
    fs::create_directory_symlink(top / "victim", object);
    EXPECT_EQ(restore(tree), QFI_FI_UNSAFE);
    EXPECT_EQ(qfi_op_resync(tree.get(), nullptr, nullptr), QFI_FI_UNSAFE);
    EXPECT_TRUE(fs::is_symlink(object));
    EXPECT_EQ(content_of(top / "victim" / "mine"), "keep me");
}

TEST_P(Restore, replaces_a_link_below_the_object_without_following_it) {
    const Tree tree = freeze({object}, store);
    fs::create_directory(top / "victim");
    write_file(top / "victim" / "two names", "keep me");
    fs::remove_all(object / "sub");
    fs::create_directory_symlink(top / "victim", object / "sub");
    EXPECT_EQ(restore(tree, nullptr, "sub/two names"), QFI_FI_UNSAFE);
    ASSERT_EQ(restore(tree), 0) << last_error();
    EXPECT_FALSE(fs::is_symlink(object / "sub"));
    EXPECT_EQ(content_of(top / "victim" / "two names"), "keep me");
}

TEST_P(Restore, of_an_object_with_the_store_in_it_is_refused) {
    const Tree tree = freeze({object}, object / "store");
    EXPECT_EQ(restore(tree), QFI_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(last_error(), "qzfi_restore: " + object.string() + " cannot be replaced: store " +
                                (object / "store").string() +
                                " lies in it; restore to another place, or resynchronise it\n");
    write_file(object / "plain", "changed");
    ASSERT_EQ(qfi_op_resync(tree.get(), nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(content_of(object / "plain"), "plain content");
    EXPECT_TRUE(fs::exists(object / "store" / "catalog.db"));
}

// Another root, or a new installation: the register of stores is not there.
TEST_P(Restore, removes_no_store_that_this_root_does_not_know) {
    const fs::path inside = object / "sub" / "store";
    const std::string kept = freeze({top / "root"}, inside, "copy").image_id();
    // Looks like one at first sight.
    fs::create_directories(object / "other" / "images");
    write_file(object / "other" / "catalog.db", "mine");
    const std::string id = freeze({object}, store).image_id();
    stop();
    const Framework elsewhere(top / "another root");
    const Tree tree = Tree::of_image(id, store);
    spoil(object);
    EXPECT_EQ(restore(tree), QFI_STATUS_NOT_SUPPORTED);
    const std::string refusal = "qzfi_restore: " + object.string() + " cannot be replaced: store " + inside.string() +
                                " lies in it; restore to another place, or resynchronise it\n";
    EXPECT_EQ(last_error(), refusal);
    EXPECT_EQ(restore(tree, nullptr, "sub"), QFI_STATUS_NOT_SUPPORTED);
    qfi_restore_options options;
    QFI_INIT(options);
    options.dry_run = 1;
    EXPECT_EQ(qfi_op_restore(tree.get(), &options, nullptr), QFI_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(last_error(), refusal);
    qfi_report *report = nullptr;
    ASSERT_EQ(qfi_op_resync(tree.get(), &options, &report), 0) << last_error();
    for (const Line &line : Report(report).lines)
        EXPECT_NE(line.path.substr(0, 9), "sub/store") << line;
    ASSERT_EQ(qfi_op_resync(tree.get(), nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(content_of(object / "plain"), "plain content");
    EXPECT_FALSE(fs::exists(object / "sub" / "added"));
    const Tree still = Tree::of_image(kept, inside);
    EXPECT_EQ(restore(still, (top / "restored").c_str()), 0) << last_error();
    fs::rename(inside, top / "moved store");
    EXPECT_EQ(restore(tree), 0) << last_error();
    EXPECT_EQ(content_of(object / "other" / "catalog.db"), "mine");
}

TEST_P(Restore, goes_into_no_store_whatever_path_leads_there) {
    const fs::path view = top / "view";
    fs::create_directory(view);
    const Tree tree = freeze({object}, store, "copy");
    qfi_restore_options options;
    QFI_INIT(options);
    const std::string missing = (top / "root" / "arcvault" / "images").string();
    const std::string inside = (store / "images" / "new").string();
    for (const std::string &to : {inside, missing}) {
        if (to == missing)
            fs::remove_all(to);
        options.to = to.c_str();
        EXPECT_EQ(qfi_op_restore(tree.get(), &options, nullptr), QFI_STATUS_INVALID_ARGUMENT) << to;
        EXPECT_EQ(last_error(), "qzfi_restore: invalid argument: nothing is restored into a store\n");
    }
    if (std::string(GetParam()) == "copy")
        GTEST_SKIP() << "needs a private mount namespace";
    ASSERT_EQ(mount(store.c_str(), view.c_str(), nullptr, MS_BIND, nullptr), 0);
    const std::string aliased = (view / "images" / "new").string();
    options.to = aliased.c_str();
    EXPECT_EQ(qfi_op_restore(tree.get(), &options, nullptr), QFI_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(last_error(), "qzfi_restore: invalid argument: nothing is restored into a store\n");
    umount2(view.c_str(), MNT_DETACH);
}

TEST_P(Restore, refuses_a_mount_point_which_a_resync_brings_up_to_date) {
    if (std::string(GetParam()) == "copy")
        GTEST_SKIP() << "needs a file system of its own";
    const Tree tree = freeze({top}, top / ".qzfi");
    EXPECT_EQ(restore(tree), QFI_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(last_error(), "qzfi_restore: " + top.string() +
                                " cannot be replaced: it is a mount point; restore to another place, or "
                                "resynchronise it\n");
    write_file(object / "plain", "changed");
    fs::remove(object / "absolute");
    qfi_report *report = nullptr;
    ASSERT_EQ(qfi_op_resync(tree.get(), nullptr, &report), 0) << last_error();
    EXPECT_EQ(Report(report).changed, 2u);
    EXPECT_EQ(content_of(object / "plain"), "plain content");
    EXPECT_TRUE(fs::exists(top / ".qzfi" / "catalog.db"));
}

TEST_P(Restore, refuses_an_object_with_a_mount_below_it) {
    if (std::string(GetParam()) == "copy")
        GTEST_SKIP() << "needs a private mount namespace";
    const Tree tree = freeze({object}, store);
    ASSERT_EQ(mount("none", (object / "empty").c_str(), "tmpfs", 0, nullptr), 0);
    write_file(object / "empty" / "mine", "keep me");
    EXPECT_EQ(restore(tree), QFI_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(content_of(object / "empty" / "mine"), "keep me");
    ASSERT_EQ(umount((object / "empty").c_str()), 0);
}

TEST_P(Restore, refuses_subvolumes_in_its_way) {
    if (std::string(GetParam()) != "btrfs")
        GTEST_SKIP() << "only Btrfs has subvolumes";
    const Tree tree = freeze({object}, store);
    run({"btrfs", "subvolume", "create", object / "nested"});
    write_file(object / "nested" / "mine", "keep me");
    EXPECT_EQ(restore(tree), QFI_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(last_error(), "qzfi_restore: " + object.string() + " cannot be replaced: a subvolume is below it, at " +
                                (object / "nested").string() + "; restore to another place, or resynchronise it\n");
    EXPECT_EQ(content_of(object / "nested" / "mine"), "keep me");
    run({"btrfs", "subvolume", "create", top / "volume"});
    make_zoo(top / "volume");
    const Tree volume = freeze({top / "volume"}, store);
    EXPECT_EQ(restore(volume), QFI_STATUS_NOT_SUPPORTED);
    ASSERT_EQ(restore(volume, (top / "copy of volume").c_str()), 0) << last_error();
    EXPECT_EQ(differences(top / "volume", top / "copy of volume"), "");
}

// By a user who owns the folder of a file that only root can read.
TEST_P(Restore, loses_nothing_that_the_image_could_not_read) {
    constexpr uid_t user = 65534;
    if (std::string(GetParam()) != "copy" || geteuid() != 0)
        GTEST_SKIP() << "once, by root, who can become another user";
    stop();
    fs::remove_all(object);
    fs::create_directory(object);
    write_file(object / "plain", "plain content");
    run({"chown", "-R", std::to_string(user), top});
    write_file(object / "secret", "keep me");
    fs::permissions(object / "secret", fs::perms::owner_read);
    ASSERT_EQ(in_child([&] {
                  ASSERT_EQ(setresuid(user, user, user), 0);
                  const Framework framework(top / "root");
                  const Tree tree = freeze({object}, store, "copy");
                  ASSERT_EQ(remarks_of(tree), 1u);
                  const std::string refusal = ": " + (object / "secret").string() +
                                              " would be lost: unreadable when image " + tree.image_id() +
                                              " was made; move it away first\n";
                  EXPECT_EQ(restore(tree), QFI_STATUS_NOT_SUPPORTED);
                  EXPECT_EQ(last_error(), "qzfi_restore" + refusal);
                  EXPECT_EQ(qfi_op_resync(tree.get(), nullptr, nullptr), QFI_STATUS_NOT_SUPPORTED);
                  EXPECT_EQ(last_error(), "qzfi_resync" + refusal);
                  EXPECT_EQ(restore(tree, nullptr, "plain"), 0) << last_error();
                  EXPECT_EQ(restore(tree, (top / "new").c_str()), 0) << last_error();
              }),
              0);
    EXPECT_EQ(content_of(object / "secret"), "keep me");
    ASSERT_EQ(in_child([&] {
                  ASSERT_EQ(setresuid(user, user, user), 0);
                  const Framework framework(top / "root");
                  fs::rename(object / "secret", top / "secret");
                  const Tree tree = freeze({object}, store, "copy");
                  EXPECT_EQ(restore(tree), 0) << last_error();
              }),
              0);
}

// What lies below a mount point is seen when the mount is gone, and in no copy that was made while it was there.
TEST_P(Restore, loses_nothing_that_a_mount_hid_from_the_image) {
    if (std::string(GetParam()) == "copy")
        GTEST_SKIP() << "needs a private mount namespace";
    const fs::path hidden = object / "empty", file = object / "plain";
    write_file(hidden / "mine", "keep me");
    write_file(top / "over", "another");
    const auto cover = [&] {
        EXPECT_EQ(mount("none", hidden.c_str(), "tmpfs", 0, nullptr), 0);
        EXPECT_EQ(mount((top / "over").c_str(), file.c_str(), nullptr, MS_BIND, nullptr), 0);
    };
    const auto uncover = [&] {
        EXPECT_EQ(umount(hidden.c_str()), 0);
        EXPECT_EQ(umount(file.c_str()), 0);
    };
    cover();
    const Tree tree = freeze({object}, store, "copy");
    ASSERT_EQ(remarks_of(tree), 2u);
    EXPECT_EQ(restore(tree), QFI_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(qfi_op_resync(tree.get(), nullptr, nullptr), 0) << "what is mounted stays: " << last_error();
    uncover();
    const auto expect_refused = [&](const fs::path &path) {
        const std::string refusal = ": " + path.string() + " would be lost: unreadable when image " + tree.image_id() +
                                    " was made; move it away first\n";
        EXPECT_EQ(restore(tree), QFI_STATUS_NOT_SUPPORTED);
        EXPECT_EQ(last_error(), "qzfi_restore" + refusal);
        EXPECT_EQ(qfi_op_resync(tree.get(), nullptr, nullptr), QFI_STATUS_NOT_SUPPORTED);
        EXPECT_EQ(last_error(), "qzfi_resync" + refusal);
    };
    EXPECT_EQ(restore(tree, nullptr, "sub"), 0) << "nothing was hidden there: " << last_error();
    fs::rename(file, top / "plain");
    expect_refused(hidden);
    fs::rename(top / "plain", file);
    fs::rename(hidden, top / "empty");
    expect_refused(file);
    fs::rename(file, top / "plain");
    EXPECT_EQ(restore(tree), 0) << last_error();
    EXPECT_EQ(content_of(top / "empty" / "mine"), "keep me");
    EXPECT_EQ(content_of(top / "plain"), "plain content");
}

// Which of the objects were unreadable is not known then: a socket, which is left out, stands for a remark.
TEST_P(Restore, in_place_needs_the_report_of_an_image_with_remarks) {
    ASSERT_EQ(mknod((object / "socket").c_str(), S_IFSOCK | 0600, 0), 0);
    const Tree tree = freeze({object}, store, "copy");
    ASSERT_EQ(remarks_of(tree), 1u);
    const fs::path report = store / "images" / tree.image_id() / "report";
    const std::string whole = content_of(report);
    const std::string refusal = ": " + object.string() + " cannot be replaced: what was unreadable when image " +
                                tree.image_id() + " was made is not all known; restore to another place\n";
    const std::string losses =
        "qzfi-report 1\n" + std::to_string(QFI_REMARK_UNREADABLE) + " 13 " + object.string() + " gone open\nend 2\n";
    for (const std::string &content : {std::string("no report"), losses}) {
        write_file(report, content);
        EXPECT_EQ(restore(tree), QFI_STATUS_NOT_SUPPORTED);
        EXPECT_EQ(last_error(), "qzfi_restore" + refusal);
        EXPECT_EQ(qfi_op_resync(tree.get(), nullptr, nullptr), QFI_STATUS_NOT_SUPPORTED);
        EXPECT_EQ(last_error(), "qzfi_resync" + refusal);
    }
    fs::remove(report);
    EXPECT_EQ(restore(tree), QFI_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(restore(tree, (top / "new").c_str()), 0) << last_error();
    EXPECT_EQ(content_of(top / "new" / "plain"), "plain content");
    write_file(report, whole);
    EXPECT_EQ(restore(tree), 0) << last_error();
    fs::remove(report);
    fs::remove_all(object);
    EXPECT_EQ(restore(tree), 0) << "nothing is there to be lost: " << last_error();
}

TEST_P(Restore, puts_no_damaged_image_in_the_place_of_what_is_sound) {
    const Tree tree = freeze({object}, store, "copy");
    keep(object, top / "kept");
    const fs::path image = tree.image_path();
    const auto expect_damaged = [&](const char *path, const char *how, int digest) {
        const std::string damage =
            ": image " + tree.image_id() + " is damaged: " + (object / path).string() + ": " + how;
        for (const uint32_t dry_run : {1u, 0u}) {
            qfi_restore_options options;
            QFI_INIT(options);
            options.dry_run = dry_run;
            options.digest = static_cast<uint32_t>(digest);
            EXPECT_EQ(qfi_op_restore(tree.get(), &options, nullptr), QFI_FI_DAMAGED);
            EXPECT_EQ(last_error(), "qzfi_restore" + damage + "\n");
            EXPECT_EQ(qfi_op_resync(tree.get(), &options, nullptr), QFI_FI_DAMAGED);
            EXPECT_EQ(last_error(), "qzfi_resync" + damage + "\n");
        }
        EXPECT_EQ(differences(top / "kept", object), "");
    };
    const auto remarked = [&](uint32_t dry_run, uint32_t digest) {
        const std::string to = top / "new";
        qfi_restore_options options;
        QFI_INIT(options);
        options.to = to.c_str();
        options.dry_run = dry_run;
        options.digest = digest;
        qfi_report *report = nullptr;
        EXPECT_EQ(qfi_op_restore(tree.get(), &options, &report), 0) << last_error();
        fs::remove_all(to);
        std::vector<Line> lines = Report(report).lines;
        std::erase_if(lines, [](const Line &line) { return line.detail == "would be made"; });
        return lines;
    };
    const auto line = [&](const char *path, const char *detail) {
        return std::vector<Line>{{QFI_REMARK_WARNING, object, path, detail}};
    };
    struct stat status {};
    ASSERT_EQ(stat((image / "plain").c_str(), &status), 0);
    write_file(image / "plain", "PLAIN content");
    const timespec times[] = {status.st_atim, status.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, (image / "plain").c_str(), times, 0), 0);
    expect_damaged("plain", "other content", 1);
    for (const uint32_t dry_run : {0u, 1u}) {
        EXPECT_EQ(remarked(dry_run, 1), line("plain", "the image is damaged: other content"));
        EXPECT_EQ(remarked(dry_run, 0), std::vector<Line>{}) << "contents are looked at when asked for";
    }
    fs::remove(image / "plain");
    expect_damaged("plain", "missing", 0);
    EXPECT_EQ(remarked(0, 0), line("plain", "the image is damaged: missing"));
    fs::create_directory(image / "plain");
    expect_damaged("plain", "of another type", 0);
    EXPECT_EQ(restore(tree, nullptr, "sub"), 0) << "that part is sound: " << last_error();
    EXPECT_EQ(restore(tree, nullptr, "plain"), QFI_FI_DAMAGED);
}

TEST_P(Restore, resync_changes_only_what_differs) {
    keep(object, top / "kept");
    const Tree tree = freeze({object}, store);
    struct stat before {
    }, after{};
    ASSERT_EQ(stat((object / "sparse").c_str(), &before), 0);
    spoil(object);
    qfi_restore_options options;
    QFI_INIT(options);
    options.workers = 1; // of two, one may make a name of a file anew before the other comes to the name that is there
    qfi_report *report = nullptr;
    ASSERT_EQ(qfi_op_resync(tree.get(), &options, &report), 0) << last_error();
    const Report told(report);
    EXPECT_EQ(told.changed, 7u) << "six entries, and the directory where the FIFO was";
    EXPECT_EQ(differences(top / "kept", object), "");
    ASSERT_EQ(stat((object / "sparse").c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_P(Restore, dry_runs_tell_what_would_be_done_and_do_nothing) {
    const Tree tree = freeze({object}, store);
    spoil(object);
    keep(object, top / "spoilt");
    const std::string path = object;
    const std::vector<Line> expected{
        {QFI_REMARK_WARNING, path, "absolute", "would be made"},
        {QFI_REMARK_WARNING, path, "fifo", "would be replaced"},
        {QFI_REMARK_WARNING, path, "plain", "would be replaced"},
        {QFI_REMARK_WARNING, path, "sub/added", "would be removed"},
        {QFI_REMARK_WARNING, path, "sub/deeper", "would be made"},
        {QFI_REMARK_WARNING, path, "sub/deeper/other name", "would be made"},
    };
    qfi_restore_options options;
    QFI_INIT(options);
    options.dry_run = 1;
    for (const auto operation : {qfi_op_restore, qfi_op_resync}) {
        qfi_report *report = nullptr;
        ASSERT_EQ(operation(tree.get(), &options, &report), 0) << last_error();
        const Report told(report);
        EXPECT_EQ(told.lines, expected);
        EXPECT_EQ(told.changed, expected.size());
        EXPECT_EQ(differences(top / "spoilt", object), "");
    }
}

TEST_P(Restore, a_resynchronisation_leaves_sockets_alone_and_its_dry_run_does_not_list_them) {
    const auto bind = [&](const char *name) { ASSERT_EQ(mknod((object / name).c_str(), S_IFSOCK | 0600, 0), 0); };
    bind("before");
    bind("now a file");
    const Tree tree = freeze({object}, store);
    fs::remove(object / "now a file");
    write_file(object / "now a file", "x");
    bind("sub/after");
    fs::create_directory(object / "new");
    bind("new/socket");
    const std::string path = object;
    const std::vector<Line> changes{{QFI_REMARK_WARNING, path, "new", "would be removed"},
                                    {QFI_REMARK_WARNING, path, "new/socket", "would be removed"},
                                    {QFI_REMARK_WARNING, path, "now a file", "would be removed"}};
    const auto told_by = [&](auto operation) {
        qfi_restore_options options;
        QFI_INIT(options);
        options.dry_run = 1;
        qfi_report *report = nullptr;
        EXPECT_EQ(operation(tree.get(), &options, &report), 0) << last_error();
        return Report(report).lines;
    };
    EXPECT_EQ(told_by(qfi_op_resync), changes);
    const std::vector<Line> restored = told_by(qfi_op_restore);
    EXPECT_EQ(
        std::count(restored.begin(), restored.end(), Line{QFI_REMARK_WARNING, path, "sub/after", "would be removed"}),
        1);
    struct stat before {
    }, after{};
    ASSERT_EQ(stat((object / "before").c_str(), &before), 0);
    ASSERT_EQ(qfi_op_resync(tree.get(), nullptr, nullptr), 0) << last_error();
    ASSERT_EQ(stat((object / "before").c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(before.st_ctim.tv_nsec, after.st_ctim.tv_nsec);
    EXPECT_TRUE(fs::is_socket(object / "sub" / "after"));
    EXPECT_FALSE(fs::exists(object / "new"));
    EXPECT_FALSE(fs::exists(object / "now a file"));
    EXPECT_EQ(told_by(qfi_op_resync), std::vector<Line>{});
}

TEST_P(Restore, dry_runs_to_a_new_place_tell_what_would_be_made_there) {
    const Tree tree = freeze({object}, store);
    const std::string to = top / "new";
    qfi_restore_options options;
    QFI_INIT(options);
    options.dry_run = 1;
    options.to = to.c_str();
    const auto told_of = [&](const char *only) {
        options.only = only;
        qfi_report *report = nullptr;
        EXPECT_EQ(qfi_op_restore(tree.get(), &options, &report), 0) << last_error();
        return Report(report);
    };
    const Report all = told_of(nullptr);
    EXPECT_EQ(all.changed, zoo_entries);
    EXPECT_EQ(all.changed, all.lines.size());
    EXPECT_EQ(all.lines[0], (Line{QFI_REMARK_WARNING, to, "", "would be made"}));
    EXPECT_EQ(told_of("plain").lines, (std::vector<Line>{{QFI_REMARK_WARNING, to + "/plain", "", "would be made"}}));
    const std::vector<Line> deeper = told_of("sub/deeper").lines;
    ASSERT_GE(deeper.size(), 2u);
    EXPECT_EQ(deeper[0], (Line{QFI_REMARK_WARNING, to, "", "would be made"}));
    EXPECT_EQ(deeper[1].path, "other name");
    EXPECT_FALSE(fs::exists(to));
    const char *const paths[] = {to.c_str()};
    ASSERT_EQ(qfi_op_set_restorepaths(tree.get(), paths, 1), 0);
    options.to = nullptr;
    EXPECT_EQ(told_of(nullptr).lines, all.lines);
    write_file(to, "in the way");
    options.to = to.c_str();
    EXPECT_EQ(qfi_op_restore(tree.get(), &options, nullptr), QFI_FI_EXISTS);
}

TEST_P(Restore, of_an_image_that_was_removed_meanwhile_says_so) {
    const Tree tree = freeze({object}, store);
    const std::string id = tree.image_id();
    ASSERT_EQ(in_child([&] {
                  Tree again = Tree::of_image(id, store);
                  EXPECT_EQ(qfi_op_detach(again.get(), nullptr, QFI_DETACH_REMOVE, nullptr), 0);
                  *&again = nullptr;
              }),
              0);
    write_file(object / "plain", "mine");
    EXPECT_EQ(restore(tree), QFI_FI_NO_SUCH_IMAGE);
    EXPECT_EQ(last_error(), "qzfi_restore: no known store has image " + id + "\n");
    EXPECT_EQ(content_of(object / "plain"), "mine");
}

} // namespace
} // namespace images
