// Exports to file systems, and imports into stores, that cannot keep all that an image has.
#include "images_support.h"

#include <algorithm>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include <qzfi_provider.h>

namespace images {
namespace {

void set_time(const fs::path &path, long nanoseconds) {
    const timespec times[2] = {{1000000000, 0}, {1000000000, nanoseconds}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

class Unkept : public Images {
protected:
    void SetUp() override {
        Images::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        fs::remove_all(object);
        fs::create_directories(object / "sub");
        write_file(object / "plain", "plain content");
        write_file(object / "sub" / "file", "content");
    }
    // Modification times that every file system keeps, but for those of these entries.
    void set_times(const std::vector<fs::path> &odd) const {
        for (const char *const name : {"plain", "sub/file", "sub", ""})
            set_time(object / name, std::count(odd.begin(), odd.end(), name) != 0 ? 5 : 0);
    }
    static std::string missing(std::initializer_list<const char *> types) {
        for (const char *const type : types)
            if (const auto obstacle = LoopFilesystem::obstacle(type))
                return *obstacle;
        return {};
    }
    static std::set<std::string> names_in(const fs::path &folder) {
        std::set<std::string> names;
        for (const fs::directory_entry &entry : fs::directory_iterator(folder))
            names.insert(entry.path().filename());
        return names;
    }
    static void expect_sound(const Tree &tree) {
        EXPECT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_VERIFY, nullptr, nullptr), 0) << last_error();
    }
    static Report report_of(const Tree &tree) {
        qfi_report *report = nullptr;
        EXPECT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_REPORT, nullptr, &report), 0) << last_error();
        return Report(report);
    }
    std::string not_kept(const std::string &operation, const std::string &id, const fs::path &path,
                         const std::string &cause, int count) const {
        return operation + ": image " + id + " stays where it is: " + path.string() +
               " would not be kept in the new place: " + cause + "; items not kept: " + std::to_string(count) + "\n";
    }
};
INSTANTIATE_TEST_SUITE_P(On, Unkept, testing::Values("copy", "ext4", "xfs", "btrfs"), name_of);

TEST_P(Unkept, times_refuse_an_export_and_leave_the_image_in_its_store) {
    if (const std::string obstacle = missing({"ext4"}); !obstacle.empty())
        GTEST_SKIP() << obstacle;
    const LoopFilesystem coarse("ext4", 64, "", {"-I", "128"});
    set_times({"sub/file", "sub"});
    Tree tree = freeze({object}, store);
    const fs::path exported = fs::path(coarse.path()) / "exported";
    for (int tries = 0; tries < 2; ++tries) {
        EXPECT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), nullptr), QFI_STATUS_NOT_SUPPORTED);
        EXPECT_EQ(last_error(),
                  not_kept("qzfi_deport_tree", tree.image_id(), object / "sub" / "file", "attribute \"times\"", 2));
        EXPECT_EQ(names_in(coarse.path()), std::set<std::string>{"lost+found"});
        expect_sound(tree);
        EXPECT_EQ(differences(object, tree.image_path()), "");
    }
    set_times({});
    tree = freeze({object}, store);
    EXPECT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), nullptr), 0) << last_error();
}

TEST_P(Unkept, entries_refuse_an_export_and_one_of_them_is_named_before_attributes) {
    if (const std::string obstacle = missing({"exfat"}); !obstacle.empty())
        GTEST_SKIP() << obstacle;
    const LoopFilesystem poor("exfat", 64);
    const auto refused = [&](const Tree &tree, const fs::path &path, const std::string &cause, int count) {
        const std::set<std::string> before = names_in(poor.path());
        EXPECT_EQ(qfi_op_deport_tree(tree.get(), (fs::path(poor.path()) / "exported").c_str(), nullptr),
                  QFI_STATUS_NOT_SUPPORTED);
        EXPECT_EQ(last_error(), not_kept("qzfi_deport_tree", tree.image_id(), path, cause, count));
        EXPECT_EQ(names_in(poor.path()), before);
        expect_sound(tree);
    };
    fs::permissions(object, fs::perms::owner_all);
    fs::permissions(object / "sub", fs::perms::owner_all);
    fs::permissions(object / "sub" / "file", fs::perms::owner_all);
    fs::permissions(object / "plain", fs::perms{0600});
    set_times({});
    refused(freeze({object}, store, "copy"), object / "plain", "attribute \"mode\"", 1);
    fs::create_symlink("plain", object / "link");
    set_times({});
    refused(freeze({object}, store, "copy"), object / "link",
            "symbolic links cannot be made there: Function not implemented (38)", 2);
    fs::remove(object / "link");
    fs::create_directory(object / "sub" / "FILE");
    set_times({});
    const Tree tree = freeze({object}, store, "copy");
    EXPECT_EQ(qfi_op_deport_tree(tree.get(), (fs::path(poor.path()) / "exported").c_str(), nullptr),
              QFI_STATUS_NOT_SUPPORTED);
    EXPECT_NE(last_error().find("listed twice, or differs in case only: the first is kept: File exists (17)"),
              std::string::npos);
    expect_sound(tree);
}

TEST_P(Unkept, of_one_image_keeps_the_whole_set_in_its_stores) {
    if (const std::string obstacle = missing({"ext4"}); !obstacle.empty())
        GTEST_SKIP() << obstacle;
    const LoopFilesystem coarse("ext4", 64, "", {"-I", "128"});
    const fs::path other = fs::path(coarse.path()) / "other";
    fs::create_directory(other);
    write_file(other / "file", "moved by renaming");
    set_times({"plain"});
    Tree tree({other, object});
    ASSERT_EQ(qfi_op_select(tree.get(), nullptr, "copy", nullptr), 0) << last_error();
    ASSERT_EQ(qfi_op_make(tree.get(), nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(qfi_op_deport_tree(tree.get(), (fs::path(coarse.path()) / "exported").c_str(), nullptr),
              QFI_STATUS_NOT_SUPPORTED);
    EXPECT_FALSE(fs::exists(fs::path(coarse.path()) / "exported"));
    expect_sound(tree);
    EXPECT_EQ(qfi_op_detach(tree.release(), nullptr, QFI_DETACH_REMOVE, nullptr), 0) << last_error();
}

TEST_P(Unkept, a_socket_is_no_reason_to_refuse_an_export_and_is_in_its_report) {
    if (const std::string obstacle = missing({"ext4"}); !obstacle.empty())
        GTEST_SKIP() << obstacle;
    const LoopFilesystem other("ext4", 64);
    ASSERT_EQ(mknod((object / "sub" / "socket").c_str(), S_IFSOCK | 0600, 0), 0);
    Tree tree = freeze({object}, store, nullptr, false);
    const fs::path exported = fs::path(other.path()) / "exported";
    qfi_fiid *fiid = nullptr;
    ASSERT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), &fiid), 0) << last_error();
    EXPECT_NE(std::string(fiid->document).find("remarks=\"1\""), std::string::npos) << fiid->document;
    qfi_op_free_fiid(fiid);
    tree = Tree();
    ASSERT_EQ(qfi_op_import_tree(exported.c_str(), store.c_str(), nullptr, &tree), 0) << last_error();
    EXPECT_EQ(remarks_of(tree), 1u);
    EXPECT_EQ(report_of(tree).lines, (std::vector<Line>{{QFI_REMARK_SKIPPED, object, "sub/socket", "a socket"}}));
}

} // namespace
} // namespace images
