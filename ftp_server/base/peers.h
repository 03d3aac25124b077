// Sessions per client address: how many sessions each client address holds, so that one host
// cannot take every session.
#pragma once

#include <sys/socket.h>

#include <cstdint>

// A session's hold on its client address's count; given back when it ends.
class ftp_address_hold {
  public:
    ftp_address_hold() = default;
    ~ftp_address_hold() { leave(); }
    ftp_address_hold(const ftp_address_hold &) = delete;
    ftp_address_hold &operator=(const ftp_address_hold &) = delete;

    // Counts one more session of the address; false (nothing counted) when it already holds
    // limit sessions. A limit of 0 counts nothing and always admits.
    bool enter(const struct sockaddr_storage &addr, int limit);
    void leave();

  private:
    int entry_ = -1;
};

// Sessions the address holds now.
int ftp_address_sessions(const struct sockaddr_storage &addr);
