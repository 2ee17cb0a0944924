#include "fi/fi_store_sqlite.h"

#include <chrono>
#include <thread>

#include "fi/fi_store_vfs.h"

namespace qzfi::fi {

namespace {

constexpr int busy_ms = 10'000;
constexpr auto patience = std::chrono::seconds(60);
constexpr auto pause = std::chrono::milliseconds(5);

bool is_passing(int result) {
    const int primary = result & 0xff;
    return primary == SQLITE_BUSY || primary == SQLITE_LOCKED || primary == SQLITE_PROTOCOL;
}

// A store may have been made by others: nothing in its schema may run.
void distrust(sqlite3 *connection) {
    sqlite3_db_config(connection, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(connection, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(connection, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    sqlite3_db_config(connection, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
}

} // namespace

void fail_sqlite(sqlite3 *connection, int result, const CatalogPlace &place) {
    const int primary = result & 0xff;
    int error = take_catalog_error();
    if (error == 0 && connection != nullptr)
        error = sqlite3_system_errno(connection);
    const bool names_errno = primary == SQLITE_IOERR || primary == SQLITE_CANTOPEN;
    if (primary == SQLITE_NOMEM || result == SQLITE_IOERR_NOMEM)
        fail(message::no_memory, QFI_STATUS_NO_MEMORY, place.operation, {});
    if (primary == SQLITE_FULL || (names_errno && status_of(error, 0) == QFI_FI_NO_SPACE))
        fail(message::no_space, QFI_FI_NO_SPACE, place.operation, {place.store});
    if (primary == SQLITE_READONLY || primary == SQLITE_PERM || (names_errno && status_of(error, 0) == QFI_FI_NO_RIGHT))
        fail(message::no_right, QFI_FI_NO_RIGHT, place.operation, {"use the catalog of store", place.store});
    if (is_passing(result))
        fail(message::busy, QFI_FI_BUSY, place.operation, {place.store});
    std::string cause = connection != nullptr ? sqlite3_errmsg(connection) : sqlite3_errstr(result);
    if (names_errno && error != 0)
        cause += ": " + error_text(error);
    fail(message::catalog_failed, QFI_FI_CATALOG, place.operation, {place.store, cause});
}

sqlite3 *open_sqlite(const std::string &path, int flags, int &result, int &error) {
    const char *const vfs = catalog_vfs();
    if (vfs == nullptr) {
        result = SQLITE_ERROR;
        error = 0;
        return nullptr;
    }
    sqlite3 *connection = nullptr;
    result = sqlite3_open_v2(path.c_str(), &connection, flags | SQLITE_OPEN_FULLMUTEX, vfs);
    error = connection != nullptr ? sqlite3_system_errno(connection) : 0;
    if (result != SQLITE_OK) {
        sqlite3_close(connection);
        return nullptr;
    }
    sqlite3_extended_result_codes(connection, 1);
    sqlite3_busy_timeout(connection, busy_ms);
    distrust(connection);
    return connection;
}

Statement::Statement(sqlite3 *connection, const char *sql, CatalogPlace place)
    : connection_(connection), place_(place) {
    // Preparing reads the schema, and so may have to wait too.
    take_catalog_error();
    const auto deadline = std::chrono::steady_clock::now() + patience;
    int result = sqlite3_prepare_v2(connection, sql, -1, &statement_, nullptr);
    while (is_passing(result) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(pause);
        result = sqlite3_prepare_v2(connection, sql, -1, &statement_, nullptr);
    }
    check(result);
}

Statement::~Statement() {
    sqlite3_finalize(statement_);
}

void Statement::check(int result) {
    if (result != SQLITE_OK)
        fail_sqlite(connection_, result, place_);
}

void Statement::bind(int index, const std::string &bytes) {
    check(sqlite3_bind_blob64(statement_, index, bytes.data(), bytes.size(), SQLITE_TRANSIENT));
}

void Statement::bind(int index, int64_t number) {
    check(sqlite3_bind_int64(statement_, index, number));
}

bool Statement::step() {
    take_catalog_error();
    const auto deadline = std::chrono::steady_clock::now() + patience;
    int result = sqlite3_step(statement_);
    // Not every wait goes through the busy handler. A statement that has given rows cannot be begun again.
    while (is_passing(result) && !is_running_ && std::chrono::steady_clock::now() < deadline) {
        sqlite3_reset(statement_);
        std::this_thread::sleep_for(pause);
        result = sqlite3_step(statement_);
    }
    if (result != SQLITE_ROW && result != SQLITE_DONE)
        fail_sqlite(connection_, result, place_);
    is_running_ = result == SQLITE_ROW;
    return is_running_;
}

void Statement::reset() {
    is_running_ = false;
    sqlite3_reset(statement_);
    check(sqlite3_clear_bindings(statement_));
}

std::string Statement::bytes(int column) const {
    const void *const start = sqlite3_column_blob(statement_, column);
    const int size = sqlite3_column_bytes(statement_, column);
    if (start == nullptr && sqlite3_errcode(connection_) == SQLITE_NOMEM)
        throw std::bad_alloc();
    return start == nullptr ? std::string() : std::string(static_cast<const char *>(start), static_cast<size_t>(size));
}

int64_t Statement::number(int column) const {
    return sqlite3_column_int64(statement_, column);
}

void run_sql(sqlite3 *connection, const char *sql, const CatalogPlace &place) {
    Statement statement(connection, sql, place);
    while (statement.step()) {
    }
}

Transaction::Transaction(sqlite3 *connection, CatalogPlace place) : connection_(connection), place_(place) {
    run_sql(connection, "BEGIN IMMEDIATE", place);
}

Transaction::~Transaction() {
    // A failure may have rolled back already; then there is nothing to undo.
    if (is_open_ && sqlite3_get_autocommit(connection_) == 0)
        sqlite3_exec(connection_, "ROLLBACK", nullptr, nullptr, nullptr);
}

void Transaction::commit() {
    run_sql(connection_, "COMMIT", place_);
    is_open_ = false;
}

} // namespace qzfi::fi
