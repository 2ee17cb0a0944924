#include "tools/qzfi/removing.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <thread>

#include "tools/qzfi/done.h"
#include "tools/qzfi/progress.h"
#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

// The images of an image's or a set's id that are there; none where nobody can look.
std::vector<std::string> images_of(const ImageName &name) {
    std::vector<std::string> ids;
    ImageList images;
    (void)qfi_op_snapreplica_list(name.id.c_str(), or_null(name.store), Out(images));
    fi_del_all_errors();
    for (const qfi_image_list *node = images.get(); node != nullptr; node = node->next)
        ids.emplace_back(node->image.image_id);
    return ids;
}

// Somebody else removed it, or is about to: its record goes first.
bool is_gone_soon(const ImageName &name) {
    for (int look = 0; look < 20; ++look) {
        if (images_of(name).empty())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

bool is_of_another(int32_t status) {
    return status == QFI_FI_NO_SUCH_IMAGE || status == QFI_FI_BUSY;
}

// What became of a set of which not all could be removed.
std::vector<std::string> remains(const ImageName &name, const std::vector<std::string> &before) {
    const std::vector<std::string> left = images_of(name);
    std::vector<std::string> gone;
    for (const std::string &id : before)
        if (std::find(left.begin(), left.end(), id) == left.end())
            gone.push_back(id);
    if (gone.empty() || left.empty())
        return {};
    return {"removed: " + joined(gone) + "; left: " + joined(left) + ", to be removed by `qzfi rm` with just that"};
}

} // namespace

int remove_image(const ImageName &name, const Settings &settings, const Removing &how) {
    const std::string action = "remove image " + name.id;
    check_interrupted(action);
    const std::vector<std::string> images = images_of(name);
    try {
        const ShownProgress progress(settings.quiet, "remove");
        Tree tree;
        int32_t status = qfi_op_reaccess_tree(nullptr, Out(tree), name.id.c_str(), or_null(name.store), nullptr, 0);
        if (status == QFI_STATUS_OK)
            status = qfi_op_detach(tree.get(), nullptr, QFI_DETACH_REMOVE, nullptr);
        if (status == QFI_STATUS_OK)
            (void)tree.release(); // detached
        if (how.may_be_gone && is_of_another(status)) {
            std::vector<std::string> causes = take_errors();
            if (!is_gone_soon(name))
                throw Failure(action + ": " + status_text(status), exit_failed, std::move(causes));
            return exit_done;
        }
        check(status, action);
    } catch (const Failure &failure) {
        if (failure.code() == exit_interrupted)
            throw;
        std::vector<std::string> causes = failure.causes();
        for (const std::string &text : remains(name, images))
            causes.push_back(text);
        tell(Failure(failure.what(), failure.code(), std::move(causes)));
        return failure.code();
    }
    if (how.says_so && !settings.quiet) {
        std::cout << "removed " << name.id << '\n';
        tell_unheard("image " + name.id + " is removed");
    }
    return exit_done;
}

} // namespace qzfi::tool
