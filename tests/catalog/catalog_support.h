// What the tests of the catalog files share: a private catalog directory, and which file a descriptor stands for.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <optional>
#include <pthread.h>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include <qzfi/catalogs.h>
#include <qzfi/settings.h>

#include "support/private_root.h"
#include "util/qzfiutil_catalog.h"

namespace catalog_support {

inline const std::string plain_path = "/usr/lumen/resources/ZELTqzfi.cat";

inline std::string path_of(const std::string &locale) {
    return locale == "en_US" ? plain_path : "/usr/lumen/resources/" + locale + ".UTF-8/ZELTqzfi.cat";
}

inline void write_catalog(const std::string &locale, const std::string &content) {
    private_root::write_file(path_of(locale).substr(std::string("/usr/lumen/").size()), content);
}

inline void write_mapping(const std::string &content) {
    private_root::write_file("resources/Qfi-Locale-to-Language.txt", content);
}

/// Closes a descriptor and tells which file it was open for; "none" for -1.
inline std::string taken(int32_t descriptor) {
    if (descriptor == -1)
        return "none";
    const std::filesystem::path link = "/proc/self/fd/" + std::to_string(descriptor);
    const std::string path = std::filesystem::read_symlink(link);
    close(descriptor);
    return path;
}

inline std::ptrdiff_t open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

inline bool lock_is_free() {
    if (pthread_mutex_trylock(&mutex) != 0)
        return false;
    pthread_mutex_unlock(&mutex);
    return true;
}

/// A text, or nothing for null: a look-up's result that outlives the catalog.
inline std::optional<std::string> format_of(const char *key) {
    const char *const format = qzfi_getlfmt(key);
    return format == nullptr ? std::nullopt : std::optional<std::string>(format);
}

/// An empty catalog directory, nothing loaded, a language set.
class CatalogTest : public testing::Test {
protected:
    void SetUp() override {
        if (const auto obstacle = private_root::enter())
            GTEST_SKIP() << *obstacle;
        private_root::make_directories("resources");
        qzfi_setlang(1);
    }
    void TearDown() override {
        qzfi_ufini();
        qzfi_setlang(0);
    }
};

} // namespace catalog_support
