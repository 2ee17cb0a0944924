// Any bytes as a manifest: refused as damaged, or sorted lines that are written as they were read.
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "fi/fi_manifest.h"

using namespace qzfi::fi;

namespace {

// Manifests are opened by name, and not through links.
const std::string &folder() {
    static const std::string path = [] {
        std::string name = "/tmp/qzfi-fuzz-XXXXXX";
        if (mkdtemp(name.data()) == nullptr)
            std::abort();
        std::atexit([] { rmdir(folder().c_str()); });
        return name;
    }();
    return path;
}

void check(const ManifestEntry &entry) {
    qfi_entry again{};
    again.path = entry.path.c_str();
    again.type = entry.type;
    again.mode = entry.mode;
    again.uid = entry.uid;
    again.gid = entry.gid;
    again.size = entry.size;
    again.mtime_ns = entry.mtime_ns;
    again.device = entry.device;
    again.target = entry.target.c_str();
    again.digest = entry.digest.empty() ? nullptr : reinterpret_cast<const uint8_t *>(entry.digest.data());
    std::string line;
    ManifestEntry read;
    if (!manifest_line(again, line) || !parse_manifest_line(line, read) ||
        change_between(entry, read) != QFI_CHANGE_NONE || read.path != entry.path)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    const Hush hush;
    const std::string path = folder() + "/manifest";
    Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!file || write(file.get(), data, size) != static_cast<ssize_t>(size))
        std::abort();
    try {
        ManifestReader reader(AT_FDCWD, path.c_str(), "fuzz", "image");
        std::string previous;
        bool is_first = true;
        for (ManifestEntry entry; reader.next(entry); is_first = false) {
            if (!is_first && !(previous < entry.path))
                std::abort();
            previous = entry.path;
            check(entry);
        }
    } catch (const Failure &failure) {
        if (failure.status != QFI_FI_DAMAGED)
            std::abort();
    }
    unlink(path.c_str());
    return 0;
}
