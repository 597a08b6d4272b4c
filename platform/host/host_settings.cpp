// host_settings.cpp - settings shared by every process using a store, and the
// services that report them (crypto mode and algorithm switches, memory alarm,
// node identity, standby nodes, node status).
//
// <root>/settings is a small fixed-layout file that every process maps
// MAP_SHARED. A change is a few atomic stores into the mapping, so the next
// call of any process sees it without re-reading anything. Writers hold an
// exclusive flock on the file; the standby list, the one field that is more
// than one word, is read under a shared flock so no reader sees half a list.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "host_internal.hpp"
#include "host_platform.h"
#include "pkey_platform.h"
#include "pkey_util.hpp"

namespace pkey::host {
namespace {

constexpr std::uint32_t kSettingsMagic = 0x50484B53U;  // "PHKS"
constexpr std::uint32_t kSettingsVersion = 1;
constexpr unsigned int kMaxStandby = 64;
constexpr unsigned int kMaxStatus = 64;
constexpr unsigned int kAlgoCodes = 256;

struct NodeStatus {
    std::uint32_t node;
    std::int32_t status;
};

struct SettingsLayout {
    std::uint32_t magic;
    std::uint32_t version;
    std::uint32_t size;
    std::int32_t fips;       // -1 follow the kernel, 0 off, 1 on
    std::int32_t mem_alarm;  // 0 normal
    std::uint32_t self_node;
    std::uint32_t standby_count;
    std::uint32_t status_count;
    std::uint16_t standby[kMaxStandby];
    NodeStatus status[kMaxStatus];
    std::int8_t algo[kAlgoCodes];  // -1 default, 0 disabled, 1 enabled
};

template <typename T>
T load(const T &field) noexcept {
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}
template <typename T, typename V>
void store(T &field, V value) noexcept {
    __atomic_store_n(&field, static_cast<T>(value), __ATOMIC_RELEASE);
}

void fill_defaults(SettingsLayout &s) noexcept {
    std::memset(&s, 0, sizeof s);
    s.magic = kSettingsMagic;
    s.version = kSettingsVersion;
    s.size = sizeof s;
    s.fips = -1;
    s.mem_alarm = 0;
    s.self_node = 1;
    std::memset(s.algo, 0xFF, sizeof s.algo);
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

private:
    int fd_;
    bool ok_;
};

struct SettingsMap {
    std::uint64_t generation = 0;
    pid_t pid = 0;
    int fd = -1;
    SettingsLayout *map = nullptr;

    void reset() noexcept {
        if (map != nullptr) ::munmap(map, sizeof *map);
        if (fd >= 0) ::close(fd);
        map = nullptr;
        fd = -1;
        generation = 0;
        pid = 0;
    }
};

std::mutex g_settings_mutex;
SettingsMap g_settings;  // guarded by g_settings_mutex

// Opens and maps <root>/settings, (re)writing the defaults when the file is
// new or was left by another layout.
bool map_settings(const std::string &root, SettingsMap &out) {
    const std::string path = root + "/settings";
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0660);
    if (fd < 0) return false;
    {
        FileLock lock(fd, LOCK_EX);
        struct stat st {};
        if (::fstat(fd, &st) != 0) {
            ::close(fd);
            return false;
        }
        SettingsLayout current{};
        bool valid = st.st_size == static_cast<off_t>(sizeof current) &&
                     ::pread(fd, &current, sizeof current, 0) == static_cast<ssize_t>(sizeof current) &&
                     current.magic == kSettingsMagic && current.version == kSettingsVersion &&
                     current.size == sizeof current;
        if (!valid) {
            if (st.st_size == 0) (void)::fchmod(fd, 0660);  // a file we just made: umask aside
            SettingsLayout fresh;
            fill_defaults(fresh);
            if (::ftruncate(fd, sizeof fresh) != 0 ||
                ::pwrite(fd, &fresh, sizeof fresh, 0) != static_cast<ssize_t>(sizeof fresh)) {
                ::close(fd);
                return false;
            }
        }
    }
    void *p = ::mmap(nullptr, sizeof(SettingsLayout), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (p == MAP_FAILED) {
        ::close(fd);
        return false;
    }
    out.fd = fd;
    out.map = static_cast<SettingsLayout *>(p);
    return true;
}

// The mapping of the current store, remade after a root switch or a fork (a
// child needs its own open file: flock locks belong to the open file, which a
// child shares with its parent). Caller holds g_settings_mutex. NULL when the
// settings cannot be mapped.
SettingsLayout *settings_locked() {
    const pid_t pid = process_id();
    if (g_settings.map != nullptr && g_settings.generation == current_generation() &&
        g_settings.pid == pid)
        return g_settings.map;
    StoreRef store = current_store();
    if (store.root.empty()) return nullptr;
    g_settings.reset();
    if (!map_settings(store.root, g_settings)) return nullptr;
    g_settings.generation = store.generation;
    g_settings.pid = pid;
    return g_settings.map;
}

// Runs fn(settings) under the process mutex and the exclusive file lock.
template <typename F>
void update(F &&fn) {
    std::lock_guard lock(g_settings_mutex);
    SettingsLayout *s = settings_locked();
    if (s == nullptr) return;
    FileLock flock_guard(g_settings.fd, LOCK_EX);
    fn(*s);
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
    int mode = -1;
    {
        std::lock_guard lock(g_settings_mutex);
        if (SettingsLayout *s = settings_locked()) mode = load(s->fips);
    }
    if (mode < 0) return kernel_fips();
    return mode != 0 ? 1 : 0;
}

}  // namespace

void settings_drop() noexcept {
    std::lock_guard lock(g_settings_mutex);
    g_settings.reset();
}

unsigned short settings_self_node() {
    std::lock_guard lock(g_settings_mutex);
    SettingsLayout *s = settings_locked();
    return s != nullptr ? static_cast<unsigned short>(load(s->self_node)) : 1;
}

}  // namespace pkey::host

