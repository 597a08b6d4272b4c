// host_sys.cpp - message texts and the small C helpers the device's C library
// has beyond POSIX. A helper this machine's C library already has is left to
// it (the build checks): the host library never defines or exports a name of
// the C library or of its companions such as libbsd. strlcpy is not among
// them: libpkey never calls it, and glibc 2.38+, musl and libbsd each have one.

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "pkey_platform.h"

extern "C" {

const char *RC_LoadString(unsigned int messageId) {
    switch (messageId) {
        case 0x060C0032U: return "Error: The key code is not a valid public key.\r\n";
        case 0x060C003BU: return "Error: The key size is not supported.\r\n";
        case 0x060C003CU: return "Error: The public key could not be saved.\r\n";
        default: return "";
    }
}

#if !PKEY_LIBC_HAS_SCNPRINTF
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

#endif

#if !PKEY_LIBC_HAS_LOWERCASE
char *lowercase(char *text) {
    if (text == nullptr) return nullptr;
    for (char *p = text; *p != '\0'; ++p) {
        const auto c = static_cast<unsigned char>(*p);
        if (c >= 'A' && c <= 'Z') *p = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}
#endif

#if !PKEY_LIBC_HAS_FREEDIR
int freedir(struct dirent **list, int count) {
    if (list == nullptr) return 0;
    for (int i = 0; i < count; ++i) std::free(list[i]);
    std::free(list);
    return 0;
}
#endif

}  // extern "C"
