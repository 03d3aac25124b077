// VRF of sockets on Linux: a VRF is a VRF device, and a socket lives in it by SO_BINDTODEVICE.
// The device's own VRF option numbers mean other things on Linux and are never used here.
#include "vrf.h"

#include <net/if.h>
#include <sys/socket.h>

#include <cstring>

int vrf_get_socket_vrf(int fd, char *name, size_t len) {
    if (name == nullptr || len == 0) return -1;
    name[0] = '\0';
    char dev[IFNAMSIZ + 1] = {};
    socklen_t dlen = IFNAMSIZ;  // the kernel refuses a shorter buffer
    if (getsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, dev, &dlen) != 0) return -1;
    dev[dlen < IFNAMSIZ ? dlen : IFNAMSIZ] = '\0';
    size_t n = strlen(dev);
    if (n + 1 > len) return -1;
    memcpy(name, dev, n + 1);
    return 0;
}

int vrf_set_socket_vrf(int fd, const char *name) {
    if (name == nullptr || *name == '\0') return 0;
    size_t n = strlen(name);
    if (n >= IFNAMSIZ) return -1;
    return setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name, static_cast<socklen_t>(n + 1)) == 0 ? 0 : -1;
}
