// The byte finder's word-at-a-time form, and the digit reader's unsigned
// limit. (The finder itself is checked through the parsers, at every length
// and beyond 64 KiB, by tests/python/test_parsers.py against the baseline.)
#include "src/core/text.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

namespace git_utils {
namespace {

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
