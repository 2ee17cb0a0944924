// The catalog: texts and numbers come back as they went in; what is not ours is refused.
#include <fstream>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "store_support.h"

using namespace qzfi::fi;
using namespace store_support;

namespace {

constexpr const char *op = "qzfi_test";

class CatalogTest : public testing::Test {
protected:
    void sql(const char *statement) {
        sqlite3 *database = nullptr;
        ASSERT_EQ(sqlite3_open((path + "/catalog.db").c_str(), &database), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(database, statement, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
        sqlite3_close(database);
    }
    int32_t open_status() {
        return status_of_call([&] { Store::open(path, true, op)->list(op); });
    }
    Folder folder;
    std::string path = folder.path() + "/store";
};

} // namespace

TEST_F(CatalogTest, any_bytes_and_any_numbers_come_back) {
    const std::shared_ptr<Store> store = Store::open(path, true, op);
    ImageRecord record = record_of(new_image_id());
    const std::string bytes("\x01\xff'\";--\0 \xc3", 10);
    record.label = record.host = bytes;
    record.entries = record.bytes = record.remarks = record.duration_ns = UINT64_MAX;
    record.time_ns = INT64_MIN;
    record.has_digests = true;
    const std::string name("\x01\xff'\";--\\ \xc3", 10); // paths hold no NUL
    record.objects[0] = {"/a" + name, name, bytes, bytes, "/" + name, INT32_MIN, bytes};
    record.objects.push_back({"/b", "sub", "ext4", "dev", "/", 7, ""});
    store->begin(record.id, op).commit(record, "", op);

    const ImageRecord found = *store->find(record.id, op);
    EXPECT_EQ(found.label, bytes);
    EXPECT_EQ(found.host, bytes);
    EXPECT_EQ(found.entries, UINT64_MAX);
    EXPECT_EQ(found.duration_ns, UINT64_MAX);
    EXPECT_EQ(found.time_ns, INT64_MIN);
    EXPECT_TRUE(found.has_digests);
    ASSERT_EQ(found.objects.size(), 2u);
    EXPECT_EQ(found.objects[0].path, "/a" + name);
    EXPECT_EQ(found.objects[0].subpath, name);
    EXPECT_EQ(found.objects[0].device, bytes);
    EXPECT_EQ(found.objects[0].mount_point, "/" + name);
    EXPECT_EQ(found.objects[0].status_text, bytes);
    EXPECT_EQ(found.objects[0].status, INT32_MIN);
    EXPECT_EQ(found.objects[1].subpath, "sub");
}

TEST_F(CatalogTest, the_oldest_image_comes_first) {
    const std::shared_ptr<Store> store = Store::open(path, true, op);
    for (const int64_t time : {30, 10, 20}) {
        ImageRecord record = record_of(new_image_id());
        record.time_ns = time;
        store->begin(record.id, op).commit(record, "", op);
    }
    std::vector<int64_t> times;
    for (const ImageRecord &record : store->list(op))
        times.push_back(record.time_ns);
    EXPECT_EQ(times, (std::vector<int64_t>{10, 20, 30}));
}

TEST_F(CatalogTest, another_version_is_refused_by_name) {
    Store::open(path, true, op);
    sql("PRAGMA user_version = 2");
    EXPECT_EQ(open_status(), QFI_FI_STORE);
    EXPECT_EQ(last_error(), "1028 MSG_QFI_E2011: %s: store %s cannot be used: %s\n|qzfi_test|" + path +
                                "|its catalog has version 2, this library knows version 1");
}

TEST_F(CatalogTest, a_database_of_something_else_is_refused) {
    std::filesystem::create_directories(path);
    sql("CREATE TABLE other(a)");
    EXPECT_EQ(open_status(), QFI_FI_STORE);
    EXPECT_EQ(last_error(), "1028 MSG_QFI_E2011: %s: store %s cannot be used: %s\n|qzfi_test|" + path +
                                "|its catalog is of something else");
}

TEST_F(CatalogTest, a_file_that_is_no_database_is_a_catalog_failure) {
    Store::open(path, true, op);
    std::ofstream(path + "/catalog.db", std::ios::trunc) << std::string(4096, 'x');
    EXPECT_EQ(open_status(), QFI_FI_CATALOG);
    EXPECT_EQ(last_error(),
              "1037 MSG_QFI_E2020: %s: catalog of store %s: %s\n|qzfi_test|" + path + "|file is not a database");
}

TEST_F(CatalogTest, a_malformed_id_in_a_catalog_is_a_catalog_failure) {
    make_image(*Store::open(path, true, op));
    sql("UPDATE image SET id = CAST('../../etc' AS BLOB)");
    EXPECT_EQ(open_status(), QFI_FI_CATALOG);
}

TEST_F(CatalogTest, a_record_that_leads_elsewhere_is_a_catalog_failure) {
    make_image(*Store::open(path, true, op));
    const std::pair<const char *, const char *> flaws[] = {
        {"UPDATE object SET path = CAST('relative' AS BLOB)", "a path that is none"},
        {"UPDATE object SET path = CAST('/home/../etc' AS BLOB)", "a path that is none"},
        {"UPDATE object SET path = x'2f61002f62'", "a path that is none"},
        {"UPDATE object SET path = CAST('/home' AS BLOB), subpath = CAST('../../..' AS BLOB)", "a path that is none"},
        {"UPDATE object SET subpath = CAST('/etc' AS BLOB)", "a path that is none"},
        {"UPDATE object SET subpath = x'', mount_point = x''", "a path that is none"},
        {"UPDATE object SET mount_point = CAST('/' AS BLOB); UPDATE image SET consistency = 4",
         "a number that means nothing"},
        {"UPDATE image SET consistency = 3, backed_up = 3", "a number that means nothing"},
        {"UPDATE image SET backed_up = 2, state = 5", "a number that means nothing"},
        {"UPDATE image SET state = 1, set_id = CAST('../../etc' AS BLOB)", "an id that is none"}};
    for (const auto &[statement, cause] : flaws) {
        sql(statement);
        EXPECT_EQ(open_status(), QFI_FI_CATALOG) << statement;
        EXPECT_EQ(last_error(),
                  "1037 MSG_QFI_E2020: %s: catalog of store %s: %s\n|qzfi_test|" + path + "|it holds " + cause)
            << statement;
    }
    sql("UPDATE image SET set_id = CAST('20260101T000000Z-00000000' AS BLOB)");
    EXPECT_EQ(open_status(), 0);
}

TEST_F(CatalogTest, a_record_that_could_not_be_read_again_is_not_written) {
    const std::shared_ptr<Store> store = Store::open(path, true, op);
    ImageRecord record = record_of(new_image_id());
    record.objects[0].subpath = "..";
    EXPECT_EQ(status_of_call([&] { store->begin(record.id, op).commit(record, "", op); }), QFI_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(last_error(),
              "3 MSG_QFI_E2003: %s: invalid argument: %s\n|qzfi_test|the record holds a path that is none");
    EXPECT_TRUE(store->list(op).empty());
    EXPECT_TRUE(names_in(path + "/images").empty());
}

TEST_F(CatalogTest, a_trigger_in_a_strange_catalog_does_not_run) {
    const std::string id = make_image(*Store::open(path, true, op));
    sql("CREATE TRIGGER evil AFTER UPDATE ON image BEGIN DELETE FROM image; END");
    const std::shared_ptr<Store> store = Store::open(path, false, op);
    store->update(id, op, [](ImageRecord &record) { record.backed_up = 1; });
    EXPECT_EQ(store->list(op).size(), 1u);
}
