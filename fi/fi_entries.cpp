// Entries of a tree's life, from its objects to its images.
#include "fi/fi_entries.h"

#include <algorithm>

#include "fi/fi_fiid.h"
#include "fi/fi_freeze.h"
#include "fi/fi_queries.h"

using namespace qzfi::fi;

namespace {

constexpr const char *options_size = "the options' size is not set";

void require_empty(const qfi_domain *const *tree, const char *operation) {
    require(tree != nullptr, operation, "tree is null");
    require(*tree == nullptr, operation, "the pointer for the tree is not null");
}

qfi_report *give_split_report(const Tree &tree) {
    uint64_t entries = 0, bytes = 0;
    for (const TreeFilesystem &filesystem : tree.filesystems) {
        entries += filesystem.record.entries;
        bytes += filesystem.record.bytes;
    }
    return give_report(tree.remarks, tree.remark_count, entries, bytes, entries);
}

// The images are there, and a failure would say that they are not: without memory the report is null, and can be had
// later from the images.
qfi_report *report_if_possible(const Tree &tree, const char *operation) {
    try {
        return give_split_report(tree);
    } catch (const std::bad_alloc &) {
        qzfi_tracelog(2, "%s: no memory for the report", operation);
        return nullptr;
    }
}

void fill_split_status(const Tree &tree, qfi_splitstat *status) {
    if (status == nullptr)
        return;
    const auto count = static_cast<int32_t>(tree.filesystems.size());
    *status = qfi_splitstat{};
    status->name.ssn_nnodes = status->config.ssc_nnodes = status->ready.ssr_nnodes = count;
}

// A split that cannot begin has failed, with all that follows from that.
Progress &progress_of_split(TreeLock &tree, const char *operation) {
    try {
        return tree.progress();
    } catch (...) {
        tell_failed_post_command(*tree, operation, abandon(*tree, operation));
        throw;
    }
}

void start_freeze(TreeLock &tree, const qfi_freeze_options *options, const char *operation) {
    if (tree->state >= QFI_TREE_PREPARED) {
        require(options == nullptr, operation, "options for a tree that is prepared already");
        return;
    }
    note_options(*tree, options, operation);
    const char *const fim_id = options != nullptr ? options->fim_id : nullptr;
    const char *const store = options != nullptr ? options->store : nullptr;
    if (fim_id != nullptr || store != nullptr)
        select_best(*tree, fim_id, store, operation);
    else if (tree->state < QFI_TREE_SELECTED)
        select_missing(*tree, operation);
}

void go_on(TreeLock &tree, const char *operation) {
    if (tree->state == QFI_TREE_SELECTED)
        prepare(*tree, operation);
    if (tree->state == QFI_TREE_PREPARED)
        quiesce(*tree, operation);
    if (tree->state == QFI_TREE_QUIESCED)
        split(*tree, progress_of_split(tree, operation), operation);
}

// Before the post command, for the images are there whatever becomes of it; and that is run whatever becomes of this.
void give_document(TreeLock &tree, qfi_fiid *&out, const char *operation) {
    try {
        out = give_fiid(fiid_document(*tree, operation));
    } catch (...) {
        if (tree->state == QFI_TREE_SPLIT)
            unquiesce(*tree, operation);
        throw;
    }
}

void let_go(TreeLock &tree) {
    tree->is_detached = true;
    unregister_tree(&tree->root);
}

} // namespace

int32_t qzfi_gentree(void *objects, int32_t count, void *options, void *tree) {
    constexpr const char *operation = "qzfi_gentree";
    return traced_entry(operation, [&] {
        require(objects != nullptr, operation, "objects is null");
        require(count > 0, operation, "count is below 1");
        const auto *const wanted = sized_or_null<qfi_tree_options>(options, operation, options_size);
        require_unused(wanted == nullptr || wanted->flags == 0, operation);
        auto *const out = static_cast<qfi_domain **>(tree);
        require_empty(out, operation);
        *out = register_tree(tree_of_objects(static_cast<const qfi_object *>(objects), count, operation));
    });
}

int32_t qzfi_analyze(void *node, void *store, void *combos, int32_t flags) {
    constexpr const char *operation = "qzfi_analyze";
    return traced_entry(operation, [&] {
        auto **const out = result_at<qfi_qs_combo *>(combos, operation, "combos is null");
        require_unused(flags == 0, operation);
        TreeLock tree(node_at(node), operation);
        tree.require_state(QFI_TREE_NEW, QFI_TREE_SELECTED);
        *out = give_combos(*tree, static_cast<const char *>(store), operation);
        tree->state = std::max<int32_t>(tree->state, QFI_TREE_ANALYZED);
    });
}

int32_t qzfi_free_combos(void *combos) {
    std::free(combos);
    return QFI_STATUS_OK;
}

