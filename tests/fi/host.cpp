#include "host.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

// Memory that is refused is a status here too, not the end of the test.
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1";
}
extern "C" const char *__tsan_default_options();
extern "C" const char *__tsan_default_options() {
    return "allocator_may_return_null=1";
}

std::string read_file(const std::string &path) {
    std::ifstream file(path);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

void write_file(const std::string &path, const std::string &content) {
    std::ofstream(path) << content;
}

bool exists(const std::string &path) {
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

std::vector<std::string> names_in(const std::string &path) {
    std::vector<std::string> names;
    if (!exists(path))
        return names;
    for (const auto &entry : std::filesystem::directory_iterator(path))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

void Host::SetUp() {
    std::string made = "/tmp/qzfi-fi-test-XXXXXX";
    ASSERT_NE(mkdtemp(made.data()), nullptr);
    folder_ = std::filesystem::canonical(made);
    std::filesystem::create_directories(root());
    std::filesystem::create_directories(path("tmp"));
    setenv("QFI_API_LIB", FI_LIBRARY, 1);
    setenv("QFI_DIR", PLUGIN_DIRECTORY "/", 1);
    setenv("TMPDIR", path("tmp").c_str(), 1);
    start();
}

void Host::TearDown() {
    stop();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

void Host::start() {
    ASSERT_EQ(qzfiapi_set_init_env(root().c_str(), nullptr), 0);
    ASSERT_EQ(qzfiapi_start(&handler_, QFI_API_VERSION), 0);
}

void Host::stop() {
    EXPECT_EQ(qzfiapi_shutdown(), 0);
    fi_del_all_errors();
}

std::string Host::last_error() {
    qfi_error_info *error = nullptr;
    if (qfi_op_get_last_error(&error) != 0 || error == nullptr)
        return {};
    char *text = nullptr;
    EXPECT_EQ(qfi_op_get_locale_message(error, &text, nullptr), 0);
    std::string result = text != nullptr ? text : "";
    qfi_op_del_locale_message(text);
    while (!result.empty() && result.back() == '\n')
        result.pop_back();
    return result;
}

qfi_domain *Host::tree_of(const std::vector<std::string> &paths) {
    std::vector<qfi_object> objects;
    for (const std::string &path : paths)
        objects.push_back({path.c_str(), nullptr});
    qfi_domain *tree = nullptr;
    EXPECT_EQ(qfi_op_gentree(objects.data(), static_cast<int32_t>(objects.size()), nullptr, &tree), 0) << last_error();
    return tree;
}

std::string Host::make_object(const std::string &name) const {
    const std::string object = path(name);
    std::filesystem::create_directories(object + "/sub");
    write_file(object + "/file", "content of " + name);
    write_file(object + "/sub/inner", "inner");
    std::filesystem::create_symlink("/etc/passwd", object + "/link");
    return object;
}
