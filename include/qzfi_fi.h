/*
 * The contract of the default API implementation library, libfi.so: the types behind the front end's operations, and a
 * typed inline wrapper for each, so that a wrong argument is a compile error.
 *
 * docs/contract.md is the same as one table. Rules that hold for every operation:
 * - Statuses are those of <qzfi/status.h>, or own ones from 1024 on (`qfi_fi_status`). With every failure the calling
 *   thread has an error record that names operation, object and cause (`qfi_op_get_last_error`).
 * - An operation that the provider in charge, or a file system, has no means for returns 4, with such a record.
 * - Texts and records that are given out are copies; each type says which operation releases it.
 * - Thread-safe; calls on the same tree wait for each other. One that is made from within a progress or error handler
 *   waits for no tree, its own operation's included: what is not free is busy (1034).
 * - A tree is used and released by the process that made it: to a forked child it is an invalid argument.
 * - Ids of images are texts such as "20261121T041500Z-8f3a2c1d"; object ids (`qfi_objid_t`) are interned paths.
 */
#ifndef QZFI_FI_H
#define QZFI_FI_H

#include <qzfi.h>
#include <qzfi/fi_types.h>

QZFI_BEGIN_DECLS

/* Trees: from objects to a tree, and the making of an image. */

/** Makes a tree: one node per file system, below it the objects, none of them within another one of the same file
 * system: that gives 3, and what is no directory 1025. Links in their paths are resolved once, here. `*tree` must be
 * null; released by `qfi_op_detach`. */
static inline int32_t qfi_op_gentree(const qfi_object *objects, int32_t count, const qfi_tree_options *options,
                                     qfi_domain **tree) {
    return qzfiapi_gentree((void *)objects, count, (void *)options, (void *)tree);
}
/** Finds what could freeze the tree: a combination for each file system and method, the best first, those that cannot
 * last, with the reason. `store` null is each method's default store. `flags` is 0. Released by `qfi_op_free_combos`.
 */
static inline int32_t qfi_op_analyze(qfi_domain *tree, const char *store, qfi_qs_combo **combos, int32_t flags) {
    return qzfiapi_analyze(tree, (void *)store, (void *)combos, flags);
}
/** Chooses what freezes the tree: a combination (for its file system), or a method by name for all, or, both null, the
 * best for each; 1026 when that cannot, with the reason. `store` null is the method's default store. */
static inline int32_t qfi_op_select(qfi_domain *tree, const qfi_qs_combo *combo, const char *fim_id,
                                    const char *store) {
    return qzfiapi_select(tree, (void *)combo, (void *)fim_id, (void *)store);
}
/** Takes the options, checks space and rights, and makes the place for the images; 1026, 1028 or 1029 when that cannot
 * be, as for an object that is the store into which it would be frozen, or lies in it (1026). `flags` is 0. `*report`,
 * if asked for, is released by `qfi_op_free_report`. */
static inline int32_t qfi_op_prepare(qfi_domain *tree, int32_t flags, const qfi_freeze_options *options,
                                     qfi_report **report) {
    return qzfiapi_prepare(tree, flags, (void *)options, (void *)report);
}
/** Tells whether a prepared tree can be frozen now: `ready->ssr_nnodes` is the number of file systems that can.
 * `*reason` (or null), released by `qfi_op_free_buffer`, says why not all can. */
static inline int32_t qfi_op_isready(qfi_domain *tree, qfi_ss_readystat *ready, char **reason) {
    return qzfiapi_isready(tree, ready, (void *)reason);
}
/** Does all that is left up to the id document: select, prepare, quiesce, split, unquiesce, get_fiid. Both pointers may
 * be null. With 1031, of a post command that failed, the images are there, and the document is given. `*fiid` is
 * released by `qfi_op_free_fiid`. */
