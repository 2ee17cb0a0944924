// qzfi diff: what changed from an image to the originals as they are, to another image, or to another directory.
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/json.h"
#include "tools/qzfi/places.h"
#include "tools/qzfi/progress.h"
#include "tools/qzfi/text.h"
#include "tools/qzfi/trees.h"

namespace qzfi::tool {

namespace {

struct Options {
    ImageName image;
    std::string other;
    bool digest = false, exit_code = false, json = false;
};

// What the image is compared with: another one, another directory, or, `to` null, the originals, from `within` on.
struct Other {
    Tree to;
    std::string id, directory, within;

    std::string text() const { return !id.empty() ? "image " + id : !directory.empty() ? directory : "its originals"; }
};

bool touches(const qfi_domain *from, const std::string &path) {
    for (const qfi_domain *const object : object_nodes(from)) {
        const std::string original = node_text(object, "path");
        if (lies_within(path, original) || lies_within(original, path))
            return true;
    }
    return false;
}

// A path in the image's originals, as the image names them; empty for one elsewhere. It may be gone: that is a
// difference. A link at its end is meant itself when it lies in the image, else what it leads to.
std::string original_path(const qfi_domain *from, const std::string &given) {
    const std::filesystem::path path = absolute_path(given, "look at " + given);
    const std::string name = path.filename().string();
    if (!name.empty() && name != "." && name != "..") {
        const std::string above = resolved_path(path.parent_path());
        if (std::string itself = (above == "/" ? "" : above) + "/" + name; touches(from, itself))
            return itself;
    }
    const std::string target = resolved_path(path);
    return touches(from, target) ? target : "";
}

void use_directory(Other &other, const qfi_domain *from, const std::string &given) {
    other.directory = resolved_path(given);
    std::error_code error;
    if (!std::filesystem::is_directory(other.directory, error))
        throw Failure("compare image " + id_of(from) + " with " + other.directory + ": it is no path of the image, " +
                          "which is of " + objects_text(from) +
                          ", and no other directory: " + std::strerror(error ? error.value() : ENOTDIR),
                      exit_usage);
    if (const std::size_t count = object_nodes(from).size(); count > 1)
        throw Failure("compare image " + id_of(from) + " with " + other.directory + ": it is in none of the " +
                          std::to_string(count) + " objects, " + objects_text(from) +
                          (from->fid_children->fid_siblings != nullptr
                               ? "; name the image of the one to compare it with, not the set"
                               : "; an image of several objects can be compared with its originals or another image"),
                      exit_usage);
    other.to = tree_of({other.directory});
}

Other other_of(const qfi_domain *from, const Options &options) {
    Other other;
    if (options.other.find('/') != std::string::npos || options.other == "." || options.other == "..") {
        other.within = original_path(from, options.other);
        if (other.within.empty())
            use_directory(other, from, options.other);
    } else if (!options.other.empty()) {
        other.id = whole_id({options.other, options.image.store});
        other.to = open_tree({other.id, options.image.store});
    }
    return other;
}

// A path that is neither here nor in the image is a slip, no path without differences.
void require_somewhere(const qfi_domain *from, const std::string &path) {
    std::error_code error;
    if (std::filesystem::symlink_status(path, error).type() != std::filesystem::file_type::not_found)
        return;
    const Place place = find_place(from, {path, 0});
    Text frozen;
    if (qfi_op_access(place.object, or_null(place.below), Out(frozen)) == QFI_STATUS_OK &&
        std::filesystem::symlink_status(frozen.get(), error).type() != std::filesystem::file_type::not_found)
        return;
    (void)take_errors();
    throw Failure("compare image " + id_of(from) + " with " + path + ": it is neither there nor in the image",
                  exit_usage);
}

char letter(uint32_t change) {
    constexpr std::array letters = {'?', 'A', 'R', 'C', 'T', 'M'};
    return change < letters.size() ? letters.at(change) : '?';
}

Json json_of(const qfi_diff_entry &entry) {
    return {{"change", change_name(entry.change)}, {"type", entry_type_name(entry.type)},
            {"object", json_text(entry.object)},   {"path", json_text(entry.path)},
            {"old_size", entry.old_size},          {"new_size", entry.new_size}};
}

int run(const Settings &settings, const Options &options) {
    const Session session(settings);
    const std::string id = whole_id(options.image);
    const Tree from = open_tree({id, options.image.store});
    const Other other = other_of(from.get(), options);
    Diff diff;
    {
        const Interruptible interruptible;
        const ShownProgress progress(settings.quiet, "compare");
        qfi_diff_options how;
        QFI_INIT(how);
        how.digest = options.digest;
        check(qfi_op_get_snapdiff(from.get(), other.to.get(), &how, Out(diff)),
              "compare image " + id + " with " + other.text());
    }
    Json entries = Json::array();
    uint64_t count = 0;
    for (uint64_t index = 0; index < diff->count; ++index) {
        const qfi_diff_entry &entry = diff->entries[index];
        const std::string path = path_below(other.directory.empty() ? entry.object : other.directory, entry.path);
        if (!other.within.empty() && !lies_within(path, other.within))
            continue;
        ++count;
        if (options.json)
            entries.push_back(json_of(entry));
        else
            std::cout << letter(entry.change) << ' ' << printable(path) << '\n';
    }
    if (count == 0 && !other.within.empty())
        require_somewhere(from.get(), other.within);
    if (options.json)
        print(Json{{"from", id},
                   {"to", other.id.empty() ? Json() : Json(other.id)},
                   {"directory", other.directory.empty() ? Json() : Json(json_text(other.directory))},
                   {"within", other.within.empty() ? Json() : Json(json_text(other.within))},
                   {"count", count},
                   {"entries", std::move(entries)}});
    return options.exit_code && count > 0 ? exit_differs : exit_done;
}

} // namespace

void add_diff(CommandLine &line) {
    add_command<Options>(
        line, "diff", "List what changed since an image was made", run, [](Arguments &command, Options &options) {
            command.footer("Letters: A added, R removed, C content, T another type, M owner or mode.");
            add_image(command, options.image);
            command
                .add_option(
                    "OTHER", options.other,
                    "Another image's id, a path within the original to compare only that, or another directory; "
                    "else the originals")
                .type_name("ID|PATH")
                .not_empty();
            command.add_flag("--digest", options.digest, "Compare data where sizes and times agree");
            command.add_flag("--exit-code", options.exit_code, "End with 3 when there are differences");
            add_json(command, options.json);
        });
}

} // namespace qzfi::tool
