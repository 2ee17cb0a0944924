// Id documents: by the schema, the same after a round trip, and refused when they are anything else.
#include <fstream>
#include <gtest/gtest.h>
#include <libxml/xmlschemas.h>

#include "fi/fi_fiid.h"
#include "fi/fi_fiid_text.h"
#include "store_support.h"

using namespace qzfi::fi;
using namespace store_support;

namespace {

constexpr const char *op = "qzfi_test";

Fiid example() {
    Fiid fiid;
    fiid.set_id = "20260101T000000Z-00000000";
    fiid.images.push_back({record_of("20261121T041500Z-8f3a2c1d"), "/usr/lumen/var/qzfi/store"});
    return fiid;
}

std::string all_bytes() {
    std::string bytes;
    for (int byte = 1; byte < 256; ++byte)
        if (byte != '/')
            bytes += static_cast<char>(byte);
    return bytes + "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\xed\xa0\x80\xef\xbf\xbf\xc0\xaf\\x41 <&\"'>]]>";
}

bool fits_schema(const std::string &document) {
    xmlSchemaParserCtxtPtr parser = xmlSchemaNewParserCtxt(SCHEMA);
    xmlSchemaPtr schema = xmlSchemaParse(parser);
    EXPECT_NE(schema, nullptr);
    xmlSchemaValidCtxtPtr context = xmlSchemaNewValidCtxt(schema);
    xmlDocPtr parsed = xmlReadMemory(document.data(), static_cast<int>(document.size()), nullptr, nullptr, 0);
    const bool fits = parsed != nullptr && xmlSchemaValidateDoc(context, parsed) == 0;
    xmlFreeDoc(parsed);
    xmlSchemaFreeValidCtxt(context);
    xmlSchemaFree(schema);
    xmlSchemaFreeParserCtxt(parser);
    return fits;
}

std::string with(const std::string &from, const std::string &to) {
    std::string document = write_fiid(example(), op);
    const std::size_t at = document.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? document : document.replace(at, from.size(), to);
}

int32_t read_status(const std::string &document) {
    return status_of_call([&] { read_fiid(document, op); });
}

} // namespace

TEST(Fiid, a_document_is_these_bytes) {
    EXPECT_EQ(write_fiid(example(), op),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<fiid xmlns=\"urn:qzfi:fiid:1\" version=\"1\" set=\"20260101T000000Z-00000000\">\n"
              "  <image id=\"20261121T041500Z-8f3a2c1d\" label=\"a label\" method=\"copy\" provider=\"copy\" "
              "consistency=\"per-file\" time=\"2023-11-14T22:13:20.123456789Z\" durationNs=\"5\" host=\"host\" "
              "store=\"/usr/lumen/var/qzfi/store\" digests=\"false\">\n"
              "    <report entries=\"2\" bytes=\"4\" remarks=\"0\"/>\n"
              "    <object index=\"0\" path=\"/home\" subpath=\"\" filesystem=\"xfs\" device=\"/dev/sda1\" "
              "mountPoint=\"/\"/>\n"
              "  </image>\n"
              "</fiid>\n");
}

TEST(Fiid, paths_with_dots_in_their_names_fit_the_schema) {
    for (const char *const path : {"/", "/.a", "/..a", "/...", "/a./b..", "/a/.b/..c/d"}) {
        const std::string document = with("path=\"/home\"", std::string("path=\"") + path + "\"");
        EXPECT_EQ(read_status(document), 0) << path;
        EXPECT_TRUE(fits_schema(document)) << path;
    }
}

