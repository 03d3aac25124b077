// The tables of operations the daemon's modules hand over (see module.h): the TLS record layer
// (OpenSSL), the RADIUS client (radcli), the PAM transaction (libpam) and the SNMP sender
// (net-snmp). Each module is built from platform/modules/ with its library; the daemon's side of
// each service (tls.cpp, aaa_radius.cpp, aaa_pam.cpp, snmp_agent.cpp) keeps everything that needs
// no library and calls through the table. A change
// of a table changes its version, so that a stale module is refused rather than misread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "aaa.h"

struct platform_conf;
struct ftp_tls;
struct aaa_method_call;

constexpr unsigned kTlsModuleVersion = 1;
struct ftp_tls_ops {
    // Makes (again) the server context from c's [tls] keys: 0, or -1 with the reason in err.
    int (*build)(const platform_conf &c, char *err, size_t err_len);
    bool (*enabled)(void);
    void (*memory)(unsigned *allocs, unsigned *fails, unsigned *frees);
    ftp_tls *(*accept)(int fd, int timeout_ms, const ftp_tls *control, bool require_reuse, char *why,
                       size_t why_len);
    int (*bind_login)(ftp_tls *t, const char *user);
    ssize_t (*read)(ftp_tls *t, void *buf, size_t len);
    ssize_t (*write)(ftp_tls *t, const void *buf, size_t len);
    bool (*wants_write)(const ftp_tls *t);
    int (*write_all)(ftp_tls *t, const void *buf, size_t len, int timeout_ms);
    bool (*kernel_send)(const ftp_tls *t);
    ssize_t (*sendfile)(ftp_tls *t, int fd, off_t offset, size_t len);
    bool (*pending)(const ftp_tls *t);
    bool (*clean_end)(const ftp_tls *t);
    int (*finish)(ftp_tls *t, int timeout_ms);
    void (*free)(ftp_tls *t);
    void (*thread_end)(void);
    const char *(*version)(const ftp_tls *t);
};

// One Access-Request of the RADIUS method.
enum class radius_result { answered, no_client, no_answer };
constexpr unsigned kRadiusModuleVersion = 1;
struct radius_ops {
    // servers in the library's form (aaa_radius_server_list); *state is the verdict when answered.
    radius_result (*request)(const std::string &servers, int timeout, int retries, aaa_method_call *call,
                             aaa_state_t *state);
};

// One transaction of the PAM method.
enum class pam_result { answered, not_started, unreachable };
constexpr unsigned kPamModuleVersion = 1;
struct pam_ops {
    // *state is the verdict when answered; *delay_usec the delay a PAM module asked for after a
    // failure; *why the library's text when unreachable. Not safe on two threads at once.
    pam_result (*authenticate)(const std::string &service, aaa_method_call *call, aaa_state_t *state,
                               unsigned *delay_usec, std::string *why);
};

// SNMPv2c notifications to one trap sink.
constexpr unsigned kSnmpModuleVersion = 1;
struct snmp_ops {
    // A session to "host:port" (its name resolved now), or nullptr.
    void *(*open)(const std::string &peer, const std::string &community);
    void (*close)(void *session);
    // One trap: sysUpTime.0 and snmpTrapOID.0 = trap_oid. False when it could not be sent.
    bool (*send_trap)(void *session, const uint32_t *trap_oid, size_t len, unsigned long uptime_ticks);
};
