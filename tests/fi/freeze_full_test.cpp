// File systems that fill up in the middle of a freeze, with a certain room left.
#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <regex>
#include <set>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <qzfi_provider.h>

#include "full_disk.h"

namespace images {
namespace {

class Full : public FullDisk {
protected:
    void expect_no_host_to_end(int step);
    std::set<std::string> freeze_into_rooms(const fs::path &object, const std::string &post, int step) const;
};

// Freezes with more and more room left after the post command's guard was set up, until it is enough; gives the names
// of what met the end of the room, "data" for the object's own entries.
std::set<std::string> Full::freeze_into_rooms(const fs::path &object, const std::string &post, int step) const {
    const fs::path store = disk / "store", log = top / "log";
    const std::string earlier = freeze({object}, store, "copy").image_id();
    std::set<std::string> ends;
    bool is_through = false;
    for (int room = 0; !is_through && room < 4 << 20; room += step) {
        const Tree tree({object});
        EXPECT_EQ(qfi_op_config(tree.get(), "digest", 0, "1"), 0);
        EXPECT_EQ(qfi_op_config(tree.get(), "post_command", 0, post.c_str()), 0);
        EXPECT_EQ(qfi_op_select(tree.get(), nullptr, "copy", store.c_str()), 0) << last_error();
        EXPECT_EQ(qfi_op_prepare(tree.get(), 0, nullptr, nullptr), 0) << last_error();
        EXPECT_EQ(qfi_op_quiesce(tree.get()), 0) << last_error();
        leave(room);
        fs::remove(log);
        const int32_t status = qfi_op_split(tree.get(), nullptr, nullptr);
        const std::string text = last_error();
        EXPECT_EQ(qfi_op_unquiesce(tree.get()), 0) << last_error();
        EXPECT_EQ(post.empty() ? "post\n" : content_of(log), "post\n");
        is_through = status == 0;
        if (is_through) {
            EXPECT_EQ(remarks_of(tree), 0u) << "whole";
        } else {
            EXPECT_EQ(status, QFI_FI_NO_SPACE) << text;
            static const std::regex form("qzfi_split: no space left on the file system of (/.+)\n");
            std::smatch parts;
            EXPECT_TRUE(std::regex_match(text, parts, form)) << text;
            const std::string where = parts[1];
            EXPECT_NE(where.rfind(object.string(), 0), 0u) << where << " is only read";
            ends.insert(where.ends_with("/objects/0") ? "data" : where.substr(where.find_last_of("/ ") + 1));
            EXPECT_EQ(std::distance(fs::directory_iterator(store / "images"), {}), 1) << "nothing half-made";
            const Tree old = Tree::of_image(earlier, store);
            EXPECT_EQ(qfi_op_objctl(old.get(), QFI_OBJCTL_VERIFY, nullptr, nullptr), 0) << last_error();
        }
        make_room();
    }
    EXPECT_TRUE(is_through) << "with enough room it works again";
    const Tree old = Tree::of_image(earlier, store);
    EXPECT_EQ(differences(object, old.image_path()), "");
    return ends;
}

// Makes, lists and removes an image in a host of its own, with more and more room left, until that is enough.
void Full::expect_no_host_to_end(int step) {
    const fs::path store = disk / "store", object = top / "object";
    make_object(object, false);
    const std::string earlier = freeze({object}, store, "copy").image_id();
    framework_.reset(); // hosts in processes of their own have the framework to themselves
    int failures = 0, successes = 0;
    for (int room = 0; successes < 5 && room < 4 << 20; room += step) {
        leave(room);
        // In a process of its own, which is the first to open the catalog.
        const int code = in_child([&] {
            const Framework framework(top / "root");
            const Tree tree({object});
            qfi_freeze_options options;
            QFI_INIT(options);
            options.fim_id = "copy";
            options.store = store.c_str();
            const int32_t status = qfi_op_make(tree.get(), &options, nullptr);
            EXPECT_TRUE(status == 0 || status == QFI_FI_NO_SPACE) << last_error();
            qfi_image_list *list = nullptr;
            const int32_t listed = qfi_op_snapreplica_list(nullptr, store.c_str(), &list);
            EXPECT_TRUE(listed == 0 || listed == QFI_FI_NO_SPACE) << last_error();
            qfi_op_free_snapreplica_list(list);
            if (status == 0) {
                EXPECT_EQ(qfi_op_detach(Tree::of_image(tree.image_id(), store).release(), nullptr, QFI_DETACH_REMOVE,
                                        nullptr),
                          0)
                    << last_error();
            }
            fflush(stdout);
            _exit(HasFailure() ? 1 : status == 0 ? 10 : 11);
        });
        ASSERT_TRUE(code == 10 || code == 11) << "with room for " << room << " bytes: " << code;
        (code == 10 ? successes : failures) += 1;
        make_room();
    }
    EXPECT_GE(failures, 5);
    EXPECT_GE(successes, 5);
    framework_.emplace(top / "root");
    EXPECT_EQ(qfi_op_objctl(Tree::of_image(earlier, store).get(), QFI_OBJCTL_VERIFY, nullptr, nullptr), 0)
        << last_error();
}

TEST_F(Full, a_freeze_is_told_leaves_earlier_images_only_and_runs_the_post_command) {
    make_object(top / "object");
    const std::set<std::string> ends =
        freeze_into_rooms(top / "object", "echo post >>" + (top / "log").string(), 96 << 10);
    EXPECT_EQ(ends.count("data"), 1u);
}

TEST_F(Full, a_freeze_is_told_where_room_ended_behind_the_data) {
    make_object(top / "object", false);
    std::set<std::string> ends = freeze_into_rooms(top / "object", "", 4096);
    ends.erase("data");
    EXPECT_GE(ends.size(), 2u) << "id document, catalog and so on";
    for (const std::string &end : ends)
        printf("room ended at %s\n", end.c_str());
}

// A page of memory that is mapped from a file has blocks of which each may be missing.
class SmallBlocks : public Full {
protected:
    unsigned megabytes() const override { return 24; }
    void SetUp() override {
        Full::SetUp();
        if (IsSkipped())
            return;
        struct statvfs status {};
        ASSERT_EQ(statvfs(disk.c_str(), &status), 0);
        ASSERT_EQ(status.f_bsize, 1024u);
    }
};

TEST_F(SmallBlocks, a_freeze_is_told_wherever_room_ended) {
    make_object(top / "object", false);
    std::set<std::string> ends = freeze_into_rooms(top / "object", "", 1024);
    ends.erase("data");
    EXPECT_GE(ends.size(), 2u) << "id document, catalog and so on";
    for (const std::string &end : ends)
        printf("room ended at %s\n", end.c_str());
}

// Each in a block of its own, for no two are the same.
TEST_F(SmallBlocks, a_freeze_is_told_where_room_ended_in_attributes) {
    const fs::path object = top / "object";
    fs::create_directory(object);
    for (int each = 0; each < 200; ++each) {
        const fs::path file = object / std::to_string(each);
        const std::string value = std::to_string(each) + std::string(800, 'v');
        write_file(file, "");
        ASSERT_EQ(setxattr(file.c_str(), "user.some", value.data(), value.size(), 0), 0) << errno;
    }
    EXPECT_EQ(freeze_into_rooms(object, "", 9216).count("data"), 1u);
}

TEST_F(SmallBlocks, an_attribute_that_is_too_large_for_the_file_system_is_remarked) {
    if (const auto obstacle = LoopFilesystem::obstacle("xfs"))
        GTEST_SKIP() << *obstacle;
    const LoopFilesystem large("xfs", 320);
    const fs::path object = fs::path(large.path()) / "object";
    fs::create_directory(object);
    write_file(object / "file", "data");
    const std::string value(20000, 'v');
    ASSERT_EQ(setxattr((object / "file").c_str(), "user.some", value.data(), value.size(), 0), 0) << errno;
    const Tree tree = freeze({object}, disk / "store", "copy");
    EXPECT_EQ(remarks_of(tree), 1u);
    qfi_report *report = nullptr;
    ASSERT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_REPORT, nullptr, &report), 0) << last_error();
    EXPECT_EQ(Report(report).lines, (std::vector<Line>{{QFI_REMARK_ATTRIBUTE, object, "file", "user.some"}}));
}

TEST_F(SmallBlocks, stores_are_opened_filled_listed_and_emptied_whatever_room_is_left) {
    expect_no_host_to_end(7168);
}

// Nothing is overwritten in place: what has blocks needs new ones all the same.
class CopyOnWrite : public Full {
protected:
    const char *type() const override { return "btrfs"; }
    unsigned megabytes() const override { return 120; }
};

TEST_F(CopyOnWrite, stores_are_opened_filled_listed_and_emptied_whatever_room_is_left) {
    expect_no_host_to_end(64 << 10);
}

} // namespace
} // namespace images
