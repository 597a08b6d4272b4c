// host_settings.cpp - settings shared by every process using a store, and the
// services that report them (crypto mode and algorithm switches, memory alarm,
// node identity, standby nodes, node status).
//
// <root>/settings is a small fixed-layout file (host_settings_file.hpp) that
// every process maps MAP_SHARED. A read is an atomic load from the mapping
// and a byte-order conversion (none on little-endian machines), so the next
// call of any process sees a change without a system call. Writers hold an
// exclusive flock on the file while they check it, change a few values and
// reseal its checksum; the standby list, the one field that is more than one
// word, is read under a shared flock so no reader sees half a list.
//
// Without a usable store every reading takes its strict side: FIPS mode on,
// MD5 off, the memory alarm raised.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "host_internal.hpp"
#include "host_platform.h"
#include "host_settings_file.hpp"
#include "pkey_platform.h"
#include "pkey_util.hpp"

namespace pkey::host {
namespace {

template <typename T>
T load(const T &field) noexcept {
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}
template <typename T, typename V>
void store(T &field, V value) noexcept {
    __atomic_store_n(&field, static_cast<T>(value), __ATOMIC_RELEASE);
}
// A value of the mapping in host order, and back.
template <typename R, typename T>
R get(const T &field) noexcept {
    return static_cast<R>(le(load(field)));
}
template <typename T, typename V>
void put(T &field, V value) noexcept {
    store(field, le(static_cast<T>(value)));
}

// Holds flock(op) on fd for its lifetime.
class FileLock {
public:
    FileLock(int fd, int op) noexcept : fd_(fd), ok_(::flock(fd, op) == 0) {}
    ~FileLock() {
        if (ok_) ::flock(fd_, LOCK_UN);
    }
    FileLock(const FileLock &) = delete;
    FileLock &operator=(const FileLock &) = delete;
    bool ok() const noexcept { return ok_; }

private:
    int fd_;
    bool ok_;
};

struct SettingsMap {
    std::uint64_t generation = 0;
    pid_t pid = 0;
    int fd = -1;
    MappedSettings *map = nullptr;
    std::string path;

