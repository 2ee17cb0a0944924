// Manifests: what goes in comes out, sorted; what is damaged says where.
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "fi/fi_manifest.h"
#include "fi/fi_manifest_sort.h"
#include "store_support.h"
#include "support/fault.h"
#include "support/sanitized.h"

using namespace qzfi::fi;
using namespace store_support;

namespace {

constexpr const char *op = "qzfi_test";

class ManifestTest : public testing::Test {
protected:
    static qfi_entry file(const char *path) {
        qfi_entry entry{};
        entry.path = path;
        entry.type = QFI_ENTRY_FILE;
        entry.mode = 0644;
        return entry;
    }
    void write(const std::vector<qfi_entry> &entries, const char *name = "manifest.0") {
        ManifestWriter writer(directory.get(), name, op, "ID");
        for (const qfi_entry &entry : entries)
            EXPECT_EQ(writer.add(entry), 0);
        writer.finish();
    }
    void put(const std::string &content) { std::ofstream(folder.path() + "/manifest.0") << content; }
    std::string content() {
        std::ifstream in(folder.path() + "/manifest.0");
        return {std::istreambuf_iterator<char>(in), {}};
    }
    std::vector<ManifestEntry> read(const char *name = "manifest.0") {
        ManifestReader reader(directory.get(), name, op, "ID");
        std::vector<ManifestEntry> entries;
        ManifestEntry entry;
        while (reader.next(entry))
            entries.push_back(entry);
        return entries;
    }
    Folder folder;
    Descriptor directory{open(folder.path().c_str(), O_RDONLY | O_DIRECTORY)};
};

} // namespace

TEST_F(ManifestTest, every_kind_of_entry_is_one_line_of_its_form) {
    const uint8_t digest[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 255};
    std::vector<qfi_entry> entries(7, file("a b\n\\"));
    for (uint32_t index = 0; index < 7; ++index)
        entries[index].type = index + 1;
    const char *const paths[] = {"a b\n\\", "", "l", "b", "c", "p", "s"};
    for (std::size_t index = 0; index < 7; ++index)
        entries[index].path = paths[index];
    entries[0].digest = digest;
    entries[0].size = UINT64_MAX;
    entries[0].mtime_ns = INT64_MIN;
    entries[0].uid = UINT32_MAX;
    entries[1].mode = 07777;
    entries[2].target = "../\xff";
    entries[3].device = 2049;
    write(entries);

    EXPECT_EQ(content(), "qzfi-manifest 1\n"
                         "f 644 4294967295 0 18446744073709551615 -9223372036854775808 "
                         "000102030405060708090a0b0c0d0eff a\\x20b\\x0a\\x5c\n"
                         "d 7777 0 0 0 0 - \n"
                         "l 644 0 0 0 0 - l ../\\xff\n"
                         "b 644 0 0 0 0 - b 2049\n"
                         "c 644 0 0 0 0 - c 0\n"
                         "p 644 0 0 0 0 - p\n"
                         "s 644 0 0 0 0 - s\n"
                         "end 7\n");
    const std::vector<ManifestEntry> found = read();
    ASSERT_EQ(found.size(), 7u);
    EXPECT_EQ(found[0].path, "");
    EXPECT_EQ(found[0].mode, 07777u);
    EXPECT_EQ(found[1].path, "a b\n\\");
    EXPECT_EQ(found[1].digest, std::string(reinterpret_cast<const char *>(digest), 16));
    EXPECT_EQ(found[1].mtime_ns, INT64_MIN);
    EXPECT_EQ(found[2].device, 2049u);
    EXPECT_EQ(found[4].target, "../\xff");
}

TEST_F(ManifestTest, entries_come_back_in_order_of_the_bytes_of_their_paths) {
    std::vector<std::string> names;
    for (int byte = 1; byte < 256; ++byte)
        if (byte != '/')
            names.push_back("d" + std::string(1, static_cast<char>(byte)));
    std::vector<qfi_entry> entries;
    for (auto name = names.rbegin(); name != names.rend(); ++name)
        entries.push_back(file(name->c_str()));
    write(entries);
    const std::vector<ManifestEntry> found = read();
    ASSERT_EQ(found.size(), names.size());
    for (std::size_t index = 0; index < names.size(); ++index)
        EXPECT_EQ(found[index].path, names[index]);
}

