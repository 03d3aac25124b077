// Fuzz target: the PORT argument (parse_port_data) and the decimal field rule (toint) it uses.
// The first byte picks toint's strict flag; the rest is the argument as the loop hands it over.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/ftpd.h"
#include "transfer/transfer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    int strict = data[0] & 1;
    size_t n = size - 1;
    if (n > FTP_BUF_SIZE - 1) n = FTP_BUF_SIZE - 1;
    char *arg = static_cast<char *>(malloc(n + 1));
    memcpy(arg, data + 1, n);
    arg[n] = '\0';

    int v = toint(arg, strict);
    if (v < -1 || v > 99999) __builtin_trap();

    char addr[FTP_CLIENT_ADDR_LEN];
    int port = parse_port_data(arg, addr);
    if (memchr(addr, '\0', sizeof addr) == nullptr) __builtin_trap();
    (void)port;
    free(arg);
    return 0;
}
