// Stores within what is frozen, restored or compared: images are no part of it.
#pragma once

#include <string>
#include <vector>

#include <qzfi_provider.h>

#include "fi/fi_tree.h"

namespace qzfi::fi {

/// The stores that a job leaves out: the one in use and the known ones, by whatever path they are known, and what looks
/// like one in the place that a provider's default store would have; and those that were found.
class LeftOut {
public:
    LeftOut(const TreeFilesystem &filesystem, const std::string &object, const std::vector<std::string> &found = {});
    LeftOut(const LeftOut &) = delete;
    LeftOut &operator=(const LeftOut &) = delete;
    const qfi_excluded *list() const noexcept { return excluded_.data(); }
    uint32_t count() const noexcept { return static_cast<uint32_t>(excluded_.size()); }
    /// Into a job, or options of the engine, which must not outlive this.
    template <class Taker>
    void put(Taker &taker) const noexcept {
        taker.excluded = list();
        taker.excluded_count = count();
    }

private:
    bool add(const std::string &path, bool must_look_like_one);
    std::vector<Descriptor> open_;
    std::vector<qfi_excluded> excluded_;
};

/// Whether an open folder is a store, by its entries.
bool is_store(int folder) noexcept;

/// Tells of stores by what they are, for many a root does not know all of them: walks a tree whose entries it is given.
class StoreFinder {
public:
    explicit StoreFinder(int directory) : directory_(directory) {}
    void look_at(const qfi_entry &entry);
    /// Paths below the directory; "" for itself.
    const std::vector<std::string> &found() const noexcept { return found_; }

private:
    const int directory_;
    std::vector<std::string> found_;
};
/// The absolute paths of all stores at or below a directory, but for those that are left out anyway.
std::vector<std::string> stores_within(int directory, const std::string &path, const LeftOut &left_out,
                                       const char *operation, Progress *cancelled_by = nullptr);

} // namespace qzfi::fi
