#include "tools/qzfi/images.h"

#include <array>
#include <cstring>
#include <iostream>
#include <unistd.h>

#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

const char *null_if_empty(const std::string &text) {
    return text.empty() ? nullptr : text.c_str();
}

} // namespace

ImageList all_images(const std::string &store) {
    ImageList list;
    check(qfi_op_snapreplica_list(nullptr, null_if_empty(store), Out(list)),
          store.empty() ? "list the images" : "list the images of store " + store);
    return list;
}

std::string whole_id(const ImageName &name) {
    const ImageList list = all_images(name.store);
    std::string found, others;
    for (const qfi_image_list *node = list.get(); node != nullptr; node = node->next) {
        const qfi_image &image = node->image;
        if (name.id == image.image_id || name.id == image.set_id)
            return name.id;
        if (name.id == "latest") {
            found = image.set_id; // the newest is the last; with it come all that were made together
        } else if (name.id.size() >= 4 && std::strncmp(image.image_id, name.id.c_str(), name.id.size()) == 0) {
            others += found.empty() ? "" : ", " + found;
            found = image.image_id;
        }
    }
    if (!others.empty())
        throw Failure("image " + name.id + ": several ids begin so: " + others.substr(2) + ", " + found);
    // One that is not there is refused by the operation, whose words say where it was looked for.
    return found.empty() ? name.id : found;
}

ImageList find_images(const ImageName &name) {
    const std::string id = whole_id(name);
    ImageList list;
    check(qfi_op_snapreplica_list(id.c_str(), null_if_empty(name.store), Out(list)), "look for image " + id);
    if (!list)
        throw Failure("image " + id + ": " + status_text(QFI_FI_NO_SUCH_IMAGE) + " in " +
                      (name.store.empty() ? "any known store" : "store " + name.store));
    return list;
}

Tree open_tree(const ImageName &name) {
    const std::string id = whole_id(name);
    Tree tree;
    check(qfi_op_reaccess_tree(nullptr, Out(tree), id.c_str(), null_if_empty(name.store), nullptr, 0),
          "open image " + id);
    return tree;
}

const char *remark_name(uint32_t kind) {
    constexpr std::array names = {"unknown", "torn", "vanished", "attribute", "skipped", "unreadable", "warning"};
    return kind < names.size() ? names[kind] : names[0];
}

void print_remarks(const qfi_report &report) {
    for (uint64_t index = 0; index < report.shown; ++index) {
        const qfi_report_item &item = report.items[index];
        std::string line = std::string(remark_name(item.kind)) + ": " + item.object;
        if (*item.path != '\0')
            line += std::string("/") + item.path;
        line += std::string(": ") + item.detail;
        if (item.error != 0)
            line += std::string(": ") + std::strerror(item.error);
        std::cerr << printable(line) << '\n';
    }
    if (report.count > report.shown)
        std::cerr << grouped(report.count - report.shown) << " more remarks\n";
}

bool confirm(const std::string &question, bool assume_yes) {
    if (assume_yes)
        return true;
    if (isatty(STDIN_FILENO) != 1)
        throw Failure(question + " Nobody can be asked here: say --yes", exit_usage);
    std::cerr << question << " [y/N] " << std::flush;
    std::string answer;
    return std::getline(std::cin, answer) && (answer == "y" || answer == "Y" || answer == "yes");
}

} // namespace qzfi::tool
