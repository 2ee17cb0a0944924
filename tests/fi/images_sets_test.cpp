// Sets of images of which not all are there.
#include "images_support.h"

#include <algorithm>

#include <qzfi_provider.h>

namespace images {
namespace {

class Sets : public testing::Test {
protected:
    void SetUp() override {
        for (const char *const type : {"btrfs", "xfs"})
            if (const auto missing = LoopFilesystem::obstacle(type))
                GTEST_SKIP() << *missing;
        disks_[0] = std::make_unique<LoopFilesystem>("btrfs", 160);
        disks_[1] = std::make_unique<LoopFilesystem>("xfs", 320);
        for (const int disk : {0, 1}) {
            fs::create_directory(object(disk));
            write_file(object(disk) / "file", "content");
        }
        framework_.emplace(top() / "root");
        const Tree tree({object(0), object(1)});
        ASSERT_EQ(qfi_op_make(tree.get(), nullptr, nullptr), 0) << last_error();
        qfi_image_list *list = nullptr;
        ASSERT_EQ(qfi_op_query_tree_status(tree.get(), nullptr, &list), 0) << last_error();
        for (const qfi_image_list *one = list; one != nullptr; one = one->next) {
            set = one->image.set_id;
            ids.emplace_back(one->image.image_id);
        }
        qfi_op_free_valid_sec_list(list);
        ASSERT_EQ(ids.size(), 2u);
    }
    void TearDown() override { framework_.reset(); }

    fs::path top() const { return disks_[1]->path(); }
    const std::string &id_on(int disk) const { return ids[static_cast<std::size_t>(disk)]; }
    fs::path object(int disk) const { return fs::path(disks_[disk]->path()) / "object"; }
    fs::path store(int disk) const { return fs::path(disks_[disk]->path()) / ".qzfi"; }
    // As when its file system is not mounted.
    void take_away(int disk) const { fs::rename(store(disk), store(disk).string() + ".away"); }
    void bring_back(int disk) const { fs::rename(store(disk).string() + ".away", store(disk)); }

    static std::vector<std::string> ids_of(const qfi_domain *tree) {
        std::vector<std::string> found;
        for (const qfi_domain *node = tree->fid_children; node != nullptr; node = node->fid_siblings) {
            char *id = nullptr;
            EXPECT_EQ(qfi_op_getattr(node, "image", nullptr, &id), 0) << last_error();
            found.emplace_back(id != nullptr ? id : "");
            qfi_op_free_buffer(id);
        }
        return found;
    }
    static int32_t reach(const std::string &id, const char *in, Tree &tree) {
        return qfi_op_reaccess_tree(nullptr, &tree, id.c_str(), in, nullptr, 0);
    }
    static std::vector<Line> report_of(qfi_domain *tree) {
        qfi_report *report = nullptr;
        EXPECT_EQ(qfi_op_objctl(tree, QFI_OBJCTL_REPORT, nullptr, &report), 0) << last_error();
        return Report(report).lines;
    }
    struct Listed {
        std::vector<std::string> ids;
        std::vector<Line> report;
    };
    static std::vector<Listed> enumerated() {
        std::vector<Listed> all;
        qfi_domain_tree_list_t *list = nullptr;
        EXPECT_EQ(qfi_op_enumerate_trees(&list), 0) << last_error();
        for (const qfi_domain_tree_list_t *one = list; one != nullptr; one = one->next)
            all.push_back({ids_of(one->domain), report_of(one->domain)});
        EXPECT_EQ(qfi_op_free_tree_list(list), 0);
        return all;
    }

