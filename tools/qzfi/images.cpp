#include "tools/qzfi/images.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <string_view>
#include <sys/utsname.h>
#include <termios.h>
#include <unistd.h>

#include "tools/qzfi/stores.h"
#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

// What is shorter is rather a slip than a beginning.
constexpr std::size_t shortest_beginning = 4;

bool is_alone(const qfi_image_list *list, const qfi_image &image) {
    int count = 0;
    for (const qfi_image_list *node = list; node != nullptr; node = node->next)
        count += std::strcmp(node->image.set_id, image.set_id) == 0;
    return count == 1;
}

// What may have been meant.
std::string slip_text(const std::string &id) {
    std::error_code error;
    if (std::filesystem::exists(id, error))
        return "; a path is written with a slash: ./" + id;
    return id.size() < shortest_beginning ? "; a beginning has at least 4 characters" : "";
}

// The known stores that were searched in vain, as nobody can look into them.
std::vector<std::string> obstacles(const ImageName &name) {
    std::vector<std::string> texts;
    for (const Store &store : passed_over(name.store)) {
        texts.push_back("store " + store.path + ": " + store.why);
        texts.insert(texts.end(), store.causes.begin(), store.causes.end());
    }
    return texts;
}

// There may be a newer one where nobody can look, and what follows may be a restore.
void require_all_stores(const ImageName &name) {
    if (const std::vector<std::string> texts = obstacles(name); !texts.empty())
        throw Failure(
            "find image latest: a newer one may be where nobody can look; name the image, or a store by --store",
            exit_failed, texts);
}

std::string content_of(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Half of a set must not pass for all of it, be it that nobody can look for the rest, that another store than the named
// one has it, or that it is gone: each image can still be named by itself.
void require_whole_set(const ImageName &name, const qfi_image_list *images, const std::string &id) {
    std::vector<std::string> there;
    for (const qfi_image_list *node = images; node != nullptr; node = node->next) {
        if (id == node->image.image_id)
            return;
        if (id == node->image.set_id)
            there.emplace_back(node->image.image_id);
    }
    const SetGaps gaps = gaps_of_set(images, id);
    if (gaps.empty())
        return;
    const ImageList known = name.store.empty() ? nullptr : all_images("");
    const std::vector<std::string> unsearched = obstacles({name.id, ""});
    std::vector<std::string> texts;
    for (const std::string &image : gaps.missing) {
        std::string text =
            "image " + image + (unsearched.empty() ? ": in no known store" : ": in no store that could be looked into");
        for (const qfi_image_list *node = known.get(); node != nullptr; node = node->next)
            if (image == node->image.image_id)
                text = "image " + image + ": in store " + node->image.store + ", which is not looked into by --store";
        texts.push_back(text);
    }
    for (const std::string &image : gaps.unreadable)
        texts.push_back("image " + image + ": its id document, which names the others, cannot be read");
    texts.insert(texts.end(), unsearched.begin(), unsearched.end());
    throw Failure("find set " + id + ": " +
                      (gaps.missing.empty() ? "it cannot be told whether all of its images are there"
                                            : "some of its images are not there") +
                      "; name those that are there: " + joined(there),
                  exit_failed, texts);
}

} // namespace

SetGaps gaps_of_set(const qfi_image_list *images, const std::string &set) {
    // No value of an attribute has a "<".
    constexpr std::string_view begin = "<image id=\"";
    std::set<std::string> there, named;
    SetGaps gaps;
    for (const qfi_image_list *node = images; node != nullptr; node = node->next) {
        const std::string id = node->image.image_id;
        if (set != node->image.set_id)
            continue;
        there.insert(id);
        const std::string document = content_of(std::string(node->image.store) + "/images/" + id + "/fiid.xml");
        bool names_itself = false;
        for (std::size_t place = document.find(begin); place != std::string::npos;
             place = document.find(begin, place)) {
            place += begin.size();
            const std::string one = document.substr(place, document.find('"', place) - place);
            names_itself = names_itself || one == id;
            named.insert(one);
        }
        if (!names_itself)
            gaps.unreadable.push_back(id);
    }
    std::set_difference(named.begin(), named.end(), there.begin(), there.end(), std::back_inserter(gaps.missing));
    return gaps;
}

ImageList all_images(const std::string &store) {
    ImageList list;
    check(qfi_op_snapreplica_list(nullptr, or_null(store), Out(list)),
          store.empty() ? "list the images" : "list the images of store " + store);
    return list;
}

