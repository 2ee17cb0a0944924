// An object that has changed since it was frozen, for resynchronisations that are stopped or meet each other.
#pragma once

#include <set>

#include "images_support.h"

namespace images {

/// Makes the original what it was; `report` (or null) is what was told of it.
inline int32_t resync(const Tree &tree, const char *only = nullptr, uint32_t workers = 1,
                      qfi_report **report = nullptr) {
    qfi_restore_options options;
    QFI_INIT(options);
    options.only = only;
    options.workers = workers;
    return qfi_op_resync(tree.get(), &options, report);
}

/// A tree of a few entries, and what differs after `spoil`: contents, types, names, links, attributes.
inline void make_original(const fs::path &object) {
    fs::create_directories(object / "sub" / "deeper");
    write_file(object / "same", "same before and after");
    write_file(object / "plain", "plain before");
    write_file(object / "sub" / "file", "file before");
    write_file(object / "sub" / "deeper" / "gone", "gone before");
    fs::create_hard_link(object / "plain", object / "sub" / "other name");
    fs::create_symlink("file", object / "sub" / "link");
    write_file(object / "mode", "mode");
    fs::permissions(object / "mode", fs::perms::owner_all);
}

inline void spoil(const fs::path &object) {
    fs::remove(object / "sub" / "other name");
    write_file(object / "plain", "plain, changed since");
    write_file(object / "sub" / "file", "file, changed since");
    fs::remove_all(object / "sub" / "deeper");
    fs::remove(object / "sub" / "link");
    fs::create_directory(object / "sub" / "link");
    write_file(object / "sub" / "link" / "inner", "where the link was");
    fs::create_directory(object / "added");
    write_file(object / "added" / "file", "added since");
    fs::permissions(object / "mode", fs::perms::owner_read);
}

/// Whatever part of it was done: each file that was there is the old one or the new one, whole, and nothing else was
/// touched. What was missing may be half made.
inline void expect_old_or_new_files(const fs::path &object) {
    EXPECT_EQ(content_of(object / "same"), "same before and after");
    EXPECT_EQ(content_of(object / "mode"), "mode");
    const std::string plain = content_of(object / "plain"), file = content_of(object / "sub" / "file");
    EXPECT_TRUE(plain == "plain before" || plain == "plain, changed since") << plain;
    EXPECT_TRUE(file == "file before" || file == "file, changed since") << file;
    for (const auto &[path, content] :
         {std::pair{object / "sub" / "deeper" / "gone", "gone before"},
          std::pair{object / "sub" / "other name", "plain before"}, std::pair{object / "added" / "file", "added since"},
          std::pair{object / "sub" / "link" / "inner", "where the link was"}})
        if (!fs::is_symlink(path.parent_path()) && fs::exists(path)) {
            const std::string now = content_of(path);
            EXPECT_EQ(now, std::string(content).substr(0, now.size())) << path;
        }
    EXPECT_EQ(fs::is_symlink(object / "sub" / "link") ? fs::read_symlink(object / "sub" / "link") : "file", "file");
}

/// The names of a tree that only work in progress has.
inline std::set<std::string> temporary_names(const fs::path &tree) {
    std::set<std::string> names;
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(tree))
        if (entry.path().filename().string().rfind(".qzfi", 0) == 0)
            names.insert(entry.path());
    return names;
}

} // namespace images
