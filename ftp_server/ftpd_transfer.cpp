// The transfer engine: moves one file's bytes between an open file and an open data connection,
// block by block, converting line ends in ASCII type, counting bytes into the session record and
// watching for a stalled data connection and for the stop message of the local control channel.
// Also the TYPE command and the names of the representation types.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ftpd.h"

const char *typenames[] = {"0", "ASCII", "EBCDIC", "BINARY", "Local"};

namespace {

constexpr size_t FTP_RECV_BLOCK = 1024;  // receive block of the data connection

// Owner of one session event waiter for the length of a transfer.
class epoll_owner {
  public:
    epoll_owner() : ep_(ftpd_epoll_create()) {}
    ~epoll_owner() { reset(); }
    epoll_owner(const epoll_owner &) = delete;
    epoll_owner &operator=(const epoll_owner &) = delete;
    struct ftp_epoll_s *get() const {
        return ep_;
    }
    void reset() {
        if (ep_ != nullptr) ftpd_epoll_destroy(ep_);
        ep_ = nullptr;
    }

  private:
    struct ftp_epoll_s *ep_;
};

bool type_is_served(int type) {
    return type == 1 || type == 3 || type == 4;
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

int send_data(int control_fd, int instr, int outstr, int blksize, struct credentials *pcred, int domain_fd) {
    int type = pcred->cnt.tran_type;
    if (type_is_served(type)) return send_data_with_type(control_fd, instr, outstr, blksize, pcred, domain_fd);
    // The word is chosen as for the 150 reply, so a refused type always reads BINARY.
    ftpd_reply(control_fd, "550", "Unimplemented TYPE %s in send_data.", type == 1 ? "ASCII" : "BINARY", nullptr);
    return -1;
}

int send_data_with_type(int control_fd, int instr, int outstr, int blksize, struct credentials *pcred, int domain_fd) {
    if (blksize <= 0) blksize = FTP_BUF_SIZE;
    size_t blk = static_cast<size_t>(blksize);
    ftpd_block buf(FTPD_M_BUF, blk);
    ftpd_block chang_buf(FTPD_M_CHANG_BUF, 2 * blk);
    if (!buf || !chang_buf) {
        buf.reset();
        chang_buf.reset();
        ftpd_reply(control_fd, "451", "Local resource failure: malloc.", nullptr, nullptr);
        return -1;
    }
    epoll_owner ep;
    if (ep.get() == nullptr) {
        buf.reset();
        chang_buf.reset();
        ftpd_reply(control_fd, "451", "Local resource failure: epoll.", nullptr, nullptr);
        return -1;
    }
    ep.get()->fd[0] = outstr;
    ep.get()->timeout = pcred->timeout * 60;

    // Buffers and waiter are given back before the final reply on every way out.
    auto release = [&]() {
        buf.reset();
        chang_buf.reset();
        ep.reset();
    };
    for (;;) {
        memset(buf.get(), 0, blk);
        memset(chang_buf.get(), 0, 2 * blk);
        ssize_t n = read(instr, buf.get(), blk);
        if (n < 0) {
            release();
            ftpd_reply(control_fd, "551", "Error on input file.", nullptr, nullptr);
            return -1;
        }
        if (n == 0) {
            release();
            ftpd_reply(control_fd, nullptr, "%s", "226 Closing data connection.\r\n", nullptr);
            return 0;
        }
        int w = ftpd_epoll(ep.get(), FTP_EPOLL_OUT);
        if (w <= 0) {
            if (w == 0) FTPD_LOG_PRO("Time out\n");
            break;
        }
        char msg[FTP_DOMAIN_MSG_LEN];
        if (recv(domain_fd, msg, sizeof msg, MSG_DONTWAIT) > 0) {
            release();
            ftpd_reply(control_fd, nullptr, "%s", "426 Connection closed; transfer aborted.\r\n", nullptr);
            return -2;
        }
        const char *out = buf.get();
        ssize_t len = n;
        if (pcred->cnt.tran_type == 1) {
            len = unix_to_dos(buf.get(), chang_buf.get(), static_cast<int>(n));
            out = chang_buf.get();
        }
        // One send per block; a short send counts as failure.
        if (send(outstr, out, static_cast<size_t>(len), MSG_NOSIGNAL) != len) break;
        pcred->byte_count += len;
    }
    release();
    ftpd_reply(control_fd, nullptr, "%s", "426 Connection closed; transfer aborted.\r\n", nullptr);
    return -1;
}

int receive_data(int control_fd, int instr, int outstr, struct credentials *pcred, int domain_fd) {
    int type = pcred->cnt.tran_type;
    if (type_is_served(type)) return receive_data_with_type(control_fd, instr, outstr, pcred, domain_fd);
    char text[64];
    ftpd_snprintf(text, sizeof text, "Unimplemented TYPE %d in receive_data.", type);
    ftpd_reply(control_fd, "550", "%s", text, nullptr);
    return -1;
}

int receive_data_with_type(int control_fd, int instr, int outstr, struct credentials *pcred, int domain_fd) {
    ftpd_block databuff(FTPD_M_DATA_BUF, FTP_RECV_BLOCK);
    ftpd_block buf(FTPD_M_BUF, FTP_RECV_BLOCK);
    if (!databuff || !buf) {
        databuff.reset();
        buf.reset();
        ftpd_reply(control_fd, "451", "Local resource failure: malloc.", nullptr, nullptr);
        return -1;
    }
    epoll_owner ep;
    if (ep.get() == nullptr) {
        databuff.reset();
        buf.reset();
        ftpd_reply(control_fd, "451", "Local resource failure: epoll.", nullptr, nullptr);
        return -1;
    }
    ep.get()->fd[0] = instr;
    if (domain_fd >= 0) ep.get()->fd[1] = domain_fd;
    ep.get()->timeout = pcred->timeout * 60;

    auto release = [&]() {
        databuff.reset();
        buf.reset();
        ep.reset();
    };
    for (;;) {
        memset(databuff.get(), 0, FTP_RECV_BLOCK);
        int w = ftpd_epoll(ep.get(), FTP_EPOLL_IN);
        if (w <= 0) {
            if (w == 0) FTPD_LOG_PRO("Time out.\n");
            break;
        }
        // Abort as soon as the control channel is readable, even if another thread took the datagram.
        if (domain_fd >= 0 && ftpd_epoll_event(ep.get(), domain_fd, FTP_EPOLL_IN)) {
            char msg[FTP_DOMAIN_MSG_LEN];
            if (recv(domain_fd, msg, sizeof msg, MSG_DONTWAIT) < 0)
                FTPD_LOG_ERR("%s: domain socket recvfrom error when waiting command.%d\n", FTPD_MODULE, errno);
            release();
            ftpd_reply(control_fd, "426", "Data Connection.", nullptr, nullptr);
            return -2;
        }
        if (!ftpd_epoll_event(ep.get(), instr, FTP_EPOLL_IN)) continue;
        ssize_t n = recv(instr, databuff.get(), FTP_RECV_BLOCK, 0);
        if (n < 0) break;
        if (n == 0) {
            fsync(outstr);
            release();
            return 0;
        }
        const char *out = databuff.get();
        ssize_t len = n;
        if (pcred->cnt.tran_type == 1) {
            len = dos_to_unix(databuff.get(), buf.get(), static_cast<int>(n));
            out = buf.get();
        }
        if (write(outstr, out, static_cast<size_t>(len)) != len) {
            release();
            ftpd_reply(control_fd, "452", "Error writing file.", nullptr, nullptr);
            return -1;
        }
        pcred->byte_count += len;
    }
    release();
    ftpd_reply(control_fd, "426", "Data Connection.", nullptr, nullptr);
    return -1;
}

void type_fun(int control_fd, const char *rev_type, struct credentials *pcred) {
    int type;
    const char *text;
    if (strcmp(rev_type, "A") == 0) {
        type = 1;
        text = "Type set to A.";
    } else if (strcmp(rev_type, "I") == 0) {
        type = 3;
        text = "Type set to I.";
    } else {
        ftpd_reply(control_fd, "504", "Type not implemented.", nullptr, nullptr);
        return;
    }
    // The type changes only once the client has been told.
    if (ftpd_reply(control_fd, "200", text, nullptr, nullptr) == 0) pcred->cnt.tran_type = type;
}
