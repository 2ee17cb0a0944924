#include "fi/fi_report.h"

#include <algorithm>
#include <charconv>
#include <fcntl.h>
#include <sys/stat.h>

#include "fi/fi_store_folders.h"

namespace qzfi::fi {

namespace {

constexpr std::size_t longest_end = sizeof "end 18446744073709551615\n";
constexpr std::string_view first_line = "qzfi-report 1\n";

void append_text(std::string &line, std::string_view text) {
    constexpr char digits[] = "0123456789abcdef";
    line += ' ';
    if (text.empty())
        line += '-';
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        if (byte > ' ' && byte < 0x7f && letter != '\\' && text != "-")
            line += letter;
        else
            line.append({'\\', 'x', digits[byte >> 4], digits[byte & 15]});
    }
}

std::string content_of(const std::vector<JobHost::Remark> &remarks, uint64_t count) {
    std::string content(first_line);
    for (const JobHost::Remark &remark : remarks) {
        std::string line = std::to_string(remark.kind) + " " + std::to_string(remark.error);
        for (const std::string &text : {remark.object, remark.path, remark.detail})
            append_text(line, text);
        line += '\n';
        if (content.size() + line.size() + longest_end > report_limit)
            break; // counted all the same
        content += line;
    }
    return content + "end " + std::to_string(count) + "\n";
}

std::string_view cut(std::string_view &rest, char end) {
    const std::size_t length = std::min(rest.find(end), rest.size());
    const std::string_view taken = rest.substr(0, length);
    rest.remove_prefix(std::min(length + 1, rest.size()));
    return taken;
}

template <class Number>
bool read_number(std::string_view text, Number &number, int base = 10) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return error == std::errc() && end == text.data() + text.size();
}

bool read_text(std::string_view escaped, std::string &text) {
    text.clear();
    if (escaped == "-")
        return true;
    for (std::size_t at = 0; at < escaped.size(); ++at) {
        if (escaped[at] != '\\') {
            text += escaped[at];
            continue;
        }
        unsigned char byte = 0;
        if (escaped.size() - at < 4 || escaped[at + 1] != 'x' || !read_number(escaped.substr(at + 2, 2), byte, 16))
            return false;
        text += static_cast<char>(byte);
        at += 3;
    }
    return !escaped.empty();
}

bool read_remark(std::string_view line, JobHost::Remark &remark) {
    return read_number(cut(line, ' '), remark.kind) && read_number(cut(line, ' '), remark.error) &&
           read_text(cut(line, ' '), remark.object) && read_text(cut(line, ' '), remark.path) &&
           read_text(cut(line, ' '), remark.detail) && line.empty();
}

bool parse(std::string_view content, StoredReport &report) {
    if (content.substr(0, first_line.size()) != first_line)
        return false;
    content.remove_prefix(first_line.size());
    while (!content.empty()) {
        std::string_view line = cut(content, '\n');
        if (line.substr(0, 4) == "end ")
            return read_number(line.substr(4), report.count) && content.empty() &&
                   report.count >= report.remarks.size();
        JobHost::Remark remark;
        if (!read_remark(line, remark))
            return false;
        keep_remark(report.remarks, std::move(remark)); // no more of them than are shown, however many somebody wrote
    }
    return false;
}

} // namespace

void StoredReport::add(JobHost::Remark remark) {
    if (has_all_losses())
        keep_remark(remarks, std::move(remark));
    ++count;
}

Descriptor write_report(int directory, std::vector<JobHost::Remark> remarks, uint64_t count, const char *operation,
                        const std::string &image) {
    std::stable_partition(remarks.begin(), remarks.end(), [](const auto &remark) { return decides(remark); });
    const std::string path = image + "/" + report_name;
    return write_file(directory, report_name, path, content_of(remarks, count), operation);
}

StoredReport read_report(int directory, const char *operation, const std::string &image, const std::string &path) {
    const Descriptor file(openat(directory, report_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file && (errno == ENOENT || errno == ELOOP))
        fail(message::damaged, QFI_FI_DAMAGED, operation, {image, report_name, error_text(errno)});
    if (!file)
        fail_call(operation, "open", path + "/" + report_name, errno, true);
    const std::string content = read_file(file.get(), path + "/" + report_name, report_limit, operation);
    if (content.size() > report_limit)
        fail(message::damaged, QFI_FI_DAMAGED, operation, {image, report_name, "it is larger than 64 MiB"});
    StoredReport report;
    if (!parse(content, report))
        fail(message::damaged, QFI_FI_DAMAGED, operation, {image, report_name, "it is no report"});
    return report;
}

std::optional<StoredReport> sound_report(int directory, const char *operation, const std::string &image,
                                         const std::string &path) {
    KeptFailure kept;
    try {
        const Keep keep(kept);
        return read_report(directory, operation, image, path);
    } catch (const Failure &failure) {
        if (failure.status == QFI_FI_DAMAGED)
            return std::nullopt;
        kept.raise_here();
        throw;
    }
}

StoredReport report_so_far(int directory, uint64_t remarks, const char *operation, const std::string &image,
                           const std::string &path) {
    struct stat status {};
    if (remarks == 0 && fstatat(directory, report_name, &status, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT)
        return {};
    if (std::optional<StoredReport> report = sound_report(directory, operation, image, path))
        return std::move(*report);
    StoredReport unknown;
    unknown.count = std::max<uint64_t>(remarks, 1);
    return unknown;
}

} // namespace qzfi::fi
