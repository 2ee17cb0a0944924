// qzfi export: moves an image out of its store into a folder of its own, from where another store can take it over.
#include <iostream>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/done.h"
#include "tools/qzfi/progress.h"

namespace qzfi::tool {

namespace {

struct Options {
    ImageName image;
    std::string to;
};

int run(const Settings &settings, const Options &options) {
    const Session session(settings);
    const Interruptible interruptible;
    const ImageName name{whole_id(options.image), options.image.store};
    const Tree tree = open_tree(name);
    const std::string to = options.to.empty() ? name.id : options.to, action = "export image " + name.id + " to ";
    const std::string folder = absolute_path(to, action + to);
    {
        const ShownProgress progress(settings.quiet, "export");
        check(qfi_op_deport_tree(tree.get(), folder.c_str(), nullptr), action + folder);
    }
    std::cout << folder << '\n';
    tell_unheard("image " + name.id + " is in " + folder + " now");
    return exit_done;
}

} // namespace

void add_export(CommandLine &line) {
    add_command<Options>(line, "export", "Move an image out of its store into a folder, which is printed", run,
                         [](Arguments &command, Options &options) {
                             command.footer("The image leaves its store; `qzfi import` takes the folder into a store, "
                                            "also on another host.");
                             add_image(command, options.image);
                             command.add_option("--to", options.to, "The new folder; else one named as the image, here")
                                 .type_name("DIR")
                                 .not_empty();
                         });
}

} // namespace qzfi::tool
