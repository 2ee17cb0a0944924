// Exports to file systems, and imports into stores, that cannot keep all that an image has.
#include "images_support.h"

#include <algorithm>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <sys/sysmacros.h>
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

class UnkeptImport : public Unkept {
protected:
    // Gives the image's id.
    std::string export_one() {
        const Tree tree = freeze({object}, store, "copy");
        std::string id = tree.image_id();
        EXPECT_EQ(qfi_op_deport_tree(tree.get(), exported().c_str(), nullptr), 0) << last_error();
        return id;
    }
    void import(const fs::path &into, Tree &tree, bool verify) const {
        qfi_import_options options;
        QFI_INIT(options);
        options.verify = verify ? 1 : 0;
        ASSERT_EQ(qfi_op_set_import_options(&options, nullptr, 0, nullptr), 0);
        ASSERT_EQ(qfi_op_import_tree(exported().c_str(), into.c_str(), nullptr, &tree), 0) << last_error();
    }
    fs::path exported() const { return top / "exported"; }
    Line stays() const {
        return {QFI_REMARK_WARNING, exported(), "",
                "imported, but this folder stays: it has attributes that the store does not keep"};
    }
};
INSTANTIATE_TEST_SUITE_P(On, UnkeptImport, testing::Values("copy", "ext4", "xfs", "btrfs"), name_of);

TEST_P(UnkeptImport, of_times_is_remarked_and_keeps_the_exported_folder) {
    if (const std::string obstacle = missing({"ext4"}); !obstacle.empty())
        GTEST_SKIP() << obstacle;
    const LoopFilesystem coarse("ext4", 64, "", {"-I", "128"});
    set_times({"sub/file", "sub"});
    const std::string id = export_one();
    const std::string before = run({"find", exported(), "-printf", "%P %s %T@\\n"});
    const fs::path into = fs::path(coarse.path()) / "store";
    {
        Tree tree;
        import(into, tree, true);
        EXPECT_EQ(remarks_of(tree), 2u);
        EXPECT_EQ(report_of(tree).lines, (std::vector<Line>{stays(),
                                                            {QFI_REMARK_ATTRIBUTE, object, "sub", "times"},
                                                            {QFI_REMARK_ATTRIBUTE, object, "sub/file", "times"}}));
        EXPECT_EQ(run({"find", exported(), "-printf", "%P %s %T@\\n"}), before);
        expect_sound(tree);
    }
    const Tree tree = Tree::of_image(id, into);
    EXPECT_EQ(remarks_of(tree), 2u);
    EXPECT_EQ(report_of(tree).lines.size(), 2u);
    EXPECT_NE(content_of(into / "images" / id / "fiid.xml").find("remarks=\"2\""), std::string::npos);
    // What the report does not tell of is damage, as is more than it tells of.
    const fs::path image = tree.image_path();
    set_time(image / "plain", 0);
    EXPECT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_VERIFY, nullptr, nullptr), 0) << last_error();
    fs::permissions(image / "plain", fs::perms{0711});
    write_file(image / "sub" / "file", "CONTENT");
    set_time(image / "sub" / "file", 0);
    qfi_report *report = nullptr;
    EXPECT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_VERIFY, nullptr, &report), QFI_FI_DAMAGED);
    EXPECT_EQ(Report(report).lines, (std::vector<Line>{{QFI_REMARK_WARNING, object, "plain", "other owner or mode"},
                                                       {QFI_REMARK_WARNING, object, "sub/file", "other content"}}));
}

TEST_P(UnkeptImport, of_an_image_with_a_socket_in_its_manifest_is_whole) {
    ASSERT_EQ(mknod((object / "sub" / "socket").c_str(), S_IFSOCK | 0600, 0), 0);
    Tree tree = freeze({object}, store); // a snapshot has the socket, a copy has not
    expect_sound(tree);
    ASSERT_EQ(qfi_op_deport_tree(tree.get(), exported().c_str(), nullptr), 0) << last_error();
    tree = Tree();
    import(store, tree, true);
    EXPECT_FALSE(fs::exists(exported())) << "no copy has a socket, so there is nothing to keep it for";
    EXPECT_EQ(report_of(tree).lines, (std::vector<Line>{{QFI_REMARK_SKIPPED, object, "sub/socket", "a socket"}}));
    expect_sound(tree);
    fs::remove(fs::path(tree.image_path()) / "plain");
    write_file(fs::path(tree.image_path()) / "sub" / "socket", "a file");
    qfi_report *report = nullptr;
    EXPECT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_VERIFY, nullptr, &report), QFI_FI_DAMAGED);
    EXPECT_EQ(Report(report).lines,
              (std::vector<Line>{{QFI_REMARK_WARNING, object, "plain", "missing"},
                                 {QFI_REMARK_WARNING, object, "sub/socket", "not in the manifest"}}));
}