    void reset() noexcept {
        if (map != nullptr) ::munmap(map, sizeof *map);
        if (fd >= 0) ::close(fd);
        map = nullptr;
        fd = -1;
        generation = 0;
        pid = 0;
        path.clear();
    }
};

std::mutex g_settings_mutex;
SettingsMap g_settings;  // guarded by g_settings_mutex

// Opens, verifies and maps <root>/settings; the mapping is made under the
// same lock as the check, so it holds what was checked.
bool map_settings(const std::string &root, SettingsMap &out, std::string &why) {
    SettingsFile file;
    if (!open_settings(root, false, file, why)) return false;
    void *p =
        ::mmap(nullptr, sizeof(MappedSettings), PROT_READ | PROT_WRITE, MAP_SHARED, file.fd(), 0);
    if (p == MAP_FAILED) {
        const int err = errno;
        why = "cannot map " + root + "/settings: " + errno_text(err);
        return false;
    }
    out.fd = file.release();
    out.map = static_cast<MappedSettings *>(p);
    out.path = root + "/settings";
    return true;
}

// The mapping of the current store, remade after a change of store or a fork
// (a child needs its own open file: flock locks belong to the open file,
// which a child shares with its parent). Caller holds g_settings_mutex. NULL
// when there is no usable store; a file that no longer verifies takes the
// store away.
MappedSettings *settings_locked() {
    const pid_t pid = process_id();
    if (g_settings.map != nullptr && g_settings.generation == current_generation() &&
        g_settings.pid == pid)
        return g_settings.map;
    StoreRef store = current_store();
    g_settings.reset();
    if (store.root.empty()) return nullptr;
    std::string why;
    if (!map_settings(store.root, g_settings, why)) {
        g_settings.reset();
        record_error(why);
        store_failed(store.generation, why);
        return nullptr;
    }
    g_settings.generation = store.generation;
    g_settings.pid = pid;
    return g_settings.map;
}

// True when the file behind the mapping is still the one at its name and
// still verifies. Caller holds the exclusive lock.
enum class Current { kYes, kReplaced, kDamaged };
Current check_current(std::string &why) {
    struct stat st {};
    struct stat named {};
    if (::fstat(g_settings.fd, &st) != 0) {
        const int err = errno;
        why = "cannot read " + g_settings.path + ": " + errno_text(err);
        return Current::kDamaged;
    }
    if (::stat(g_settings.path.c_str(), &named) != 0 || named.st_dev != st.st_dev ||
        named.st_ino != st.st_ino)
        return Current::kReplaced;
    // A shorter file would fault on access to the mapping; size first.
    std::string cause;
    if (st.st_size != static_cast<off_t>(kSettingsSize)) {
        why = settings_refusal(g_settings.path, wrong_size_cause(st.st_size));
        return Current::kDamaged;
    }
    unsigned char bytes[kSettingsSize];
    std::memcpy(bytes, g_settings.map, kSettingsSize);
    if (!verify_settings(bytes, kSettingsSize, cause)) {
        why = settings_refusal(g_settings.path, cause);
        return Current::kDamaged;
    }
    return Current::kYes;
}

// Runs fn(settings) under the process mutex and the exclusive file lock, then
// seals the file. The file is checked first, so a damaged one is never sealed
// as if it were good. fn returns false to refuse the change. 0 or -1.
template <typename F>
int update(F &&fn) {
    std::lock_guard lock(g_settings_mutex);
    for (int attempt = 0; attempt < 2; ++attempt) {
        MappedSettings *s = settings_locked();
        if (s == nullptr) return -1;
        Current state = Current::kYes;
        {
            FileLock flock_guard(g_settings.fd, LOCK_EX);
            if (!flock_guard.ok()) {
                const int err = errno;
                record_error("cannot lock " + g_settings.path + ": " + errno_text(err));
                return -1;
            }
            std::string why;
            state = check_current(why);
            if (state == Current::kDamaged) {
                record_error(why);
                store_failed(g_settings.generation, why);
                return -1;
            }
            if (state == Current::kYes) {
                if (!fn(*s)) return -1;
                if (!seal_settings(*s)) {
                    record_error("cannot write " + g_settings.path + ": no SHA-256 available");
                    return -1;
                }
                return 0;
            }
        }
        g_settings.reset();  // replaced: write the file that is there now
    }
    record_error("cannot write the settings: the file keeps being replaced");
    return -1;
}

// The kernel's FIPS flag, read once per process; a missing file means off.
int kernel_fips() {
    static const int value = [] {
        std::FILE *f = std::fopen("/proc/sys/crypto/fips_enabled", "re");
        if (f == nullptr) return 0;
        int v = 0;
        if (std::fscanf(f, "%d", &v) != 1) v = 0;
        std::fclose(f);
        return v != 0 ? 1 : 0;
    }();
    return value;
}

int fips_enabled() {
    int mode = 1;  // without trustworthy settings, the strict policy
    {
        std::lock_guard lock(g_settings_mutex);
        if (MappedSettings *s = settings_locked()) mode = get<std::int32_t>(s->fips);
    }
    if (mode < 0) return kernel_fips();
    return mode != 0 ? 1 : 0;
}

}  // namespace

bool settings_verify(const std::string &root, bool create, std::string &why) {
    SettingsFile file;
    return open_settings(root, create, file, why);
}

void settings_drop() noexcept {
    std::lock_guard lock(g_settings_mutex);
    g_settings.reset();
}

unsigned short settings_self_node() {
    std::lock_guard lock(g_settings_mutex);
    MappedSettings *s = settings_locked();
    return s != nullptr ? get<unsigned short>(s->self_node) : 1;
}

}  // namespace pkey::host

using namespace pkey::host;

