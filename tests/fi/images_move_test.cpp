// Exporting images and importing them, also from folders that somebody tampered with.
#include "images_support.h"

#include <algorithm>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <qzfi_provider.h>

namespace images {
namespace {

class Move : public Images {
protected:
    void SetUp() override {
        Images::SetUp();
        exported = top / "exported";
    }
    // An exported image and the id that it has.
    std::string export_one(const char *method = "copy") {
        Tree tree = freeze({object}, store, method);
        const std::string id = tree.image_id();
        EXPECT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), nullptr), 0) << last_error();
        return id;
    }
    int32_t import(qfi_domain **tree = nullptr) {
        return qfi_op_import_tree(exported.c_str(), store.c_str(), nullptr, tree);
    }
    void set_options(uint32_t verify, uint32_t keep_source) {
        qfi_import_options options;
        QFI_INIT(options);
        options.verify = verify;
        options.keep_source = keep_source;
        EXPECT_EQ(qfi_op_set_import_options(&options, nullptr, 0, nullptr), 0);
    }
    void edit_document(const std::string &from, const std::string &to) {
        std::string document = content_of(exported / "fiid.xml");
        const std::size_t at = document.find(from);
        ASSERT_NE(at, std::string::npos) << document;
        write_file(exported / "fiid.xml", document.replace(at, from.size(), to));
    }
    void expect_nothing_imported() {
        qfi_image_list *list = nullptr;
        EXPECT_EQ(qfi_op_snapreplica_list(nullptr, store.c_str(), &list), 0);
        EXPECT_EQ(list, nullptr);
        qfi_op_free_snapreplica_list(list);
    }
    fs::path exported;
};
INSTANTIATE_TEST_SUITE_P(On, Move, testing::Values("copy", "ext4", "xfs", "btrfs"), name_of);

TEST_P(Move, an_image_out_of_its_store_and_in_again) {
    const std::string id = export_one(nullptr);
    expect_nothing_imported();
    EXPECT_TRUE(fs::exists(exported / id / "objects" / "0"));
    int32_t imported = 2;
    EXPECT_EQ(qfi_op_is_snap_imported(id.c_str(), &imported), 0);
    EXPECT_EQ(imported, 0);
    set_options(1, 0);
    Tree tree;
    ASSERT_EQ(import(&tree), 0) << last_error();
    EXPECT_FALSE(fs::exists(exported));
    EXPECT_EQ(tree.image_id(), id);
    EXPECT_EQ(differences(object, tree.image_path()), "");
    EXPECT_EQ(qfi_op_is_snap_imported(id.c_str(), &imported), 0);
    EXPECT_EQ(imported, 1);
    EXPECT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_VERIFY, nullptr, nullptr), 0) << last_error();
    write_file(object / "plain", "changed");
    ASSERT_EQ(qfi_op_restore(tree.get(), nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(content_of(object / "plain"), "plain content");
}

// A folder takes in nothing that is of another project than its own, when it passes that one on.
class Projects : public Move {
protected:
    static void put_into(const fs::path &folder, uint32_t project, bool passes_it_on = true) {
        fs::create_directories(folder);
        const int directory = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        fsxattr attributes{};
        ASSERT_EQ(ioctl(directory, FS_IOC_FSGETXATTR, &attributes), 0);
        attributes.fsx_projid = project;
        attributes.fsx_xflags &= ~uint32_t{FS_XFLAG_PROJINHERIT};
        attributes.fsx_xflags |= passes_it_on ? FS_XFLAG_PROJINHERIT : 0;
        ASSERT_EQ(ioctl(directory, FS_IOC_FSSETXATTR, &attributes), 0);
        close(directory);
    }
    static ino_t inode_of(const fs::path &path) {
        struct stat status {};
        EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
        return status.st_ino;
    }
    // Exports an image into a folder below `above`, and imports it again; whether it was moved there.
    bool is_moved_to(const fs::path &above) {
        exported = above / "exported";
        Tree tree = freeze({object}, store);
        const std::string id = tree.image_id();
        const ino_t inode = inode_of(store / "images" / id);
        EXPECT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), nullptr), 0) << last_error();
        expect_nothing_imported();
        const bool is_moved = inode_of(exported / id) == inode;
        EXPECT_EQ(std::distance(fs::directory_iterator(exported), {}), 2) << "the document and the image";
        EXPECT_EQ(differences(object, exported / id / "objects" / "0"), "");
        EXPECT_TRUE(fs::is_empty(store / "images"));
        set_options(1, 0);
        Tree imported;
        EXPECT_EQ(import(&imported), 0) << last_error();
        EXPECT_EQ(qfi_op_detach(imported.release(), nullptr, QFI_DETACH_REMOVE, nullptr), 0) << last_error();
        return is_moved;
    }
};
INSTANTIATE_TEST_SUITE_P(On, Projects, testing::Values("xfs"), name_of);

