#include "images_support.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace images {

void write_file(const fs::path &path, const std::string &content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    if (!file)
        throw std::runtime_error("cannot write " + path.string());
}

std::string content_of(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw std::runtime_error("cannot read " + path.string());
    return {std::istreambuf_iterator<char>(file), {}};
}

void make_zoo(const fs::path &directory) {
    fs::create_directories(directory / "sub" / "deeper");
    fs::create_directory(directory / "empty");
    write_file(directory / "plain", "plain content");
    write_file(directory / "sub" / "two names", "linked");
    fs::create_hard_link(directory / "sub" / "two names", directory / "sub" / "deeper" / "other name");
    fs::create_symlink("../nowhere", directory / "sub" / "dangling");
    fs::create_symlink("/etc", directory / "absolute");
    write_file(directory / "new\nline \xff\\", "odd name");
    write_file(directory / "sparse", "start");
    fs::resize_file(directory / "sparse", 3 << 20);
    mkfifo((directory / "fifo").c_str(), 0640);
    setxattr((directory / "plain").c_str(), "user.color", "blue", 4, 0); // not on every file system
    chmod((directory / "plain").c_str(), 04751);
    chmod((directory / "sub").c_str(), 02750);
    if (geteuid() == 0 && lchown((directory / "sub" / "dangling").c_str(), 12, 34) != 0)
        throw std::runtime_error("lchown");
    const std::array<timespec, 2> old{timespec{1000000000, 123456789}, timespec{1000000001, 987654321}};
    utimensat(AT_FDCWD, (directory / "sparse").c_str(), old.data(), 0);
    utimensat(AT_FDCWD, (directory / "empty").c_str(), old.data(), 0);
    utimensat(AT_FDCWD, (directory / "absolute").c_str(), old.data(), AT_SYMLINK_NOFOLLOW);
}

std::string run(const std::vector<std::string> &arguments) {
    std::vector<char *> words;
    for (const std::string &argument : arguments)
        words.push_back(const_cast<char *>(argument.c_str()));
    words.push_back(nullptr);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe2");
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], 1);
        dup2(ends[1], 2);
        execvp(words[0], words.data());
        _exit(127);
    }
    close(ends[1]);
    std::string output;
    std::array<char, 4096> buffer;
    for (ssize_t count; (count = read(ends[0], buffer.data(), buffer.size())) > 0;)
        output.append(buffer.data(), static_cast<std::size_t>(count));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << arguments[0] << ": " << output;
    return output;
}

std::string differences(const fs::path &original, const fs::path &copy) {
    return run({"rsync", "-aHAXn", "--checksum", "--delete", "--itemize-changes", original.string() + "/",
                copy.string() + "/"});
}

void keep(const fs::path &tree, const fs::path &copy) {
    run({"cp", "-a", "--sparse=always", tree.string(), copy.string()});
}

Framework::Framework(const fs::path &root, qfi_handler *handler) {
    fs::create_directories(root);
    setenv("QFI_API_LIB", FI_LIBRARY, 1);
    setenv("QFI_DIR", FI_PLUGINS, 1);
    EXPECT_EQ(qzfiapi_set_init_env(root.c_str(), "images_test"), 0);
    EXPECT_EQ(qzfiapi_start(handler, QFI_API_VERSION), 0);
}

Framework::~Framework() {
    qzfiapi_shutdown();
}

std::string last_error() {
    qfi_error_info *error = nullptr;
    if (qfi_op_get_last_error(&error) != 0 || error == nullptr)
        return {};
    char *text = nullptr;
    if (qfi_op_get_locale_message(error, &text, nullptr) != 0)
        return "no text";
    const std::string copy = text;
    qfi_op_del_locale_message(text);
    return copy;
}

