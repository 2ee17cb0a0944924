// The text form of messages, byte for byte, and their formatting.
#include <cstdint>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>
#include <unicode/measunit.h>
#include <unicode/measure.h>

#include "msgcat/qzfiicucatalog.h"

namespace {

using namespace qzfi_pdk_4_4;
using icu::Formattable;

Formattable text_argument(const char *utf8) {
    return Formattable(icu::UnicodeString::fromUTF8(utf8));
}

std::string serialized(const std::string &id, int32_t severity, const std::vector<Formattable> &arguments) {
    return CFiIcuMessage(id, severity, arguments.data(), static_cast<int32_t>(arguments.size())).serialize();
}

void read(CFiIcuMessage &message, const std::string &text) {
    const qfi_msg_info record{text.c_str()};
    message.deserialize(&record);
}

/// Reads a text in a new message and writes it again, which shows the arguments that were read.
std::string rewritten(const std::string &text) {
    CFiIcuMessage message;
    read(message, text);
    return message.serialize();
}

std::string formatted(CFiIcuMessage &message, const char *pattern) {
    const ACE_String_Base<char> text = message.formatMessage(ACE_String_Base<char>{pattern});
    return {text.c_str(), text.length()};
}

const std::string head = "<SERIALIZED_MESSAGE MSGID=ID SEVERITY=2>\n";
const std::string tail = "</SERIALIZED_MESSAGE>\n";

TEST(Message, is_made_empty_with_severity_4) {
    CFiIcuMessage message;
    EXPECT_EQ(message.getMessageId(), "");
    EXPECT_EQ(message.getSeverity(), 4);
    EXPECT_EQ(message.getLineNumber(), 0);
    EXPECT_EQ(message.getFileName(), "");
    EXPECT_EQ(message.serialize(), "");
}

TEST(Serialize, writes_a_header_a_line_for_each_argument_and_a_trailer) {
    EXPECT_EQ(serialized("ID", 2, {text_argument("abc"), Formattable(int32_t{7}), Formattable(2.5)}),
              "<SERIALIZED_MESSAGE MSGID=ID SEVERITY=2>\n"
              "\t<ARGVALUE INDEX=0 TYPE=3>abc</ARGVALUE>\n"
              "\t<ARGVALUE INDEX=1 TYPE=2>7</ARGVALUE>\n"
              "\t<ARGVALUE INDEX=2 TYPE=1>2.5</ARGVALUE>\n"
              "</SERIALIZED_MESSAGE>\n");
}

TEST(Serialize, writes_nothing_for_a_message_without_arguments) {
    EXPECT_EQ(serialized("ID", 2, {}), "");
    EXPECT_EQ(CFiIcuMessage("ID", 2, nullptr, 3).serialize(), "");
    const Formattable unused[] = {Formattable(int32_t{1})};
    EXPECT_EQ(CFiIcuMessage("ID", 2, unused, -1).serialize(), "");
}

struct TypeRow {
    const char *name;
    Formattable argument;
    const char *written;
    const char *read_back;
};

class Types : public testing::TestWithParam<TypeRow> {};

Formattable array_argument() {
    const Formattable elements[] = {Formattable(int32_t{1})};
    return Formattable(elements, 1);
}

Formattable object_argument() {
    UErrorCode status = U_ZERO_ERROR;
    return Formattable(new icu::Measure(Formattable(int32_t{1}), icu::MeasureUnit::createMeter(status), status));
}

INSTANTIATE_TEST_SUITE_P(
    Serialize, Types,
    testing::Values(TypeRow{"date", Formattable(1234567890123.0, Formattable::kIsDate),
                            "\t<ARGVALUE INDEX=0 TYPE=0>1.23457e+12</ARGVALUE>\n",
                            "\t<ARGVALUE INDEX=0 TYPE=1>1.23457e+12</ARGVALUE>\n"},
                    TypeRow{"real", Formattable(-0.1234567), "\t<ARGVALUE INDEX=0 TYPE=1>-0.123457</ARGVALUE>\n",
                            "\t<ARGVALUE INDEX=0 TYPE=1>-0.123457</ARGVALUE>\n"},
                    TypeRow{"integer", Formattable(INT32_MIN), "\t<ARGVALUE INDEX=0 TYPE=2>-2147483648</ARGVALUE>\n",
                            "\t<ARGVALUE INDEX=0 TYPE=2>-2147483648</ARGVALUE>\n"},
                    TypeRow{"text", text_argument("\xe3\x81\x82>\n\t&\"\xf0\x9f\x98\x80"),
                            "\t<ARGVALUE INDEX=0 TYPE=3>\xe3\x81\x82>\n\t&\"\xf0\x9f\x98\x80</ARGVALUE>\n",
                            "\t<ARGVALUE INDEX=0 TYPE=3>\xe3\x81\x82>\n\t&\"\xf0\x9f\x98\x80</ARGVALUE>\n"},
                    TypeRow{"array", array_argument(), "\t<ARGVALUE INDEX=0 TYPE=4></ARGVALUE>\n", nullptr},
                    TypeRow{"wide_integer", Formattable(int64_t{1} << 40), "\t<ARGVALUE INDEX=0 TYPE=5></ARGVALUE>\n",
                            nullptr},
                    TypeRow{"object", object_argument(), "\t<ARGVALUE INDEX=0 TYPE=6></ARGVALUE>\n", nullptr}),
    [](const testing::TestParamInfo<TypeRow> &row) { return row.param.name; });

TEST_P(Types, are_written_and_read_back) {
    const std::string text = serialized("ID", 2, {GetParam().argument});
    EXPECT_EQ(text, head + GetParam().written + tail);
    EXPECT_EQ(rewritten(text), GetParam().read_back != nullptr ? head + GetParam().read_back + tail : "");
}

TEST(Serialize, of_dropped_arguments_the_others_stay_in_their_order) {
    const std::string text =
        serialized("ID", 2, {Formattable(int32_t{1}), Formattable(int64_t{1} << 40), text_argument("b")});
    EXPECT_EQ(rewritten(text),
              head + "\t<ARGVALUE INDEX=0 TYPE=2>1</ARGVALUE>\n" + "\t<ARGVALUE INDEX=1 TYPE=3>b</ARGVALUE>\n" + tail);
}

TEST(Serialize, a_header_of_1023_bytes_is_whole_and_a_longer_one_is_cut) {
    const std::string frame = "<SERIALIZED_MESSAGE MSGID= SEVERITY=4>\n";
    const std::string argument = "\t<ARGVALUE INDEX=0 TYPE=2>1</ARGVALUE>\n";
    const std::string longest(1023 - frame.size(), 'i');
    EXPECT_EQ(serialized(longest, 4, {Formattable(int32_t{1})}),
              "<SERIALIZED_MESSAGE MSGID=" + longest + " SEVERITY=4>\n" + argument + tail);
    EXPECT_EQ(serialized(longest + "i", 4, {Formattable(int32_t{1})}),
              "<SERIALIZED_MESSAGE MSGID=" + longest + "i SEVERITY=4>" + argument + tail);
    const std::string too_long(3000, 'i');
    EXPECT_EQ(serialized(too_long, 4, {Formattable(int32_t{1})}),
              ("<SERIALIZED_MESSAGE MSGID=" + too_long).substr(0, 1023) + argument + tail);
}

TEST(Serialize, values_are_as_long_as_they_are) {
    const std::string value(5000, 'v');
    const std::string text = serialized("ID", 2, {text_argument(value.c_str())});
    EXPECT_EQ(text, head + "\t<ARGVALUE INDEX=0 TYPE=3>" + value + "</ARGVALUE>\n" + tail);
    EXPECT_EQ(rewritten(text), text);
}

TEST(Serialize, keeps_the_text_in_the_message_in_place_of_the_one_before) {
    struct Kept : CFiIcuMessage {
        using CFiIcuMessage::serialized_;
    };
    Kept message;
    const std::string text = serialized("ID", 2, {Formattable(int32_t{1})});
    read(message, text);
    EXPECT_EQ(message.serialized_, ""); // made by writing alone
    message.serialize();
    EXPECT_EQ(message.serialized_, text);
    read(message, head);
    message.serialize();
    EXPECT_EQ(message.serialized_, "");
}

TEST(Deserialize, what_was_written_comes_back) {
    const std::string text =
        serialized("MSG_QFI_E0001", -3, {text_argument(""), Formattable(int32_t{-7}), Formattable(1e300)});
    CFiIcuMessage message;
    read(message, text);
    EXPECT_EQ(message.getMessageId(), "MSG_QFI_E0001");
    EXPECT_EQ(message.getSeverity(), -3);
    EXPECT_EQ(message.serialize(), text);
}

/// A message that was filled before.
struct Filled : testing::Test {
    Filled() { read(message, head + "\t<ARGVALUE INDEX=0 TYPE=2>5</ARGVALUE>\n" + tail); }