// Anybody can make them: folders in folders.
TEST_F(ManifestTest, paths_of_many_mebibytes_are_entries_like_others) {
    std::vector<std::string> paths;
    for (std::size_t depth : {5000u, 1100u, 60000u}) {
        paths.emplace_back();
        for (std::size_t level = 0; level < depth; ++level)
            paths.back() += (level == 0 ? "" : "/") + std::string(250, '\xe4');
    }
    write({file(paths[0].c_str()), file(paths[1].c_str()), file(paths[2].c_str())});
    const std::vector<ManifestEntry> found = read();
    ASSERT_EQ(found.size(), 3u);
    EXPECT_TRUE(found[0].path == paths[1]);
    EXPECT_TRUE(found[1].path == paths[0]);
    EXPECT_TRUE(found[2].path == paths[2]);
}

TEST_F(ManifestTest, entries_may_come_from_any_thread) {
    ManifestWriter writer(directory.get(), "manifest.0", op, "ID");
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([&, thread] {
            for (int index = 0; index < 500; ++index)
                writer.add(file((std::to_string(thread) + "-" + std::to_string(index)).c_str()));
        });
    for (std::thread &thread : threads)
        thread.join();
    writer.finish();
    EXPECT_EQ(read().size(), 2000u);
}

TEST_F(ManifestTest, a_sorter_of_little_memory_sorts_through_a_file) {
    LineSorter sorter(op, 100);
    std::vector<std::string> lines;
    for (int index = 0; index < 1000; ++index) {
        lines.push_back("x " + std::to_string(index * 7919 % 1000) + " tail");
        sorter.add(lines.back(), 2);
    }
    sorter.sort();
    std::sort(lines.begin(), lines.end(), [](const std::string &a, const std::string &b) {
        return a.substr(0, a.rfind(' ')) < b.substr(0, b.rfind(' '));
    });
    std::string line;
    for (const std::string &expected : lines) {
        ASSERT_TRUE(sorter.next(line));
        EXPECT_EQ(line, expected);
    }
    EXPECT_FALSE(sorter.next(line));
}

