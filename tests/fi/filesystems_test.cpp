// Trees on real file systems: several in one set, default stores, and what is left out of images.
#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <thread>

#include "host.h"
#include "support/loop_filesystem.h"

namespace {

class Filesystems : public Host {
protected:
    void SetUp() override {
        for (const char *const type : {"btrfs", "xfs"})
            if (const auto obstacle = LoopFilesystem::obstacle(type))
                GTEST_SKIP() << *obstacle;
        Host::SetUp();
    }
    void TearDown() override {
        if (!folder_.empty())
            Host::TearDown();
    }
    static std::string fill(const std::string &object) {
        std::filesystem::create_directories(object);
        write_file(object + "/file", "content");
        return object;
    }
    static std::string text(const qfi_domain *node, const char *name) {
        char *value = nullptr;
        EXPECT_EQ(qfi_op_getattr(node, name, nullptr, &value), 0) << last_error();
        const std::string result = value != nullptr ? value : "";
        qfi_op_free_buffer(value);
        return result;
    }
    static std::string image_of(const qfi_domain *object) {
        char *path = nullptr;
        EXPECT_EQ(qfi_op_access(object, nullptr, &path), 0) << last_error();
        const std::string result = path != nullptr ? path : "";
        qfi_op_free_buffer(path);
        return result;
    }
    // What a host without a tree is told of an import that succeeds.
    std::vector<std::string> warnings_of_import(const std::string &exported, const char *store) {
        struct Listener : qfi_handler {
            std::vector<std::string> texts;
        } listener{};
        listener.error = [](qfi_handler *self, const char *text, const char *, uint32_t severity) {
            if (severity == 2)
                static_cast<Listener *>(self)->texts.emplace_back(text);
        };
        stop();
        setenv("ICU_DATA", path("no bundles").c_str(), 1);
        EXPECT_EQ(qzfiapi_set_init_env(root().c_str(), nullptr), 0);
        EXPECT_EQ(qzfiapi_start(&listener, QFI_API_VERSION), 0);
        EXPECT_EQ(qfi_op_import_tree(exported.c_str(), store, nullptr, nullptr), 0) << last_error();
        EXPECT_EQ(last_error(), "") << "it succeeded";
        unsetenv("ICU_DATA");
        stop();
        start();
        return listener.texts;
    }
};

TEST_F(Filesystems, one_for_which_a_method_was_chosen_keeps_it_and_the_others_get_their_best) {
    LoopFilesystem btrfs("btrfs", 256), xfs("xfs", 320);
    qfi_domain *const tree = tree_of({fill(btrfs.path() + "/a"), fill(xfs.path() + "/b")});
    qfi_qs_combo *combos = nullptr;
    ASSERT_EQ(qfi_op_analyze(tree, nullptr, &combos, 0), 0) << last_error();
    for (const qfi_qs_combo *combo = combos; combo != nullptr; combo = combo->qsc_next) {
        const auto *const info = static_cast<const qfi_combo_info *>(combo->qsc_libpriv);
        if (info->node == tree->fid_children && std::string(info->fim_id) == "copy") {
            ASSERT_EQ(qfi_op_select(tree, combo, nullptr, nullptr), 0) << last_error();
        }
    }
    qfi_op_free_combos(combos);
    ASSERT_EQ(qfi_op_make(tree, nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(text(tree->fid_children, "method"), "copy");
    EXPECT_EQ(text(tree->fid_children->fid_siblings, "method"), "reflink");
    ASSERT_EQ(qfi_op_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr), 0) << last_error();
}

TEST_F(Filesystems, of_three_kinds_are_frozen_in_one_set_each_by_its_best_method) {
    LoopFilesystem btrfs("btrfs", 256), xfs("xfs", 320), ext4("ext4", 64);
    qfi_domain *tree = tree_of({fill(btrfs.path() + "/a"), fill(xfs.path() + "/b"), fill(ext4.path() + "/c")});
    qfi_fiid *fiid = nullptr;
    ASSERT_EQ(qfi_op_make(tree, nullptr, &fiid), 0) << last_error();
    const struct {
        const LoopFilesystem &filesystem;
        const char *method, *consistency;
        std::string store;
    } expected[] = {{btrfs, "btrfs", "atomic", btrfs.path() + "/.qzfi"},
                    {xfs, "reflink", "per-file", xfs.path() + "/.qzfi"},
                    {ext4, "copy", "fuzzy", copy_store()}};
    const qfi_domain *node = tree->fid_children;
    for (const auto &one : expected) {
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(qzfi_pn(node->objid), one.filesystem.path());
        EXPECT_EQ(text(node, "method"), one.method);
        EXPECT_EQ(text(node, "consistency"), one.consistency);
        EXPECT_EQ(text(node, "device"), one.filesystem.device());
        const std::string image = image_of(node->fid_children);
        EXPECT_EQ(image.rfind(one.store + "/images/" + text(node, "image") + "/objects/0", 0), 0u) << image;
        EXPECT_EQ(read_file(image + "/file"), "content");
        node = node->fid_siblings;
    }
    EXPECT_EQ(node, nullptr);
    ASSERT_EQ(qfi_op_detach(tree, nullptr, 0, nullptr), 0);
    tree = nullptr;
    ASSERT_EQ(qfi_op_reaccess_tree(fiid, &tree, nullptr, nullptr, nullptr, 0), 0) << last_error();
    int count = 0;
    for (node = tree->fid_children; node != nullptr; node = node->fid_siblings, ++count)
        EXPECT_NE(node->fid_children->fid_altnode, nullptr);
    EXPECT_EQ(count, 3);
    ASSERT_EQ(qfi_op_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr), 0) << last_error();
    for (const auto &one : expected)
        EXPECT_TRUE(names_in(one.store + "/images").empty()) << one.store;
    qfi_op_free_fiid(fiid);
}

TEST_F(Filesystems, a_set_of_which_one_image_fails_is_not_there_at_all) {
    LoopFilesystem btrfs("btrfs", 256), xfs("xfs", 320);
    const std::string b = fill(xfs.path() + "/b");
    qfi_domain *const tree = tree_of({fill(btrfs.path() + "/a"), b});
    ASSERT_EQ(qfi_op_select(tree, nullptr, nullptr, nullptr), 0) << last_error();
    ASSERT_EQ(qfi_op_prepare(tree, 0, nullptr, nullptr), 0) << last_error();
    ASSERT_EQ(qfi_op_quiesce(tree), 0) << last_error();
    std::filesystem::remove_all(b);
    EXPECT_EQ(qfi_op_split(tree, nullptr, nullptr), 1025);
    EXPECT_EQ(last_error(), "qzfi_split: " + b + ": No such file or directory (2)");
    EXPECT_TRUE(names_in(btrfs.path() + "/.qzfi/images").empty()) << "the snapshot went too";
    EXPECT_TRUE(names_in(xfs.path() + "/.qzfi/images").empty());
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Filesystems, a_commit_that_fails_takes_back_those_before_it) {
    LoopFilesystem btrfs("btrfs", 256), xfs("xfs", 320);
    qfi_domain *const tree = tree_of({fill(btrfs.path() + "/a"), fill(xfs.path() + "/b")});
    ASSERT_EQ(qfi_op_select(tree, nullptr, nullptr, nullptr), 0) << last_error();
    ASSERT_EQ(qfi_op_prepare(tree, 0, nullptr, nullptr), 0) << last_error();
    ASSERT_EQ(qfi_op_quiesce(tree), 0) << last_error();
    // What the second image would be renamed to is taken by somebody.
    const std::string images = xfs.path() + "/.qzfi/images";
    const std::string id = names_in(images).at(0).substr(std::string(".new-").size());
    std::filesystem::create_directories(images + "/" + id + "/taken");
    EXPECT_EQ(qfi_op_split(tree, nullptr, nullptr), 1040) << last_error();
    EXPECT_TRUE(names_in(btrfs.path() + "/.qzfi/images").empty());
    EXPECT_EQ(names_in(images), std::vector<std::string>{id});
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Filesystems, a_store_on_the_objects_own_file_system_is_no_part_of_its_images) {
    for (const char *const type : {"btrfs", "xfs"}) {
        LoopFilesystem disk(type, 320);
        fill(disk.path());
        std::string first;
        for (int round = 0; round < 2; ++round) {
            qfi_domain *const tree = tree_of({disk.path()});
            ASSERT_EQ(qfi_op_make(tree, nullptr, nullptr), 0) << last_error();
            EXPECT_EQ(names_in(image_of(tree->fid_children->fid_children)), std::vector<std::string>{"file"}) << type;
            qfi_op_detach(tree, nullptr, QFI_DETACH_REMOVE * round, nullptr);
        }
        // A copy elsewhere leaves the store out too.
        qfi_domain *const tree = tree_of({disk.path()});
        ASSERT_EQ(qfi_op_select(tree, nullptr, "copy", path("elsewhere").c_str()), 0) << last_error();
        ASSERT_EQ(qfi_op_make(tree, nullptr, nullptr), 0) << last_error();
        EXPECT_EQ(names_in(image_of(tree->fid_children->fid_children)), std::vector<std::string>{"file"}) << type;
        qfi_op_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr);
    }
}

