// Lists of file systems and disks.
#include <algorithm>
#include <array>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <set>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "fi/fi_lists.h"

namespace qzfi::fi {

namespace {

// File systems of the kernel's own, which hold no data.
constexpr std::array<std::string_view, 20> without_data{"autofs",   "binfmt_misc", "bpf",        "cgroup",   "cgroup2",
                                                        "configfs", "debugfs",     "devpts",     "devtmpfs", "efivarfs",
                                                        "fusectl",  "hugetlbfs",   "mqueue",     "nsfs",     "proc",
                                                        "pstore",   "rpc_pipefs",  "securityfs", "sysfs",    "tracefs"};

bool holds_data(const Mount &mount) {
    return std::find(without_data.begin(), without_data.end(), mount.type) == without_data.end();
}

bool is_kernels_own(const Mount &mount) {
    return mount.type == "proc" || mount.type == "sysfs";
}

// What is mounted on top at each mount point, and holds data. A tmpfs within what the kernel tells of itself holds
// mount points, or hides something.
std::vector<Mount> visible_mounts(const char *operation) {
    std::map<std::string, Mount> by_place;
    for (Mount &mount : mounts(operation))
        by_place[mount.mount_point] = std::move(mount);
    std::vector<std::string> folders; // of the kernel
    for (const auto &[place, mount] : by_place)
        if (is_kernels_own(mount))
            folders.push_back(place);
    const auto is_in_kernels_own = [&](const std::string &place) {
        return std::any_of(folders.begin(), folders.end(),
                           [&](const std::string &folder) { return lies_below(place, folder); });
    };
    std::vector<Mount> visible;
    for (auto &[place, mount] : by_place)
        if (holds_data(mount) && !is_hidden(mount) && (mount.type != "tmpfs" || !is_in_kernels_own(place)))
            visible.push_back(std::move(mount));
    return visible;
}

uint64_t size_of(const std::string &mount_point) {
    struct statvfs status {};
    return statvfs(mount_point.c_str(), &status) == 0 ? status.f_blocks * status.f_frsize : 0;
}

bool can_freeze(const Provider &provider, const Mount &mount) {
    const Descriptor source(open(mount.mount_point.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
    if (!source || provider.ops->probe == nullptr)
        return false; // what this user cannot even open, it cannot freeze
    qfi_probe probe{};
    probe.size = sizeof probe;
    return provider.ops->probe(source.get(), -1, mount.mount_point.c_str(), QFI_JOB_GLANCE, &probe) == 0 &&
           probe.combo_class != QFI_CLASS_NOTSUP;
}

} // namespace

qfi_node_list *list_nodes(const char *provider_id, const char *uid, const char *operation) {
    const Provider *const wanted = wanted_provider(provider_id, operation);
    const std::vector<Mount> all = visible_mounts(operation);
    ListBuilder<qfi_node_list> list;
    for (const Provider &provider : providers()) {
        if (wanted != nullptr && wanted != &provider)
            continue;
        for (const Mount &mount : all) {
            if ((uid != nullptr && mount.mount_point != uid) || !can_freeze(provider, mount))
                continue;
            const qfi_nodeid id = node_id(mount.mount_point);
            qfi_node_props properties{};
            properties.hlevel = provider.ops->hlevel;
            properties.size = size_of(mount.mount_point);
            list.append(qzfi_build_nodelist_node(&id, &properties, provider.ops->provider_id));
        }
    }
    return list.give();
}

namespace {

std::string first_line(const std::string &path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    char line[256];
    const ssize_t count = file ? read(file.get(), line, sizeof line) : 0;
    std::string text(line, count > 0 ? static_cast<std::size_t>(count) : 0);
    text.erase(std::min(text.find('\n'), text.size()));
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    return text;
}

uint64_t number_in(const std::string &path) {
    return std::strtoull(first_line(path).c_str(), nullptr, 10);
}

// The block devices by name, "sda", in /sys/block.
std::vector<std::string> disks(const char *operation) {
    const std::unique_ptr<DIR, int (*)(DIR *)> stream(opendir("/sys/block"), closedir);
    if (stream == nullptr)
        fail_call(operation, "opendir", "/sys/block", errno, true);
    std::vector<std::string> names;
    while (const dirent *entry = readdir(stream.get()))
        if (entry->d_name[0] != '.' && number_in("/sys/block/" + std::string(entry->d_name) + "/size") != 0)
            names.emplace_back(entry->d_name);
    std::sort(names.begin(), names.end());
    return names;
}

// The disk that a device, "/dev/sda1", is or lies on; empty when it is none.
std::string disk_of(const std::string &device) {
    struct stat status {};
    if (device.empty() || device[0] != '/' || stat(device.c_str(), &status) != 0 || !S_ISBLK(status.st_mode))
        return {};
    const std::string number = std::to_string(major(status.st_rdev)) + ":" + std::to_string(minor(status.st_rdev));
    const std::unique_ptr<char, void (*)(void *)> real(realpath(("/sys/dev/block/" + number).c_str(), nullptr),
                                                       std::free);
    if (real == nullptr)
        return {};
    std::string path = real.get();
    if (access((path + "/partition").c_str(), F_OK) == 0)
        path.erase(path.rfind('/'));
    return path.substr(path.rfind('/') + 1);
}

// The mounted file systems of each disk, each once.
std::map<std::string, std::vector<Mount>> mounts_by_disk(const char *operation) {
    std::map<std::string, std::vector<Mount>> by_disk;
    for (Mount &mount : visible_mounts(operation)) {
        const std::string disk = disk_of(mount.source);
        if (!disk.empty())
            by_disk[disk].push_back(std::move(mount));
    }
    return by_disk;
}

uint64_t capacity_of(const std::string &disk) {
    constexpr uint64_t sector = 512; // of this file, whatever the disk's own is
    return number_in("/sys/block/" + disk + "/size") * sector;
}

qfi_nodeid *new_member(const std::string &name) {
    auto *const member = static_cast<qfi_nodeid *>(std::calloc(1, sizeof(qfi_nodeid)));
    const qfi_nodeid id = node_id(name);
    if (member == nullptr || qzfi_build_nodeid_node(&id, member) != 0) {
        std::free(member);
        throw std::bad_alloc();
    }
    return member;
}

// The builder keeps one member only; the others are put behind it, where the free finds them.
void add_members(qfi_group_node &group, const std::vector<Mount> &members) {
    qfi_nodeid **place = &group.members->next;
    for (std::size_t index = 1; index < members.size(); ++index) {
        *place = new_member(members[index].mount_point);
        place = &(*place)->next;
    }
}

} // namespace

qfi_group_node_list *list_group_nodes(const char *provider_id, const char *operation) {
    const Provider *const wanted = wanted_provider(provider_id, operation);
    const std::map<std::string, std::vector<Mount>> by_disk = mounts_by_disk(operation);
    ListBuilder<qfi_group_node_list> list;
    for (const Provider &provider : providers()) {
        if (wanted != nullptr && wanted != &provider)
            continue;
        for (const auto &[disk, mounted] : by_disk) {
            std::vector<Mount> members;
            std::copy_if(mounted.begin(), mounted.end(), std::back_inserter(members),
                         [&](const Mount &mount) { return can_freeze(provider, mount); });
            if (members.empty())
                continue;
            const qfi_nodeid id = node_id(disk), first = node_id(members.front().mount_point);
            qfi_node_props properties{};
            properties.hlevel = provider.ops->hlevel;
            properties.size = capacity_of(disk);
            qfi_group_node_list &node = list.append(
                qzfi_build_group_nodelist_node(&id, &first, &properties, provider.ops->provider_id, members.size()));
            add_members(node.group_node, members);
        }
    }
    return list.give();
}

qfi_enclosure_list *list_enclosures(const char *operation) {
    const std::map<std::string, std::vector<Mount>> by_disk = mounts_by_disk(operation);
    ListBuilder<qfi_enclosure_list> list;
    for (const std::string &disk : disks(operation)) {
        const std::string device = "/sys/block/" + disk + "/device/";
        const auto mounted = by_disk.find(disk);
        uint64_t available = 0;
        if (mounted != by_disk.end()) {
            // A file system that is mounted in several places counts once; subvolumes have ids of their own.
            std::set<dev_t> counted;
            for (const Mount &mount : mounted->second) {
                struct stat source {};
                struct statvfs status {};
                if (statvfs(mount.mount_point.c_str(), &status) == 0 && stat(mount.source.c_str(), &source) == 0 &&
                    counted.insert(source.st_rdev).second)
                    available += status.f_bavail * status.f_frsize;
            }
        }
        list.append(qzfi_build_enclosure_list_node(disk.c_str(), ("/dev/" + disk).c_str(),
                                                   first_line(device + "vendor").c_str(),
                                                   first_line(device + "model").c_str(), "qzfi", capacity_of(disk),
                                                   available, mounted != by_disk.end() ? 1 : 0));
    }
    return list.give();
}

} // namespace qzfi::fi
