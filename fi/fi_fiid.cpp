#include "fi/fi_fiid.h"

#include <array>
#include <libxml/xmlreader.h>
#include <libxml/xmlwriter.h>
#include <mutex>
#include <set>

#include "fi/fi_fiid_text.h"

namespace qzfi::fi {

namespace {

constexpr const char *name_space = "urn:qzfi:fiid:1";
constexpr std::size_t document_limit = std::size_t{16} * 1024 * 1024;
constexpr std::size_t text_limit = 4096;                  // bytes of names and such
constexpr std::size_t label_limit = std::size_t{1} << 20; // as written; the parser takes ten times that of an attribute
constexpr std::size_t object_limit = 65536;
constexpr int depth_limit = 2; // an image's parts
constexpr std::array<std::string_view, 4> consistencies{"none", "fuzzy", "per-file", "atomic"};

const xmlChar *xml(const char *text) {
    return reinterpret_cast<const xmlChar *>(text);
}

void begin_xml() {
    static std::once_flag once;
    std::call_once(once, xmlInitParser);
}

// The library's writer fails for want of memory only.
class Writer {
public:
    Writer() : buffer_(xmlBufferCreate()), writer_(buffer_ != nullptr ? xmlNewTextWriterMemory(buffer_, 0) : nullptr) {
        if (writer_ != nullptr)
            return;
        xmlBufferFree(buffer_);
        throw std::bad_alloc();
    }
    ~Writer() {
        xmlFreeTextWriter(writer_);
        xmlBufferFree(buffer_);
    }
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;

