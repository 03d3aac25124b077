// The server's own user table and each user's connection slots, the connection counter and the
// per-user connection limit, all under one lock.
#pragma once

#include "base/ftpd.h"

// One connection slot: a snapshot of a session's transfer settings and addresses, as the status
// report shows it.
struct ftp_user_cnt_info_s {
    int use_flag;   // 1: held by a session
    ftp_type tran_type;
    ftp_data_mode data_mode;  // table copy only: the data connection open at the snapshot
    struct ftp_connect_addr def_addr;
    int contrl_type;  // family of the control connection
    int data_type;    // family of the data connection: 0, AF_INET or AF_INET6
    struct sockaddr_in data_dest;
    struct sockaddr_in6 data_destv6;
    struct sockaddr_in data_source;
    struct sockaddr_in6 data_sourcev6;
    struct sockaddr_in pasv_dest;
    struct sockaddr_in6 pasv_destv6;
    struct sockaddr_in pasv_addr;
    struct sockaddr_in6 pasv_addrv6;
};

// A session's hold on one slot: the row's generation makes sure a late release never frees a slot
// of a row of the same name made after the session's row was removed.
struct ftp_slot {
    int index = -1;
    uint32_t generation = 0;
    char user[FTP_NAME_LEN] = {};  // the row's name
};

extern int gb_ftp_connect_num;              // guarded by the table's lock
extern unsigned int ftpd_user_max_connect;  // written under the table's lock
int ftp_connect_num_add(void);
int ftp_connect_num_get(void);
int ftp_connect_num_dec(void);
void ftp_set_max_user_connect(unsigned int n);

struct ftp_user_info_s {
    char username[FTP_NAME_LEN];
    char password[FTP_PASSWD_LEN];
    char pass_encrypt[FTP_PASSWD_LEN];
    uint32_t pass_type;  // 0 plain, 7 encrypted
    int32_t use_flag;
    int32_t connect_num;
    struct ftp_user_cnt_info_s *cnt[FTP_MAX_SLOTS];
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
// Takes a free slot of the user name for a session whose snapshot is given: 0, with the row's
// name and password copied out (each FTP_NAME_LEN / FTP_PASSWD_LEN bytes); 1 no memory; 2 the
// user is at its connection limit; 5 no such user.
int ftp_set_userinfo_connect(const char *name, const struct ftp_user_cnt_info_s &snapshot, ftp_slot *slot,
                             char *user_out, char *password_out);
// Whether a configured user of that name has exactly that password (no slot is taken).
bool ftp_userinfo_password_matches(const char *name, const char *password);
// Gives the slot back (and forgets it): 0, or -1 when it was not held.
int ftp_set_userinfo_disconnect(ftp_slot *slot);
// The slot's snapshot refreshed; without a data connection only its data mode is cleared.
int ftp_set_userinfo_update(const ftp_slot &slot, const struct ftp_user_cnt_info_s &snapshot);
int ftp_malloc_userinfo_cnt(struct ftp_user_info_s *row);
void ftp_free_userinfo_cnt(struct ftp_user_info_s *row);
int set_ftp_server_user(const char *name);
int set_ftp_server_password(const char *password, const char *encrypt, uint32_t type);
const char *get_ftp_server_user(void);
const char *get_ftp_server_password(void);
const char *get_ftp_server_pass_encrypt(void);
uint32_t get_ftp_server_passtype(void);
