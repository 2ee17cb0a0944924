// Operations on devices, for which file systems have no means.
#include "fi/fi_unsupported.h"

#include "fi/fi_tree.h"

namespace qzfi::fi {

namespace {

struct Subject {
    std::string provider = "file systems";
    std::string object = "no object";
};

// Whose it would be, when the argument is a node of a tree; it may be anything else.
Subject subject_of(void *argument, const char *operation) {
    Subject subject;
    if (argument == nullptr)
        return subject;
    subject.object = "an unknown object";
    try {
        const Hush hush;
        TreeLock tree(static_cast<const qfi_domain *>(argument), operation, TreeLock::Purpose::look);
        const NodePlace place = place_of(*tree, static_cast<const qfi_domain *>(argument));
        subject.object = "the tree";
        if (place.filesystem == nullptr)
            return subject;
        subject.object = place.object < 0 ? place.filesystem->root
                                          : place.filesystem->objects[static_cast<std::size_t>(place.object)].path;
        if (place.filesystem->provider != nullptr)
            subject.provider = place.filesystem->provider->ops->provider_id;
    } catch (const Failure &) {
        return subject;
    }
    return subject;
}

} // namespace

void fail_unsupported(const char *operation, void *node) {
    const Subject subject = subject_of(node, operation);
    fail(message::not_supported, QFI_STATUS_NOT_SUPPORTED, operation, {subject.provider, subject.object});
}

} // namespace qzfi::fi
