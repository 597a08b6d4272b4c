// test_store.hpp - stores for the library's tests (TempStore comes from
// temp_store.hpp), and what the tests look at in them.
//
// A few tests check what the host platform adds to the promises of
// pkey_platform.h (its names of files, its store layout); PKEY_TEST_HOST_ONLY
// skips them on other platforms, saying why.
//
// Sandbox puts a TempStore inside a private parent directory, so that a test
// sees every change a call makes next to the store; expect_escaping_names_refused
// uses it to attack every entry point that turns a key name into a path.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "pkey_cfgmng.h"
#include "pkey_fs.h"
#include "pkey_local.h"
#include "pkey_platform.h"
#include "temp_store.hpp"
#include "test_util.hpp"

// Set by the build: 1 when the tests run on the host platform.
#ifndef PKEY_TEST_ON_HOST
#error "PKEY_TEST_ON_HOST must be defined (1 on the host platform, 0 elsewhere)"
#endif
#define PKEY_TEST_HOST_ONLY(why) \
    if (!PKEY_TEST_ON_HOST) GTEST_SKIP() << "host platform only: " << why

namespace pkey::test {

// A test on a fresh store of its own, with the paths of node 1's key files:
// mem("rsa/k.key") names a memory copy, dev("pkey/rsa/k.key") a device copy.
// GCC 12 for 32-bit ARM reports a use after free in this fixture's deleting
// destructor, which only destroys the store; the warning is off for this
// class with GCC before 13.
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ < 13
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuse-after-free"
#endif
class StoreTest : public ::testing::Test {
protected:
    std::string mem(const std::string &rel) const { return store.mem_dir(1) + "/pkey/" + rel; }
    std::string dev(const std::string &rel) const { return store.work_dir(1) + "/" + rel; }
    TempStore store;
};
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ < 13
#pragma GCC diagnostic pop
#endif

// The peer key names of the current store, as the sorted name list gives them.
inline std::vector<std::string> peer_names() {
    const int h = PKEY_CFGMNG_OpenDBM(PKEY_CFGMNG_MODE_READ);
    unsigned int count = 0;
    PKEY_NAME_LINK_S *head = PKEY_CFGMNG_GetSortedPeerKeyNameList(h, &count);
    DBM_Close(h);
    std::vector<std::string> names;
    for (PKEY_NAME_LINK_S *l = head ? head->pstNext : nullptr; l && l != head; l = l->pstNext)
        names.push_back(reinterpret_cast<PKEY_NAME_NODE_S *>(l)->szName);
    EXPECT_EQ(count, names.size());
    PKEY_CFGMNG_DestroySortedPeerKeyNameList(head);
    return names;
}

// Type, mode, size, owner and modification time of a path, symlinks not
// followed; "<missing>" when there is nothing.
inline std::string stat_line(const std::string &path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return "<missing>";
    char line[160];
    std::snprintf(line, sizeof line, "mode %o size %lld owner %u:%u mtime %lld.%09ld",
                  static_cast<unsigned>(st.st_mode), static_cast<long long>(st.st_size),
                  static_cast<unsigned>(st.st_uid), static_cast<unsigned>(st.st_gid),
                  static_cast<long long>(st.st_mtim.tv_sec), st.st_mtim.tv_nsec);
    return line;
}

// Every path below root (root itself as "."), each with its stat_line,
// leaving out the subtrees named in skip (paths relative to root).
inline std::map<std::string, std::string> tree_listing(const std::string &root,
                                                       const std::vector<std::string> &skip = {}) {
    namespace fsys = std::filesystem;
    std::map<std::string, std::string> out{{".", stat_line(root)}};
    for (auto it = fsys::recursive_directory_iterator(root);
         it != fsys::recursive_directory_iterator(); ++it) {
        const std::string rel = it->path().string().substr(root.size() + 1);
        if (std::find(skip.begin(), skip.end(), rel) != skip.end()) {
            it.disable_recursion_pending();
            continue;
        }
        out[rel] = stat_line(it->path().string());
    }
    return out;
}

// A store inside a private parent directory that also holds a few files of
// its own ("outside/..."). Both go with the object.
class Sandbox {
public:
    Sandbox() : parent_(make_temp_dir(temp_base(), "pkey-sandbox-")) {
        store_ = std::make_unique<TempStore>(parent_);
        put(parent_ + "/outside/notes", "a file next to the store");
        age(parent_ + "/outside/notes");
    }
    ~Sandbox() {
        store_.reset();
        std::error_code ec;
        if (!parent_.empty()) std::filesystem::remove_all(parent_, ec);
    }
    Sandbox(const Sandbox &) = delete;
    Sandbox &operator=(const Sandbox &) = delete;

