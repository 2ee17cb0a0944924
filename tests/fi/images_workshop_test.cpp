// What lies where a restore works, and is none of a restore's.
#include "images_support.h"

#include <cstdio>
#include <sys/stat.h>

namespace images {
namespace {

using Workshops = Images;
INSTANTIATE_TEST_SUITE_P(On, Workshops, testing::Values("copy", "ext4", "xfs", "btrfs"), name_of);

// As the place's name tells it, which anybody can work out.
std::string workshop_of(const std::string &name) {
    uint64_t hash = 14695981039346656037u;
    for (const char letter : name)
        hash = (hash ^ static_cast<unsigned char>(letter)) * 1099511628211u;
    char text[64];
    std::snprintf(text, sizeof text, ".qzfi-restore-%016llx", static_cast<unsigned long long>(hash));
    return text;
}

int32_t restore(const Tree &tree) {
    return qfi_op_restore(tree.get(), nullptr, nullptr);
}

// Whoever owns the folder may rename a tree that he cannot remove.
TEST_P(Workshops, trees_that_somebody_moved_there_are_not_removed) {
    const Tree tree = freeze({object}, store);
    write_file(object / "plain", "changed");
    for (const std::string &name : {workshop_of("object"), workshop_of("object") + "-tree"}) {
        fs::create_directories(top / name / "tree");
        chmod((top / name).c_str(), 0700);
        write_file(top / name / "secret", "keep me");
        EXPECT_EQ(restore(tree), QFI_FI_UNSAFE) << name;
        EXPECT_EQ(last_error(), "qzfi_restore: " + (top / name).string() +
                                    " leaves its place: no restore left this here; move it away\n");
        EXPECT_EQ(content_of(top / name / "secret"), "keep me");
        EXPECT_EQ(content_of(object / "plain"), "changed");
        fs::rename(top / name, top / "mine");
        EXPECT_EQ(restore(tree), 0) << last_error();
        EXPECT_EQ(content_of(object / "plain"), "plain content");
        EXPECT_FALSE(fs::exists(top / workshop_of("object")));
        EXPECT_FALSE(fs::exists(top / (workshop_of("object") + "-tree")));
        fs::remove_all(top / "mine");
        write_file(object / "plain", "changed");
    }
}

TEST_P(Workshops, an_empty_folder_of_that_name_is_in_nobodys_way) {
    const Tree tree = freeze({object}, store);
    write_file(object / "plain", "changed");
    fs::create_directory(top / workshop_of("object"));
    EXPECT_EQ(restore(tree), 0) << last_error();
    EXPECT_EQ(content_of(object / "plain"), "plain content");
    EXPECT_FALSE(fs::exists(top / workshop_of("object")));
}

} // namespace
} // namespace images
