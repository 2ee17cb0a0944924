// The life of a tree, with the method "copy" on an ordinary folder.
#include <dlfcn.h>
#include <filesystem>
#include <sqlite3.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "host.h"

namespace {

class Life : public Host {
protected:
    // A tree that has come as far as the state says.
    qfi_domain *tree_in(int32_t state) {
        qfi_domain *const tree = tree_of({object_});
        if (state >= QFI_TREE_ANALYZED) {
            qfi_qs_combo *combos = nullptr;
            EXPECT_EQ(qfi_op_analyze(tree, nullptr, &combos, 0), 0) << last_error();
            qfi_op_free_combos(combos);
        }
        const auto step = [&](int32_t reached, auto &&call) {
            if (state < reached)
                return;
            EXPECT_EQ(call(), 0) << last_error();
        };
        step(QFI_TREE_SELECTED, [&] { return qfi_op_select(tree, nullptr, "copy", nullptr); });
        step(QFI_TREE_PREPARED, [&] { return qfi_op_prepare(tree, 0, nullptr, nullptr); });
        step(QFI_TREE_QUIESCED, [&] { return qfi_op_quiesce(tree); });
        step(QFI_TREE_SPLIT, [&] { return qfi_op_split(tree, nullptr, nullptr); });
        step(QFI_TREE_FROZEN, [&] { return qfi_op_unquiesce(tree); });
        return tree;
    }

