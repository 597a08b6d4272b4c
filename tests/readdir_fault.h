/* readdir_fault.h - see readdir_fault.c. */
#ifndef READDIR_FAULT_H
#define READDIR_FAULT_H

#ifdef __cplusplus
extern "C" {
#endif
/* The nth directory read from now (1 for the next) fails with EOVERFLOW;
 * every other read goes to the C library. */
void readdir_fault_arm(int nth_call);
#ifdef __cplusplus
}
#endif

#endif
