#include "tools/qzfi/trees.h"

#include "tools/qzfi/text.h"

namespace qzfi::tool {

Tree tree_of(const std::vector<std::string> &paths) {
    std::vector<qfi_object> objects;
    objects.reserve(paths.size());
    for (const std::string &path : paths)
        objects.push_back({path.c_str(), nullptr});
    Tree tree;
    check(qfi_op_gentree(objects.data(), static_cast<int32_t>(objects.size()), nullptr, Out(tree)),
          "look at " + joined(paths));
    return tree;
}

} // namespace qzfi::tool
