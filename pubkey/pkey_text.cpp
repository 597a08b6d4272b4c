// Text helpers for what an operator typed or pasted: blanks, line breaks and
// hexadecimal key code. They allocate nothing and work in place or into the
// caller's buffer.
#include <cctype>
#include <cstring>

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

unsigned char PKEY_HexAsc2Bin(char c) noexcept {
    const int ch = static_cast<unsigned char>(c);
    if (!std::isxdigit(ch)) return 0;
    if (std::isupper(ch)) return static_cast<unsigned char>(ch - 55);
    if (std::islower(ch)) return static_cast<unsigned char>(ch - 87);
    return static_cast<unsigned char>(ch - 48);
}

int PKEY_IsValidHexString(const char *text) noexcept {
    if (text == nullptr) return 0;
    for (const char *p = text; *p != '\0'; ++p) {
        if (*p != ' ' && !std::isxdigit(static_cast<unsigned char>(*p))) return 0;
    }
    return 1;
}

unsigned int PKEY_HexStringToHexData(const char *hex, unsigned char *out) noexcept {
    if (hex == nullptr || out == nullptr) return 0;
    const size_t n = std::strlen(hex);
    if (n < 2 || n % 2 != 0 || n / 2 > 0xFFFFFFFFu) return 0;
    for (size_t i = 0; i < n / 2; ++i) {
        out[i] = static_cast<unsigned char>((PKEY_HexAsc2Bin(hex[2 * i]) << 4) |
                                            PKEY_HexAsc2Bin(hex[2 * i + 1]));
    }
    return static_cast<unsigned int>(n / 2);
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
