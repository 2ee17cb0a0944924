#include "fi/fi_store_catalog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fi/fi_fiid_text.h"
#include "fi/fi_store_folders.h"
#include "fi/fi_store_sqlite.h"
#include "fi/fi_temporary.h"

namespace qzfi::fi {

namespace {

constexpr int64_t catalog_version = 1;
constexpr int64_t application_id = 0x717a6669; // "qzfi"
constexpr off_t reserve_size = 512 * 1024;
constexpr off_t least_reserve_size = 64 * 1024;

// Texts are blobs: they may hold any bytes. Numbers of 64 bits without a sign are kept by their bits.
constexpr const char *const schema[] = {
    "CREATE TABLE image(id BLOB PRIMARY KEY NOT NULL, set_id BLOB NOT NULL, label BLOB NOT NULL, fim_id BLOB NOT NULL,"
    " provider_id BLOB NOT NULL, host BLOB NOT NULL, consistency INTEGER NOT NULL, time_ns INTEGER NOT NULL,"
    " duration_ns INTEGER NOT NULL, entries INTEGER NOT NULL, bytes INTEGER NOT NULL, remarks INTEGER NOT NULL,"
    " has_digests INTEGER NOT NULL, backed_up INTEGER NOT NULL, state INTEGER NOT NULL) WITHOUT ROWID",
    "CREATE TABLE object(image_id BLOB NOT NULL, position INTEGER NOT NULL, path BLOB NOT NULL, subpath BLOB NOT NULL,"
    " filesystem BLOB NOT NULL, device BLOB NOT NULL, mount_point BLOB NOT NULL, status INTEGER NOT NULL,"
    " status_text BLOB NOT NULL, PRIMARY KEY(image_id, position)) WITHOUT ROWID",
    "CREATE TABLE store(path BLOB PRIMARY KEY NOT NULL, position INTEGER NOT NULL) WITHOUT ROWID",
    "PRAGMA application_id = 1903847017",
    "PRAGMA user_version = 1",
};
static_assert(application_id == 1903847017 && catalog_version == 1);

std::string in_directory(int directory, const char *name) {
    return "/proc/self/fd/" + std::to_string(directory) + "/" + name;
}

// What there is room for now may be needed when there is none. On a file system that is nearly full it takes what is
// left, so that what was let go of for a removal is not used up by something else.
void keep_reserve(int directory) noexcept {
    constexpr int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const Descriptor file(openat(directory, reserve_name, flags, 0600));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1)
        return;
    // Blocks, not length: whoever made it may have been killed before it had any.
    if (status.st_blocks * 512 >= least_reserve_size)
        return;
    for (off_t size = reserve_size; size >= least_reserve_size; size /= 2)
        if (posix_fallocate(file.get(), 0, size) == 0)
            return;
    unlinkat(directory, reserve_name, 0);
}

// SQLite would make it readable to all.
void make_private(int directory, const CatalogPlace &place) {
    const Descriptor file(openat(directory, database_name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file && errno != EEXIST)
        fail_call(place.operation, "open", place.store + "/" + database_name, errno, false);
}

} // namespace

struct Catalog::Connection {
    std::unique_ptr<TemporaryFolder> copy; // outlives the database
    sqlite3 *database = nullptr;
    bool is_writable = false;

    Connection() = default;
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;
    ~Connection() { sqlite3_close(database); }

    // SQLite opens for reading what cannot be opened for writing, whatever the reason, and forgets the reason.
    [[noreturn]] static void fail_not_writable(int directory, const CatalogPlace &place) {
        if (faccessat(directory, database_name, W_OK, AT_EACCESS) != 0)
            fail_call(place.operation, "open", place.store + "/" + database_name, errno, false);
        fail(message::catalog_failed, QFI_FI_CATALOG, place.operation,
             {place.store, "it could not be opened for writing"});
    }

