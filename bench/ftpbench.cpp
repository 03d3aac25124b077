// The benchmark's FTP client: one measurement per run against a server on loopback, in passive
// mode, printing its figures as "key=value" words on one line for bench/run.py. Data received is
// thrown away and data sent is generated in memory, so that the client stays out of the way of
// the server being measured.
//
//   ftpbench retr   PORT USER PASS TYPE PATH [OFFSET]        one download (from OFFSET: REST first)
//   ftpbench stor   PORT USER PASS TYPE NAME BYTES           one upload (TYPE A sends CR LF text)
//   ftpbench logins PORT USER PASS CLIENTS SECONDS           connect+USER+PASS+QUIT in a loop
//   ftpbench mretr  PORT USER PASS CLIENTS PATH              concurrent downloads
//   ftpbench list   PORT USER PASS VERB PATH                 one LIST, NLST or MLSD
//   ftpbench hold   PORT USER PASS CLIENTS                   logged-in sessions until stdin closes
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point t0) {
    return std::chrono::duration<double>(clock_type::now() - t0).count();
}

int connect_to(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    // A stuck server fails the measurement instead of hanging it.
    timeval tv{60, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A control connection read reply by reply.
class control {
  public:
    explicit control(int port) : fd_(connect_to(port)) {}
    ~control() {
        if (fd_ >= 0) close(fd_);
    }
    control(const control &) = delete;
    control &operator=(const control &) = delete;
    bool ok() const { return fd_ >= 0; }

    // The code of the next whole reply (multi-line replies up to their last line); -1 on EOF.
    int reply(std::string *text = nullptr) {
        std::string line;
        int code = -1;
        for (;;) {
            if (!read_line(line)) return -1;
            if (text != nullptr) *text += line;
            if (line.size() >= 4 && isdigit(static_cast<unsigned char>(line[0]))) {
                int c = atoi(line.substr(0, 3).c_str());
                if (code < 0) code = c;
                if (c == code && line[3] == ' ') return code;
            }
        }
    }
    bool send_line(const std::string &s) {
        std::string l = s + "\r\n";
        return ::send(fd_, l.data(), l.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(l.size());
    }
    int cmd(const std::string &s, std::string *text = nullptr) { return send_line(s) ? reply(text) : -1; }

    bool login(const char *user, const char *pass) {
        if (reply() != 220) return false;
        int c = cmd(std::string("USER ") + user);
        if (c == 331) c = cmd(std::string("PASS ") + pass);
        return c == 230;
    }
    // Opens a passive data connection; -1 on failure.
    int pasv() {
        std::string text;
        if (cmd("PASV", &text) != 227) return -1;
        size_t l = text.find('(');
        if (l == std::string::npos) return -1;
        unsigned h1, h2, h3, h4, p1, p2;
        if (sscanf(text.c_str() + l + 1, "%u,%u,%u,%u,%u,%u", &h1, &h2, &h3, &h4, &p1, &p2) != 6) return -1;
        return connect_to(static_cast<int>(p1 * 256 + p2));
    }
    // Waits for the server to close the connection (after QUIT).
    void wait_closed() {
        char b[256];
        while (recv(fd_, b, sizeof b, 0) > 0) {
        }
    }

  private:
    bool read_line(std::string &line) {
        line.clear();
        for (;;) {
            size_t nl = buf_.find('\n');
            if (nl != std::string::npos) {
                line = buf_.substr(0, nl + 1);
                buf_.erase(0, nl + 1);
                return true;
            }
            char b[4096];
            ssize_t n = recv(fd_, b, sizeof b, 0);
            if (n <= 0) return false;
            buf_.append(b, static_cast<size_t>(n));
        }
    }
    int fd_;
    std::string buf_;
};

long long drain(int fd) {
    std::vector<char> b(1 << 20);
    long long total = 0;
    ssize_t n;
    while ((n = recv(fd, b.data(), b.size(), 0)) > 0) total += n;
    return total;
}

// One download, from offset when it is not empty (REST right before RETR); returns the seconds
// from REST or RETR to the final reply, or a negative value.
double do_retr(int port, const char *user, const char *pass, const char *type, const char *path, long long *bytes,
               const char *offset = "") {
    control c(port);
    if (!c.ok() || !c.login(user, pass)) return -1;
    if (c.cmd(std::string("TYPE ") + type) != 200) return -2;
    int d = c.pasv();
    if (d < 0) return -3;
    auto t0 = clock_type::now();
    if (*offset != '\0' && c.cmd(std::string("REST ") + offset) != 350) {
        close(d);
        return -7;
    }
    if (!c.send_line(std::string("RETR ") + path)) return -4;
    int code = c.reply();
    if (code != 150 && code != 125) {
        close(d);
        return -5;
    }
    *bytes = drain(d);
    close(d);
    if (c.reply() != 226) return -6;
    double s = seconds_since(t0);
    c.cmd("QUIT");
    return s;
}

int cmd_retr(int port, char **a, int n) {
    long long bytes = 0;
    double s = do_retr(port, a[0], a[1], a[2], a[3], &bytes, n > 4 ? a[4] : "");
    if (s < 0) {
        fprintf(stderr, "retr failed (%g)\n", s);
        return 1;
    }
    printf("seconds=%.6f bytes=%lld\n", s, bytes);
    return 0;
}

int cmd_stor(int port, char **a) {
    const char *type = a[2];
    long long want = atoll(a[4]);
    bool text = strcmp(type, "A") == 0;
    // Binary: a repeating byte pattern. ASCII: the wire form of lines of 63 characters, so that
    // the stored file has `want` bytes of 64-byte LF lines.
    std::vector<char> block;
    long long wire_total = want;
    if (text) {
        std::string line;
        for (int i = 0; i < 63; i++) line += static_cast<char>('a' + i % 26);
        line += "\r\n";
        for (int i = 0; i < 16384; i++) block.insert(block.end(), line.begin(), line.end());
        wire_total = want / 64 * 65;
    } else {
        block.resize(1 << 20);
        for (size_t i = 0; i < block.size(); i++) block[i] = static_cast<char>(i * 131 + 7);
    }
    control c(port);
    if (!c.ok() || !c.login(a[0], a[1])) return 1;
    if (c.cmd(std::string("TYPE ") + type) != 200) return 1;
    int d = c.pasv();
    if (d < 0) return 1;
    auto t0 = clock_type::now();
    if (!c.send_line(std::string("STOR ") + a[3])) return 1;
    int code = c.reply();
    if (code != 150 && code != 125) return 1;
    long long left = wire_total;
    while (left > 0) {
        size_t n = left < static_cast<long long>(block.size()) ? static_cast<size_t>(left) : block.size();
        ssize_t w = send(d, block.data(), n, MSG_NOSIGNAL);
        if (w <= 0) return 1;
        left -= w;
    }
    close(d);
    if (c.reply() != 226) return 1;
    double s = seconds_since(t0);
    c.cmd("QUIT");
    printf("seconds=%.6f bytes=%lld\n", s, want);
    return 0;
}

int cmd_logins(int port, char **a) {
    int clients = atoi(a[2]);
    double seconds = atof(a[3]);
    std::atomic<long> done{0}, failed{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    auto t0 = clock_type::now();
    for (int i = 0; i < clients; i++) {
        threads.emplace_back([&]() {
            while (!stop.load()) {
                control c(port);
                if (c.ok() && c.login(a[0], a[1]) && c.cmd("QUIT") == 221) {
                    c.wait_closed();
                    done++;
                } else {
                    failed++;
                }
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    stop = true;
    for (auto &t : threads) t.join();
    double s = seconds_since(t0);
    printf("seconds=%.6f sessions=%ld failed=%ld rate=%.1f\n", s, done.load(), failed.load(), done.load() / s);
    return 0;
}

int cmd_mretr(int port, char **a) {
    int clients = atoi(a[2]);
    std::atomic<long long> bytes{0};
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    auto t0 = clock_type::now();
    for (int i = 0; i < clients; i++) {
        threads.emplace_back([&]() {
            long long b = 0;
            double r = do_retr(port, a[0], a[1], "I", a[3], &b);
            if (r < 0) {
                failed++;
                fprintf(stderr, "mretr: a client failed at step %d\n", static_cast<int>(-r));
            }
            bytes += b;
        });
    }
    for (auto &t : threads) t.join();
    double s = seconds_since(t0);
    printf("seconds=%.6f bytes=%lld failed=%d\n", s, bytes.load(), failed.load());
    return failed.load() == 0 ? 0 : 1;
}

int cmd_list(int port, char **a) {
    control c(port);
    if (!c.ok() || !c.login(a[0], a[1])) return 1;
    if (c.cmd("TYPE A") != 200) return 1;
    int d = c.pasv();
    if (d < 0) return 1;
    auto t0 = clock_type::now();
    std::string verb = a[2];
    if (!c.send_line(verb + " " + a[3])) return 1;
    int code = c.reply();
    if (code != 150 && code != 125) return 1;
    long long bytes = drain(d);
    close(d);
    if (c.reply() != 226) return 1;
    double s = seconds_since(t0);
    c.cmd("QUIT");
    printf("seconds=%.6f bytes=%lld\n", s, bytes);
    return 0;
}

int cmd_hold(int port, char **a) {
    int clients = atoi(a[2]);
    std::vector<control *> held;
    for (int i = 0; i < clients; i++) {
        auto *c = new control(port);
        if (!c->ok() || !c->login(a[0], a[1])) {
            fprintf(stderr, "hold: login %d failed\n", i);
            return 1;
        }
        held.push_back(c);
    }
    printf("ready\n");
    fflush(stdout);
    char b[64];
    while (read(0, b, sizeof b) > 0) {
    }
    for (control *c : held) {
        c->cmd("QUIT");
        delete c;
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 5) {
        fprintf(stderr, "usage: ftpbench retr|stor|logins|mretr|list|hold PORT USER PASS ...\n");
        return 2;
    }
    std::string op = argv[1];
    int port = atoi(argv[2]);
    char **a = argv + 3;
    int n = argc - 3;
    if (op == "retr" && (n == 4 || n == 5)) return cmd_retr(port, a, n);
    if (op == "stor" && n == 5) return cmd_stor(port, a);
    if (op == "logins" && n == 4) return cmd_logins(port, a);
    if (op == "mretr" && n == 4) return cmd_mretr(port, a);
    if (op == "list" && n == 4) return cmd_list(port, a);
    if (op == "hold" && n == 3) return cmd_hold(port, a);
    fprintf(stderr, "bad arguments\n");
    return 2;
}
