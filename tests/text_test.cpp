// Text helpers: blanks, line breaks, hexadecimal key code, token lengths.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "pkey_pubkey.h"

namespace {

TEST(RemoveSpaceCopy, DropsOnlyBlanksAndStopsAtTheLimitWritingNothingForSizeZero) {
    char out[32];
    EXPECT_EQ(PKEY_StrRemoveSpaceCopy(" a b c", 3, out), 2u);
    EXPECT_STREQ(out, "ab");
    EXPECT_EQ(PKEY_StrRemoveSpaceCopy(" a b c", 1, out), 0u);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(PKEY_StrRemoveSpaceCopy("30 82\t01\r\n0A ", sizeof out, out), 11u);
    EXPECT_STREQ(out, "3082\t01\r\n0A");  // tabs and line breaks are kept
    EXPECT_EQ(PKEY_StrRemoveSpaceCopy("", sizeof out, out), 0u);
    EXPECT_STREQ(out, "");
    std::strcpy(out, "xyz");
    EXPECT_EQ(PKEY_StrRemoveSpaceCopy("abc", 0, out), 0u);  // a zero size writes nothing
    EXPECT_STREQ(out, "xyz");
}

TEST(RemoveCRLF, RemovesEveryBreakInPlaceKeepingOrder) {
    char text[] = "ab\r\ncd\n";
    EXPECT_EQ(PKEY_RemoveCRLF(text), 4u);
    EXPECT_STREQ(text, "abcd");
    char only_breaks[] = "\r\n\n\r";
    EXPECT_EQ(PKEY_RemoveCRLF(only_breaks), 0u);
    EXPECT_STREQ(only_breaks, "");
    char empty[] = "";
    EXPECT_EQ(PKEY_RemoveCRLF(empty), 0u);
}

TEST(HexAsc2Bin, ConvertsDigitsOfEitherCaseAndZeroesTheRest) {
    const std::string digits = "0123456789abcdefABCDEF";
    const unsigned char values[] = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10,
                                    11, 12, 13, 14, 15, 10, 11, 12, 13, 14, 15};
    for (size_t i = 0; i < digits.size(); ++i) EXPECT_EQ(PKEY_HexAsc2Bin(digits[i]), values[i]);
    for (char c : {'g', 'G', ' ', '\0', '\n', '/', ':', '@', '`', static_cast<char>(0xE9)})
        EXPECT_EQ(PKEY_HexAsc2Bin(c), 0) << static_cast<int>(c);
}

TEST(IsValidHexString, AcceptsDigitsAndBlanksOnly) {
    for (const char *ok : {"", "30 82 01 0A", "   ", "deadBEEF", "0"})
        EXPECT_EQ(PKEY_IsValidHexString(ok), 1) << ok;
    for (const char *bad : {"30G2", "30\t82", "30\n", "0x30", "\xC3\xA9"})
        EXPECT_EQ(PKEY_IsValidHexString(bad), 0) << bad;
}

TEST(HexStringToHexData, ConvertsPairsAndRefusesOddOrShortText) {
    unsigned char out[8] = {};
    EXPECT_EQ(PKEY_HexStringToHexData("0a1B", out), 2u);
    EXPECT_EQ(out[0], 0x0A);
    EXPECT_EQ(out[1], 0x1B);

    unsigned char untouched[4] = {0x55, 0x55, 0x55, 0x55};
    EXPECT_EQ(PKEY_HexStringToHexData("abc", untouched), 0u);
    EXPECT_EQ(PKEY_HexStringToHexData("a", untouched), 0u);
    EXPECT_EQ(PKEY_HexStringToHexData("", untouched), 0u);
    EXPECT_EQ(untouched[0], 0x55);

    // Non-digits count as zero; callers validate first.
    EXPECT_EQ(PKEY_HexStringToHexData("zz", out), 1u);
    EXPECT_EQ(out[0], 0x00);
    EXPECT_EQ(PKEY_HexStringToHexData("f z", out), 0u);
    EXPECT_EQ(PKEY_HexStringToHexData("f zF", out), 2u);
    EXPECT_EQ(out[0], 0xF0);
    EXPECT_EQ(out[1], 0x0F);
}

TEST(LenBeforeSeparator, CountsTheFirstTokenFromTheStart) {
    struct Row {
        const char *text;
        char sep;
        unsigned int expected;
    };
    const std::vector<Row> rows = {
        {"", ' ', 0},      {"   ", ' ', 0},          {"ab", ' ', 2},     {"abc", ',', 3},
        {"ab cd", ' ', 2}, {"  ab cd", ' ', 4},      {",,a,,b", ',', 3}, {"a", 'a', 0},
        {"xay", 'a', 1},   {"\xFFz\xFF", '\xFF', 2},
    };
    for (const Row &r : rows)
        EXPECT_EQ(PKEY_LenBeforeSeparator(r.text, r.sep), r.expected) << '"' << r.text << '"';
}

}  // namespace
