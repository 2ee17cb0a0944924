// Lists, stores, what is said of images, and operations that file systems have no means for.
#include "images_support.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <qzfi_provider.h>

namespace images {
namespace {

using Lists = Images;
INSTANTIATE_TEST_SUITE_P(On, Lists, testing::Values("copy", "ext4", "xfs", "btrfs"), name_of);

TEST_P(Lists, providers_the_best_first_and_refused_plugins_with_the_reason) {
    const fs::path plugins = top / "plugins";
    fs::create_directory(plugins);
    for (const char *const name : {"btrfs", "copy", "reflink"})
        fs::copy_file(std::string(FI_PLUGINS) + "qzfi_provider_" + name + ".so",
                      plugins / ("qzfi_provider_" + std::string(name) + ".so"));
    write_file(plugins / "qzfi_provider_broken.so", "no library");
    stop();
    start();
    setenv("QFI_DIR", (plugins.string() + "/").c_str(), 1);
    qfi_provider_list *list = nullptr;
    ASSERT_EQ(qfi_op_enumerate_providers(&list), 0) << last_error();
    std::vector<std::string> ids;
    std::string reason;
    for (const qfi_provider_list *node = list; node != nullptr; node = node->next) {
        const qfi_provider &provider = node->provider;
        if (provider.type == QFI_PROVIDER_REFUSED)
            reason = std::string(provider.provider_id) + ": " + provider.texts[0];
        else
            ids.push_back(provider.provider_id);
    }
    EXPECT_EQ(ids, (std::vector<std::string>{"btrfs", "reflink", "copy"}));
    EXPECT_EQ(reason.rfind("qzfi_provider_broken.so: ", 0), 0u) << reason;
    EXPECT_GT(reason.size(), std::string("qzfi_provider_broken.so: ").size());
    EXPECT_EQ(qfi_op_free_providers_list(list), 0);
    EXPECT_EQ(qfi_op_free_providers_list(nullptr), 0);
}

TEST_P(Lists, methods_of_all_providers_and_of_one) {
    qfi_fim_list *list = nullptr;
    ASSERT_EQ(qfi_op_enumerate_fims(&list), 0) << last_error();
    std::vector<std::string> ids;
    for (const qfi_fim_list *node = list; node != nullptr; node = node->next)
        ids.push_back(node->fim.fim_id);
    EXPECT_EQ(ids, (std::vector<std::string>{"btrfs", "reflink", "copy"}));
    EXPECT_EQ(list->fim.consistency, static_cast<uint32_t>(QFI_CONSISTENCY_ATOMIC));
    EXPECT_EQ(list->fim.technology, static_cast<uint32_t>(QFI_TECHNOLOGY_SNAPSHOT));
    qfi_op_free_fim_list(list);
    list = nullptr;
    ASSERT_EQ(qfi_op_enumerate_provider_fims("copy", &list), 0);
    EXPECT_STREQ(list->fim.provider_id, "copy");
    EXPECT_EQ(list->next, nullptr);
    qfi_op_free_fim_list(list);
    EXPECT_EQ(qfi_op_enumerate_provider_fims("none", &list), QFI_FI_NO_SUCH_PROVIDER);
    EXPECT_EQ(last_error(), "qzfi_enumerate_provider_fims: no provider named none is loaded\n");
    EXPECT_EQ(list, nullptr);
}

TEST_P(Lists, nodes_are_the_file_systems_that_can_be_frozen) {
    const std::string type = GetParam();
    if (type == "copy")
        GTEST_SKIP() << "needs a file system of its own";
    qfi_node_list *list = nullptr;
    ASSERT_EQ(qfi_op_enumerate_nodes(top.c_str(), nullptr, 0, &list), 0) << last_error();
    std::vector<std::string> providers;
    for (const qfi_node_list *node = list; node != nullptr; node = node->next) {
        EXPECT_EQ(node->node.uid, top.string());
        EXPECT_EQ(static_cast<const char *>(node->node.objid->vid_name), top.string());
        EXPECT_GT(node->node.size, 100u << 20);
        providers.push_back(node->node.provider_id);
    }
    const std::vector<std::string> expected = type == "btrfs" ? std::vector<std::string>{"btrfs", "reflink", "copy"}
                                              : type == "xfs" ? std::vector<std::string>{"reflink", "copy"}
                                                              : std::vector<std::string>{"copy"};
    EXPECT_EQ(providers, expected);
    qfi_op_free_node_list(list);
    ASSERT_EQ(qfi_op_enumerate_provider_nodes("copy", nullptr, nullptr, 0, &list), 0);
    bool is_there = false;
    for (const qfi_node_list *node = list; node != nullptr; node = node->next) {
        is_there = is_there || node->node.uid == top.string();
        EXPECT_STRNE(node->node.uid, "/proc");
    }
    EXPECT_TRUE(is_there);
    qfi_op_free_node_list(list);
    EXPECT_EQ(qfi_op_enumerate_nodes(nullptr, nullptr, 1, &list), QFI_STATUS_INVALID_ARGUMENT);
}

TEST_P(Lists, what_holds_the_kernels_mount_points_is_no_node) {
    if (std::string(GetParam()) == "copy")
        GTEST_SKIP() << "needs a private mount namespace";
    const fs::path kernel = top / "sys", folder = kernel / "kernel", beside = top / "system";
    fs::create_directory(kernel);
    fs::create_directory(beside);
    ASSERT_EQ(mount("sysfs", kernel.c_str(), "sysfs", MS_RDONLY, nullptr), 0) << std::strerror(errno);
    ASSERT_EQ(mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=1m"), 0) << std::strerror(errno);
    ASSERT_EQ(mount("tmpfs", beside.c_str(), "tmpfs", 0, "size=1m"), 0) << std::strerror(errno);
    for (const auto &[place, is_listed] : {std::pair{kernel, false}, {folder, false}, {beside, true}}) {
        qfi_node_list *list = nullptr;
        EXPECT_EQ(qfi_op_enumerate_nodes(place.c_str(), nullptr, 0, &list), 0) << last_error();
        EXPECT_EQ(list != nullptr, is_listed) << place;
        qfi_op_free_node_list(list);
    }
    umount2(beside.c_str(), MNT_DETACH);
    umount2(kernel.c_str(), MNT_DETACH);
}

TEST_P(Lists, group_nodes_and_enclosures_are_disks) {
    if (std::string(GetParam()) == "copy")
        GTEST_SKIP() << "needs a disk of its own";
    qfi_group_node_list *groups = nullptr;
    ASSERT_EQ(qfi_op_enumerate_provider_group_nodes("copy", &groups), 0) << last_error();
    std::string disk;
    for (const qfi_group_node_list *node = groups; node != nullptr; node = node->next)
        for (const qfi_nodeid *member = node->group_node.members; member != nullptr; member = member->next)
            if (member->uid == top.string())
                disk = node->group_node.uid;
    EXPECT_EQ(disk.rfind("loop", 0), 0u) << disk;
    qfi_op_free_group_node_list(groups);
    qfi_enclosure_list *enclosures = nullptr;
    ASSERT_EQ(qfi_op_enumerate_enclosures(nullptr, nullptr, &enclosures), 0) << last_error();
    bool is_there = false;
    for (const qfi_enclosure_list *node = enclosures; node != nullptr; node = node->next) {
        if (node->enclosure.enclosure_id != disk)
            continue;
        is_there = true;
        EXPECT_EQ(node->enclosure.name, "/dev/" + disk);
        EXPECT_GE(node->enclosure.capacity, 160u << 20);
        EXPECT_GT(node->enclosure.available, 0u);
        EXPECT_EQ(node->enclosure.state, 1u);
    }
    EXPECT_TRUE(is_there);
    qfi_op_free_enclosures(enclosures);
}

TEST_P(Lists, a_file_system_that_is_mounted_twice_is_counted_once_in_its_enclosure) {
    if (std::string(GetParam()) != "btrfs")
        GTEST_SKIP() << "only Btrfs mounts parts of itself that tell other ids";
    LoopFilesystem disk("btrfs", 128);
    run({"btrfs", "subvolume", "create", fs::path(disk.path()) / "volume"});
    const auto available = [&] {
        qfi_enclosure_list *enclosures = nullptr;
        EXPECT_EQ(qfi_op_enumerate_enclosures(nullptr, nullptr, &enclosures), 0) << last_error();
        uint64_t bytes = 0;
        for (const qfi_enclosure_list *node = enclosures; node != nullptr; node = node->next)
            if (node->enclosure.name == disk.device())
                bytes += node->enclosure.available;
        qfi_op_free_enclosures(enclosures);
        return bytes;
    };
    const uint64_t before = available();
    EXPECT_GT(before, 0u);
    const fs::path second = top / "second";
    fs::create_directory(second);
    run({"mount", "-o", "subvol=volume", disk.device(), second});
    EXPECT_EQ(available(), before);
    run({"umount", second});
}

TEST_P(Lists, hosts_are_this_one) {
    utsname name{};
    uname(&name);
    qfi_host_list *list = nullptr;
    ASSERT_EQ(qfi_op_enumerate_host_nodes(nullptr, nullptr, &list), 0);
    EXPECT_STREQ(list->host.name, name.nodename);
    EXPECT_STREQ(list->host.texts[1], name.release);
    EXPECT_EQ(list->next, nullptr);
    qfi_op_free_host_nodes(list);
}

TEST_P(Lists, associations_join_objects_and_their_images) {
    const Tree tree = freeze({object}, store);
    qfi_assoc_list *list = nullptr;
    ASSERT_EQ(qfi_op_get_associated_nodes(object.c_str(), &list), 0) << last_error();
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->next, nullptr);
    EXPECT_EQ(list->assoc.first.uid, object.string());
    EXPECT_EQ(list->assoc.second.uid, tree.image_path());
    int32_t valid = 0;
    EXPECT_EQ(qfi_op_isvalid_node_association(&list->assoc, &valid), 0);
    EXPECT_EQ(valid, 1);
    const std::string provider = list->assoc.first.provider_id;
    qfi_assoc_list *same = nullptr;
    ASSERT_EQ(qfi_op_enumerate_provider_associations(provider.c_str(), &same), 0);
    ASSERT_NE(same, nullptr);
    EXPECT_EQ(same->assoc.second.uid, tree.image_path());
    qfi_op_free_assoc_list(same);
    Tree again = Tree::of_image(tree.image_id(), store);
    ASSERT_EQ(qfi_op_detach(again.get(), nullptr, QFI_DETACH_REMOVE, nullptr), 0) << last_error();
    *&again = nullptr;
    EXPECT_EQ(qfi_op_isvalid_node_association(&list->assoc, &valid), 0);
    EXPECT_EQ(valid, 0);
    qfi_op_free_assoc_list(list);
    ASSERT_EQ(qfi_op_enumerate_associations(&list), 0);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(qfi_op_enumerate_provider_associations("none", &list), QFI_FI_NO_SUCH_PROVIDER);
    EXPECT_EQ(last_error(), "qzfi_enumerate_provider_associations: no provider named none is loaded\n");
    ASSERT_EQ(qfi_op_enumerate_provider_associations("copy", &list), 0);
    EXPECT_EQ(list, nullptr);
}

TEST_P(Lists, trees_of_all_images_the_oldest_first) {
    const Tree first = freeze({object}, store), second = freeze({object}, store);
    qfi_domain_tree_list_t *list = nullptr;
    ASSERT_EQ(qfi_op_enumerate_trees(&list), 0) << last_error();
    std::vector<std::string> paths;
    for (const qfi_domain_tree_list_t *node = list; node != nullptr; node = node->next) {
        const qfi_domain *const image = node->domain->fid_children->fid_children->fid_altnode;
        ASSERT_NE(image, nullptr);
        paths.push_back(static_cast<const char *>(image->objid->vid_name));
    }
    EXPECT_EQ(paths, (std::vector<std::string>{first.image_path(), second.image_path()}));
    qfi_domain *const listed = list->domain;
    EXPECT_EQ(qfi_op_free_tree_list(list), 0);
    EXPECT_EQ(qfi_op_resync(listed, nullptr, nullptr), QFI_STATUS_INVALID_ARGUMENT);
}

TEST_P(Lists, images_of_a_store_and_of_a_set_with_all_that_is_known_of_them) {
    Tree tree({object});
    qfi_freeze_options options;
    QFI_INIT(options);
    options.label = "weekly";
    options.store = store.c_str();
    options.digest = 1;
    ASSERT_EQ(qfi_op_make(tree.get(), &options, nullptr), 0) << last_error();
    const std::string id = tree.image_id();
    char *set_id = nullptr;
    ASSERT_EQ(qfi_op_getSnapshotSetId(id.c_str(), &set_id), 0) << last_error();
    qfi_image_list *list = nullptr;
    ASSERT_EQ(qfi_op_snapreplica_list(set_id, nullptr, &list), 0);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->next, nullptr);
    EXPECT_EQ(list->image.image_id, id);
    EXPECT_STREQ(list->image.set_id, set_id);
    EXPECT_STREQ(list->image.label, "weekly");
    EXPECT_EQ(list->image.store, store.string());
    EXPECT_EQ(list->image.state, 1u);
    EXPECT_EQ(list->image.has_digests, 1u);
    EXPECT_EQ(list->image.backed_up, 0u);
    ASSERT_EQ(list->image.object_count, 1u);
    EXPECT_EQ(list->image.objects[0], object.string());
    EXPECT_EQ(differences(object, list->image.paths[0]), "");
    EXPECT_GT(list->image.time.qzfi_sec, 2208988800u + 1700000000u);
    qfi_op_free_snapreplica_list(list);
    ASSERT_EQ(qfi_op_process_backups(tree.get(), "test", nullptr, 0, nullptr), 0) << last_error();
    int32_t state = 0;
    ASSERT_EQ(qfi_op_query_tree_status(tree.get(), &state, &list), 0);
    EXPECT_EQ(state, QFI_TREE_FROZEN);
    EXPECT_EQ(list->image.backed_up, 2u);
    qfi_op_free_valid_sec_list(list);
    ASSERT_EQ(qfi_op_process_backups(tree.get(), "test", nullptr, 1, nullptr), 0);
    ASSERT_EQ(qfi_op_query_tree_status(tree.get(), nullptr, &list), 0);
    EXPECT_EQ(list->image.backed_up, 1u);
    qfi_op_free_valid_sec_list(list);
    ASSERT_EQ(qfi_op_snapreplica_list("no such set", nullptr, &list), 0);
    EXPECT_EQ(list, nullptr);
    qfi_op_free_buffer(set_id);
}

TEST_P(Lists, a_set_is_named_by_its_id_and_an_image_by_its_own_wherever_either_is_wanted) {
    const Tree other = freeze({object}, store);
    const Tree tree = freeze({object}, store);
    const std::string id = tree.image_id();
    char *text = nullptr;
    ASSERT_EQ(qfi_op_getSnapshotSetId(id.c_str(), &text), 0) << last_error();
    const std::string set_id = text;
    qfi_op_free_buffer(text);
    ASSERT_NE(set_id, id);
    std::string document;
    for (const std::string &name : {id, set_id}) {
        ASSERT_EQ(qfi_op_getSnapshotSetId(name.c_str(), &text), 0) << last_error();
        EXPECT_EQ(text, set_id);
        qfi_op_free_buffer(text);
        for (const char *const in : {static_cast<const char *>(nullptr), store.c_str()}) {
            qfi_image_list *list = nullptr;
            ASSERT_EQ(qfi_op_snapreplica_list(name.c_str(), in, &list), 0) << last_error();
            ASSERT_NE(list, nullptr);
            EXPECT_EQ(list->image.image_id, id);
            EXPECT_EQ(list->next, nullptr);
            qfi_op_free_snapreplica_list(list);
        }
        int32_t imported = 0;
        EXPECT_EQ(qfi_op_is_snap_imported(name.c_str(), &imported), 0);
        EXPECT_EQ(imported, 1);
        qfi_image_ref reference;
        QFI_INIT(reference);
        ASSERT_EQ(qfi_op_update_snapshot_handle(name.c_str(), &reference), 0) << last_error();
        EXPECT_EQ(reference.image_id, name);
        EXPECT_EQ(reference.store, store.string());
        qfi_fiid *fiid = nullptr;
        ASSERT_EQ(qfi_op_fiid_synthesize(&reference, &fiid), 0) << last_error();
        EXPECT_NE(std::string(fiid->document).find("<image id=\"" + id + "\""), std::string::npos);
        EXPECT_EQ(std::string(fiid->document).find(other.image_id()), std::string::npos);
        EXPECT_TRUE(document.empty() || document == fiid->document);
        document = fiid->document;
        qfi_op_free_fiid(fiid);
        EXPECT_EQ(Tree::of_image(name, store).image_id(), id);
    }
    const char *const unknown = "20200101T000000Z-00000000";
    EXPECT_EQ(qfi_op_getSnapshotSetId(unknown, &text), QFI_FI_NO_SUCH_IMAGE);
    int32_t imported = 1;
    EXPECT_EQ(qfi_op_is_snap_imported(unknown, &imported), 0);
    EXPECT_EQ(imported, 0);
}

TEST_P(Lists, a_set_of_several_file_systems_is_found_in_all_its_stores) {
    if (const auto obstacle = LoopFilesystem::obstacle("ext4"))
        GTEST_SKIP() << *obstacle;
    const LoopFilesystem disk("ext4", 64);
    const fs::path second = fs::path(disk.path()) / "object";
    fs::create_directory(second);
    write_file(second / "file", "content");
    Tree tree({object, second});
    ASSERT_EQ(qfi_op_make(tree.get(), nullptr, nullptr), 0) << last_error();
    const std::string id = tree.image_id();
    char *set_id = nullptr;
    ASSERT_EQ(qfi_op_getSnapshotSetId(id.c_str(), &set_id), 0) << last_error();
    qfi_image_ref reference;
    QFI_INIT(reference);
    ASSERT_EQ(qfi_op_update_snapshot_handle(set_id, &reference), 0) << last_error();
    qfi_fiid *made = nullptr, *got = nullptr;
    ASSERT_EQ(qfi_op_fiid_synthesize(&reference, &made), 0) << last_error();
    ASSERT_EQ(qfi_op_get_fiid(tree.get(), &got), 0);
    const auto images_in = [](const char *text) {
        std::size_t count = 0;
        for (const char *at = text; (at = std::strstr(at, "<image ")) != nullptr; ++at)
            ++count;
        return count;
    };
    EXPECT_EQ(images_in(made->document), 2u);
    EXPECT_EQ(images_in(got->document), 2u);
    qfi_op_free_fiid(made);
    qfi_op_free_fiid(got);
    // By its own id an image is one.
    ASSERT_EQ(qfi_op_update_snapshot_handle(id.c_str(), &reference), 0);
    ASSERT_EQ(qfi_op_fiid_synthesize(&reference, &made), 0) << last_error();
    EXPECT_EQ(images_in(made->document), 1u);
    qfi_op_free_fiid(made);
    qfi_op_free_buffer(set_id);
    ASSERT_EQ(qfi_op_detach(tree.get(), nullptr, QFI_DETACH_REMOVE, nullptr), 0) << last_error();
    *&tree = nullptr;
}

TEST_P(Lists, a_path_without_canonical_form_makes_a_document_that_can_be_read_again) {
    const Tree tree = freeze({object}, top / "." / "" / "store");
    qfi_fiid *fiid = nullptr;
    ASSERT_EQ(qfi_op_get_fiid(tree.get(), &fiid), 0) << last_error();
    Tree again;
    EXPECT_EQ(qfi_op_reaccess_tree(fiid, &again, nullptr, nullptr, nullptr, 0), 0) << last_error();
    qfi_op_free_fiid(fiid);
}

TEST_P(Lists, a_document_that_names_a_strange_folder_leaves_nothing_in_it) {
    const fs::path strange = top / "strange";
    fs::create_directory(strange);
    qfi_fiid *fiid = nullptr;
    {
        const Tree tree = freeze({object}, store, "copy");
        ASSERT_EQ(qfi_op_get_fiid(tree.get(), &fiid), 0) << last_error();
        Tree gone = Tree::of_image(tree.image_id(), store);
        ASSERT_EQ(qfi_op_detach(gone.get(), nullptr, QFI_DETACH_REMOVE, nullptr), 0) << last_error();
        *&gone = nullptr;
    }
    std::string text = fiid->document;
    const std::string from = "store=\"" + store.string() + "\"";
    ASSERT_NE(text.find(from), std::string::npos) << text;
    text.replace(text.find(from), from.size(), "store=\"" + strange.string() + "\"");
    qfi_op_free_fiid(fiid);
    const qfi_fiid hostile{text.data(), text.size()};
    qfi_domain *tree = nullptr;
    EXPECT_EQ(qfi_op_reaccess_tree(&hostile, &tree, nullptr, nullptr, nullptr, 0), QFI_FI_NO_SUCH_IMAGE);
    EXPECT_EQ(qfi_op_objctl(nullptr, QFI_OBJCTL_REPAIR, strange.c_str(), nullptr), QFI_FI_STORE);
    EXPECT_TRUE(fs::is_empty(strange));
}

TEST_P(Lists, images_from_which_a_path_can_be_restored_the_newest_first) {
    const Tree first = freeze({object}, store);
    write_file(object / "sub" / "later", "x");
    const Tree second = freeze({object}, store);
    const auto ids = [](const fs::path &path) {
        qfi_image_list *list = nullptr;
        EXPECT_EQ(qfi_op_query_valid_secondaries(path.c_str(), nullptr, &list), 0) << last_error();
        std::vector<std::string> found;
        for (const qfi_image_list *node = list; node != nullptr; node = node->next)
            found.push_back(node->image.image_id);
        qfi_op_free_valid_sec_list(list);
        return found;
    };
    EXPECT_EQ(ids(object), (std::vector<std::string>{second.image_id(), first.image_id()}));
    EXPECT_EQ(ids(object / "sub" / "later"), (std::vector<std::string>{second.image_id()}));
    EXPECT_EQ(ids(top / "objective"), std::vector<std::string>{});
}

TEST_P(Lists, references_are_brought_up_to_date) {
    const Tree tree = freeze({object}, store);
    const std::string id = tree.image_id();
    qfi_image_ref reference;
    QFI_INIT(reference);
    ASSERT_EQ(qfi_op_update_snapshot_handle(id.c_str(), &reference), 0) << last_error();
    EXPECT_EQ(reference.image_id, id);
    EXPECT_EQ(reference.store, store.string());
    qfi_fiid *made = nullptr, *got = nullptr;
    ASSERT_EQ(qfi_op_fiid_synthesize(&reference, &made), 0) << last_error();
    ASSERT_EQ(qfi_op_get_fiid(tree.get(), &got), 0);
    EXPECT_STREQ(made->document, got->document);
    qfi_op_free_fiid(made);
    qfi_op_free_fiid(got);
    const char *const unknown = "20200101T000000Z-00000000";
    EXPECT_EQ(qfi_op_update_snapshot_handle(unknown, &reference), QFI_FI_NO_SUCH_IMAGE);
    EXPECT_EQ(last_error(), "qzfi_update_snapshot_handle: no known store has image " + std::string(unknown) + "\n");
    EXPECT_EQ(reference.image_id, id);
    EXPECT_EQ(qfi_op_update_snapshot_handle("../../etc", &reference), QFI_STATUS_INVALID_ARGUMENT);
}

TEST_P(Lists, stores_with_what_they_hold) {
    const Tree tree = freeze({object}, store);
    const fs::path debris = store / "images" / ".new-20200101T000000Z-00000000";
    fs::create_directories(debris / "objects" / "0");
    qfi_store_status *list = nullptr;
    ASSERT_EQ(qfi_op_query_res_status(nullptr, nullptr, &list), 0) << last_error();
    std::set<std::string> paths;
    for (const qfi_store_status *node = list; node != nullptr; node = node->next) {
        paths.insert(node->path);
        if (node->path != store.string())
            continue;
        EXPECT_EQ(node->state, 0u);
        EXPECT_EQ(node->images, 1u);
        EXPECT_EQ(node->debris, 0u) << "it went when the store was looked into";
        EXPECT_GT(node->capacity, node->available);
        EXPECT_GT(node->available, 0u);
    }
    EXPECT_EQ(paths.count(store), 1u);
    EXPECT_FALSE(fs::exists(debris));
    qfi_op_free_res_status_list(list);
    ASSERT_EQ(qfi_op_query_res_status((top / "none").c_str(), nullptr, &list), 0);
    EXPECT_EQ(list->state, static_cast<uint32_t>(QFI_FI_STORE));
    qfi_op_free_res_status_list(list);
}

TEST_P(Lists, repair_tells_of_images_whose_files_are_missing) {
    const Tree tree = freeze({object}, store, "copy");
    fs::remove_all(store / "images" / tree.image_id());
    qfi_report *report = nullptr;
    ASSERT_EQ(qfi_op_objctl(nullptr, QFI_OBJCTL_REPAIR, store.c_str(), &report), 0) << last_error();
    const Report told(report);
    ASSERT_EQ(told.lines.size(), 1u);
    EXPECT_EQ(told.lines[0].path, tree.image_id());
    EXPECT_EQ(told.lines[0].detail, "the image's files are missing");
    write_file(object / "plain", "mine");
    EXPECT_EQ(qfi_op_restore(tree.get(), nullptr, nullptr), QFI_FI_DAMAGED);
    EXPECT_EQ(content_of(object / "plain"), "mine");
}

TEST_P(Lists, a_store_that_is_forgotten_keeps_its_images) {
    const Tree tree = freeze({object}, store);
    int32_t imported = 0;
    ASSERT_EQ(qfi_op_objctl(nullptr, QFI_OBJCTL_FORGET, store.c_str(), nullptr), 0) << last_error();
    EXPECT_EQ(qfi_op_is_snap_imported(tree.image_id().c_str(), &imported), 0);
    EXPECT_EQ(imported, 0);
    EXPECT_TRUE(fs::exists(tree.image_path()));
    EXPECT_EQ(qfi_op_objctl(nullptr, "dance", store.c_str(), nullptr), QFI_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(last_error(),
              "qzfi_objctl: invalid argument: the commands for a store are \"repair\", \"remember\" and \"forget\"\n");
}

// As when the file system of the store is not mounted.
TEST_P(Lists, a_known_store_that_has_gone_gets_no_second_one_in_its_place) {
    freeze({object}, store);
    const std::string away = top / "away";
    fs::rename(store, away);
    fs::create_directory(store);
    {
        const Tree tree({object});
        qfi_freeze_options options;
        QFI_INIT(options);
        options.store = store.c_str();
        EXPECT_EQ(qfi_op_make(tree.get(), &options, nullptr), QFI_FI_STORE);
        EXPECT_EQ(last_error(),
                  "qzfi_make: store " + store.string() +
                      " cannot be used: it is known, and its catalog is not there: mount its file system, "
                      "or forget it\n");
    }
    EXPECT_TRUE(fs::is_empty(store));
    ASSERT_EQ(qfi_op_objctl(nullptr, QFI_OBJCTL_FORGET, store.c_str(), nullptr), 0) << last_error();
    EXPECT_TRUE(fs::exists(freeze({object}, store).image_path())) << "a new one, as was told";
}

TEST_P(Lists, a_store_that_moved_is_remembered_when_told_to) {
    const Tree tree = freeze({object}, store);
    const std::string id = tree.image_id(), moved = top / "moved";
    fs::rename(store, moved);
    int32_t is_there = -1;
    ASSERT_EQ(qfi_op_is_snap_imported(id.c_str(), &is_there), 0) << last_error();
    EXPECT_EQ(is_there, 0);
    ASSERT_EQ(qfi_op_objctl(nullptr, QFI_OBJCTL_REMEMBER, moved.c_str(), nullptr), 0) << last_error();
    ASSERT_EQ(qfi_op_is_snap_imported(id.c_str(), &is_there), 0) << last_error();
    EXPECT_EQ(is_there, 1);
    EXPECT_EQ(qfi_op_objctl(nullptr, QFI_OBJCTL_REMEMBER, object.c_str(), nullptr), QFI_FI_STORE) << "it is none";
    EXPECT_EQ(qfi_op_objctl(nullptr, QFI_OBJCTL_REMEMBER, nullptr, nullptr), QFI_STATUS_INVALID_ARGUMENT);
    fs::rename(moved, store);
}

TEST_P(Lists, the_stored_report_is_given_again) {
    ASSERT_EQ(mknod((object / "socket").c_str(), S_IFSOCK | 0600, 0), 0);
    const Tree tree = freeze({object}, store, "copy");
    qfi_report *report = nullptr;
    ASSERT_EQ(qfi_op_objctl(tree.get(), QFI_OBJCTL_REPORT, nullptr, &report), 0) << last_error();
    const Report told(report);
    EXPECT_EQ(told.count, 1u);
    EXPECT_EQ(told.entries, zoo_entries);
    EXPECT_EQ(told.lines, (std::vector<Line>{{QFI_REMARK_SKIPPED, object, "socket", "a socket"}}));
}

TEST_P(Lists, operations_on_devices_are_not_supported) {
    const Tree tree = freeze({object}, store, "copy");
    const qfi_domain *const node = tree.get()->fid_children->fid_children;
    const auto expect = [&](const char *name, int32_t status) {
        EXPECT_EQ(status, QFI_STATUS_NOT_SUPPORTED) << name;
        EXPECT_EQ(last_error(), std::string("qzfi_") + name + ": not supported by copy for " + object.string() + "\n");
    };
    expect("online", qfi_op_online(node));
    expect("offline", qfi_op_offline(node));
    expect("format", qfi_op_format(node));
    expect("import_resource", qfi_op_import_resource(node));
    expect("deport_resource", qfi_op_deport_resource(node));
    expect("online_resource", qfi_op_online_resource(node));
    expect("offline_resource", qfi_op_offline_resource(node));
    EXPECT_EQ(qfi_op_online(nullptr), QFI_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(last_error(), "qzfi_online: not supported by file systems for no object\n");
    const qfi_domain stranger{};
    EXPECT_EQ(qfi_op_online(&stranger), QFI_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(last_error(), "qzfi_online: not supported by file systems for an unknown object\n");
}

} // namespace
} // namespace images
