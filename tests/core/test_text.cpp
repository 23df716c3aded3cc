// The byte finder the parsers cut their text with, and the digit reader's
// unsigned limit.
#include "src/core/text.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
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

// The unsigned limit (counts of the C++ records, relative time amounts),
// which no Python-level test reaches: exact up to it, not fitting past it.
TEST(Digits, UnsignedLimit) {
    for (const auto& [text, fits] : {std::pair{"18446744073709551615", true}, std::pair{"18446744073709551616", false},
                                     std::pair{"\xd9\xa1" "8446744073709551616", false}}) {
        std::size_t pos = 0;
        const DigitRun run = read_digits(text, pos, UINT64_MAX);
        EXPECT_EQ(std::tuple(run.fits, run.count, pos), std::tuple(fits, std::size_t{20}, std::string_view(text).size()))
            << text;
        if (fits) {
            EXPECT_EQ(run.magnitude, UINT64_MAX);
        }
    }
}

}  // namespace
}  // namespace git_utils
