// Shared declarations of the FTP daemon: limits, globals, logging and every subsystem's entry
// points. Each subsystem lives in its own ftpd_*.cpp file; see the README's source layout.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "credential.h"
#include "ftpd_memory.h"
#include "ftpd_raii.h"
#include "bounded_text.h"
#include "syslog_ext.h"

struct zq_thread_master;
struct zq_thread;
struct cli_cmd;

// ---------------------------------------------------------------------------------------------
// Limits
#define FTP_MAX_CONNECT 20        // sessions (the listener counts itself in the same counter)
#define FTP_MAX_USERS 10          // rows of the user table
#define FTP_MAX_USER_CONNECT 20   // slots per user, upper bound of ftpd_user_max_connect
#define FTP_DEF_USER_CONNECT 10
#define FTP_USERNAME_MAX 64
#define FTP_PASSWORD_MAX 52
#define FTP_PLAIN_PASSWORD_MAX 25
#define FTP_BUF_SIZE 512
#define FTP_WHOLE_BUF_SIZE 1024
#define FTP_CURRENTDIR_LEN 256
#define FTP_CLIENT_ADDR_LEN 48
#define FTP_DOMAIN_MSG_LEN 20
#define FTP_DEF_TIMEOUT 10
#define FTP_DEF_LOGINTIMEOUT 2
#define FTP_DEF_LOGINTIMES 3

#define FTPD_MODULE "FTPSRV"
#define FTP_SERVER_SOCK_PATH "/app/ftps/.server_ftp"
#define FTP_CLIENT_SOCK_PATH "/app/ftps/.client_ftp"
#define FTP_TEMP_TEMPLATE "/app/ftps/.ftptemp-XXXXXX"
#define FTP_STOP_MSG "stop ftp server"

// ---------------------------------------------------------------------------------------------
// Debug switches and log lines
void set_ftp_debug_pro(int v);
int get_ftp_debug_pro(void);
void set_ftp_debug_err(int v);
int get_ftp_debug_err(void);

