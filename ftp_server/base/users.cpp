// The server's own user table (at most ten configured users with plain and/or type-7 passwords),
// each user's connection slots with the per-user connection limit, the lock that guards them
// (shared with the listener's connection counter), and the older single-user configuration.
#include "base/users.h"

#include <cstring>
#include <mutex>

#include "base/ftpd.h"
#include "login_pwd.h"

struct ftp_user_info_s gb_usinfo[FTP_MAX_USERS];
int gb_ftp_connect_num = 0;
unsigned int ftpd_user_max_connect = FTP_DEF_USER_CONNECT;

namespace {

// Not recursive: no function below may be entered with it held.
std::mutex ftp_mutex_userinfo;

// Single-user configuration: read and written by the management commands only.
char user_name[FTP_NAME_LEN];
char pass_word[FTP_PASSWD_LEN];
char pass_encrypt[FTP_PASSWD_LEN];
uint32_t pass_type;

// Every row made gets a new number: a session gives its slot back only to the row it took it
// from, never to a row of the same name made after that one was removed.
uint32_t last_generation;

// The live limit, never above the slot array.
unsigned int slot_limit() {
    return ftpd_user_max_connect > FTP_MAX_SLOTS ? FTP_MAX_SLOTS : ftpd_user_max_connect;
}

// Caller holds the lock. Free rows are zero and an empty name never matches.
struct ftp_user_info_s *find_row_locked(const char *name) {
    if (name == nullptr || name[0] == '\0') return nullptr;
    for (auto &row : gb_usinfo) {
        if (row.use_flag == 1 && strcmp(row.username, name) == 0) return &row;
    }
    return nullptr;
}

// Caller holds the lock. The row a session took its slot from, if it still exists.
struct ftp_user_info_s *find_session_row_locked(const ftp_slot &slot) {
    struct ftp_user_info_s *row = find_row_locked(slot.user);
    return row != nullptr && row->generation == slot.generation ? row : nullptr;
}

bool length_in(const char *s, size_t lo, size_t hi) {
    if (s == nullptr) return false;
    size_t n = strnlen(s, hi + 1);
    return n >= lo && n <= hi;
}

}  // namespace

int ftp_userinfo_init(void) {
    // std::mutex needs no run-time set-up; kept as the start-up step that owns the lock.
    return 0;
}

void ftp_userinfo_lock(void) {
    ftp_mutex_userinfo.lock();
}

void ftp_userinfo_unlock(void) {
    ftp_mutex_userinfo.unlock();
}

struct ftp_user_info_s *ftp_serch_userinfo(const char *name) {
    std::lock_guard<std::mutex> lock(ftp_mutex_userinfo);
    return find_row_locked(name);
}

int set_ftp_server_userinfo(const char *name, const char *password, const char *encrypt, uint32_t type) {
    if (!length_in(name, 1, FTP_USERNAME_MAX) || !length_in(password, 1, FTP_PASSWORD_MAX)) return 3;
    FTPD_LOG_PRO("%s.\n", __func__);
    if (ftp_serch_userinfo(name) != nullptr) {
        FTPD_LOG_PRO("%s, ftp user exist.\n", __func__);
        return 4;
    }
    std::lock_guard<std::mutex> lock(ftp_mutex_userinfo);
    for (auto &row : gb_usinfo) {
        if (row.use_flag != 0) continue;
        (void)ftpd_strlcpy(row.username, name, sizeof row.username);
        (void)ftpd_strlcpy(row.password, password, sizeof row.password);
        if (encrypt != nullptr)
            (void)ftpd_strlcpy(row.pass_encrypt, encrypt, sizeof row.pass_encrypt);
        else
            memset(row.pass_encrypt, 0, sizeof row.pass_encrypt);
        row.pass_type = type;
        row.use_flag = 1;
        row.generation = ++last_generation;
        return 0;
    }
    return 2;
}

int unset_ftp_server_userinfo(const char *name) {
    FTPD_LOG_PRO("%s.\n", __func__);
    if (!length_in(name, 1, FTP_USERNAME_MAX)) return 3;
    if (ftp_serch_userinfo(name) == nullptr) return 5;
    std::lock_guard<std::mutex> lock(ftp_mutex_userinfo);
    // Looked up again under the lock: the row may have gone meanwhile.
    struct ftp_user_info_s *row = find_row_locked(name);
    if (row == nullptr) return 5;
    // Live sessions of this user keep running; their later disconnects find no user.
    if (row->connect_num != 0) ftp_free_userinfo_cnt(row);
    memset(row, 0, sizeof *row);
    return 0;
}

