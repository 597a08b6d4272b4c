// host_lazy_probe - a process that never calls HOST_Open. It reports what the
// platform's services give it for the store $PKEY_ROOT names, so a test can
// check the lazy open against a damaged, old or missing store.
#include <cstdio>

#include "host_platform.h"
#include "pkey_platform.h"

int main() {
    char dir[512];
    const int fips = CRYPTO_FIPSIsEnabled();
    const int alarm = Mem_Alert_GetCurrentState() != 0 ? 1 : 0;
    const bool workdir = FS_GetNodeDefaultWorkDir(1, sizeof dir, dir) == 0;
    std::printf("fips=%d alarm=%d workdir=%s error=%s\n", fips, alarm, workdir ? "ok" : "fail",
                HOST_LastError());
    return 0;
}
