// Short memory: std::bad_alloc, null from what returns a heap copy, and nothing kept.
#include "common/qzfistringtool.h"

#include <climits>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unicode/uclean.h>

#include "support/fault.h"

namespace {

using Tool = CCmnStringTool;
using Ace = ACE_String_Base<char>;

// Longer than any string keeps inside itself.
const std::string text = "  " + std::string(100, 'A') + "&<>  ";
const std::wstring wide(100, L'A');
const unsigned char bytes[40] = {};

struct Row {
    const char *name;
    void (*operation)();
};

const Row constructing[] = {
    {"int2str", [] { (void)Tool::int2str(LONG_MIN); }},
    {"uint2str", [] { (void)Tool::uint2str(ULONG_MAX); }},
    {"int2wstr", [] { (void)Tool::int2wstr(INT_MIN); }},
    {"uint2wstr", [] { (void)Tool::uint2wstr(UINT_MAX); }},
    {"tostrlower", [] { (void)Tool::tostrlower(text); }},
    {"tostrlower_wide", [] { (void)Tool::tostrlower(wide); }},
    {"ltrim", [] { (void)Tool::ltrim(text, " "); }},
    {"rtrim", [] { (void)Tool::rtrim(text, " "); }},
    {"trim", [] { (void)Tool::trim(text, " "); }},
    {"binary2str", [] { (void)Tool::binary2str(bytes, sizeof bytes); }},
    {"binary2wstr", [] { (void)Tool::binary2wstr(bytes, sizeof bytes); }},
    {"str2uid", [] { (void)Tool::str2uid(1, text); }},
    {"wstr2uid", [] { (void)Tool::wstr2uid(1, wide); }},
    {"binary2uid", [] { (void)Tool::binary2uid(1, bytes, sizeof bytes); }},
    {"str2wstr", [] { (void)Tool::str2wstr(text); }},
    {"wstr2str", [] { (void)Tool::wstr2str(wide); }},
    {"mbs2wcs", [] { (void)Tool::mbs2wcs(text); }},
    {"wcs2mbs", [] { (void)Tool::wcs2mbs(wide); }},
    {"tstr2wstr",
     [] {
         static const Ace ace(text.data(), text.size());
         (void)Tool::tstr2wstr(ace);
     }},
    {"wstr2tstr", [] { (void)Tool::wstr2tstr(wide); }},
    {"ustr2str",
     [] {
         static const icu::UnicodeString unicode(100, u'A', 100);
         (void)Tool::ustr2str(unicode);
     }},
    {"ustr2tstr",
     [] {
         static const icu::UnicodeString unicode(100, u'A', 100);
         (void)Tool::ustr2tstr(unicode);
     }},
    {"convertToXmlSpecialCharacters", [] { (void)Tool::convertToXmlSpecialCharacters(text); }},
    {"xmlBracket", [] { (void)Tool::xmlBracket(text, true, true); }},
    {"xmlBracketValue", [] { (void)Tool::xmlBracketValue(text, text); }},
};

/// Whether an operation ends with std::bad_alloc.
bool throws(void (*operation)()) {
    try {
        operation();
    } catch (const std::bad_alloc &) {
        return true;
    }
    return false;
}

class StringToolFault : public testing::TestWithParam<Row> {};

void PrintTo(const Row &row, std::ostream *out) {
    *out << row.name;
}

TEST_P(StringToolFault, is_bad_alloc) {
    GetParam().operation(); // what an operation keeps for good is made here
    fault::for_each(fault::Call::construction, [](fault::Trial &trial) {
        trial.arm();
        const bool is_thrown = throws(GetParam().operation);
        trial.disarm();
        EXPECT_EQ(is_thrown, trial.fired());
    });
}

INSTANTIATE_TEST_SUITE_P(, StringToolFault, testing::ValuesIn(constructing), [](const auto &row) {
    std::string name = row.param.name;
    std::erase(name, '_');
    return name;
});

// ICU's own allocations, made those of the program.
void *allocate(const void *, std::size_t size) {
    return std::malloc(size);
}
void *reallocate(const void *, void *memory, std::size_t size) {
    return std::realloc(memory, size);
}
void release(const void *, void *memory) {
    std::free(memory);
}

TEST(StringToolFaults, a_unicode_string_that_gets_no_memory_is_bad_alloc) {
    UErrorCode status = U_ZERO_ERROR;
    u_setMemoryFunctions(nullptr, allocate, reallocate, release, &status);
    ASSERT_EQ(status, U_ZERO_ERROR);
    static const Ace ace(text.data(), text.size());
    for (void (*const operation)() : {+[] { (void)Tool::str2ustr(text); }, +[] { (void)Tool::tstr2ustr(ace); }})
        fault::for_each(fault::Call::allocation, [operation](fault::Trial &trial) {
            trial.arm();
            const bool is_thrown = throws(operation);
            trial.disarm();
            EXPECT_EQ(is_thrown, trial.fired());
        });
}

TEST(StringToolFaults, a_copy_that_gets_no_memory_is_null) {
    const Ace ace(text.data(), text.size());
    fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
        trial.arm();
        char *const copy = Tool::strdup(text);
        wchar_t *const wide_copy = Tool::wstrdup(wide);
        char *const ace_copy = Tool::tstrdup(ace);
        trial.disarm();
        EXPECT_EQ(copy == nullptr, trial.nth() == 1);
        EXPECT_EQ(wide_copy == nullptr, trial.nth() == 2);
        EXPECT_EQ(ace_copy == nullptr, trial.nth() == 3);
        std::free(copy);
        std::free(wide_copy);
        std::free(ace_copy);
    });
}

TEST(StringToolFaults, a_list_of_copies_that_gets_too_little_memory_is_null_and_keeps_nothing) {
    const std::vector<Ace> list = {Ace("one"), Ace("two"), Ace("three")};
    int runs = 0;
    fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
        ++runs;
        trial.arm();
        char **copies = Tool::tstrduplist(list);
        trial.disarm();
        EXPECT_EQ(copies == nullptr, trial.fired());
        Tool::tstrfreelist(copies);
    });
    EXPECT_EQ(runs, 5); // the array, three copies, and untouched
}

TEST(StringToolFaults, nothing_is_constructed_where_nothing_is_returned) {
    const std::vector<std::string> list = {text, text};
    const fault::Armed armed(fault::Call::construction, 1);
    unsigned long index = 0;
    (void)Tool::find(list, "absent", index, true);
    (void)Tool::CompareNoCase(text, text);
    (void)Tool::CompareNoCase(wide, wide);
    (void)Tool::isIpAddress(text);
    (void)Tool::isDigit(text);
    (void)Tool::str2double(text);
    EXPECT_FALSE(fault::Armed::fired());
}

} // namespace
