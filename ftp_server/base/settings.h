// The server's run-time settings and the device's product name.
#pragma once

#include "base/ftpd.h"

extern char *ftpd_product_name;
void ftp_settings_defaults(void);  // the defaults of server start
// Whether the service is enabled; written by the management side, read by every session.
bool is_ftp_server_start(void);
void ftp_set_server_started(bool started);
void set_ftp_timeout(unsigned int minutes);
unsigned int get_ftp_timeout(void);
void set_ftp_logintimeout(unsigned int minutes);
unsigned int get_ftp_logintimeout(void);
void set_ftp_logintimes(unsigned int n);
unsigned int get_ftp_logintimes(void);
int set_ftp_server_root_dir(const char *path);
int set_ftp_server_root_dir_ext(int index, const char *path, const char *prefix);
const char *get_ftp_server_root_dir(void);
const char *get_true_ftp_server_root_dir(void);
int set_ftp_server_auth(const char *name);
const char *get_ftp_server_auth(void);
const char *ftp_get_flash_dir(void);
const char *ftp_get_product_name(void);
// Copies the text ftpd_product_name holds into buf under the lock that guards its replacement
// and release; what a session shows must not be read through the shared pointer.
void ftp_copy_product_name(char *buf, size_t size);
void ftp_release_product_name(void);
