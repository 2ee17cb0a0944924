// Stored images, as the user names them.
#pragma once

#include <string>
#include <vector>

#include "tools/qzfi/tool.h"

namespace qzfi::tool {

/// Names an image, or a set, on the command line: its id, or a beginning of it that no other has, or "latest".
struct ImageName {
    std::string id;
    std::string store; ///< searched instead of the known stores; empty for these
};

/// The images of `store`, or of all known stores; the oldest first.
ImageList all_images(const std::string &store);

/// Why the images of a set that are among some may not be all of it.
struct SetGaps {
    std::vector<std::string> missing;    ///< images that its id documents name: elsewhere, or gone
    std::vector<std::string> unreadable; ///< images without an id document of their own, which might name more
    bool empty() const { return missing.empty() && unreadable.empty(); }
};
SetGaps gaps_of_set(const qfi_image_list *images, const std::string &set);

/// The name of this host, as its images have it.
const std::string &this_host();
bool has_other_hosts(const qfi_image_list *images);
/// " of host NAME" for an image of another host, else empty.
std::string host_text(const qfi_image &image);

/// The whole id that `name` stands for. Throws Failure when none or several fit, or a part of a set is not there.
std::string whole_id(const ImageName &name);

/// The images of that id; one, or those of a set.
ImageList find_images(const ImageName &name);

/// The image's tree, as it was frozen.
Tree open_tree(const ImageName &name);

/// The id of a frozen tree's image; when it has several, that of their set, which names them all.
std::string id_of(const qfi_domain *tree);

const char *remark_name(uint32_t kind); ///< "torn", "vanished", "attribute", "skipped", "unreadable", "warning"

/// A remark as a line, safe on a terminal: "torn: /data/log: changed while it was copied".
std::string remark_text(const qfi_report_item &item);

/// Tells on standard error what a report holds, a line for each remark, unless there is nothing.
void print_remarks(const qfi_report &report);

/// Asks "QUESTION [y/N] " on the terminal; true for yes. Without a terminal, or with `assume_yes`, nothing is asked:
/// then throws Failure with `exit_usage` unless `assume_yes`.
bool confirm(const std::string &question, bool assume_yes);

} // namespace qzfi::tool
