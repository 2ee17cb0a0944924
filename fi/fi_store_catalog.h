// The catalog of a store: an SQLite database in WAL mode. All that fails is raised with the store's path.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fi/fi_store.h"

namespace qzfi::fi {

/// Thread-safe; several of one store may be open, in any number of processes. A file `reserve` beside the catalog holds
/// the room that opening it and erasing a record need, so that images can be removed from a full file system.
class Catalog {
public:
    /// Opens the catalog in a store's directory, which stays open longer; makes it when `create`. Of a store that
    /// cannot be written a copy is read, as it is at this moment: nothing is left in it, and nobody is waited for.
    Catalog(int directory, std::string store, bool writable, bool create, const char *operation);
    ~Catalog();
    Catalog(const Catalog &) = delete;
    Catalog &operator=(const Catalog &) = delete;

    void add(const ImageRecord &record, const char *operation);
    /// False when there was none.
    bool erase(const std::string &id, const char *operation);
    /// Reads a record, lets `change` change it, and writes what may change later, without anybody between; false when
    /// there is none.
    bool change(const std::string &id, const char *operation, const std::function<void(ImageRecord &)> &change);
    std::vector<ImageRecord> list(const char *operation); ///< the oldest first
    std::optional<ImageRecord> find(const std::string &id, const char *operation);
    std::set<std::string> ids(const char *operation); ///< of pending ones too, which nothing above tells of
    bool has(const std::string &id, const char *operation);
    std::vector<std::string> pending(const char *operation);
    void settle(const std::string &id, const char *operation);
    /// Notes of a pending image that its set is whole: from then on it is settled whatever became of the others.
    void note_whole(const std::string &id, const char *operation);
    bool is_whole(const std::string &id, const char *operation);
    /// Makes an image pending again, of a set of which nothing is known.
    void unsettle(const std::string &id, const char *operation);
    /// Erases the record of a pending image whose set is not known to be whole; false when there is none.
    bool erase_incomplete(const std::string &id, const char *operation);
    /// Makes sure that a record which is not there stays away. The log may hold one whose transaction failed at its
    /// last sync, and a crash would bring it back: the next transaction takes its place.
    void seal(const char *operation);

    void remember(const std::string &path, const char *operation);
    bool forget(const std::string &path, const char *operation);
    std::vector<std::string> stores(const char *operation);

private:
    struct Connection;
    template <class Work>
    auto sparing(Work &&work);
    void open(bool writable, bool create, const char *operation);
    void prepare_schema(bool create, const char *operation);
    bool erase_by(const char *sql, const std::string &id, const char *operation);
    void set_state(const char *sql, const std::string &id, const char *operation);
    std::vector<ImageRecord> select(const std::string *id, const char *operation);

    std::mutex mutex_;
    int directory_;
    std::string store_;
    std::unique_ptr<Connection> connection_;
};

inline constexpr char database_name[] = "catalog.db";

struct CatalogPlace;
/// Copies a catalog and its log as they are at one moment, from one directory to another. Throws.
void copy_catalog(int from, int to, const CatalogPlace &place);

} // namespace qzfi::fi
