// The engine of the dumpers: blocks of lines. What a record's block says is a layout; the rest is the same for all.
#pragma once

#include <cstdint>
#include <cstdio>

#include <qzfi/log.h>

namespace qzfi {

/// Where a block goes and what precedes it, as the callers of a dumper say it.
struct Placement {
    uint32_t indent;
    int32_t newline;
    const char *label; // or null
};

/// A brace-delimited block, open while the object lives. The caller holds the stream's lock.
class Block {
public:
    Block(FILE *output, const Placement &place, const char *heading) noexcept;
    ~Block();
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;

    // A line of the block, its conversion chosen by the value's type.
    void line(const char *name, int32_t value) noexcept;
    void line(const char *name, uint32_t value) noexcept;
    void line(const char *name, uint64_t value) noexcept;
    void line(const char *name, const void *value) noexcept;
    void line(const char *name, const char *text) noexcept; ///< null reads "NULL"

    /// The pointers that begin with "0x" twice, as the format has it and the C library adds it again.
    void doubly_prefixed(const char *name, const void *value) noexcept;
    /// A text that need not be terminated, cut at its first null byte.
    void bounded(const char *name, const char *text, int32_t length) noexcept;
    void hex_dump(const char *name, const void *bytes, uint32_t length) noexcept;
    /// A line without indentation that says that a text ends before its length.
    void length_mismatch(const char *text, int32_t length) noexcept;

    /// Places a nested block at the level of the lines.
    Placement at_lines(int32_t newline, const char *label = nullptr) const noexcept;
    /// Places a nested block one level below the lines, on the line in course.
    Placement below_lines(const char *label = nullptr) const noexcept;
    /// Whether the block itself was to begin a line.
    int32_t newline() const noexcept { return newline_; }
    FILE *output() const noexcept { return output_; }

private:
    FILE *output_;
    int32_t newline_;
    uint32_t heading_indent_;
};

/// What the block of a record says.
template <class Record>
struct Layout {
    const char *heading;
    const char *null_name; // the name in the line of a null record
    void (*lines)(Block &block, const Record &record);
};

template <class Record>
void write_block(FILE *output, const Layout<Record> &layout, const Record *record, const Placement &place) noexcept {
    Block block(output, place, layout.heading);
    if (record != nullptr)
        layout.lines(block, *record);
    else
        block.line(layout.null_name, static_cast<const char *>(nullptr));
}

/// Writes a record inside another's block.
template <class Record>
void nest(const Block &outer, const Layout<Record> &layout, const Record *record, const Placement &place) noexcept {
    write_block(outer.output(), layout, record, place);
}

/// The body of a dumper.
/// @return the result of the flush; 0 when there is no log
template <class Record>
int32_t dump(const Layout<Record> &layout, const Record *record, const Placement &place) noexcept {
    FILE *output = get_qzfi_msgout();
    if (output == nullptr)
        return 0;
    flockfile(output); // what one dump writes stays together, nested records included
    write_block(output, layout, record, place);
    const int32_t result = fflush(output);
    funlockfile(output);
    return result;
}

} // namespace qzfi
