// qzfi import: takes an exported image over into a store.
#include <filesystem>
#include <iostream>
#include <set>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/done.h"
#include "tools/qzfi/places.h"
#include "tools/qzfi/progress.h"

namespace qzfi::tool {

namespace {

struct Options {
    std::string path, store;
    bool verify = false, keep_source = false;
};

constexpr const char *document_name = "fiid.xml";

// The folder, also when its id document was named.
std::string folder_of(const std::string &given) {
    const std::filesystem::path path = absolute_path(given, "import " + given);
    std::error_code error;
    if (std::filesystem::is_directory(path, error))
        return path.string();
    if (path.filename() == document_name && std::filesystem::exists(path, error))
        return path.parent_path().string();
    if (std::filesystem::exists(path, error))
        throw Failure("import " + given + ": neither an exported folder nor the " + document_name + " in one",
                      exit_usage);
    throw Failure("import " + given + ": " + (error ? error.message() : "No such file or directory"));
}

// Why the folder is still there, which is no failure of the library's: a remark on it.
void tell_if_it_stays(const qfi_domain *tree, const std::string &folder) {
    std::error_code error;
    if (!std::filesystem::exists(folder, error))
        return;
    const std::filesystem::path normal = (std::filesystem::path(folder) / "").lexically_normal().parent_path();
    Report report;
    if (qfi_op_objctl(const_cast<qfi_domain *>(tree), QFI_OBJCTL_REPORT, nullptr, Out(report)) == 0)
        for (uint64_t index = 0; index < report->shown; ++index)
            if (normal == report->items[index].object) {
                std::cerr << remark_text(report->items[index]) << '\n';
                return;
            }
    std::cerr << "the image is imported, but its folder stays: " << folder << '\n';
}

std::set<std::string> ids_of(const std::string &store) {
    std::set<std::string> ids;
    ImageList images; // of a store that the import makes there are none
    (void)qfi_op_snapreplica_list(nullptr, or_null(store), Out(images));
    fi_del_all_errors();
    for (const qfi_image_list *node = images.get(); node != nullptr; node = node->next)
        ids.insert(node->image.image_id);
    return ids;
}

// One image of a set comes into a tree with those that were there.
std::string new_id(const qfi_domain *tree, const std::set<std::string> &before) {
    std::vector<std::string> ids;
    for (const qfi_domain *node = tree->fid_children; node != nullptr; node = node->fid_siblings)
        if (std::string id = node_text(node, "image"); before.count(id) == 0)
            ids.push_back(std::move(id));
    return ids.size() == 1 ? ids.front() : id_of(tree);
}

int run(const Settings &settings, const Options &options) {
    const std::string folder = folder_of(options.path);
    const Session session(settings);
    const Interruptible interruptible;
    qfi_import_options how;
    QFI_INIT(how);
    how.verify = options.verify;
    how.keep_source = options.keep_source;
    check(qfi_op_set_import_options(&how, nullptr, 0, nullptr), "set how to import");
    const std::set<std::string> before = ids_of(options.store);
    Tree tree;
    {
        const ShownProgress progress(settings.quiet, "import");
        check(qfi_op_import_tree(folder.c_str(), or_null(options.store), nullptr, Out(tree)), "import " + folder);
    }
    const std::string id = new_id(tree.get(), before);
    std::cout << id << '\n';
    tell_unheard("image " + id + " is imported");
    if (!options.keep_source && !settings.quiet)
        tell_if_it_stays(tree.get(), folder);
    return exit_done;
}

} // namespace

void add_import(CommandLine &line) {
    add_command<Options>(line, "import", "Take an exported image over into a store; its id is printed", run,
                         [](Arguments &command, Options &options) {
                             command.add_option("PATH", options.path, "The exported folder, or the fiid.xml in it")
                                 .required()
                                 .not_empty();
                             add_store(command, options.store, "The store; else the default one");
                             command.add_flag("--verify", options.verify,
                                              "Compare with the manifests; when it differs, nothing comes");
                             command.add_flag("--keep-source", options.keep_source, "Leave the folder where it is");
                         });
}

} // namespace qzfi::tool
