#include "log/qzfilogmsg2_dump.h"

#include <algorithm>
#include <cinttypes>
#include <iterator>

namespace {

constexpr uint32_t deepest_indent = std::size(spc) - 1;

// Records nested deeper than the table is long share its last indentation: there is none beyond.
const char *indentation(uint32_t indent) noexcept {
    return spc[std::min(indent, deepest_indent)];
}

constexpr uint32_t deeper(uint32_t indent) noexcept {
    return std::min(indent, deepest_indent - 1) + 1; // the greatest index must not wrap round to 0
}

} // namespace

namespace qzfi {

Block::Block(FILE *output, const Placement &place, const char *heading) noexcept
    : output_(output), newline_(place.newline), heading_indent_(place.indent) {
    if (newline_ != 0)
        fputc('\n', output_);
    if (place.label != nullptr) {
        fprintf(output_, "%s [ %s ]\n", indentation(place.indent), place.label);
        heading_indent_ = deeper(place.indent);
    }
    fprintf(output_, "%s %s { \n", indentation(heading_indent_), heading);
}

Block::~Block() {
    fprintf(output_, "%s }\n", indentation(heading_indent_));
}

void Block::line(const char *name, int32_t value) noexcept {
    fprintf(output_, "%s %s = %" PRId32 "\n", indentation(deeper(heading_indent_)), name, value);
}

void Block::line(const char *name, uint32_t value) noexcept {
    fprintf(output_, "%s %s = %" PRIu32 "\n", indentation(deeper(heading_indent_)), name, value);
}

void Block::line(const char *name, uint64_t value) noexcept {
    fprintf(output_, "%s %s = %" PRIu64 "\n", indentation(deeper(heading_indent_)), name, value);
}

void Block::line(const char *name, const void *value) noexcept {
    fprintf(output_, "%s %s = %p\n", indentation(deeper(heading_indent_)), name, value);
}

void Block::line(const char *name, const char *text) noexcept {
    fprintf(output_, "%s %s = %s\n", indentation(deeper(heading_indent_)), name, qzfi_checkNull(text));
}

void Block::doubly_prefixed(const char *name, const void *value) noexcept {
    fprintf(output_, "%s %s = 0x%p\n", indentation(deeper(heading_indent_)), name, value);
}

void Block::bounded(const char *name, const char *text, int32_t length) noexcept {
    fprintf(output_, "%s %s = %.*s\n", indentation(deeper(heading_indent_)), name, length, text);
}

void Block::hex_dump(const char *name, const void *bytes, uint32_t length) noexcept {
    fprintf(output_, "%s %s:\n", indentation(deeper(heading_indent_)), name);
    qzfi_hexdump(bytes, length);
}

void Block::length_mismatch(const char *text, int32_t length) noexcept {
    fprintf(output_, "objid->vid_name[%s] is of length objid->vid_len = %" PRId32 "!!\n", text, length);
}

Placement Block::at_lines(int32_t newline, const char *label) const noexcept {
    return {deeper(heading_indent_), newline, label};
}

Placement Block::below_lines(const char *label) const noexcept {
    return {deeper(deeper(heading_indent_)), 0, label};
}

} // namespace qzfi
