// Fuzz target: command recognition and argument extraction. The input is one received control
// line, held in a buffer exactly as long as the line so that any read past its end is caught.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/ftpd.h"
#include "control/parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // The control loop receives at most FTP_BUF_SIZE - 1 bytes and terminates them.
    if (size > FTP_BUF_SIZE - 1) size = FTP_BUF_SIZE - 1;
    char *line = static_cast<char *>(malloc(size + 1));
    memcpy(line, data, size);
    line[size] = '\0';
    char *arg = static_cast<char *>(malloc(FTP_BUF_SIZE));
    memset(arg, 0x5a, FTP_BUF_SIZE);
    int code = ftpd_parse_cmd(line, arg);
    // A recognised command always leaves a terminated argument within the buffer.
    if (code != 0 && code != FTP_CMD_BADLINE && memchr(arg, '\0', FTP_BUF_SIZE) == nullptr) __builtin_trap();
    free(arg);
    free(line);
    return 0;
}
