/*
 * platform_control.h - how the test programs drive the platform under test.
 *
 * The library only reads the platform's state (FIPS mode, algorithm switches,
 * memory alarm, node identity, standby nodes, node status); the tests must
 * also set it, and start each test on a store of its own. Every platform that
 * runs the tests implements these calls: the host platform in
 * platform_control_host.cpp, a device platform in a source or library of its
 * own (CMake's PKEY_TEST_CONTROL). The tests touch the platform through this
 * header and pkey_platform.h only.
 *
 * Each setter returns 0 once the platform services report the new state at
 * their next call, in this process and in processes forked from it after the
 * call; -1 when the state cannot be set (PCTL_LastError says why).
 */
#ifndef PKEY_PLATFORM_CONTROL_H
#define PKEY_PLATFORM_CONTROL_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Makes the store kept under the directory root the platform's store: its
 * configuration database, key-file cipher key, settings and the nodes' work
 * directories and memory roots. A store is made when root holds none yet; one
 * already there is used as it was left. A new store starts as node 1 (the
 * slot of node 1), with no standby node, every node's status normal, the
 * memory alarm clear, an empty database and every algorithm switch at its
 * default. The work directories and memory roots need not lie under root,
 * but each store has its own. 0 or -1.
 */
int PCTL_OpenStore(const char *root);

/* FIPS mode: 1 on, 0 off, -1 back to the platform's default. */
int PCTL_SetFipsMode(int on);
/* Switch of CRYPTO_AlgoIsEnabled(code): 1 enabled, 0 disabled, -1 back to the
 * default (enabled, except MD5, which is disabled exactly in FIPS mode). */
int PCTL_SetAlgoEnabled(unsigned int code, int enabled);
/* Memory alarm state as Mem_Alert_GetCurrentState reports it; 0 is normal. */
int PCTL_SetMemAlarm(int state);
/* The running node, as DEV_GetSelf reports it; its slot follows. */
int PCTL_SetSelfNode(unsigned short node);
/* Replaces the standby node list (count 0 clears it). */
int PCTL_SetStandbyNodes(const unsigned short *nodes, unsigned int count);
/* Status of a node as DEV_GetDeviceStatusEx reports it (1 normal). */
int PCTL_SetNodeStatus(unsigned short node, int status);

/* Why a call of this thread failed, as one line for a test's failure message
 * ("" when the platform knows of no failure); never NULL. */
const char *PCTL_LastError(void);

#ifdef __cplusplus
}
#endif

#endif /* PKEY_PLATFORM_CONTROL_H */