TEST_P(Projects, take_in_exported_images_of_others_as_copies) {
    put_into(top / "seven", 7);
    EXPECT_FALSE(is_moved_to(top / "seven"));
    EXPECT_TRUE(is_moved_to(top));
    put_into(store / "images", 5);
    EXPECT_FALSE(is_moved_to(top / "seven"));
    EXPECT_TRUE(is_moved_to(top)) << "which passes none on";
    put_into(store / "images", 7);
    EXPECT_TRUE(is_moved_to(top / "seven"));
    // An image from before its store was taken out of a project.
    put_into(store / "images", 5);
    const Tree tree = freeze({object}, store);
    put_into(store / "images", 0, false);
    put_into(top / "none", 0);
    exported = top / "none" / "exported";
    EXPECT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), nullptr), 0) << last_error();
    EXPECT_TRUE(fs::is_empty(store / "images"));
}

TEST_P(Move, an_image_to_another_file_system_and_back) {
    if (const auto obstacle = LoopFilesystem::obstacle("ext4"))
        GTEST_SKIP() << *obstacle;
    const LoopFilesystem other("ext4", 64);
    exported = fs::path(other.path()) / "exported";
    const std::string id = export_one(nullptr);
    expect_nothing_imported();
    EXPECT_EQ(differences(object, exported / id / "objects" / "0"), "");
    set_options(1, 1);
    Tree tree;
    ASSERT_EQ(import(&tree), 0) << last_error();
    EXPECT_TRUE(fs::exists(exported / "fiid.xml"));
    EXPECT_EQ(differences(object, tree.image_path()), "");
    EXPECT_EQ(import(), QFI_FI_EXISTS);
    EXPECT_EQ(last_error(), "qzfi_import_tree: " + (store / "images" / id).string() + " exists already\n");
    // A complete export of the same image is none that was cut short.
    EXPECT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), nullptr), QFI_FI_EXISTS);
    EXPECT_EQ(last_error(), "qzfi_deport_tree: " + exported.string() + " exists already\n");
    EXPECT_EQ(differences(object, tree.image_path()), "");
}

TEST_P(Move, an_export_that_was_cut_short_is_completed_in_a_folder_that_nobody_else_can_have_filled) {
    const Tree tree = freeze({object}, store, "copy");
    const std::string id = tree.image_id();
    qfi_fiid *fiid = nullptr;
    ASSERT_EQ(qfi_op_get_fiid(tree.get(), &fiid), 0) << last_error();
    fs::create_directory(exported);
    write_file(exported / "fiid.xml", std::string(fiid->document, fiid->length));
    qfi_op_free_fiid(fiid);
    const auto refused = [&] {
        EXPECT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), nullptr), QFI_FI_EXISTS);
        EXPECT_EQ(last_error(), "qzfi_deport_tree: " + exported.string() + " exists already\n");
        EXPECT_FALSE(fs::exists(exported / id));
        EXPECT_EQ(differences(object, tree.image_path()), "");
    };
    for (const mode_t mode : {mode_t{0770}, mode_t{0707}}) {
        ASSERT_EQ(chmod(exported.c_str(), mode), 0);
        refused();
    }
    ASSERT_EQ(chmod(exported.c_str(), 0700), 0);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(exported.c_str(), 1, 1), 0);
        refused();
        ASSERT_EQ(chown(exported.c_str(), 0, 0), 0);
    }
    ASSERT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), nullptr), 0) << last_error();
    EXPECT_EQ(differences(object, exported / id / "objects" / "0"), "");
    expect_nothing_imported();
}

