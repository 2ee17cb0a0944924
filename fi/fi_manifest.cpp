#include "fi/fi_manifest.h"

#include <charconv>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>

#include "fi/fi_manifest_sort.h"

namespace qzfi::fi {

namespace {

constexpr std::string_view first_line = "qzfi-manifest 1";
constexpr std::string_view last_word = "end ";
constexpr std::string_view type_letters = "?fdlbcps"; // by qfi_entry_type
constexpr std::size_t buffer_size = 64 * 1024;
constexpr std::size_t line_limit = 64 * 1024 * 1024; // of what is read: a path of 65,000 folders is shorter
constexpr std::size_t chunk_size = 12 * 1024 * 1024;
constexpr std::size_t digest_size = 16;

const char hex_digits[] = "0123456789abcdef";

void append_hex(std::string &out, unsigned char byte) {
    out += hex_digits[byte >> 4];
    out += hex_digits[byte & 15];
}

void append_escaped(std::string &out, std::string_view text) {
    for (const char letter : text) {
        if (letter >= '!' && letter <= '~' && letter != '\\') {
            out += letter;
            continue;
        }
        out += "\\x";
        append_hex(out, static_cast<unsigned char>(letter));
    }
}

int hex_value(char letter) {
    if (letter >= '0' && letter <= '9')
        return letter - '0';
    return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

bool read_hex(std::string_view text, char &byte) {
    if (text.size() < 2 || hex_value(text[0]) < 0 || hex_value(text[1]) < 0)
        return false;
    byte = static_cast<char>(hex_value(text[0]) * 16 + hex_value(text[1]));
    return true;
}

// One text has one escaped form only: what needs no escape must not have one.
bool unescape(std::string_view text, std::string &plain) {
    plain.clear();
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\\') {
            if (text[at] < '!' || text[at] > '~')
                return false;
            plain += text[at];
            continue;
        }
        char byte = 0;
        if (text.size() - at < 4 || text[at + 1] != 'x' || !read_hex(text.substr(at + 2), byte) || byte == '\0' ||
            (byte >= '!' && byte <= '~' && byte != '\\'))
            return false;
        plain += byte;
        at += 3;
    }
    return true;
}

class Fields {
public:
    explicit Fields(std::string_view line) : rest_(line) {}
    bool word(std::string_view &out) {
        if (is_done_)
            return false;
        const std::size_t blank = rest_.find(' ');
        out = rest_.substr(0, blank);
        is_done_ = blank == std::string_view::npos;
        rest_.remove_prefix(is_done_ ? rest_.size() : blank + 1);
        return true;
    }
    template <class Number>
    bool number(Number &out, int base = 10) {
        std::string_view text;
        if (!word(text) || text.empty() || (text.size() > 1 && text[0] == '0'))
            return false;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out, base);
        return error == std::errc() && end == text.data() + text.size();
    }
    bool is_done() const { return is_done_; }

private:
    std::string_view rest_;
    bool is_done_ = false;
};

bool read_digest(std::string_view text, std::string &digest) {
    digest.clear();
    if (text == "-")
        return true;
    if (text.size() != digest_size * 2)
        return false;
    for (std::size_t at = 0; at < text.size(); at += 2) {
        char byte = 0;
        if (!read_hex(text.substr(at), byte))
            return false;
        digest += byte;
    }
    return true;
}

bool is_device(uint32_t type) {
    return type == QFI_ENTRY_BLOCK || type == QFI_ENTRY_CHARACTER;
}

template <class Number>
void append_number(std::string &out, Number number, int base = 10) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, number, base).ptr;
    out.append(digits, end);
    out += ' ';
}

// Where the path stands in a line: after seven blanks.
std::size_t path_place(std::string_view line) {
    std::size_t at = 0;
    for (int blanks = 0; blanks < 7; ++blanks)
        at = line.find(' ', at) + 1;
    return at;
}

} // namespace

bool manifest_line(const qfi_entry &entry, std::string &line) {
    if (entry.type == 0 || entry.type >= type_letters.size() || !stays_below(entry.path) || entry.mode > 07777)
        return false;
    line.clear();
    line += type_letters[entry.type];
    line += ' ';
    append_number(line, entry.mode, 8);
    append_number(line, entry.uid);
    append_number(line, entry.gid);
    append_number(line, entry.size);
    append_number(line, entry.mtime_ns);
    for (std::size_t at = 0; entry.digest != nullptr && at < digest_size; ++at)
        append_hex(line, entry.digest[at]);
    line += entry.digest != nullptr ? " " : "- ";
    append_escaped(line, entry.path);
    if (entry.type == QFI_ENTRY_SYMLINK) {
        line += ' ';
        append_escaped(line, entry.target != nullptr ? entry.target : "");
    }
    if (is_device(entry.type)) {
        line += ' ';
        append_number(line, entry.device);
        line.pop_back();
    }
    return line.size() < line_limit;
}

