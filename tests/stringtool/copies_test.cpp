#include "common/qzfistringtool.h"

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Tool = CCmnStringTool;
using Ace = ACE_String_Base<char>;
using namespace std::string_literals;

struct Free {
    void operator()(void *memory) const { std::free(memory); }
};
template <typename Character>
using Copy = std::unique_ptr<Character, Free>;

TEST(StringToolCopies, are_terminated_and_of_the_whole_text) {
    for (const std::string &text : {""s, "a"s, "a\0b"s, std::string(1000, 'x')}) {
        const Copy<char> copy(Tool::strdup(text));
        EXPECT_EQ(std::memcmp(copy.get(), text.c_str(), text.size() + 1), 0);
        const Copy<char> of_ace(Tool::tstrdup(Ace(text.data(), text.size())));
        EXPECT_EQ(std::memcmp(of_ace.get(), text.c_str(), text.size() + 1), 0);
    }
    for (const std::wstring &text : {L""s, L"a"s, L"a\0\u4E2D"s, std::wstring(1000, L'x')}) {
        const Copy<wchar_t> copy(Tool::wstrdup(text));
        EXPECT_EQ(std::wmemcmp(copy.get(), text.c_str(), text.size() + 1), 0);
    }
}

TEST(StringToolCopies, of_a_list_end_with_null) {
    char **list = Tool::tstrduplist({Ace("one"), Ace(), Ace("three")});
    ASSERT_NE(list, nullptr);
    EXPECT_STREQ(list[0], "one");
    EXPECT_STREQ(list[1], "");
    EXPECT_STREQ(list[2], "three");
    EXPECT_EQ(list[3], nullptr);
    Tool::tstrfreelist(list);
    EXPECT_EQ(list, nullptr);
}

TEST(StringToolCopies, of_an_empty_list_are_a_null_alone) {
    char **list = Tool::tstrduplist({});
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list[0], nullptr);
    Tool::tstrfreelist(list);
    EXPECT_EQ(list, nullptr);
}

TEST(StringToolCopies, may_be_released_twice) {
    char **list = Tool::tstrduplist({Ace("one")});
    Tool::tstrfreelist(list);
    Tool::tstrfreelist(list);
    EXPECT_EQ(list, nullptr);
}

} // namespace
