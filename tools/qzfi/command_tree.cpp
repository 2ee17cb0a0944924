// qzfi tree: the domain tree of an image, with an arrow from each object to its frozen image.
#include <cstring>
#include <iostream>
#include <langinfo.h>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/json.h"
#include "tools/qzfi/places.h"
#include "tools/qzfi/table.h"
#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

struct Options {
    ImageName image;
    bool json = false;
};

struct Lines {
    const char *child, *last_child, *beside, *arrow;
};

Lines lines() {
    if (std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0)
        return {"├── ", "└── ", "│   ", "──▶ "};
    return {"|-- ", "`-- ", "|   ", "--> "};
}

std::string filesystem_text(const qfi_domain *node) {
    return printable(node_text(node, "mountpoint")) + " (" + printable(node_text(node, "filesystem")) + ")  image " +
           node_text(node, "image") + " by " + node_text(node, "method") + ", " + node_text(node, "consistency");
}

void print_objects(const qfi_domain *filesystem, const std::string &indent) {
    const Lines with = lines();
    for (const qfi_domain *object = filesystem->fid_children; object != nullptr; object = object->fid_siblings) {
        const bool is_last = object->fid_siblings == nullptr;
        std::cout << indent << (is_last ? with.last_child : with.child) << printable(node_text(object, "path")) << '\n';
        if (object->fid_altnode != nullptr)
            std::cout << indent << (is_last ? "    " : with.beside) << with.arrow
                      << printable(node_text(object->fid_altnode, "path")) << '\n';
    }
}

void print_tree(const qfi_domain *tree, const std::string &id) {
    const Lines with = lines();
    std::cout << bold(id) << '\n';
    for (const qfi_domain *node = tree->fid_children; node != nullptr; node = node->fid_siblings) {
        const bool is_last = node->fid_siblings == nullptr;
        std::cout << (is_last ? with.last_child : with.child) << filesystem_text(node) << '\n';
        print_objects(node, is_last ? "    " : with.beside);
    }
}

Json json_of_tree(const qfi_domain *tree, const std::string &id) {
    Json filesystems = Json::array();
    for (const qfi_domain *node = tree->fid_children; node != nullptr; node = node->fid_siblings) {
        Json objects = Json::array();
        for (const qfi_domain *object = node->fid_children; object != nullptr; object = object->fid_siblings)
            objects.push_back({{"path", json_text(node_text(object, "path"))},
                               {"image_path", json_text(node_text(object->fid_altnode, "path"))}});
        filesystems.push_back({{"mount_point", json_text(node_text(node, "mountpoint"))},
                               {"type", json_text(node_text(node, "filesystem"))},
                               {"device", json_text(node_text(node, "device"))},
                               {"image", node_text(node, "image")},
                               {"method", node_text(node, "method")},
                               {"consistency", node_text(node, "consistency")},
                               {"objects", std::move(objects)}});
    }
    return {{"id", id}, {"filesystems", std::move(filesystems)}};
}

// An arrow to what is not there would be a lie.
void require_readable(const qfi_domain *tree, const std::string &id) {
    for (const qfi_domain *const object : object_nodes(tree)) {
        Text path;
        check(qfi_op_access(object, nullptr, Out(path)), "find " + node_text(object, "path") + " in image " + id);
    }
}

int run(const Settings &settings, const Options &options) {
    const Session session(settings);
    const ImageName name{whole_id(options.image), options.image.store};
    const Tree tree = open_tree(name);
    check(qfi_op_build_alttree(tree.get(), nullptr, nullptr), "build the tree of image " + name.id);
    require_readable(tree.get(), name.id);
    if (options.json)
        print(json_of_tree(tree.get(), name.id));
    else
        print_tree(tree.get(), name.id);
    return exit_done;
}

} // namespace

void add_tree(CommandLine &line) {
    add_command<Options>(line, "tree", "Draw an image's tree: file systems, objects, and where each one is frozen", run,
                         [](Arguments &command, Options &options) {
                             add_image(command, options.image);
                             add_json(command, options.json);
                         });
}

} // namespace qzfi::tool
