// What hosts ask of trees and their nodes.
#pragma once

#include "fi/fi_tree.h"

namespace qzfi::fi {

/// The combinations of a tree, one block: each file system's, the best first.
qfi_qs_combo *give_combos(const Tree &tree, const char *store, const char *operation);
/// What a combination of this tree that the host gave back means; throws for one that is none.
struct Choice {
    TreeFilesystem *filesystem;
    const Provider *provider;
    std::string store;
};
Choice choice_of(Tree &tree, const qfi_qs_combo &combo, const char *operation);

void set_option(FreezeOptions &options, std::string_view key, const char *value, const char *operation);
/// Why the tree cannot be prepared, or frozen, now: a line for each file system that cannot. Counts those that can.
std::string obstacles(const Tree &tree, int32_t &able, const char *operation);

void read_attributes(const NodePlace &place, qfi_attr &attributes, const char *operation);
/// Throws status 4 for a text that the node has not, 3 for one that does not exist.
std::string read_text(const NodePlace &place, std::string_view name, const char *operation);
/// The path of an object's frozen image, or of something in it.
std::string image_path(const NodePlace &place, const char *subpath, const char *operation);

/// Whether a tree still stands for what is there.
bool is_valid(const Tree &tree);
/// Looks at the objects again.
void refresh(Tree &tree, const char *operation);

/// The object of a tree by its index over all file systems; throws for an index that is none.
struct ObjectPlace {
    TreeFilesystem *filesystem;
    std::size_t object;
};
ObjectPlace object_at(Tree &tree, int32_t index, const char *operation);

} // namespace qzfi::fi