TEST_F(Filesystems, several_objects_of_one_subvolume_are_one_image_of_one_instant) {
    LoopFilesystem btrfs("btrfs", 256);
    qfi_domain *const tree = tree_of({fill(btrfs.path() + "/a"), fill(btrfs.path() + "/b")});
    ASSERT_EQ(qfi_op_make(tree, nullptr, nullptr), 0) << last_error();
    const qfi_domain *const node = tree->fid_children;
    EXPECT_EQ(node->fid_siblings, nullptr);
    EXPECT_EQ(text(node, "consistency"), "atomic");
    EXPECT_EQ(read_file(image_of(node->fid_children) + "/file"), "content");
    EXPECT_EQ(read_file(image_of(node->fid_children->fid_siblings) + "/file"), "content");
    EXPECT_EQ(names_in(btrfs.path() + "/.qzfi/images").size(), 1u);
    qfi_op_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr);
}

// A writer moves a counter from one object to the other and back: at one instant it is in exactly one of them.
TEST_F(Filesystems, what_moves_between_two_objects_of_a_subvolume_is_in_one_of_their_images) {
    LoopFilesystem btrfs("btrfs", 256);
    const std::string a = fill(btrfs.path() + "/a"), b = fill(btrfs.path() + "/b");
    write_file(a + "/moved", "x");
    std::atomic<bool> is_over{false};
    std::thread writer([&] {
        while (!is_over) {
            std::filesystem::rename(a + "/moved", b + "/moved");
            std::filesystem::rename(b + "/moved", a + "/moved");
        }
    });
    for (int round = 0; round < 30; ++round) {
        qfi_domain *const tree = tree_of({a, b});
        ASSERT_EQ(qfi_op_make(tree, nullptr, nullptr), 0) << last_error();
        const qfi_domain *const first = tree->fid_children->fid_children;
        const int found =
            (exists(image_of(first) + "/moved") ? 1 : 0) + (exists(image_of(first->fid_siblings) + "/moved") ? 1 : 0);
        EXPECT_EQ(found, 1) << "round " << round;
        EXPECT_EQ(qfi_op_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr), 0) << last_error();
    }
    is_over = true;
    writer.join();
}

