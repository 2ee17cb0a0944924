#include "log/log_support.h"

#include <climits>
#include <clocale>
#include <fcntl.h>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using namespace log_support;
using namespace std::string_literals;

std::string dump_of(const std::string &bytes) {
    const MemoryLog log;
    qzfi_hexdump(bytes.data(), static_cast<uint32_t>(bytes.size()));
    fflush(get_qzfi_msgout());
    return log.text();
}

TEST(LogState, starts_empty) {
    EXPECT_EQ(get_qzfi_msgout(), nullptr);
    EXPECT_EQ(get_qzfi_logfile(), nullptr);
    EXPECT_EQ(get_qzfi_debuglevel(), 0u);
    EXPECT_EQ(qzfi_debug, 1);
}

TEST(LogState, the_debug_level_is_the_exported_global) {
    set_qzfi_debuglevel(0xffffffff);
    EXPECT_EQ(qzfi_debug_level, 0xffffffffu);
    EXPECT_EQ(get_qzfi_debuglevel(), 0xffffffffu);
    qzfi_debug_level = 0;
    EXPECT_EQ(get_qzfi_debuglevel(), 0u);
}

TEST(LogState, indentation_i_is_2_i_blanks) {
    for (std::size_t i = 0; i < 20; ++i)
        EXPECT_EQ(spc[i], std::string(2 * i, ' ')) << i;
}

TEST(LogText, is_indented_and_starts_a_line_when_told_so) {
    const MemoryLog log;
    EXPECT_EQ(qzfi_logmsg("a\n", 0, 0), 0);
    EXPECT_EQ(log.text(), "a\n");
    EXPECT_EQ(qzfi_logmsg("b", 1, 2), 0);
    EXPECT_EQ(log.text(), "a\n\n    b");
    EXPECT_EQ(qzfi_logmsg("%s%n", -1, 1), 0);
    EXPECT_EQ(log.text(), "a\n\n    b\n  %s%n");
    EXPECT_EQ(qzfi_logmsg("", 0, 19), 0);
    EXPECT_EQ(log.text(), "a\n\n    b\n  %s%n" + std::string(38, ' '));
}

TEST(LogText, that_is_null_reads_null) {
    const MemoryLog log;
    EXPECT_EQ(qzfi_logmsg(nullptr, 1, 1), 0);
    EXPECT_EQ(log.text(), "\n  NULL");
}

TEST(LogText, takes_the_nearest_indentation_of_the_table) {
    for (const int32_t index : {20, 21, 1000, INT_MAX}) {
        const MemoryLog log;
        EXPECT_EQ(qzfi_logmsg("x", 0, index), 0);
        EXPECT_EQ(log.text(), std::string(38, ' ') + "x");
    }
    for (const int32_t index : {-1, INT_MIN}) {
        const MemoryLog log;
        EXPECT_EQ(qzfi_logmsg("x", 0, index), 0);
        EXPECT_EQ(log.text(), "x");
    }
}

TEST(LogText, returns_0_without_a_log) {
    EXPECT_EQ(qzfi_logmsg("x", 1, 1), 0);
}

TEST(LogText, returns_the_result_of_a_failed_flush) {
    FILE *full = fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    set_qzfi_msgout(full);
    EXPECT_EQ(qzfi_logmsg("x", 0, 0), EOF);
    set_qzfi_msgout(nullptr);
    fclose(full);
}

TEST(HexDump, of_20_bytes_pads_its_second_line) {
    EXPECT_EQ(dump_of("ABCDEFGHIJKLMNOPQRST"),
              "00000000 : 41 42 43 44 45 46 47 48-49 4A 4B 4C 4D 4E 4F 50 : ABCDEFGHIJKLMNOP\n"
              "00000010 : 51 52 53 54                                     : QRST\n");
}

TEST(HexDump, marks_the_eighth_byte_of_a_line_when_it_is_there) {
    EXPECT_EQ(dump_of("1234567"), "00000000 : 31 32 33 34 35 36 37                            : 1234567\n");
    EXPECT_EQ(dump_of("12345678"), "00000000 : 31 32 33 34 35 36 37 38-                        : 12345678\n");
}

TEST(HexDump, of_16_bytes_is_one_line) {
    EXPECT_EQ(dump_of("0123456789abcdef"),
              "00000000 : 30 31 32 33 34 35 36 37-38 39 61 62 63 64 65 66 : 0123456789abcdef\n");
}

