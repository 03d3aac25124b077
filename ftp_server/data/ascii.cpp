// Line-end conversion of ASCII type: the per-block rules of the device and the bulk forms the data
// connection uses, which give byte for byte what one call per block gives.
#include "data/ascii.h"

#include <cstring>

#include "base/ftpd.h"

const char *typenames[] = {"0", "ASCII", "EBCDIC", "BINARY", "Local"};

namespace {

// One block to CR LF form, by the rule of unix_to_dos: a line feed gets a carriage return unless
// the byte before it in this block is one. Runs between line feeds are copied whole.
size_t block_to_dos(const char *in, size_t len, char *out) {
    const char *p = in;
    const char *end = in + len;
    char *o = out;
    while (p < end) {
        const char *nl = static_cast<const char *>(memchr(p, '\n', static_cast<size_t>(end - p)));
        if (nl == nullptr) {
            memcpy(o, p, static_cast<size_t>(end - p));
            o += end - p;
            break;
        }
        memcpy(o, p, static_cast<size_t>(nl - p));
        o += nl - p;
        if (nl == in || nl[-1] != '\r') *o++ = '\r';
        *o++ = '\n';
        p = nl + 1;
    }
    return static_cast<size_t>(o - out);
}

// One block to LF form, by the rule of dos_to_unix: a carriage return followed by a line feed
// inside this block is dropped; one that ends the block is kept.
size_t block_to_unix(const char *in, size_t len, char *out) {
    const char *p = in;
    const char *end = in + len;
    char *o = out;
    while (p < end) {
        const char *cr = static_cast<const char *>(memchr(p, '\r', static_cast<size_t>(end - p)));
        if (cr == nullptr) {
            memcpy(o, p, static_cast<size_t>(end - p));
            o += end - p;
            break;
        }
        memcpy(o, p, static_cast<size_t>(cr - p));
        o += cr - p;
        if (cr + 1 == end || cr[1] != '\n') *o++ = '\r';
        p = cr + 1;
    }
    return static_cast<size_t>(o - out);
}

}  // namespace

int unix_to_dos(const char *buf, char *chang_buf, int cnt) {
    if (cnt <= 0) return 0;
    // Each block stands alone: a line feed opening a block always gets its carriage return.
    int k = 0;
    if (buf[0] == '\n') chang_buf[k++] = '\r';
    chang_buf[k++] = buf[0];
    for (int i = 1; i < cnt; i++) {
        if (buf[i] == '\n' && buf[i - 1] != '\r') chang_buf[k++] = '\r';
        chang_buf[k++] = buf[i];
    }
    return k;
}

int dos_to_unix(const char *databuff, char *buf, int len) {
    if (len <= 0) return 0;
    // Each block stands alone: a carriage return ending a block is always kept.
    int k = 0;
    for (int i = 1; i < len; i++) {
        if (databuff[i - 1] == '\r' && databuff[i] == '\n') continue;
        buf[k++] = databuff[i - 1];
    }
    buf[k++] = databuff[len - 1];
    return k;
}

// Converts len bytes cut into blocks of blk bytes from the start, each block by itself.
size_t ftp_chunk_to_dos(const char *in, size_t len, size_t blk, char *out) {
    size_t k = 0;
    for (size_t off = 0; off < len; off += blk) k += block_to_dos(in + off, len - off < blk ? len - off : blk, out + k);
    return k;
}

size_t ftp_chunk_to_unix(const char *in, size_t len, size_t blk, char *out) {
    size_t k = 0;
    for (size_t off = 0; off < len; off += blk)
        k += block_to_unix(in + off, len - off < blk ? len - off : blk, out + k);
    return k;
}

size_t ftp_stream_to_unix(const char *in, size_t len, ftp_ascii_in *state, char *out) {
    char *o = out;
    if (len == 0) return 0;
    if (state->cr_pending) {
        if (in[0] != '\n') *o++ = '\r';
        state->cr_pending = false;
    }
    size_t body = len;
    if (in[len - 1] == '\r') {
        state->cr_pending = true;
        body--;
    }
    return static_cast<size_t>(o - out) + block_to_unix(in, body, o);
}
