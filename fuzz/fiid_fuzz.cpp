// Any bytes as an id document: refused, or the same again after being written and read.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "fi/fi_fiid.h"
#include "fi/fi_fiid_text.h"

using namespace qzfi::fi;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    const Hush hush;
    Fiid fiid;
    try {
        fiid = read_fiid({reinterpret_cast<const char *>(data), size}, "fuzz");
    } catch (const Failure &failure) {
        if (failure.status != QFI_FI_BAD_FIID)
            std::abort();
        return 0;
    }
    for (const FiidImage &image : fiid.images) {
        if (!is_image_id(image.record.id) || !is_canonical_path(image.store))
            std::abort();
        for (const ImageObject &object : image.record.objects)
            if (!is_canonical_path(object.path) || !is_canonical_subpath(object.subpath))
                std::abort();
    }
    const std::string written = write_fiid(fiid, "fuzz");
    if (write_fiid(read_fiid(written, "fuzz"), "fuzz") != written)
        std::abort();
    return 0;
}
