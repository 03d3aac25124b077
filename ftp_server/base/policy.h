// The wire profile as a policy: what differs between the device's behaviour, byte for byte, and
// the standard profile that stock clients on plain Linux need, as named answers. Built once at
// start-up from the platform file; every session holds it, and the places that differ ask it.
#pragma once

#include <sys/types.h>

enum class ftp_profile { device, standard };

struct ftp_policy {
    ftp_profile profile = ftp_profile::device;
    // Command lines: lines up to LF, joined across receives and several per receive (else one
    // receive is one command).
    bool line_input = false;
    // A wake-up by the local control channel while the service stays enabled dispatches the
    // previous command again.
    bool stop_wakeup_repeats = true;
    // Replies: every line ends in CR LF; a reply over the bound is sent with its echoed name
    // shortened (else it is not sent).
    bool reply_crlf = false;
    bool reply_shortens_echo = false;
    // Login: a PASS out of sequence changes no count; a refused password gets one 530 (else
    // two); a user at its connection limit with the right password gets 421 and the session ends.
    bool pass_sequence_strict = false;
    bool single_530 = false;
    bool user_limit_421 = false;
    // Data addresses: PORT and EPRT must name the client itself; EPRT with "::" means it.
    bool data_peer_only = false;
    // Listings are staged before the data connection opens, with the standard options and
    // names (else the device's listing, opened first).
    bool standard_listings = false;
    // Uploads: REST offsets, and a plain STOR through a hidden temporary file renamed over the
    // target (else the target is emptied and written in place).
    bool rest_offsets = false;
    bool atomic_uploads = false;
    // ASCII uploads: a CR LF split between two received blocks is still one line end (else each
    // block is converted by itself).
    bool ascii_joins_blocks = false;
    // Transfers take their buffers only where the bytes pass through the daemon and wait by poll
    // (else, as the device, both buffers and an event waiter are taken up front per transfer).
    bool lean_transfers = false;
    // A passive listener that served its transfer waits for the session's next PASV or EPSV
    // (else every PASV and EPSV listens anew).
    bool keep_passive_listener = false;
    // Every failed USER or PASS is logged in one fixed line with the client's address.
    bool log_failed_logins = false;
    // Paths are resolved beneath the top directory by the kernel: a symbolic link that leads out
    // is answered like a missing name (else the confinement is textual).
    bool confine_links = false;
    // A symbolic link is an entry of its own: listed as a link, deleted and renamed itself.
    bool links_as_entries = false;
    // A failed RNTO ends the pending rename as a done one does (else the source stays pending).
    bool rename_once = false;
    // RFC 959's forms of the replies clients parse: PWD and MKD give the path first, quotes
    // doubled; an unknown command word is answered 500 (else 502); MODE S, STRU F, the TYPE
    // forms, ALLO and the X aliases are served; SIZE in ASCII type is refused.
    bool rfc_replies = false;
    // Control lines carry Telnet escapes (IAC IAC, CR NUL) that are taken out, and an argument is
    // never cut at a CR.
    bool telnet_lines = false;
    // Mode of a new directory.
    mode_t mkdir_mode = 0777;
    // AUTH TLS, PBSZ and PROT are served (a [tls] certificate is configured).
    bool tls = false;

    // Limits: sessions at once, from one client address (0: no limit), a user's sessions until
    // an administrator says otherwise, and KiB/s per transfer (0: no limit).
    int max_sessions = 20;
    int max_per_address = 0;
    unsigned user_connect_default = 10;
    unsigned max_rate = 0;
    // Behind NAT and load balancers: the address PASV announces (nullptr: the control connection's
    // own), the range passive ports are drawn from (0: any unprivileged port), and whether
    // connections from the platform file's proxy_from addresses begin with a PROXY header.
    const unsigned char *passive_address = nullptr;
    int passive_low = 0, passive_high = 0;
    bool proxy_protocol = false;
    // Accounts of the local user database may have a home, be read-only and have a rate.
    bool user_rights = false;
    // Each finished or aborted transfer is logged in the transfer log ([log] transfer_log).
    bool transfer_log = false;
};

// The policy of a profile; tls only where the profile may serve it.
ftp_policy ftp_policy_of(ftp_profile profile, bool tls);
// The daemon's policy, from the platform file: set once at start-up, read by every session.
void ftp_policy_init(void);
const ftp_policy &ftp_policy_get(void);
