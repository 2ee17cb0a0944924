// qzfi freeze: makes an image of directories, or a set of images when they lie on several file systems.
#include <iostream>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/done.h"
#include "tools/qzfi/json.h"
#include "tools/qzfi/progress.h"
#include "tools/qzfi/providers.h"
#include "tools/qzfi/text.h"
#include "tools/qzfi/trees.h"

namespace qzfi::tool {

namespace {

struct Options {
    std::vector<std::string> paths;
    std::string method, store, label, pre_command, post_command;
    uint32_t workers = 0;
    bool digest = false, nested = false, json = false;
};

// The post command has run whatever became of the freeze, or runs now. When it failed, the application may still be
// held.
Failure with_post_command(qfi_domain *tree, const Failure &failure) {
    if (qfi_op_unquiesce(tree) != QFI_FI_POST_COMMAND)
        return failure;
    std::vector<std::string> causes = failure.causes();
    causes.push_back("and afterwards: " + status_text(QFI_FI_POST_COMMAND));
    for (const std::string &cause : take_errors())
        causes.push_back(cause);
    return Failure(failure.what(), failure.code(), std::move(causes));
}

// Gives the failure of the post command, as then the images are there all the same.
int32_t make_images(qfi_domain *tree, const Options &options, const std::string &what, Report &report) {
    qfi_freeze_options freeze;
    QFI_INIT(freeze);
    freeze.workers = options.workers;
    freeze.label = or_null(options.label);
    freeze.pre_command = or_null(options.pre_command);
    freeze.post_command = or_null(options.post_command);
    freeze.digest = options.digest;
    freeze.nested = options.nested;
    check(qfi_op_select(tree, nullptr, or_null(options.method), or_null(options.store)), "choose a method for " + what);
    check(qfi_op_prepare(tree, 0, &freeze, nullptr), "prepare the freeze of " + what);
    check_interrupted("freeze " + what);
    try {
        const int32_t quiesced = qfi_op_quiesce(tree);
        check_interrupted("freeze " + what); // what made the pre command fail, perhaps
        check(quiesced, "quiesce " + what);
        check(qfi_op_split(tree, nullptr, Out(report)), "freeze " + what);
    } catch (const Failure &failure) {
        throw with_post_command(tree, failure);
    }
    return qfi_op_unquiesce(tree);
}

int run(const Settings &settings, const Options &options) {
    const std::string what = joined(options.paths);
    const Session session(settings);
    const Interruptible interruptible;
    const Tree tree = tree_of(options.paths);
    if (options.method.empty() && !settings.quiet)
        tell_refused(refused_providers());
    Report report;
    int32_t post_command;
    {
        const ShownProgress progress(settings.quiet, "freeze");
        post_command = make_images(tree.get(), options, what, report);
    }
    if (report && !settings.quiet)
        print_remarks(*report);
    const std::string id = id_of(tree.get());
    if (options.json) {
        Json images = Json::array();
        const ImageList list = find_images({id, options.store});
        for (const qfi_image_list *node = list.get(); node != nullptr; node = node->next)
            images.push_back(json_of(node->image));
        print(Json{{"id", id}, {"images", std::move(images)}, {"report", report ? json_of(*report) : Json()}});
    } else {
        std::cout << id << std::endl;
    }
    if (post_command != QFI_STATUS_OK)
        throw Failure("image " + id + " is there, but its post command failed: " + status_text(post_command),
                      exit_post_command, take_errors());
    tell_unheard("image " + id + " is there");
    return exit_done;
}

} // namespace

void add_freeze(CommandLine &line) {
    add_command<Options>(
        line, "freeze", "Make an image of directories; its id is the last line of output", run,
        [](Arguments &command, Options &options) {
            command.add_option("PATH", options.paths, "Directories; several are one set").required().not_empty();
            command.add_option("--method", options.method, "btrfs, reflink, copy or another provider's; else the best")
                .type_name("NAME")
                .not_empty();
            add_store(command, options.store, "Where the image is kept; else the method's own place");
            command.add_option("--label", options.label, "A text for people").type_name("TEXT");
            command
                .add_option("--pre", options.pre_command,
                            "Run by the shell before the instant; failing, nothing is frozen")
                .type_name("CMD")
                .not_empty();
            command.add_option("--post", options.post_command, "Run by the shell afterwards, whatever happened")
                .type_name("CMD")
                .not_empty();
            add_workers(command, options.workers);
            command.add_flag("--digest", options.digest, "Keep a digest of every file, for verify and diff");
            command.add_flag("--nested", options.nested, "Include nested subvolumes");
            add_json(command, options.json);
        });
}

} // namespace qzfi::tool
