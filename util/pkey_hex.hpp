// pkey_hex.hpp - hexadecimal text to bytes, bounded by the output's size
// (hidden).
#pragma once

#include <cctype>
#include <cstddef>
#include <span>
#include <string_view>

namespace pkey::hex {

// Value 0..15 of a hexadecimal digit; 0 for any other character, which the
// key code entry relies on: a stray character reads as a zero digit and the
// decoder refuses the bytes, not the text.
inline unsigned char digit_value(char c) noexcept {
    const int ch = static_cast<unsigned char>(c);
    if (!std::isxdigit(ch)) return 0;
    if (std::isupper(ch)) return static_cast<unsigned char>(ch - 'A' + 10);
    if (std::islower(ch)) return static_cast<unsigned char>(ch - 'a' + 10);
    return static_cast<unsigned char>(ch - '0');
}

// Pairs of digits into out; the byte count, or 0 for an odd count, fewer than
// two digits, or more bytes than out holds (nothing is written then).
inline std::size_t decode(std::string_view text, std::span<unsigned char> out) noexcept {
    const std::size_t n = text.size();
    if (n < 2 || n % 2 != 0 || n / 2 > out.size()) return 0;
    for (std::size_t i = 0; i < n / 2; ++i)
        out[i] = static_cast<unsigned char>((digit_value(text[2 * i]) << 4) |
                                            digit_value(text[2 * i + 1]));
    return n / 2;
}

}  // namespace pkey::hex