    void begin() {
        check(xmlTextWriterSetIndent(writer_, 1));
        check(xmlTextWriterSetIndentString(writer_, xml("  ")));
        check(xmlTextWriterStartDocument(writer_, "1.0", "UTF-8", nullptr));
    }
    void open(const char *element) { check(xmlTextWriterStartElement(writer_, xml(element))); }
    void close() { check(xmlTextWriterEndElement(writer_)); }
    void attribute(const char *name, const std::string &text) {
        check(xmlTextWriterWriteAttribute(writer_, xml(name), xml(fiid_escaped(text).c_str())));
    }
    void attribute(const char *name, uint64_t number) { attribute(name, std::to_string(number)); }
    std::string end() {
        check(xmlTextWriterEndDocument(writer_));
        const xmlChar *const content = xmlBufferContent(buffer_);
        return {reinterpret_cast<const char *>(content), static_cast<std::size_t>(xmlBufferLength(buffer_))};
    }

private:
    static void check(int result) {
        if (result < 0)
            throw std::bad_alloc();
    }
    xmlBufferPtr buffer_;
    xmlTextWriterPtr writer_;
};

void write_object(Writer &writer, std::size_t index, const ImageObject &object) {
    writer.open("object");
    writer.attribute("index", index);
    writer.attribute("path", object.path);
    writer.attribute("subpath", object.subpath);
    writer.attribute("filesystem", object.filesystem);
    writer.attribute("device", object.device);
    writer.attribute("mountPoint", object.mount_point);
    writer.close();
}

void write_image(Writer &writer, const FiidImage &image) {
    const ImageRecord &record = image.record;
    writer.open("image");
    writer.attribute("id", record.id);
    writer.attribute("label", record.label);
    writer.attribute("method", record.fim_id);
    writer.attribute("provider", record.provider_id);
    writer.attribute("consistency",
                     std::string(consistencies[record.consistency < consistencies.size() ? record.consistency : 0]));
    writer.attribute("time", fiid_time(record.time_ns));
    writer.attribute("durationNs", record.duration_ns);
    writer.attribute("host", record.host);
    writer.attribute("store", image.store);
    writer.attribute("digests", record.has_digests ? std::string("true") : std::string("false"));
    if (record.nested)
        writer.attribute("nested", std::string("true"));
    writer.open("report");
    writer.attribute("entries", record.entries);
    writer.attribute("bytes", record.bytes);
    writer.attribute("remarks", record.remarks);
    writer.close();
    for (std::size_t index = 0; index < record.objects.size(); ++index)
        write_object(writer, index, record.objects[index]);
    writer.close();
}

[[noreturn]] void fail_document(const char *operation, const std::string &cause) {
    fail(message::bad_fiid, QFI_FI_BAD_FIID, operation, {cause});
}

bool is_name(std::string_view text) {
    constexpr std::string_view letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
    return !text.empty() && text.size() <= 64 && text.find_first_not_of(letters) == std::string_view::npos;
}

// Walks the elements of a document; anything but elements, blanks and comments is refused.
class Reader {
public:
    Reader(std::string_view document, const char *operation)
        : operation_(operation), reader_(xmlReaderForMemory(document.data(), static_cast<int>(document.size()), nullptr,
                                                            "UTF-8", XML_PARSE_NONET | XML_PARSE_COMPACT)) {
        if (reader_ == nullptr)
            throw std::bad_alloc();
        xmlTextReaderSetStructuredErrorHandler(reader_, note, this);
    }
    ~Reader() { xmlFreeTextReader(reader_); }
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    // The next element at a depth; false when its parent ends.
    bool next(int depth) {
        for (;;) {
            if (!step())
                return false;
            const int type = xmlTextReaderNodeType(reader_);
            if (type == XML_READER_TYPE_END_ELEMENT && xmlTextReaderDepth(reader_) < depth)
                return false;
            if (type == XML_READER_TYPE_ELEMENT)
                return true;
        }
    }
    // To the document's end: whatever follows must be well formed too.
    void finish() {
        while (step())
            if (xmlTextReaderNodeType(reader_) == XML_READER_TYPE_ELEMENT)
                fail_here("an element where none may be");
    }
    bool is(const char *element) {
        const xmlChar *const name = xmlTextReaderConstLocalName(reader_);
        const xmlChar *const space = xmlTextReaderConstNamespaceUri(reader_);
        return xmlStrEqual(name, xml(element)) != 0 && xmlStrEqual(space, xml(name_space)) != 0;
    }
    bool is_empty() { return xmlTextReaderIsEmptyElement(reader_) == 1; }
    void expect(const char *element) {
        if (!is(element))
            fail_here(std::string("this is no \"") + element + "\"");
    }
    // Every attribute must be one of those named, and each of them there.
    void expect_attributes(std::initializer_list<const char *> names, const char *optional = nullptr) {
        std::size_t count = 0;
        while (xmlTextReaderMoveToNextAttribute(reader_) == 1) {
            if (xmlTextReaderIsNamespaceDecl(reader_) == 1)
                continue;
            const xmlChar *const found = xmlTextReaderConstName(reader_);
            if (optional != nullptr && xmlStrEqual(found, xml(optional)) != 0)
                continue;
            bool is_known = false;
            for (const char *const name : names)
                is_known = is_known || xmlStrEqual(found, xml(name)) != 0;
            if (!is_known)
                fail_here("an attribute that is not known");
            ++count;
        }
        xmlTextReaderMoveToElement(reader_);
        if (count != names.size())
            fail_here("an attribute is missing");
    }
    bool has(const char *name) {
        const std::unique_ptr<xmlChar, void (*)(void *)> value(xmlTextReaderGetAttribute(reader_, xml(name)), xmlFree);
        return value != nullptr;
    }
    std::string text(const char *name, std::size_t limit = text_limit) {
        const std::unique_ptr<xmlChar, void (*)(void *)> value(xmlTextReaderGetAttribute(reader_, xml(name)), xmlFree);
        if (!value)
            fail_here(std::string("it has no \"") + name + "\"");
        std::string bytes;
        if (!fiid_unescaped(reinterpret_cast<const char *>(value.get()), bytes) || bytes.size() > limit)
            fail_attribute(name);
        return bytes;
    }
    uint64_t number(const char *name) {
        uint64_t value = 0;
        if (!parse_fiid_number(text(name), value))
            fail_attribute(name);
        return value;
    }
    std::string checked(const char *name, bool (*check)(std::string_view)) {
        std::string value = text(name);
        if (!check(value))
            fail_attribute(name);
        return value;
    }
    [[noreturn]] void fail_attribute(const char *name) { fail_here(std::string("\"") + name + "\" is not valid"); }
    [[noreturn]] void fail_here(const std::string &cause) {
        // The parser is ahead of the element that is looked at; without one the parser's own line is what there is.
        const xmlNode *const node = xmlTextReaderCurrentNode(reader_);
        const long line = node != nullptr ? xmlGetLineNo(node) : xmlTextReaderGetParserLineNumber(reader_);
        fail_document(operation_, "line " + std::to_string(line) + ": " + cause);
    }

private:
    bool step() {
        const int result = xmlTextReaderRead(reader_);
        if (is_out_of_memory_)
            throw std::bad_alloc();
        if (result < 0 || !problem_.empty())
            fail_here(problem_.empty() ? "this is no XML" : problem_);
        if (result == 0)
            return false;
        if (xmlTextReaderDepth(reader_) > depth_limit)
            fail_here("elements are nested too deeply");
        check_type(xmlTextReaderNodeType(reader_));
        return true;
    }
    void check_type(int type) {
        switch (type) {
        case XML_READER_TYPE_ELEMENT:
        case XML_READER_TYPE_END_ELEMENT:
        case XML_READER_TYPE_COMMENT:
        case XML_READER_TYPE_WHITESPACE:
        case XML_READER_TYPE_SIGNIFICANT_WHITESPACE:
            return;
        default:
            fail_here("something that is neither an element nor a comment");
        }
    }
    static void note(void *context, xmlErrorPtr error) {
        auto *const self = static_cast<Reader *>(context);
        self->is_out_of_memory_ = self->is_out_of_memory_ || error->code == XML_ERR_NO_MEMORY;
        try {
            if (self->problem_.empty())
                self->problem_ = error->message != nullptr ? error->message : "this is no XML";
            while (!self->problem_.empty() && self->problem_.back() == '\n')
                self->problem_.pop_back();
        } catch (const std::bad_alloc &) {
            self->is_out_of_memory_ = true;
        }
    }
    const char *operation_;
    xmlTextReaderPtr reader_;
    std::string problem_;
    bool is_out_of_memory_ = false;
};

ImageObject read_object(Reader &reader, std::size_t index) {
    reader.expect("object");
    reader.expect_attributes({"index", "path", "subpath", "filesystem", "device", "mountPoint"});
    if (reader.number("index") != index || index >= object_limit)
        reader.fail_attribute("index");
    ImageObject object;
    object.path = reader.checked("path", is_canonical_path);
    object.subpath = reader.checked("subpath", is_canonical_subpath);
    object.filesystem = reader.text("filesystem");
    object.device = reader.text("device");
    object.mount_point = reader.checked("mountPoint", is_canonical_path);
    return object;
}

uint32_t read_consistency(Reader &reader) {
    const std::string word = reader.text("consistency");
    for (uint32_t value = 0; value < consistencies.size(); ++value)
        if (consistencies[value] == word)
            return value;
    reader.fail_attribute("consistency");
}

bool read_truth(Reader &reader, const char *name) {
    const std::string word = reader.text(name);
    if (word != "true" && word != "false")
        reader.fail_attribute(name);
    return word == "true";
}

bool is_id(std::string_view text) {
    return is_image_id(text);
}

// Of an element without content also the end, where it has one of its own.
void expect_no_content(Reader &reader, int depth) {
    if (!reader.is_empty() && reader.next(depth + 1))
        reader.fail_here("an element where none may be");
}

FiidImage read_image(Reader &reader) {
    reader.expect("image");
    reader.expect_attributes(
        {"id", "label", "method", "provider", "consistency", "time", "durationNs", "host", "store", "digests"},
        "nested");
    FiidImage image;
    ImageRecord &record = image.record;
    record.id = reader.checked("id", is_id);
    record.label = reader.text("label", label_limit);
    record.fim_id = reader.checked("method", is_name);
    record.provider_id = reader.checked("provider", is_name);
    record.consistency = read_consistency(reader);
    if (!parse_fiid_time(reader.text("time"), record.time_ns))
        reader.fail_attribute("time");
    record.duration_ns = reader.number("durationNs");
    record.host = reader.text("host");
    image.store = reader.checked("store", is_canonical_path);
    record.has_digests = read_truth(reader, "digests");
    record.nested = reader.has("nested") && read_truth(reader, "nested");
    if (reader.is_empty() || !reader.next(2))
        reader.fail_here("the image has no report");
    reader.expect("report");
    reader.expect_attributes({"entries", "bytes", "remarks"});
    record.entries = reader.number("entries");
    record.bytes = reader.number("bytes");
    record.remarks = reader.number("remarks");
    expect_no_content(reader, 2);
    while (reader.next(2)) {
        record.objects.push_back(read_object(reader, record.objects.size()));
        expect_no_content(reader, 2);
    }
    if (record.objects.empty())
        reader.fail_here("the image has no object");
    return image;
}

// Neither entities nor anything in another encoding, which could hide them, comes as far as the parser.
void check_bytes(std::string_view document, const char *operation) {
    if (document.size() > document_limit)
        fail_document(operation, "it is longer than 16 MiB");
    if (document.find('\0') != std::string_view::npos)
        fail_document(operation, "it holds a NUL byte");
    for (std::size_t at = document.find("<!"); at != std::string_view::npos; at = document.find("<!", at + 2))
        if (document.substr(at, 4) != "<!--")
            fail_document(operation, "it holds a declaration");
}

[[noreturn]] void fail_limit(const char *operation, const std::string &cause) {
    fail(message::invalid_argument, QFI_STATUS_INVALID_ARGUMENT, operation,
         {"the id document could not be read again: " + cause});
}

void require_text(const char *what, std::string_view text, std::size_t limit, const char *operation) {
    if (text.size() > limit)
        fail_limit(operation, std::string(what) + " is " + std::to_string(text.size()) + " bytes long, and " +
                                  std::to_string(limit) + " are the most");
}

void require_object(const ImageObject &object, const char *operation) {
    require_text("an object's path", object.path, path_limit, operation);
    require_text("an object's place in the image", object.subpath, path_limit, operation);
    require_text("a file system's type", object.filesystem, text_limit, operation);
    require_text("a file system's device", object.device, text_limit, operation);
    require_text("a mount point", object.mount_point, path_limit, operation);
}

void require_image(const FiidImage &image, const char *operation) {
    const ImageRecord &record = image.record;
    require_text("the label", record.label, label_limit, operation);
    require_text("the host's name", record.host, text_limit, operation);
    require_text("the store's path", image.store, path_limit, operation);
    for (const std::string &name : {record.fim_id, record.provider_id})
        if (!is_name(name))
            fail_limit(operation, "\"" + name + "\" is no name of a method or provider");
    if (record.objects.size() > object_limit)
        fail_limit(operation, "an image has " + std::to_string(record.objects.size()) + " objects, and " +
                                  std::to_string(object_limit) + " are the most");
    for (const ImageObject &object : record.objects)
        require_object(object, operation);
}

} // namespace

std::string write_fiid(const Fiid &fiid, const char *operation) {
    for (const FiidImage &image : fiid.images)
        require_image(image, operation);
    begin_xml();
    Writer writer;
    writer.begin();
    writer.open("fiid");
    writer.attribute("xmlns", std::string(name_space));
    writer.attribute("version", std::string("1"));
    writer.attribute("set", fiid.set_id);
    for (const FiidImage &image : fiid.images)
        write_image(writer, image);
    writer.close();
    std::string document = writer.end();
    if (document.size() > document_limit)
        fail_limit(operation, "it is " + std::to_string(document.size()) + " bytes long, and " +
                                  std::to_string(document_limit) + " are the most");
    return document;
}

Fiid read_fiid(std::string_view document, const char *operation) {
    check_bytes(document, operation);
    begin_xml();
    Reader reader(document, operation);
    if (!reader.next(0))
        reader.fail_here("it is empty");
    reader.expect("fiid");
    reader.expect_attributes({"version", "set"});
    if (reader.text("version") != "1")
        reader.fail_here("it has version " + reader.text("version") + ", which is not known");
    Fiid fiid;
    fiid.set_id = reader.checked("set", is_id);
    std::set<std::string> ids;
    while (!reader.is_empty() && reader.next(1)) {
        fiid.images.push_back(read_image(reader));
        fiid.images.back().record.set_id = fiid.set_id;
        if (!ids.insert(fiid.images.back().record.id).second)
            reader.fail_here("an image stands there twice");
    }
    if (fiid.images.empty())
        reader.fail_here("it names no image");
    reader.finish();
    return fiid;
}

qfi_fiid *give_fiid(const std::string &document) {
    return static_cast<qfi_fiid *>(Block::build([&](Block &block) {
        auto *const fiid = block.array<qfi_fiid>(1);
        const char *const text = block.text(document);
        if (block.measuring())
            return;
        fiid->document = const_cast<char *>(text);
        fiid->length = document.size();
    }));
}

} // namespace qzfi::fi