    const std::string &parent() const { return parent_; }
    TempStore &store() const { return *store_; }

    // Every path below the parent, the parent itself included but not the
    // store's tree, with its stat_line.
    std::map<std::string, std::string> listing() const {
        return tree_listing(parent_, {store_->root().substr(parent_.size() + 1)});
    }

    // Puts a real key file of this store (key, saved as a host key of alg)
    // where the memory and the device copy of a key called name would go, as
    // the name builder forms those paths: a call that used the name would find,
    // read, replace or remove it. The files get a mode, owner and time the
    // store never gives its own. Returns their paths.
    std::vector<std::string> plant_key_files(unsigned int alg, EVP_PKEY *key, const char *name) {
        std::vector<std::string> planted;
        if (PKEY_LOCAL_SaveLocalKey(alg, PKEY_KEY_HOST, key, "seed") != 0) {
            ADD_FAILURE() << "cannot save the key to plant";
            return planted;
        }
        const std::string image = get(key_path(alg, "seed", PKEY_FS_MakeMemFilePrefix));
        std::set<std::string> paths;
        for (PKEY_FS_PREFIX_FN prefix : {PKEY_FS_MakeMemFilePrefix, PKEY_FS_MakeDevFilePrefix})
            paths.insert(std::filesystem::path(key_path(alg, name, prefix)).lexically_normal());
        for (const std::string &path : paths) {
            put(path, image);
            ::chmod(path.c_str(), 0604);
            if (::geteuid() == 0) {
                EXPECT_EQ(::chown(path.c_str(), 7, 7), 0);
            }
            age(path);
            planted.push_back(path);
        }
        return planted;
    }

private:
    static std::string key_path(unsigned int alg, const char *name, PKEY_FS_PREFIX_FN prefix) {
        char path[PKEY_PATH_LEN] = "";
        PKEY_FS_MakeFullFileName(alg, PKEY_KEY_HOST, DEV_GetSelf(), name, prefix, path);
        return path;
    }
    // A modification time long past, so that even a rewrite within the same
    // clock tick shows.
    static void age(const std::string &path) {
        const timespec times[2] = {{978307200, 0}, {978307200, 0}};
        ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
    }

    std::string parent_;
    std::unique_ptr<TempStore> store_;
};

// Key names that would lead a key file out of its key directory. The last
// climbs from the key directory of either copy to the sandbox's parent.
inline const std::vector<std::string> kEscapingKeyNames = {"../x", "a/b", ".", "..",
                                                           "../../../../../outside/v1"};

// One entry point under attack: refuses calls it with a key name and says
// whether it gave its ordinary failure result. It runs in a child process.
struct NameAttack {
    std::string entry;
    unsigned int alg;  // of the key file planted where the name leads
    EVP_PKEY *key;     // made before the attack, so the child has it
    std::function<bool(const char *name)> refuses;
};

// Every attack with every escaping name, each on a fresh sandbox with real key
// files where the name leads: the call must fail promptly and change nothing,
// neither the planted files (bytes, mode, owner, time) nor anything next to
// the store. The store itself is left to the test; it is no longer in use
// afterwards.
inline void expect_escaping_names_refused(const std::vector<NameAttack> &attacks) {
    for (const NameAttack &attack : attacks) {
        for (const std::string &name : kEscapingKeyNames) {
            SCOPED_TRACE(attack.entry + "(\"" + name + "\")");
            Sandbox box;
            const std::vector<std::string> planted =
                box.plant_key_files(attack.alg, attack.key, name.c_str());
            auto describe = [&] {
                std::vector<std::string> out;
                for (const std::string &p : planted) out.push_back(stat_line(p) + " " + get(p));
                return out;
            };
            const auto listing = box.listing();
            const auto files = describe();
            EXPECT_EQ(exit_code_within([&] { return attack.refuses(name.c_str()) ? 0 : 1; }), 0);
            EXPECT_EQ(box.listing(), listing);
            EXPECT_EQ(describe(), files);
        }
    }
}

}  // namespace pkey::test
