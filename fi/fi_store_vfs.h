// The files of a catalog, as SQLite reaches them.
#pragma once

namespace qzfi::fi {

/// Registers the file layer for catalogs, once, and gives its name; null when that fails.
///
/// It opens paths as they stand, without a look at the links in them. And it has each page of the wal-index, which
/// SQLite maps and writes to, backed by the file system before SQLite touches it: on one that is full SQLite is told
/// so, where the process would be ended by SIGBUS.
const char *catalog_vfs() noexcept;

/// The errno of this thread's last failure to read or write a catalog since this was called; 0 for none.
int take_catalog_error() noexcept;

} // namespace qzfi::fi
