// Reports: what goes in comes out, losses first; what is none is damaged.
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>

#include <qzfi_provider.h>

#include "fi/fi_report.h"
#include "store_support.h"

using namespace qzfi::fi;
using namespace store_support;

namespace {

constexpr const char *op = "qzfi_test";
using Remark = JobHost::Remark;

class ReportTest : public testing::Test {
protected:
    void write(const std::vector<Remark> &remarks, uint64_t count) {
        std::filesystem::remove(folder.path() + "/report");
        write_report(directory.get(), remarks, count, op, "ID");
    }
    void put(const std::string &content) { std::ofstream(folder.path() + "/report") << content; }
    std::string content() {
        std::ifstream in(folder.path() + "/report");
        return {std::istreambuf_iterator<char>(in), {}};
    }
    StoredReport read() { return read_report(directory.get(), op, "ID", "DIRECTORY"); }
    Folder folder;
    Descriptor directory{open(folder.path().c_str(), O_RDONLY | O_DIRECTORY)};
};

const Remark loss{QFI_REMARK_UNREADABLE, EACCES, "/object", "secret", "open"};
const Remark note{QFI_REMARK_SKIPPED, 0, "/object", "socket", "a socket"};
const Remark hidden{QFI_REMARK_SKIPPED, 0, "/object", "mnt", "another file system"};

} // namespace

TEST_F(ReportTest, a_remark_is_one_line_of_any_bytes_and_losses_come_first) {
    write({note, {QFI_REMARK_ATTRIBUTE, -1, "-", "a b\n\\\xff", "\x01"}, loss}, 5);
    EXPECT_EQ(content(), "qzfi-report 1\n" + std::to_string(QFI_REMARK_UNREADABLE) + " 13 /object secret open\n" +
                             std::to_string(QFI_REMARK_SKIPPED) + " 0 /object socket a\\x20socket\n" +
                             std::to_string(QFI_REMARK_ATTRIBUTE) + " -1 \\x2d a\\x20b\\x0a\\x5c\\xff \\x01\nend 5\n");
    const StoredReport report = read();
    EXPECT_EQ(report.count, 5u);
    ASSERT_EQ(report.remarks.size(), 3u);
    EXPECT_EQ(report.remarks[0].path, "secret");
    EXPECT_EQ(report.remarks[0].error, EACCES);
    EXPECT_EQ(report.remarks[2].object, "-");
    EXPECT_EQ(report.remarks[2].path, "a b\n\\\xff");
    EXPECT_EQ(report.remarks[2].detail, "\x01");
}

TEST_F(ReportTest, losses_are_all_there_unless_only_losses_were_kept) {
    const auto has_all = [&](const std::vector<Remark> &remarks, uint64_t count) {
        write(remarks, count);
        return read().has_all_losses();
    };
    EXPECT_TRUE(has_all({}, 0));
    EXPECT_TRUE(has_all({loss, loss}, 2));
    EXPECT_TRUE(has_all({note, loss}, 3));
    EXPECT_FALSE(has_all({loss, loss}, 3));
    EXPECT_TRUE(has_all({note, hidden}, 3));
    EXPECT_FALSE(has_all({loss, hidden}, 3));
    EXPECT_FALSE(has_all({}, 1));
}

TEST_F(ReportTest, losses_are_kept_where_there_is_no_room_for_all) {
    Remark long_note = note;
    long_note.kind = QFI_REMARK_ATTRIBUTE;
    long_note.detail = std::string(1 << 20, 'x');
    std::vector<Remark> remarks(70, long_note);
    remarks.push_back(loss);
    write(remarks, remarks.size());
    EXPECT_LE(content().size(), report_limit);
    const StoredReport report = read();
    EXPECT_EQ(report.count, 71u);
    EXPECT_LT(report.remarks.size(), 71u);
    EXPECT_EQ(report.remarks.at(0).path, "secret");
    EXPECT_TRUE(report.has_all_losses());
}

TEST_F(ReportTest, what_is_no_report_is_damaged) {
    const std::string head = "qzfi-report 1\n", good = "1 0 /object a -\n";
    for (const std::string &text :
         {std::string(), std::string("qzfi-report 2\nend 0\n"), head, head + good, head + good + "end 0\n",
          head + good + "end 1x\n", head + "end 0\n" + good, head + "1 0 /object a\nend 1\n",
          head + "1 0 /object a - -\nend 1\n", head + "x 0 /object a -\nend 1\n", head + "1 0 /object  -\nend 1\n",
          head + "1 0 /object \\q -\nend 1\n", head + "1 0 /object \\x4 -\nend 1\n"}) {
        put(text);
        EXPECT_EQ(status_of_call([&] { read(); }), QFI_FI_DAMAGED) << text;
        EXPECT_EQ(last_error(),
                  "1032 MSG_QFI_E2015: %s: image %s is damaged: %s: %s\n|qzfi_test|ID|report|it is no report")
            << text;
    }
    std::filesystem::remove(folder.path() + "/report");
    EXPECT_EQ(status_of_call([&] { read(); }), QFI_FI_DAMAGED);
    EXPECT_EQ(last_error(), "1032 MSG_QFI_E2015: %s: image %s is damaged: %s: %s\n|qzfi_test|ID|report|No such file or "
                            "directory (2)");
}
