// Freezing and copying trees against cp and rsync, on XFS and Btrfs of its own on loop devices.
//
// Each tool runs as a program of its own, in alternating order; what counts is the median of the rounds, of the time
// that passes and of the processors' time. Before each run the last copy is removed and the file system frozen and
// thawed, which ends what it still did behind: none pays for another's work. Then the source is read once, for a system
// under load, or one that gives memory back by itself, forgets meanwhile: all read from equally warm caches or, with
// --cold, from none. Nobody syncs within the measured time unless --sync is given; then everybody does.
//
// The engine copies as the provider "copy" does: by copy_file_range, which lets files of one XFS or Btrfs share their
// blocks, while "cp --reflink=never" reads and writes. With --digest the engine reads and writes too, and hashes.
//
// What to expect: on XFS two workers halve the time of small files. On Btrfs they do not: each new name and extent is
// put into the one tree of the subvolume, which is four fifths of the work and done by one at a time, so that the
// workers take turns; what is won comes from fewer calls per file than cp makes, and from the other fifth. A program
// that has a processor for itself also lets the kernel's own threads use the other one, which two workers do not.
//
//     qzfi_clone_bench [--quick] [--sync] [--cold] [--digest] [--no-rsync] [--rounds=N] [--workers=N] [--only=TEXT]
//                      [--fs=xfs|btrfs|ext4] [--tree=PATH]
//
// TMPDIR=/dev/shm keeps the file systems in memory; /usr needs three times its size there.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <linux/fs.h>
#include <spawn.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <time.h>
#include <unistd.h>
#include <vector>

#include "providers/engine/engine.h"
#include "support/loop_filesystem.h"
#include "timing.h"

using namespace qzfi::engine;

