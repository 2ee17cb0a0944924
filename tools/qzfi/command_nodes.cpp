// qzfi nodes: file systems with the providers that can freeze them, and the disks that they lie on.
#include <algorithm>
#include <iostream>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/json.h"
#include "tools/qzfi/providers.h"
#include "tools/qzfi/table.h"
#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

struct Options {
    bool json = false;
};

struct Disk {
    std::string name, device, vendor, product;
    uint64_t capacity, available;
    bool is_used;
    std::vector<std::string> filesystems;
};

std::string or_empty(const char *text) {
    return text == nullptr ? "" : text;
}

// A disk stands in the list once for each provider, with the file systems that this one can freeze.
void add_filesystems(Disk &disk, const qfi_group_node_list *groups) {
    for (; groups != nullptr; groups = groups->next) {
        if (disk.name != groups->group_node.uid)
            continue;
        for (const qfi_nodeid *member = groups->group_node.members; member != nullptr; member = member->next)
            if (std::find(disk.filesystems.begin(), disk.filesystems.end(), member->uid) == disk.filesystems.end())
                disk.filesystems.emplace_back(member->uid);
    }
}

std::vector<Disk> find_disks() {
    std::unique_ptr<qfi_enclosure_list, Releaser<qzfiapi_free_enclosures>> list;
    std::unique_ptr<qfi_group_node_list, Releaser<qzfiapi_free_group_node_list>> groups;
    check(qfi_op_enumerate_enclosures(nullptr, nullptr, Out(list)), "list the disks");
    check(qfi_op_enumerate_group_nodes(Out(groups)), "list the file systems of each disk");
    std::vector<Disk> disks;
    for (const qfi_enclosure_list *node = list.get(); node != nullptr; node = node->next) {
        const qfi_enclosure &record = node->enclosure;
        disks.push_back({record.enclosure_id,
                         or_empty(record.name),
                         or_empty(record.vendor),
                         or_empty(record.product),
                         record.capacity,
                         record.available,
                         record.state != 0,
                         {}});
        add_filesystems(disks.back(), groups.get());
    }
    return disks;
}

Json json_of(const std::vector<Filesystem> &filesystems, const std::vector<Disk> &disks) {
    Json nodes = Json::array(), drives = Json::array();
    for (const Filesystem &filesystem : filesystems)
        nodes.push_back(
            {{"path", json_text(filesystem.path)}, {"size", filesystem.size}, {"providers", filesystem.providers}});
    for (const Disk &disk : disks) {
        Json members = Json::array();
        for (const std::string &path : disk.filesystems)
            members.push_back(json_text(path));
        drives.push_back({{"name", json_text(disk.name)},
                          {"device", json_text(disk.device)},
                          {"vendor", json_text(disk.vendor)},
                          {"product", json_text(disk.product)},
                          {"capacity", disk.capacity},
                          {"available", disk.available},
                          {"mounted", disk.is_used},
                          {"filesystems", std::move(members)}});
    }
    return {{"nodes", std::move(nodes)}, {"disks", std::move(drives)}};
}

void print_tables(const std::vector<Filesystem> &filesystems, const std::vector<Disk> &disks) {
    Table nodes({{"FILE SYSTEM", Align::left, true}, {"SIZE", Align::right}, {"PROVIDERS", Align::left, true}});
    for (const Filesystem &filesystem : filesystems)
        nodes.add({printable(filesystem.path), size_text(filesystem.size), joined(filesystem.providers)});
    nodes.print();
    if (disks.empty())
        return;
    std::cout << '\n';
    Table table({{"DISK"},
                 {"SIZE", Align::right},
                 {"FREE", Align::right},
                 {"MODEL", Align::left, true},
                 {"FILE SYSTEMS", Align::left, true}});
    for (const Disk &disk : disks) {
        const std::string model = disk.vendor + (disk.vendor.empty() || disk.product.empty() ? "" : " ") + disk.product;
        table.add({printable(disk.device), size_text(disk.capacity), disk.is_used ? size_text(disk.available) : "-",
                   model.empty() ? "-" : printable(model),
                   disk.filesystems.empty() ? "-" : printable(joined(disk.filesystems))});
    }
    table.print();
}

int run(const Settings &settings, const Options &options) {
    const Session session(settings);
    const std::vector<Filesystem> filesystems = find_filesystems();
    const std::vector<Disk> disks = find_disks();
    if (options.json)
        print(json_of(filesystems, disks));
    else
        print_tables(filesystems, disks);
    return exit_done;
}

} // namespace

void add_nodes(CommandLine &line) {
    add_command<Options>(line, "nodes", "List file systems with who can freeze them, and disks", run,
                         [](Arguments &command, Options &options) { add_json(command, options.json); });
}

} // namespace qzfi::tool
