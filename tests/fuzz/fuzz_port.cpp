// Fuzz target: the PORT argument (parse_port_data) and the decimal field rule (toint) it uses.
// The first byte picks toint's strict flag; the rest is the argument as the loop hands it over.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "base/ftpd.h"
#include "harness.h"
#include "transfer/transfer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    auto arg = fuzz_text(data + 1, std::min<size_t>(size - 1, FTP_BUF_SIZE - 1));
    int v = toint(arg.get(), data[0] & 1);
    if (v < -1 || v > 99999) __builtin_trap();
    char addr[FTP_CLIENT_ADDR_LEN];
    (void)parse_port_data(arg.get(), addr);
    if (memchr(addr, '\0', sizeof addr) == nullptr) __builtin_trap();
    return 0;
}
