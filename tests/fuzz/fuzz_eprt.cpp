// Fuzz target: EPRT through the real handler, with a socket pair standing for the control
// connection; the reply is drained after each input so the pair never fills.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/ftpd.h"
#include "data/dataconn.h"

namespace {
int ctl[2] = {-1, -1};

void drain() {
    char b[4096];
    while (recv(ctl[1], b, sizeof b, MSG_DONTWAIT) > 0) {
    }
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ctl) != 0) abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > FTP_BUF_SIZE - 1) size = FTP_BUF_SIZE - 1;
    char *arg = static_cast<char *>(malloc(size + 1));
    memcpy(arg, data, size);
    arg[size] = '\0';

    struct credentials cred;
    memset(&cred, 0, sizeof cred);
    cred.logged_in = 1;
    cred.usedefault = 1;
    cred.listen_pdata = cred.pdata = cred.data = -1;
    cred.ctl_fd = ctl[0];
    cred.cnt.contrl_type = AF_INET;
    char client_addr[FTP_CLIENT_ADDR_LEN];
    memset(client_addr, 0, sizeof client_addr);
    int client_port = 0;
    if (command_eprt(ctl[0], arg, client_addr, sizeof client_addr, &client_port, &cred) != 0) __builtin_trap();
    if (memchr(client_addr, '\0', sizeof client_addr) == nullptr) __builtin_trap();
    drain();
    free(arg);
    return 0;
}
