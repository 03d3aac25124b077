// Process entry: the command line, the single-instance guard, start-up in its fixed order with a
// key message per step, the main event loop, and the shutdown steps.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app_dbg.h"
#include "app_init.h"
#include "cli.h"
#include "fs_info.h"
#include "base/ftpd.h"
#include "admin/admin.h"
#include "control/listener.h"
#include "login/login.h"
#include "main.h"
#include "login/security.h"
#include "login/trap.h"
#include "base/policy.h"
#include "base/xferlog.h"
#include "ftp_platform.h"
#include "control/loop.h"
#include "base/settings.h"
#include "admin/techsupport.h"
#include "base/testhooks.h"
#include "base/users.h"
#include "ham.h"
#include "zq_thread.h"

int gb_ftp_start_err = 0;
int gb_ftp_cli_end = 0;

static const char usage_text[] =
    "\nUsage:  ftp_server.elf [option]\n\nOptions:   -d   debug, open startup debug switch.\n"
    "           -h   print help message.\n";

void set_ftp_cli_end(void) {
    gb_ftp_cli_end = 1;
}

int get_ftp_start_err(void) {
    return gb_ftp_start_err;
}

void ftp_server_alarm_quit(int /*signo*/) {
    ham_cancel_proc(getpid());
    _exit(1);
}

int ftp_signal_init(void) {
    signal(SIGPIPE, SIG_IGN);
    // Log rotation sends SIGHUP: it must never end the daemon. Ignored until the event loop takes
    // it over (to reopen the log) and again once the loop is gone.
    signal(SIGHUP, SIG_IGN);
    // Every thread started from here on inherits a mask without the ending signals and SIGHUP, so
    // only the main thread takes them (the event loop unblocks SIGTERM, SIGINT and SIGHUP, main
    // SIGTSTP). A worker thread that caught one might run the handler late or never: sanitizer
    // runtimes defer it to the thread's next library call.
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTSTP);
    sigaddset(&ending, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = ftp_server_alarm_quit;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTSTP, &sa, nullptr);
    return 0;
}

int ftp_server_init(void) {
    ftp_settings_defaults();
    ftp_listener_sync_init();
    if (ftp_userinfo_init() != 0) {
        FTPD_LOG_ERR("Fail to init pthread condition.\n");
        return -1;
    }
    if (init_fs_info() < 0) return -1;
    if (ftp_get_product_name() == nullptr) FTPD_LOG_ERR("sys get product name fail\n");
    return 0;
}

void ftp_server_exit(void) {
    // The pause pair may still have the parked listener waiting on it when the process ends, so
    // it is left to the process's end rather than destroyed under a waiter.
    ftp_release_product_name();
}

int ftps_cli_ready_thread(struct zq_thread *task) {
    cli_client_ready(task);
    FTPD_KEYMSG("cli_client_ready.\n");
    return 0;
}

