// Line ends of ASCII type: the device's per-block rule, the bulk forms that must give exactly what
// converting one block per call gives, and the stream form that joins pairs across receives.
#include "data/ascii.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

// Text rich in line ends; `edges` puts a CR at the end and an LF at the start of every block of
// that size, and the pair the other way round at every second boundary.
std::string random_text(size_t len, unsigned seed, size_t edges) {
    std::mt19937 rng(seed);
    const char alphabet[] = "ab\r\n\n\r x";
    std::string s(len, 'a');
    for (char &c : s) c = alphabet[rng() % (sizeof alphabet - 1)];
    for (size_t b = edges; b < len; b += edges) {
        s[b - 1] = (b / edges) % 2 != 0 ? '\r' : '\n';
        s[b] = (b / edges) % 2 != 0 ? '\n' : '\r';
    }
    return s;
}

// The reference: one call of the per-block function for each block.
std::string per_block(const std::string &in, size_t blk, bool to_dos) {
    std::string out;
    std::vector<char> tmp(2 * blk);
    for (size_t off = 0; off < in.size(); off += blk) {
        int n = static_cast<int>(std::min(blk, in.size() - off));
        int got = to_dos ? unix_to_dos(in.data() + off, tmp.data(), n) : dos_to_unix(in.data() + off, tmp.data(), n);
        out.append(tmp.data(), static_cast<size_t>(got));
    }
    return out;
}

// Each block is converted on its own: pairs split by a block boundary are not recognised.
TEST(LineEnds, EachBlockIsConvertedOnItsOwn) {
    struct {
        bool to_dos;
        const char *in, *out;
    } cases[] = {
        {true, "a\nb\n", "a\r\nb\r\n"},
        {true, "a\r\nb\rc", "a\r\nb\rc"},  // pairs and lone CRs pass
        {true, "\n\n", "\r\n\r\n"},        // an opening LF always gets its CR
        {false, "a\r\nb\rc\r\n", "a\nb\rc\n"},
        {false, "a\r", "a\r"},  // a CR ending the block is kept
        {false, "\r\r\n", "\r\n"},
    };
    for (const auto &c : cases) EXPECT_EQ(per_block(c.in, strlen(c.in), c.to_dos), c.out) << c.in;
}

// The bulk forms, many blocks per call, give what one call per block gives (CR and LF at every block
// boundary included).
TEST(LineEnds, ChunksEqualOneConversionPerBlock) {
    for (size_t len : {size_t{1}, size_t{511}, size_t{512}, size_t{513}, size_t{65536}, size_t{300007}}) {
        for (size_t blk : {size_t{512}, size_t{1024}}) {
            std::string text = random_text(len, static_cast<unsigned>(len + blk), blk);
            std::vector<char> out(2 * len + 1);
            size_t n = ftp_chunk_to_dos(text.data(), len, blk, out.data());
            EXPECT_TRUE(std::string(out.data(), n) == per_block(text, blk, true)) << len << "/" << blk;
            n = ftp_chunk_to_unix(text.data(), len, blk, out.data());
            EXPECT_TRUE(std::string(out.data(), n) == per_block(text, blk, false)) << len << "/" << blk;
        }
    }
}

// Converted as one stream, a CR LF pair split between two receives is still one line end, and a
// CR followed by anything else stays.
TEST(LineEnds, StreamJoinsPairsSplitBetweenReceives) {
    const struct {
        std::vector<std::string> pieces;
        const char *out;
    } cases[] = {
        {{"a\r", "\nb"}, "a\nb"},
        {{"a\r", "\r\n"}, "a\r\n"},
        {{"a\r", "b"}, "a\rb"},
        {{"\r", "\r", "\n"}, "\r\n"},
        {{"x\r\ny\r"}, "x\ny\r"},  // a CR at the very end is kept by whoever flushes it
    };
    for (const auto &c : cases) {
        ftp_ascii_in state;
        std::string got;
        for (const std::string &p : c.pieces) {
            std::vector<char> out(p.size() + 1);
            got.append(out.data(), ftp_stream_to_unix(p.data(), p.size(), &state, out.data()));
        }
        if (state.cr_pending) got += '\r';
        EXPECT_EQ(got, c.out);
    }
}

}  // namespace
