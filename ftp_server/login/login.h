// USER and PASS, and authentication through the device's AAA service and local user database.
#pragma once

#include "base/ftpd.h"

struct ftp_session;
struct aaa_iovec_s;

extern bool g_aaa_ready;

// USER and PASS (the command table's handlers): false when the session must end.
bool user(ftp_session &s);
bool pass(ftp_session &s);
// The login's own steps: USER's verdict on the name (0, or -1 refused), PASS's (0 accepted or
// answered 503, -1 refused, -2 refused for good: the session ends).
int auth_user(const char *name, ftp_session &s);
int auth_pass(const char *arg, const ftp_session &s);
// Waits the platform's failed-login delay before the first refusal of the current PASS.
void ftp_login_fail_wait(ftp_session &s);
// What a login holds beyond the session record (its AAA user, its online count): the end.
void ftp_login_release(ftp_session &s);

int ftp_aaa_init(void);
bool ftp_get_aaa_status(void);
int ftp_aaa_auth(ftp_session &s, const char *name, const char *password, bool *local);
int ftp_aaa_auth_local(ftp_session &s, const char *name, const char *password);
int ftp_username_login_check(const char *name);
void ftp_update_online_count(const char *name, int login);
void ftp_aaa_del_user(ftp_session &s);
void aaa_iovec_init(struct aaa_iovec_s *iov, char *buf, uint32_t capacity);
uint32_t aaa_add_elem_ext(struct aaa_iovec_s *iov, uint32_t code, const void *value, uint32_t len);
// The basic elements of an AAA request; peer is the client (its family AF_INET or AF_INET6, else
// the address element says "async").
void ftp_aaa_secu_set_aaa_elem_basic(int32_t level, const struct sockaddr_storage &peer, struct aaa_iovec_s *iov,
                                     const char *name, const char *password);
