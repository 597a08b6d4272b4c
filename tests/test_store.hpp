// test_store.hpp - a fresh, private store for each test.
//
// TempStore makes an empty directory under $TMPDIR (or /tmp), makes it the
// process's store with HOST_Open and turns FIPS mode off explicitly, so the
// machine's kernel flag never changes a test's outcome. The destructor removes
// the whole tree. Hold one as a member of a test fixture.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "host_platform.h"
#include "pkey_cfgmng.h"
#include "pkey_platform.h"

namespace pkey::test {

class TempStore {
public:
    TempStore() {
        const char *tmp = std::getenv("TMPDIR");
        std::string pattern = (tmp != nullptr && *tmp != '\0') ? tmp : "/tmp";
        pattern += "/pkey-test-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            ADD_FAILURE() << "mkdtemp failed for " << pattern;
            return;
        }
        root_ = std::filesystem::canonical(pattern).string();
        use();
        HOST_SetFipsMode(0);
    }
    ~TempStore() {
        if (root_.empty()) return;
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }
    TempStore(const TempStore &) = delete;
    TempStore &operator=(const TempStore &) = delete;

    // Absolute path of the store root, without a trailing "/".
    const std::string &root() const { return root_; }
    // Node N's flash work directory and memory root inside this store.
    std::string work_dir(unsigned int node) const {
        return root_ + "/node" + std::to_string(node) + "/flash";
    }
    std::string mem_dir(unsigned int node) const {
        return root_ + "/node" + std::to_string(node) + "/run";
    }
    // Makes this store the process's store again (after another TempStore took over).
    void use() const {
        if (HOST_Open(root_.c_str()) != 0) ADD_FAILURE() << "HOST_Open failed for " << root_;
    }

private:
    std::string root_;
};

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

}  // namespace pkey::test