static inline int32_t qfi_op_make(qfi_domain *tree, const qfi_freeze_options *options, qfi_fiid **fiid) {
    return qzfiapi_make(tree, (void *)options, (void *)fiid);
}
/** Gives the nodes of a frozen tree their frozen images (`fid_altnode`). `reserved` are null. */
static inline int32_t qfi_op_build_alttree(qfi_domain *tree, void *reserved1, void *reserved2) {
    return qzfiapi_build_alttree(tree, reserved1, reserved2);
}
/** Lets go of a tree; `flags` are `qfi_detach_flags`. With QFI_DETACH_REMOVE its images are removed first; when that
 * fails the tree stays. 1031 when a post command that was still to run failed: the tree is let go of all the same, and
 * its images stay where they were not to be removed. `reserved` is null. `*report`, if asked for, is released by
 * `qfi_op_free_report`. */
static inline int32_t qfi_op_detach(qfi_domain *tree, void *reserved, int32_t flags, qfi_report **report) {
    return qzfiapi_detach(tree, reserved, flags, (void *)report);
}
/** Sets an option of a tree before it is prepared: "label", "pre_command", "post_command", "workers", "digest",
 * "nested". `flags` is 0. */
static inline int32_t qfi_op_config(qfi_domain *tree, const char *key, int32_t flags, const char *value) {
    return qzfiapi_config(tree, (void *)key, flags, (void *)value);
}
/** Gives the id document of a frozen tree. Released by `qfi_op_free_fiid`. */
static inline int32_t qfi_op_get_fiid(qfi_domain *tree, qfi_fiid **fiid) {
    return qzfiapi_get_fiid(tree, (void *)fiid);
}
/** Builds the tree of an image again, from its id document or, `fiid` null, its id; `store` null searches the known
 * stores. A set of which an image is not found gives 1024 and names it (MSG_QFI_E2035); the others are reached by their
 * own ids. `flags` is 0, `reserved` null. */
static inline int32_t qfi_op_reaccess_tree(const qfi_fiid *fiid, qfi_domain **tree, const char *image_id,
                                           const char *store, void *reserved, int32_t flags) {
    return qzfiapi_reaccess_tree((void *)fiid, (void *)tree, (void *)image_id, (void *)store, reserved, flags);
}
/** Reads attributes of a node: sizes of its file system or image in `attr`, or, with `name` not null, one of the texts
 * "path", "type", "filesystem", "device", "mountpoint", "image", "method", "consistency" in `*value`, released by
 * `qfi_op_free_buffer`; 4 for one that the node has not. What is not asked for is null. */
static inline int32_t qfi_op_getattr(const qfi_domain *node, const char *name, qfi_attr *attr, char **value) {
    return qzfiapi_getattr((void *)node, (void *)name, attr, (void *)value);
}
/** Gives the path under which an object's frozen image can be read, whole or at `subpath` (null: whole). 1025 when
 * nothing is there, 1038 when a link on the way would lead out of the image, 1032 when the image's files are missing.
 * Released by `qfi_op_free_buffer`. */
static inline int32_t qfi_op_access(const qfi_domain *node, const char *subpath, char **path) {
    return qzfiapi_access((void *)node, (void *)subpath, (void *)path);
}
/** Exports a tree's images into the new folder `directory` with their id document, and removes them from their store.
 * 4, with nothing changed, when one must be copied to a file system that cannot keep all that it holds (MSG_QFI_E2033).
 * `fiid` may be null; `*fiid` is released by `qfi_op_free_fiid`. */
static inline int32_t qfi_op_deport_tree(qfi_domain *tree, const char *directory, qfi_fiid **fiid) {
    return qzfiapi_deport_tree(tree, (void *)directory, (void *)fiid);
}
/** Takes exported images over into a store (null: the default store), as `qfi_op_set_import_options` says: into
 * `*tree`, which is released by `qfi_op_detach`, or with `tree` null into the store only. `expected` (or null) is the
 * document of the images that must be in the folder, else 1033. Attributes that the store cannot keep are remarks in
 * the images' reports, and the folder stays (MSG_QFI_E2034); entries that it cannot keep fail the import with 4. A
 * folder that cannot be removed afterwards is no failure: the images are in the store, the host's handler is told
 * (MSG_QFI_E2032), and the tree's report (`objctl` "report") has a remark. */
