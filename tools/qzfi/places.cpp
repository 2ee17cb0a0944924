#include "tools/qzfi/places.h"

#include <algorithm>
#include <filesystem>

#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

// Without parts that say nothing: slashes at its end and doubled ones, and "."; the slash of "/" stays.
std::string tidy(const std::string &path) {
    std::string result = path.starts_with('/') ? "/" : "";
    for (std::size_t begin = 0, end = 0; end < path.size(); begin = end + 1) {
        end = std::min(path.find('/', begin), path.size());
        if (const std::string name = path.substr(begin, end - begin); !name.empty() && name != ".")
            result += (result.empty() || result == "/" ? "" : "/") + name;
    }
    return result;
}

std::string below(const std::string &path, const std::string &directory) {
    if (path.size() <= directory.size())
        return {};
    return path.substr(directory == "/" ? 1 : directory.size() + 1);
}

} // namespace

std::string node_text(const qfi_domain *node, const char *name) {
    Text text;
    check(qfi_op_getattr(node, name, nullptr, Out(text)), std::string("ask for the ") + name + " of a node");
    return text ? text.get() : "";
}

std::vector<const qfi_domain *> object_nodes(const qfi_domain *tree) {
    std::vector<const qfi_domain *> nodes;
    for (const qfi_domain *filesystem = tree->fid_children; filesystem != nullptr;
         filesystem = filesystem->fid_siblings)
        for (const qfi_domain *object = filesystem->fid_children; object != nullptr; object = object->fid_siblings)
            nodes.push_back(object);
    return nodes;
}

std::string resolved_path(const std::string &given) {
    std::error_code error;
    const std::string whole = absolute_path(given, "look at " + given);
    const std::string path = std::filesystem::weakly_canonical(whole, error).string();
    if (error)
        throw Failure("look at " + given + ": " + error.message());
    return tidy(path);
}

bool lies_within(const std::string &path, const std::string &directory) {
    return path == directory || directory == "/" || path.starts_with(directory + "/");
}

Place find_place(const qfi_domain *tree, const PlaceName &name) {
    const std::vector<const qfi_domain *> objects = object_nodes(tree);
    const std::string file = tidy(name.file);
    if (name.object > objects.size())
        throw Failure("find object " + std::to_string(name.object) + " of image " + id_of(tree) + ": it has " +
                          counted(objects.size(), "object", "objects"),
                      exit_usage);
    const qfi_domain *const chosen = name.object > 0       ? objects[name.object - 1]
                                     : objects.size() == 1 ? objects.front()
                                                           : nullptr;
    if (!file.starts_with('/')) {
        if (chosen == nullptr)
            throw Failure("find " + (file.empty() ? "the object" : file) + " in image " + id_of(tree) + ": it has " +
                              std::to_string(objects.size()) + " objects, " + objects_text(tree) +
                              ": say which by --object, or give the original's whole path",
                          exit_usage);
        return {chosen, file};
    }
    // Objects on different file systems may lie within each other: the longest path is the one that holds it.
    const qfi_domain *found = nullptr;
    std::string found_path;
    for (const qfi_domain *const object : objects) {
        const std::string path = node_text(object, "path");
        if ((name.object == 0 || object == chosen) && lies_within(file, path) &&
            (found == nullptr || path.size() > found_path.size())) {
            found = object;
            found_path = path;
        }
    }
    if (found == nullptr)
        throw Failure("find " + file + " in image " + id_of(tree) + ": it is of " + objects_text(tree));
    return {found, below(file, found_path)};
}

std::string part_name(const qfi_domain *tree, const Place &place) {
    return object_nodes(tree).size() == 1 ? place.below : path_in_original(place);
}

std::string path_in_original(const Place &place) {
    return path_below(node_text(place.object, "path"), place.below);
}

std::string objects_text(const qfi_domain *tree) {
    constexpr std::size_t most = 4;
    const std::vector<const qfi_domain *> objects = object_nodes(tree);
    std::string text;
    for (std::size_t index = 0; index < objects.size(); ++index) {
        if (index == most)
            return text + " and " + std::to_string(objects.size() - most) + " more";
        text += index == 0 ? "" : index + 1 == objects.size() ? " and " : ", ";
        text += node_text(objects[index], "path");
    }
    return text;
}

void add_object(Arguments &command, uint32_t &object) {
    command.add_option("--object", object, "Which of the image's objects, from 1 on, as `qzfi show` numbers them")
        .type_name("N")
        .within(1, 1000000);
}

} // namespace qzfi::tool
