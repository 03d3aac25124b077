// AAA service and the local user database: method lists from the platform file (local, radius,
// pam, none) and the user database file.
#pragma once

#include <cstdint>

#define AAA_UTYPE_FTP 7
#define AAA_AUTHEN_MODE_PAP 0

enum aaa_state_t { AAA_NONE_STATE = 0, AAA_ACCEPT = 1, AAA_REJECT = 2, AAA_CHALLENGE = 3, AAA_TIMEOUT = 4, AAA_ERROR = 5 };
enum aaa_mtype_t { AAA_MTYPE_NONE = 0, AAA_MTYPE_LOCAL = 1, AAA_MTYPE_RADIUS = 2, AAA_MTYPE_PAM = 3 };

// Attribute element codes that the daemon packs into the request vector.
#define AAA_ELEM_ACTION 145
#define AAA_ELEM_PRIVILEGE 146
#define AAA_ELEM_AUTHEN_TYPE 147
#define AAA_ELEM_AUTHEN_SERVICE 148
#define AAA_ELEM_REM_ADDR 150
#define AAA_ELEM_PORT 152
#define AAA_ELEM_USERNAME 157
#define AAA_ELEM_PASSWORD 158

struct aaa_srv_reg_info_s {
    char name[32];
    void *callbacks;
};

struct tlv_s {
    uint32_t len;
    const char *data;
};

// Caller-supplied buffer of packed elements: each element is code (u32), len (u32, the whole
// element including this 8-byte header) and len - 8 value bytes, back to back.
struct aaa_iovec_s {
    uint32_t left;
    uint32_t used;
    char *data;
};

struct aaa_elem_s {
    uint32_t code;
    uint32_t len;
};

struct authen_info_sub_s {
    int utype;
    int mode;
    bool is_challenge_answer;
    uint32_t session_id;
    int service_type;
    tlv_s name;
    tlv_s password;
};

struct authen_info_s {
    authen_info_sub_s sub;
    const char *mlist;
    aaa_iovec_s *iov;
};

struct aaa_result_sub_s {
    aaa_state_t result;
    aaa_mtype_t mtype;
    int ip_privilege;
};

struct aaa_result_s {
    aaa_result_sub_s sub;
};

int aaa_svr_reg(aaa_srv_reg_info_s *info);          // >= 0 registered ([aaa] registered)
int aaa_get_new_model_status(void);                  // 1 new (method-list) model ([aaa] new_model)
uint32_t aaa_get_session_id(void);                   // a fresh non-zero id
int aaa_mlist_existed(const char *name, int utype);  // 0 unknown, 3 first method none, 1 otherwise
// Starts the request; the verdict is collected with aaa_user_get_result. 0, or non-zero.
int aaa_user_req_authen(authen_info_s *req);
// Waits at most wait_seconds for the verdict of session_id. 0 with *result set (free it with
// aaa_free_result_info), or non-zero on time-out.
int aaa_user_get_result(uint32_t session_id, int utype, int wait_seconds, aaa_result_s **result);
void aaa_free_result_info(aaa_result_s *result);
int aaa_delete_user(uint32_t session_id, int utype);

// Local user database ([aaa] user_database).
struct username_lib_user_s {
    char name[65];
    bool reject_remote_login;
    int online_amount;
    int online_count;
    uint32_t login_mode;
};

// Checks name and password against the database. 0 with *result set, or non-zero.
int username_lib_authen_req(authen_info_s *req, aaa_result_s **result);
// Copies the account into *out. 0, or negative when there is no such account.
int username_lib_copy_user(const char *name, username_lib_user_s *out);
void username_lib_release_user(username_lib_user_s *user);
// Writes the online count of the copy back. 0, or negative.
int username_lib_update_user(const username_lib_user_s *user);

// What an account of the local user database may do ([user NAME] keys home, write, max_rate).
struct username_lib_rights_s {
    int home_storage;     // 0-based storage index (get_fs_prefix_index); -1: no home of its own
    char home_path[256];  // the home inside that storage, from "/"; empty without a home
    bool write;           // may change files (upload, append, delete, rename, make directories)
    int max_rate;         // KiB/s per transfer; 0: the server's [ftp] max_rate
};
// Copies the account's rights into *out. 0; -2 when there is no such account; -3 when one of its
// rights was refused at load (the account cannot log in either).
int username_lib_user_rights(const char *name, username_lib_rights_s *out);