int get_ftp_server_userinfo(int index, char *name, char *password, uint32_t *type) {
    if (index < 0 || index >= FTP_MAX_USERS || name == nullptr || password == nullptr || type == nullptr) return -1;
    std::lock_guard<std::mutex> lock(ftp_mutex_userinfo);
    struct ftp_user_info_s &row = gb_usinfo[index];
    if (row.use_flag != 1) return -1;
    if (login_is_service_pwd_encrypt_enable() && row.pass_type == 0) {
        // A permanent upgrade: the row reports type 7 from now on, the plain text is kept.
        char enc[FTP_PASSWD_LEN] = {0};
        login_password_encrypt(row.password, enc, sizeof enc);
        if (enc[0] == '\0') return -2;
        (void)ftpd_strlcpy(row.pass_encrypt, enc, sizeof row.pass_encrypt);
        row.pass_type = 7;
    }
    (void)ftpd_strlcpy(name, row.username, FTP_NAME_LEN);
    *type = row.pass_type;
    (void)ftpd_strlcpy(password, row.pass_type == 7 ? row.pass_encrypt : row.password, FTP_PASSWD_LEN);
    return 0;
}

int ftp_malloc_userinfo_cnt(struct ftp_user_info_s *row) {
    if (row == nullptr) return -1;
    unsigned int n = slot_limit();
    for (unsigned int i = 0; i < n; i++) {
        row->cnt[i] =
            static_cast<struct ftp_user_cnt_info_s *>(ftpd_malloc(FTPD_M_USER_CNT, sizeof(struct ftp_user_cnt_info_s)));
        if (row->cnt[i] == nullptr) {
            for (unsigned int j = 0; j < i; j++) {
                ftpd_free(FTPD_M_USER_CNT, row->cnt[j]);
                row->cnt[j] = nullptr;
            }
            return -1;
        }
    }
    return 0;
}

void ftp_free_userinfo_cnt(struct ftp_user_info_s *row) {
    if (row == nullptr) return;
    // Every slot that is held is given back, whatever the limit is now (it may have changed
    // while the user was connected), and the pointer cleared so that a stale session's update
    // finds no slot instead of freed memory.
    for (auto &slot : row->cnt) {
        if (slot != nullptr) ftpd_free(FTPD_M_USER_CNT, slot);
        slot = nullptr;
    }
}

int ftp_set_userinfo_connect(const char *name, const struct ftp_user_cnt_info_s &snapshot, ftp_slot *slot,
                             char *user_out, char *password_out) {
    std::lock_guard<std::mutex> lock(ftp_mutex_userinfo);
    struct ftp_user_info_s *row = find_row_locked(name);
    if (row == nullptr) return 5;
    if (static_cast<unsigned int>(row->connect_num) >= ftpd_user_max_connect) return 2;
    if (row->connect_num == 0 && ftp_malloc_userinfo_cnt(row) != 0) {
        FTPD_LOG_ERR("%s: malloc fail.\n", FTPD_MODULE);
        return 1;
    }
    row->connect_num++;
    unsigned int n = slot_limit();
    for (unsigned int i = 0; i < n; i++) {
        struct ftp_user_cnt_info_s *cnt = row->cnt[i];
        if (cnt == nullptr || cnt->use_flag != 0) continue;
        *cnt = snapshot;
        cnt->use_flag = 1;
        slot->index = static_cast<int>(i);
        FTPD_LOG_PRO("save connect userinfo. index[%d]\n", static_cast<int>(i));
        break;
    }
    slot->generation = row->generation;
    (void)ftpd_strlcpy(slot->user, row->username, sizeof slot->user);
    (void)ftpd_strlcpy(user_out, row->username, FTP_NAME_LEN);
    (void)ftpd_strlcpy(password_out, row->password, FTP_PASSWD_LEN);
    return 0;
}

bool ftp_userinfo_password_matches(const char *name, const char *password) {
    std::lock_guard<std::mutex> lock(ftp_mutex_userinfo);
    const struct ftp_user_info_s *row = find_row_locked(name);
    return row != nullptr && password != nullptr && password[0] != '\0' && strcmp(row->password, password) == 0;
}

