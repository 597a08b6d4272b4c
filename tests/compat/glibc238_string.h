/* Forced into every compilation by the glibc 2.38 compatibility build: the
 * C library's headers as glibc 2.38 and later have them, with strlcpy and
 * strlcat declared. A declaration of ours that differs fails that build. */
#ifndef PKEY_COMPAT_GLIBC238_STRING_H
#define PKEY_COMPAT_GLIBC238_STRING_H

#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif
extern size_t strlcpy(char *__restrict __dest, const char *__restrict __src, size_t __n) __THROW;
extern size_t strlcat(char *__restrict __dest, const char *__restrict __src, size_t __n) __THROW;
#ifdef __cplusplus
}
#endif

#endif
