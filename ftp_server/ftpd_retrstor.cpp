// RETR and STOR: resolve the client's file name inside the top directory, make sure the storage is
// mounted, open the file and the data connection, run the transfer engine and tidy up. A failed or
// aborted upload leaves no partial file. Also the unique-name rule for uploads.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "ftpd.h"

namespace {

constexpr int kPathLen = FTP_WHOLE_BUF_SIZE / 2;
constexpr int kSendBlock = 512;

const char kLocalError[] = "451 Requested action aborted. Local error in processing.\r\n";

int reply_text(int control_fd, const char *text) {
    return ftpd_reply(control_fd, nullptr, "%s", text, nullptr);
}

// Runs the resolution sequence for the client's name: on success inpath holds the real path.
// Otherwise the refusal has been sent and false is returned.
bool resolve_client_name(int control_fd, const char *func, const char *name, const char *client_name, char *current_dir,
                         struct credentials *pcred, char *inpath, char *outpath) {
    ftpd_resolve_result r = ftpd_resolve_path(pcred, current_dir, name, inpath, outpath);
    if (r == ftpd_resolve_result::trim_failed) {
        reply_text(control_fd, kLocalError);
        return false;
    }
    if (r == ftpd_resolve_result::ok && ftpd_top_dir_mounted(pcred, func)) return true;
    ftpd_reply(control_fd, nullptr, "550 \"%s\": No such file or directory.\r\n", client_name, nullptr);
    return false;
}

// Closes the data connection of a finished transfer; both data descriptors end at -1.
void close_data_connection(int dfd, struct credentials *pcred) {
    int on = 1;
    ioctl(dfd, FIONBIO, &on);
    close(dfd);
    // A connection of the other mode left open by an earlier command is given back as well.
    if (pcred->data >= 0 && pcred->data != dfd) close(pcred->data);
    if (pcred->pdata >= 0 && pcred->pdata != dfd) close(pcred->pdata);
    pcred->data = -1;
    pcred->pdata = -1;
}

int open_flags(const char *mode) {
    // Every mode creates and empties the file; "a" is read-write, not append, by design.
    if (strcmp(mode, "w") == 0) return O_WRONLY | O_CREAT | O_TRUNC;
    if (strcmp(mode, "a") == 0) return O_RDWR | O_CREAT | O_TRUNC;
    return O_RDONLY | O_CREAT | O_TRUNC;
}

// The checks RETR and STOR share before their worker runs. 1: go on; otherwise the reply result.
int transfer_precheck(int control_fd, const char *data_buff, const int *client_port, struct credentials *pcred) {
    if (!is_logged_in(pcred)) return reply_text(control_fd, "530 Not logged in.\r\n");
    // A client port above 1024 marks that PORT/EPRT or PASV/EPSV gave a data address.
    if (!is_access(pcred) || *client_port <= 1024) return reply_text(control_fd, kLocalError);
    if (is_data_empty(data_buff)) return reply_text(control_fd, "501 Syntax error in parameters or arguments.\r\n");
    return 1;
}

}  // namespace

int command_retr(int control_fd, char *data_buff, char *client_addr, int *client_port, char *current_dir,
                 struct credentials *pcred, int domain_fd) {
    int r = transfer_precheck(control_fd, data_buff, client_port, pcred);
    if (r != 1) return r < 0 ? -1 : 0;
    // A stop message during the transfer ends the session.
    return retrieve(control_fd, data_buff, *client_port, client_addr, current_dir, pcred, domain_fd) == -2 ? -1 : 0;
}

int command_stor(int control_fd, char *data_buff, char *client_addr, int *client_port, char *current_dir,
                 struct credentials *pcred, int domain_fd) {
    int r = transfer_precheck(control_fd, data_buff, client_port, pcred);
    if (r != 1) return r < 0 ? -1 : 0;
    return store(control_fd, data_buff, "w", 0, *client_port, client_addr, current_dir, pcred, domain_fd) == -2 ? -1
                                                                                                                : 0;
}

int command_appe(int control_fd, char *data_buff, char *client_addr, int *client_port, char *current_dir,
                 struct credentials *pcred, int domain_fd) {
    (void)data_buff, (void)client_addr, (void)client_port, (void)current_dir, (void)pcred, (void)domain_fd;
    return reply_text(control_fd, "502 Command not implemented.\r\n") < 0 ? -1 : 0;
}