TEST_P(Move, options_last_until_the_shutdown) {
    export_one();
    set_options(0, 1);
    stop();
    start();
    ASSERT_EQ(import(), 0) << last_error();
    EXPECT_FALSE(fs::exists(exported));
}

TEST_P(Move, exports_the_document_that_it_gives) {
    Tree tree = freeze({object}, store);
    qfi_fiid *fiid = nullptr;
    ASSERT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), &fiid), 0) << last_error();
    EXPECT_EQ(content_of(exported / "fiid.xml"), std::string(fiid->document, fiid->length));
    EXPECT_EQ(qfi_op_deport_tree(tree.get(), (top / "again").c_str(), nullptr), QFI_FI_WRONG_STATE);
    int32_t results[1] = {0};
    ASSERT_EQ(qfi_op_process_fiids(1, 0, &fiid, results, store.c_str()), 0);
    EXPECT_EQ(results[0], QFI_FI_NO_SUCH_IMAGE);
    ASSERT_EQ(qfi_op_import_tree(exported.c_str(), store.c_str(), fiid, nullptr), 0) << last_error();
    ASSERT_EQ(qfi_op_process_fiids(1, 0, &fiid, results, store.c_str()), 0);
    EXPECT_EQ(results[0], 0);
    qfi_op_free_fiid(fiid);
}

TEST_P(Move, imports_only_what_is_expected) {
    Tree other = freeze({object}, store, "copy");
    qfi_fiid *fiid = nullptr;
    ASSERT_EQ(qfi_op_get_fiid(other.get(), &fiid), 0);
    export_one();
    EXPECT_EQ(qfi_op_import_tree(exported.c_str(), store.c_str(), fiid, nullptr), QFI_FI_BAD_FIID);
    EXPECT_EQ(last_error(), "qzfi_import_tree: not a valid id document: the images in " + exported.string() +
                                " are not those that were expected\n");
    qfi_op_free_fiid(fiid);
}

TEST_P(Move, exports_into_no_folder_that_is_there_and_not_into_a_store) {
    Tree tree = freeze({object}, store);
    fs::create_directory(exported);
    write_file(exported / "mine", "keep me");
    EXPECT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), nullptr), QFI_FI_EXISTS);
    EXPECT_EQ(qfi_op_deport_tree(tree.get(), (store / "images" / "new").c_str(), nullptr), QFI_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(tree.image_id().size(), 25u); // still there
}

TEST_P(Move, refuses_a_folder_without_a_document) {
    export_one();
    fs::remove(exported / "fiid.xml");
    EXPECT_EQ(import(), QFI_FI_BAD_FIID);
    EXPECT_EQ(last_error(), "qzfi_import_tree: not a valid id document: " + exported.string() + " holds no fiid.xml\n");
    write_file(exported / "fiid.xml",
               "<?xml version=\"1.0\"?><!DOCTYPE a [<!ENTITY b SYSTEM \"/etc/passwd\">]><a>&b;</a>");
    EXPECT_EQ(import(), QFI_FI_BAD_FIID);
    fs::remove(exported / "fiid.xml");
    fs::create_symlink("/etc/passwd", exported / "fiid.xml");
    EXPECT_EQ(import(), QFI_FI_UNSAFE);
    expect_nothing_imported();
}

TEST_P(Move, refuses_ids_that_lead_elsewhere) {
    const std::string id = export_one();
    edit_document(id, "../../../etc");
    EXPECT_EQ(import(), QFI_FI_BAD_FIID);
    expect_nothing_imported();
}

