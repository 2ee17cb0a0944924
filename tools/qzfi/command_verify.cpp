// qzfi verify: compares images with their manifests.
#include <iostream>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/json.h"
#include "tools/qzfi/progress.h"
#include "tools/qzfi/stores.h"
#include "tools/qzfi/table.h"
#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

struct Options {
    ImageName image;
    bool all = false, json = false;
};

enum class Verdict { sound, damaged, failed };

struct Verified {
    std::string id;
    Verdict verdict = Verdict::sound;
    Report report;                   // null when the image could not be looked at
    std::vector<std::string> causes; // the status first
};

Verified verify(const qfi_image &image) {
    Verified result;
    result.id = image.image_id;
    Tree tree;
    int32_t status = qfi_op_reaccess_tree(nullptr, Out(tree), image.image_id, image.store, nullptr, 0);
    if (status == QFI_STATUS_OK)
        status = qfi_op_objctl(tree.get(), QFI_OBJCTL_VERIFY, nullptr, Out(result.report));
    if (status == QFI_FI_CANCELLED)
        check(status, "verify image " + result.id);
    if (status != QFI_STATUS_OK) {
        result.verdict = status == QFI_FI_DAMAGED ? Verdict::damaged : Verdict::failed;
        result.causes = take_errors();
        result.causes.insert(result.causes.begin(), status_text(status));
    }
    return result;
}

void print_verified(const Verified &one) {
    const qfi_report *const report = one.report.get();
    if (one.verdict == Verdict::sound)
        std::cout << one.id << "  sound, " << counted(report->entries, "entry", "entries") << ", "
                  << size_text(report->bytes) << '\n';
    else
        std::cout << one.id << "  " << red(one.verdict == Verdict::damaged ? "damaged" : "not verified") << '\n';
    const bool tells_entries = report != nullptr && report->count > 0;
    if (one.verdict == Verdict::damaged && !tells_entries)
        for (const std::string &cause : one.causes)
            std::cout << "  " << printable(cause) << '\n';
    for (uint64_t index = 0; tells_entries && index < report->shown; ++index) {
        const qfi_report_item &item = report->items[index];
        std::cout << "  " << printable(path_below(item.object, item.path) + ": " + item.detail) << '\n';
    }
    if (tells_entries && report->count > report->shown)
        std::cout << "  and " << grouped(report->count - report->shown) << " more\n";
    std::cout.flush(); // the next image may take long
}

Json json_of_verified(const Verified &one) {
    Json causes = Json::array();
    for (const std::string &cause : one.causes)
        causes.push_back(json_text(cause));
    return {{"id", one.id},
            {"verdict", one.verdict == Verdict::sound     ? "sound"
                        : one.verdict == Verdict::damaged ? "damaged"
                                                          : "failed"},
            {"causes", std::move(causes)},
            {"report", one.report ? json_of(*one.report) : Json()}};
}

struct Verification {
    Json images = Json::array();
    bool is_damaged = false, has_failed = false;
};

void verify_all(Verification &done, const qfi_image_list *images, const Settings &settings, bool json) {
    for (const qfi_image_list *node = images; node != nullptr; node = node->next) {
        check_interrupted(std::string("verify image ") + node->image.image_id);
        Verified one;
        {
            const ShownProgress progress(settings.quiet, "verify");
            one = verify(node->image);
        }
        done.is_damaged = done.is_damaged || one.verdict == Verdict::damaged;
        done.has_failed = done.has_failed || one.verdict == Verdict::failed;
        if (json)
            done.images.push_back(json_of_verified(one));
        else
            print_verified(one);
        if (one.verdict == Verdict::failed)
            tell(Failure("verify image " + one.id + ": " + one.causes.front(), exit_failed,
                         {one.causes.begin() + 1, one.causes.end()}));
    }
}

int run(const Settings &settings, const Options &options) {
    if (options.all == !options.image.id.empty())
        throw Failure("verify: name an image, or say --all", exit_usage);
    const Session session(settings);
    const Interruptible interruptible;
    const ImageList images = options.all ? all_images(options.image.store) : find_images(options.image);
    const std::vector<Store> unusable = options.all ? passed_over(options.image.store) : std::vector<Store>();
    Verification done;
    const auto print_document = [&](bool was_interrupted) {
        if (options.json)
            print(Json{
                {"interrupted", was_interrupted}, {"images", std::move(done.images)}, {"unusable", json_of(unusable)}});
    };
    try {
        verify_all(done, images.get(), settings, options.json);
    } catch (const Failure &failure) {
        print_document(failure.code() == exit_interrupted); // what was found may have taken hours
        throw;
    }
    print_document(false);
    if (!images && !options.json && !settings.quiet && unusable.empty())
        std::cerr << "no images\n";
    const int code = tell_unusable(unusable);
    return done.is_damaged ? exit_differs : done.has_failed ? exit_failed : code;
}

} // namespace

void add_verify(CommandLine &line) {
    add_command<Options>(line, "verify", "Compare images with their manifests", run,
                         [](Arguments &command, Options &options) {
                             command.footer("Data is compared where the image was made with --digest, otherwise only "
                                            "what each entry is. Exit code 3 when an image is damaged.");
                             add_image(command, options.image, false);
                             command.add_flag("--all", options.all, "Verify every image");
                             add_json(command, options.json);
                         });
}

} // namespace qzfi::tool
