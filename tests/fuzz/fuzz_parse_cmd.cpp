// Fuzz target: command recognition and argument extraction. The input is one received control
// line, held in a buffer exactly as long as the line so that any read past its end is caught.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "base/ftpd.h"
#include "control/commands.h"
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const ftp_policy kPolicies[2] = {ftp_policy_of(ftp_profile::device, false),
                                            ftp_policy_of(ftp_profile::standard, true)};
    if (size < 1) return 0;
    // The first byte picks the profile; the control loop receives at most FTP_BUF_SIZE - 1 bytes
    // and terminates them.
    auto line = fuzz_text(data + 1, std::min<size_t>(size - 1, FTP_BUF_SIZE - 1));
    std::unique_ptr<char[]> arg(new char[FTP_BUF_SIZE]);
    memset(arg.get(), 0x5a, FTP_BUF_SIZE);
    const ftp_command *c = ftpd_parse_cmd(line.get(), arg.get(), kPolicies[data[0] & 1]);
    // A recognised command always leaves a terminated argument within the buffer.
    if (c != nullptr && memchr(arg.get(), '\0', FTP_BUF_SIZE) == nullptr) __builtin_trap();
    return 0;
}