static inline int32_t qfi_op_import_tree(const char *directory, const char *store, const qfi_fiid *expected,
                                         qfi_domain **tree) {
    return qzfiapi_import_tree((void *)directory, (void *)store, (void *)expected, (void *)tree);
}
/** Checks without any effect whether the tree could be prepared. */
static inline int32_t qfi_op_pre_prepare(qfi_domain *tree) {
    return qzfiapi_pre_prepare(tree);
}
/** Flushes the file systems, after the caller's pre command. From here on the post command will run, whatever happens
 * to this process; when this fails (1030 for the pre command, 1031 when the post command cannot be made sure of) it
 * was run already, unless it is what failed, and the tree can be prepared again. */
static inline int32_t qfi_op_quiesce(qfi_domain *tree) {
    return qzfiapi_quiesce(tree);
}
/** The instant: makes the images. `status` (or null) is filled in; `*report` (or null) is released by
 * `qfi_op_free_report`. The images are visible when this returns 0, and not at all otherwise: then the post command
 * was run already, and the tree can be prepared again. */
static inline int32_t qfi_op_split(qfi_domain *tree, qfi_splitstat *status, qfi_report **report) {
    return qzfiapi_split(tree, status, (void *)report);
}
/** Runs the post command; to be called whatever became of the split. After a failed quiesce or split it only tells how
 * the post command ended. 1031 when it failed: what was split is frozen all the same. */
static inline int32_t qfi_op_unquiesce(qfi_domain *tree) {
    return qzfiapi_unquiesce(tree);
}
/** Updates a tree that was not frozen yet: objects that are gone leave it, file systems are looked at again. All
 * further arguments are 0 or null. */
static inline int32_t qfi_op_refresh_tree(qfi_domain *tree) {
    return qzfiapi_refresh_tree(tree, 0, 0, 0, 0, 0, 0, 0);
}
/** Tells whether a tree is one of this library's and still stands for what is there: `*valid` 1 or 0. */
static inline int32_t qfi_op_isvalid_tree(const qfi_domain *tree, int32_t *valid) {
    return qzfiapi_isvalid_tree((void *)tree, valid);
}

/* Lists. Each enumeration gives null for an empty list; each list has its release. */

/** Lists the providers. */
static inline int32_t qfi_op_enumerate_providers(qfi_provider_list **list) {
    return qzfiapi_enumerate_providers((void *)list);
}
/** Releases a list of providers. */
static inline int32_t qfi_op_free_providers_list(qfi_provider_list *list) {
    return qzfiapi_free_providers_list(list);
}
/** Nodes (file systems) that a provider can freeze. `uid` null or one node's mount point; `reserved` null; `flags` 0.
 */
static inline int32_t qfi_op_enumerate_provider_nodes(const char *provider_id, const char *uid, void *reserved,
                                                      int32_t flags, qfi_node_list **list) {
    return qzfiapi_enumerate_provider_nodes((void *)provider_id, (void *)uid, reserved, flags, (void *)list);
}
/** Lists the nodes of every provider. */
static inline int32_t qfi_op_enumerate_nodes(const char *uid, void *reserved, int32_t flags, qfi_node_list **list) {
    return qzfiapi_enumerate_nodes((void *)uid, reserved, flags, (void *)list);
}
/** Releases a list of nodes. */
static inline int32_t qfi_op_free_node_list(qfi_node_list *list) {
    return qzfiapi_free_node_list(list);
}
/** Group nodes: disks, with the file systems on them as members. */
static inline int32_t qfi_op_enumerate_provider_group_nodes(const char *provider_id, qfi_group_node_list **list) {
    return qzfiapi_enumerate_provider_group_nodes((void *)provider_id, (void *)list);
}
/** Lists the group nodes of every provider. */
static inline int32_t qfi_op_enumerate_group_nodes(qfi_group_node_list **list) {
    return qzfiapi_enumerate_group_nodes((void *)list);
}
/** Releases a list of group nodes. */
static inline int32_t qfi_op_free_group_node_list(qfi_group_node_list *list) {
    return qzfiapi_free_group_node_list(list);
}
/** Associations: an object and its frozen image, through the method. */
static inline int32_t qfi_op_enumerate_provider_associations(const char *provider_id, qfi_assoc_list **list) {
    return qzfiapi_enumerate_provider_associations((void *)provider_id, (void *)list);
}
/** Lists the associations of every provider's nodes. */
static inline int32_t qfi_op_enumerate_associations(qfi_assoc_list **list) {
    return qzfiapi_enumerate_associations((void *)list);
}
/** Releases a list of associations. */
static inline int32_t qfi_op_free_assoc_list(qfi_assoc_list *list) {
    return qzfiapi_free_assoc_list(list);
}
/** Tells whether an association of nodes is valid. */
static inline int32_t qfi_op_isvalid_node_association(const qfi_assoc *association, int32_t *valid) {
    return qzfiapi_isvalid_node_association((void *)association, valid);
}
/** The associations of one object, given by its path. Released by `qfi_op_free_assoc_list`. */
static inline int32_t qfi_op_get_associated_nodes(const char *path, qfi_assoc_list **list) {
    return qzfiapi_get_associated_nodes((void *)path, (void *)list);
}
/** The trees of all images in the known stores, each as after `qfi_op_build_alttree`, the oldest first. A set of which
 * an image is not found is listed image by image, each with a remark that names what is missing (`objctl` "report"). */
