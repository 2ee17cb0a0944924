#include "fi/fi_mounts.h"

#include <algorithm>
#include <charconv>
#include <fcntl.h>
#include <iterator>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace qzfi::fi {

namespace {

constexpr const char *table_path = "/proc/self/mountinfo";

std::string read_table(const char *operation) {
    const Descriptor file(open(table_path, O_RDONLY | O_CLOEXEC));
    if (!file)
        fail_call(operation, "open", table_path, errno, true);
    std::string table;
    for (char buffer[16384];;) {
        const ssize_t count = read(file.get(), buffer, sizeof buffer);
        if (count == 0)
            return table;
        if (count > 0)
            table.append(buffer, static_cast<std::size_t>(count));
        else if (errno != EINTR)
            fail_call(operation, "read", table_path, errno, true);
    }
}

bool is_octal(char letter) {
    return letter >= '0' && letter <= '7';
}

// The kernel writes blanks, tabs, line ends and backslashes as "\OOO".
std::string unescaped(std::string_view text) {
    std::string plain;
    plain.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at) {
        const bool is_escape = text[at] == '\\' && text.size() - at > 3 && is_octal(text[at + 1]) &&
                               is_octal(text[at + 2]) && is_octal(text[at + 3]);
        if (!is_escape) {
            plain += text[at];
            continue;
        }
        plain += static_cast<char>((text[at + 1] - '0') * 64 + (text[at + 2] - '0') * 8 + (text[at + 3] - '0'));
        at += 3;
    }
    return plain;
}

std::string_view word(std::string_view &rest) {
    const std::size_t end = std::min(rest.find(' '), rest.size());
    const std::string_view taken = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return taken;
}

template <class Number>
bool number(std::string_view text, Number &out) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    return error == std::errc() && end == text.data() + text.size();
}

bool has_option(std::string_view options, std::string_view wanted) {
    while (!options.empty()) {
        const std::size_t end = std::min(options.find(','), options.size());
        if (options.substr(0, end) == wanted)
            return true;
        options.remove_prefix(std::min(end + 1, options.size()));
    }
    return false;
}

bool parse_device(std::string_view text, uint64_t &device) {
    const std::size_t colon = text.find(':');
    unsigned major = 0, minor = 0;
    if (colon == std::string_view::npos || !number(text.substr(0, colon), major) ||
        !number(text.substr(colon + 1), minor))
        return false;
    device = makedev(major, minor);
    return true;
}

// "ID PARENT MAJOR:MINOR ROOT MOUNT_POINT OPTIONS [FIELD...] - TYPE SOURCE SUPER_OPTIONS"
bool parse(std::string_view line, Mount &mount) {
    if (!number(word(line), mount.id))
        return false;
    word(line);
    if (!parse_device(word(line), mount.device))
        return false;
    mount.root = unescaped(word(line));
    mount.mount_point = unescaped(word(line));
    mount.read_only = has_option(word(line), "ro");
    while (!line.empty())
        if (word(line) == "-")
            break;
    mount.type = unescaped(word(line));
    mount.source = unescaped(word(line));
    mount.read_only = mount.read_only || has_option(word(line), "ro");
    return !mount.type.empty() && !mount.mount_point.empty() && mount.mount_point[0] == '/';
}

// What is found at a path, when the mount that it is on is told. Nothing is asked of a server or mounted for it.
bool look_at(const std::string &path, struct statx &status) {
    constexpr int quietly = AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC | AT_SYMLINK_NOFOLLOW;
    return statx(AT_FDCWD, path.c_str(), quietly, STATX_BASIC_STATS | STATX_MNT_ID, &status) == 0 &&
           (status.stx_mask & STATX_MNT_ID) != 0;
}

bool is_on(const struct statx &status, const Mount &mount) {
    return status.stx_mnt_id == static_cast<uint64_t>(mount.id);
}

// btrfs gives every subvolume a device number of its own, which the table does not know. A mount that another one hides
// keeps what the table says.
void ask_subvolume(Mount &mount) {
    struct statx status {};
    if (look_at(mount.mount_point, status) && is_on(status, mount))
        mount.device = makedev(status.stx_dev_major, status.stx_dev_minor);
}

} // namespace

std::vector<Mount> mounts(const char *operation) {
    const std::string table = read_table(operation);
    std::vector<Mount> all;
    for (std::size_t start = 0; start < table.size();) {
        const std::size_t end = std::min(table.find('\n', start), table.size());
        Mount mount;
        if (!parse(std::string_view(table).substr(start, end - start), mount))
            fail(message::read_failed, QFI_FI_READ, operation, {"line", table_path, table.substr(start, end - start)});
        if (mount.type == "btrfs")
            ask_subvolume(mount);
        all.push_back(std::move(mount));
        start = end + 1;
    }
    return all;
}

const Mount &mount_of(const std::vector<Mount> &mounts, const std::string &path) {
    // Where the root itself is no mount point (a changed root), paths outside all others lie on a file system of which
    // nothing is known.
    static const Mount unknown{0, 0, "/", "/", "unknown", "unknown", false};
    const Mount *found = &unknown;
    for (const Mount &mount : mounts)
        if (lies_at_or_below(path, mount.mount_point) && mount.mount_point.size() >= found->mount_point.size())
            found = &mount;
    return *found;
}

const Mount &mount_at(const std::vector<Mount> &mounts, const std::string &path) {
    struct statx status {};
    if (look_at(path, status))
        for (const Mount &mount : mounts)
            if (is_on(status, mount))
                return mount;
    return mount_of(mounts, path);
}

bool is_hidden(const Mount &mount) {
    struct statx status {};
    return look_at(mount.mount_point, status) && !is_on(status, mount);
}

bool may_share_filesystem(const std::vector<Mount> &mounts, const std::string &path, const std::string &place) {
    constexpr std::string_view served[] = {"9p", "afs", "beegfs", "ceph", "cifs", "fuse", "lustre", "nfs", "smb"};
    const Mount &own = mount_of(mounts, path);
    const auto is_of = [&](std::string_view type) { return own.type.compare(0, type.size(), type) == 0; };
    if (std::none_of(std::begin(served), std::end(served), is_of))
        return true;
    return std::any_of(mounts.begin(), mounts.end(), [&](const Mount &mount) {
        return mount.device == own.device && lies_at_or_below(place, mount.mount_point);
    });
}

} // namespace qzfi::fi