extern "C" {

int CRYPTO_FIPSIsEnabled(void) {
    return pkey::c_boundary(1, [] { return fips_enabled(); });
}

int CRYPTO_AlgoIsEnabled(unsigned int algCode) {
    return pkey::c_boundary(0, [&] {
        if (algCode < kAlgoCodes) {
            std::int8_t override_value = -1;  // -1: no switch set, 0: off, 1: on
            {
                std::lock_guard lock(g_settings_mutex);
                if (MappedSettings *s = settings_locked()) override_value = load(s->algo[algCode]);
            }
            if (override_value >= 0) return override_value != 0 ? 1 : 0;
        }
        if (algCode == CRYPTO_ALG_MD5) return fips_enabled() != 0 ? 0 : 1;
        return 1;
    });
}

int Mem_Alert_GetCurrentState(void) {
    return pkey::c_boundary(1, [] {
        std::lock_guard lock(g_settings_mutex);
        MappedSettings *s = settings_locked();
        return s != nullptr ? get<int>(s->mem_alarm) : 1;  // no store: raised, so nothing is made
    });
}

unsigned short DEV_GetSelf(void) {
    return pkey::c_boundary(static_cast<unsigned short>(1), [] { return settings_self_node(); });
}

unsigned int DEV_GetSelfSlot(void) {
    return pkey::c_boundary(1U, [] { return static_cast<unsigned int>(settings_self_node()); });
}

unsigned short *DEV_GetAllStandbyNodes(unsigned int *count) {
    return pkey::c_boundary(static_cast<unsigned short *>(nullptr), [&]() -> unsigned short * {
        if (count != nullptr) *count = 0;
        unsigned short nodes[kMaxStandby];
        unsigned int n = 0;
        {
            std::lock_guard lock(g_settings_mutex);
            MappedSettings *s = settings_locked();
            if (s == nullptr) return nullptr;
            FileLock shared(g_settings.fd, LOCK_SH);
            n = std::min(get<unsigned int>(s->standby_count), kMaxStandby);
            for (unsigned int i = 0; i < n; ++i) nodes[i] = get<unsigned short>(s->standby[i]);
        }
        if (n == 0) return nullptr;
        auto *copy = static_cast<unsigned short *>(std::malloc(n * sizeof(unsigned short)));
        if (copy == nullptr) return nullptr;
        std::memcpy(copy, nodes, n * sizeof(unsigned short));
        if (count != nullptr) *count = n;
        return copy;
    });
}

int DEV_GetDeviceStatusEx(unsigned int node, unsigned int mask, int *status) {
    (void)mask;
    return pkey::c_boundary(-1, [&] {
        if (status == nullptr) return -1;
        int value = DEV_STATUS_NORMAL;
        std::lock_guard lock(g_settings_mutex);
        MappedSettings *s = settings_locked();
        if (s == nullptr) return -1;
        const unsigned int n = std::min(get<unsigned int>(s->status_count), kMaxStatus);
        for (unsigned int i = 0; i < n; ++i) {
            if (get<unsigned int>(s->status[i].node) == node) {
                value = get<int>(s->status[i].status);
                break;
            }
        }
        *status = value;
        return 0;
    });
}

int HOST_SetFipsMode(int on) {
    return pkey::c_boundary(-1, [&] {
        return update([&](MappedSettings &s) {
            put(s.fips, on < 0 ? -1 : (on != 0 ? 1 : 0));
            return true;
        });
    });
}

int HOST_SetAlgoEnabled(unsigned int code, int enabled) {
    return pkey::c_boundary(-1, [&] {
        if (code >= kAlgoCodes) {
            record_error("algorithm switch " + std::to_string(code) + ": no such code (0..255)");
            return -1;
        }
        return update([&](MappedSettings &s) {
            store(s.algo[code], enabled < 0 ? -1 : (enabled != 0 ? 1 : 0));
            return true;
        });
    });
}

int HOST_SetMemAlarm(int state) {
    return pkey::c_boundary(-1, [&] {
        return update([&](MappedSettings &s) {
            put(s.mem_alarm, state);
            return true;
        });
    });
}

int HOST_SetSelfNode(unsigned short node) {
    return pkey::c_boundary(-1, [&] {
        return update([&](MappedSettings &s) {
            put(s.self_node, node);
            return true;
        });
    });
}

int HOST_SetStandbyNodes(const unsigned short *nodes, unsigned int count) {
    if (nodes == nullptr) count = 0;
    count = std::min(count, kMaxStandby);
    return pkey::c_boundary(-1, [&] {
        return update([&](MappedSettings &s) {
            for (unsigned int i = 0; i < count; ++i) put(s.standby[i], nodes[i]);
            put(s.standby_count, count);
            return true;
        });
    });
}

int HOST_SetNodeStatus(unsigned short node, int status) {
    return pkey::c_boundary(-1, [&] {
        return update([&](MappedSettings &s) {
            const unsigned int n = std::min(get<unsigned int>(s.status_count), kMaxStatus);
            for (unsigned int i = 0; i < n; ++i) {
                if (get<unsigned int>(s.status[i].node) == node) {
                    put(s.status[i].status, status);
                    return true;
                }
            }
            if (n == kMaxStatus) {
                record_error("cannot set the status of node " + std::to_string(node) +
                             ": the status table is full (64 nodes)");
                return false;
            }
            // The entry is complete before the count that makes readers look at it.
            put(s.status[n].status, status);
            put(s.status[n].node, node);
            put(s.status_count, n + 1);
            return true;
        });
    });
}

}  // extern "C"
