// Places in an image's tree: its objects, and what lies below them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/qzfi/commands.h"

namespace qzfi::tool {

/// One of the texts of `qfi_op_getattr`.
std::string node_text(const qfi_domain *node, const char *name);

/// The object nodes of a tree, in its order.
std::vector<const qfi_domain *> object_nodes(const qfi_domain *tree);

/// An entry of an image: the object's node, and the path below it, "" for the object itself.
struct Place {
    const qfi_domain *object;
    std::string below;
};

/// The path of a place in the original.
std::string path_in_original(const Place &place);

/// How the user names a place.
struct PlaceName {
    std::string file;    ///< below the object; or, absolute, the original's path; "" for the object itself
    uint32_t object = 0; ///< which one, from 1 on; 0 when `file` tells, or there is only one
};

/// Finds a place; that an entry is there is not looked at. Throws Failure when it cannot be told which is meant.
Place find_place(const qfi_domain *tree, const PlaceName &name);

/// How the library is told of a place in a tree: below its one object, or by the original's whole path.
std::string part_name(const qfi_domain *tree, const Place &place);

/// A path without links, dots and slashes at its end; of what is not there as far as it goes. Throws Failure, so that
/// one that cannot be looked at never passes for none.
std::string resolved_path(const std::string &given);

/// True for the path itself and what lies below it.
bool lies_within(const std::string &path, const std::string &directory);

/// The paths of a tree's objects, as in "/a and /b" or "/a, /b and 3 more".
std::string objects_text(const qfi_domain *tree);

/// Adds the option --object.
void add_object(Arguments &command, uint32_t &object);

} // namespace qzfi::tool
