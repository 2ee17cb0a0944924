// qzfi show: what is known of an image, or of the images of a set.
#include <array>
#include <iostream>
#include <optional>

#include <qzfi_provider.h>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/json.h"
#include "tools/qzfi/table.h"
#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

struct Options {
    ImageName image;
    bool fiid = false, json = false;
};

using Fiid = std::unique_ptr<qfi_fiid, Releaser<qzfiapi_free_fiid>>;

void print_document(const ImageName &name, const std::string &id) {
    const Tree tree = open_tree(name);
    Fiid fiid;
    check(qfi_op_get_fiid(tree.get(), Out(fiid)), "give the id document of image " + id);
    std::cout.write(fiid->document, static_cast<std::streamsize>(fiid->length));
}

// Null when files are missing: then its report is too.
Report report_of(const ImageName &name, const qfi_image_list *images, const std::string &id) {
    for (const qfi_image_list *node = images; node != nullptr; node = node->next)
        if (node->image.state != 1)
            return nullptr;
    const Tree tree = open_tree(name);
    Report report;
    check(qfi_op_objctl(tree.get(), QFI_OBJCTL_REPORT, nullptr, Out(report)), "read the report of image " + id);
    return report;
}

void print_image(const qfi_image &image) {
    constexpr std::array backups = {"never", "done", "the last one failed"};
    Facts facts;
    facts.add("Image", image.image_id);
    facts.add("Set", image.set_id);
    if (*image.label != '\0')
        facts.add("Label", printable(image.label));
    facts.add("State", image.state == 1 ? state_name(image.state) : red(state_name(image.state)));
    facts.add("Time", time_text(image.time) + ", made within " + duration_text(image.duration_ns));
    const std::string provider = image.provider_id;
    facts.add("Method", image.fim_id + (provider == image.fim_id ? "" : " of provider " + provider));
    facts.add("Consistency", consistency_name(image.consistency));
    if (image.entries != 0)
        facts.add("Holds", counted(image.entries, "entry", "entries") + ", " + size_text(image.bytes) + " of data");
    facts.add("Digests", image.has_digests != 0 ? "yes" : "no");
    facts.add("Backup", image.backed_up < backups.size() ? backups.at(image.backed_up) : "unknown");
    facts.add("Host", printable(image.host));
    facts.add("Store", printable(image.store));
    facts.print();
}

void print_objects(const qfi_image_list *images) {
    Table table(
        {{"OBJECT", Align::right}, {"PATH", Align::left, false, true}, {"FROZEN AT", Align::left, false, true}});
    uint32_t number = 0;
    for (const qfi_image_list *node = images; node != nullptr; node = node->next)
        for (uint32_t index = 0; index < node->image.object_count; ++index)
            table.add(
                {std::to_string(++number), printable(node->image.objects[index]), printable(node->image.paths[index])});
    table.print();
}

void print_report(const qfi_report &report) {
    if (report.count == 0) {
        std::cout << "no remarks\n";
        return;
    }
    std::array<uint64_t, QFI_REMARK_WARNING + 1> counts = {};
    for (uint64_t index = 0; index < report.shown; ++index)
        ++counts.at(report.items[index].kind < counts.size() ? report.items[index].kind : 0);
    std::string kinds;
    for (uint32_t kind = 0; kind < counts.size(); ++kind)
        if (counts.at(kind) != 0)
            kinds += (kinds.empty() ? "" : ", ") + grouped(counts.at(kind)) + " " + remark_name(kind);
    std::cout << bold(counted(report.count, "remark", "remarks") + ": " + kinds) << '\n';
    for (uint64_t index = 0; index < report.shown; ++index)
        std::cout << "  " << remark_text(report.items[index]) << '\n';
    if (report.count > report.shown)
        std::cout << "  and " << grouped(report.count - report.shown) << " more that were not kept\n";
}

int ended(const std::optional<Failure> &obstacle) {
    if (!obstacle)
        return exit_done;
    tell(*obstacle);
    return obstacle->code();
}

int run(const Settings &settings, const Options &options) {
    const Session session(settings);
    const ImageName name{whole_id(options.image), options.image.store};
    if (options.fiid) {
        print_document(name, name.id);
        return exit_done;
    }
    const ImageList images = find_images(name);
    Report report;
    std::optional<Failure> obstacle; // what else is known is shown all the same
    try {
        report = report_of(name, images.get(), name.id);
    } catch (const Failure &failure) {
        obstacle = failure;
    }
    if (options.json) {
        Json list = Json::array();
        for (const qfi_image_list *node = images.get(); node != nullptr; node = node->next)
            list.push_back(json_of(node->image));
        print(Json{{"id", name.id}, {"images", std::move(list)}, {"report", report ? json_of(*report) : Json()}});
        return ended(obstacle);
    }
    for (const qfi_image_list *node = images.get(); node != nullptr; node = node->next) {
        print_image(node->image);
        std::cout << '\n';
    }
    print_objects(images.get());
    std::cout << '\n';
    if (report)
        print_report(*report);
    else if (!obstacle)
        std::cout << red("its report is not there any more") << '\n';
    return ended(obstacle);
}

} // namespace

void add_show(CommandLine &line) {
    add_command<Options>(line, "show", "Show what is known of an image, with the remarks that were made with it", run,
                         [](Arguments &command, Options &options) {
                             add_image(command, options.image);
                             add_json(command, options.json);
                             command.add_flag("--fiid", options.fiid, "Print the image's id document, XML, and no more")
                                 .excludes("--json");
                         });
}

} // namespace qzfi::tool
