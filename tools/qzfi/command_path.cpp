// qzfi path: where an image can be read; the bytes of the path as they are, for programs.
#include <iostream>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/json.h"
#include "tools/qzfi/places.h"

namespace qzfi::tool {

namespace {

struct Options {
    ImageName image;
    PlaceName place;
    bool null_ended = false, json = false;
};

std::string path_of(const Place &place, const std::string &id) {
    Text path;
    check(qfi_op_access(place.object, or_null(place.below), Out(path)),
          "find " + path_in_original(place) + " in image " + id);
    return path.get();
}

int run(const Settings &settings, const Options &options) {
    const Session session(settings);
    const Tree tree = open_tree(options.image);
    std::vector<Place> places;
    if (options.place.file.empty() && options.place.object == 0)
        for (const qfi_domain *const object : object_nodes(tree.get()))
            places.push_back({object, ""});
    else
        places.push_back(find_place(tree.get(), options.place));
    const std::string id = id_of(tree.get());
    std::string text;
    Json list = Json::array();
    for (const Place &place : places) {
        const std::string path = path_of(place, id);
        text += path + (options.null_ended ? '\0' : '\n');
        list.push_back({{"path", json_text(path_in_original(place))}, {"image_path", json_text(path)}});
    }
    if (options.json)
        print(Json{{"id", id}, {"paths", std::move(list)}});
    else
        std::cout << text;
    return exit_done;
}

} // namespace

void add_path(CommandLine &line) {
    add_command<Options>(
        line, "path", "Print the path under which an image, or a file in it, can be read", run,
        [](Arguments &command, Options &options) {
            add_image(command, options.image);
            command.add_option("FILE", options.place.file, "Below the object, or the original's path; else each object")
                .not_empty();
            add_object(command, options.place.object);
            add_json(command, options.json);
            command.add_flag("-0,--null", options.null_ended, "End each path by a null byte instead of a newline")
                .excludes("--json");
        });
}

} // namespace qzfi::tool
