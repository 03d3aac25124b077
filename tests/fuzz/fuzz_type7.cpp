// Fuzz target: type-7 decoding of configured passwords, and the encode/decode round trip. The
// first byte picks the output capacity; the rest is the encoded text.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "login_pwd.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1 || size > 1024) return 0;
    int outlen = 1 + data[0] % 128;
    char *text = static_cast<char *>(malloc(size));
    memcpy(text, data + 1, size - 1);
    text[size - 1] = '\0';
    char *out = static_cast<char *>(malloc(static_cast<size_t>(outlen)));
    login_password_decrypt(text, out, outlen);
    if (memchr(out, '\0', static_cast<size_t>(outlen)) == nullptr) __builtin_trap();

    // Whatever the encoder accepts, the decoder gives back unchanged.
    char enc[300];
    login_password_encrypt(text, enc, sizeof enc);
    if (enc[0] != '\0') {
        char back[160];
        login_password_decrypt(enc, back, sizeof back);
        if (strcmp(back, text) != 0) __builtin_trap();
    }
    free(out);
    free(text);
    return 0;
}
