// The text form of a message looks like XML, but is written and read with fixed formats and character searches:
// nothing in it is escaped.
#include "msgcat/qzfiicucatalog.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include <unicode/msgfmt.h>

#include "common/qzfistringtool.h"
#include "msgcat/qzfiacetext.h"

namespace qzfi_pdk_4_4 {

namespace {

// The type codes of the text form, which outlive any version of ICU.
static_assert(icu::Formattable::kDate == 0);
static_assert(icu::Formattable::kDouble == 1);
static_assert(icu::Formattable::kLong == 2);
static_assert(icu::Formattable::kString == 3);
static_assert(icu::Formattable::kArray == 4);
static_assert(icu::Formattable::kInt64 == 5);
static_assert(icu::Formattable::kObject == 6);

constexpr const char *header_tag = "<SERIALIZED_MESSAGE";
constexpr const char *argument_tag = "<ARGVALUE";
constexpr std::size_t work_size = 1024;
constexpr std::size_t longest_id = 2047;

/// Reads as a formatted scan does: a blank of a literal stands for any white space or none, and nothing more is read,
/// nor any value changed, after the first mismatch.
class Scan {
public:
    explicit Scan(const char *text) : at_(text) {}

    Scan &literal(std::string_view expected) {
        for (const char character : expected) {
            if (character == ' ')
                skip_blanks();
            else
                matches_ = matches_ && *at_++ == character;
        }
        return *this;
    }

    /// The next word, or as much of it as fits.
    Scan &word(std::string &value) {
        skip_blanks();
        const char *const start = at_;
        while (matches_ && *at_ != '\0' && !is_blank(*at_) && static_cast<std::size_t>(at_ - start) < longest_id)
            ++at_;
        matches_ = matches_ && at_ != start;
        if (matches_)
            value.assign(start, at_);
        return *this;
    }

    /// Too large a number keeps its low bits.
    Scan &integer(int32_t &value) {
        if (!matches_)
            return *this;
        char *end = nullptr;
        const long number = std::strtol(at_, &end, 10);
        matches_ = end != at_;
        if (matches_)
            value = static_cast<int32_t>(number);
        at_ = end;
        return *this;
    }

private:
    static bool is_blank(char character) { return character == ' ' || (character >= '\t' && character <= '\r'); }

    void skip_blanks() {
        while (matches_ && is_blank(*at_))
            ++at_;
    }

