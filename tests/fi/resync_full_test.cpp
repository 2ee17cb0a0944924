// File systems that fill up in the middle of a restore in place or a resynchronisation, with a certain room left.
#include "full_disk.h"
#include "resync_support.h"

namespace images {
namespace {

class OnFull : public FullDisk, public testing::WithParamInterface<const char *> {
protected:
    const char *type() const override { return GetParam(); }
    unsigned megabytes() const override {
        const std::string name = type();
        return name == "xfs" ? 320 : name == "btrfs" ? 160 : 600;
    }
    void SetUp() override {
        FullDisk::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        object = disk / "object";
        make_object(object);
        for (int each = 0; each < 40; ++each) {
            changed.push_back(object / ("large " + std::to_string(each)));
            write_file(changed.back(), frozen);
        }
        tree = freeze({object}, top / "store", "copy");
        keep(object, top / "new");
    }
    void TearDown() override {
        tree = Tree();
        FullDisk::TearDown();
    }
    void put_back(const char *kept) const {
        fs::remove_all(object);
        keep(top / kept, object);
    }
    // It was said where room ended, on this file system.
    void expect_told(const std::string &operation, int32_t status) const {
        const std::string text = last_error();
        EXPECT_EQ(status, QFI_FI_NO_SPACE) << text;
        EXPECT_EQ(text.rfind(operation + ": no space left on the file system of " + disk.string(), 0), 0u) << text;
    }

    const std::string frozen = std::string(100000, 'f');
    std::vector<fs::path> changed;
    fs::path object;
    Tree tree;
};
INSTANTIATE_TEST_SUITE_P(, OnFull, testing::Values("ext4", "xfs", "btrfs"), name_of);

TEST_P(OnFull, a_restore_is_told_and_leaves_the_old_tree) {
    write_file(object / "added", "since");
    keep(object, top / "old");
    bool is_through = false;
    int failures = 0;
    for (int room = 0; !is_through && room < 16 << 20; room += 1 << 20) {
        leave(room);
        const int32_t status = qfi_op_restore(tree.get(), nullptr, nullptr);
        is_through = status == 0;
        if (!is_through) {
            ++failures;
            expect_told("qzfi_restore", status);
            EXPECT_EQ(differences(top / "old", object), "");
            EXPECT_EQ(temporary_names(disk), std::set<std::string>{});
        }
        make_room();
    }
    EXPECT_TRUE(is_through);
    EXPECT_GE(failures, 2);
    EXPECT_EQ(differences(top / "new", object), "");
}

// Which are the new one then, or the old one, each.
TEST_P(OnFull, a_resynchronisation_is_told_tears_no_file_and_goes_on_when_there_is_room) {
    const std::string old(90000, 'o');
    for (std::size_t each = 0; each < changed.size(); ++each)
        if (each % 3 != 0)
            write_file(changed[each], old);
        else
            fs::remove(changed[each]);
    write_file(object / "added", "since");
    keep(object, top / "old");
    bool is_through = false;
    int failures = 0, in_between = 0;
    for (int room = 0; !is_through && room < 16 << 20; room += 256 << 10) {
        leave(room);
        const int32_t status = resync(tree);
        is_through = status == 0;
        int updated = 0;
        if (!is_through) {
            ++failures;
            expect_told("qzfi_resync", status);
            EXPECT_EQ(temporary_names(disk), std::set<std::string>{});
            for (std::size_t each = 0; each < changed.size(); ++each) {
                if (each % 3 == 0 && !fs::exists(changed[each]))
                    continue;
                const std::string content = content_of(changed[each]);
                updated += content == frozen ? 1 : 0;
                EXPECT_TRUE(content == frozen || (each % 3 != 0 && content == old))
                    << changed[each] << ": " << content.size() << " bytes";
            }
        }
        make_room();
        in_between += updated != 0 ? 1 : 0;
        EXPECT_EQ(resync(tree), 0) << last_error();
        EXPECT_EQ(differences(top / "new", object), "");
        if (!is_through)
            put_back("old");
    }
    EXPECT_TRUE(is_through);
    EXPECT_GE(failures, 2);
    EXPECT_GE(in_between, 1) << "none that was stopped in the middle";
}

} // namespace
} // namespace images
