// Login password services: the service-password encryption switch and the type-7 encoding, a
// reversible disguise (not a secret) of a printable password: two salt characters, then two
// upper-case hex digits per password byte XORed with a keystream chosen by the salt.
#include "login_pwd.h"

#include <sys/random.h>

#include <atomic>
#include <cstdint>
#include <cstring>

#include "platform_conf.h"

namespace {

const char kSaltChars[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
const int kSaltRadix = 62;
// Keystream source; the salt picks where in it a password starts.
const char kKey[] = "q7Wv!Lz0#mRk2Tx&Hp9sYd$Nc4Fb*Gj6Ue@Ai1Oo^Qw3Er(Ty5Ui)Pa8Sd-Fg+Hk";
const int kKeyLen = sizeof kKey - 1;

std::atomic<int> g_encrypt{-1};  // -1: not read from the platform file yet

int salt_index(char c) {
    const char *p = c != '\0' ? strchr(kSaltChars, c) : nullptr;
    return p != nullptr ? static_cast<int>(p - kSaltChars) : -1;
}

uint8_t keystream(int s0, int s1, int i) {
    int off = (s0 * kSaltRadix + s1) % kKeyLen;
    return static_cast<uint8_t>(kKey[(off + i) % kKeyLen]) ^ static_cast<uint8_t>((s0 + i) * 31 + s1);
}

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

bool printable(unsigned char c) {
    return c >= 0x20 && c < 0x7f;
}

}  // namespace

int login_is_service_pwd_encrypt_enable(void) {
    int v = g_encrypt.load();
    if (v < 0) {
        int initial = platform_get().service_password_encryption ? 1 : 0;
        g_encrypt.compare_exchange_strong(v, initial);
        v = g_encrypt.load();
    }
    return v;
}

void login_set_service_pwd_encrypt(int on) {
    g_encrypt.store(on ? 1 : 0);
}

void login_password_encrypt(const char *plain, char *out, int outlen) {
    if (out == nullptr || outlen <= 0) return;
    out[0] = '\0';
    if (plain == nullptr || *plain == '\0') return;
    size_t n = strlen(plain);
    if (2 + 2 * n + 1 > static_cast<size_t>(outlen)) return;
    for (size_t i = 0; i < n; i++)
        if (!printable(static_cast<unsigned char>(plain[i]))) return;

    unsigned char rnd[2];
    if (getrandom(rnd, sizeof rnd, 0) != static_cast<ssize_t>(sizeof rnd)) return;
    int s0 = rnd[0] % kSaltRadix;
    int s1 = rnd[1] % kSaltRadix;
    static const char kHex[] = "0123456789ABCDEF";
    out[0] = kSaltChars[s0];
    out[1] = kSaltChars[s1];
    for (size_t i = 0; i < n; i++) {
        uint8_t c = static_cast<uint8_t>(plain[i]) ^ keystream(s0, s1, static_cast<int>(i));
        out[2 + 2 * i] = kHex[c >> 4];
        out[3 + 2 * i] = kHex[c & 0xf];
    }
    out[2 + 2 * n] = '\0';
}

void login_password_decrypt(const char *encrypted, char *out, int outlen) {
    if (out == nullptr || outlen <= 0) return;
    out[0] = '\0';
    if (encrypted == nullptr) return;
    size_t len = strlen(encrypted);
    if (len < 4 || len % 2 != 0) return;
    size_t n = (len - 2) / 2;
    if (n + 1 > static_cast<size_t>(outlen)) return;
    int s0 = salt_index(encrypted[0]);
    int s1 = salt_index(encrypted[1]);
    if (s0 < 0 || s1 < 0) return;
    for (size_t i = 0; i < n; i++) {
        int hi = hex_value(encrypted[2 + 2 * i]);
        int lo = hex_value(encrypted[3 + 2 * i]);
        if (hi < 0 || lo < 0) {
            out[0] = '\0';
            return;
        }
        uint8_t c = static_cast<uint8_t>(hi << 4 | lo) ^ keystream(s0, s1, static_cast<int>(i));
        if (!printable(c)) {
            out[0] = '\0';
            return;
        }
        out[i] = static_cast<char>(c);
    }
    out[n] = '\0';
}