namespace {

struct Settings {
    bool quick = false, sync = false, cold = false, digest = false, rsync = true;
    int rounds = 3;
    std::string workers = std::to_string(std::clamp(std::thread::hardware_concurrency(), 1u, 64u));
    std::string only, filesystem, tree;
};

struct Cost {
    double wall = 0, cpu = 0; // seconds
    long peak = 0;            // KiB
};

[[noreturn]] void give_up(const std::string &what) {
    perror(("qzfi_clone_bench: " + what).c_str());
    exit(1);
}

double now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double seconds(const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

/// Runs a program to its end; a failure ends the benchmark, as it would be no measurement.
Cost run(const std::vector<std::string> &command, const std::string &synced = "") {
    std::vector<char *> arguments;
    for (const std::string &word : command)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    const double start = now();
    pid_t child = 0;
    errno = posix_spawnp(&child, arguments[0], nullptr, nullptr, arguments.data(), environ);
    if (errno != 0)
        give_up(command[0]);
    int status = 0;
    rusage usage{};
    if (wait4(child, &status, 0, &usage) != child || status != 0) {
        fprintf(stderr, "qzfi_clone_bench: %s ended with status %d\n", command[0].c_str(), status);
        exit(1);
    }
    if (!synced.empty()) {
        const int fd = open(synced.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0 || syncfs(fd) != 0)
            give_up("syncfs");
        close(fd);
    }
    return {now() - start, seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_maxrss};
}

/// What a child of this program does: one call of the engine.
int work(char **arguments) {
    Options options;
    const std::string way = arguments[0];
    options.data = way == "clone" ? Data::clone : Data::copy;
    options.digest = way == "digest";
    options.workers = static_cast<uint32_t>(atoi(arguments[1]));
    qfi_provider_host host{};
    host.size = sizeof host;
    host.fail = [](void *, const char *operation, const char *object, int32_t error) {
        fprintf(stderr, "%s of %s: %s\n", operation, object, strerror(error));
    };
    const std::string parent = arguments[3];
    const int target = open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (way == "remove")
        return remove_tree(target, arguments[4], options, host).status != 0;
    const int source = open(arguments[2], O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (way == "walk" || way == "read") { // what the tools look at of files, or read of them
        options.digest = way == "read";
        options.entries = true;
        host.entry = [](void *, const qfi_entry *) -> int32_t { return 0; };
        return walk_tree(source, options, host).status != 0;
    }
    return copy_tree(source, target, arguments[4], options, host).status != 0;
}

struct Case {
    std::string name;
    std::function<void(const std::string &)> make; // fills an empty directory
    double goal;                                   // how many times as fast as cp the engine should be
};

void put_file(int directory, const char *name, std::size_t size) {
    static const std::string data(1 << 20, 'q');
    const int fd = openat(directory, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    for (std::size_t left = size; fd >= 0 && left > 0;) {
        const ssize_t put = write(fd, data.data(), std::min(left, data.size()));
        if (put <= 0)
            give_up("write");
        left -= static_cast<std::size_t>(put);
    }
    if (fd < 0 || close(fd) != 0)
        give_up(name);
}

int folder(int parent, const std::string &name) {
    if (mkdirat(parent, name.c_str(), 0755) != 0 && errno != EEXIST)
        give_up(name);
    const int fd = openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        give_up(name);
    return fd;
}

void make_files(const std::string &at, int folders, int files, std::size_t size) {
    const int root = folder(AT_FDCWD, at);
    for (int i = 0; i < folders; ++i) {
        const int below = folder(root, "folder" + std::to_string(i));
        for (int j = 0; j < files; ++j)
            put_file(below, ("file" + std::to_string(j)).c_str(), size);
        close(below);
    }
    close(root);
}

void make_chain(const std::string &at, int depth) {
    int fd = folder(AT_FDCWD, at);
    for (int i = 0; i < depth; ++i) {
        put_file(fd, "file", 100);
        const int next = folder(fd, "d");
        close(fd);
        fd = next;
    }
    close(fd);
}

void make_links(const std::string &at, int files, int links) {
    const int root = folder(AT_FDCWD, at);
    for (int i = 0; i < files; ++i) {
        const std::string first = "file" + std::to_string(i);
        put_file(root, first.c_str(), 4096);
        for (int j = 1; j < links; ++j)
            if (linkat(root, first.c_str(), root, (first + "." + std::to_string(j)).c_str(), 0) != 0)
                give_up("linkat");
    }
    close(root);
}

std::vector<Case> cases_of(const Settings &settings) {
    const int part = settings.quick ? 10 : 1;
    const std::string tree = !settings.tree.empty() ? settings.tree
                             : settings.quick       ? "/usr/include"
                                                    : "/usr"; // about a tenth of it
    const double fast = 1.7, never_slower = 0.95;
    return {
        {std::to_string(50000 / part) + " files of 4 KiB in " + std::to_string(500 / part) + " folders",
         [=](const std::string &at) { make_files(at, 500 / part, 100, 4096); }, fast},
        {std::to_string(100000 / part) + " files of 100 bytes in one folder",
         [=](const std::string &at) { make_files(at, 1, 100000 / part, 100); }, never_slower},
        {"one file of " + std::to_string(4096 / part) + " MiB",
         [=](const std::string &at) { make_files(at, 1, 1, (std::size_t{4096} << 20) / static_cast<unsigned>(part)); },
         never_slower},
        {"a chain of " + std::to_string(1000 / part) + " folders",
         [=](const std::string &at) { make_chain(at, 1000 / part); }, never_slower},
        {std::to_string(20000 / part) + " hard links to 100 files",
         [=](const std::string &at) { make_links(at, 100, 200 / part); }, never_slower},
        {"the tree " + tree,
         [=](const std::string &at) {
             run({"cp", "-a", "--reflink=never", tree + "/.", at});
         },
         fast},
    };
}

struct Tool {
    std::string name;
    std::vector<std::string> command; // the source and the copy's path are added
    std::vector<double> wall{}, cpu{};
    long peak = 0;
};

class Bench {
public:
    Bench(const Settings &settings, const LoopFilesystem &disk, const std::string &type)
        : settings_(settings), at_(disk.path()), is_btrfs_(type == "btrfs"), clones_(type != "ext4") {}

    void measure(const Case &one) {
        const std::string source = at_ + "/source";
        if (is_btrfs_)
            run({"btrfs", "-q", "subvolume", "create", source});
        else
            mkdir(source.c_str(), 0755);
        one.make(source);
        printf("  %s\n", one.name.c_str());
        if (clones_)
            compare(one, "clone", {{"cp -a --reflink=always", {"cp", "-a", "--reflink=always"}}});
        std::vector<Tool> copiers = {{"cp -a --reflink=never", {"cp", "-a", "--reflink=never"}}};
        if (settings_.rsync)
            copiers.push_back({"rsync -aHAX", {"rsync", "-aHAX"}});
        if (settings_.digest)
            compare(one, "digest", copiers);
        compare(one, "copy", std::move(copiers));
        if (is_btrfs_)
            measure_snapshot();
        remove("source");
        fflush(stdout);
    }

private:
    void compare(const Case &one, const char *way, std::vector<Tool> tools) {
        tools.insert(tools.begin(), Tool{std::string("engine, ") + way, {}});
        Tool first = tools[0]; // the first clone of a file marks it as shared: nobody's work
        measure_once(way, first);
        for (int round = 0; round < settings_.rounds; ++round)
            for (std::size_t i = 0; i < tools.size(); ++i)
                measure_once(way, tools[(i + static_cast<std::size_t>(round)) % tools.size()]);
        const double wall = median(tools[0].wall), cpu = median(tools[0].cpu);
        for (const Tool &tool : tools)
            printf("    %-24s %8.3f s  %8.3f s cpu  %6.1f MiB peak   engine is %5.2f times as fast, %5.2f in cpu\n",
                   tool.name.c_str(), median(tool.wall), median(tool.cpu), static_cast<double>(tool.peak) / 1024,
                   median(tool.wall) / wall, median(tool.cpu) / cpu);
        const double ratio = median(tools[1].wall) / wall;
        printf("    goal of %.2f: %s\n", one.goal, ratio >= one.goal ? "reached" : "MISSED");
    }

    void measure_once(const char *way, Tool &tool) {
        const std::string source = at_ + "/source", copy = at_ + "/copy";
        std::vector<std::string> command = tool.command;
        if (command.empty())
            command = {"/proc/self/exe", "--work", way, settings_.workers, source, at_, "copy"};
        else if (command[0] == "rsync")
            command.insert(command.end(), {source + "/", copy});
        else
            command.insert(command.end(), {source, copy});
        settle();
        if (!settings_.cold)
            run({"/proc/self/exe", "--work", strcmp(way, "clone") == 0 ? "walk" : "read", settings_.workers, source,
                 at_, ""});
        const Cost cost = run(command, settings_.sync ? at_ : "");
        tool.wall.push_back(cost.wall);
        tool.cpu.push_back(cost.cpu);
        tool.peak = std::max(tool.peak, cost.peak);
        remove("copy");
    }

    void measure_snapshot() {
        std::vector<double> walls;
        for (int round = 0; round < settings_.rounds; ++round) {
            settle();
            const Cost cost = run({"btrfs", "-q", "subvolume", "snapshot", "-r", at_ + "/source", at_ + "/snapshot"});
            walls.push_back(cost.wall);
            run({"btrfs", "-q", "subvolume", "delete", at_ + "/snapshot"});
        }
        printf("    %-24s %8.3f s\n", "snapshot by btrfs", median(walls));
    }

    void remove(const char *name) {
        if (!is_btrfs_ || strcmp(name, "source") != 0)
            return void(run({"/proc/self/exe", "--work", "remove", settings_.workers, at_, at_, name}));
        run({"btrfs", "-q", "subvolume", "delete", "--commit-after", at_ + "/source"});
        run({"btrfs", "-q", "subvolume", "sync", at_});
    }

    void settle() {
        const int fd = open(at_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0 || syncfs(fd) != 0)
            give_up("syncfs");
        // Freezing waits for removed files to be freed, which goes on behind.
        if (ioctl(fd, FIFREEZE, 0) != 0 || ioctl(fd, FITHAW, 0) != 0)
            give_up("FIFREEZE");
        close(fd);
        if (settings_.cold)
            drop_caches();
    }

    /// Pages, names and inodes of all file systems.
    static void drop_caches() {
        const int fd = open("/proc/sys/vm/drop_caches", O_WRONLY | O_CLOEXEC);
        if (fd < 0 || write(fd, "3", 1) != 1)
            give_up("/proc/sys/vm/drop_caches");
        close(fd);
    }

    const Settings &settings_;
    const std::string at_;
    const bool is_btrfs_, clones_;
};

Settings settings_of(int count, char **arguments) {
    Settings settings;
    for (int i = 1; i < count; ++i) {
        const std::string word = arguments[i];
        const auto value = [&](const char *name) {
            return word.rfind(name, 0) == 0 ? word.substr(strlen(name)) : std::string();
        };
        settings.quick = settings.quick || word == "--quick";
        settings.sync = settings.sync || word == "--sync";
        settings.cold = settings.cold || word == "--cold";
        settings.digest = settings.digest || word == "--digest";
        settings.rsync = settings.rsync && word != "--no-rsync";
        if (const std::string rounds = value("--rounds="); !rounds.empty())
            settings.rounds = std::max(1, atoi(rounds.c_str()));
        if (const std::string workers = value("--workers="); !workers.empty())
            settings.workers = workers;
        if (const std::string only = value("--only="); !only.empty())
            settings.only = only;
        if (const std::string filesystem = value("--fs="); !filesystem.empty())
            settings.filesystem = filesystem;
        if (const std::string tree = value("--tree="); !tree.empty())
            settings.tree = tree;
    }
    return settings;
}

} // namespace

int main(int count, char **arguments) {
    if (count == 7 && strcmp(arguments[1], "--work") == 0)
        return work(arguments + 2);
    const Settings settings = settings_of(count, arguments);
    for (const std::string type : {"xfs", "btrfs", "ext4"}) {
        if (settings.filesystem.empty() ? type == "ext4" : settings.filesystem != type)
            continue;
        if (const auto obstacle = LoopFilesystem::obstacle(type)) {
            printf("%s: skipped, nothing is measured: %s\n", type.c_str(), obstacle->c_str());
            continue;
        }
        double load = 0;
        getloadavg(&load, 1);
        const LoopFilesystem disk(type, settings.quick ? 6000 : 30000);
        printf("%s: %s workers, median of %d rounds, caches %s, %s, load of the machine before %.1f\n", type.c_str(),
               settings.workers.c_str(), settings.rounds, settings.cold ? "cold" : "warm",
               settings.sync ? "sync included" : "no sync included", load);
        Bench bench(settings, disk, type);
        for (const Case &one : cases_of(settings))
            if (one.name.find(settings.only) != std::string::npos)
                bench.measure(one);
    }
    return 0;
}
