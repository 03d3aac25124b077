// VRF of sockets, mapped to Linux VRF devices (SO_BINDTODEVICE).
#pragma once

#include <cstddef>

// The device name the socket is bound to into name (empty: the default VRF). 0, or -1.
int vrf_get_socket_vrf(int fd, char *name, size_t len);
// Binds fd to the VRF device name; nothing for an empty name. 0, or -1.
int vrf_set_socket_vrf(int fd, const char *name);