TEST_F(Filesystems, several_objects_of_a_file_system_without_snapshots_are_not_of_one_instant) {
    LoopFilesystem xfs("xfs", 320);
    qfi_domain *const tree = tree_of({fill(xfs.path() + "/a"), fill(xfs.path() + "/b")});
    ASSERT_EQ(qfi_op_make(tree, nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(text(tree->fid_children, "consistency"), "per-file");
    qfi_op_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr);
}

TEST_F(Filesystems, every_store_below_an_object_is_left_out_and_left_alone) {
    for (const char *const type : {"btrfs", "xfs"}) {
        LoopFilesystem disk(type, 320);
        const std::string object = fill(disk.path() + "/object");
        for (const char *const store : {"/one", "/two", "/one"}) {
            qfi_domain *const tree = tree_of({object});
            ASSERT_EQ(qfi_op_select(tree, nullptr, nullptr, (object + store).c_str()), 0) << last_error();
            ASSERT_EQ(qfi_op_make(tree, nullptr, nullptr), 0) << last_error();
            EXPECT_EQ(names_in(image_of(tree->fid_children->fid_children)), std::vector<std::string>{"file"}) << type;
            EXPECT_EQ(qfi_op_resync(tree, nullptr, nullptr), 0) << last_error();
            EXPECT_TRUE(exists(object + store + "/catalog.db")) << type << store;
            EXPECT_TRUE(exists(object + "/one/catalog.db")) << type << store;
            qfi_op_detach(tree, nullptr, 0, nullptr);
        }
        EXPECT_TRUE(exists(object + "/two/catalog.db")) << type;
    }
}

TEST_F(Filesystems, a_read_only_file_system_is_copied_elsewhere) {
    LoopFilesystem xfs("xfs", 320);
    fill(xfs.path() + "/a");
    xfs.remount(true);
    qfi_domain *const tree = tree_of({xfs.path() + "/a"});
    ASSERT_EQ(qfi_op_make(tree, nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(text(tree->fid_children, "method"), "copy");
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Filesystems, an_imported_folder_that_stays_is_told_to_the_host_also_without_a_tree) {
    LoopFilesystem disk("ext4", 64);
    const std::string exported = disk.path() + "/exported";
    qfi_domain *const tree = tree_of({fill(path("object"))});
    ASSERT_EQ(qfi_op_make(tree, nullptr, nullptr), 0) << last_error();
    const std::string id = text(tree->fid_children, "image");
    ASSERT_EQ(qfi_op_deport_tree(tree, exported.c_str(), nullptr), 0) << last_error();
    qfi_op_detach(tree, nullptr, 0, nullptr);
    disk.remount(true);
    EXPECT_EQ(warnings_of_import(exported, nullptr),
              std::vector<std::string>{"qzfi_import_tree: imported, but " + exported +
                                       " could not be removed: provider copy failed on " + exported + "/" + id +
                                       "/objects/0/file: unlinkat: Read-only file system (30)\n"});
}

TEST_F(Filesystems, an_exported_folder_that_has_more_than_the_store_is_told_to_the_host) {
    const LoopFilesystem coarse("ext4", 64, "", {"-I", "128"});
    const std::string exported = path("exported"), object = fill(path("object"));
    qfi_domain *const tree = tree_of({object});
    ASSERT_EQ(qfi_op_make(tree, nullptr, nullptr), 0) << last_error();
    const std::string id = text(tree->fid_children, "image");
    const timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, image_of(tree->fid_children->fid_children).c_str(), times, 0), 0);
    ASSERT_EQ(qfi_op_deport_tree(tree, exported.c_str(), nullptr), 0) << last_error();
    qfi_op_detach(tree, nullptr, 0, nullptr);
    const std::string store = coarse.path() + "/store";
    EXPECT_EQ(warnings_of_import(exported, store.c_str()),
              std::vector<std::string>{"qzfi_import_tree: image " + id +
                                       " is imported, and its exported folder stays: the store does not keep " +
                                       object + "/file: attribute \"times\"; items not kept: 1\n"});
    EXPECT_TRUE(std::filesystem::exists(exported + "/fiid.xml"));
}

TEST_F(Filesystems, a_full_store_is_told_before_anything_is_made) {
    LoopFilesystem small("ext4", 16);
    const std::string object = make_object("object");
    write_file(object + "/large", std::string(24 << 20, 'x'));
    qfi_domain *const tree = tree_of({object});
    const std::string store = small.path() + "/store";
    EXPECT_EQ(qfi_op_select(tree, nullptr, "copy", store.c_str()), 1026);
    const std::string said = last_error(), root = qzfi_pn(tree->fid_children->objid);
    const std::string begin = "qzfi_select: method copy cannot freeze " + root + ": the store's file system has ";
    const std::string middle = " bytes left, and the copy needs about ";
    ASSERT_EQ(said.substr(0, begin.size()), begin);
    const std::size_t left = said.find_first_not_of("0123456789", begin.size());
    ASSERT_EQ(said.substr(left, middle.size()), middle);
    EXPECT_LT(std::stoull(said.substr(begin.size())), uint64_t{16} << 20);
    EXPECT_GE(std::stoull(said.substr(left + middle.size())), uint64_t{24} << 20);
    EXPECT_EQ(said.find_first_not_of("0123456789", left + middle.size()), std::string::npos);
    EXPECT_FALSE(exists(store));
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Filesystems, two_trees_are_frozen_by_two_threads_at_once) {
    LoopFilesystem btrfs("btrfs", 256);
    const auto freeze = [&](const std::string &object) {
        for (int round = 0; round < 5; ++round) {
            qfi_domain *const tree = tree_of({object});
            EXPECT_EQ(qfi_op_make(tree, nullptr, nullptr), 0) << last_error();
            EXPECT_EQ(qfi_op_build_alttree(tree, nullptr, nullptr), 0);
            EXPECT_EQ(qfi_op_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr), 0) << last_error();
        }
    };
    const std::string a = fill(btrfs.path() + "/a"), b = make_object("b");
    std::thread first(freeze, a), second(freeze, b);
    first.join();
    second.join();
    EXPECT_TRUE(names_in(btrfs.path() + "/.qzfi/images").empty());
}

TEST_F(Filesystems, operations_of_two_threads_on_one_tree_wait_for_each_other) {
    LoopFilesystem xfs("xfs", 320);
    qfi_domain *const tree = tree_of({fill(xfs.path() + "/a")});
    ASSERT_EQ(qfi_op_select(tree, nullptr, nullptr, nullptr), 0) << last_error();
    int32_t results[2] = {-1, -1};
    const auto prepare = [&](int32_t &result) { result = qfi_op_prepare(tree, 0, nullptr, nullptr); };
    std::thread first(prepare, std::ref(results[0])), second(prepare, std::ref(results[1]));
    auto status = sized_record<qfi_operation_status>();
    EXPECT_EQ(qfi_op_get_status(tree, &status), 0) << "without waiting";
    first.join();
    second.join();
    EXPECT_EQ(results[0] + results[1], 1027) << "one prepared it, the other found it prepared";
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

} // namespace
