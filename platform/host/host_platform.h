/*
 * host_platform.h - control API of the Linux host platform (libpkey_host.so).
 *
 * libpkey_host.so implements every service of pkey_platform.h on an ordinary
 * Linux machine. Everything it keeps lives under one store root directory:
 *
 *   <root>/node<N>/flash   node N's flash work directory (slot N)
 *   <root>/node<N>/run     node N's memory root (the device's "/var/run")
 *   <root>/db/<name>.db    one SQLite file per configuration database
 *   <root>/device.key      the key-file cipher's device key (mode 0600)
 *   <root>/settings        the settings below, shared by every process
 *
 * Without HOST_Open the root is $PKEY_ROOT, or else ./pkey-store, opened as
 * HOST_Open would at the first service call. Settings are read afresh at
 * every call, so a change made by one process is seen by every other process
 * using the same root at its next call. The settings file carries a checksum
 * and is checked whenever a process opens the store; one that does not check
 * out is refused and left as it is, never replaced with defaults.
 *
 * FS_IsValidFullFileName refuses (0x50030005) every name that lands on the
 * store's own files, whatever the spelling: the root, device.key, settings,
 * db/, each node's directories, its "pkey" trees and its default key files.
 */
#ifndef HOST_PLATFORM_H
#define HOST_PLATFORM_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define HOST_API __attribute__((visibility("default")))
#else
#define HOST_API
#endif

/*
 * Choosing the store. Both calls check the store before they return: the
 * root directory is made (HOST_Open only) and its settings file is read and
 * verified. root NULL or "" means the default root ($PKEY_ROOT, else
 * ./pkey-store). On failure the process has no usable store until a later
 * call succeeds: every service fails, FIPS mode reads on and the memory alarm
 * reads raised, so that nothing is generated, purged or written on the
 * strength of settings that cannot be trusted. HOST_LastError says why.
 */
/* Uses root as the store, creating it (and its settings) if missing. Settings
 * of the older layout are rewritten in the current one, keeping their values.
 * 0 or -1. */
HOST_API int HOST_Open(const char *root);
/* Uses root as the store only when a store is there already (a directory
 * holding a settings file); never creates anything, though settings of the
 * older layout are still rewritten in the current one. 0 or -1. */
HOST_API int HOST_OpenExisting(const char *root);

/*
 * Errors. The first failure a platform service met on this thread since the
 * last HOST_ClearError, as one line that names what failed and why (for
 * example the database file and SQLite's message); "" when there was none.
 * Verdicts are not failures: a record that is not there, a key file that does
 * not decipher or a file name the store refuses record nothing. The text
 * stays valid on this thread until HOST_ClearError.
 */
HOST_API const char *HOST_LastError(void);
HOST_API void HOST_ClearError(void);

/* Settings. Each returns 0, or -1 when there is no usable store, the value
 * cannot be kept or the file cannot be written (HOST_LastError says why). */
/* FIPS mode: 1 on, 0 off, -1 follow the kernel's flag (the default). */
HOST_API int HOST_SetFipsMode(int on);
/* Algorithm switch of CRYPTO_AlgoIsEnabled: 1 enabled, 0 disabled, -1 back to the default. */
HOST_API int HOST_SetAlgoEnabled(unsigned int code, int enabled);
/* Memory alarm state; 0 is normal. */
HOST_API int HOST_SetMemAlarm(int state);
/* The running node (default 1); its slot is the same number. */
HOST_API int HOST_SetSelfNode(unsigned short node);
/* Replaces the standby node list (at most 64 nodes; count 0 clears it). */
HOST_API int HOST_SetStandbyNodes(const unsigned short *nodes, unsigned int count);
/* Status of a node as DEV_GetDeviceStatusEx reports it (1 normal, the default). */
HOST_API int HOST_SetNodeStatus(unsigned short node, int status);

#ifdef __cplusplus
}
#endif

#endif /* HOST_PLATFORM_H */