    void connect(int directory, int flags, const CatalogPlace &place) {
        int result = 0, error = 0;
        database = open_sqlite(in_directory(directory, database_name), flags, result, error);
        if (database != nullptr && ((flags & SQLITE_OPEN_READWRITE) == 0 || sqlite3_db_readonly(database, "main") == 0))
            return;
        if (database != nullptr)
            fail_not_writable(directory, place);
        if (result == SQLITE_NOMEM)
            fail(message::no_memory, QFI_STATUS_NO_MEMORY, place.operation, {});
        if (const int32_t status = status_of(error, 0); status == QFI_FI_NO_SPACE || status == QFI_FI_NO_RIGHT)
            fail_call(place.operation, "open", place.store + "/" + database_name, error, false);
        std::string cause = sqlite3_errstr(result);
        if (error != 0)
            cause += ": " + error_text(error);
        fail(message::catalog_failed, QFI_FI_CATALOG, place.operation, {place.store, cause});
    }
};

// What frees space must not fail for want of it: the reserve goes before a second try.
template <class Work>
auto Catalog::sparing(Work &&work) {
    KeptFailure first;
    try {
        const Keep keep(first);
        return work();
    } catch (const Failure &failure) {
        if (failure.status != QFI_FI_NO_SPACE) {
            first.raise_here();
            throw;
        }
        unlinkat(directory_, reserve_name, 0);
    }
    return work();
}

Catalog::Catalog(int directory, std::string store, bool writable, bool create, const char *operation)
    : directory_(directory), store_(std::move(store)) {
    sparing([&] {
        connection_.reset();
        open(writable, create, operation);
    });
    if (writable)
        keep_reserve(directory_);
}

Catalog::~Catalog() {
    const bool was_writable = connection_ && connection_->is_writable;
    connection_.reset();
    if (was_writable)
        keep_reserve(directory_);
}

void Catalog::open(bool writable, bool create, const char *operation) {
    const CatalogPlace place{store_, operation};
    connection_ = std::make_unique<Connection>();
    connection_->is_writable = writable;
    if (writable) {
        if (create)
            make_private(directory_, place);
        connection_->connect(directory_, SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0), place);
        prepare_schema(create, operation);
        return;
    }
    // Others may write to what this process cannot, and it can take no lock against them.
    connection_->copy = std::make_unique<TemporaryFolder>("qzfi-catalog-", operation);
    const int copy = connection_->copy->directory();
    copy_catalog(directory_, copy, place);
    connection_->connect(copy, SQLITE_OPEN_READWRITE, place);
    prepare_schema(false, operation);
}

namespace {

int64_t ask_number(sqlite3 *database, const char *sql, const CatalogPlace &place) {
    Statement statement(database, sql, place);
    return statement.step() ? statement.number(0) : 0;
}

void check_version(sqlite3 *database, int64_t version, const CatalogPlace &place) {
    if (ask_number(database, "PRAGMA application_id", place) != application_id)
        fail(message::store_unusable, QFI_FI_STORE, place.operation, {place.store, "its catalog is of something else"});
    if (version != catalog_version)
        fail(message::store_unusable, QFI_FI_STORE, place.operation,
             {place.store, "its catalog has version " + std::to_string(version) + ", this library knows version " +
                               std::to_string(catalog_version)});
}

} // namespace

// Two makers cannot meet here: the store's lock is held while a catalog is opened for writing.
void Catalog::prepare_schema(bool create, const char *operation) {
    const CatalogPlace place{store_, operation};
    sqlite3 *const database = connection_->database;
    const int64_t version = ask_number(database, "PRAGMA user_version", place);
    const bool is_new = version == 0 && ask_number(database, "PRAGMA application_id", place) == 0 &&
                        ask_number(database, "SELECT count(*) FROM sqlite_schema", place) == 0;
    if (!is_new || !create)
        check_version(database, version, place);
    if (!connection_->is_writable)
        return;
    run_sql(database, "PRAGMA journal_mode = WAL", place);
    run_sql(database, "PRAGMA synchronous = FULL", place);
    if (!is_new)
        return;
    Transaction transaction(database, place);
    for (const char *const sql : schema)
        run_sql(database, sql, place);
    transaction.commit();
}