TEST_F(ManifestTest, a_million_entries_are_sorted_within_64_mebibytes) {
    if (is_sanitized)
        GTEST_SKIP() << "a sanitizer's own memory counts too";
    std::ofstream out(folder.path() + "/manifest.0");
    out << "qzfi-manifest 1\n";
    for (uint64_t index = 0; index < 1'000'000; ++index)
        out << "f 644 1000 1000 4096 1700000000000000000 000102030405060708090a0b0c0d0eff some/longer/directory/"
            << index * 7919 % 1'000'000 << "\n";
    out << "end 1000000\n";
    out.close();
    const pid_t child = fork();
    if (child == 0) {
        ManifestReader reader(directory.get(), "manifest.0", op, "ID");
        ManifestEntry entry;
        std::string previous;
        uint64_t count = 0;
        for (; reader.next(entry); ++count) {
            if (!(previous < entry.path))
                _exit(2);
            previous = entry.path;
        }
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        fprintf(stderr, "peak %ld KiB\n", usage.ru_maxrss);
        _exit(count == 1'000'000 && usage.ru_maxrss < 64 * 1024 ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST_F(ManifestTest, a_damaged_manifest_names_the_line) {
    const std::string head = "qzfi-manifest 1\n", good = "f 644 0 0 0 0 - a\n";
    const std::pair<std::string, const char *> rows[] = {
        {"", "line 1: the end is missing"},
        {"qzfi-manifest 2\n", "line 1: it is no manifest of a version that is known"},
        {head, "line 2: the end is missing"},
        {head + good, "line 3: the end is missing"},
        {head + good + "f 644 0", "line 3: it breaks off"},
        {head + good + "end 2\n", "line 3: lines are missing"},
        {head + good + "end 1x\n", "line 3: lines are missing"},
        {head + good + "end 1\n" + good, "line 4: it stands after the end"},
        {head + "q 644 0 0 0 0 - a\nend 1\n", "line 2: it is no entry"},
        {head + "f 10000 0 0 0 0 - a\nend 1\n", "line 2: it is no entry"},
        {head + "f 644 4294967296 0 0 0 - a\nend 1\n", "line 2: it is no entry"},
        {head + "f 644 0 0 -1 0 - a\nend 1\n", "line 2: it is no entry"},
        {head + "f 644 0 0 0 0 00 a\nend 1\n", "line 2: it is no entry"},
        {head + "f 644 0 0 0 0 - /a\nend 1\n", "line 2: it is no entry"},
        {head + "f 644 0 0 0 0 - a/../b\nend 1\n", "line 2: it is no entry"},
        {head + "f 644 0 0 0 0 - a//b\nend 1\n", "line 2: it is no entry"},
        {head + "f 644 0 0 0 0 - a\\x00\nend 1\n", "line 2: it is no entry"},
        {head + "f 644 0 0 0 0 - a\\x2e\nend 1\n", "line 2: it is no entry"},
        {head + "f 644 0 0 0 0 - a b\nend 1\n", "line 2: it is no entry"},
        {head + "l 644 0 0 0 0 - a\nend 1\n", "line 2: it is no entry"},
        {head + "b 644 0 0 0 0 - a\nend 1\n", "line 2: it is no entry"},
        {head + std::string(65 << 20, 'a'), "line 2: it is too long"},
        {head + good + good + "end 2\n", "an entry stands there twice: a"},
    };
    for (const auto &[text, cause] : rows) {
        put(text);
        EXPECT_EQ(status_of_call([&] { read(); }), QFI_FI_DAMAGED) << text.substr(0, 100);
        EXPECT_EQ(last_error(),
                  std::string("1032 MSG_QFI_E2015: %s: image %s is damaged: %s: %s\n|qzfi_test|ID|manifest.0|") +
                      cause);
    }
    std::filesystem::remove(folder.path() + "/manifest.0");
    EXPECT_EQ(status_of_call([&] { read(); }), QFI_FI_DAMAGED);
}

TEST_F(ManifestTest, an_entry_that_no_manifest_can_hold_is_refused) {
    ManifestWriter writer(directory.get(), "manifest.0", op, "ID");
    EXPECT_EQ(writer.add(file("../a")), QFI_STATUS_INVALID_ARGUMENT);
    EXPECT_NE(status_of_call([&] { writer.finish(); }), 0);
}

TEST_F(ManifestTest, a_manifest_is_not_written_over) {
    write({});
    EXPECT_EQ(status_of_call([&] { write({}); }), QFI_FI_WRITE);
}

TEST_F(ManifestTest, writes_and_reads_that_fail_are_told) {
    fault::for_each(fault::Call::write, [&](fault::Trial &trial) {
        std::filesystem::remove(folder.path() + "/manifest.0");
        trial.arm();
        const int32_t status = status_of_call([&] { write({file("a")}); });
        trial.disarm();
        EXPECT_EQ(status, trial.fired() ? QFI_FI_WRITE : 0);
    });
    fault::for_each(fault::Call::read, [&](fault::Trial &trial) {
        trial.arm();
        const int32_t status = status_of_call([&] { read(); });
        trial.disarm();
        EXPECT_EQ(status, trial.fired() ? QFI_FI_READ : 0);
    });
}

TEST_F(ManifestTest, short_transfers_lose_nothing) {
    const fault::ShortTransfers limit(3);
    write({file("b"), file("a")});
    EXPECT_EQ(read().size(), 2u);
}

TEST_F(ManifestTest, differences_come_in_order_with_their_kind) {
    const uint8_t one[16] = {1}, two[16] = {2};
    std::vector<qfi_entry> old_entries, new_entries;
    for (const char *const path : {"attribute", "data", "directory", "gone", "kind", "same", "size", "time"})
        old_entries.push_back(file(path));
    old_entries[1].digest = one;
    old_entries[2].type = QFI_ENTRY_DIRECTORY;
    new_entries = old_entries;
    new_entries[0].mode = 0600;
    new_entries[1].digest = two;
    new_entries[2].mtime_ns = 9; // what is in a directory changes its time
    new_entries[3].path = "new";
    new_entries[4].type = QFI_ENTRY_FIFO;
    new_entries[5].digest = one; // the old one has none
    new_entries[6].size = 1;
    new_entries[7].mtime_ns = 1;
    write(old_entries, "old");
    write(new_entries, "new");
    ManifestReader from(directory.get(), "old", op, "ID"), to(directory.get(), "new", op, "ID");
    std::vector<std::pair<uint32_t, std::string>> found;
    compare_manifests(from, to, [&](uint32_t change, const ManifestEntry *old_entry, const ManifestEntry *new_entry) {
        EXPECT_EQ(old_entry == nullptr, change == QFI_CHANGE_ADDED);
        EXPECT_EQ(new_entry == nullptr, change == QFI_CHANGE_REMOVED);
        found.emplace_back(change, (new_entry != nullptr ? new_entry : old_entry)->path);
    });
    EXPECT_EQ(found, (std::vector<std::pair<uint32_t, std::string>>{{QFI_CHANGE_ATTRIBUTE, "attribute"},
                                                                    {QFI_CHANGE_CONTENT, "data"},
                                                                    {QFI_CHANGE_REMOVED, "gone"},
                                                                    {QFI_CHANGE_TYPE, "kind"},
                                                                    {QFI_CHANGE_ADDED, "new"},
                                                                    {QFI_CHANGE_CONTENT, "size"},
                                                                    {QFI_CHANGE_CONTENT, "time"}}));
}
