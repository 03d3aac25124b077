// The data connection of one session: the one owner of a passive listener, of the accepted or
// connected data socket and of its TLS state, and of every byte that crosses it. The address
// commands leave a listener or a target in it; a transfer or listing then runs the one sequence
// "open, 150, move the bytes, finish, 226 or 426", every wait of which honours the idle time-out,
// the stop message of the local control channel and the control connection.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include "base/ftpd.h"
#include "data/ratelimit.h"
#include "net/reply.h"
#include "net/stream.h"

struct ftp_tls;

// What input on the control connection means while a data connection is awaited or in use.
enum class ftp_watch { go_on, abort, gone };

class ftp_data_watch {
  public:
    // The poll events to watch the control connection for; 0 watches nothing.
    virtual short events(bool transferring) = 0;
    // The control connection has one of them.
    virtual ftp_watch on_control() = 0;

  protected:
    ~ftp_data_watch() = default;
};

// What a data connection needs of its session, given at each use.
struct ftp_data_env {
    ftp_control *control = nullptr;       // replies; watched during every wait
    int stop_fd = -1;                     // the local control channel
    int idle_ms = 0;                      // each wait's deadline
    int family = AF_INET;                 // of the control connection
    const ftp_connect_addr *addr = nullptr;  // the control connection's peer and local addresses
    const struct sockaddr_storage *client = nullptr;  // the client, as a data connection must come from it
    ftp_type type = ftp_type::ascii;
    ftp_data_watch *watch = nullptr;
    bool protect = false;                 // PROT P: the connection is taken over by TLS
    const ftp_tls *control_tls = nullptr;  // whose login a protected data connection must resume
    bool ascii_carry = false;             // a CR LF split between two received blocks is still one line end
    bool lean = false;                    // buffers only where bytes pass through the daemon; waits by poll
    bool keep_listener = false;           // a passive listener that serves this transfer may serve the next
    bool proxy = false;                   // connections from the platform's balancers carry a PROXY header
    unsigned max_rate = 0;                // KiB/s of this transfer; 0: no limit
    bool upload = false;
    // A download small enough to go out without a wait: its 150 leaves with its final reply, in
    // one segment, unless the transfer has to wait first.
    bool small = false;
    // The transfer log's record of this transfer: the name as the client sees it (nullptr: no
    // record), the user and the client's address.
    const char *log_name = nullptr;
    const char *user = nullptr;
    const char *client_text = nullptr;
    // Refreshes the session's connection slot (after the opening reply, after the end).
    void (*slot_update)(void *ctx) = nullptr;
    void *ctx = nullptr;
};

// How moving the bytes ended; the sequence answers each with its reply.
enum class ftp_move {
    done,          // every byte moved: 226
    replied,       // the mover has answered already
    input_error,   // the file could not be read: 551
    write_error,   // the file could not be written: 452
    local_error,   // 451
    no_buffer,     // 451: a buffer of the transfer could not be had
    no_waiter,     // 451: nor its event waiter
    failed,        // the data connection failed or stalled for the idle time-out: 426
    stopped,       // the stop message: 426, and the session ends
    aborted,       // ABOR: 426 then 226
    control_gone,  // the client left: no reply, the session ends
};

// The replies of one kind of transfer.
struct ftp_data_replies {
    const char *done;    // whole reply texts
    const char *failed;
};
extern const ftp_data_replies kDownloadReplies;  // RETR and listings
extern const ftp_data_replies kUploadReplies;    // STOR and APPE
// The largest download that counts as small.
inline constexpr off_t kSmallDownload = 64 * 1024;

// The addresses of the last data connections, as the status report and STAT show them.
struct ftp_data_addrs {
    int family = 0;  // of the next or current data connection: 0, AF_INET or AF_INET6
    struct sockaddr_in data_dest {};
    struct sockaddr_in6 data_destv6 {};
    struct sockaddr_in data_source {};
    struct sockaddr_in6 data_sourcev6 {};
    struct sockaddr_in pasv_dest {};
    struct sockaddr_in6 pasv_destv6 {};
    struct sockaddr_in pasv_addr {};
    struct sockaddr_in6 pasv_addrv6 {};
};

// The session's pipe for spliced uploads: made by the first, kept between uploads at its default
// size, widened for an upload larger than that and narrowed again after it.
class ftp_upload_pipe {
  public:
    // Made when there is none yet; false when none can be.
    bool ready();
    void widen(int size);
    // After an upload: kept when it was left empty, given back otherwise.
    void settle(bool empty);
    void close();
    int out() const { return out_.get(); }
    int in() const { return in_.get(); }
    size_t size() const { return size_; }

  private:
    unique_fd out_, in_;
    size_t size_ = 0, base_ = 0;
};

class ftp_dataconn;
class ftp_xfer_waiter;
// Moves the bytes of one transfer over the open connection.
using ftp_mover = ftp_move (*)(ftp_dataconn &dc, void *ctx);