TEST(Fiid, any_bytes_survive_a_round_trip_and_fit_the_schema) {
    Fiid fiid = example();
    fiid.images.reserve(2);
    ImageRecord &record = fiid.images[0].record;
    record.label = record.host = record.objects[0].device = all_bytes();
    record.objects[0].path = "/" + all_bytes();
    record.objects[0].subpath = all_bytes();
    record.time_ns = -1;
    record.has_digests = true;
    record.nested = true;
    record.consistency = QFI_CONSISTENCY_ATOMIC;
    record.entries = UINT64_MAX;
    fiid.images.push_back(example().images[0]);
    fiid.images[1].record.id = "20261121T041500Z-8f3a2c1e";
    const std::string document = write_fiid(fiid, op);
    EXPECT_TRUE(fits_schema(document));

    const Fiid found = read_fiid(document, op);
    ASSERT_EQ(found.images.size(), 2u);
    EXPECT_EQ(found.set_id, fiid.set_id);
    EXPECT_EQ(found.images[0].record.label, all_bytes());
    EXPECT_EQ(found.images[0].record.objects[0].path, record.objects[0].path);
    EXPECT_EQ(found.images[0].record.objects[0].subpath, all_bytes());
    EXPECT_EQ(found.images[0].record.time_ns, -1);
    EXPECT_TRUE(found.images[0].record.nested);
    EXPECT_FALSE(found.images[1].record.nested);
    EXPECT_EQ(found.images[0].store, fiid.images[0].store);
    EXPECT_EQ(write_fiid(found, op), document);
}

TEST(Fiid, the_longest_that_is_written_is_read_again_and_what_is_longer_is_refused) {
    struct Case {
        std::string ImageObject::*of_object;
        std::string ImageRecord::*of_image;
        std::size_t most;
        const char *what;
    };
    const Case cases[] = {
        {&ImageObject::path, nullptr, 4095, "an object's path"},
        {&ImageObject::subpath, nullptr, 4095, "an object's place in the image"},
        {&ImageObject::mount_point, nullptr, 4095, "a mount point"},
        {&ImageObject::filesystem, nullptr, 4096, "a file system's type"},
        {&ImageObject::device, nullptr, 4096, "a file system's device"},
        {nullptr, &ImageRecord::host, 4096, "the host's name"},
        {nullptr, &ImageRecord::label, 1 << 20, "the label"},
    };
    for (const Case &one : cases) {
        Fiid fiid = example();
        ImageRecord &record = fiid.images[0].record;
        std::string &text = one.of_object != nullptr ? record.objects[0].*one.of_object : record.*one.of_image;
        const bool is_absolute = one.of_object == &ImageObject::path || one.of_object == &ImageObject::mount_point;
        text = is_absolute ? "/" : "";
        text.resize(one.most, '\x01');
        const std::string document = write_fiid(fiid, op);
        EXPECT_EQ(write_fiid(read_fiid(document, op), op), document) << one.what;
        EXPECT_TRUE(fits_schema(document)) << one.what;
        text += 'x';
        EXPECT_EQ(status_of_call([&] { write_fiid(fiid, op); }), QFI_STATUS_INVALID_ARGUMENT);
        EXPECT_EQ(last_error(),
                  std::string("3 MSG_QFI_E2003: %s: invalid argument: %s\n|qzfi_test|the id document could not be read "
                              "again: ") +
                      one.what + " is " + std::to_string(one.most + 1) + " bytes long, and " +
                      std::to_string(one.most) + " are the most");
    }
}

