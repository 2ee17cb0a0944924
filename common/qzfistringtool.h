// Static string operations of the catalog classes.
//
// Stateless: every operation returns new values and leaves its inputs alone, so any number of threads may call them on
// texts of their own. Byte strings are UTF-8 wherever Unicode strings are involved. Allocation failure is
// std::bad_alloc, as in the standard library, except where an operation returns a heap copy: that is null then.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <ace/SString.h>
#include <unicode/unistr.h>

class CCmnStringTool {
public:
    CCmnStringTool() = delete;

    // Numbers to text: "%d", "%ld", "%u", "%lu" and "%g", so a double keeps six significant digits.
    static std::string bool2str(bool value);
    static std::string int2str(int value);
    static std::string int2str(long value);
    static std::string uint2str(unsigned int value);
    static std::string uint2str(unsigned long value);
    static std::string double2str(double value);
    static std::wstring int2wstr(int value);
    static std::wstring int2wstr(long value);
    static std::wstring uint2wstr(unsigned int value);
    static std::wstring uint2wstr(unsigned long value);

    // Text to numbers, base 10, as the C library reads them: leading blanks and a sign are taken, reading stops at the
    // first other character, text without a number gives 0. Integers are read as long and keep its low bits: 4294967297
    // is 1, and what no long holds is the nearest that one does.
    static int str2int(const std::string &text);
    static void str2int(const std::string &text, int &value);
    static unsigned int str2uint(const std::string &text);
    static void str2uint64(const std::string &text, unsigned long &value);
    static double str2double(const std::string &text);

    /// True when every character is "0" to "9"; true for the empty text.
    static bool isDigit(const std::string &text);
    /// True for texts of one length in which every two letters have equal upper-case forms and every other two
    /// characters are identical.
    static bool CompareNoCase(const std::string &a, const std::string &b);
    static bool CompareNoCase(const std::wstring &a, const std::wstring &b);
    static std::string tostrlower(const std::string &text);
    static std::wstring tostrlower(const std::wstring &text);

    // Drop the characters of a set at the start, the end, or both. A null set drops nothing.
    static std::string ltrim(const std::string &text, const char *set);
    static std::string rtrim(const std::string &text, const char *set);
    static std::string trim(const std::string &text, const char *set);

    /// Searches `list` from element `index` on for the first that contains `text`; with `trimmed`, each is first
    /// right-trimmed of " \n\t\r". Returns the position inside that element and sets `index` to the element; the
    /// largest unsigned value, with `index` the number of elements, when there is none. A null text is in none.
    static unsigned long find(const std::vector<std::string> &list, const char *text, unsigned long &index,
                              bool trimmed);

    // Hexadecimal: two lower-case digits a byte; none for a count below 1.
    static std::string binary2str(const unsigned char *bytes, int count);
    static std::wstring binary2wstr(const unsigned char *bytes, int count);
    /// Reads two digits at a time into `bytes`, which has room for half of the text, rounded up: an odd last digit
    /// stands for a byte of its own. `count` receives the number of bytes written. Each pair is read as the C library
    /// reads a number, so one that is no number gives 0.
    static void str2binary(unsigned char *bytes, int *count, const std::string &text);
    static void wstr2binary(unsigned char *bytes, int *count, const std::wstring &text);

    // Ids: four hexadecimal digits of the kind, then the data.
    /// Readers of these ids rely on each byte being written as a signed character: 0x80 comes out as "ffffff80".
    static std::string str2uid(unsigned int kind, const std::string &data);
    /// Wide characters below 0x100 stand for bytes and are written alike, others in full.
    static std::wstring wstr2uid(unsigned int kind, const std::wstring &data);
    static std::wstring binary2uid(unsigned int kind, const unsigned char *bytes, int count);

    // Byte and wide strings, through the C library's conversion in the current LC_CTYPE locale. The empty text gives
    // the empty text, and so does one that cannot be converted. A NUL ends the text. The byte form has room for twice
    // as many bytes as there are characters, and two: it is cut after the last character that fits whole.
    static std::wstring str2wstr(const std::string &text);
    static std::string wstr2str(const std::wstring &text);
    static std::wstring mbs2wcs(const std::string &text);
    static std::string wcs2mbs(const std::wstring &text);
    static std::wstring tstr2wstr(const ACE_String_Base<char> &text);
    static ACE_String_Base<char> wstr2tstr(const std::wstring &text);

    // UTF-8 and Unicode strings, NULs included. Ill-formed text gives the empty text.
    static std::string ustr2str(const icu::UnicodeString &text);
    static icu::UnicodeString str2ustr(const std::string &text);
    static ACE_String_Base<char> ustr2tstr(const icu::UnicodeString &text);
    static icu::UnicodeString tstr2ustr(const ACE_String_Base<char> &text);

    // Heap copies, terminated, from malloc; null when memory is short. The caller frees them.
    static char *strdup(const std::string &text);
    static wchar_t *wstrdup(const std::wstring &text);
    static char *tstrdup(const ACE_String_Base<char> &text);
    /// A null-terminated array of heap copies; null, and nothing kept, when memory is short.
    static char **tstrduplist(const std::vector<ACE_String_Base<char>> &list);
    /// Releases such an array and nulls the caller's pointer; null is none.
    static void tstrfreelist(char **&list);

    /// True for four fields of digits separated by points. Callers rely on the leniency: no field is checked for its
    /// range, and empty fields are skipped, so "999.1.1.1" and "1..2.3.4" pass.
    static bool isIpAddress(const std::string &text);

    /// Escapes "&" first, then "<", ">", the double quote and the apostrophe.
    static std::string convertToXmlSpecialCharacters(const std::string &text);
    /// "<name>" or, when not `opening`, "</name>", with a line feed when asked for.
    static std::string xmlBracket(const std::string &name, bool opening, bool line_feed);
    /// A tab, the opening tag, the escaped value, the closing tag and a line feed.
    static std::string xmlBracketValue(const std::string &name, const std::string &value);
};
