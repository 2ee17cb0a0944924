// How the names of plugin files are taken apart, and which files are loaded.
#pragma once

#include <dirent.h>
#include <memory>

#include <qzfi/plugin.h>
#include <qzfi/system.h>

#pragma GCC visibility push(hidden)

extern "C" {

/// The text that follows the first `prefix` in `name`, which need not begin with it; null when there is no prefix or
/// nothing follows it.
char *findprefix(char *name, const char *prefix);

/// Cuts `name` to its base name, at the first dot, and gives the text after its second dot as the version, null for
/// none. Returns 0 when the text between the two is "so", else -1; a name without a dot stays as it is.
int32_t stripext(char *name, char **version);

/// Copies a text; returns the end of the copy, not its start. Null, and nothing copied, when an argument is null.
char *qzfistos(const char *source, char *destination);
}

namespace qzfi {

struct StreamCloser {
    void operator()(DIR *stream) const noexcept { qzfi_closedir(stream); }
};
using Directory = std::unique_ptr<DIR, StreamCloser>;

/// The name of a directory entry; the longest that the system's own record holds.
struct EntryName {
    char text[sizeof(dirent::d_name)] = {};
};

/// A file whose name contains the prefix. Not copied, for it points into itself.
struct PluginFile {
    PluginFile() = default;
    PluginFile(const PluginFile &) = delete;
    PluginFile &operator=(const PluginFile &) = delete;

    EntryName name;                // whole
    EntryName parts;               // the same, cut into what the pointers below show
    const char *base = nullptr;    // what plugins are told apart by
    const char *version = nullptr; // null for none
    bool is_library = false;
};

/// Opens a directory; a failure is raised in the name of `routine` and leaves errno as it was set.
DIR *open_directory(const char *path, const char *routine) noexcept;

/// Reads on to the next file whose name contains the prefix; false at the end.
bool read_plugin_file(DIR *stream, const char *prefix, PluginFile &file) noexcept;

/// Chooses among the files of the plugin `base`; false when there is none.
bool choose_plugin_file(const char *directory, const char *prefix, const char *base, EntryName &chosen) noexcept;

/// False for the libraries of other kinds of build that lie beside the plugins, by their whole path.
bool is_loadable_plugin(const char *library_path) noexcept;

} // namespace qzfi

#pragma GCC visibility pop