TEST_P(Move, an_image_whose_document_leads_into_a_store_is_not_restored_there) {
    const Tree victim = freeze({object}, store, "copy");
    const std::string kept = victim.image_path();
    export_one();
    edit_document("path=\"" + object.string() + "\"", "path=\"" + kept + "\"");
    Tree tree;
    ASSERT_EQ(import(&tree), 0) << last_error();
    fs::remove(fs::path(kept) / "plain");
    EXPECT_EQ(qfi_op_restore(tree.get(), nullptr, nullptr), QFI_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(last_error(), "qzfi_restore: invalid argument: nothing is restored into a store\n");
    EXPECT_EQ(qfi_op_resync(tree.get(), nullptr, nullptr), QFI_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(last_error(), "qzfi_resync: invalid argument: nothing is restored into a store\n");
    EXPECT_FALSE(fs::exists(fs::path(kept) / "plain"));
}

TEST_P(Move, a_document_that_counts_no_remarks_hides_no_loss) {
    write_file(object / "lost", "nowhere else");
    const std::string id = export_one();
    const auto lose = [&](const fs::path &image) {
        write_file(image / "report", "qzfi-report 1\n" + std::to_string(QFI_REMARK_UNREADABLE) + " 13 " +
                                         object.string() + " lost open\nend 1\n");
    };
    lose(exported / id);
    fs::remove(exported / id / "objects" / "0" / "lost");
    Tree tree;
    ASSERT_EQ(import(&tree), 0) << last_error();
    EXPECT_EQ(remarks_of(tree), 1u);
    const auto refused = [&](const Tree &image) {
        const std::string refusal = ": " + (object / "lost").string() + " would be lost: unreadable when image " +
                                    image.image_id() + " was made; move it away first\n";
        EXPECT_EQ(qfi_op_restore(image.get(), nullptr, nullptr), QFI_STATUS_NOT_SUPPORTED);
        EXPECT_EQ(last_error(), "qzfi_restore" + refusal);
        EXPECT_EQ(qfi_op_resync(image.get(), nullptr, nullptr), QFI_STATUS_NOT_SUPPORTED);
        EXPECT_EQ(last_error(), "qzfi_resync" + refusal);
    };
    refused(tree);
    // As one that was imported before the report was counted.
    const Tree earlier = freeze({object}, store, "copy");
    ASSERT_EQ(remarks_of(earlier), 0u);
    lose(store / "images" / earlier.image_id());
    refused(earlier);
    EXPECT_EQ(content_of(object / "lost"), "nowhere else");
}

TEST_P(Move, refuses_links_in_the_folder) {
    const std::string id = export_one();
    const fs::path objects = exported / id / "objects";
    fs::rename(objects / "0", top / "aside");
    fs::create_directory_symlink(top / "aside", objects / "0");
    EXPECT_EQ(import(), QFI_FI_UNSAFE);
    EXPECT_EQ(last_error(),
              "qzfi_import_tree: " + (objects / "0").string() + " leaves its place: it is a symbolic link\n");
    fs::remove(objects / "0");
    fs::rename(top / "aside", objects / "0");
    fs::rename(exported / id, top / "aside");
    fs::create_directory_symlink(top / "aside", exported / id);
    EXPECT_EQ(import(), QFI_FI_UNSAFE);
    fs::remove(exported / id);
    fs::rename(top / "aside", exported / id);
    fs::remove(exported / id / "manifest.0");
    fs::create_symlink("/etc/shadow", exported / id / "manifest.0");
    EXPECT_EQ(import(), QFI_FI_UNSAFE);
    expect_nothing_imported();
}

TEST_P(Move, refuses_a_folder_that_holds_more_or_less_than_its_document_says) {
    const std::string id = export_one();
    const fs::path objects = exported / id / "objects";
    const std::string start = "qzfi_import_tree: image " + id + " is damaged: ";
    fs::create_directory(objects / "1");
    EXPECT_EQ(import(), QFI_FI_DAMAGED);
    EXPECT_EQ(last_error(), start + objects.string() + ": it holds 2 objects, and the id document names 1\n");
    fs::remove(objects / "1");
    write_file(exported / id / "extra", "");
    EXPECT_EQ(import(), QFI_FI_DAMAGED);
    EXPECT_EQ(last_error(), start + (exported / id / "extra").string() + ": it does not belong there\n");
    fs::remove(exported / id / "extra");
    write_file(exported / "extra", "");
    EXPECT_EQ(import(), QFI_FI_DAMAGED);
    fs::remove(exported / "extra");
    fs::rename(objects / "0", objects / "00");
    EXPECT_EQ(import(), QFI_FI_DAMAGED);
    fs::rename(objects / "00", objects / "0");
    expect_nothing_imported();
    EXPECT_EQ(import(), 0) << last_error();
}

TEST_P(Move, verifies_what_it_imports_when_told_to) {
    const std::string id = export_one();
    const auto time = fs::last_write_time(exported / id / "objects" / "0" / "plain");
    write_file(exported / id / "objects" / "0" / "plain", "PLAIN CONTENT");
    fs::last_write_time(exported / id / "objects" / "0" / "plain", time);
    set_options(1, 0);
    EXPECT_EQ(import(), QFI_FI_DAMAGED);
    EXPECT_EQ(last_error(), "qzfi_import_tree: image " + id +
                                " is damaged: " + (exported / id / "objects" / "0" / "plain").string() +
                                ": it is not as its manifest says\n");
    expect_nothing_imported();
    set_options(0, 0);
    EXPECT_EQ(import(), 0) << last_error();
}

TEST_P(Move, verifying_misses_a_manifest_of_an_image_without_digests_too) {
    Tree tree = freeze({object}, store, "copy", false);
    const std::string id = tree.image_id();
    ASSERT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), nullptr), 0) << last_error();
    fs::remove(exported / id / "manifest.0");
    set_options(1, 0);
    EXPECT_EQ(import(), QFI_FI_DAMAGED);
    EXPECT_EQ(last_error(), "qzfi_import_tree: image " + id +
                                " is damaged: " + (exported / id / "manifest.0").string() + ": it is missing\n");
    expect_nothing_imported();
}