int retrieve(int control_fd, const char *name, int client_port, const char *client_addr, char *current_dir,
             struct credentials *pcred, int domain_fd) {
    ftpd_block whole(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!whole) {
        FTPD_LOG_ERR("%s: malloc fail\n", FTPD_MODULE);
        reply_text(control_fd, kLocalError);
        return 0;
    }
    char *inpath = whole.get();
    char *outpath = whole.get() + kPathLen;
    if (!resolve_client_name(control_fd, "retrieve", name, name, current_dir, pcred, inpath, outpath)) return 0;

    unique_fd file(open(inpath, O_RDONLY));
    if (!file) {
        ftpd_reply(control_fd, "550", "%s Can not be open.", name, nullptr);
        return 0;
    }
    pcred->byte_count = -1;
    struct stat st;
    if (fstat(file.get(), &st) < 0 || !S_ISREG(st.st_mode)) {
        ftpd_reply(control_fd, "550", "%s: is an illegal file.", name, nullptr);
        return 0;
    }
    int dfd = dataconn(control_fd, st.st_size, "w", client_port, client_addr, pcred);
    if (dfd < 0) return 0;
    ftp_set_userinfo_update(pcred);
    int result = send_data(control_fd, file.get(), dfd, kSendBlock, pcred, domain_fd);
    close_data_connection(dfd, pcred);
    ftp_set_userinfo_update(pcred);
    return result;
}

int store(int control_fd, const char *name, const char *mode, int unique, int client_port, const char *client_addr,
          char *current_dir, struct credentials *pcred, int domain_fd) {
    ftpd_block whole(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!whole) {
        FTPD_LOG_ERR("%s: malloc fail\n", FTPD_MODULE);
        reply_text(control_fd, kLocalError);
        return 0;
    }
    char *inpath = whole.get();
    char *outpath = whole.get() + kPathLen;
    char tmp_name[kPathLen];
    ftpd_strlcpy(tmp_name, name, sizeof tmp_name);
    if (!resolve_client_name(control_fd, "store", tmp_name, name, current_dir, pcred, inpath, outpath)) return 0;

    // The generated name belongs to this call and is given back on every way out.
    struct unique_name {
        char *p = nullptr;
        ~unique_name() {
            if (p != nullptr) ftpd_free(FTPD_M_STRING, p);
        }
    } generated;
    const char *path = inpath;
    struct stat st;
    if (unique != 0 && stat(inpath, &st) == 0) {
        generated.p = gunique(control_fd, inpath);
        if (generated.p == nullptr) return 0;
        path = generated.p;
    }

    unique_fd file(open(path, open_flags(mode), 0644));
    if (!file) {
        ftpd_reply(control_fd, "553", "%s open fail.", name, nullptr);
        return 0;
    }
    pcred->byte_count = -1;
    // A data connection that cannot be made leaves the created (or emptied) file behind.
    int dfd = dataconn(control_fd, -1, "r", client_port, client_addr, pcred);
    if (dfd < 0) return 0;
    ftp_set_userinfo_update(pcred);
    int result = receive_data(control_fd, dfd, file.get(), pcred, domain_fd, path);
    if (result == 0) {
        // The name the client asked for is reported, not the generated one.
        if (unique != 0)
            ftpd_reply(control_fd, "226", "Transfer complete (unique file name:%s).", name, nullptr);
        else
            ftpd_reply(control_fd, "226", "Transfer complete.", nullptr, nullptr);
    }
    close_data_connection(dfd, pcred);
    ftp_set_userinfo_update(pcred);
    return result;
}

char *gunique(int control_fd, char *local) {
    char *slash = strrchr(local, '/');
    const char *dir = ".";
    if (slash != nullptr) {
        *slash = '\0';
        dir = local[0] != '\0' ? local : "/";
    }
    struct stat st;
    int rc = stat(dir, &st);
    if (slash != nullptr) *slash = '/';
    if (rc < 0) {
        reply_text(control_fd, "553 Requested action not taken.\r\n");
        return nullptr;
    }
    // The result is the caller's own block (FTPD_M_STRING): no buffer outlives the call shared.
    size_t n = strlen(local) + 5;
    char *s = static_cast<char *>(ftpd_malloc(FTPD_M_STRING, n));
    if (s != nullptr) {
        for (int i = 1; i <= 99; i++) {
            ftpd_snprintf(s, n, "%s.%d", local, i);
            if (stat(s, &st) < 0) return s;
        }
        ftpd_free(FTPD_M_STRING, s);
    }
    ftpd_reply(control_fd, "452", "Unique file name cannot be created.", nullptr, nullptr);
    return nullptr;
}
