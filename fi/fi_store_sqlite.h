// SQLite for the catalog: a connection, statements and transactions whose failures are raised.
#pragma once

#include <sqlite3.h>
#include <string>

#include "fi/fi_library.h"

namespace qzfi::fi {

/// Where the catalog's failures belong.
struct CatalogPlace {
    const std::string &store;
    const char *operation;
};

/// Raises and throws what an SQLite result means.
[[noreturn]] void fail_sqlite(sqlite3 *connection, int result, const CatalogPlace &place);

/// Opens a database below a directory that stays open. `flags` are SQLite's.
/// On failure null is given with what SQLite said in `result`.
sqlite3 *open_sqlite(const std::string &path, int flags, int &result, int &error);

/// A statement. Waits for other processes, up to a minute.
class Statement {
public:
    Statement(sqlite3 *connection, const char *sql, CatalogPlace place);
    ~Statement();
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;

    void bind(int index, const std::string &bytes);
    void bind(int index, int64_t number);
    void bind(int index, uint64_t number) { bind(index, static_cast<int64_t>(number)); }
    /// True for a row, false when done.
    bool step();
    void reset();
    std::string bytes(int column) const;
    int64_t number(int column) const;
    bool is_null(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }

private:
    void check(int result);
    sqlite3 *connection_;
    sqlite3_stmt *statement_ = nullptr;
    CatalogPlace place_;
    bool is_running_ = false;
};

void run_sql(sqlite3 *connection, const char *sql, const CatalogPlace &place);

/// A writing transaction; rolled back unless committed.
class Transaction {
public:
    Transaction(sqlite3 *connection, CatalogPlace place);
    ~Transaction();
    Transaction(const Transaction &) = delete;
    Transaction &operator=(const Transaction &) = delete;
    void commit();

private:
    sqlite3 *connection_;
    CatalogPlace place_;
    bool is_open_ = true;
};

} // namespace qzfi::fi
