// Which wire profile the daemon speaks: the device's, byte for byte, or the standard one that
// stock clients on plain Linux need. Read once from the platform at start-up.
#include <atomic>

#include "ftp_platform.h"
#include "base/ftpd.h"

namespace {
std::atomic<bool> standard_profile{false};
}  // namespace

void ftpd_profile_init(void) {
    standard_profile = platform_ftp_profile() == PLATFORM_FTP_PROFILE_STANDARD;
}

bool ftpd_standard(void) {
    return standard_profile.load(std::memory_order_relaxed);
}

void ftpd_profile_set(bool standard) {
    standard_profile = standard;
}