bool parse_manifest_line(std::string_view line, ManifestEntry &entry) {
    Fields fields(line);
    std::string_view type, digest, path, target;
    if (!fields.word(type) || type.size() != 1 || type == "?" || type_letters.find(type) == std::string_view::npos)
        return false;
    entry.type = static_cast<uint32_t>(type_letters.find(type));
    if (!fields.number(entry.mode, 8) || entry.mode > 07777 || !fields.number(entry.uid) || !fields.number(entry.gid) ||
        !fields.number(entry.size) || !fields.number(entry.mtime_ns))
        return false;
    if (!fields.word(digest) || !read_digest(digest, entry.digest))
        return false;
    if (!fields.word(path) || !unescape(path, entry.path) || !stays_below(entry.path))
        return false;
    entry.target.clear();
    entry.device = 0;
    if (entry.type == QFI_ENTRY_SYMLINK && (!fields.word(target) || !unescape(target, entry.target)))
        return false;
    if (is_device(entry.type) && !fields.number(entry.device))
        return false;
    return fields.is_done();
}

struct ManifestWriter::State {
    std::mutex mutex;
    Descriptor file;
    std::string path;
    const char *operation = "";
    std::string line, buffer;
    uint64_t count = 0;
    int32_t status = 0;
    int error = 0;

    int32_t note(int32_t failed, int cause) noexcept {
        status = failed;
        error = cause;
        return status;
    }
    int32_t flush() noexcept {
        for (std::size_t done = 0; done < buffer.size();) {
            const ssize_t written = write(file.get(), buffer.data() + done, buffer.size() - done);
            if (written < 0 && errno == EINTR)
                continue;
            if (written <= 0) {
                const int cause = written < 0 ? errno : EIO;
                return note(status_of(cause, QFI_FI_WRITE), cause);
            }
            done += static_cast<std::size_t>(written);
        }
        buffer.clear();
        return 0;
    }
    int32_t append(std::string_view text) {
        buffer += text;
        buffer += '\n';
        return buffer.size() < buffer_size ? 0 : flush();
    }
};