TEST_P(Move, of_an_image_that_is_read_is_busy) {
    Tree tree = freeze({object}, store, "copy");
    const int lock = open((store / "images" / tree.image_id() / "lock").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(lock, 0);
    ASSERT_EQ(flock(lock, LOCK_SH), 0);
    EXPECT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), nullptr), QFI_FI_BUSY);
    EXPECT_EQ(last_error(), "qzfi_deport_tree: " + tree.image_id() + " is in use by another operation\n");
    EXPECT_FALSE(fs::exists(exported));
    close(lock);
    EXPECT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), nullptr), 0) << last_error();
}

TEST_P(Move, of_an_image_that_is_read_is_busy_before_it_is_copied) {
    if (const auto obstacle = LoopFilesystem::obstacle("ext4"))
        GTEST_SKIP() << *obstacle;
    const LoopFilesystem other("ext4", 64);
    exported = fs::path(other.path()) / "exported";
    Tree tree = freeze({object}, store, "copy");
    const int lock = open((store / "images" / tree.image_id() / "lock").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(lock, 0);
    ASSERT_EQ(flock(lock, LOCK_SH), 0);
    for (int tries = 0; tries < 2; ++tries) {
        EXPECT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), nullptr), QFI_FI_BUSY);
        EXPECT_EQ(last_error(), "qzfi_deport_tree: " + tree.image_id() + " is in use by another operation\n");
        EXPECT_FALSE(fs::exists(exported));
    }
    close(lock);
    EXPECT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), nullptr), 0) << last_error();
    expect_nothing_imported();
}

TEST_P(Move, an_image_whose_files_are_missing_is_damaged) {
    const Tree tree = freeze({object}, store, "copy");
    fs::rename(store / "images" / tree.image_id(), top / "aside");
    EXPECT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), nullptr), QFI_FI_DAMAGED);
    EXPECT_EQ(last_error(), "qzfi_deport_tree: image " + tree.image_id() + " is damaged: " +
                                (store / "images" / tree.image_id()).string() + ": No such file or directory (2)\n");
    EXPECT_FALSE(fs::exists(exported));
}

TEST_P(Move, an_imported_folder_that_cannot_be_removed_is_told_in_the_report) {
    if (const auto obstacle = LoopFilesystem::obstacle("ext4"))
        GTEST_SKIP() << *obstacle;
    LoopFilesystem other("ext4", 64);
    exported = fs::path(other.path()) / "exported";
    export_one(nullptr);
    other.remount(true);
    Tree tree;
    ASSERT_EQ(import(&tree), 0) << last_error();
    EXPECT_EQ(differences(object, tree.image_path()), "");
    qfi_report *given = nullptr;
    ASSERT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_REPORT, nullptr, &given), 0) << last_error();
    const Report report(given);
    const Line expected{QFI_REMARK_WARNING, exported.string(), "",
                        "imported, but this folder could not be removed: remove it"};
    EXPECT_EQ(std::count(report.lines.begin(), report.lines.end(), expected), 1);
    EXPECT_GE(report.count, report.lines.size());
}

