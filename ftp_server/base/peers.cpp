// The per-address session counts: one table of the addresses that hold sessions, under its own
// lock (never held with another).
#include "base/peers.h"

#include <netinet/in.h>

#include <cstring>
#include <mutex>

#include "base/ftpd.h"

namespace {

// Every session holds at most one entry; the limit of sessions bounds the table.
constexpr int kEntries = FTP_MAX_SLOTS;

struct entry {
    unsigned char addr[16];  // IPv4 as IPv4-mapped IPv6
    int count;
};

std::mutex g_lock;
entry g_table[kEntries];

// The address as 16 bytes: IPv4 and IPv4-mapped IPv6 alike.
void key_of(const struct sockaddr_storage &a, unsigned char out[16]) {
    memset(out, 0, 16);
    if (a.ss_family == AF_INET6) {
        memcpy(out, &reinterpret_cast<const struct sockaddr_in6 *>(&a)->sin6_addr, 16);
        return;
    }
    out[10] = out[11] = 0xff;
    memcpy(out + 12, &reinterpret_cast<const struct sockaddr_in *>(&a)->sin_addr, 4);
}

int find_locked(const unsigned char key[16]) {
    for (int i = 0; i < kEntries; i++)
        if (g_table[i].count > 0 && memcmp(g_table[i].addr, key, 16) == 0) return i;
    return -1;
}

}  // namespace

bool ftp_address_hold::enter(const struct sockaddr_storage &addr, int limit) {
    leave();
    if (limit <= 0) return true;
    unsigned char key[16];
    key_of(addr, key);
    std::lock_guard<std::mutex> lock(g_lock);
    int i = find_locked(key);
    if (i >= 0 && g_table[i].count >= limit) return false;
    if (i < 0) {
        for (i = 0; i < kEntries && g_table[i].count > 0; i++) {
        }
        if (i == kEntries) return false;
        memcpy(g_table[i].addr, key, 16);
    }
    g_table[i].count++;
    entry_ = i;
    return true;
}

void ftp_address_hold::leave() {
    if (entry_ < 0) return;
    std::lock_guard<std::mutex> lock(g_lock);
    g_table[entry_].count--;
    entry_ = -1;
}

int ftp_address_sessions(const struct sockaddr_storage &addr) {
    unsigned char key[16];
    key_of(addr, key);
    std::lock_guard<std::mutex> lock(g_lock);
    int i = find_locked(key);
    return i >= 0 ? g_table[i].count : 0;
}
