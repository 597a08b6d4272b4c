// Counting replacements of the C allocation functions, forwarding to glibc.
#include "heap_counter.hpp"

#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <cstring>

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *__libc_memalign(size_t, size_t);
void __libc_free(void *);
}

namespace {

std::atomic<std::size_t> g_live{0};
std::atomic<std::size_t> g_peak{0};

void *counted(void *p) noexcept {
    if (p != nullptr) {
        const std::size_t now = g_live.fetch_add(malloc_usable_size(p), std::memory_order_relaxed) +
                                malloc_usable_size(p);
        std::size_t peak = g_peak.load(std::memory_order_relaxed);
        while (now > peak && !g_peak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
        }
    }
    return p;
}

void uncount(void *p) noexcept {
    if (p != nullptr) g_live.fetch_sub(malloc_usable_size(p), std::memory_order_relaxed);
}

}  // namespace

namespace pkey::bench::heap {
std::size_t live_bytes() noexcept { return g_live.load(); }
std::size_t peak_bytes() noexcept { return g_peak.load(); }
void reset_peak() noexcept { g_peak.store(g_live.load()); }
}  // namespace pkey::bench::heap

extern "C" {

void *malloc(size_t n) { return counted(__libc_malloc(n)); }
void *calloc(size_t n, size_t size) { return counted(__libc_calloc(n, size)); }
void free(void *p) {
    uncount(p);
    __libc_free(p);
}
void *realloc(void *p, size_t n) {
    if (p != nullptr && n == 0) {  // glibc frees p
        uncount(p);
        return __libc_realloc(p, 0);
    }
    const std::size_t old = p != nullptr ? malloc_usable_size(p) : 0;
    void *q = __libc_realloc(p, n);
    if (q == nullptr) return nullptr;  // p is untouched (or n was 0 and p freed)
    g_live.fetch_sub(old, std::memory_order_relaxed);
    return counted(q);
}
void *memalign(size_t align, size_t n) { return counted(__libc_memalign(align, n)); }
void *aligned_alloc(size_t align, size_t n) { return counted(__libc_memalign(align, n)); }
int posix_memalign(void **out, size_t align, size_t n) {
    void *p = __libc_memalign(align, n);
    if (p == nullptr) return ENOMEM;
    *out = counted(p);
    return 0;
}

}  // extern "C"