TEST_P(Move, refuses_a_report_that_is_too_large_to_be_read) {
    const std::string id = export_one();
    const fs::path report = exported / id / "report";
    fs::resize_file(report, (64 << 20) + 1);
    EXPECT_EQ(import(), QFI_FI_DAMAGED);
    EXPECT_EQ(last_error(),
              "qzfi_import_tree: image " + id + " is damaged: " + report.string() + ": it is larger than 64 MiB\n");
    expect_nothing_imported();
}

TEST_P(Move, a_report_that_grew_in_its_store_is_damaged) {
    const Tree tree = freeze({object}, store, "copy");
    fs::resize_file(store / "images" / tree.image_id() / "report", (64 << 20) + 1);
    qfi_report *given = nullptr;
    EXPECT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_REPORT, nullptr, &given), QFI_FI_DAMAGED);
    EXPECT_EQ(last_error(),
              "qzfi_objctl: image " + tree.image_id() + " is damaged: report: it is larger than 64 MiB\n");
    qfi_op_free_report(given);
}

TEST_P(Move, a_manifest_with_a_hole_takes_no_more_space_than_it_had) {
    const std::string id = export_one();
    fs::resize_file(exported / id / "manifest.0", uint64_t{1} << 31);
    ASSERT_EQ(import(), 0) << last_error();
    struct stat status {};
    ASSERT_EQ(stat((store / "images" / id / "manifest.0").c_str(), &status), 0);
    EXPECT_EQ(status.st_size, int64_t{1} << 31);
    EXPECT_LT(status.st_blocks * 512, 1 << 20);
}

TEST_P(Move, nothing_comes_into_a_store_within_the_folder_that_is_to_be_removed) {
    const std::string id = export_one();
    fs::create_directory_symlink(exported, top / "link");
    for (const fs::path &inner :
         {exported, exported / "st", exported / "new" / "st", exported / id / "objects" / "0", top / "link" / "st"}) {
        EXPECT_EQ(qfi_op_import_tree(exported.c_str(), inner.c_str(), nullptr, nullptr), QFI_STATUS_INVALID_ARGUMENT);
        EXPECT_EQ(last_error(), "qzfi_import_tree: invalid argument: nothing is imported from a folder that a store "
                                "lies in\n")
            << inner;
        EXPECT_FALSE(fs::exists(inner / "catalog.db")) << inner;
    }
    ASSERT_EQ(import(), 0) << last_error();
    EXPECT_FALSE(fs::exists(exported));
}

// As one that was killed before it took the image out of the store, and somebody who began to remove the folder, leave
// it.
TEST_P(Move, an_export_is_only_completed_from_what_is_whole) {
    if (std::string(GetParam()) == "copy")
        GTEST_SKIP() << "on one file system nothing is copied";
    exported = fs::path(testing::TempDir()) / ("qzfi-export-" + std::to_string(getpid()));
    const std::string id = export_one();
    const fs::path whole = top / "whole";
    keep(exported, whole);
    const auto unfinished = [&] {
        fs::remove_all(exported);
        keep(whole, exported);
        write_file(exported / "unfinished", "");
        run({"chmod", "700", exported});
    };
    ASSERT_EQ(import(), 0) << last_error();
    const fs::path object_copy = exported / id / "objects" / "0";
    for (const std::function<void()> &spoil : std::initializer_list<std::function<void()>>{
             [&] { fs::remove(object_copy / "plain"); },
             [&] { fs::resize_file(object_copy / "plain", 3); },
             [&] { fs::remove_all(object_copy); },
             [&] { fs::remove_all(exported / id / "objects"); },
             [&] { fs::remove(exported / id / "manifest.0"); },
         }) {
        unfinished();
        spoil();
        const Tree tree = Tree::of_image(id, store);
        EXPECT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), nullptr), QFI_FI_EXISTS);
        EXPECT_TRUE(fs::exists(store / "images" / id / "objects" / "0" / "plain"));
    }
    unfinished();
    const Tree tree = Tree::of_image(id, store);
    EXPECT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), nullptr), 0) << last_error();
    EXPECT_FALSE(fs::exists(store / "images" / id));
    EXPECT_FALSE(fs::exists(exported / "unfinished"));
    ASSERT_EQ(import(), 0) << last_error();
    fs::remove_all(exported);
}

} // namespace
} // namespace images
