// Id documents: XML by the schema resources/qfiid_schema.xsd, written and read with libxml2.
#pragma once

#include <string>
#include <vector>

#include "fi/fi_store.h"

namespace qzfi::fi {

/// What an id document says: the images of one set, each with the store that it lies in and its report's summary.
struct FiidImage {
    ImageRecord record;
    std::string store;
};
struct Fiid {
    std::string set_id;
    std::vector<FiidImage> images;
};

/// The document's text. Paths of any bytes are kept: what XML cannot hold is written as "\xHH", and "\" as "\\".
/// Throws Failure with QFI_STATUS_INVALID_ARGUMENT, and the limit, for what `read_fiid` would refuse as too long.
std::string write_fiid(const Fiid &fiid, const char *operation);

/// Reads a document; nothing in it is trusted: no entity is expanded, nothing is loaded, sizes are bounded, ids and
/// paths are checked. Throws Failure with QFI_FI_BAD_FIID and the reason.
Fiid read_fiid(std::string_view document, const char *operation);

/// A new `qfi_fiid` of a text, from malloc in one block with it.
qfi_fiid *give_fiid(const std::string &document);

} // namespace qzfi::fi