static inline int32_t qfi_op_enumerate_trees(qfi_domain_tree_list_t **list) {
    return qzfiapi_enumerate_trees((void *)list);
}
/** Releases the list and its trees. Called from a handler it waits for none: a tree that an operation works on is no
 * longer the host's either, and goes when that operation ends. */
static inline int32_t qfi_op_free_tree_list(qfi_domain_tree_list_t *list) {
    return qzfiapi_free_tree_list(list);
}
/** Lists the frozen-image methods of one provider. */
static inline int32_t qfi_op_enumerate_provider_fims(const char *provider_id, qfi_fim_list **list) {
    return qzfiapi_enumerate_provider_fims((void *)provider_id, (void *)list);
}
/** Lists the frozen-image methods of every provider. */
static inline int32_t qfi_op_enumerate_fims(qfi_fim_list **list) {
    return qzfiapi_enumerate_fims((void *)list);
}
/** Releases a list of frozen-image methods. */
static inline int32_t qfi_op_free_fim_list(qfi_fim_list *list) {
    return qzfiapi_free_fim_list(list);
}
/** Disks. `reserved` are null. */
static inline int32_t qfi_op_enumerate_enclosures(void *reserved1, void *reserved2, qfi_enclosure_list **list) {
    return qzfiapi_enumerate_enclosures(reserved1, reserved2, (void *)list);
}
/** Releases a list of enclosures. */
static inline int32_t qfi_op_free_enclosures(qfi_enclosure_list *list) {
    return qzfiapi_free_enclosures(list);
}
/** This host. `reserved` are null. */
static inline int32_t qfi_op_enumerate_host_nodes(void *reserved1, void *reserved2, qfi_host_list **list) {
    return qzfiapi_enumerate_host_nodes(reserved1, reserved2, (void *)list);
}
/** Releases a list of hosts. */
static inline int32_t qfi_op_free_host_nodes(qfi_host_list *list) {
    return qzfiapi_free_host_nodes(list);
}
/** Releases combinations of methods. */
static inline int32_t qfi_op_free_combos(qfi_qs_combo *combos) {
    return qzfiapi_free_combos(combos);
}

/* Images. */

/** Information on the objects of a tree's images. `infos` receives at most `count` of them, by object; their texts live
 * as long as the tree. Returns 3 when there are fewer objects. */
static inline int32_t qfi_op_get_component_info(qfi_component_request *request, int32_t count) {
    return qzfiapi_get_component_info(request, count);
}
/** Checks id documents: `results[i]` is 0 for one that is valid and whose image is there, else the status. `flags` is
 * 0; `store` null searches the known stores. */
static inline int32_t qfi_op_process_fiids(int32_t count, int32_t flags, const qfi_fiid *const *fiids, int32_t *results,
                                           const char *store) {
    return qzfiapi_process_fiids(count, flags, (void *)fiids, results, (void *)store);
}
/** Releases an id document. */
static inline int32_t qfi_op_free_fiid(qfi_fiid *fiid) {
    return qzfiapi_free_fiid(fiid);
}
/** Makes an id document from an image's id and store ("" searches the known stores), without its tree; 1024 for a set
 * of which an image is not found. Released by `qfi_op_free_fiid`. */
