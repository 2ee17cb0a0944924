// Stores whose catalog is gone, or older than their images: no image is lost, and a repair takes them in again.
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "fi/fi_fiid.h"
#include "store_support.h"

using namespace qzfi::fi;
using namespace store_support;

namespace fs = std::filesystem;

namespace {

constexpr const char *op = "qzfi_test";

class LostTest : public testing::Test {
protected:
    std::string image(const std::string &id) const { return path + "/images/" + id; }
    std::string catalog() const { return path + "/catalog.db"; }

    // With an id document that names all of its set, the first of which it is.
    std::string make(const std::vector<FiidImage> &sisters = {}) const {
        const std::string id = new_image_id();
        make_as(id, sisters);
        return id;
    }
    void make_as(const std::string &id, const std::vector<FiidImage> &sisters) const {
        const std::shared_ptr<Store> store = Store::open(path, true, op);
        NewImage made = store->begin(id, op);
        ASSERT_EQ(mkdirat(made.objects(), "0", 0755), 0);
        std::ofstream(path + "/images/.new-" + id + "/manifest.0") << "one";
        Fiid fiid{record_of(id).set_id, {{record_of(id), path}}};
        fiid.images.insert(fiid.images.end(), sisters.begin(), sisters.end());
        made.commit(record_of(id), write_fiid(fiid, op), op);
    }
    // As a backup does that is made while nobody uses the store.
    void keep_catalog() const { fs::copy_file(catalog(), kept); }
    void bring_back() const {
        for (const char *const name : {"catalog.db-wal", "catalog.db-shm"})
            fs::remove(path + "/" + name);
        fs::copy_file(kept, catalog(), fs::copy_options::overwrite_existing);
    }
    std::vector<std::string> listed() const { return ids_of(*Store::open(path, false, op)); }
    std::vector<std::string> folders() const { return names_in(path + "/images"); }

    Folder folder;
    std::string path = folder.path() + "/store", kept = folder.path() + "/kept";
    const std::string gone = "1028 MSG_QFI_E2011: %s: store %s cannot be used: %s\n|qzfi_test|" + path +
                             "|it holds images, and its catalog is gone: bring catalog.db back, or move images/ away";
};

std::vector<std::string> sorted(std::vector<std::string> texts) {
    std::sort(texts.begin(), texts.end());
    return texts;
}

} // namespace

TEST_F(LostTest, no_new_catalog_is_made_where_images_are) {
    const std::string id = make();
    for (const bool is_empty : {false, true}) {
        fs::remove(catalog());
        if (is_empty)
            std::ofstream(catalog()).flush();
        for (const bool create : {true, false}) {
            EXPECT_EQ(status_of_call([&] { Store::open(path, create, op); }), QFI_FI_STORE);
            EXPECT_EQ(last_error(), gone);
        }
        EXPECT_EQ(folders(), std::vector<std::string>{id});
        EXPECT_EQ(fs::exists(catalog()), is_empty);
    }
    fs::rename(path + "/images", folder.path() + "/away");
    EXPECT_EQ(status_of_call([&] { Store::open(path, true, op); }), 0);
    EXPECT_TRUE(listed().empty());
}

TEST_F(LostTest, a_store_of_debris_only_gets_a_new_catalog) {
    Store::open(path, true, op);
    fs::remove(catalog());
    fs::create_directories(path + "/images/.new-20260101T000000Z-00000001/objects/0");
    fs::create_directories(path + "/images/.old-20260101T000000Z-00000002/objects/0");
    EXPECT_EQ(status_of_call([&] { Store::open(path, true, op); }), 0);
    EXPECT_TRUE(folders().empty());
}

TEST_F(LostTest, a_catalog_without_tables_is_made_complete_only_where_no_images_are) {
    Store::open(path, true, op);
    keep_catalog();
    const std::string id = make();
    bring_back();
    fs::resize_file(catalog(), 0);
    EXPECT_EQ(status_of_call([&] { Store::open(path, true, op); }), QFI_FI_STORE);
    EXPECT_EQ(folders(), std::vector<std::string>{id});
    fs::remove_all(image(id));
    EXPECT_EQ(status_of_call([&] { Store::open(path, true, op); }), 0);
}

