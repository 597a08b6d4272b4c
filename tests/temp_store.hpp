// temp_store.hpp - a fresh, private store for each test.
//
// TempStore makes an empty directory under $TMPDIR (or /tmp, or a directory
// given), makes it the platform's store through the test control seam and
// turns FIPS mode off explicitly, so the platform's default (the machine's
// kernel flag on the host) never changes a test's outcome. The destructor
// removes the whole tree. Hold one as a member of a test fixture.
//
// Only platform_control.h and pkey_platform.h are used, so the platform
// conformance suite, which does not link the library, uses it too.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "pkey_platform.h"
#include "platform_control.h"

namespace pkey::test {

// $TMPDIR, or /tmp when it is not set.
inline std::string temp_base() {
    const char *tmp = std::getenv("TMPDIR");
    return (tmp != nullptr && *tmp != '\0') ? tmp : "/tmp";
}

// A new empty directory base/<prefix>XXXXXX, canonical; "" when it cannot be made.
inline std::string make_temp_dir(const std::string &base, const char *prefix) {
    std::string pattern = base + "/" + prefix + "XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        ADD_FAILURE() << "mkdtemp failed for " << pattern;
        return "";
    }
    return std::filesystem::canonical(pattern).string();
}

class TempStore {
public:
    explicit TempStore(const std::string &base = temp_base())
        : root_(make_temp_dir(base, "pkey-test-")) {
        if (root_.empty()) return;
        use();
        PCTL_SetFipsMode(0);
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
    // Node N's flash work directory and memory root, as the platform names
    // them while this store is the platform's store; "" when it names none.
    std::string work_dir(unsigned int node) const {
        char out[FS_DIR_NAME_LEN] = "";
        return FS_GetNodeDefaultWorkDir(node, sizeof out, out) == 0 ? out : "";
    }
    std::string mem_dir(unsigned int node) const {
        char out[FS_DIR_NAME_LEN] = "";
        return FS_GetNodePathName("/var/run", node, sizeof out, out) == 0 ? out : "";
    }
    // Makes this store the platform's store again (after another TempStore took over).
    void use() const {
        if (PCTL_OpenStore(root_.c_str()) != 0)
            ADD_FAILURE() << "cannot open the store " << root_ << ": " << PCTL_LastError();
    }

private:
    std::string root_;
};

}  // namespace pkey::test
