// qzfi list: the images of the known stores, or of one.
#include <iostream>
#include <set>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/json.h"
#include "tools/qzfi/stores.h"
#include "tools/qzfi/table.h"
#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

struct Options {
    std::string store;
    bool json = false;
};

// A text of any length is no reason to have all lines as long; `show` has the whole of it.
constexpr std::size_t widest_label = 64;

bool has_several_of_a_set(const qfi_image_list *images) {
    std::set<std::string> sets;
    for (; images != nullptr; images = images->next)
        if (!sets.insert(images->image.set_id).second)
            return true;
    return false;
}

void print_table(const qfi_image_list *images) {
    const bool has_hosts = has_other_hosts(images);
    std::vector<Column> columns = {{"ID"},
                                   {"TIME"},
                                   {"METHOD"},
                                   {"CONSISTENCY"},
                                   {"SIZE", Align::right},
                                   {"LABEL", Align::left, false, true},
                                   {"OBJECTS", Align::left, false, true}};
    if (has_hosts)
        columns.insert(columns.begin() + 2, {"HOST", Align::left, false, true});
    const bool has_sets = has_several_of_a_set(images);
    if (has_sets)
        columns.insert(columns.end() - 2, {"SET", Align::left, false, true});
    Table table(columns);
    for (; images != nullptr; images = images->next) {
        const qfi_image &image = images->image;
        const std::string consistency =
            image.state == 1 ? consistency_name(image.consistency) : state_name(image.state);
        std::vector<std::string> cells = {image.image_id,
                                          time_text(image.time),
                                          image.fim_id,
                                          consistency,
                                          image.bytes == 0 ? "-" : size_text(image.bytes),
                                          shortened(printable(image.label), widest_label),
                                          printable(joined({image.objects, image.objects + image.object_count}))};
        if (has_hosts)
            cells.insert(cells.begin() + 2, printable(image.host));
        if (has_sets)
            cells.insert(cells.end() - 2, image.set_id);
        table.add(std::move(cells));
    }
    table.print();
}

int run(const Settings &settings, const Options &options) {
    const Session session(settings);
    const ImageList images = all_images(options.store);
    const std::vector<Store> unusable = passed_over(options.store);
    if (options.json) {
        Json list = Json::array();
        for (const qfi_image_list *node = images.get(); node != nullptr; node = node->next)
            list.push_back(json_of(node->image));
        print(Json{{"images", std::move(list)}, {"unusable", json_of(unusable)}});
    } else if (images) {
        print_table(images.get());
    } else if (!settings.quiet && unusable.empty()) {
        std::cerr << "no images\n";
    }
    return tell_unusable(unusable);
}

} // namespace

void add_list(CommandLine &line) {
    add_command<Options>(line, "list", "List images, the oldest first", run, [](Arguments &command, Options &options) {
        add_store(command, options.store, "Only those of this store");
        add_json(command, options.json);
    });
}

} // namespace qzfi::tool
