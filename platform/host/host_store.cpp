// host_store.cpp - the store root of the host platform and HOST_Open.

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

std::mutex g_store_mutex;
std::string g_root;             // guarded by g_store_mutex
std::uint64_t g_generation = 0;  // bumped at every successful switch of root
std::atomic<std::uint64_t> g_published_generation{0};  // g_generation, readable without the mutex

thread_local std::string t_last_error;

std::atomic<pid_t> g_pid{0};
void refresh_pid_in_child() noexcept { g_pid.store(::getpid(), std::memory_order_relaxed); }

// mkdir -p with mode 0770 for every directory it has to create.
bool make_dirs(const std::string &path) {
    std::string prefix;
    prefix.reserve(path.size());
    std::size_t pos = 0;
    while (pos <= path.size()) {
        std::size_t slash = path.find('/', pos);
        if (slash == std::string::npos) slash = path.size();
        prefix.assign(path, 0, slash);
        if (!prefix.empty() && ::mkdir(prefix.c_str(), 0770) != 0 && errno != EEXIST) return false;
        pos = slash + 1;
    }
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Creates the root if needed and returns its absolute, symlink-free form ("" on failure).
std::string prepare_root(const char *root) {
    if (root == nullptr || *root == '\0') return {};
    if (!make_dirs(root)) return {};
    MallocPtr<char> real(::realpath(root, nullptr));
    if (!real) return {};
    return std::string(real.get());
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
    if (g_root.empty()) {
        const char *env = std::getenv("PKEY_ROOT");
        std::string root = prepare_root(env != nullptr && *env != '\0' ? env : "./pkey-store");
        if (!root.empty()) {
            g_root = std::move(root);
            g_published_generation.store(++g_generation, std::memory_order_release);
        }
    }
    return StoreRef{g_root, g_generation};
}

std::uint64_t current_generation() {
    const std::uint64_t generation = g_published_generation.load(std::memory_order_acquire);
    return generation != 0 ? generation : current_store().generation;
}

int process_id() noexcept {
    pid_t pid = g_pid.load(std::memory_order_relaxed);
    if (pid == 0) {
        static std::once_flag registered;
        std::call_once(registered, [] { (void)::pthread_atfork(nullptr, nullptr, refresh_pid_in_child); });
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

extern "C" int HOST_Open(const char *root) {
    using namespace pkey::host;
    return pkey::c_boundary(-1, [&] {
        std::string real = prepare_root(root);
        if (real.empty()) return -1;
        {
            std::lock_guard lock(g_store_mutex);
            g_root = std::move(real);
            g_published_generation.store(++g_generation, std::memory_order_release);
        }
        settings_drop();
        cipher_drop();
        dbm_drop();
        return 0;
    });
}

extern "C" const char *HOST_LastError(void) { return pkey::host::t_last_error.c_str(); }

extern "C" void HOST_ClearError(void) { pkey::host::t_last_error.clear(); }