    void expect(const char *id, int32_t severity, const std::string &text) {
        EXPECT_EQ(message.getMessageId(), id);
        EXPECT_EQ(message.getSeverity(), severity);
        EXPECT_EQ(message.serialize(), text);
    }

    CFiIcuMessage message;
};

using Deserializing = Filled;

TEST_F(Deserializing, text_without_a_character_of_the_header_changes_nothing) {
    const std::string before = message.serialize();
    for (const char *text : {"", "abc xyz\n0>", "serialized"}) {
        read(message, text);
        expect("ID", 2, before);
    }
    const qfi_msg_info empty{};
    message.deserialize(&empty);
    message.deserialize(nullptr);
    expect("ID", 2, before);
}

TEST_F(Deserializing, any_one_character_of_the_header_starts_it) {
    for (const char character : std::string{"<SERIALIZED_MESSAGE"}) {
        CFiIcuMessage other{"ID", 9, nullptr, 0};
        read(other, std::string{"xx"} + character + "xx");
        EXPECT_EQ(other.getMessageId(), "") << character;
        EXPECT_EQ(other.getSeverity(), 9) << character;
    }
    read(message, "xxSxx");
    expect("", 2, "");
}

TEST_F(Deserializing, text_before_the_header_is_skipped_when_it_has_none_of_its_characters) {
    read(message, "note: <SERIALIZED_MESSAGE MSGID=NEW SEVERITY=3>");
    expect("NEW", 3, "");
    read(message, "NOTE: <SERIALIZED_MESSAGE MSGID=NEW SEVERITY=1>"); // starts at "E:"
    expect("", 3, "");
}

class WithoutArguments : public Filled, public testing::WithParamInterface<const char *> {};

INSTANTIATE_TEST_SUITE_P(Deserialize, WithoutArguments,
                         testing::Values("", "\n", "\n</SERIALIZED_MESSAGE>\n", "\n</SERIALIZED_MESSAGE>",
                                         "\n</SERIALIZED_MESSAGE", "\nA", "\nE>", "\n<A<R>", "\n<argvalue TYPE=2>1<",
                                         "\n<ARGVALU INDEX=0 TYPE=2>1</ARGVALU>\n</SERIALIZED_MESSAGE>\n"));

TEST_P(WithoutArguments, a_header_gives_id_and_severity_and_no_arguments) {
    read(message, std::string{"<SERIALIZED_MESSAGE MSGID=NEW SEVERITY=3>"} + GetParam());
    EXPECT_EQ(message.getMessageId(), "NEW");
    EXPECT_EQ(message.getSeverity(), 3);
    EXPECT_EQ(message.serialize(), "");
}

TEST_F(Deserializing, a_header_without_end_is_one_without_arguments) {
    for (const char *rest : {"", "\n", " <ARGVALUE INDEX=0 TYPE=2", " <ARGVALUE INDEX=0 TYPE=2>5",
                             " <ARGVALUE INDEX=0 TYPE=2>5</ARGVALUE>\n"}) {
        read(message, std::string{"<SERIALIZED_MESSAGE MSGID=NEW SEVERITY=3"} + rest);
        expect("NEW", 3, "");
    }
}

TEST_F(Deserializing, a_header_that_does_not_scan_gives_the_empty_id_and_keeps_the_severity) {
    const std::string argument = "\t<ARGVALUE INDEX=0 TYPE=2>6</ARGVALUE>\n";
    read(message, "<SERIALIZED_MESSAGE SEVERITY=3>\n" + argument + tail);
    EXPECT_EQ(message.getMessageId(), "");
    EXPECT_EQ(message.getSeverity(), 2);
    EXPECT_EQ(message.serialize(), "<SERIALIZED_MESSAGE MSGID= SEVERITY=2>\n" + argument + tail);
}

TEST_F(Deserializing, a_severity_that_does_not_scan_is_kept) {
    for (const char *severity : {"SEVERITY=x", "SEVERITY=", "SEVERITY=-", "severity=3", ""}) {
        read(message, std::string{"<SERIALIZED_MESSAGE MSGID=NEW "} + severity + ">");
        expect("NEW", 2, "");
    }
}

TEST_F(Deserializing, an_empty_id_reads_the_next_word_as_the_id) {
    read(message, "<SERIALIZED_MESSAGE MSGID= SEVERITY=3>\n");
    expect("SEVERITY=3>", 2, "");
}

TEST_F(Deserializing, an_id_with_a_blank_ends_there_and_keeps_the_severity) {
    read(message, "<SERIALIZED_MESSAGE MSGID=A B SEVERITY=3>\n");
    expect("A", 2, "");
}

TEST_F(Deserializing, blanks_of_the_header_are_any_white_space_or_none) {
    read(message, "<SERIALIZED_MESSAGEMSGID=\n\v\f NEW\t\r\n SEVERITY= \n +3>");
    expect("NEW", 3, "");
}

TEST_F(Deserializing, an_id_of_2047_bytes_is_whole_and_a_longer_one_is_cut) {
    const std::string longest(2047, 'i');
    read(message, "<SERIALIZED_MESSAGE MSGID=" + longest + " SEVERITY=3>");
    expect(longest.c_str(), 3, "");
    read(message, "<SERIALIZED_MESSAGE MSGID=" + longest + "i SEVERITY=5>");
    expect(longest.c_str(), 3, ""); // the severity is not where the scan stands
    read(message, "<SERIALIZED_MESSAGE MSGID=" + std::string(100000, 'i') + " SEVERITY=5>");
    expect(longest.c_str(), 3, "");
}

TEST_F(Deserializing, too_large_a_severity_keeps_its_low_bits) {
    read(message, "<SERIALIZED_MESSAGE MSGID=NEW SEVERITY=4294967301>");
    expect("NEW", 5, "");
    read(message, "<SERIALIZED_MESSAGE MSGID=NEW SEVERITY=99999999999999999999>");
    expect("NEW", -1, "");
}

TEST(Deserialize, a_text_argument_ends_at_its_first_angle_bracket) {
    EXPECT_EQ(rewritten(serialized("ID", 2, {text_argument("a<b"), text_argument("c")})),
              head + "\t<ARGVALUE INDEX=0 TYPE=3>a</ARGVALUE>\n\t<ARGVALUE INDEX=1 TYPE=3>c</ARGVALUE>\n" + tail);
    EXPECT_EQ(rewritten(serialized("ID", 2, {text_argument("a<ARGVALUE INDEX=0 TYPE=2>9<b")})),
              head + "\t<ARGVALUE INDEX=0 TYPE=3>a</ARGVALUE>\n\t<ARGVALUE INDEX=1 TYPE=2>9</ARGVALUE>\n" + tail);
}

TEST(Deserialize, arguments_keep_the_order_of_the_text_whatever_their_index) {
    EXPECT_EQ(rewritten(head + "<ARGVALUE INDEX=5 TYPE=3>a</ARGVALUE><ARGVALUE INDEX=-1 TYPE=3>b</ARGVALUE>"),
              head + "\t<ARGVALUE INDEX=0 TYPE=3>a</ARGVALUE>\n\t<ARGVALUE INDEX=1 TYPE=3>b</ARGVALUE>\n" + tail);
}

TEST(Deserialize, other_types_add_nothing) {
    for (const char *type : {"4", "5", "6", "7", "-1", "100"})
        EXPECT_EQ(rewritten(head + "\t<ARGVALUE INDEX=0 TYPE=" + type + ">1</ARGVALUE>\n" + tail), "") << type;
}

TEST(Deserialize, a_tag_that_does_not_scan_keeps_the_type_of_the_one_before) {
    EXPECT_EQ(rewritten(head + "\t<ARGVALUE INDEX=x TYPE=2>1</ARGVALUE>\n" + tail), "");
    EXPECT_EQ(rewritten(head + "\t<ARGVALUE INDEX=0 TYPE=2>1</ARGVALUE>\n" +
                        "\t<ARGVALUE INDEX=1 TYPE=x>2</ARGVALUE>\n\t<ARGVALUE>3</ARGVALUE>\n" + tail),
              head + "\t<ARGVALUE INDEX=0 TYPE=2>1</ARGVALUE>\n\t<ARGVALUE INDEX=1 TYPE=2>2</ARGVALUE>\n" +
                  "\t<ARGVALUE INDEX=2 TYPE=2>3</ARGVALUE>\n" + tail);
}

TEST(Deserialize, the_first_tag_is_sought_by_any_of_its_characters_and_the_others_by_the_word) {
    // "E" is taken for the first tag, whose value ends at the real one's "<".
    EXPECT_EQ(rewritten(head + "E><ARGVALUE INDEX=0 TYPE=2>1</ARGVALUE>"),
              head + "\t<ARGVALUE INDEX=0 TYPE=2>1</ARGVALUE>\n" + tail);
    // Its end is the real one's, whose content goes with it.
    EXPECT_EQ(rewritten(head + "E<ARGVALUE INDEX=0 TYPE=2>1</ARGVALUE>"), "");
    // Between later tags such characters are skipped.
    EXPECT_EQ(rewritten(head + "<ARGVALUE INDEX=0 TYPE=2>1</A>E>G<<ARGVALUE INDEX=0 TYPE=2>2<"),
              head + "\t<ARGVALUE INDEX=0 TYPE=2>1</ARGVALUE>\n\t<ARGVALUE INDEX=1 TYPE=2>2</ARGVALUE>\n" + tail);
}

TEST(Deserialize, numbers_are_read_as_far_as_they_are_numbers) {
    EXPECT_EQ(rewritten(head + "<ARGVALUE INDEX=0 TYPE=2>12x</A><ARGVALUE INDEX=0 TYPE=2></A>" +
                        "<ARGVALUE INDEX=0 TYPE=1>1.5y</A><ARGVALUE INDEX=0 TYPE=0></A>"),
              head + "\t<ARGVALUE INDEX=0 TYPE=2>12</ARGVALUE>\n\t<ARGVALUE INDEX=1 TYPE=2>0</ARGVALUE>\n" +
                  "\t<ARGVALUE INDEX=2 TYPE=1>1.5</ARGVALUE>\n\t<ARGVALUE INDEX=3 TYPE=1>0</ARGVALUE>\n" + tail);
}

TEST_F(Deserializing, a_substring_past_the_end_throws_with_the_old_arguments_kept) {
    const std::string arguments = "\t<ARGVALUE INDEX=0 TYPE=2>5</ARGVALUE>\n";
    const char *const cut[] = {
        "\t<ARGVALUE INDEX=0 TYPE=3",     // the tag has no end
        "\t<ARGVALUE",                    //
        "\t<ARGVALUE INDEX=0 TYPE=3>",    // the value has no end
        "\t<ARGVALUE INDEX=0 TYPE=3>abc", //
        "\t<ARGVALUE INDEX=0 TYPE=5>",    // nor has one that would be dropped
        "\t<ARGVALUE INDEX=0 TYPE=3>a</A>\n\t<ARGVALUE INDEX=0 TYPE=3>b",
        "\t<ARGVALUE INDEX=0 TYPE=3>a</A>\n\t<ARGVALUE INDEX=0 TYPE=3",
        "E<ARGVALUE INDEX=0 TYPE=3>abc", // the tag starts at "E" and ends with the real one
    };
    for (const char *text : cut) {
        try {
            read(message, std::string{"<SERIALIZED_MESSAGE MSGID=NEW SEVERITY=3>\n"} + text);
            ADD_FAILURE() << text;
        } catch (const std::out_of_range &error) {
            EXPECT_STREQ(error.what(), "basic_string::substr");
        }
        expect("NEW", 3, "<SERIALIZED_MESSAGE MSGID=NEW SEVERITY=3>\n" + arguments + tail);
    }
}

TEST(AllocateMessage, reads_the_record) {
    CFiIcuMessageCatalogFactory factory{"en", "fi"};
    const std::string text = serialized("ID", 2, {Formattable(int32_t{1})});
    qfi_msg_info record{text.c_str()};
    const CFiMessagePtr message = factory.allocateMessage(&record);
    EXPECT_EQ(message->getCount(), 1);
    EXPECT_EQ(message->getMessageId(), "ID");
    EXPECT_EQ(message->getSeverity(), 2);
    EXPECT_EQ(message->serialize(), text);
    EXPECT_EQ(factory.allocateMessage(nullptr)->getSeverity(), 4);
}

TEST(AllocateMessage, lets_the_error_of_a_cut_text_out) {
    CFiIcuMessageCatalogFactory factory{"en", "fi"};
    qfi_msg_info record{"<SERIALIZED_MESSAGE MSGID=ID SEVERITY=2>\n\t<ARGVALUE INDEX=0 TYPE=3>abc"};
    EXPECT_THROW(factory.allocateMessage(&record), std::out_of_range);
}

TEST(FormatMessage, fills_the_arguments_in) {
    const Formattable arguments[] = {text_argument("\xc3\xa9"), Formattable(int32_t{7})};
    CFiIcuMessage message{"ID", 4, arguments, 2};
    EXPECT_EQ(formatted(message, "fi: {1} of {0}\xe3\x81\x82"), "fi: 7 of \xc3\xa9\xe3\x81\x82");
    EXPECT_EQ(formatted(message, "no placeholder"), "no placeholder");
    EXPECT_EQ(formatted(message, ""), "");
}

TEST(FormatMessage, a_missing_argument_leaves_its_placeholder) {
    CFiIcuMessage message;
    EXPECT_EQ(formatted(message, "a {0} b {3}"), "a {0} b {3}");
}

TEST(FormatMessage, a_pattern_that_icu_refuses_comes_back_as_it_is) {
    CFiIcuMessage message;
    EXPECT_EQ(formatted(message, "a {0 b"), "a {0 b");
    EXPECT_EQ(formatted(message, "it's {"), "it's {");
}

TEST(FormatMessage, what_was_formatted_before_an_error_is_the_text) {
    const Formattable arguments[] = {text_argument("x")};
    CFiIcuMessage message{"ID", 4, arguments, 1};
    EXPECT_EQ(formatted(message, "a {0,number} b"), "a ");
}

} // namespace
