/* readdir_fault.c - makes one chosen directory read fail, as a 32-bit system
 * without large-file support or a failing disk would. Linked into a test
 * program, these definitions come before the C library's for the libraries
 * the program loads; unarmed they pass every call on. Kept free of
 * <dirent.h> so that both names can be defined whatever it redirects. */
#define _GNU_SOURCE
#include "readdir_fault.h"

#include <dlfcn.h>
#include <errno.h>
#include <stdatomic.h>
#include <stddef.h>

static atomic_int calls_left = -1; /* the failing call is the one that brings it to 0 */

void readdir_fault_arm(int nth_call) { atomic_store(&calls_left, nth_call); }

static int fails_now(void) {
    int left = atomic_load(&calls_left);
    while (left > 0) {
        if (atomic_compare_exchange_weak(&calls_left, &left, left - 1)) return left == 1;
    }
    return 0;
}

typedef void *(*reader)(void *);

static void *forward(const char *name, void *dir) {
    if (fails_now()) {
        errno = EOVERFLOW;
        return NULL;
    }
    reader next = (reader)dlsym(RTLD_NEXT, name);
    return next != NULL ? next(dir) : NULL;
}

/* Visible, so that the libraries' references bind here. */
__attribute__((visibility("default"))) void *readdir(void *dir) { return forward("readdir", dir); }
__attribute__((visibility("default"))) void *readdir64(void *dir) {
    return forward("readdir64", dir);
}