namespace {

// The command line: false when the process only logs its usage and ends.
bool take_arguments(int argc, char **argv) {
    if (argc > 1) {
        if (strcmp(argv[1], "-d") != 0) {
            printk_syslog_ext(7, "UNKNOW_MODULE", "DEBUG", LOG_CLASS_DEBUG, "%s", usage_text);
            // On a terminal the administrator sees it too.
            if (isatty(STDOUT_FILENO)) fputs(usage_text + 1, stdout);
            return false;
        }
        gb_ftp_start_err = 1;
        app_public_set_debug(1);
    }
    const char *tmpdir = getenv("TMPDIR");
    if (tmpdir == nullptr) fprintf(stderr, "ftp_server.elf: TMPDIR is not set; not starting\n");
    // The control channel's socket path below TMPDIR must fit its buffer, or the listener could
    // never start while the process ran on without a word.
    if (tmpdir != nullptr && strlen(tmpdir) + strlen(FTP_SERVER_SOCK_PATH) >= FTP_NAME_LEN) {
        fprintf(stderr, "ftp_server.elf: TMPDIR is longer than %zu characters; not starting\n",
                FTP_NAME_LEN - 1 - strlen(FTP_SERVER_SOCK_PATH));
        return false;
    }
    return true;
}

// Signals, memory accounting, the server's own state and AAA: 0, or -1 when start-up must stop.
int init_process(void) {
    ftp_signal_init();
    FTPD_KEYMSG("ftp_signal_init OK.\n");

    ftpd_mem_init();
    ftpd_testhooks_init();
    FTPD_KEYMSG("ftpd_mem_init OK.\n");

    if (ftp_server_init() != 0) {
        FTPD_KEYMSG("ftp_server_init fail.\n");
        return -1;
    }
    FTPD_KEYMSG("ftp_server_init OK.\n");

    // TLS only where the profile may serve it; the policy then knows whether it does.
    bool standard = platform_ftp_profile() == PLATFORM_FTP_PROFILE_STANDARD;
    if (ftpd_security_init(standard) != 0) return -1;
    ftp_policy_init();
    const ftp_policy &policy = ftp_policy_get();
    ftp_set_max_user_connect(policy.user_connect_default);
    // The transfer log is opened again with the log targets on SIGHUP (log rotation).
    if (policy.transfer_log && ftp_xferlog_open(platform_log_transfer_log()) != 0)
        printk_syslog_ext(3, FTPD_MODULE, "XFERLOG", LOG_CLASS_ALWAYS, "Transfer log %s not opened.\n",
                          platform_log_transfer_log());
    zq_thread_set_hangup_hook([] { (void)ftp_xferlog_reopen(); });

    if (ftp_aaa_init() != 0)
        FTPD_KEYMSG("ftp aaa init OK.\n");
    else
        FTPD_KEYMSG("ftp aaa init fail.\n");
    return 0;
}

// The listener thread; only the main thread takes SIGTSTP from here on.
int start_listener(pthread_t *listener) {
    int rc = pthread_create(listener, nullptr, ftps_main, nullptr);
    if (rc != 0) {
        FTPD_KEYMSG("create ftps_main fail, ret=%d, %s.\n", rc, strerror(rc));
        return -1;
    }
    FTPD_KEYMSG("create ftps_main OK.\n");
    sigset_t tstp;
    sigemptyset(&tstp);
    sigaddset(&tstp, SIGTSTP);
    pthread_sigmask(SIG_UNBLOCK, &tstp, nullptr);
    return 0;
}

// Everything that runs on the event loop: the command line, traps, tech-support, the ready
// report, the password policy and liveness. 0, or -1 when start-up must stop.
int init_event_services(struct zq_thread_master *master) {
    if (cli_client_init("FTPSRV", master) != 0) {
        FTPD_KEYMSG("initialize CLI fail, errno=%d, %s.\n", errno, strerror(errno));
        return -1;
    }
    FTPD_KEYMSG("cli_client_init OK.\n");

    cfg_ftp_server_init();
    FTPD_KEYMSG("cfg_ftp_server_init OK.\n");

    cli_add_param_reload_end_hook(set_ftp_cli_end);

    if (ftp_trap_init(master) != 0) {
        FTPD_KEYMSG("initialize ftp trap fail, errno=%d, %s.\n", errno, strerror(errno));
        return -1;
    }
    FTPD_KEYMSG("ftp_trap_init OK.\n");

    if (ftpd_tech_init(master) < 0) {
        FTPD_KEYMSG("ftp server tech init v2 failed.");
        return -1;
    }
    FTPD_KEYMSG("ftpd_tech_init OK.\n");

    if (zq_thread_add_timer_withname(master, ftps_cli_ready_thread, nullptr, 5, "ftp_server") == nullptr)
        ftps_cli_ready_thread(nullptr);

    // A failed registration writes both messages; that pair is kept.
    if (ftpd_enable_pwd_policy_register(master) != 0)
        FTPD_KEYMSG("initialize pwd policy fail, errno=%d, %s.\n", errno, strerror(errno));
    FTPD_KEYMSG("initialize pwd policy OK.\n");

    app_public_init_dead_detection(master);
    ham_watchdog_start(master);
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (!take_arguments(argc, argv)) return 0;

    struct app_init_s init;
    memset(&init, 0, sizeof(init));
    strcpy(init.name, "ftps");
    init.instance_fd = -1;
    init.syslog_single_thread = false;

    struct zq_thread_master *master = nullptr;
    pthread_t listener;
    bool listener_started = false;

    if (app_public_instance_init(&init) != 0) goto shutdown3;
    FTPD_KEYMSG("=============== ftp_server main ===============\n");
    if (init_process() != 0 || start_listener(&listener) != 0) goto shutdown3;
    listener_started = true;

    master = zq_thread_master_create();
    if (master == nullptr) {
        FTPD_KEYMSG("create thread master fail, memory is not enough.\n");
        goto shutdown2;
    }
    FTPD_KEYMSG("create thread master OK.\n");
    if (init_event_services(master) != 0) goto shutdown1;

    {
        struct zq_thread task;
        while (zq_thread_fetch(master, &task) != nullptr) zq_thread_call(&task);
    }

shutdown1:
    zq_thread_master_finish(master);
shutdown2:
    if (listener_started) pthread_cancel(listener);
    // Sessions that are ending (a QUIT just answered) finish their last step, for at most a
    // second; sessions still serving are not waited for.
    for (int i = 0; i < 100 && ftp_session_threads_ending() > 0; i++) usleep(10 * 1000);
shutdown3:
    app_public_instance_deinit(&init);
    ftp_server_exit();
    return 0;
}