namespace {

// This host's newest image, with all that were made together with it: another host's is never put in place of what is
// here but by its id.
std::string latest_id(const ImageName &name, const qfi_image_list *images) {
    require_all_stores(name);
    const qfi_image *latest = nullptr, *other = nullptr;
    for (const qfi_image_list *node = images; node != nullptr; node = node->next)
        (node->image.host == this_host() ? latest : other) = &node->image;
    if (latest == nullptr)
        throw Failure("find image latest: none was made on this host, " + this_host() + "; the newest is " +
                      other->image_id + " of host " + other->host + ": name it");
    return is_alone(images, *latest) && gaps_of_set(images, latest->set_id).empty() ? latest->image_id : latest->set_id;
}

// What the name stands for among these images; it may be a set of which others cannot be seen.
std::string fitting_id(const ImageName &name, const ImageList &list) {
    if (name.id == "latest" && list)
        return latest_id(name, list.get());
    // A set is looked for only where no image fits, as an image and its set begin alike.
    std::set<std::string> images, sets;
    for (const qfi_image_list *node = list.get(); node != nullptr; node = node->next) {
        const qfi_image &image = node->image;
        if (name.id == image.image_id || name.id == image.set_id)
            return name.id;
        if (name.id.size() < shortest_beginning)
            continue;
        if (std::string_view(image.image_id).starts_with(name.id))
            images.insert(image.image_id);
        if (std::string_view(image.set_id).starts_with(name.id))
            sets.insert(image.set_id);
    }
    const std::set<std::string> &fitting = images.empty() ? sets : images;
    if (fitting.size() > 1) {
        std::string text = "find image " + name.id + ": " + std::to_string(fitting.size()) + " ids begin so: ";
        std::size_t shown = 0;
        for (const std::string &id : fitting)
            if (shown++ < 5)
                text += (shown == 1 ? "" : ", ") + id;
        throw Failure(text + (shown > 5 ? ", ..." : ""));
    }
    if (fitting.empty())
        throw Failure("find image " + name.id + ": " + status_text(QFI_FI_NO_SUCH_IMAGE) + " in " +
                          (name.store.empty() ? "any known store" : "store " + name.store) + slip_text(name.id),
                      exit_failed, obstacles(name));
    return *fitting.begin();
}

} // namespace

std::string whole_id(const ImageName &name) {
    const ImageList list = all_images(name.store);
    std::string id = fitting_id(name, list);
    require_whole_set(name, list.get(), id);
    return id;
}

ImageList find_images(const ImageName &name) {
    const std::string id = whole_id(name);
    ImageList list;
    check(qfi_op_snapreplica_list(id.c_str(), or_null(name.store), Out(list)), "look for image " + id);
    if (!list) // removed since its id was looked for
        throw Failure("find image " + id + ": " + status_text(QFI_FI_NO_SUCH_IMAGE));
    return list;
}

const std::string &this_host() {
    static const std::string host = []() -> std::string {
        struct utsname names = {};
        return uname(&names) == 0 ? names.nodename : "localhost";
    }();
    return host;
}

bool has_other_hosts(const qfi_image_list *images) {
    for (; images != nullptr; images = images->next)
        if (images->image.host != this_host())
            return true;
    return false;
}

std::string host_text(const qfi_image &image) {
    return image.host == this_host() ? "" : std::string(" of host ") + image.host;
}

Tree open_tree(const ImageName &name) {
    const std::string id = whole_id(name);
    Tree tree;
    check(qfi_op_reaccess_tree(nullptr, Out(tree), id.c_str(), or_null(name.store), nullptr, 0), "open image " + id);
    return tree;
}

std::string id_of(const qfi_domain *tree) {
    const qfi_domain *const filesystem = tree->fid_children;
    Text image, set;
    check(qfi_op_getattr(filesystem, "image", nullptr, Out(image)), "ask for the image's id");
    if (filesystem->fid_siblings == nullptr)
        return image.get();
    check(qfi_op_getSnapshotSetId(image.get(), Out(set)), std::string("ask for the set of image ") + image.get());
    return set.get();
}

const char *remark_name(uint32_t kind) {
    constexpr std::array names = {"unknown", "torn", "vanished", "attribute", "skipped", "unreadable", "warning"};
    return kind < names.size() ? names[kind] : names[0];
}

std::string remark_text(const qfi_report_item &item) {
    std::string text =
        std::string(remark_name(item.kind)) + ": " + path_below(item.object, item.path) + ": " + item.detail;
    if (item.error != 0)
        text += std::string(": ") + std::strerror(item.error);
    return printable(text);
}

void print_remarks(const qfi_report &report) {
    for (uint64_t index = 0; index < report.shown; ++index)
        std::cerr << remark_text(report.items[index]) << '\n';
    if (report.count > report.shown)
        std::cerr << grouped(report.count - report.shown) << " more remarks\n";
}

bool confirm(const std::string &question, bool assume_yes) {
    if (assume_yes)
        return true;
    if (isatty(STDIN_FILENO) != 1)
        throw Failure(question + " Nobody can be asked here: say --yes", exit_usage);
    (void)tcflush(STDIN_FILENO, TCIFLUSH); // what was typed before answers another question
    std::cerr << printable(question) << " [y/N] " << std::flush;
    std::string answer;
    if (!std::getline(std::cin, answer))
        std::cerr << '\n'; // nobody pressed return
    return answer == "y" || answer == "Y" || answer == "yes";
}

} // namespace qzfi::tool
