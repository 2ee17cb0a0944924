#include "tools/qzfi/removing.h"

#include <iostream>

#include "tools/qzfi/progress.h"

namespace qzfi::tool {

int remove_image(const ImageName &name, const Settings &settings, bool says_so) {
    const std::string action = "remove image " + name.id;
    check_interrupted(action);
    try {
        const ShownProgress progress(settings.quiet, "remove");
        Tree tree;
        check(qfi_op_reaccess_tree(nullptr, Out(tree), name.id.c_str(), or_null(name.store), nullptr, 0), action);
        check(qfi_op_detach(tree.get(), nullptr, QFI_DETACH_REMOVE, nullptr), action);
        (void)tree.release(); // detached
    } catch (const Failure &failure) {
        if (failure.code() == exit_interrupted)
            throw;
        tell(failure);
        return failure.code();
    }
    if (says_so && !settings.quiet)
        std::cout << "removed " << name.id << std::endl;
    return exit_done;
}

} // namespace qzfi::tool
