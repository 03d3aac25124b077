// The management socket's framing, shared by the daemon's command-line server and ftps-cli.
//
// Every frame is a 4-byte payload length (network byte order), a 1-byte kind and the payload.
// A client sends one request and reads OUTPUT frames (pieces of text) until the END frame, whose
// payload is a status byte (0 succeeded, 1 failed) and a 4-byte signed offset in network byte
// order: the 0-based character position of the failing word in the request's line, -1 if none.
//   EXEC      payload: one command line; OUTPUT is what the command printed
//   HELP      payload: a partial line; OUTPUT lists the tokens that may follow with their help
//   COMPLETE  payload: a partial line; OUTPUT holds the keywords completing its last word, one per line
//   PROMPT    no payload; OUTPUT is the device's product name (empty when unknown)
// The daemon closes a connection whose request is larger than CLI_PROTO_MAX_REQUEST.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>

enum cli_proto_kind : uint8_t {
    CLI_REQ_EXEC = 1,
    CLI_REQ_HELP = 2,
    CLI_REQ_COMPLETE = 3,
    CLI_REQ_PROMPT = 4,
    CLI_RSP_OUTPUT = 0x81,
    CLI_RSP_END = 0x82,
};

constexpr size_t CLI_PROTO_HEADER = 5;
constexpr uint32_t CLI_PROTO_MAX_REQUEST = 8192;
constexpr uint32_t CLI_PROTO_MAX_CHUNK = 65536;
constexpr size_t CLI_PROTO_END_LEN = 5;

inline void cli_proto_put_u32(uint8_t *p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

inline uint32_t cli_proto_get_u32(const uint8_t *p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

// Appends one frame to buf.
inline void cli_proto_append(std::string *buf, uint8_t kind, const char *data, size_t len) {
    uint8_t h[CLI_PROTO_HEADER];
    cli_proto_put_u32(h, static_cast<uint32_t>(len));
    h[4] = kind;
    buf->append(reinterpret_cast<const char *>(h), sizeof h);
    buf->append(data, len);
}

inline std::string cli_proto_end_payload(int status, int offset) {
    uint8_t p[CLI_PROTO_END_LEN];
    p[0] = static_cast<uint8_t>(status != 0 ? 1 : 0);
    cli_proto_put_u32(p + 1, static_cast<uint32_t>(offset));
    return std::string(reinterpret_cast<const char *>(p), sizeof p);
}

inline bool cli_proto_parse_end(const std::string &payload, int *status, int *offset) {
    if (payload.size() != CLI_PROTO_END_LEN) return false;
    const uint8_t *p = reinterpret_cast<const uint8_t *>(payload.data());
    *status = p[0];
    *offset = static_cast<int>(static_cast<int32_t>(cli_proto_get_u32(p + 1)));
    return true;
}

// Blocking helpers (client side). 0 on success, -1 on error or end of stream.
inline int cli_proto_write_all(int fd, const char *data, size_t len) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = ::send(fd, data + done, len - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return -1;
        done += static_cast<size_t>(n);
    }
    return 0;
}

inline int cli_proto_read_all(int fd, char *data, size_t len) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = ::recv(fd, data + done, len - done, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return -1;
        done += static_cast<size_t>(n);
    }
    return 0;
}

inline int cli_proto_send(int fd, uint8_t kind, const std::string &payload) {
    std::string frame;
    cli_proto_append(&frame, kind, payload.data(), payload.size());
    return cli_proto_write_all(fd, frame.data(), frame.size());
}

// Reads one frame whose payload is at most max bytes.
inline int cli_proto_recv(int fd, uint8_t *kind, std::string *payload, uint32_t max) {
    uint8_t h[CLI_PROTO_HEADER];
    if (cli_proto_read_all(fd, reinterpret_cast<char *>(h), sizeof h) != 0) return -1;
    uint32_t len = cli_proto_get_u32(h);
    if (len > max) return -1;
    *kind = h[4];
    payload->assign(len, '\0');
    if (len > 0 && cli_proto_read_all(fd, payload->data(), len) != 0) return -1;
    return 0;
}

// One request: sends it and gathers the OUTPUT text until END. 0, or -1 when the connection
// failed or the daemon answered something unexpected.
inline int cli_proto_request(int fd, uint8_t kind, const std::string &payload, std::string *out, int *status,
                             int *offset) {
    if (cli_proto_send(fd, kind, payload) != 0) return -1;
    for (;;) {
        uint8_t k = 0;
        std::string p;
        if (cli_proto_recv(fd, &k, &p, CLI_PROTO_MAX_CHUNK) != 0) return -1;
        if (k == CLI_RSP_OUTPUT) {
            if (out != nullptr) out->append(p);
        } else if (k == CLI_RSP_END) {
            return cli_proto_parse_end(p, status, offset) ? 0 : -1;
        } else {
            return -1;
        }
    }
}

// The socket path: the configured one, else $TMPDIR/app/ftps/.cli.
inline std::string cli_proto_socket_path(const std::string &configured) {
    if (!configured.empty()) return configured;
    const char *base = std::getenv("TMPDIR");
    if (base == nullptr || *base == '\0') base = "/tmp";
    return std::string(base) + "/app/ftps/.cli";
}