    const char *at_;
    bool matches_ = true;
};

/// An argument as it stands in the text.
struct Argument {
    int32_t type;
    std::string value;
};

/// The error of a substring that starts past the end, which callers know the reader by.
std::size_t within(std::size_t position) {
    if (position == std::string::npos)
        throw std::out_of_range("basic_string::substr");
    return position;
}

/// The arguments in the order in which they stand. A tag that does not scan keeps the type of the one before.
std::vector<Argument> read_arguments(const std::string &text, std::size_t header) {
    std::vector<Argument> arguments;
    int32_t index = 0;
    int32_t type = -1;
    const std::size_t header_end = text.find('>', header);
    // What follows may be the trailer alone, which is no cut tag.
    if (text.find(argument_tag, header_end) == std::string::npos)
        return arguments;
    // The first tag is where any one of its characters stands, the others where the whole word does.
    std::size_t tag = text.find_first_of(argument_tag, header_end);
    while (tag != std::string::npos) {
        Scan{text.c_str() + tag}.literal("<ARGVALUE INDEX=").integer(index).literal(" TYPE=").integer(type);
        // Without its end a tag would be read again and again.
        const std::size_t value = within(text.find('>', tag)) + 1;
        const std::size_t end = within(text.find('<', value));
        if (type >= icu::Formattable::kDate && type <= icu::Formattable::kString)
            arguments.push_back({type, text.substr(value, end - value)});
        tag = text.find(argument_tag, end);
    }
    return arguments;
}

void set_value(icu::Formattable &target, const Argument &argument) {
    if (argument.type == icu::Formattable::kLong)
        target.setLong(CCmnStringTool::str2int(argument.value));
    else if (argument.type == icu::Formattable::kString)
        target.setString(CCmnStringTool::str2ustr(argument.value));
    else // The kind of a date is not restored: readers format it as a number.
        target.setDouble(CCmnStringTool::str2double(argument.value));
}

std::string value_text(const icu::Formattable &argument) {
    switch (argument.getType()) {
    case icu::Formattable::kDate:
        return CCmnStringTool::double2str(argument.getDate());
    case icu::Formattable::kDouble:
        return CCmnStringTool::double2str(argument.getDouble());
    case icu::Formattable::kLong:
        return CCmnStringTool::int2str(argument.getLong());
    case icu::Formattable::kString:
        return CCmnStringTool::ustr2str(argument.getString());
    default:
        return {}; // readers drop an array, a 64-bit integer or an object
    }
}

/// Makes `count` arguments by a function of the target and its index. ICU's own copies drop a text for which there is
/// no memory and crash on it later, so each is looked at.
template <class Fill>
void set_arguments(icu::Formattable &array, std::size_t count, Fill fill) {
    std::unique_ptr<icu::Formattable[]> values = std::make_unique<icu::Formattable[]>(count);
    if (!values) // ICU's operator new does not throw
        throw std::bad_alloc{};
    for (std::size_t i = 0; i < count; ++i) {
        fill(values[i], i);
        UErrorCode status = U_ZERO_ERROR;
        if (values[i].getType() == icu::Formattable::kString &&
            (values[i].getString(status).isBogus() || U_FAILURE(status)))
            throw std::bad_alloc{};
    }
    array.adoptArray(values.release(), static_cast<int32_t>(count));
}

} // namespace

CFiIcuMessage::CFiIcuMessage(std::string message_id, int32_t severity, const icu::Formattable *arguments,
                             int32_t count) {
    message_id_ = std::move(message_id);
    severity_ = severity;
    if (arguments != nullptr && count > 0)
        set_arguments(arguments_, static_cast<std::size_t>(count),
                      [&](icu::Formattable &target, std::size_t i) { target = arguments[i]; });
}

std::string CFiIcuMessage::serialize() {
    std::string text;
    int32_t count = 0;
    const icu::Formattable *const arguments = arguments_.getArray(count);
    if (count > 0) {
        char work[work_size]; // readers know that a longer header is cut
        std::snprintf(work, sizeof work, "<SERIALIZED_MESSAGE MSGID=%s SEVERITY=%d>\n", message_id_.c_str(), severity_);
        text += work;
        for (int32_t i = 0; i < count; ++i) {
            std::snprintf(work, sizeof work, "\t<ARGVALUE INDEX=%d TYPE=%d>", i,
                          static_cast<int>(arguments[i].getType()));
            text.append(work).append(value_text(arguments[i])).append("</ARGVALUE>\n");
        }
        text += "</SERIALIZED_MESSAGE>\n";
    }
    serialized_ = text;
    return text;
}

void CFiIcuMessage::deserialize(const qfi_msg_info *record) {
    const std::string text = record != nullptr && record->serialized != nullptr ? record->serialized : "";
    // Any one of the header's characters starts it: a text may stand in front that has none of them.
    const std::size_t header = text.find_first_of(header_tag);
    if (header == std::string::npos)
        return;
    std::string id;
    Scan{text.c_str() + header}.literal("<SERIALIZED_MESSAGE MSGID=").word(id).literal(" SEVERITY=").integer(severity_);
    message_id_ = std::move(id);
    const std::vector<Argument> arguments = read_arguments(text, header);
    set_arguments(arguments_, arguments.size(),
                  [&](icu::Formattable &target, std::size_t i) { set_value(target, arguments[i]); });
}

ACE_String_Base<char> CFiIcuMessage::formatMessage(ACE_String_Base<char> pattern) {
    const std::string_view unformatted = qzfi::bytes_of(pattern);
    int32_t count = 0;
    const icu::Formattable *const arguments = arguments_.getArray(count);
    UErrorCode status = U_ZERO_ERROR;
    icu::UnicodeString formatted;
    icu::MessageFormat::format(CCmnStringTool::tstr2ustr(pattern), arguments, count, formatted, status);
    // A result that lost its memory is no result, even when ICU reports none.
    if (!formatted.isBogus() && (U_SUCCESS(status) || !formatted.isEmpty()))
        return CCmnStringTool::ustr2tstr(formatted);
    return qzfi::ace_text(unformatted);
}

} // namespace qzfi_pdk_4_4