    std::string set;
    std::vector<std::string> ids; // by disk

private:
    std::unique_ptr<LoopFilesystem> disks_[2];
    std::optional<Framework> framework_;
};

TEST_F(Sets, of_which_a_store_is_away_are_refused_by_their_id_and_the_missing_image_is_named) {
    for (const int away : {0, 1}) {
        take_away(away);
        Tree tree;
        EXPECT_EQ(reach(set, nullptr, tree), QFI_FI_NO_SUCH_IMAGE);
        const std::string error = last_error();
        EXPECT_NE(error.find("image " + id_on(away) + " of set " + set), std::string::npos) << error;
        EXPECT_EQ(reach(set, store(1 - away).c_str(), tree), QFI_FI_NO_SUCH_IMAGE);
        EXPECT_NE(last_error().find(id_on(away)), std::string::npos);
        EXPECT_EQ(tree.get(), nullptr);
        // No document may make a set of the rest.
        qfi_image_ref reference;
        QFI_INIT(reference);
        set.copy(reference.image_id, sizeof reference.image_id - 1);
        qfi_fiid *fiid = nullptr;
        EXPECT_EQ(qfi_op_fiid_synthesize(&reference, &fiid), QFI_FI_NO_SUCH_IMAGE);
        EXPECT_NE(last_error().find(id_on(away)), std::string::npos);
        EXPECT_EQ(fiid, nullptr);
        bring_back(away);
    }
    Tree tree;
    ASSERT_EQ(reach(set, nullptr, tree), 0) << last_error();
    EXPECT_EQ(ids_of(tree.get()), ids);
}

TEST_F(Sets, in_two_stores_are_not_whole_in_one_of_them) {
    Tree tree;
    EXPECT_EQ(reach(set, store(0).c_str(), tree), QFI_FI_NO_SUCH_IMAGE);
    EXPECT_NE(last_error().find(ids[1]), std::string::npos);
}

TEST_F(Sets, that_are_not_whole_have_images_that_are_reached_by_their_own_ids) {
    take_away(1);
    write_file(object(0) / "file", "changed");
    Tree tree;
    ASSERT_EQ(reach(ids[0], nullptr, tree), 0) << last_error();
    ASSERT_EQ(qfi_op_resync(tree.get(), nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(content_of(object(0) / "file"), "content");
    ASSERT_EQ(qfi_op_detach(tree.release(), nullptr, QFI_DETACH_REMOVE, nullptr), 0) << last_error();
    bring_back(1);
    EXPECT_EQ(reach(set, nullptr, tree), QFI_FI_NO_SUCH_IMAGE) << "half of it is gone for good";
    EXPECT_NE(last_error().find(ids[0]), std::string::npos);
    EXPECT_EQ(reach(ids[1], nullptr, tree), 0) << last_error();
}

TEST_F(Sets, that_are_not_whole_are_enumerated_image_by_image_with_a_remark) {
    const Tree alone = freeze({object(0)}, store(0));
    std::vector<Listed> all = enumerated();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].ids, ids);
    EXPECT_EQ(all[0].report, std::vector<Line>());
    take_away(1);
    all = enumerated();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].ids, std::vector<std::string>{ids[0]});
    ASSERT_EQ(all[0].report.size(), 1u);
    EXPECT_EQ(all[0].report[0].kind, uint32_t{QFI_REMARK_WARNING});
    EXPECT_EQ(all[0].report[0].object, object(0));
    EXPECT_NE(all[0].report[0].detail.find(ids[1]), std::string::npos) << all[0].report[0].detail;
    EXPECT_EQ(all[1].ids, std::vector<std::string>{alone.image_id()});
    EXPECT_EQ(all[1].report, std::vector<Line>());
}

TEST_F(Sets, have_images_whose_own_documents_stand_for_them_alone) {
    Tree one, again;
    ASSERT_EQ(reach(ids[0], nullptr, one), 0) << last_error();
    qfi_fiid *fiid = nullptr;
    ASSERT_EQ(qfi_op_get_fiid(one.get(), &fiid), 0) << last_error();
    ASSERT_EQ(qfi_op_reaccess_tree(fiid, &again, nullptr, nullptr, nullptr, 0), 0) << last_error();
    EXPECT_EQ(ids_of(again.get()), std::vector<std::string>{ids[0]});
    qfi_op_free_fiid(fiid);
}

TEST_F(Sets, are_imported_in_part_beside_another_part_of_theirs) {
    const fs::path store = top() / "imported";
    for (const int disk : {0, 1}) {
        const fs::path exported = top() / ("exported" + std::to_string(disk));
        Tree tree;
        ASSERT_EQ(reach(id_on(disk), nullptr, tree), 0) << last_error();
        ASSERT_EQ(qfi_op_deport_tree(tree.get(), exported.c_str(), nullptr), 0) << last_error();
        Tree imported;
        ASSERT_EQ(qfi_op_import_tree(exported.c_str(), store.c_str(), nullptr, &imported), 0) << last_error();
        EXPECT_EQ(ids_of(imported.get()), std::vector<std::string>{id_on(disk)});
    }
    Tree tree;
    ASSERT_EQ(reach(set, nullptr, tree), 0) << last_error();
    std::vector<std::string> found = ids_of(tree.get());
    std::sort(found.begin(), found.end());
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(found, ids);
}

TEST_F(Sets, whose_documents_cannot_be_read_are_damaged) {
    Tree tree;
    write_file(store(0) / "images" / ids[0] / "fiid.xml", "<");
    EXPECT_EQ(reach(set, nullptr, tree), 0) << "the other image's document names both: " << last_error();
    write_file(store(1) / "images" / ids[1] / "fiid.xml", "<");
    Tree second;
    EXPECT_EQ(reach(set, nullptr, second), QFI_FI_DAMAGED);
    EXPECT_NE(last_error().find("fiid.xml"), std::string::npos);
    EXPECT_EQ(reach(ids[0], nullptr, second), 0) << last_error();
}

} // namespace
} // namespace images