static inline int32_t qfi_op_fiid_synthesize(const qfi_image_ref *image, qfi_fiid **fiid) {
    return qzfiapi_fiid_synthesize((void *)image, (void *)fiid);
}
/** Restores the objects of a frozen tree as `qfi_restore_options` says; `options` null: whole, in their places.
 * `*report`, if asked for, is given also of a failure, and released by `qfi_op_free_report`. */
static inline int32_t qfi_op_restore(qfi_domain *tree, const qfi_restore_options *options, qfi_report **report) {
    return qzfiapi_restore(tree, (void *)options, (void *)report, 0, 0, 0, 0, 0, 0, 0);
}
/** Makes the originals equal to their images, changing only what differs. Options and report are as for
 * `qfi_op_restore`. */
static inline int32_t qfi_op_resync(qfi_domain *tree, const qfi_restore_options *options, qfi_report **report) {
    return qzfiapi_resync(tree, (void *)options, (void *)report, 0, 0, 0, 0, 0);
}
/** Tells how far the operation that runs on a tree is, or how the last one ended. Does not wait for it. */
static inline int32_t qfi_op_get_status(const qfi_domain *tree, qfi_operation_status *status) {
    return qzfiapi_get_status((void *)tree, status, 0, 0, 0, 0, 0);
}
/** The images from which an object can be restored, the newest first. `reserved` is null. Released by
 * `qfi_op_free_valid_sec_list`. */
static inline int32_t qfi_op_query_valid_secondaries(const char *path, void *reserved, qfi_image_list **list) {
    return qzfiapi_query_valid_secondaries((void *)path, reserved, (void *)list);
}
/** Releases a list of images. */
static inline int32_t qfi_op_free_valid_sec_list(qfi_image_list *list) {
    return qzfiapi_free_valid_sec_list(list, 0);
}
/** Describes a tree: its state (a `qfi_tree_state`), and of a frozen one the images as they are now. Either pointer may
 * be null. Released by `qfi_op_free_valid_sec_list`. */
static inline int32_t qfi_op_query_tree_status(const qfi_domain *tree, int32_t *state, qfi_image_list **image) {
    return qzfiapi_query_tree_status((void *)tree, state, (void *)image);
}
/** The state of stores: `path` null for all that are known. `reserved` is null. Released by
 * `qfi_op_free_res_status_list`. */
static inline int32_t qfi_op_query_res_status(const char *path, void *reserved, qfi_store_status **list) {
    return qzfiapi_query_res_status((void *)path, reserved, (void *)list);
}
/** Releases a list of stores. */
static inline int32_t qfi_op_free_res_status_list(qfi_store_status *list) {
    return qzfiapi_free_res_status_list(list);
}
/** The images of a set, or, `set_id` null, all in `store`, or, both null, all in the known stores; the oldest first.
 * Released by `qfi_op_free_snapreplica_list`. */
static inline int32_t qfi_op_snapreplica_list(const char *set_id, const char *store, qfi_image_list **list) {
    return qzfiapi_snapreplica_list((void *)set_id, (void *)store, (void *)list);
}
/** Releases a list of images. */
static inline int32_t qfi_op_free_snapreplica_list(qfi_image_list *list) {
    return qzfiapi_free_snapreplica_list(list);
}
/** `*imported` is 1 when the image, or each one of the set, is in a known store with its files, else 0. */
static inline int32_t qfi_op_is_snap_imported(const char *image_id, int32_t *imported) {
    return qzfiapi_is_snap_imported((void *)image_id, imported);
}
/** The set of an image; released by `qfi_op_free_buffer`. */
static inline int32_t qfi_op_getSnapshotSetId(const char *image_id, char **set_id) {
    return qzfiapi_getSnapshotSetId((void *)image_id, (void *)set_id);
}
/** Brings a reference up to date: fills in the image and the store that it was found in, "" for a set in several
 * stores. */
