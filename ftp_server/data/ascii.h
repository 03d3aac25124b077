// Line ends of ASCII type: a file's LF becomes CR LF on the wire and the wire's CR LF becomes LF
// in the file, block by block as the device converts (a pair split between two blocks is not
// seen), or across blocks with a carried CR.
#pragma once

#include <cstddef>

// One block each, as the device converts: a line feed gets a carriage return unless the byte before
// it in this block is one; a CR LF inside the block loses its CR, one that ends the block stays.
int unix_to_dos(const char *buf, char *chang_buf, int cnt);
int dos_to_unix(const char *databuff, char *buf, int len);
// len bytes cut into blocks of blk bytes from the start, each converted by itself, into out
// (2 * len bytes for dos, len for unix): the length written.
size_t ftp_chunk_to_dos(const char *in, size_t len, size_t blk, char *out);
size_t ftp_chunk_to_unix(const char *in, size_t len, size_t blk, char *out);

// A received stream converted as one: a CR that ends a chunk waits for the next one's first byte.
struct ftp_ascii_in {
    bool cr_pending = false;
};
// out holds len + 1 bytes; the length written.
size_t ftp_stream_to_unix(const char *in, size_t len, ftp_ascii_in *state, char *out);