TEST_F(LostTest, images_that_an_older_catalog_does_not_know_stay_until_a_repair_takes_them_in) {
    const std::string first = make();
    keep_catalog();
    const std::string second = make(), third = make();
    bring_back();
    EXPECT_EQ(listed(), std::vector<std::string>{first});
    EXPECT_EQ(folders(), sorted({first, second, third}));
    const std::string other = make();

    const Store::Repair repair = Store::open(path, false, op)->repair(op);
    EXPECT_EQ(repair.debris, 0u);
    EXPECT_EQ(repair.taken_in, 2u);
    EXPECT_TRUE(repair.unknown.empty());
    EXPECT_EQ(listed(), sorted({first, second, third, other}));
    const ImageRecord record = *Store::open(path, false, op)->find(second, op);
    EXPECT_EQ(record.label, "a label");
    EXPECT_EQ(record.time_ns, 1'700'000'000'123'456'789);
    EXPECT_EQ(record.objects.at(0).path, "/home");
    EXPECT_EQ(Store::open(path, false, op)->repair(op).taken_in, 0u);
}

TEST_F(LostTest, what_names_another_or_lacks_something_is_told_of_and_stays) {
    Store::open(path, true, op);
    keep_catalog();
    const std::string other = make(), without_object = make(), without_manifest = make(), broken = make(),
                      without_document = make(), hostile = make();
    bring_back();
    fs::copy_file(image(without_object) + "/fiid.xml", image(other) + "/fiid.xml",
                  fs::copy_options::overwrite_existing);
    fs::remove_all(image(without_object) + "/objects/0");
    fs::remove(image(without_manifest) + "/manifest.0");
    std::ofstream(image(broken) + "/fiid.xml") << "<fiid";
    fs::remove(image(without_document) + "/fiid.xml");
    fs::remove_all(image(hostile) + "/objects");
    fs::create_symlink("../" + other + "/objects", image(hostile) + "/objects");

    const Store::Repair repair = Store::open(path, false, op)->repair(op);
    EXPECT_EQ(repair.taken_in, 0u);
    EXPECT_FALSE(repair.failure);
    EXPECT_EQ(sorted(repair.unknown), folders());
    EXPECT_EQ(folders().size(), 6u);
    EXPECT_TRUE(listed().empty());
    const std::shared_ptr<Store> store = Store::open(path, false, op);
    EXPECT_EQ(status_of_call([&] { store->remove(other, op, remove_all); }), QFI_FI_NO_SUCH_IMAGE);
    EXPECT_EQ(status_of_call([&] { store->begin(other, op); }), QFI_FI_EXISTS);
    EXPECT_EQ(folders().size(), 6u);
}

TEST_F(LostTest, an_image_of_a_set_is_taken_in_where_the_others_are) {
    const std::string first = new_image_id(), second = new_image_id(), away = folder.path() + "/away";
    Store::open(path, true, op);
    keep_catalog();
    const std::string lonely = make({{record_of(new_image_id()), path}}),
                      elsewhere = make({{record_of(new_image_id()), away}});
    make_as(first, {{record_of(second), path}});
    make_as(second, {{record_of(first), path}});
    bring_back();
    const Store::Repair repair = Store::open(path, false, op)->repair(op);
    EXPECT_EQ(repair.taken_in, 2u);
    EXPECT_EQ(sorted(repair.unknown), sorted({lonely, elsewhere}));
    EXPECT_EQ(listed(), sorted({first, second}));
}

TEST_F(LostTest, what_was_being_recorded_or_removed_goes_whatever_the_catalog_is) {
    const std::string id = make(), removed = make();
    keep_catalog();
    // Recorded no more, and killed before it could be renamed.
    std::ofstream(image(removed) + "/unrecorded").flush();
    fs::remove(catalog());
    fs::copy_file(kept, catalog());
    EXPECT_EQ(listed(), sorted({id, removed})) << "a record tells more than the mark";
    EXPECT_FALSE(fs::exists(image(removed) + "/unrecorded"));

    std::ofstream(image(removed) + "/unrecorded").flush();
    const std::string folder_of = folder.path() + "/" + removed;
    fs::rename(image(removed), folder_of);
    Store::open(path, false, op)->remove(removed, op, remove_all);
    fs::rename(folder_of, image(removed));
    EXPECT_EQ(Store::open(path, false, op)->repair(op).debris, 1u);
    EXPECT_EQ(folders(), std::vector<std::string>{id});
}
