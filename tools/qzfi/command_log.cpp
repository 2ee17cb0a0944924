// qzfi log: where the log is and what it holds; switches the trace on and off.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/json.h"
#include "tools/qzfi/log_files.h"
#include "tools/qzfi/table.h"
#include "tools/qzfi/text.h"

namespace qzfi::tool {

namespace {

struct Options {
    std::vector<std::string> levels;
    bool off = false, json = false;
};

constexpr std::size_t most_shown = 10;

[[noreturn]] void fail(const std::string &action) {
    throw Failure(action + ": " + std::strerror(errno));
}

// As start reads the file: a line that begins with "#" is none.
bool sets_level(const std::string &line) {
    return !line.starts_with('#') && line.find("debug_level") != std::string::npos &&
           line.find('=') != std::string::npos;
}

std::string read_file(const std::string &path) {
    const std::ifstream file(path);
    if (!file) {
        if (errno == ENOENT)
            return {};
        fail("read " + path);
    }
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// The file's text with the levels of `setting` alone; the setting stands where the first one stood.
std::string with_setting(const std::string &text, const std::string &setting) {
    std::istringstream lines(text);
    std::string result;
    bool is_there = setting.empty();
    for (std::string line; std::getline(lines, line);) {
        if (!sets_level(line)) {
            result += line + "\n";
        } else if (!is_there) {
            result += setting + "\n";
            is_there = true;
        }
    }
    return is_there ? result : result + setting + "\n";
}

class NewFile {
public:
    explicit NewFile(const std::string &path)
        : path_(path + ".new-" + std::to_string(getpid())),
          descriptor_(open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644)) {
        if (descriptor_ < 0)
            fail("make " + path_);
    }
    ~NewFile() {
        close(descriptor_);
        if (!is_in_place_)
            unlink(path_.c_str());
    }
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;
    int get() const { return descriptor_; }
    void move_to(const std::string &path) {
        if (rename(path_.c_str(), path.c_str()) != 0)
            fail("replace " + path);
        is_in_place_ = true;
    }

private:
    std::string path_;
    int descriptor_;
    bool is_in_place_ = false;
};

// Whole or not at all: start may read it at any moment.
void replace_file(const std::string &path, const std::string &text) {
    NewFile file(path);
    struct stat old = {};
    // Whose it was, it stays, as far as this user may say so.
    if (stat(path.c_str(), &old) == 0 &&
        (fchmod(file.get(), old.st_mode & 07777u) != 0 || fchown(file.get(), old.st_uid, old.st_gid) != 0) &&
        errno != EPERM)
        fail("set owner and mode of the new " + path);
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t written = write(file.get(), text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR)
            fail("write the new " + path);
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
    if (fsync(file.get()) != 0)
        fail("write the new " + path);
    file.move_to(path);
}

// For its owner alone, as the log shows paths.
void make_folder(const std::string &root) {
    std::string path = root;
    for (const char *const part : {"/arcvault", "/logs", "/fisagent"}) {
        path += part;
        const bool is_last = path.ends_with("/fisagent");
        if (mkdir(path.c_str(), is_last ? 0700 : 0755) != 0 && errno != EEXIST)
            fail("make the log folder " + path);
    }
}

// Levels stand apart by commas, or as in the configuration.
std::vector<std::string> levels_of(const std::vector<std::string> &given) {
    std::vector<std::string> levels;
    for (std::string text : given) {
        std::replace(text.begin(), text.end(), '|', ',');
        std::istringstream names(text + ",");
        for (std::string name; std::getline(names, name, ',');) {
            if (trace_level(name) == 0)
                throw Failure("log --level " + name + ": there are " + joined(trace_level_names(~0u)), exit_usage);
            levels.push_back(name);
        }
    }
    return levels;
}

void set_levels(const std::string &root, const std::vector<std::string> &levels) {
    const std::string path = trace_configuration(root);
    std::string setting;
    uint32_t wanted = 0;
    for (const std::string &level : levels) {
        setting += (setting.empty() ? "debug_level=" : "|") + level;
        wanted |= trace_level(level);
    }
    replace_file(path, with_setting(read_file(path), setting));
    const uint32_t in_force = trace_mask(root);
    // What start takes for a line of its own, beyond the 249th character of a line, is not taken apart here.
    if (in_force != wanted)
        throw Failure("other text of " + path + " sets trace levels too: " + joined(trace_level_names(in_force)) +
                      " are in force; edit it");
    if (wanted != 0)
        make_folder(root);
}

Json json_of(const std::string &root, const LogFolder &folder) {
    Json files = Json::array();
    for (const LogFile &file : folder.files)
        files.push_back({{"path", json_text(file.path)}, {"bytes", file.bytes}, {"time", time_json(file.time)}});
    return {{"configuration", json_text(trace_configuration(root))},
            {"levels", trace_level_names(trace_mask(root))},
            {"folder", json_text(folder.path)},
            {"files", std::move(files)}};
}

void print_text(const std::string &root, const LogFolder &folder) {
    const std::vector<std::string> levels = trace_level_names(trace_mask(root));
    uint64_t bytes = 0;
    for (const LogFile &file : folder.files)
        bytes += file.bytes;
    Facts facts;
    facts.add("Configuration", printable(trace_configuration(root)));
    facts.add("Levels", levels.empty() ? "none: the trace is off" : joined(levels));
    facts.add("Folder", printable(folder.path));
    facts.add("Files",
              folder.files.empty() ? "none" : grouped(folder.files.size()) + ", " + size_text(bytes) + " in all");
    facts.print();
    if (folder.files.empty())
        return;
    std::cout << '\n';
    Table table({{"FILE", Align::left, true}, {"SIZE", Align::right}, {"TIME"}});
    for (std::size_t index = 0; index < folder.files.size() && index < most_shown; ++index) {
        const LogFile &file = folder.files[index];
        table.add({printable(file.path.substr(file.path.rfind('/') + 1)), size_text(file.bytes), time_text(file.time)});
    }
    table.print();
    if (folder.files.size() > most_shown)
        std::cout << grouped(folder.files.size() - most_shown) << " older ones\n";
}

int run(const Settings &settings, const Options &options) {
    const bool sets = options.off || !options.levels.empty();
    if (sets)
        set_levels(settings.root, levels_of(options.levels));
    const LogFolder folder = log_folder(settings.root);
    if (options.json)
        print(json_of(settings.root, folder));
    else if (!sets || !settings.quiet)
        print_text(settings.root, folder);
    return exit_done;
}

} // namespace

void add_log(CommandLine &line) {
    add_command<Options>(
        line, "log", "Tell where the log is and what is traced; switch the trace on and off", run,
        [](Arguments &command, Options &options) {
            command
                .add_option("--level", options.levels,
                            "Trace these from the next start on, as in INFO,WARN: " + joined(trace_level_names(~0u)))
                .type_name("LEVEL");
            command.add_flag("--off", options.off, "Trace nothing from the next start on").excludes("--level");
            add_json(command, options.json);
        });
}

} // namespace qzfi::tool