using namespace pkey::host;

extern "C" {

int CRYPTO_FIPSIsEnabled(void) {
    return pkey::c_boundary(0, [] { return fips_enabled(); });
}

int CRYPTO_AlgoIsEnabled(unsigned int algCode) {
    return pkey::c_boundary(0, [&] {
        if (algCode < kAlgoCodes) {
            int override_value = -1;
            {
                std::lock_guard lock(g_settings_mutex);
                if (SettingsLayout *s = settings_locked()) override_value = load(s->algo[algCode]);
            }
            if (override_value >= 0) return override_value != 0 ? 1 : 0;
        }
        if (algCode == CRYPTO_ALG_MD5) return fips_enabled() != 0 ? 0 : 1;
        return 1;
    });
}

int Mem_Alert_GetCurrentState(void) {
    return pkey::c_boundary(0, [] {
        std::lock_guard lock(g_settings_mutex);
        SettingsLayout *s = settings_locked();
        return s != nullptr ? static_cast<int>(load(s->mem_alarm)) : 0;
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
            SettingsLayout *s = settings_locked();
            if (s == nullptr) return nullptr;
            FileLock shared(g_settings.fd, LOCK_SH);
            n = std::min(load(s->standby_count), kMaxStandby);
            for (unsigned int i = 0; i < n; ++i) nodes[i] = load(s->standby[i]);
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
        if (SettingsLayout *s = settings_locked()) {
            const unsigned int n = std::min(load(s->status_count), kMaxStatus);
            for (unsigned int i = 0; i < n; ++i) {
                if (load(s->status[i].node) == node) {
                    value = load(s->status[i].status);
                    break;
                }
            }
        }
        *status = value;
        return 0;
    });
}

int HOST_SetFipsMode(int on) {
    return pkey::c_boundary(-1, [&] {
        update([&](SettingsLayout &s) { store(s.fips, on < 0 ? -1 : (on != 0 ? 1 : 0)); });
        return 0;
    });
}

int HOST_SetAlgoEnabled(unsigned int code, int enabled) {
    if (code >= kAlgoCodes) return -1;
    return pkey::c_boundary(-1, [&] {
        update([&](SettingsLayout &s) {
            store(s.algo[code], enabled < 0 ? -1 : (enabled != 0 ? 1 : 0));
        });
        return 0;
    });
}

int HOST_SetMemAlarm(int state) {
    return pkey::c_boundary(-1, [&] { update([&](SettingsLayout &s) { store(s.mem_alarm, state); }); return 0; });
}

int HOST_SetSelfNode(unsigned short node) {
    return pkey::c_boundary(-1, [&] { update([&](SettingsLayout &s) { store(s.self_node, node); }); return 0; });
}

int HOST_SetStandbyNodes(const unsigned short *nodes, unsigned int count) {
    if (nodes == nullptr) count = 0;
    count = std::min(count, kMaxStandby);
    return pkey::c_boundary(-1, [&] {
        update([&](SettingsLayout &s) {
            for (unsigned int i = 0; i < count; ++i) store(s.standby[i], nodes[i]);
            store(s.standby_count, count);
        });
        return 0;
    });
}

int HOST_SetNodeStatus(unsigned short node, int status) {
    return pkey::c_boundary(-1, [&] {
        update([&](SettingsLayout &s) {
            const unsigned int n = std::min(load(s.status_count), kMaxStatus);
            for (unsigned int i = 0; i < n; ++i) {
                if (load(s.status[i].node) == node) {
                    store(s.status[i].status, status);
                    return;
                }
            }
            if (n == kMaxStatus) return;  // table full: the node keeps reporting normal
            // The entry is complete before the count that makes readers look at it.
            store(s.status[n].status, status);
            store(s.status[n].node, node);
            store(s.status_count, n + 1);
        });
        return 0;
    });
}

}  // extern "C"
