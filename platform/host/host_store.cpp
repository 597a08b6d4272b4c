// host_store.cpp - the store root of the host platform, HOST_Open and
// HOST_OpenExisting, and the per-thread error of HOST_LastError.
//
// A store is usable once its root is a directory and its settings verify.
// Until the next open succeeds, a failed open leaves the process with no
// store at all rather than with the previous one, so that a tool told to work
// on a damaged store cannot quietly work on another.

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "host_internal.hpp"
#include "host_platform.h"
#include "pkey_util.hpp"

namespace pkey::host {
namespace {

enum class StoreState { kUnopened, kOpen, kFailed };

std::mutex g_store_mutex;
// Guarded by g_store_mutex:
StoreState g_state = StoreState::kUnopened;
std::string g_root;                                    // when kOpen
std::string g_failure;                                 // when kFailed: why there is no usable store
std::uint64_t g_generation = 0;                        // bumped at every open, failed or not
std::atomic<std::uint64_t> g_published_generation{0};  // g_generation, readable without the mutex

thread_local std::string t_last_error;

std::atomic<pid_t> g_pid{0};
void refresh_pid_in_child() noexcept { g_pid.store(::getpid(), std::memory_order_relaxed); }

std::string default_root() {
    const char *env = std::getenv("PKEY_ROOT");
    return env != nullptr && *env != '\0' ? env : "./pkey-store";
}

// mkdir -p with mode 0770 for every directory it has to create.
bool make_dirs(const std::string &path, std::string &why) {
    std::string prefix;
    prefix.reserve(path.size());
    std::size_t pos = 0;
    while (pos <= path.size()) {
        std::size_t slash = path.find('/', pos);
        if (slash == std::string::npos) slash = path.size();
        prefix.assign(path, 0, slash);
        if (!prefix.empty() && ::mkdir(prefix.c_str(), 0770) != 0 && errno != EEXIST) {
            const int err = errno;
            why = "cannot create the pkey store " + path + ": " + errno_text(err);
            return false;
        }
        pos = slash + 1;
    }
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        const int err = errno;
        why = "cannot create the pkey store " + path + ": " + errno_text(err);
        return false;
    }
    if (!S_ISDIR(st.st_mode)) {
        why = "cannot use " + path + " as a pkey store: not a directory";
        return false;
    }
    return true;
}

// The absolute, symlink-free form of root; with create the directories are
// made first, without it root must be a directory already. "" on failure.
std::string resolve_root(const std::string &root, bool create, std::string &why) {
    if (create) {
        if (!make_dirs(root, why)) return {};
    } else {
        struct stat st {};
        if (::stat(root.c_str(), &st) != 0) {
            const int err = errno;
            why = err == ENOENT ? "no pkey store at " + root + " (no such directory)"
                                : "cannot reach the pkey store " + root + ": " + errno_text(err);
            return {};
        }
        if (!S_ISDIR(st.st_mode)) {
            why = "no pkey store at " + root + " (not a directory)";
            return {};
        }
    }
    MallocPtr<char> real(::realpath(root.c_str(), nullptr));
    if (!real) {
        const int err = errno;
        why = "cannot resolve the pkey store " + root + ": " + errno_text(err);
        return {};
    }
    return std::string(real.get());
}

// Makes root (NULL or "": the default root) the process's store, or leaves
// the process without one. Caller holds g_store_mutex.
bool open_locked(const char *root, bool create) {
    const std::string text = root != nullptr && *root != '\0' ? root : default_root();
    std::string why;
    std::string real = resolve_root(text, create, why);
    if (!real.empty() && !settings_verify(real, create, why)) real.clear();
    ++g_generation;
    if (real.empty()) {
        g_state = StoreState::kFailed;
        g_root.clear();
        g_failure = why;
        record_error(why);
    } else {
        g_state = StoreState::kOpen;
        g_root = std::move(real);
        g_failure.clear();
    }
    g_published_generation.store(g_generation, std::memory_order_release);
    return g_state == StoreState::kOpen;
}

// HOST_Open and HOST_OpenExisting: switch, then let go of everything the
// previous store left in the caches.
int open_store(const char *root, bool create) {
    bool ok = false;
    {
        std::lock_guard lock(g_store_mutex);
        ok = open_locked(root, create);
    }
    settings_drop();
    cipher_drop();
    dbm_drop();
    return ok ? 0 : -1;
}

}  // namespace

void record_error(std::string_view message) {
    if (t_last_error.empty()) t_last_error.assign(message);
}

std::string errno_text(int err) {
    char buf[256];
    // The GNU strerror_r returns its text, which may or may not be buf.
    return ::strerror_r(err, buf, sizeof buf);
}

StoreRef current_store() {
    std::lock_guard lock(g_store_mutex);
    if (g_state == StoreState::kUnopened) (void)open_locked(nullptr, true);
    if (g_state == StoreState::kFailed) record_error(g_failure);
    return StoreRef{g_root, g_generation};
}

std::uint64_t current_generation() {
    const std::uint64_t generation = g_published_generation.load(std::memory_order_acquire);
    return generation != 0 ? generation : current_store().generation;
}

void store_failed(std::uint64_t generation, const std::string &reason) {
    std::lock_guard lock(g_store_mutex);
    if (g_state != StoreState::kOpen || g_generation != generation) return;
    g_state = StoreState::kFailed;
    g_root.clear();
    g_failure = reason;
    g_published_generation.store(++g_generation, std::memory_order_release);
}

int process_id() noexcept {
    pid_t pid = g_pid.load(std::memory_order_relaxed);
    if (pid == 0) {
        static std::once_flag registered;
        std::call_once(registered,
                       [] { (void)::pthread_atfork(nullptr, nullptr, refresh_pid_in_child); });
        pid = ::getpid();
        g_pid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

std::string node_path(std::string_view root, unsigned int node, std::string_view leaf) {
    std::string out;
    out.reserve(root.size() + leaf.size() + 16);
    out.append(root).append("/node").append(std::to_string(node)).append("/").append(leaf);
    return out;
}

}  // namespace pkey::host

extern "C" {

int HOST_Open(const char *root) {
    return pkey::c_boundary(-1, [&] { return pkey::host::open_store(root, true); });
}

int HOST_OpenExisting(const char *root) {
    return pkey::c_boundary(-1, [&] { return pkey::host::open_store(root, false); });
}

const char *HOST_LastError(void) { return pkey::host::t_last_error.c_str(); }

void HOST_ClearError(void) { pkey::host::t_last_error.clear(); }

}  // extern "C"
