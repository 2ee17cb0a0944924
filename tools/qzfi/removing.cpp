#include "tools/qzfi/removing.h"

namespace qzfi::tool {

void remove_image(const ImageName &name) {
    Tree tree;
    check(qfi_op_reaccess_tree(nullptr, Out(tree), name.id.c_str(), or_null(name.store), nullptr, 0),
          "open image " + name.id);
    check(qfi_op_detach(tree.get(), nullptr, QFI_DETACH_REMOVE, nullptr), "remove image " + name.id);
    (void)tree.release(); // detached
}

} // namespace qzfi::tool