int32_t qzfi_select(void *node, void *combo, void *fim_id, void *store) {
    constexpr const char *operation = "qzfi_select";
    return traced_entry(operation, [&] {
        require(combo == nullptr || fim_id == nullptr, operation, "both a combination and a method");
        TreeLock tree(node_at(node), operation);
        tree.require_state(QFI_TREE_NEW, QFI_TREE_SELECTED);
        const auto *const wanted_store = static_cast<const char *>(store);
        if (combo == nullptr)
            return select_best(*tree, static_cast<const char *>(fim_id), wanted_store, operation);
        const Choice choice = choice_of(*tree, *static_cast<const qfi_qs_combo *>(combo), operation);
        select(*tree, *choice.filesystem, *choice.provider, store != nullptr ? wanted_store : choice.store.c_str(),
               operation);
        note_selected(*tree);
    });
}

int32_t qzfi_config(void *node, void *key, int32_t flags, void *value) {
    constexpr const char *operation = "qzfi_config";
    return traced_entry(operation, [&] {
        const char *const name = text_at(key, operation, "key is null");
        require_unused(flags == 0, operation);
        TreeLock tree(node_at(node), operation);
        tree.require_state(QFI_TREE_NEW, QFI_TREE_SELECTED);
        set_option(tree->options, name, static_cast<const char *>(value), operation);
    });
}

int32_t qzfi_pre_prepare(void *node) {
    constexpr const char *operation = "qzfi_pre_prepare";
    return traced_entry(operation, [&] {
        TreeLock tree(node_at(node), operation);
        tree.require_state(QFI_TREE_NEW, QFI_TREE_SELECTED);
        int32_t able = 0;
        const std::string reasons = obstacles(*tree, able, operation);
        if (!reasons.empty())
            fail(message::no_method, QFI_FI_NO_METHOD, operation, {"the tree", reasons});
        if (tree->state == QFI_TREE_SELECTED)
            require_describable(*tree, operation);
    });
}

int32_t qzfi_prepare(void *node, int32_t flags, void *options, void *report) {
    constexpr const char *operation = "qzfi_prepare";
    return traced_entry(operation, [&] {
        auto **const out = result_or_null<qfi_report *>(report);
        require_unused(flags == 0, operation);
        const auto *const wanted = sized_or_null<qfi_freeze_options>(options, operation, options_size);
        TreeLock tree(node_at(node), operation);
        tree.require_state(QFI_TREE_SELECTED, QFI_TREE_SELECTED);
        note_options(*tree, wanted, operation);
        // First, as it may fail: then the tree stays as it was.
        std::unique_ptr<qfi_report, void (*)(void *)> given(out != nullptr ? give_report({}, 0, 0, 0, 0) : nullptr,
                                                            std::free);
        prepare(*tree, operation);
        if (out != nullptr)
            *out = given.release();
    });
}

int32_t qzfi_isready(void *node, void *ready, void *reason) {
    constexpr const char *operation = "qzfi_isready";
    return traced_entry(operation, [&] {
        auto *const out = result_at<qfi_ss_readystat>(ready, operation, "ready is null");
        auto **const why = result_or_null<char *>(reason);
        TreeLock tree(node_at(node), operation, TreeLock::Purpose::look);
        tree.require_state(QFI_TREE_PREPARED, QFI_TREE_PREPARED);
        const std::string reasons = obstacles(*tree, out->ssr_nnodes, operation);
        if (why != nullptr && !reasons.empty())
            *why = give_text(reasons);
    });
}

int32_t qzfi_quiesce(void *node) {
    constexpr const char *operation = "qzfi_quiesce";
    return traced_entry(operation, [&] {
        TreeLock tree(node_at(node), operation);
        tree.require_state(QFI_TREE_PREPARED, QFI_TREE_PREPARED);
        quiesce(*tree, operation);
    });
}

int32_t qzfi_split(void *node, void *status, void *report) {
    constexpr const char *operation = "qzfi_split";
    return traced_entry(operation, [&] {
        auto **const out = result_or_null<qfi_report *>(report);
        TreeLock tree(node_at(node), operation);
        tree.require_state(QFI_TREE_QUIESCED, QFI_TREE_QUIESCED);
        split(*tree, progress_of_split(tree, operation), operation);
        fill_split_status(*tree, static_cast<qfi_splitstat *>(status));
        if (out != nullptr)
            *out = report_if_possible(*tree, operation);
    });
}

int32_t qzfi_unquiesce(void *node) {
    constexpr const char *operation = "qzfi_unquiesce";
    return traced_entry(operation, [&] {
        TreeLock tree(node_at(node), operation);
        const bool has_failed = tree->state == QFI_TREE_SELECTED && tree->has_fallen_back;
        if (!has_failed)
            tree.require_state(QFI_TREE_QUIESCED, QFI_TREE_SPLIT);
        unquiesce(*tree, operation);
    });
}