TEST_P(Unkept, a_copy_in_a_store_that_keeps_less_is_no_damage) {
    if (const std::string obstacle = missing({"ext4"}); !obstacle.empty())
        GTEST_SKIP() << obstacle;
    const LoopFilesystem coarse("ext4", 64, "", {"-I", "128"});
    set_times({"sub/file"});
    const Tree tree = freeze({object}, fs::path(coarse.path()) / "store", "copy");
    EXPECT_EQ(report_of(tree).lines, (std::vector<Line>{{QFI_REMARK_ATTRIBUTE, object, "sub/file", "times"}}));
    expect_sound(tree);
}

TEST_P(UnkeptImport, of_owners_by_a_user_without_root_is_remarked_and_keeps_the_exported_folder) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give files away";
    constexpr uid_t user = 4321;
    run({"chown", "-R", "4321:4321", object});
    ASSERT_EQ(chown((object / "plain").c_str(), 77, 78), 0);
    fs::permissions(object / "plain", fs::perms{04755});
    const std::string id = export_one();
    run({"chown", "-R", "4321:4321", exported()});
    ASSERT_EQ(chown((exported() / id / "objects" / "0" / "plain").c_str(), 77, 78), 0);
    fs::permissions(exported() / id / "objects" / "0" / "plain", fs::perms{04755});
    fs::permissions(top, fs::perms{0777});
    stop();
    EXPECT_EQ(in_child([&] {
                  ASSERT_EQ(setgid(user), 0);
                  ASSERT_EQ(setuid(user), 0);
                  const Framework framework(top / "own root");
                  Tree tree;
                  import(top / "own store", tree, true);
                  expect_sound(tree);
                  EXPECT_EQ(report_of(tree).lines,
                            (std::vector<Line>{stays(), {QFI_REMARK_ATTRIBUTE, object, "plain", "owner"}}));
                  EXPECT_TRUE(fs::exists(exported() / id / "objects" / "0" / "plain"));
                  EXPECT_EQ(content_of(fs::path(tree.image_path()) / "plain"), "plain content");
                  EXPECT_EQ(fs::status(fs::path(tree.image_path()) / "plain").permissions(), fs::perms{0755});
              }),
              0);
    start();
}

TEST_P(UnkeptImport, of_device_nodes_by_a_user_without_root_is_refused) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can make device nodes";
    constexpr uid_t user = 4321;
    ASSERT_EQ(mknod((object / "node").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
    const std::string id = export_one();
    run({"chown", "-R", "4321:4321", exported()});
    fs::permissions(top, fs::perms{0777});
    stop();
    EXPECT_EQ(in_child([&] {
                  ASSERT_EQ(setgid(user), 0);
                  ASSERT_EQ(setuid(user), 0);
                  const Framework framework(top / "own root");
                  EXPECT_EQ(qfi_op_import_tree(exported().c_str(), (top / "own store").c_str(), nullptr, nullptr),
                            QFI_STATUS_NOT_SUPPORTED);
                  EXPECT_EQ(last_error(),
                            not_kept("qzfi_import_tree", id, object / "node",
                                     "device nodes cannot be made there: Operation not permitted (1)", 1));
                  EXPECT_TRUE(fs::is_empty(top / "own store" / "images"));
              }),
              0);
    EXPECT_TRUE(fs::exists(exported() / id / "objects" / "0" / "node"));
    start();
}

TEST_P(UnkeptImport, of_a_damaged_report_does_not_make_it_look_whole) {
    if (const std::string obstacle = missing({"ext4"}); !obstacle.empty())
        GTEST_SKIP() << obstacle;
    const LoopFilesystem coarse("ext4", 64, "", {"-I", "128"});
    set_times({"plain"});
    const std::string id = export_one();
    write_file(exported() / id / "report", "no report");
    Tree tree;
    import(fs::path(coarse.path()) / "store", tree, false);
    EXPECT_EQ(remarks_of(tree), 2u) << "one that is not known, and one on the times";
    EXPECT_EQ(qfi_op_restore(tree.get(), nullptr, nullptr), QFI_STATUS_NOT_SUPPORTED);
    EXPECT_NE(last_error().find("what was unreadable when image " + id + " was made is not all known"),
              std::string::npos);
}

} // namespace
} // namespace images