static inline int32_t qfi_op_update_snapshot_handle(const char *image_id, qfi_image_ref *image) {
    return qzfiapi_update_snapshot_handle((void *)image_id, image);
}
/** The differences from the images of a tree to those of another one, or, when that was not frozen, to its objects as
 * they are, or, `to` null, to the originals as they are. Objects of the same path are compared; where both trees have
 * one only, those. Released by `qfi_op_free_buffer`. `options` may be null. */
static inline int32_t qfi_op_get_snapdiff(const qfi_domain *from, const qfi_domain *to, const qfi_diff_options *options,
                                          qfi_diff **diff) {
    return qzfiapi_get_snapdiff((void *)from, (void *)to, (void *)options, (void *)diff);
}
/** Does what `command` (`qfi_objctl_command`) says on a tree's images, or, tree null, on a store. The report of
 * "repair" counts debris that was removed (`changed`) and images that the catalog had lost and that were recorded again
 * (`entries`). `*report` (or null) is released by `qfi_op_free_report`. */
static inline int32_t qfi_op_objctl(qfi_domain *tree, const char *command, const char *store, qfi_report **report) {
    return qzfiapi_objctl(tree, (void *)command, (void *)store, (void *)report, 0);
}
/** How later imports of this process behave, until it shuts the library down; `options` null: as at first. All else is
 * 0 or null. */
static inline int32_t qfi_op_set_import_options(const qfi_import_options *options, void *reserved1, int32_t flags,
                                                void *reserved2) {
    return qzfiapi_set_import_options((void *)options, reserved1, flags, reserved2);
}
/** Where the next restore of a tree goes: `count` paths, one for each object; null for the original place. `count` 0:
 * all to their places. */
static inline int32_t qfi_op_set_restorepaths(qfi_domain *tree, const char *const *paths, int32_t count) {
    return qzfiapi_set_restorepaths(tree, (void *)paths, count);
}
/** Files of an image that a backup has to take, as a list of paths, changed since `base` (null: all). Released by
 * `qfi_op_free_buffer`. `flags` is 0. */
static inline int32_t qfi_op_get_backupset(const qfi_domain *tree, int32_t flags, const qfi_domain *base,
                                           int32_t reserved, qfi_diff **files) {
    return qzfiapi_get_backupset((void *)tree, flags, (void *)base, reserved, (void *)files);
}
/** Notes that a backup of the images succeeded or failed (`backed_up` 1 or 0); shown with the image. `consumer` is not
 * kept; `reserved` is null. `*report`, if asked for, is released by `qfi_op_free_report`. */
static inline int32_t qfi_op_process_backups(qfi_domain *tree, const char *consumer, void *reserved, int32_t backed_up,
                                             qfi_report **report) {
    return qzfiapi_process_backups(tree, (void *)consumer, reserved, backed_up, (void *)report);
}
/** Notes the backup status of one object of a tree, by index from 0 over all file systems; `text` may be null. */
static inline int32_t qfi_op_set_comp_status(qfi_domain *tree, int32_t index, const char *text, int32_t status) {
    return qzfiapi_set_comp_status(tree, index, (void *)text, status);
}
/** Reads the text that `qfi_op_set_comp_status` noted, "" before; released by `qfi_op_free_buffer`. */
static inline int32_t qfi_op_get_app_status(const qfi_domain *tree, int32_t index, char **text) {
    return qzfiapi_get_app_status((void *)tree, index, (void *)text);
}
/** Notes the caller's own verdict of the last operation on a tree; `qfi_op_get_status` shows it. */
static inline int32_t qfi_op_set_op_status(qfi_domain *tree, int32_t status) {
    return qzfiapi_set_op_status(tree, status);
}
/** Prefers a method for later selects in this process; null: none. 1026 when no provider offers it. */
static inline int32_t qfi_op_set_fim_name(const char *fim_id) {
    return qzfiapi_set_fim_name((void *)fim_id);
}
/** The open trees of this process: `*count` of them in `*trees`, released by `qfi_op_free_resource_list`. */
static inline int32_t qfi_op_get_active_resources(qfi_domain ***trees, int32_t *count) {
    return qzfiapi_get_active_resources((void *)trees, count, 0, 0, 0);
}
/** Releases such a list, not the trees. */
static inline int32_t qfi_op_free_resource_list(qfi_domain **trees, int32_t count) {
    return qzfiapi_free_resource_list(trees, count);
}