TEST(Fiid, as_many_objects_are_written_as_are_read_again) {
    Fiid fiid = example();
    std::vector<ImageObject> &objects = fiid.images[0].record.objects;
    objects.resize(65536, objects[0]);
    EXPECT_EQ(read_fiid(write_fiid(fiid, op), op).images.at(0).record.objects.size(), 65536u);
    objects.push_back(objects[0]);
    EXPECT_EQ(status_of_call([&] { write_fiid(fiid, op); }), QFI_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(last_error(), "3 MSG_QFI_E2003: %s: invalid argument: %s\n|qzfi_test|the id document could not be read "
                            "again: an image has 65537 objects, and 65536 are the most");
    objects.resize(4000);
    for (ImageObject &object : objects)
        object.path = "/" + std::string(4000, 'p');
    const std::size_t left = (16 << 20) - write_fiid(fiid, op).size();
    objects.resize(4000 + left / 4000 + 1, objects[0]);
    EXPECT_EQ(status_of_call([&] { write_fiid(fiid, op); }), QFI_STATUS_INVALID_ARGUMENT);
    EXPECT_NE(last_error().find("again: it is "), std::string::npos);
}

TEST(Fiid, the_command_line_validator_agrees) {
    if (std::system("command -v xmllint > /dev/null") != 0)
        GTEST_SKIP() << "xmllint is not installed";
    const Folder folder;
    std::ofstream(folder.path() + "/good") << write_fiid(example(), op);
    std::ofstream(folder.path() + "/bad") << with("per-file", "good");
    const std::string command = "xmllint --nonet --noout --schema " SCHEMA " " + folder.path();
    EXPECT_EQ(std::system((command + "/good 2> /dev/null").c_str()), 0);
    EXPECT_NE(std::system((command + "/bad 2> /dev/null").c_str()), 0);
}

TEST(Fiid, comments_and_blanks_do_no_harm) {
    EXPECT_EQ(read_status(with("<report", "<!-- a comment -->\n\t<report")), 0);
    EXPECT_EQ(read_status(with("<fiid", "<!-- a comment --><fiid")), 0);
    EXPECT_EQ(read_status(with("remarks=\"0\"/>", "remarks=\"0\"></report>")), 0);
}

TEST(Fiid, what_is_not_by_the_schema_is_refused) {
    const std::pair<const char *, const char *> rows[] = {
        {"urn:qzfi:fiid:1", "urn:other"},
        {"version=\"1\" set", "version=\"2\" set"},
        {"set=\"20260101T000000Z-00000000\"", "set=\"../..\""},
        {"id=\"20261121T041500Z-8f3a2c1d\"", "id=\"..\""},
        {"id=\"20261121T041500Z-8f3a2c1d\"", ""},
        {"label=\"a label\"", "label=\"a label\" other=\"\""},
        {"method=\"copy\"", "method=\"co py\""},
        {"provider=\"copy\"", "provider=\"\""},
        {"per-file", "good"},
        {"2023-11-14T22", "2023-02-30T22"},
        {"2023-11-14T22", "2023-11-14T24"},
        {".123456789Z", ".123Z"},
        {"durationNs=\"5\"", "durationNs=\"-5\""},
        {"durationNs=\"5\"", "durationNs=\"05\""},
        {"durationNs=\"5\"", "durationNs=\"18446744073709551616\""},
        {"store=\"/", "store=\""},
        {"digests=\"false\"", "digests=\"maybe\""},
        {"digests=\"false\"", "digests=\"1\""},
        {"digests=\"false\"", "digests=\"false\" nested=\"1\""},
        {"<report entries", "<other entries"},
        {"entries=\"2\"", "entries=\"two\""},
        {"path=\"/home\"", "path=\"home\""},
        {"path=\"/home\"", "path=\"/home/../etc\""},
        {"path=\"/home\"", "path=\"/home/\""},
        {"path=\"/home\"", "path=\"/home//a\""},
        {"path=\"/home\"", "path=\"/./a\""},
        {"subpath=\"\"", "subpath=\"../a\""},
        {"subpath=\"\"", "subpath=\"/a\""},
        {"subpath=\"\"", "subpath=\"a/.\""},
        {"mountPoint=\"/\"", "mountPoint=\"\""},
        {"<object", "text<object"},
        {"<object", "<![CDATA[x]]><object"},
        {"<object", "<report entries=\"1\" bytes=\"1\" remarks=\"1\"/><object"},
        {"remarks=\"0\"/>", "remarks=\"0\"><a/></report>"},
        {"</fiid>", ""},
        {"</fiid>", "</fiid><fiid/>"},
        {"</fiid>", "</fiid>&amp;"},
    };
    for (const auto &[from, to] : rows) {
        EXPECT_EQ(read_status(with(from, to)), QFI_FI_BAD_FIID) << to;
        EXPECT_FALSE(fits_schema(with(from, to))) << to;
    }
    // A schema cannot say all of it.
    const std::pair<const char *, const char *> more[] = {
        {"2023-11-14T22", "9999-11-14T22"},    {"index=\"0\"", "index=\"1\""},
        {"path=\"/home\"", "path=\"/\\x00\""}, {"path=\"/home\"", "path=\"/\\x41\""},
        {"path=\"/home\"", "path=\"/\\q\""},   {"<object", "<?instruction?><object"},
    };
    for (const auto &[from, to] : more) {
        EXPECT_EQ(read_status(with(from, to)), QFI_FI_BAD_FIID) << to;
        EXPECT_TRUE(fits_schema(with(from, to))) << to;
    }
    EXPECT_EQ(read_status(""), QFI_FI_BAD_FIID);
    EXPECT_EQ(read_status("<fiid xmlns=\"urn:qzfi:fiid:1\" version=\"1\" set=\"20260101T000000Z-00000000\"/>"),
              QFI_FI_BAD_FIID);
    Fiid twice = example();
    twice.images.push_back(twice.images[0]);
    EXPECT_EQ(read_status(write_fiid(twice, op)), QFI_FI_BAD_FIID);
}

TEST(Fiid, a_refusal_names_line_and_cause) {
    read_status(with("per-file", "good"));
    EXPECT_EQ(last_error(),
              "1033 MSG_QFI_E2016: %s: not a valid id document: %s\n|qzfi_test|line 3: \"consistency\" is not valid");
}

TEST(Fiid, entities_and_what_lies_elsewhere_are_never_read) {
    const Folder folder;
    std::ofstream(folder.path() + "/secret") << "secret";
    const std::string outside = "<!DOCTYPE fiid [<!ENTITY e SYSTEM \"file://" + folder.path() + "/secret\">]>\n<fiid";
    EXPECT_EQ(read_status(with("<fiid", outside)), QFI_FI_BAD_FIID);
    std::string laughs = "<!DOCTYPE fiid [<!ENTITY e0 \"ha\">";
    for (int level = 1; level < 10; ++level) {
        laughs += "<!ENTITY e" + std::to_string(level) + " \"";
        for (int time = 0; time < 10; ++time)
            laughs += "&e" + std::to_string(level - 1) + ";";
        laughs += "\">";
    }
    EXPECT_EQ(read_status(laughs + "]><fiid>&e9;</fiid>"), QFI_FI_BAD_FIID);
    EXPECT_EQ(read_status(with("label=\"a label\"", "label=\"&other;\"")), QFI_FI_BAD_FIID);
    const std::string bytes("\0<\0f", 4);
    EXPECT_EQ(read_status(bytes), QFI_FI_BAD_FIID);
}

TEST(Fiid, size_and_depth_are_bounded) {
    EXPECT_EQ(read_status(std::string(16 * 1024 * 1024 + 1, ' ')), QFI_FI_BAD_FIID);
    EXPECT_EQ(last_error(), "1033 MSG_QFI_E2016: %s: not a valid id document: %s\n|qzfi_test|it is longer than 16 MiB");
    std::string deep;
    for (int depth = 0; depth < 100'000; ++depth)
        deep += "<a>";
    EXPECT_EQ(read_status(deep), QFI_FI_BAD_FIID);
}

TEST(Fiid, times_of_the_whole_range_survive) {
    for (const int64_t time : {INT64_MIN, INT64_MIN + 1, int64_t{-1'000'000'000}, int64_t{-1}, int64_t{0}, int64_t{1},
                               int64_t{1'709'164'800'000'000'000}, INT64_MAX}) {
        int64_t found = 7;
        EXPECT_TRUE(parse_fiid_time(fiid_time(time), found)) << fiid_time(time);
        EXPECT_EQ(found, time);
    }
    EXPECT_EQ(fiid_time(-1), "1969-12-31T23:59:59.999999999Z");
    EXPECT_EQ(fiid_time(INT64_MIN), "1677-09-21T00:12:43.145224192Z");
}

TEST(Fiid, a_given_document_is_one_block) {
    qfi_fiid *const fiid = give_fiid("<a/>");
    EXPECT_STREQ(fiid->document, "<a/>");
    EXPECT_EQ(fiid->length, 4u);
    free(fiid);
}