class ftp_dataconn {
  public:
    ftp_dataconn() = default;
    ftp_dataconn(const ftp_dataconn &) = delete;
    ftp_dataconn &operator=(const ftp_dataconn &) = delete;

    // --- What the address commands leave.
    // A passive listener on local (its port drawn at random, from low to high when low is not 0),
    // in the VRF of ctl_fd; an earlier one is replaced. The one kept from the last transfer when
    // it listens there and nobody has come to it since. The port, or -1.
    int listen(const struct sockaddr_storage &local, int ctl_fd, int low = 0, int high = 0);
    bool listening() const { return static_cast<bool>(listener_); }
    void drop_listener() { listener_.reset(); }
    // The next active connection goes to dest (once); without one, to the client's control port
    // plus one.
    void set_target(const struct sockaddr_storage &dest);
    bool has_target() const { return has_target_; }
    // The family of the next data connection (0: the control connection's).
    void set_family(int family) { addrs_.family = family; }
    const ftp_data_addrs &addrs() const { return addrs_; }
    // How the open connection was made; none between transfers.
    ftp_data_mode mode() const { return stream_ ? open_mode_ : ftp_data_mode::none; }
    // EPSV ALL: only EPSV may set up a data connection from now on.
    bool extended_only = false;

    // --- The transfer sequence: opens the connection (answering 425 itself when it cannot),
    // replies 150, moves the bytes, finishes and closes the connection, and answers 226 or the
    // failure. 0; -1 when the session must end (the stop message, the client left); -2 when no
    // connection could be opened.
    int transfer(const ftp_data_env &env, const ftp_data_replies &replies, ftp_mover mover, void *ctx);
    // Opens the connection and replies 150 (the first half of transfer, for the device's
    // listings, which stage only once it is open). 0, -1 (session ends) or -2 (425 answered).
    int open(const ftp_data_env &env);
    // Finishes and closes what open made and answers how moving ended (the second half).
    int finish(ftp_move how, const ftp_data_replies &replies);

    // --- For movers: the bytes of an open connection.
    // The file from its offset to its end; in ASCII type its line ends become CR LF, block by
    // block of blk bytes. raw: as it is, whatever the type. known: what the caller already knows
    // of a regular file (its size and the offset it stands at), so it is not asked again.
    struct known_file {
        off_t size;
        off_t offset;
    };
    ftp_move send_file(int file, size_t blk, bool raw = false, const known_file *known = nullptr);
    // Everything the client sends, into the file at its offset (appending when it is opened so);
    // in ASCII type CR LF becomes LF. plain: the file is known to be a regular one, not opened for
    // appending.
    ftp_move receive_file(int file, bool plain = false);
    off_t bytes() const { return bytes_; }
    bool is_protected() const { return stream_.is_protected(); }

    // Everything given back (the session's end).
    void release();

  private:
    int accept_passive();
    void settle_passive();
    int connect_active();
    int protect();
    // Waits until the stream can go on (its own wait events); the control connection and the
    // stop channel are watched meanwhile. ftp_move::done when it can go on.
    ftp_move wait_stream(bool transferring);
    // fd -1: a look without waiting; -2: a pause of pause_ms.
    ftp_move wait_fd(int fd, short events, bool transferring, int pause_ms = 0);
    // Bytes moved since the last wait; a look at the control connection when enough have.
    ftp_move between_chunks(size_t moved);
    ftp_move keep_rate(size_t bytes);
    ftp_move send_all(const char *p, size_t len);
    ftp_move send_pages(int file, off_t off, off_t size_hint);
    ftp_move send_kernel_tls(int file);
    ftp_move receive_loop(int file, bool splicing, ftpd_block &buf, ftpd_block &converted);
    ftp_move send_copied(int file, size_t blk, bool ascii, char *buf, char *converted, size_t chunk);

    const ftp_data_env *env_ = nullptr;    // during a transfer
    ftp_xfer_waiter *waiter_ = nullptr;    // the waits of the current phase, when it has one
    unique_fd listener_;
    // The listener's address (the passive connection's own), and the kept one's until a new
    // listener replaces it.
    struct sockaddr_storage bound_ {};
    bool ranged_ = false;                  // its port came from a configured range
    bool refused_ = false;                 // it had a connection from another address
    unique_fd kept_;                       // the listener of the last passive transfer, for the next PASV or EPSV
    ftp_stream stream_;
    ftp_upload_pipe pipe_;
    bool has_target_ = false;
    struct sockaddr_storage target_ {};
    ftp_data_addrs addrs_;
    off_t bytes_ = 0;
    size_t unseen_ = 0;  // moved since the control connection was last watched
    ftp_rate_limit rate_;
    long long opened_ms_ = 0;
    ftp_data_mode open_mode_ = ftp_data_mode::none;
};