/* Errors, texts, buffers, credentials. */

/** Hands out the calling thread's last error, once; null when there is none. The record is the library's, and stays
 * until it is deleted (`fi_del_error` and its kin). */
static inline int32_t qfi_op_get_last_error(qfi_error_info **error) {
    return qzfiapi_get_last_error((void *)error);
}
/** The same as `qfi_op_get_last_error`. */
static inline int32_t qfi_op_del_last_error(qfi_error_info **error) {
    return qzfiapi_del_last_error((void *)error);
}
/** An error record as text, in English or, `localized` not null, as well in the current language (null when there is no
 * translation). Each is released by `qfi_op_del_locale_message`. */
static inline int32_t qfi_op_get_locale_message(const qfi_error_info *error, char **english, char **localized) {
    return qzfiapi_get_locale_message((void *)error, (void *)english, (void *)localized, 0);
}
/** Releases a text of `qfi_op_get_locale_message`. */
static inline int32_t qfi_op_del_locale_message(char *text) {
    return qzfiapi_del_locale_message(text);
}
/** A zero-filled buffer of `size` bytes. */
static inline int32_t qfi_op_alloc_buffer(uint64_t size, void **buffer) {
    return qzfiapi_alloc_buffer((void *)(uintptr_t)size, (void *)buffer);
}
/** Releases what `qfi_op_alloc_buffer` or another operation gave as a buffer; null is fine. */
static inline int32_t qfi_op_free_buffer(void *buffer) {
    return qzfiapi_free_buffer(buffer);
}
/** Releases a report, as `qfi_op_free_buffer` does. */
static inline int32_t qfi_op_free_report(qfi_report *report) {
    return qzfiapi_free_buffer(report);
}
/** The credential text of this process, as `qzfi_get_credential_blob` gives it; released by `qfi_op_free_buffer`.
 * Numbers are 0, `reserved` null. */
static inline int32_t qfi_op_get_credentials(void *reserved, int32_t number1, int32_t number2, char **text) {
    return qzfiapi_get_credentials(reserved, number1, number2, (void *)text);
}
/** Sets the credential text of this process; null forgets it. Numbers are 0, `reserved` null. */
static inline int32_t qfi_op_set_credentials(void *reserved, int32_t number1, int32_t number2, const char *text) {
    return qzfiapi_set_credentials(reserved, number1, number2, (void *)text);
}

/* Operations on devices. File systems have no means for them: status 4, whatever the arguments. */

/** Brings objects online: not for file systems, always 4. */
static inline int32_t qfi_op_online(const qfi_domain *node) {
    return qzfiapi_online((void *)node, 0, 0, 0);
}
/** Takes objects offline: not for file systems, always 4. */
static inline int32_t qfi_op_offline(const qfi_domain *node) {
    return qzfiapi_offline((void *)node, 0, 0, 0, 0);
}
/** Formats an object: not for file systems, always 4. */
static inline int32_t qfi_op_format(const qfi_domain *node) {
    return qzfiapi_format((void *)node, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
}
/** Takes over a resource that another host deported: not for file systems, always 4. */
static inline int32_t qfi_op_import_resource(const qfi_domain *node) {
    return qzfiapi_import_resource((void *)node, 0, 0, 0, 0, 0, 0);
}
/** Gives up this host's hold of a resource: not for file systems, always 4. */
static inline int32_t qfi_op_deport_resource(const qfi_domain *node) {
    return qzfiapi_deport_resource((void *)node, 0, 0, 0, 0, 0, 0, 0);
}
/** Brings a resource online: not for file systems, always 4. */
static inline int32_t qfi_op_online_resource(const qfi_domain *node) {
    return qzfiapi_online_resource((void *)node, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
}
/** Takes a resource offline: not for file systems, always 4. */
static inline int32_t qfi_op_offline_resource(const qfi_domain *node) {
    return qzfiapi_offline_resource((void *)node, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
}

QZFI_END_DECLS

#endif
