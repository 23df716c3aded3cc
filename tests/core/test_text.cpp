// The byte finder the parsers cut their text with, and the digit reader
// every number of git's output goes through.
#include "src/core/text.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace git_utils {
namespace {

std::vector<std::size_t> found(const std::string& text, char byte) {
    std::vector<std::size_t> at;
    ByteFinder finder(text, byte);
    for (std::size_t p; (p = finder.next()) != text.size();) at.push_back(p);
    return at;
}

// Every occurrence, in order, whatever the length (the last block is short
// and padded) and whichever byte (NUL, and bytes with the high bit set).
TEST(ByteFinder, FindsEveryOccurrenceAtAnyLength) {
    std::mt19937 random(7);
    for (const char byte : {'\n', '\0', '\xff', '\x80'}) {
        for (std::size_t size : {0, 1, 63, 64, 65, 127, 128, 129, 1000}) {
            std::string text(size, 'a');
            for (char& c : text) c = "ab\n\0\xff\x80"[random() % 6];
            std::vector<std::size_t> expected;
            for (std::size_t i = 0; i < size; ++i)
                if (text[i] == byte) expected.push_back(i);
            EXPECT_EQ(found(text, byte), expected) << "size " << size << " byte " << int(byte);
        }
    }
}

// The word-at-a-time mask (the form on machines without SSE2) gives the
// same bits as a byte-by-byte comparison, also for bytes next to the sought
// one in value, which a carry between bytes would misreport.
TEST(ByteFinder, WordMaskMatchesBytes) {
    std::mt19937 random(11);
    for (const char byte : {'\n', '\0', '\x7f', '\x80', '\xff'}) {
        for (int round = 0; round < 200; ++round) {
            char block[64];
            for (char& c : block) c = static_cast<char>(byte + static_cast<int>(random() % 3) - 1);
            std::uint64_t expected = 0;
            for (int i = 0; i < 64; ++i)
                if (block[i] == byte) expected |= std::uint64_t{1} << i;
            ASSERT_EQ(byte_mask_words(block, byte), expected);
        }
    }
}

// The limits of the one digit reader and what the integer readers make of it.
TEST(Digits, LimitsAndForms) {
    struct Case {
        const char* text;
        std::optional<Integer> expected;
    };
    auto big = [](const char* digits) {
        Integer i;
        i.digits = std::make_shared<const std::string>(digits);
        return i;
    };
    const Case cases[] = {
        {"9223372036854775807", Integer(INT64_MAX)},
        {"9223372036854775808", big("9223372036854775808")},
        {"-9223372036854775808", Integer(INT64_MIN)},
        {"-9223372036854775809", big("-9223372036854775809")},
        {"+0012", Integer(12)},
        {"\xd9\xa4\xd9\xa2", Integer(42)},  // ARABIC-INDIC FOUR, TWO
        {"99999999999999999999\xd9\xa1", big("999999999999999999991")},
        {"", std::nullopt},
        {"-", std::nullopt},
        {"1 ", std::nullopt},
        {"1_0", std::nullopt},
        {"\xc0\xb1", std::nullopt},  // an overlong "1" is no digit
    };
    for (const Case& c : cases) EXPECT_EQ(read_decimal_integer(c.text), c.expected) << c.text;

    // Counts: anything but digits is 0; up to the unsigned limit the value fits.
    EXPECT_EQ(line_count("-"), Integer(0));
    EXPECT_EQ(line_count("12"), Integer(12));
    std::size_t pos = 0;
    const DigitRun run = read_digits("18446744073709551615x", pos, UINT64_MAX);
    EXPECT_EQ(std::tuple(run.magnitude, run.fits, run.count, pos), std::tuple(UINT64_MAX, true, std::size_t{20}, std::size_t{20}));
    pos = 0;
    EXPECT_FALSE(read_digits("18446744073709551616", pos, UINT64_MAX).fits);
}

}  // namespace
}  // namespace git_utils
