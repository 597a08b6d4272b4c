/*
 * pkey_cfgmng.h - the memory mirror of the local key files.
 *
 * The library reads local key files from a copy in the node's memory
 * directory ("/var/run" + "/pkey/"). The first local key operation that finds
 * that directory missing fills it from the flash work directory: the server
 * key, the three default host keys and the three per-algorithm key
 * directories. Once the directory exists nothing here refreshes it; the
 * writers of key files keep both copies up to date themselves.
 */
#ifndef PKEY_CFGMNG_H
#define PKEY_CFGMNG_H

#include "pkey_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Fills an absent memory key directory from flash; does nothing when it is
 * present. Copies that fail (a key never made) are skipped silently. */
PKEY_API void PKEY_CFGMNG_UpdateLocKeyMemFiles(void);
/* Copies a whole file: 0, PKEY_ERR_FAILED when src cannot be read, or the
 * write's result. */
PKEY_API int PKEY_CFGMNG_CopyFile2File(const char *src, const char *dst);

#ifdef __cplusplus
}
#endif

#endif /* PKEY_CFGMNG_H */