Tree::Tree(const std::vector<std::string> &objects) {
    std::vector<qfi_object> records;
    for (const std::string &object : objects)
        records.push_back({object.c_str(), nullptr});
    EXPECT_EQ(qfi_op_gentree(records.data(), static_cast<int32_t>(records.size()), nullptr, &tree_), 0) << last_error();
}

Tree::Tree(Tree &&other) noexcept : tree_(std::exchange(other.tree_, nullptr)) {}

Tree &Tree::operator=(Tree &&other) noexcept {
    std::swap(tree_, other.tree_);
    return *this;
}

Tree::~Tree() {
    if (tree_ != nullptr)
        qfi_op_detach(tree_, nullptr, 0, nullptr);
}

Tree Tree::of_image(const std::string &id, const fs::path &store) {
    Tree tree;
    EXPECT_EQ(qfi_op_reaccess_tree(nullptr, &tree, id.c_str(), store.c_str(), nullptr, 0), 0) << last_error();
    return tree;
}

std::string Tree::image_id() const {
    qfi_image_list *list = nullptr;
    EXPECT_EQ(qfi_op_query_tree_status(tree_, nullptr, &list), 0) << last_error();
    const std::string id = list != nullptr ? list->image.image_id : "";
    qfi_op_free_valid_sec_list(list);
    return id;
}

std::string Tree::image_path() const {
    qfi_image_list *list = nullptr;
    EXPECT_EQ(qfi_op_query_tree_status(tree_, nullptr, &list), 0) << last_error();
    const std::string path = list != nullptr ? list->image.paths[0] : "";
    qfi_op_free_valid_sec_list(list);
    return path;
}

uint64_t remarks_of(const Tree &tree) {
    qfi_image_list *list = nullptr;
    EXPECT_EQ(qfi_op_query_tree_status(tree.get(), nullptr, &list), 0) << last_error();
    const uint64_t remarks = list != nullptr ? list->image.remarks : 0;
    qfi_op_free_valid_sec_list(list);
    return remarks;
}

Tree freeze(const std::vector<std::string> &objects, const fs::path &store, const char *method, bool digest) {
    Tree tree(objects);
    qfi_freeze_options options;
    QFI_INIT(options);
    options.fim_id = method;
    options.store = store.c_str();
    options.digest = digest ? 1 : 0;
    EXPECT_EQ(qfi_op_make(tree.get(), &options, nullptr), 0) << last_error();
    return tree;
}

std::ostream &operator<<(std::ostream &out, const Line &line) {
    return out << line.kind << " " << line.object << " " << line.path << ": " << line.detail;
}

Report::Report(qfi_report *report) {
    EXPECT_NE(report, nullptr);
    if (report == nullptr)
        return;
    entries = report->entries;
    bytes = report->bytes;
    changed = report->changed;
    count = report->count;
    for (uint64_t index = 0; index < report->shown; ++index) {
        const qfi_report_item &item = report->items[index];
        lines.push_back({item.kind, item.object, item.path, item.detail});
    }
    std::sort(lines.begin(), lines.end());
    qfi_op_free_report(report);
}

int in_child(const std::function<void()> &body) {
    const pid_t child = fork();
    if (child == 0) {
        try {
            body();
        } catch (const std::exception &error) {
            ADD_FAILURE() << error.what();
        }
        fflush(nullptr); // what it said of failures
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

void Images::SetUp() {
    const std::string type = GetParam();
    if (type == "copy") {
        std::string pattern = testing::TempDir() + "/qzfi-images-XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        top = fs::canonical(pattern);
    } else {
        if (const auto obstacle = LoopFilesystem::obstacle(type))
            GTEST_SKIP() << *obstacle;
        disk_ = std::make_unique<LoopFilesystem>(type, type == "xfs" ? 320 : 160);
        top = fs::canonical(disk_->path());
    }
    object = top / "object";
    store = top / "store";
    make_zoo(object);
    start();
}

void Images::TearDown() {
    stop();
    if (disk_ == nullptr && !top.empty())
        fs::remove_all(top);
}

} // namespace images