TEST(HexDump, shows_blanks_and_unprintable_bytes_as_dots) {
    EXPECT_EQ(dump_of(" \t\n\0\x1f!~\x7f\x80\xa0\xe9\xff."s),
              "00000000 : 20 09 0A 00 1F 21 7E 7F-80 A0 E9 FF 2E          : .....!~......\n");
}

TEST(HexDump, of_no_bytes_writes_nothing) {
    const MemoryLog log;
    qzfi_hexdump("x", 0);
    qzfi_hexdump(nullptr, 0);
    qzfi_hexdump(nullptr, 16);
    fflush(get_qzfi_msgout());
    EXPECT_EQ(log.text(), "");
}

TEST(HexDump, without_a_log_writes_nothing) {
    qzfi_hexdump("x", 1);
    EXPECT_EQ(get_qzfi_msgout(), nullptr);
}

TEST(HexDump, offsets_have_eight_digits) {
    const std::string dump = dump_of(std::string(0x10001, 'z'));
    EXPECT_EQ(dump.size(), 0x1000u * 78 + 63);
    EXPECT_EQ(dump.substr(dump.size() - 63), "00010000 : 7A" + std::string(45, ' ') + " : z\n");
}

TEST(HexDump, ends_when_the_stream_fails_however_long_it_would_be) {
    // Only the first bytes are touched before the stream fails, so that 4 GiB of address space are enough.
    void *bytes = mmap(nullptr, UINT32_MAX, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(bytes, MAP_FAILED);
    FILE *full = fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    set_qzfi_msgout(full);
    qzfi_hexdump(bytes, UINT32_MAX);
    EXPECT_NE(ferror(full), 0);
    set_qzfi_msgout(nullptr);
    fclose(full);
    munmap(bytes, UINT32_MAX);
}

TEST(HexDump, of_two_threads_stay_whole) {
    const ScratchDir scratch;
    FILE *file = fopen((scratch.path() / "log").c_str(), "w");
    ASSERT_NE(file, nullptr);
    set_qzfi_msgout(file);
    const auto dump = [](char letter) {
        for (int i = 0; i < 100; ++i)
            qzfi_hexdump(std::string(32, letter).data(), 32);
    };
    std::thread other(dump, 'b');
    dump('a');
    other.join();
    set_qzfi_msgout(nullptr);
    fclose(file);
    std::string text = content_of(scratch.path() / "log");
    const std::string a = dump_of(std::string(32, 'a'));
    const std::string b = dump_of(std::string(32, 'b'));
    int dumps = 0;
    for (; text.substr(0, a.size()) == a || text.substr(0, b.size()) == b; ++dumps)
        text.erase(0, a.size());
    EXPECT_EQ(text, "");
    EXPECT_EQ(dumps, 200);
}

TEST(Printable, leaves_the_last_byte_out) {
    EXPECT_EQ(qzfi_printable("ab", 3), 1);
    EXPECT_EQ(qzfi_printable("a\x01", 2), 1);
    EXPECT_EQ(qzfi_printable("a\x01", 3), 0);
    EXPECT_EQ(qzfi_printable("\x01", 1), 1);
}

TEST(Printable, has_nothing_to_check_in_length_0) {
    EXPECT_EQ(qzfi_printable("\x01", 0), 1);
    EXPECT_EQ(qzfi_printable(nullptr, 0), 1);
    EXPECT_EQ(qzfi_printable(nullptr, 1), 1);
}

TEST(Printable, refuses_null_with_bytes_to_check) {
    EXPECT_EQ(qzfi_printable(nullptr, 2), 0);
}

TEST(Printable, is_ascii_in_every_locale) {
    for (const char *locale : {"C", "C.UTF-8", ""}) {
        setlocale(LC_ALL, locale);
        for (int byte = 0; byte < 256; ++byte) {
            const char text[] = {static_cast<char>(byte), '\0'};
            EXPECT_EQ(qzfi_printable(text, 2), byte >= 0x20 && byte <= 0x7e) << locale << " " << byte;
        }
    }
    setlocale(LC_ALL, "C");
}

TEST(CheckNull, gives_the_text_or_null_in_letters) {
    const char *text = "x";
    EXPECT_EQ(qzfi_checkNull(text), text);
    EXPECT_STREQ(qzfi_checkNull(""), "");
    EXPECT_STREQ(qzfi_checkNull(nullptr), "NULL");
}

} // namespace