    void SetUp() override {
        Host::SetUp();
        object_ = make_object("object");
    }
    std::string object_;
};

TEST_F(Life, a_tree_has_a_node_for_each_file_system_and_below_it_its_objects) {
    const std::string other = make_object("other");
    qfi_domain *const tree = tree_of({object_, other, object_ + "/../object/"});
    EXPECT_EQ(tree->fid_nodetype, QFI_NODE_ROOT);
    EXPECT_EQ(tree->fid_rootnode, tree);
    const qfi_domain *const filesystem = tree->fid_children;
    ASSERT_NE(filesystem, nullptr);
    EXPECT_EQ(filesystem->fid_nodetype, QFI_NODE_FILESYSTEM);
    EXPECT_EQ(filesystem->fid_siblings, nullptr);
    EXPECT_EQ(filesystem->fid_parent, tree);
    ASSERT_NE(filesystem->resource_list, nullptr);
    EXPECT_EQ(filesystem->resource_list->first, filesystem->objid);
    const qfi_domain *const first = filesystem->fid_children;
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(qzfi_pn(first->objid), object_.c_str());
    EXPECT_EQ(first->fid_nodetype, QFI_NODE_OBJECT);
    EXPECT_EQ(first->objid, qzfi_get_objid(object_.c_str(), static_cast<int32_t>(object_.size() + 1), QFI_OID_INTERN));
    ASSERT_NE(first->fid_siblings, nullptr);
    EXPECT_STREQ(qzfi_pn(first->fid_siblings->objid), other.c_str());
    EXPECT_EQ(first->fid_siblings->fid_siblings, nullptr) << "the same object twice is one";
    EXPECT_EQ(qfi_op_detach(tree, nullptr, 0, nullptr), 0);
}

TEST_F(Life, what_SQLite_was_given_is_still_there_after_the_shutdown_for_a_host_that_uses_SQLite_too) {
    void *const sqlite = dlopen("libsqlite3.so.0", RTLD_NOW);
    ASSERT_NE(sqlite, nullptr) << dlerror();
    const auto find_vfs = reinterpret_cast<void *(*)(const char *)>(dlsym(sqlite, "sqlite3_vfs_find"));
    ASSERT_NE(find_vfs, nullptr);
    // On a thread of its own: as long as a thread lives for which a library keeps data, the library stays anyway.
    std::thread([&] { EXPECT_EQ(qfi_op_detach(tree_in(QFI_TREE_FROZEN), nullptr, 0, nullptr), 0); }).join();
    stop();
    EXPECT_EQ(find_vfs("no name, so that all names are looked at"), nullptr);
    dlclose(sqlite);
}

TEST_F(Life, an_object_can_be_given_by_its_id) {
    qfi_objid_t id{object_.data(), static_cast<int32_t>(object_.size()), 0};
    const qfi_object object{nullptr, &id};
    qfi_domain *tree = nullptr;
    ASSERT_EQ(qfi_op_gentree(&object, 1, nullptr, &tree), 0);
    EXPECT_STREQ(qzfi_pn(tree->fid_children->fid_children->objid), object_.c_str());
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Life, a_link_to_an_object_is_resolved_once) {
    std::filesystem::create_symlink(object_, path("alias"));
    qfi_domain *const tree = tree_of({path("alias")});
    EXPECT_STREQ(qzfi_pn(tree->fid_children->fid_children->objid), object_.c_str());
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

struct BadObject {
    std::string name, path;
    int32_t status;
    std::string text;
};

TEST_F(Life, an_object_that_cannot_be_one_is_refused_with_its_name) {
    write_file(path("plain"), "");
    std::filesystem::create_symlink(path("nowhere"), path("dangling"));
    const std::vector<BadObject> cases = {
        {"missing", path("missing"), 1025, "qzfi_gentree: " + path("missing") + ": No such file or directory (2)"},
        {"dangling", path("dangling"), 1025, "qzfi_gentree: " + path("dangling") + ": No such file or directory (2)"},
        {"a file", path("plain"), 1025, "qzfi_gentree: " + path("plain") + ": Not a directory (20)"},
        {"empty", "", 3, "qzfi_gentree: invalid argument: an object's path is empty"},
        {"nested", object_ + "/sub", 3,
         "qzfi_gentree: invalid argument: object " + object_ + "/sub lies within object " + object_},
    };
    for (const BadObject &bad : cases) {
        const qfi_object objects[] = {{object_.c_str(), nullptr}, {bad.path.c_str(), nullptr}};
        qfi_domain *tree = nullptr;
        EXPECT_EQ(qfi_op_gentree(objects, 2, nullptr, &tree), bad.status) << bad.name;
        EXPECT_EQ(tree, nullptr);
        EXPECT_EQ(last_error(), bad.text);
    }
}

TEST_F(Life, arguments_are_checked_and_named) {
    const qfi_object object{object_.c_str(), nullptr};
    qfi_domain *tree = nullptr;
    EXPECT_EQ(qfi_op_gentree(nullptr, 1, nullptr, &tree), 3);
    EXPECT_EQ(last_error(), "qzfi_gentree: invalid argument: objects is null");
    EXPECT_EQ(qfi_op_gentree(&object, 0, nullptr, &tree), 3);
    EXPECT_EQ(last_error(), "qzfi_gentree: invalid argument: count is below 1");
    qfi_tree_options options{};
    EXPECT_EQ(qfi_op_gentree(&object, 1, &options, &tree), 3);
    EXPECT_EQ(last_error(), "qzfi_gentree: invalid argument: the options' size is not set");
    tree = tree_of({object_});
    qfi_domain *const kept = tree;
    EXPECT_EQ(qfi_op_gentree(&object, 1, nullptr, &tree), 3);
    EXPECT_EQ(last_error(), "qzfi_gentree: invalid argument: the pointer for the tree is not null");
    EXPECT_EQ(tree, kept);
    EXPECT_EQ(qfi_op_analyze(tree, nullptr, nullptr, 0), 3);
    EXPECT_EQ(last_error(), "qzfi_analyze: invalid argument: combos is null");
    EXPECT_EQ(qfi_op_config(tree, nullptr, 0, nullptr), 3);
    EXPECT_EQ(last_error(), "qzfi_config: invalid argument: key is null");
    EXPECT_EQ(qfi_op_detach(tree, nullptr, 2, nullptr), 3);
    EXPECT_EQ(last_error(), "qzfi_detach: invalid argument: a reserved argument is not zero");
    EXPECT_EQ(qfi_op_detach(tree, nullptr, 0, nullptr), 0);
    EXPECT_EQ(qfi_op_detach(tree, nullptr, 0, nullptr), 3) << "the tree is gone";
    EXPECT_EQ(last_error(), "qzfi_detach: invalid argument: this is no tree of this library, or one that was detached");
}

TEST_F(Life, what_is_reserved_is_refused_unless_it_is_zero) {
    qfi_domain *const tree = tree_in(QFI_TREE_FROZEN);
    int32_t something = 0;
    void *const reserved = &something, *result = nullptr;
    const auto refused = [&](const std::string &operation, int32_t status) {
        EXPECT_EQ(status, QFI_STATUS_INVALID_ARGUMENT);
        EXPECT_EQ(last_error(), "qzfi_" + operation + ": invalid argument: a reserved argument is not zero");
        EXPECT_EQ(result, nullptr);
    };
    void *const out = &result;
    refused("enumerate_nodes", qfi_op_enumerate_nodes(nullptr, reserved, 0, static_cast<qfi_node_list **>(out)));
    refused("enumerate_provider_nodes",
            qfi_op_enumerate_provider_nodes("copy", nullptr, reserved, 0, static_cast<qfi_node_list **>(out)));
    refused("enumerate_enclosures",
            qfi_op_enumerate_enclosures(nullptr, reserved, static_cast<qfi_enclosure_list **>(out)));
    refused("enumerate_host_nodes", qfi_op_enumerate_host_nodes(reserved, nullptr, static_cast<qfi_host_list **>(out)));
    refused("query_valid_secondaries",
            qfi_op_query_valid_secondaries("/", reserved, static_cast<qfi_image_list **>(out)));
    refused("query_res_status", qfi_op_query_res_status(nullptr, reserved, static_cast<qfi_store_status **>(out)));
    refused("get_backupset", qfi_op_get_backupset(tree, 0, nullptr, 1, static_cast<qfi_diff **>(out)));
    refused("process_backups", qfi_op_process_backups(tree, nullptr, reserved, 1, nullptr));
    refused("set_import_options", qfi_op_set_import_options(nullptr, nullptr, 0, reserved));
    refused("restore",
            qzfiapi_restore(tree, nullptr, out, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, reserved));
    refused("resync", qzfiapi_resync(tree, nullptr, out, reserved, nullptr, nullptr, nullptr, nullptr));
    char report[] = QFI_OBJCTL_REPORT;
    refused("objctl", qzfiapi_objctl(tree, report, nullptr, out, reserved));
    EXPECT_EQ(qfi_op_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr), 0);
}

TEST_F(Life, what_stands_in_the_way_is_told_in_words) {
    qfi_domain *const tree = tree_in(QFI_TREE_SELECTED);
    std::filesystem::remove_all(object_);
    EXPECT_EQ(qfi_op_pre_prepare(tree), 1026);
    const std::string root = qzfi_pn(tree->fid_children->objid);
    EXPECT_EQ(last_error(), "qzfi_pre_prepare: no method can freeze the tree: " + root + ": No such directory");
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Life, of_a_catalog_that_cannot_be_read_the_cause_is_told) {
    qfi_domain *const tree = tree_in(QFI_TREE_FROZEN);
    sqlite3 *catalog = nullptr;
    ASSERT_EQ(sqlite3_open((copy_store() + "/catalog.db").c_str(), &catalog), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(catalog, "drop table image", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(catalog);
    int32_t valid = 1;
    EXPECT_EQ(qfi_op_isvalid_tree(tree, &valid), 1037);
    EXPECT_EQ(valid, 0);
    EXPECT_EQ(last_error(), "qzfi_isvalid_tree: catalog of store " + copy_store() + ": no such table: image");
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Life, verifying_counts_the_entries_of_all_objects) {
    qfi_domain *const tree = tree_of({object_, make_object("other")});
    auto options = sized_record<qfi_freeze_options>();
    options.fim_id = "copy";
    ASSERT_EQ(qfi_op_make(tree, &options, nullptr), 0) << last_error();
    qfi_image_list *image = nullptr;
    ASSERT_EQ(qfi_op_query_tree_status(tree, nullptr, &image), 0);
    qfi_report *report = nullptr;
    ASSERT_EQ(qfi_op_objctl(tree, QFI_OBJCTL_VERIFY, nullptr, &report), 0) << last_error();
    EXPECT_EQ(report->entries, image->image.entries);
    auto status = sized_record<qfi_operation_status>();
    ASSERT_EQ(qfi_op_get_status(tree, &status), 0);
    EXPECT_EQ(status.entries_total, image->image.entries);
    EXPECT_EQ(status.entries_done, image->image.entries);
    qfi_op_free_report(report);
    qfi_op_free_valid_sec_list(image);
    EXPECT_EQ(qfi_op_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr), 0);
}

TEST_F(Life, options_are_set_by_name_and_checked) {
    qfi_domain *const tree = tree_in(QFI_TREE_NEW);
    for (const auto &[key, value] : {std::pair("label", "a label"),
                                     {"workers", "4"},
                                     {"digest", "1"},
                                     {"nested", "0"},
                                     {"pre_command", "true"},
                                     {"post_command", "true"}})
        EXPECT_EQ(qfi_op_config(tree, key, 0, value), 0) << key;
    EXPECT_EQ(qfi_op_config(tree, "workers", 0, "65"), 3);
    EXPECT_EQ(last_error(), "qzfi_config: invalid argument: workers must be 1 to 64");
    EXPECT_EQ(qfi_op_config(tree, "digest", 0, "yes"), 3);
    EXPECT_EQ(last_error(), "qzfi_config: invalid argument: digest must be 0 or 1");
    EXPECT_EQ(qfi_op_config(tree, "colour", 0, "red"), 3);
    EXPECT_EQ(last_error(), "qzfi_config: invalid argument: there is no option colour");
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Life, each_step_is_refused_in_every_state_that_is_not_its_own) {
    struct Step {
        const char *name;
        int32_t lowest, highest;
        const char *wanted;
        int32_t (*call)(qfi_domain *);
    };
    const Step steps[] = {
        {"qzfi_analyze", 1, 3, "new to selected",
         [](qfi_domain *tree) {
             qfi_qs_combo *combos = nullptr;
             const int32_t status = qfi_op_analyze(tree, nullptr, &combos, 0);
             qfi_op_free_combos(combos);
             return status;
         }},
        {"qzfi_select", 1, 3, "new to selected",
         [](qfi_domain *tree) { return qfi_op_select(tree, nullptr, "copy", nullptr); }},
        {"qzfi_config", 1, 3, "new to selected", [](qfi_domain *tree) { return qfi_op_config(tree, "label", 0, "x"); }},
        {"qzfi_pre_prepare", 1, 3, "new to selected", [](qfi_domain *tree) { return qfi_op_pre_prepare(tree); }},
        {"qzfi_refresh_tree", 1, 3, "new to selected", [](qfi_domain *tree) { return qfi_op_refresh_tree(tree); }},
        {"qzfi_prepare", 3, 3, "selected", [](qfi_domain *tree) { return qfi_op_prepare(tree, 0, nullptr, nullptr); }},
        {"qzfi_isready", 4, 4, "prepared",
         [](qfi_domain *tree) {
             qfi_ss_readystat ready;
             return qfi_op_isready(tree, &ready, nullptr);
         }},
        {"qzfi_quiesce", 4, 4, "prepared", [](qfi_domain *tree) { return qfi_op_quiesce(tree); }},
        {"qzfi_split", 5, 5, "quiesced", [](qfi_domain *tree) { return qfi_op_split(tree, nullptr, nullptr); }},
        {"qzfi_unquiesce", 5, 6, "quiesced to split", [](qfi_domain *tree) { return qfi_op_unquiesce(tree); }},
        {"qzfi_build_alttree", 6, 7, "split to frozen",
         [](qfi_domain *tree) { return qfi_op_build_alttree(tree, nullptr, nullptr); }},
        {"qzfi_get_fiid", 6, 7, "split to frozen",
         [](qfi_domain *tree) {
             qfi_fiid *fiid = nullptr;
             const int32_t status = qfi_op_get_fiid(tree, &fiid);
             qfi_op_free_fiid(fiid);
             return status;
         }},
        {"qzfi_access", 6, 7, "split to frozen",
         [](qfi_domain *tree) {
             char *path = nullptr;
             const int32_t status = qfi_op_access(tree->fid_children->fid_children, nullptr, &path);
             qfi_op_free_buffer(path);
             return status;
         }},
    };
    const char *const names[] = {"", "new", "analyzed", "selected", "prepared", "quiesced", "split", "frozen"};
    for (int32_t state = QFI_TREE_NEW; state <= QFI_TREE_FROZEN; ++state)
        for (const Step &step : steps) {
            qfi_domain *const tree = tree_in(state);
            const bool is_allowed = state >= step.lowest && state <= step.highest;
            EXPECT_EQ(step.call(tree), is_allowed ? 0 : 1027) << step.name << " when " << names[state];
            if (!is_allowed) {
                EXPECT_EQ(last_error(), std::string(step.name) + ": the tree of " + object_ + " is " + names[state] +
                                            "; this needs one that is " + step.wanted);
            }
            EXPECT_EQ(qfi_op_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr), 0) << last_error();
        }
    EXPECT_TRUE(names_in(copy_store() + "/images").empty());
}

TEST_F(Life, analyze_gives_a_combination_for_each_method_the_possible_ones_first) {
    qfi_domain *const tree = tree_of({object_});
    qfi_qs_combo *combos = nullptr;
    ASSERT_EQ(qfi_op_analyze(tree, nullptr, &combos, 0), 0) << last_error();
    int count = 0;
    bool was_impossible = false, has_copy = false;
    for (const qfi_qs_combo *combo = combos; combo != nullptr; combo = combo->qsc_next, ++count) {
        const auto *const info = static_cast<const qfi_combo_info *>(combo->qsc_libpriv);
        EXPECT_EQ(info->node, tree->fid_children);
        const bool is_impossible = combo->qsc_class == QFI_CLASS_NOTSUP;
        EXPECT_EQ(info->reason != nullptr, is_impossible);
        EXPECT_EQ(info->consistency == QFI_CONSISTENCY_NONE, is_impossible);
        EXPECT_FALSE(was_impossible && !is_impossible) << "possible ones come first";
        was_impossible = is_impossible;
        if (std::string(info->fim_id) != "copy")
            continue;
        has_copy = true;
        EXPECT_EQ(combo->qsc_class, QFI_SERIAL_FS);
        EXPECT_EQ(info->consistency, QFI_CONSISTENCY_FUZZY);
        EXPECT_EQ(info->store, copy_store());
    }
    EXPECT_TRUE(has_copy);
    EXPECT_EQ(count, 3);
    EXPECT_FALSE(exists(copy_store())) << "analysing makes nothing";
    qfi_op_free_combos(combos);
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Life, a_combination_can_be_selected_and_one_of_another_tree_cannot) {
    qfi_domain *const tree = tree_of({object_});
    qfi_domain *const other = tree_of({make_object("other")});
    qfi_qs_combo *combos = nullptr;
    ASSERT_EQ(qfi_op_analyze(tree, path("store").c_str(), &combos, 0), 0);
    const qfi_qs_combo *copy = combos;
    while (std::string(static_cast<const qfi_combo_info *>(copy->qsc_libpriv)->fim_id) != "copy")
        copy = copy->qsc_next;
    EXPECT_EQ(qfi_op_select(other, copy, nullptr, nullptr), 3);
    EXPECT_EQ(last_error(), "qzfi_select: invalid argument: the combination is of another tree");
    EXPECT_EQ(qfi_op_select(tree, copy, "copy", nullptr), 3);
    EXPECT_EQ(last_error(), "qzfi_select: invalid argument: both a combination and a method");
    ASSERT_EQ(qfi_op_select(tree, copy, nullptr, nullptr), 0) << last_error();
    qfi_op_free_combos(combos);
    ASSERT_EQ(qfi_op_make(tree, nullptr, nullptr), 0) << last_error();
    EXPECT_EQ(names_in(path("store/images")).size(), 1u);
    EXPECT_FALSE(exists(copy_store() + "/images/objects"));
    qfi_op_detach(tree, nullptr, 0, nullptr);
    qfi_op_detach(other, nullptr, 0, nullptr);
}

TEST_F(Life, a_method_that_is_not_there_or_cannot_is_refused_with_the_reason) {
    qfi_domain *const tree = tree_of({"/proc/self/net"});
    EXPECT_EQ(qfi_op_select(tree, nullptr, "magic", nullptr), 1026);
    EXPECT_EQ(last_error(), "qzfi_select: no provider offers the method magic");
    EXPECT_EQ(qfi_op_select(tree, nullptr, "btrfs", nullptr), 1026);
    EXPECT_EQ(last_error(), "qzfi_select: method btrfs cannot freeze /proc: it is not on a Btrfs file system");
    EXPECT_EQ(qfi_op_set_fim_name("magic"), 1026);
    EXPECT_EQ(last_error(), "qzfi_set_fim_name: no provider offers the method magic");
    EXPECT_EQ(qfi_op_set_fim_name("copy"), 0);
    EXPECT_EQ(qfi_op_set_fim_name(nullptr), 0);
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Life, an_image_holds_what_the_object_held_and_is_found_again_by_its_document_and_by_its_id) {
    qfi_domain *tree = tree_of({object_});
    auto options = sized_record<qfi_freeze_options>();
    options.fim_id = "copy";
    options.label = "first";
    options.digest = 1;
    qfi_fiid *fiid = nullptr;
    ASSERT_EQ(qfi_op_make(tree, &options, &fiid), 0) << last_error();
    ASSERT_NE(fiid, nullptr);
    EXPECT_EQ(std::string(fiid->document).size(), fiid->length);
    write_file(object_ + "/file", "changed since");

    ASSERT_EQ(qfi_op_build_alttree(tree, nullptr, nullptr), 0) << last_error();
    qfi_domain *const node = tree->fid_children->fid_children;
    ASSERT_NE(node->fid_altnode, nullptr);
    EXPECT_EQ(node->fid_altnode->fid_nodetype, QFI_NODE_IMAGE);
    ASSERT_NE(node->fid_altnode->time, nullptr);
    char *image = nullptr, *inner = nullptr, *id = nullptr;
    ASSERT_EQ(qfi_op_access(node, nullptr, &image), 0) << last_error();
    EXPECT_STREQ(image, qzfi_pn(node->fid_altnode->objid));
    EXPECT_EQ(read_file(std::string(image) + "/file"), "content of object");
    ASSERT_EQ(qfi_op_access(node->fid_altnode, "sub/inner", &inner), 0) << last_error();
    EXPECT_EQ(read_file(inner), "inner");
    ASSERT_EQ(qfi_op_getattr(node, "image", nullptr, &id), 0) << last_error();
    const std::string image_id = id;
    EXPECT_EQ(image, copy_store() + "/images/" + image_id + "/objects/0");
    EXPECT_TRUE(exists(copy_store() + "/images/" + image_id + "/manifest.0"));
    EXPECT_EQ(read_file(copy_store() + "/images/" + image_id + "/report"), "qzfi-report 1\nend 0\n");
    for (char *text : {image, inner, id})
        qfi_op_free_buffer(text);
    ASSERT_EQ(qfi_op_detach(tree, nullptr, 0, nullptr), 0);

    tree = nullptr;
    ASSERT_EQ(qfi_op_reaccess_tree(fiid, &tree, nullptr, nullptr, nullptr, 0), 0) << last_error();
    ASSERT_NE(tree->fid_children->fid_children->fid_altnode, nullptr);
    EXPECT_STREQ(qzfi_pn(tree->fid_children->fid_children->objid), object_.c_str());
    ASSERT_EQ(qfi_op_detach(tree, nullptr, 0, nullptr), 0);
    tree = nullptr;
    ASSERT_EQ(qfi_op_reaccess_tree(nullptr, &tree, image_id.c_str(), copy_store().c_str(), nullptr, 0), 0);
    ASSERT_EQ(qfi_op_detach(tree, nullptr, QFI_DETACH_REMOVE, nullptr), 0) << last_error();
    EXPECT_FALSE(exists(copy_store() + "/images/" + image_id));
    tree = nullptr;
    EXPECT_EQ(qfi_op_reaccess_tree(nullptr, &tree, image_id.c_str(), nullptr, nullptr, 0), 1024);
    EXPECT_EQ(last_error(), "qzfi_reaccess_tree: no known store has image " + image_id);
    EXPECT_EQ(qfi_op_reaccess_tree(fiid, &tree, nullptr, nullptr, nullptr, 0), 1024);
    EXPECT_EQ(last_error(), "qzfi_reaccess_tree: no known store has image " + image_id);
    EXPECT_EQ(tree, nullptr);
    qfi_op_free_fiid(fiid);
}

TEST_F(Life, the_way_into_an_image_does_not_lead_out_of_it) {
    qfi_domain *const tree = tree_in(QFI_TREE_FROZEN);
    const qfi_domain *const node = tree->fid_children->fid_children;
    char *path = nullptr;
    for (const char *const way : {"../../../catalog.db", "/etc/passwd"}) {
        EXPECT_EQ(qfi_op_access(node, way, &path), 1038) << way;
        EXPECT_EQ(path, nullptr);
    }
    EXPECT_EQ(qfi_op_access(node, "link/x", &path), 1038) << "through a link";
    EXPECT_EQ(qfi_op_access(node, "missing", &path), 1025);
    ASSERT_EQ(qfi_op_access(node, "link", &path), 0) << "the link itself";
    qfi_op_free_buffer(path);
    EXPECT_EQ(qfi_op_access(tree->fid_children, nullptr, &path), 3);
    EXPECT_EQ(last_error(), "qzfi_access: invalid argument: the node is no object");
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Life, nodes_have_attributes) {
    qfi_domain *const tree = tree_in(QFI_TREE_FROZEN);
    const qfi_domain *const node = tree->fid_children->fid_children;
    const auto text = [&](const qfi_domain *of, const char *name) {
        char *value = nullptr;
        EXPECT_EQ(qfi_op_getattr(of, name, nullptr, &value), 0) << name << last_error();
        const std::string result = value != nullptr ? value : "";
        qfi_op_free_buffer(value);
        return result;
    };
    EXPECT_EQ(text(node, "path"), object_);
    EXPECT_EQ(text(node, "type"), "object");
    EXPECT_EQ(text(tree, "type"), "root");
    EXPECT_EQ(text(tree->fid_children, "type"), "filesystem");
    EXPECT_EQ(text(tree->fid_children, "path"), text(node, "mountpoint"));
    EXPECT_EQ(text(node, "method"), "copy");
    EXPECT_EQ(text(node, "consistency"), "fuzzy");
    qfi_attr sizes;
    ASSERT_EQ(qfi_op_getattr(node, nullptr, &sizes, nullptr), 0);
    EXPECT_GT(sizes.att_totalblks, 0u);
    EXPECT_GE(sizes.att_totalblks, sizes.att_blksused);
    char *value = nullptr;
    EXPECT_EQ(qfi_op_getattr(node, "smell", nullptr, &value), 3);
    EXPECT_EQ(last_error(), "qzfi_getattr: invalid argument: there is no attribute smell");
    EXPECT_EQ(qfi_op_getattr(tree, "image", nullptr, &value), 4);
    EXPECT_EQ(last_error(), "qzfi_getattr: not supported by this library for image of the root of a tree");
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Life, a_tree_is_valid_as_long_as_what_it_stands_for_is_there) {
    qfi_domain *const tree = tree_in(QFI_TREE_NEW);
    qfi_domain *const frozen = tree_in(QFI_TREE_FROZEN);
    int32_t valid = 0;
    EXPECT_EQ(qfi_op_isvalid_tree(tree, &valid), 0);
    EXPECT_EQ(valid, 1);
    EXPECT_EQ(qfi_op_isvalid_tree(frozen, &valid), 0);
    EXPECT_EQ(valid, 1);
    std::filesystem::rename(object_, path("elsewhere"));
    EXPECT_EQ(qfi_op_isvalid_tree(tree, &valid), 0);
    EXPECT_EQ(valid, 0);
    EXPECT_EQ(qfi_op_isvalid_tree(frozen, &valid), 0);
    EXPECT_EQ(valid, 1) << "the image is there";
    std::filesystem::remove_all(copy_store() + "/images/" + names_in(copy_store() + "/images").at(0));
    EXPECT_EQ(qfi_op_isvalid_tree(frozen, &valid), 0);
    EXPECT_EQ(valid, 0);
    qfi_domain stranger{};
    valid = 1;
    EXPECT_EQ(qfi_op_isvalid_tree(&stranger, &valid), 0);
    EXPECT_EQ(valid, 0);
    qfi_op_detach(tree, nullptr, 0, nullptr);
    qfi_op_detach(frozen, nullptr, 0, nullptr);
}

TEST_F(Life, a_refreshed_tree_loses_the_objects_that_are_gone_and_keeps_the_nodes_of_the_others) {
    const std::string other = make_object("other");
    qfi_domain *const tree = tree_of({object_, other});
    qfi_domain *const kept = tree->fid_children->fid_children->fid_siblings;
    std::filesystem::remove_all(object_);
    ASSERT_EQ(qfi_op_refresh_tree(tree), 0) << last_error();
    EXPECT_EQ(tree->fid_children->fid_children, kept);
    EXPECT_EQ(kept->fid_siblings, nullptr);
    std::filesystem::remove_all(other);
    EXPECT_EQ(qfi_op_refresh_tree(tree), 1025);
    EXPECT_EQ(last_error(), "qzfi_refresh_tree: every object: No such file or directory (2)");
    EXPECT_EQ(tree->fid_children->fid_children, kept) << "a refresh that fails changes nothing";
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Life, an_object_that_is_swapped_for_a_link_is_not_frozen) {
    qfi_domain *const tree = tree_in(QFI_TREE_QUIESCED);
    std::filesystem::rename(object_, path("elsewhere"));
    std::filesystem::create_directory_symlink(path("elsewhere"), object_);
    EXPECT_EQ(qfi_op_split(tree, nullptr, nullptr), 1038);
    EXPECT_EQ(last_error(), "qzfi_split: " + object_ + " leaves its place: " + object_ + " is a symbolic link");
    EXPECT_TRUE(names_in(copy_store() + "/images").empty());
    EXPECT_EQ(qfi_op_unquiesce(tree), 0) << "nothing is left to do";
    EXPECT_EQ(qfi_op_unquiesce(tree), 1027);
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

// Whoever may rename a folder on the way would have another's tree frozen under the object's name.
TEST_F(Life, an_object_below_a_folder_that_is_swapped_for_a_link_is_not_frozen) {
    const std::string way = path("way"), secret = path("secret");
    std::filesystem::create_directories(way + "/object");
    std::filesystem::create_directories(secret + "/object");
    write_file(secret + "/object/file", "not to be read");
    qfi_domain *const tree = tree_of({way + "/object"});
    ASSERT_EQ(qfi_op_select(tree, nullptr, "copy", nullptr), 0) << last_error();
    ASSERT_EQ(qfi_op_prepare(tree, 0, nullptr, nullptr), 0) << last_error();
    std::filesystem::rename(way, path("elsewhere"));
    std::filesystem::create_directory_symlink(secret, way);
    ASSERT_EQ(qfi_op_quiesce(tree), 1038);
    EXPECT_EQ(last_error(), "qzfi_quiesce: " + way + "/object leaves its place: " + way + " is a symbolic link");
    qfi_op_detach(tree, nullptr, 0, nullptr);
    EXPECT_TRUE(names_in(copy_store() + "/images").empty());
}

TEST_F(Life, the_status_of_an_operation_can_be_asked_for) {
    qfi_domain *const tree = tree_in(QFI_TREE_FROZEN);
    auto status = sized_record<qfi_operation_status>();
    ASSERT_EQ(qfi_op_get_status(tree, &status), 0) << last_error();
    EXPECT_EQ(status.running, 0);
    EXPECT_EQ(status.status, 0);
    EXPECT_STREQ(status.operation, "unquiesce");
    EXPECT_EQ(qfi_op_quiesce(tree), 1027);
    EXPECT_EQ(qfi_op_set_op_status(tree, 7), 0);
    ASSERT_EQ(qfi_op_get_status(tree, &status), 0);
    EXPECT_STREQ(status.operation, "quiesce");
    EXPECT_EQ(status.status, 1027);
    EXPECT_EQ(status.caller_status, 7);
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Life, objects_of_a_tree_have_information_and_a_status_that_lasts) {
    qfi_domain *tree = tree_in(QFI_TREE_FROZEN);
    qfi_component_info info{};
    auto request = sized_record<qfi_component_request>();
    request.tree = tree;
    request.infos = &info;
    ASSERT_EQ(qfi_op_get_component_info(&request, 1), 0) << last_error();
    EXPECT_EQ(info.object, object_);
    EXPECT_STREQ(info.provider, "copy");
    EXPECT_EQ(read_file(std::string(info.image) + "/file"), "content of object");
    EXPECT_EQ(info.status, 0);
    EXPECT_EQ(qfi_op_get_component_info(&request, 2), 3);
    ASSERT_EQ(qfi_op_set_comp_status(tree, 0, "saved", 42), 0) << last_error();
    EXPECT_EQ(qfi_op_set_comp_status(tree, 1, "saved", 42), 3);
    EXPECT_EQ(last_error(), "qzfi_set_comp_status: invalid argument: the tree has no object of this index");
    const std::string id = names_in(copy_store() + "/images").at(0);
    qfi_op_detach(tree, nullptr, 0, nullptr);
    tree = nullptr;
    ASSERT_EQ(qfi_op_reaccess_tree(nullptr, &tree, id.c_str(), nullptr, nullptr, 0), 0) << last_error();
    char *text = nullptr;
    ASSERT_EQ(qfi_op_get_app_status(tree, 0, &text), 0);
    EXPECT_STREQ(text, "saved");
    qfi_op_free_buffer(text);
    request.tree = tree;
    ASSERT_EQ(qfi_op_get_component_info(&request, 1), 0);
    EXPECT_EQ(info.status, 42);
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Life, open_trees_are_listed_and_shutdown_lets_go_of_them) {
    qfi_domain *const tree = tree_in(QFI_TREE_PREPARED);
    qfi_domain **trees = nullptr;
    int32_t count = 0;
    ASSERT_EQ(qfi_op_get_active_resources(&trees, &count), 0);
    ASSERT_EQ(count, 1);
    EXPECT_EQ(trees[0], tree);
    qfi_op_free_resource_list(trees, count);
    EXPECT_EQ(names_in(copy_store() + "/images").size(), 1u) << "an image in the making";
    stop();
    EXPECT_TRUE(names_in(copy_store() + "/images").empty());
    start();
    ASSERT_EQ(qfi_op_get_active_resources(&trees, &count), 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(trees, nullptr);
}

TEST_F(Life, statuses_have_texts) {
    const char *text = nullptr;
    EXPECT_EQ(qzfiapi_errmsg(1024, &text), 0u);
    EXPECT_STREQ(text, "No such image");
    EXPECT_EQ(qzfiapi_errmsg(1042, &text), 0u);
    EXPECT_STREQ(text, "No such provider");
    EXPECT_EQ(qzfiapi_errmsg(1035 | QFI_STATUS_LOCALIZED, &text), 0u);
    EXPECT_STREQ(text, "Cancelled") << "without a translation";
    const char *again = nullptr;
    EXPECT_EQ(qzfiapi_errmsg(1035 | QFI_STATUS_LOCALIZED, &again), 0u);
    EXPECT_EQ(again, text);
    EXPECT_EQ(qzfiapi_errmsg(1043, &text), 3u);
    EXPECT_EQ(qzfiapi_errmsg(2047, &text), 3u);
}

TEST_F(Life, an_error_is_handed_out_once_and_turned_into_text) {
    qfi_domain *tree = nullptr;
    EXPECT_EQ(qfi_op_gentree(nullptr, 1, nullptr, &tree), 3);
    qfi_error_info *error = nullptr, *again = nullptr;
    ASSERT_EQ(qfi_op_del_last_error(&error), 0);
    ASSERT_NE(error, nullptr);
    EXPECT_STREQ(error->message_id, "MSG_QFI_E2003");
    EXPECT_EQ(error->status, 3);
    EXPECT_EQ(qfi_op_get_last_error(&again), 0);
    EXPECT_EQ(again, nullptr);
    char *english = nullptr, *localized = nullptr;
    ASSERT_EQ(qfi_op_get_locale_message(error, &english, &localized), 0);
    EXPECT_STREQ(english, "qzfi_gentree: invalid argument: objects is null\n");
    EXPECT_EQ(localized, nullptr);
    qfi_op_del_locale_message(english);
    EXPECT_EQ(qfi_op_get_locale_message(nullptr, &english, nullptr), 3);
}

TEST_F(Life, buffers_are_zero_filled_and_credentials_are_kept) {
    void *buffer = nullptr;
    ASSERT_EQ(qfi_op_alloc_buffer(16, &buffer), 0);
    EXPECT_EQ(std::string(static_cast<char *>(buffer), 16), std::string(16, '\0'));
    EXPECT_EQ(qfi_op_free_buffer(buffer), 0);
    EXPECT_EQ(qfi_op_alloc_buffer(UINT64_MAX / 2, &buffer), 5);
    EXPECT_EQ(last_error(), "qzfi_alloc_buffer: out of memory");
    char *text = nullptr;
    ASSERT_EQ(qfi_op_set_credentials(nullptr, 0, 0, "secret"), 0);
    ASSERT_EQ(qfi_op_get_credentials(nullptr, 0, 0, &text), 0);
    EXPECT_STREQ(text, "secret");
    qfi_op_free_buffer(text);
    ASSERT_EQ(qfi_op_set_credentials(nullptr, 0, 0, nullptr), 0);
    ASSERT_EQ(qfi_op_get_credentials(nullptr, 0, 0, &text), 0);
    EXPECT_EQ(text, nullptr);
}

TEST_F(Life, the_library_has_every_entry_of_the_table) {
    void *const library = dlopen(FI_LIBRARY, RTLD_LAZY);
    ASSERT_NE(library, nullptr) << dlerror();
    int count = 0;
#define QZFI_ENTRY(slot, name, ...)                                                                                    \
    EXPECT_NE(dlsym(library, "qzfi_" #name), nullptr) << #name;                                                        \
    ++count;
#define QZFI_OWN QZFI_ENTRY
#define QZFI_SPARE QZFI_ENTRY
#define QZFI_OPERATION QZFI_ENTRY
#define QZFI_TREE QZFI_ENTRY
#define QZFI_ALIAS(slot, name, ...)
#include <qzfi/operations.def>
    EXPECT_EQ(count, 91);
    EXPECT_NE(dlsym(library, "fi_get_pgn"), nullptr);
    dlclose(library);
}

} // namespace
