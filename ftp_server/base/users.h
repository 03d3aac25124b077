// The server's own user table and each user's connection slots.
#pragma once

#include "base/ftpd.h"

struct ftp_user_info_s {
    char username[FTP_NAME_LEN];
    char password[FTP_PASSWD_LEN];
    char pass_encrypt[FTP_PASSWD_LEN];
    uint32_t pass_type;  // 0 plain, 7 encrypted
    int32_t use_flag;
    int32_t connect_num;
    struct ftp_user_cnt_info_s *cnt[FTP_MAX_USER_CONNECT];
    uint32_t generation;  // new for every row made; sessions give slots back only to their own row
};
extern struct ftp_user_info_s gb_usinfo[FTP_MAX_USERS];
int ftp_userinfo_init(void);  // initialises ftp_mutex_userinfo; 0 or -1
void ftp_userinfo_lock(void);
void ftp_userinfo_unlock(void);
struct ftp_user_info_s *ftp_serch_userinfo(const char *name);
int set_ftp_server_userinfo(const char *name, const char *password, const char *encrypt, uint32_t type);
int unset_ftp_server_userinfo(const char *name);
int get_ftp_server_userinfo(int index, char *name, char *password, uint32_t *type);
int ftp_set_userinfo_connect(const char *name, struct credentials *pcred);
// Whether a configured user of that name has exactly that password (no slot is taken).
bool ftp_userinfo_password_matches(const char *name, const char *password);
int ftp_set_userinfo_disconnect(struct credentials *pcred);
int ftp_set_userinfo_update(struct credentials *pcred);
int ftp_malloc_userinfo_cnt(struct ftp_user_info_s *row);
void ftp_free_userinfo_cnt(struct ftp_user_info_s *row);
int set_ftp_server_user(const char *name);
int set_ftp_server_password(const char *password, const char *encrypt, uint32_t type);
const char *get_ftp_server_user(void);
const char *get_ftp_server_password(void);
const char *get_ftp_server_pass_encrypt(void);
uint32_t get_ftp_server_passtype(void);
