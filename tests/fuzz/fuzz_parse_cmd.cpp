// Fuzz target: command recognition and argument extraction. The input is one received control
// line, held in a buffer exactly as long as the line so that any read past its end is caught.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/ftpd.h"
#include "control/commands.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const ftp_policy kPolicies[2] = {ftp_policy_of(ftp_profile::device, false),
                                            ftp_policy_of(ftp_profile::standard, true)};
    if (size < 1) return 0;
    // The first byte picks the profile.
    const ftp_policy &policy = kPolicies[data[0] & 1];
    data++;
    size--;
    // The control loop receives at most FTP_BUF_SIZE - 1 bytes and terminates them.
    if (size > FTP_BUF_SIZE - 1) size = FTP_BUF_SIZE - 1;
    char *line = static_cast<char *>(malloc(size + 1));
    memcpy(line, data, size);
    line[size] = '\0';
    char *arg = static_cast<char *>(malloc(FTP_BUF_SIZE));
    memset(arg, 0x5a, FTP_BUF_SIZE);
    const ftp_command *c = ftpd_parse_cmd(line, arg, policy);
    // A recognised command always leaves a terminated argument within the buffer.
    if (c != nullptr && memchr(arg, '\0', FTP_BUF_SIZE) == nullptr) __builtin_trap();
    free(arg);
    free(line);
    return 0;
}
