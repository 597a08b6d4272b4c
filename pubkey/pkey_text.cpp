// Text helpers for what an operator typed or pasted: blanks, line breaks and
// hexadecimal key code. They allocate nothing and work in place or into the
// caller's buffer.
#include <cctype>
#include <cstring>
#include <string_view>

#include "pkey_hex.hpp"
#include "pkey_pubkey.h"

extern "C" {

unsigned int PKEY_StrRemoveSpaceCopy(const char *src, unsigned int dstSize, char *dst) noexcept {
    if (src == nullptr || dst == nullptr || dstSize == 0) return 0;
    const unsigned int limit = dstSize - 1;
    unsigned int written = 0;
    for (const char *p = src; *p != '\0' && written < limit; ++p) {
        if (*p != ' ') dst[written++] = *p;
    }
    dst[written] = '\0';
    return written;
}

unsigned int PKEY_RemoveCRLF(char *text) noexcept {
    if (text == nullptr) return 0;
    unsigned int out = 0;
    for (const char *p = text; *p != '\0'; ++p) {
        if (*p != '\r' && *p != '\n') text[out++] = *p;
    }
    text[out] = '\0';
    return out;
}

unsigned char PKEY_HexAsc2Bin(char c) noexcept { return pkey::hex::digit_value(c); }

int PKEY_IsValidHexString(const char *text) noexcept {
    if (text == nullptr) return 0;
    for (const char *p = text; *p != '\0'; ++p) {
        if (*p != ' ' && !std::isxdigit(static_cast<unsigned char>(*p))) return 0;
    }
    return 1;
}

unsigned int PKEY_HexStringToHexData(const char *hex, unsigned char *out) noexcept {
    if (hex == nullptr || out == nullptr) return 0;
    // The caller's buffer holds strlen(hex) / 2 bytes by this function's contract.
    const std::string_view text(hex);
    if (text.size() / 2 > 0xFFFFFFFFu) return 0;
    return static_cast<unsigned int>(pkey::hex::decode(text, {out, text.size() / 2}));
}

unsigned int PKEY_LenBeforeSeparator(const char *text, char separator) noexcept {
    if (text == nullptr) return 0;
    const size_t n = std::strlen(text);
    if (n == 0) return 0;
    const signed char sep = static_cast<signed char>(separator);
    auto is_sep = [sep](char c) { return static_cast<signed char>(c) == sep; };
    size_t i = 0;
    if (is_sep(text[0])) {
        while (i < n && is_sep(text[i])) ++i;
        if (i == n) return 0;
    }
    while (i < n && !is_sep(text[i])) ++i;
    return static_cast<unsigned int>(i);
}

}  // extern "C"
