// What the tests of stores share: a folder of their own, records, and error records as texts.
#pragma once

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include <qzfi/errors.h>
#include <qzfi/settings.h>

#include "fi/fi_store.h"

namespace store_support {

/// A temporary folder, removed with all in it.
class Folder {
public:
    explicit Folder(const std::string &above = "/tmp");
    ~Folder();
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

/// A record with one object.
qzfi::fi::ImageRecord record_of(const std::string &id);
/// Makes an image with a file "data" in its object, and gives its id.
std::string make_image(qzfi::fi::Store &store);
/// Removes an object's tree.
void remove_all(int directory, const char *name);
/// The ids that a store lists.
std::vector<std::string> ids_of(qzfi::fi::Store &store);
/// The names in a folder, sorted.
std::vector<std::string> names_in(const std::string &path);

/// The calling thread's last error: "STATUS ID: argument|argument|..."; deletes all.
std::string last_error();

/// Runs a body in a child, which must not fail the test or throw; gives its exit code, or minus the signal that ended
/// it.
int in_child(const std::function<void()> &body);

/// The status that a call throws, 0 for none.
template <class Call>
int32_t status_of_call(Call &&call) {
    try {
        call();
        return 0;
    } catch (const qzfi::fi::Failure &failure) {
        return failure.status;
    } catch (const std::bad_alloc &) {
        return QFI_STATUS_NO_MEMORY;
    }
}

} // namespace store_support