ManifestWriter::ManifestWriter(int directory, const char *name, const char *operation, std::string object)
    : state_(std::make_unique<State>()) {
    state_->path = std::move(object) + ": " + name;
    state_->operation = operation;
    state_->file.reset(openat(directory, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!state_->file)
        fail_call(operation, "open", state_->path, errno, false);
    state_->append(first_line);
}

ManifestWriter::~ManifestWriter() = default;

int32_t ManifestWriter::add(const qfi_entry &entry) noexcept {
    const std::lock_guard lock(state_->mutex);
    if (state_->status != 0)
        return state_->status;
    try {
        if (!manifest_line(entry, state_->line))
            return state_->note(QFI_STATUS_INVALID_ARGUMENT, EINVAL);
        ++state_->count;
        return state_->append(state_->line);
    } catch (const std::bad_alloc &) {
        return state_->note(QFI_STATUS_NO_MEMORY, ENOMEM);
    }
}

void ManifestWriter::finish() {
    State &state = *state_;
    const std::lock_guard lock(state.mutex);
    if (state.status == 0)
        state.append(std::string(last_word) + std::to_string(state.count));
    if (state.status != 0 || state.flush() != 0)
        fail_call(state.operation, "write", state.path, state.error, false);
    if (fsync(state.file.get()) != 0)
        fail_call(state.operation, "fsync", state.path, errno, false);
    // Some file systems tell of a failed write only now.
    if (close(state.file.release()) != 0 && errno != EINTR)
        fail_call(state.operation, "close", state.path, errno, false);
}

struct ManifestReader::State {
    std::string object, name, path;
    const char *operation;
    LineSorter lines;
    std::string line, previous;
    bool has_previous = false;

    State(const char *operation_, std::string object_, const char *name_)
        : object(std::move(object_)), name(name_), path(object + ": " + name), operation(operation_),
          lines(operation_, chunk_size) {}

    [[noreturn]] void fail_damaged(const std::string &cause) const {
        fail(message::damaged, QFI_FI_DAMAGED, operation, {object, name, cause});
    }
    [[noreturn]] void fail_line(uint64_t number, const char *cause) const {
        fail_damaged("line " + std::to_string(number) + ": " + cause);
    }
    void read_all(int file, const std::string &only);
};

namespace {

// Lines of a file, in bounded memory.
class LineReader {
public:
    explicit LineReader(int file) : file_(file) {}
    enum class Got { line, end, unended, too_long, failed };
    Got next(std::string &line) {
        line.clear();
        for (;;) {
            const std::string_view rest(buffer_ + used_, size_ - used_);
            const std::size_t end = rest.find('\n');
            line += rest.substr(0, end);
            if (line.size() >= line_limit)
                return Got::too_long;
            if (end != std::string_view::npos) {
                used_ += end + 1;
                return Got::line;
            }
            const ssize_t count = read(file_, buffer_, sizeof buffer_);
            if (count < 0 && errno != EINTR)
                return Got::failed;
            used_ = 0;
            size_ = count > 0 ? static_cast<std::size_t>(count) : 0;
            if (count == 0)
                return line.empty() ? Got::end : Got::unended;
        }
    }

private:
    int file_;
    char buffer_[buffer_size];
    std::size_t used_ = 0, size_ = 0;
};

} // namespace

void ManifestReader::State::read_all(int file, const std::string &only) {
    LineReader reader(file);
    ManifestEntry entry;
    uint64_t number = 0;
    bool is_ended = false;
    for (;;) {
        ++number;
        switch (reader.next(line)) {
        case LineReader::Got::failed:
            fail_call(operation, "read", path, errno, true);
        case LineReader::Got::unended:
            fail_line(number, "it breaks off");
        case LineReader::Got::too_long:
            fail_line(number, "it is too long");
        case LineReader::Got::end:
            if (!is_ended)
                fail_line(number, "the end is missing");
            return;
        case LineReader::Got::line:
            break;
        }
        if (number == 1 && line != first_line)
            fail_line(number, "it is no manifest of a version that is known");
        if (number == 1)
            continue;
        if (is_ended)
            fail_line(number, "it stands after the end");
        is_ended = line.compare(0, last_word.size(), last_word) == 0;
        if (is_ended && line.substr(last_word.size()) != std::to_string(number - 2))
            fail_line(number, "lines are missing");
        if (!is_ended && !parse_manifest_line(line, entry))
            fail_line(number, "it is no entry");
        if (!is_ended && lies_at_or_below(entry.path, only))
            lines.add(line, path_place(line));
    }
}

ManifestReader::ManifestReader(int directory, const char *name, const char *operation, std::string object,
                               const std::string &only)
    : state_(std::make_unique<State>(operation, std::move(object), name)) {
    const Descriptor file(openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file && errno == ENOENT)
        state_->fail_damaged(error_text(ENOENT));
    if (!file)
        fail_call(operation, "open", state_->path, errno, true);
    state_->read_all(file.get(), only);
    state_->lines.sort();
}

ManifestReader::~ManifestReader() = default;
ManifestReader::ManifestReader(ManifestReader &&) noexcept = default;

bool ManifestReader::next(ManifestEntry &entry) {
    if (!state_->lines.next(state_->line))
        return false;
    if (!parse_manifest_line(state_->line, entry))
        state_->fail_damaged("a sorted line is none");
    if (state_->has_previous && state_->previous == entry.path)
        state_->fail_damaged("an entry stands there twice: " + entry.path);
    state_->previous = entry.path;
    state_->has_previous = true;
    return true;
}

uint32_t change_between(const ManifestEntry &from, const ManifestEntry &to) noexcept {
    if (from.type != to.type)
        return QFI_CHANGE_TYPE;
    const bool have_digests = !from.digest.empty() && !to.digest.empty();
    const bool differs_in_time = from.mtime_ns != to.mtime_ns && from.type != QFI_ENTRY_DIRECTORY;
    if (from.size != to.size || differs_in_time || from.target != to.target || from.device != to.device ||
        (have_digests && from.digest != to.digest))
        return QFI_CHANGE_CONTENT;
    const bool is_same = from.mode == to.mode && from.uid == to.uid && from.gid == to.gid;
    return is_same ? QFI_CHANGE_NONE : QFI_CHANGE_ATTRIBUTE;
}

void compare_manifests(ManifestReader &from, ManifestReader &to,
                       const std::function<void(uint32_t, const ManifestEntry *, const ManifestEntry *)> &changed) {
    ManifestEntry old_entry, new_entry;
    bool has_old = from.next(old_entry), has_new = to.next(new_entry);
    while (has_old || has_new) {
        const int order = !has_old ? 1 : !has_new ? -1 : old_entry.path.compare(new_entry.path);
        if (order < 0)
            changed(QFI_CHANGE_REMOVED, &old_entry, nullptr);
        if (order > 0)
            changed(QFI_CHANGE_ADDED, nullptr, &new_entry);
        const uint32_t change = order == 0 ? change_between(old_entry, new_entry) : uint32_t{QFI_CHANGE_NONE};
        if (change != QFI_CHANGE_NONE)
            changed(change, &old_entry, &new_entry);
        if (order <= 0)
            has_old = from.next(old_entry);
        if (order >= 0)
            has_new = to.next(new_entry);
    }
}

} // namespace qzfi::fi
