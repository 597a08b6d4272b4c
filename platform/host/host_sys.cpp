// host_sys.cpp - message texts and the small C helpers the device's C library
// has beyond POSIX.

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "pkey_platform.h"

extern "C" {

const char *RC_LoadString(unsigned int messageId) {
    switch (messageId) {
        case 0x060C0032U:
            return "Error: The key code is not a valid public key.\r\n";
        case 0x060C003BU:
            return "Error: The key size is not supported.\r\n";
        case 0x060C003CU:
            return "Error: The public key could not be saved.\r\n";
        default:
            return "";
    }
}

int scnprintf(char *buf, size_t size, const char *fmt, ...) {
    if (buf == nullptr || size == 0 || fmt == nullptr) return 0;
    va_list ap;
    va_start(ap, fmt);
    const int n = std::vsnprintf(buf, size, fmt, ap);
    va_end(ap);
    if (n < 0) {
        buf[0] = '\0';
        return 0;
    }
    return static_cast<size_t>(n) < size ? n : static_cast<int>(size - 1);
}

size_t strlcpy(char *dst, const char *src, size_t size) {
    const size_t len = std::strlen(src);
    if (size != 0) {
        const size_t n = len < size ? len : size - 1;
        std::memcpy(dst, src, n);
        dst[n] = '\0';
    }
    return len;
}

char *lowercase(char *text) {
    if (text == nullptr) return nullptr;
    for (char *p = text; *p != '\0'; ++p) {
        const auto c = static_cast<unsigned char>(*p);
        if (c >= 'A' && c <= 'Z') *p = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

int freedir(struct dirent **list, int count) {
    if (list == nullptr) return 0;
    for (int i = 0; i < count; ++i) std::free(list[i]);
    std::free(list);
    return 0;
}

}  // extern "C"