// Process lines (tag DEBUG), key-message log lines (tag KEYMSG) and error lines (tag ERROR).
#define FTPD_LOG_PRO(fmt, ...)                                                                      \
    do {                                                                                            \
        if (get_ftp_debug_pro() == 1)                                                               \
            printk_syslog_ext(7, FTPD_MODULE, "DEBUG", LOG_CLASS_DEBUG, fmt __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)
#define FTPD_LOG_KEY(fmt, ...)                                                                       \
    do {                                                                                             \
        if (get_ftp_debug_pro() == 1)                                                                \
            printk_syslog_ext(7, FTPD_MODULE, "KEYMSG", LOG_CLASS_DEBUG, fmt __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)
#define FTPD_LOG_ERR(fmt, ...)                                                                      \
    do {                                                                                            \
        if (get_ftp_debug_err() == 1)                                                               \
            printk_syslog_ext(7, FTPD_MODULE, "ERROR", LOG_CLASS_DEBUG, fmt __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)
// Assertion line: written always, execution goes on.
#define FTPD_ASSERT_LOG(cond, file)                                                                 \
    do {                                                                                            \
        if (!(cond))                                                                                \
            printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", LOG_CLASS_DEBUG,                         \
                              "ASSERT fail! - %s: %d, " #cond ".\r\n", file, __LINE__);             \
    } while (0)

// ---------------------------------------------------------------------------------------------
// Command recognition (cmds_parser.cpp). Codes are plain integers, named by their words.
#define FTP_CMD_USER 1
#define FTP_CMD_PASS 2
#define FTP_CMD_ACCT 3
#define FTP_CMD_CWD 4
#define FTP_CMD_CDUP 5
#define FTP_CMD_SMNT 6
#define FTP_CMD_QUIT 7
#define FTP_CMD_REIN 8
#define FTP_CMD_PORT 9
#define FTP_CMD_PASV 10
#define FTP_CMD_TYPE 11
#define FTP_CMD_STRU 12
#define FTP_CMD_MODE 13
#define FTP_CMD_RETR 14
#define FTP_CMD_STOR 15
#define FTP_CMD_STOU 16
#define FTP_CMD_APPE 17
#define FTP_CMD_ALLO 18
#define FTP_CMD_REST 19
#define FTP_CMD_RNFR 20
#define FTP_CMD_RNTO 21
#define FTP_CMD_ABOR 22
#define FTP_CMD_DELE 23
#define FTP_CMD_RMD 24
#define FTP_CMD_MKD 25
#define FTP_CMD_PWD 26
#define FTP_CMD_LIST 27
#define FTP_CMD_NLST 28
#define FTP_CMD_SITE 29
#define FTP_CMD_SYST 30
#define FTP_CMD_STAT 31
#define FTP_CMD_HELP 32
#define FTP_CMD_NOOP 33
#define FTP_CMD_BADLINE 35
#define FTP_CMD_MDTM 36
#define FTP_CMD_MAIL 37
#define FTP_CMD_MLFL 38
#define FTP_CMD_MRCP 39
#define FTP_CMD_MRSQ 40
#define FTP_CMD_MSAM 41
#define FTP_CMD_MSND 42
#define FTP_CMD_MSOM 43
#define FTP_CMD_XCWD 44
#define FTP_CMD_XRMD 45
#define FTP_CMD_XMKD 46
#define FTP_CMD_XCUP 47
#define FTP_CMD_XPWD 48
#define FTP_CMD_FEAT 49
#define FTP_CMD_OPTS 50
#define FTP_CMD_AUTH 51
#define FTP_CMD_PBSZ 52
#define FTP_CMD_PROT 53
#define FTP_CMD_EPRT 54
#define FTP_CMD_EPSV 55
#define FTP_CMD_SIZE 56
// Served only in the standard profile; the device answers them as unrecognised words.
#define FTP_CMD_MLSD 57
#define FTP_CMD_MLST 58

int ftpd_parse_cmd(const char *str, char *databuff);
int _cmp1(char c, const char *p, char *databuff);
int _cmp2(char c1, char c2, const char *p, char *databuff);
int _cmp3(char c1, char c2, char c3, const char *p, char *databuff);
void set_data(const char *src, char *databuff);

// ---------------------------------------------------------------------------------------------
// Wire profile (ftpd_profile.cpp): false for the device's behaviour byte for byte, true for the
// standard profile of stock clients on plain Linux.
void ftpd_profile_init(void);
bool ftpd_standard(void);
void ftpd_profile_set(bool standard);  // tests

// ---------------------------------------------------------------------------------------------
// Replies (ftpd_reply.cpp)
int ftpd_reply(int send_sk, const char *cmd, const char *fmt, const char *arg1, const char *arg2);
int ftpd_reply_size(int send_sk, const char *cmd, const char *fmt, unsigned long arg1, const char *arg2);

// ---------------------------------------------------------------------------------------------
// Event waiting (ftpd_epoll.cpp)
#include <sys/epoll.h>
#define FTP_EPOLL_MAX 5
#define FTP_EPOLL_IN 1
#define FTP_EPOLL_OUT 2
struct ftp_epoll_s {
    int fd[FTP_EPOLL_MAX];
    int efd;
    struct epoll_event ev[FTP_EPOLL_MAX];
    bool first_time;
    int timeout;  // seconds
    int wait_n;
};
struct ftp_epoll_s *ftpd_epoll_create(void);
int ftpd_epoll(struct ftp_epoll_s *epoll, int mode);
bool ftpd_epoll_event(const struct ftp_epoll_s *epoll, int fd, int mode);
int ftpd_epoll_destroy(struct ftp_epoll_s *epoll);

// ---------------------------------------------------------------------------------------------
// Session (ftpd_session.cpp)
void *ftp_connect_thread(void *info);
void ftp_server(int control_fd, int domain_fd, int contrl_type, const struct ftp_connect_addr *def_addr);
int init_cred(struct credentials *pcred, int contrl_type);
void clear_cred(struct credentials *pcred);
bool is_logged_in(const struct credentials *pcred);
bool is_access(const struct credentials *pcred);
bool is_data_empty(const char *s);
// peer_closed, when given, is set once the client has closed its sending side or the connection
// failed: the session answers that last line and ends.
int get_command(int control_fd, char *recvbuff, char *databuff, int buffsize, bool *peer_closed = nullptr);

// ---------------------------------------------------------------------------------------------
// HELP, SYST and server STAT (ftpd_help.cpp)
struct tab {
    const char *name;
    short implemented;
    const char *help;
};
extern struct tab cmdtab[];
extern struct tab sitetab[];
void command_help(int control_fd, char *data_buff);
void ftpd_help(int control_fd, struct tab *ctab, char *s);
struct tab *lookup(struct tab *p, const char *cmd);
void str_toupper(char *s);
int command_syst(int control_fd);
void statcmd(int control_fd, char *sendbuff, struct credentials *pcred);

// ---------------------------------------------------------------------------------------------
// Listener (ftpd_listener.cpp) and control channel (fd_domain.cpp)
extern int gb_ftp_connect_num;                // guarded by ftp_mutex_userinfo
extern unsigned int ftpd_user_max_connect;    // written under ftp_mutex_userinfo
extern std::atomic<int> no_version;
void *ftps_main(void *argv);
int server_mode(int domain_fd);
int domain_server(void);
int ftp_connect_num_add(void);
int ftp_connect_num_get(void);
int ftp_connect_num_dec(void);
void ftp_pthread_suspend(void);
void ftp_pthread_resume(void);
void ftp_set_max_user_connect(unsigned int n);
void ftp_listener_sync_init(void);  // mutex and monotonic condition of the pause pair; 0 or -1
bool is_ftp_server_start(void);
void ftp_server_enable(void);
void ftp_server_disable(void);
void ftp_server_disable_cli(void);

// ---------------------------------------------------------------------------------------------
// User table and connection slots (ftpd_users.cpp)
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

// ---------------------------------------------------------------------------------------------
// Login sequence and AAA (ftpd_login.cpp, ftpd_aaa.cpp)
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

// ---------------------------------------------------------------------------------------------
// Data-address commands (ftpd_dataaddr.cpp) and data connection (ftpd_dataconn.cpp)
int command_port(int control_fd, char *data_buff, char *client_addr, int *client_port, struct credentials *pcred);
int command_eprt(int control_fd, char *data_buff, char *client_addr, int addr_size, int *client_port,
                 struct credentials *pcred);
int command_epsv(int control_fd, char *data_buff, struct credentials *pcred);
void passive(int control_fd, struct credentials *pcred);
int parse_port_data(char *data_buff, char *client_addr);
int toint(const char *str, int strict);
int doeprt(int control_fd, char *p, char *client_addr, int addr_size, int *client_port, struct credentials *pcred);
int do_ipv6_port(int control_fd, char *p, char delim, char *client_addr, int addr_size, int *client_port,
                 const struct credentials *pcred);
int dopasv(int control_fd, struct credentials *pcred);
int dataconn(int control_fd, off_t size, const char *mode, int client_port, const char *client_addr,
             struct credentials *pcred);
int getdatasock(const char *mode, struct credentials *pcred);
void ftps_set_vrf_option(struct credentials *pcred, int fd);

// ---------------------------------------------------------------------------------------------
// Transfer engine (ftpd_transfer.cpp), retrieve and store (ftpd_retrstor.cpp)
extern const char *typenames[];
int send_data(int control_fd, int instr, int outstr, int blksize, struct credentials *pcred, int domain_fd);
int send_data_with_type(int control_fd, int instr, int outstr, int blksize, struct credentials *pcred,
                        int domain_fd);
// discard_path, when given, names the file being written: it is removed before a failure is
// answered.
int receive_data(int control_fd, int instr, int outstr, struct credentials *pcred, int domain_fd,
                 const char *discard_path = nullptr);
int receive_data_with_type(int control_fd, int instr, int outstr, struct credentials *pcred, int domain_fd,
                           const char *discard_path = nullptr);
int unix_to_dos(const char *buf, char *chang_buf, int cnt);
int dos_to_unix(const char *databuff, char *buf, int len);
// One read, repeated only when a signal interrupted it.
ssize_t ftpd_read_some(int fd, char *p, size_t len);
void type_fun(int control_fd, const char *rev_type, struct credentials *pcred);
int command_retr(int control_fd, char *data_buff, char *client_addr, int *client_port, char *current_dir,
                 struct credentials *pcred, int domain_fd);
int command_stor(int control_fd, char *data_buff, char *client_addr, int *client_port, char *current_dir,
                 struct credentials *pcred, int domain_fd);
// Standard profile: APPE appends to the file in place (created when missing).
int command_appe(int control_fd, char *data_buff, char *client_addr, int *client_port, char *current_dir,
                 struct credentials *pcred, int domain_fd);
int retrieve(int control_fd, const char *name, int client_port, const char *client_addr, char *current_dir,
             struct credentials *pcred, int domain_fd);
int store(int control_fd, const char *name, const char *mode, int unique, int client_port, const char *client_addr,
          char *current_dir, struct credentials *pcred, int domain_fd);
char *gunique(int control_fd, char *local);
bool is_special_file(const char *dir);

// ---------------------------------------------------------------------------------------------
// Listing (ftpd_list.cpp) and name listing (ftpd_nlst.cpp)
int list_fun(int control_fd, char *current_dir, char *path, int client_port, char *client_addr,
             struct credentials *pcred, int domain_fd);
int write_list(int control_fd, int data_sock, char *current_dir, char *path, struct credentials *pcred,
               int domain_fd);
int get_file_info(const char *path, char *stat_buff, int length, const char *name);
int get_file_name(const char *path, const char **name);
int ftpd_mkstemp(char *templ);
int ftpd_is_match(const char *str1, const char *match1);
int nlst_fun(int control_fd, char *current_dir, char *path, int client_port, char *client_addr,
             struct credentials *pcred, int domain_fd);
int write_nlst(int control_fd, int data_sock, char *current_dir, char *path, struct credentials *pcred,
               int domain_fd);
// Standard profile (ftpd_mlsd.cpp): MLSD sends machine-readable facts of a directory's entries
// over the data connection (as list_fun: -2 when stopped, else 0); MLST answers the facts of one
// path on the control connection (0 to go on, non-zero to end the session).
int mlsd_fun(int control_fd, char *current_dir, char *path, int client_port, char *client_addr,
             struct credentials *pcred, int domain_fd);
int command_mlst(int control_fd, char *data_buff, char *current_dir, struct credentials *pcred);

// ---------------------------------------------------------------------------------------------
// Path resolution and confinement (common_fun.cpp). A path that does not fit its buffer is
// refused (nullptr or false), never cut into another name.
// Work buffer of the path commands: two 512-byte halves, inpath then outpath.
#define FTP_PATH_HALF 512
enum class ftpd_resolve_result {
    ok,           // inpath holds the real path
    trim_failed,  // normalisation refused the client path
    refused,      // top directory "/" and the path lies in a system tree
    too_long,     // the real path does not fit: no file may be touched under a cut name
};
// Runs the resolution sequence on a client argument: inpath and outpath are the two halves of a
// work buffer of 2 * FTP_PATH_HALF bytes; on ok, inpath holds the real path.
[[nodiscard]] ftpd_resolve_result ftpd_resolve_path(const struct credentials *pcred, const char *current_dir,
                                                    const char *arg, char *inpath, char *outpath);
// Whether the session's top directory, when it lies below /mnt/, is still mounted.
bool ftpd_top_dir_mounted(const struct credentials *pcred, const char *func);
char *ftpd_rootdir_relative_path(const struct credentials *pcred, const char *current_dir, const char *path,
                                 char *outpath, int size);
bool ftpd_path_trim(const char *inpath, char *outpath, int size);
char *ftpd_relative_to_absolute_path(const struct credentials *pcred, const char *inpath, char *outpath, int size);
char *ftpd_absolute_to_relative_path(const struct credentials *pcred, const char *current_dir, char *outpath,
                                     int size);
bool is_access_path(const char *inpath);
char *ftp_make_path(char *path, int path_len, const char *path_suffix);

// ---------------------------------------------------------------------------------------------
// Directory commands (ftpd_dircmds.cpp) and file commands (ftpd_filecmds.cpp)
int command_cwd(int control_fd, char *data_buff, char *reply_buff, char *currentdir, struct credentials *pcred);
int cwd(int control_fd, char *current_dir, const char *path, char *sendbuff, struct credentials *pcred);
int pwd_fun(int control_fd, char *current_dir, char *sendbuff, struct credentials *pcred);
int command_mkd(int control_fd, char *data_buff, char *currentdir, struct credentials *pcred);
int command_rmd(int control_fd, char *data_buff, char *current_dir, struct credentials *pcred);
int command_dele(int control_fd, char *data_buff, char *reply_buff, char *current_dir, struct credentials *pcred);
int command_rnfr(int control_fd, char *data_buff, char *reply_buff, char *rename_from, char *current_dir,
                 struct credentials *pcred);
int command_rnto(int control_fd, char *data_buff, char *rename_from, char *current_dir, struct credentials *pcred);
int command_size(int control_fd, char *data_buff, char *current_dir, struct credentials *pcred);
int command_mdtm(int control_fd, char *data_buff, char *reply_buff, char *current_dir, struct credentials *pcred);
int command_stat(int control_fd, char *data_buff, char *reply_buff, char *current_dir, struct credentials *pcred);

// ---------------------------------------------------------------------------------------------
// Server settings (ftpd_settings.cpp)
extern char *ftpd_product_name;
void ftp_settings_defaults(void);  // the defaults of server start
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

// ---------------------------------------------------------------------------------------------
// Management commands (cli_ftp.cpp), password policy client (ftpd_password.cpp), reports
// (ftpd_status.cpp)
int cfg_ftp_server_init(void);
void debug_ftp_server(int code);
bool is_valid_password(char *password);
char *ftp_str_trim(char *s);
int ftpd_enable_pwd_policy_register(struct zq_thread_master *master);
void dump_ftp_server_information(ftpd_print_fn print);
void dump_ftp_server_user_password(ftpd_print_fn print);

// ---------------------------------------------------------------------------------------------
// Start-up (main.cpp)
extern int gb_ftp_start_err;
extern int gb_ftp_cli_end;
int ftp_signal_init(void);
int ftp_server_init(void);
void ftp_server_exit(void);
void set_ftp_cli_end(void);
int get_ftp_start_err(void);
void ftp_server_alarm_quit(int signo);
int ftps_cli_ready_thread(struct zq_thread *task);

// ---------------------------------------------------------------------------------------------
// Test-only switches from the environment (ftpd_testhooks.cpp, in test builds only)
#ifdef FTPS_TEST_HOOKS
void ftpd_testhooks_init(void);
void ftpd_testhooks_listener_started(void);
#else
inline void ftpd_testhooks_init(void) {}
inline void ftpd_testhooks_listener_started(void) {}
#endif

// ---------------------------------------------------------------------------------------------
// Tech-support and trap hooks (ftpd_tech.cpp, ftp_trap.cpp)
int ftp_trap_init(struct zq_thread_master *master);
void ftp_authen_trap_reg(void);
void ftp_authen_trap_send(void);
int ftpd_tech_init(struct zq_thread_master *master);
int _ftpd_tech_hook(int kind, void *arg);
void _ftpd_tech_detail(void);
int ftpd_tech_printf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
