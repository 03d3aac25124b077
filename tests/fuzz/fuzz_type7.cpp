// Fuzz target: type-7 decoding of configured passwords, and the encode/decode round trip. The
// first byte picks the output capacity; the rest is the encoded text.
#include <cstdint>
#include <cstring>

#include "harness.h"
#include "login_pwd.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1 || size > 1024) return 0;
    int outlen = 1 + data[0] % 128;
    auto text = fuzz_text(data + 1, size - 1);
    std::unique_ptr<char[]> out(new char[static_cast<size_t>(outlen)]);
    login_password_decrypt(text.get(), out.get(), outlen);
    if (memchr(out.get(), '\0', static_cast<size_t>(outlen)) == nullptr) __builtin_trap();

    // Whatever the encoder accepts, the decoder gives back unchanged.
    char enc[300];
    login_password_encrypt(text.get(), enc, sizeof enc);
    if (enc[0] != '\0') {
        char back[160];
        login_password_decrypt(enc, back, sizeof back);
        if (strcmp(back, text.get()) != 0) __builtin_trap();
    }
    return 0;
}
