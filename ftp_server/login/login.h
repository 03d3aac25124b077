// USER and PASS, and authentication through the device's AAA service and local user database.
#pragma once

#include "base/ftpd.h"

extern bool g_aaa_ready;
int user(int control_fd, char *arg, struct credentials *pcred, char *client_name);
int auth_user(const char *name, struct credentials *pcred);
// 0 accepted (or answered 503), -1 refused, -2 refused for good (the session ends).
int pass(int control_fd, char *arg, struct credentials *pcred, char *client_name);
int auth_pass(const char *arg, const struct credentials *pcred);
// Waits the platform's failed-login delay before the first refusal of the current PASS.
void ftp_login_fail_wait(struct credentials *pcred);

struct aaa_iovec_s;
int ftp_aaa_init(void);
bool ftp_get_aaa_status(void);
int ftp_aaa_auth(int control_fd, const char *name, struct credentials *pcred, const char *password, bool *local);
int ftp_aaa_auth_local(int control_fd, const char *name, struct credentials *pcred, const char *password);
int ftp_username_login_check(const char *name);
void ftp_update_online_count(const char *name, int login);
void ftp_aaa_del_user(struct credentials *pcred);
void aaa_iovec_init(struct aaa_iovec_s *iov, char *buf, uint32_t capacity);
uint32_t aaa_add_elem_ext(struct aaa_iovec_s *iov, uint32_t code, const void *value, uint32_t len);
void ftp_aaa_secu_set_aaa_elem_basic(const struct credentials *pcred, struct aaa_iovec_s *iov, const char *name,
                                     const char *password);
