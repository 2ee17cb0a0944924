// A host of libfi.so as any other: through the front end, with the library and the plugins that were built, an
// installation root of its own, and the errors that it is told.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include <qzfi_fi.h>

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &content);
bool exists(const std::string &path);
std::vector<std::string> names_in(const std::string &path);

class Host : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    void start();
    void stop();
    /// The text of the last failure, without its line end; empty when there is none.
    static std::string last_error();
    /// A tree of these objects; the test fails when there is none.
    static qfi_domain *tree_of(const std::vector<std::string> &paths);
    /// A folder with a few files, below the test's own.
    std::string make_object(const std::string &name) const;
    std::string path(const std::string &name) const { return folder_ + "/" + name; }
    std::string root() const { return folder_ + "/root"; }
    std::string copy_store() const { return root() + "/arcvault/images"; }

    std::string folder_;
    qfi_handler handler_{};
};

/// Gives an operation a record whose size is set.
template <class Record>
Record sized_record() {
    Record record;
    QFI_INIT(record);
    return record;
}
