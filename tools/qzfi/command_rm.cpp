// qzfi rm: removes images.
#include <algorithm>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/progress.h"
#include "tools/qzfi/removing.h"
#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

struct Options {
    std::vector<std::string> ids;
    std::string store;
    bool yes = false;
};

// The whole ids, each once. All are found before anything is removed.
std::vector<std::string> whole_ids(const Options &options) {
    std::vector<std::string> ids;
    for (const std::string &given : options.ids) {
        const std::string id = whole_id({given, options.store});
        if (std::find(ids.begin(), ids.end(), id) == ids.end())
            ids.push_back(id);
    }
    return ids;
}

std::string image_text(const std::string &id, const std::string &store) {
    const ImageList images = find_images({id, store});
    std::vector<std::string> objects;
    for (const qfi_image_list *node = images.get(); node != nullptr; node = node->next)
        objects.insert(objects.end(), node->image.objects, node->image.objects + node->image.object_count);
    return id + " of " + time_text(images->image.time) + host_text(images->image) + ", " + joined(objects);
}

std::string question(const std::vector<std::string> &ids, const std::string &store) {
    constexpr std::size_t most = 8;
    if (ids.size() == 1)
        return "Remove image " + image_text(ids.front(), store) + "?";
    std::string text = "Remove " + std::to_string(ids.size()) + " images: ";
    for (std::size_t index = 0; index < std::min(most, ids.size()); ++index)
        text += (index == 0 ? "" : "; ") + image_text(ids[index], store);
    return text + (ids.size() > most ? "; and " + std::to_string(ids.size() - most) + " more?" : "?");
}

int run(const Settings &settings, const Options &options) {
    const Session session(settings);
    const std::vector<std::string> ids = whole_ids(options);
    if (!confirm(question(ids, options.store), options.yes))
        throw Failure((ids.size() > 1 ? "remove images " : "remove image ") + joined(ids) +
                      ": not confirmed, nothing was removed");
    const Interruptible interruptible;
    int code = exit_done;
    for (const std::string &id : ids)
        code = std::max(code, remove_image({id, options.store}, settings, {}));
    return code;
}

} // namespace

void add_rm(CommandLine &line) {
    add_command<Options>(line, "rm", "Remove images", run, [](Arguments &command, Options &options) {
        command.add_option("ID", options.ids, "Ids of images or sets, unique beginnings of them, or \"latest\"")
            .required()
            .not_empty();
        add_store(command, options.store, "Look in this store instead of the known ones");
        add_yes(command, options.yes);
    });
}

} // namespace qzfi::tool