int ftp_set_userinfo_disconnect(ftp_slot *slot) {
    if (slot->generation == 0 && slot->index < 0) return -1;
    FTPD_LOG_PRO("%s.\n", __func__);
    int ret = -1;
    {
        std::lock_guard<std::mutex> lock(ftp_mutex_userinfo);
        struct ftp_user_info_s *row = find_session_row_locked(*slot);
        if (row != nullptr && row->connect_num > 0) {
            row->connect_num--;
            int idx = slot->index;
            if (idx >= 0 && idx < FTP_MAX_SLOTS && row->cnt[idx] != nullptr) row->cnt[idx]->use_flag = 0;
            if (row->connect_num == 0) ftp_free_userinfo_cnt(row);
            ret = 0;
        }
    }
    if (ret != 0) FTPD_LOG_PRO("ftp set userinfo disconnect failed: no such connection.");
    *slot = ftp_slot{};
    return ret;
}

int ftp_set_userinfo_update(const ftp_slot &slot, const struct ftp_user_cnt_info_s &snapshot) {
    std::lock_guard<std::mutex> lock(ftp_mutex_userinfo);
    int idx = slot.index;
    if (idx == -1) {
        FTPD_LOG_ERR("set user connect information error.cnt index[%d]\n", idx);
        return -1;
    }
    struct ftp_user_info_s *row = find_session_row_locked(slot);
    if (row == nullptr) return -1;
    if (idx < 0 || idx >= FTP_MAX_USER_CONNECT || row->cnt[idx] == nullptr) {
        FTPD_LOG_PRO("%s, cnt is null.\n", __func__);
        return -1;
    }
    struct ftp_user_cnt_info_s *cnt = row->cnt[idx];
    if (snapshot.data_mode == ftp_data_mode::none) {
        cnt->data_mode = ftp_data_mode::none;
        return -1;
    }
    *cnt = snapshot;
    cnt->use_flag = 1;
    return 0;
}

int ftp_connect_num_add(void) {
    std::lock_guard<std::mutex> lock(ftp_mutex_userinfo);
    return ++gb_ftp_connect_num;
}

int ftp_connect_num_get(void) {
    std::lock_guard<std::mutex> lock(ftp_mutex_userinfo);
    return gb_ftp_connect_num;
}

int ftp_connect_num_dec(void) {
    std::lock_guard<std::mutex> lock(ftp_mutex_userinfo);
    if (gb_ftp_connect_num < 1) return -1;
    gb_ftp_connect_num--;
    return 0;
}

void ftp_set_max_user_connect(unsigned int n) {
    {
        std::lock_guard<std::mutex> lock(ftp_mutex_userinfo);
        ftpd_user_max_connect = n;
    }
    FTPD_LOG_PRO("Set ftpd_user_max_connect = %u", n);
}

int set_ftp_server_user(const char *name) {
    if (name == nullptr) {
        memset(user_name, 0, sizeof user_name);
        return 0;
    }
    if (!length_in(name, 1, FTP_USERNAME_MAX)) return -1;
    (void)ftpd_strlcpy(user_name, name, sizeof user_name);
    return 0;
}

int set_ftp_server_password(const char *password, const char *encrypt, uint32_t type) {
    pass_type = type;
    if (password == nullptr) {
        memset(pass_word, 0, sizeof pass_word);
        memset(pass_encrypt, 0, sizeof pass_encrypt);
        return 0;
    }
    size_t len = strlen(password);
    if (len > FTP_PASSWORD_MAX) return static_cast<int>(len);
    (void)ftpd_strlcpy(pass_word, password, sizeof pass_word);
    if (encrypt != nullptr)
        (void)ftpd_strlcpy(pass_encrypt, encrypt, sizeof pass_encrypt);
    else
        memset(pass_encrypt, 0, sizeof pass_encrypt);
    return 0;
}

const char *get_ftp_server_user(void) {
    return user_name;
}

const char *get_ftp_server_password(void) {
    return pass_word;
}

const char *get_ftp_server_pass_encrypt(void) {
    return pass_encrypt;
}

uint32_t get_ftp_server_passtype(void) {
    return pass_type;
}