namespace {

void insert_objects(sqlite3 *database, const ImageRecord &record, const CatalogPlace &place) {
    Statement insert(database, "INSERT INTO object VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)", place);
    for (std::size_t index = 0; index < record.objects.size(); ++index) {
        const ImageObject &object = record.objects[index];
        insert.bind(1, record.id);
        insert.bind(2, static_cast<int64_t>(index));
        insert.bind(3, object.path);
        insert.bind(4, object.subpath);
        insert.bind(5, object.filesystem);
        insert.bind(6, object.device);
        insert.bind(7, object.mount_point);
        insert.bind(8, int64_t{object.status});
        insert.bind(9, object.status_text);
        insert.step();
        insert.reset();
    }
}

void insert_image(sqlite3 *database, const ImageRecord &record, const CatalogPlace &place) {
    Statement insert(
        database, "INSERT INTO image VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15)", place);
    insert.bind(1, record.id);
    insert.bind(2, record.set_id);
    insert.bind(3, record.label);
    insert.bind(4, record.fim_id);
    insert.bind(5, record.provider_id);
    insert.bind(6, record.host);
    insert.bind(7, int64_t{record.consistency});
    insert.bind(8, record.time_ns);
    insert.bind(9, record.duration_ns);
    insert.bind(10, record.entries);
    insert.bind(11, record.bytes);
    insert.bind(12, record.remarks);
    insert.bind(13, int64_t{record.has_digests});
    insert.bind(14, int64_t{record.backed_up});
    insert.bind(15, int64_t{record.state});
    insert.step();
}

ImageRecord image_of(const Statement &row) {
    ImageRecord record;
    record.id = row.bytes(0);
    record.set_id = row.bytes(1);
    record.label = row.bytes(2);
    record.fim_id = row.bytes(3);
    record.provider_id = row.bytes(4);
    record.host = row.bytes(5);
    record.consistency = static_cast<uint32_t>(row.number(6));
    record.time_ns = row.number(7);
    record.duration_ns = static_cast<uint64_t>(row.number(8));
    record.entries = static_cast<uint64_t>(row.number(9));
    record.bytes = static_cast<uint64_t>(row.number(10));
    record.remarks = static_cast<uint64_t>(row.number(11));
    record.has_digests = row.number(12) != 0;
    record.backed_up = static_cast<uint32_t>(row.number(13));
    record.state = static_cast<uint32_t>(row.number(14));
    return record;
}

ImageObject object_of(const Statement &row, int column) {
    ImageObject object;
    object.path = row.bytes(column);
    object.subpath = row.bytes(column + 1);
    object.filesystem = row.bytes(column + 2);
    object.device = row.bytes(column + 3);
    object.mount_point = row.bytes(column + 4);
    object.status = static_cast<int32_t>(row.number(column + 5));
    object.status_text = row.bytes(column + 6);
    return object;
}

} // namespace

namespace {

// A catalog may have been made by others. What is wrong with a record; null for nothing.
const char *flaw_of(const ImageRecord &record) {
    if (!is_image_id(record.id) || !is_image_id(record.set_id))
        return "an id that is none";
    if (record.consistency > QFI_CONSISTENCY_ATOMIC || record.backed_up > 2 || record.state > 3)
        return "a number that means nothing";
    for (const ImageObject &object : record.objects)
        if (!is_canonical_path(object.path) || !is_canonical_subpath(object.subpath) ||
            !is_canonical_path(object.mount_point))
            return "a path that is none";
    return nullptr;
}

} // namespace

