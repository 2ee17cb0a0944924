#include "store_support.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace store_support {

using namespace qzfi::fi;

Folder::Folder(const std::string &above) : path_(above + "/qzfi-store-test-XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr)
        throw std::filesystem::filesystem_error("mkdtemp", std::error_code(errno, std::generic_category()));
}

Folder::~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

ImageRecord record_of(const std::string &id) {
    ImageRecord record;
    record.id = id;
    record.set_id = "20260101T000000Z-00000000";
    record.label = "a label";
    record.fim_id = "copy";
    record.provider_id = "copy";
    record.host = "host";
    record.consistency = QFI_CONSISTENCY_PER_FILE;
    record.time_ns = 1'700'000'000'123'456'789;
    record.duration_ns = 5;
    record.entries = 2;
    record.bytes = 4;
    record.objects.push_back({"/home", "", "xfs", "/dev/sda1", "/", 0, ""});
    return record;
}

std::string make_image(Store &store) {
    const std::string id = new_image_id();
    NewImage image = store.begin(id, "qzfi_prepare");
    const std::string object = NewImage::object_name(0);
    if (mkdirat(image.objects(), object.c_str(), 0755) != 0)
        throw Failure{status_of(errno, QFI_FI_WRITE)};
    const Descriptor file(openat(image.objects(), (object + "/data").c_str(), O_WRONLY | O_CREAT, 0644));
    if (!file || write(file.get(), "data", 4) != 4)
        throw Failure{status_of(errno, QFI_FI_WRITE)};
    image.commit(record_of(id), "<fiid/>", "qzfi_split");
    return id;
}

void remove_all(int directory, const char *name) {
    std::filesystem::remove_all("/proc/self/fd/" + std::to_string(directory) + "/" + name);
}

std::vector<std::string> ids_of(Store &store) {
    std::vector<std::string> ids;
    for (const ImageRecord &record : store.list("qzfi_enumerate_trees"))
        ids.push_back(record.id);
    std::sort(ids.begin(), ids.end());
    return ids;
}

std::vector<std::string> names_in(const std::string &path) {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(path))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

std::string last_error() {
    qfi_error_info *error = nullptr;
    std::string text = "none";
    if (does_last_error_exist(&error) == 1) {
        text = std::to_string(error->status) + " " + error->message_id + ":";
        for (int32_t index = 0; index < error->count; ++index)
            text += std::string(index == 0 ? " " : "|") +
                    (error->arguments[index] != nullptr ? error->arguments[index] : "(null)");
    }
    fi_del_all_errors();
    return text;
}

int in_child(const std::function<void()> &body) {
    const pid_t child = fork();
    if (child == 0) {
        try {
            body();
        } catch (...) {
            _exit(99);
        }
        fflush(nullptr); // what it said of failures
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

} // namespace store_support