int32_t qzfi_make(void *node, void *options, void *fiid) {
    constexpr const char *operation = "qzfi_make";
    return traced_entry(operation, [&] {
        auto **const out = result_or_null<qfi_fiid *>(fiid);
        const auto *const wanted = sized_or_null<qfi_freeze_options>(options, operation, options_size);
        TreeLock tree(node_at(node), operation);
        tree.require_state(QFI_TREE_NEW, QFI_TREE_FROZEN);
        start_freeze(tree, wanted, operation);
        go_on(tree, operation);
        if (out != nullptr)
            give_document(tree, *out, operation);
        if (tree->state == QFI_TREE_SPLIT)
            unquiesce(*tree, operation);
    });
}

int32_t qzfi_build_alttree(void *node, void *reserved1, void *reserved2) {
    constexpr const char *operation = "qzfi_build_alttree";
    return traced_entry(operation, [&] {
        require_unused(reserved1 == nullptr && reserved2 == nullptr, operation);
        TreeLock tree(node_at(node), operation);
        tree.require_state(QFI_TREE_SPLIT, QFI_TREE_FROZEN);
        build_image_nodes(*tree);
    });
}

int32_t qzfi_get_fiid(void *node, void *fiid) {
    constexpr const char *operation = "qzfi_get_fiid";
    return traced_entry(operation, [&] {
        auto **const out = result_at<qfi_fiid *>(fiid, operation, "fiid is null");
        TreeLock tree(node_at(node), operation, TreeLock::Purpose::look);
        tree.require_state(QFI_TREE_SPLIT, QFI_TREE_FROZEN);
        *out = give_fiid(fiid_document(*tree, operation));
    });
}

int32_t qzfi_free_fiid(void *fiid) {
    std::free(fiid);
    return QFI_STATUS_OK;
}

int32_t qzfi_detach(void *node, void *reserved, int32_t flags, void *report) {
    constexpr const char *operation = "qzfi_detach";
    return traced_entry(operation, [&] {
        auto **const out = result_or_null<qfi_report *>(report);
        require_unused(reserved == nullptr && (flags & ~QFI_DETACH_REMOVE) == 0, operation);
        TreeLock tree(node_at(node), operation);
        // First, as it may fail: then the tree stays.
        std::unique_ptr<qfi_report, void (*)(void *)> given(out != nullptr ? give_report({}, 0, 0, 0, 0) : nullptr,
                                                            std::free);
        // The application goes on before its image is removed, which may take long.
        const CommandResult *const failed_command = abandon(*tree, operation);
        try {
            if ((flags & QFI_DETACH_REMOVE) != 0 && tree->state != QFI_TREE_REMOVED)
                remove_images(*tree, operation);
        } catch (...) {
            tell_failed_post_command(*tree, operation, failed_command);
            throw;
        }
        let_go(tree);
        if (out != nullptr)
            *out = given.release();
        // The tree is let go of all the same: nothing can be done with it that would run the command again.
        if (failed_command != nullptr)
            fail_post_command(*tree, operation, *failed_command);
    });
}

int32_t qzfi_refresh_tree(void *node, int32_t second, int32_t third, void *fourth, int32_t fifth, void *sixth,
                          void *seventh, int32_t eighth) {
    constexpr const char *operation = "qzfi_refresh_tree";
    return traced_entry(operation, [&] {
        require_unused(second == 0 && third == 0 && fourth == nullptr && fifth == 0 && sixth == nullptr &&
                           seventh == nullptr && eighth == 0,
                       operation);
        TreeLock tree(node_at(node), operation);
        tree.require_state(QFI_TREE_NEW, QFI_TREE_SELECTED);
        refresh(*tree, operation);
    });
}

int32_t qzfi_reaccess_tree(void *fiid, void *tree, void *image_id, void *store, void *reserved, int32_t flags) {
    constexpr const char *operation = "qzfi_reaccess_tree";
    return traced_entry(operation, [&] {
        require_unused(reserved == nullptr && flags == 0, operation);
        auto *const out = static_cast<qfi_domain **>(tree);
        require_empty(out, operation);
        const auto *const document = static_cast<const qfi_fiid *>(fiid);
        require(document == nullptr || document->document != nullptr, operation, "the id document is null");
        require(document != nullptr || image_id != nullptr, operation, "neither an id document nor an id");
        const auto *const path = static_cast<const char *>(store);
        std::shared_ptr<Tree> found =
            document != nullptr
                ? tree_of_document(read_fiid({document->document, document->length}, operation), path, operation)
                : tree_of_image(static_cast<const char *>(image_id), path, operation);
        build_image_nodes(*found);
        *out = register_tree(std::move(found));
    });
}