// One statement sees one state of the catalog, whatever is written meanwhile.
std::vector<ImageRecord> Catalog::select(const std::string *id, const char *operation) {
    constexpr int object_column = 15;
    const CatalogPlace place{store_, operation};
    Statement rows(
        connection_->database,
        id == nullptr ? "SELECT image.*, path, subpath, filesystem, device, mount_point, status, status_text FROM image"
                        " LEFT JOIN object ON image_id = id WHERE state NOT IN (0, 4) ORDER BY time_ns, id, position"
                      : "SELECT image.*, path, subpath, filesystem, device, mount_point, status, status_text FROM image"
                        " LEFT JOIN object ON image_id = id WHERE id = ?1 AND state NOT IN (0, 4) ORDER BY position",
        place);
    if (id != nullptr)
        rows.bind(1, *id);
    std::vector<ImageRecord> records;
    while (rows.step()) {
        if (records.empty() || records.back().id != rows.bytes(0))
            records.push_back(image_of(rows));
        if (!rows.is_null(object_column))
            records.back().objects.push_back(object_of(rows, object_column));
    }
    for (const ImageRecord &record : records)
        if (const char *const flaw = flaw_of(record))
            fail(message::catalog_failed, QFI_FI_CATALOG, operation, {store_, std::string("it holds ") + flaw});
    return records;
}

namespace {

bool has_record(sqlite3 *database, const std::string &id, const CatalogPlace &place) {
    Statement row(database, "SELECT 1 FROM image WHERE id = ?1", place);
    row.bind(1, id);
    return row.step();
}

} // namespace

void Catalog::add(const ImageRecord &record, const char *operation) {
    const std::lock_guard lock(mutex_);
    const CatalogPlace place{store_, operation};
    // What no reader takes would make the whole store unreadable.
    if (const char *const flaw = flaw_of(record))
        fail(message::invalid_argument, QFI_STATUS_INVALID_ARGUMENT, operation,
             {std::string("the record holds ") + flaw});
    Transaction transaction(connection_->database, place);
    if (has_record(connection_->database, record.id, place))
        fail(message::already_exists, QFI_FI_EXISTS, operation, {record.id});
    insert_image(connection_->database, record, place);
    insert_objects(connection_->database, record, place);
    transaction.commit();
}

bool Catalog::erase(const std::string &id, const char *operation) {
    return erase_by("DELETE FROM image WHERE id = ?1", id, operation);
}

bool Catalog::erase_incomplete(const std::string &id, const char *operation) {
    return erase_by("DELETE FROM image WHERE id = ?1 AND state = 0", id, operation);
}

bool Catalog::erase_by(const char *sql, const std::string &id, const char *operation) {
    const std::lock_guard lock(mutex_);
    return sparing([&] {
        const CatalogPlace place{store_, operation};
        sqlite3 *const database = connection_->database;
        Transaction transaction(database, place);
        Statement image(database, sql, place);
        image.bind(1, id);
        image.step();
        const bool was_there = sqlite3_changes(database) != 0;
        if (!was_there)
            return false;
        Statement objects(database, "DELETE FROM object WHERE image_id = ?1", place);
        objects.bind(1, id);
        objects.step();
        transaction.commit();
        return was_there;
    });
}

bool Catalog::change(const std::string &id, const char *operation, const std::function<void(ImageRecord &)> &change) {
    const std::lock_guard lock(mutex_);
    const CatalogPlace place{store_, operation};
    sqlite3 *const database = connection_->database;
    Transaction transaction(database, place);
    std::vector<ImageRecord> found = select(&id, operation);
    if (found.empty())
        return false;
    ImageRecord &record = found.front();
    const std::size_t object_count = record.objects.size();
    change(record);
    Statement image(database, "UPDATE image SET label = ?2, backed_up = ?3 WHERE id = ?1", place);
    image.bind(1, id);
    image.bind(2, record.label);
    image.bind(3, int64_t{record.backed_up});
    image.step();
    Statement object(database, "UPDATE object SET status = ?3, status_text = ?4 WHERE image_id = ?1 AND position = ?2",
                     place);
    for (std::size_t index = 0; index < object_count && index < record.objects.size(); ++index) {
        object.bind(1, id);
        object.bind(2, static_cast<int64_t>(index));
        object.bind(3, int64_t{record.objects[index].status});
        object.bind(4, record.objects[index].status_text);
        object.step();
        object.reset();
    }
    transaction.commit();
    return true;
}

std::vector<ImageRecord> Catalog::list(const char *operation) {
    const std::lock_guard lock(mutex_);
    return select(nullptr, operation);
}

std::optional<ImageRecord> Catalog::find(const std::string &id, const char *operation) {
    const std::lock_guard lock(mutex_);
    std::vector<ImageRecord> found = select(&id, operation);
    if (found.empty())
        return std::nullopt;
    return std::move(found.front());
}

std::set<std::string> Catalog::ids(const char *operation) {
    const std::lock_guard lock(mutex_);
    Statement rows(connection_->database, "SELECT id FROM image", CatalogPlace{store_, operation});
    std::set<std::string> ids;
    while (rows.step())
        ids.insert(rows.bytes(0));
    return ids;
}

bool Catalog::has(const std::string &id, const char *operation) {
    const std::lock_guard lock(mutex_);
    return has_record(connection_->database, id, CatalogPlace{store_, operation});
}

std::vector<std::string> Catalog::pending(const char *operation) {
    const std::lock_guard lock(mutex_);
    Statement rows(connection_->database, "SELECT id FROM image WHERE state IN (0, 4)",
                   CatalogPlace{store_, operation});
    std::vector<std::string> ids;
    while (rows.step())
        ids.push_back(rows.bytes(0));
    return ids;
}

bool Catalog::is_whole(const std::string &id, const char *operation) {
    const std::lock_guard lock(mutex_);
    Statement row(connection_->database, "SELECT 1 FROM image WHERE id = ?1 AND state <> 0",
                  CatalogPlace{store_, operation});
    row.bind(1, id);
    return row.step();
}

void Catalog::set_state(const char *sql, const std::string &id, const char *operation) {
    const CatalogPlace place{store_, operation};
    Transaction transaction(connection_->database, place);
    Statement image(connection_->database, sql, place);
    image.bind(1, id);
    image.step();
    transaction.commit();
}

void Catalog::settle(const std::string &id, const char *operation) {
    const std::lock_guard lock(mutex_);
    set_state("UPDATE image SET state = 1 WHERE id = ?1 AND state IN (0, 4)", id, operation);
}

void Catalog::note_whole(const std::string &id, const char *operation) {
    const std::lock_guard lock(mutex_);
    set_state("UPDATE image SET state = 4 WHERE id = ?1 AND state = 0", id, operation);
}

void Catalog::unsettle(const std::string &id, const char *operation) {
    const std::lock_guard lock(mutex_);
    set_state("UPDATE image SET state = 0 WHERE id = ?1", id, operation);
}

// A transaction that changes nothing but the header's count of changes.
void Catalog::seal(const char *operation) {
    const std::lock_guard lock(mutex_);
    sparing([&] {
        const CatalogPlace place{store_, operation};
        Transaction transaction(connection_->database, place);
        run_sql(connection_->database, "PRAGMA user_version = 1", place);
        transaction.commit();
    });
}

void Catalog::remember(const std::string &path, const char *operation) {
    const std::lock_guard lock(mutex_);
    const CatalogPlace place{store_, operation};
    Transaction transaction(connection_->database, place);
    Statement insert(connection_->database,
                     "INSERT OR IGNORE INTO store VALUES(?1, (SELECT coalesce(max(position), 0) + 1 FROM store))",
                     place);
    insert.bind(1, path);
    insert.step();
    transaction.commit();
}

bool Catalog::forget(const std::string &path, const char *operation) {
    const std::lock_guard lock(mutex_);
    const CatalogPlace place{store_, operation};
    Transaction transaction(connection_->database, place);
    Statement erase(connection_->database, "DELETE FROM store WHERE path = ?1", place);
    erase.bind(1, path);
    erase.step();
    const bool was_there = sqlite3_changes(connection_->database) != 0;
    transaction.commit();
    return was_there;
}

std::vector<std::string> Catalog::stores(const char *operation) {
    const std::lock_guard lock(mutex_);
    Statement rows(connection_->database, "SELECT path FROM store ORDER BY position", CatalogPlace{store_, operation});
    std::vector<std::string> paths;
    while (rows.step())
        paths.push_back(rows.bytes(0));
    return paths;
}

} // namespace qzfi::fi
