// RETR and STOR: resolve the client's file name inside the top directory, make sure the storage is
// mounted, open the file and the data connection, run the transfer engine and tidy up. A failed or
// aborted upload leaves no partial file. Also the unique-name rule for uploads.
//
// The standard profile adds REST STREAM offsets for binary RETR and STOR, APPE, and atomic
// uploads: a plain STOR is received into a hidden file beside the target and renamed over it only
// once complete, so the target name never holds a partial file. APPE and a resumed STOR write the
// file in place, and a failure keeps what arrived so that the client can resume again.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/ftpd.h"
#include "data/dataconn.h"
#include "files/path.h"
#include "net/reply.h"
#include "control/session.h"
#include "data/transfer.h"
#include "base/users.h"

namespace {

constexpr int kPathLen = FTP_WHOLE_BUF_SIZE / 2;
constexpr int kSendBlock = 512;

const char kLocalError[] = "451 Requested action aborted. Local error in processing.\r\n";
const char kRestInAscii[] = "504 Restart is not supported in ASCII type.\r\n";
const char kRestBeyondEnd[] = "554 Requested action not taken: invalid REST parameter.\r\n";
// Hidden, so listings leave it out; the random part keeps simultaneous uploads apart.
const char kTempPrefix[] = ".ftps-upload.";
constexpr int kTempTries = 8;

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


// The end of an upload: 226 when it succeeded (naming the name the client asked for, not a
// generated one), the data connection closed and the slot refreshed. The transfer's result.
int finish_upload(int control_fd, int result, const char *name, int unique, int dfd, struct credentials *pcred) {
    if (result == 0) {
        if (unique != 0)
            ftpd_reply(control_fd, "226", "Transfer complete (unique file name:%s).", name, nullptr);
        else
            ftpd_reply(control_fd, "226", "Transfer complete.", nullptr, nullptr);
    }
    ftpd_data_finish(pcred, dfd);
    ftp_set_userinfo_update(pcred);
    return result;
}

// The work block of a transfer with the client's name resolved into its first half: the real
// path, or nullptr once the refusal has been sent.
char *resolve_in_block(int control_fd, const char *func, const char *name, const char *client_name, char *current_dir,
                       struct credentials *pcred, ftpd_block *whole) {
    *whole = ftpd_block(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!*whole) {
        FTPD_LOG_ERR("%s: malloc fail\n", FTPD_MODULE);
        reply_text(control_fd, kLocalError);
        return nullptr;
    }
    char *inpath = whole->get();
    if (!resolve_client_name(control_fd, func, name, client_name, current_dir, pcred, inpath, inpath + kPathLen))
        return nullptr;
    return inpath;
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

// The REST offset the next RETR or STOR starts at; the device has none.
off_t rest_offset(const struct credentials *pcred) {
    return ftpd_standard() ? pcred->rest_offset : 0;
}

// An offset counts file bytes, which in ASCII type are not the bytes on the wire: refused before
// any data connection. 1: go on; otherwise the reply result.
int rest_precheck(int control_fd, const struct credentials *pcred) {
    if (rest_offset(pcred) != 0 && pcred->cnt.tran_type == 1) return reply_text(control_fd, kRestInAscii);
    return 1;
}

// Owner of a standard-profile upload's hidden temporary file, created beside the target. It is
// removed on every way out unless it was renamed over the target, or the transfer engine, which
// removes it before its failure reply, has already done so.
class upload_temp {
  public:
    upload_temp() = default;
    ~upload_temp() { discard(); }
    upload_temp(const upload_temp &) = delete;
    upload_temp &operator=(const upload_temp &) = delete;

    // Creates a new file (O_EXCL) in target's directory, its name in buf. Returns the
    // descriptor, or -1 when the name does not fit buf or no file could be made.
    int create(const char *target, char *buf, size_t size) {
        const char *slash = strrchr(target, '/');
        int dir_len = slash != nullptr ? static_cast<int>(slash - target) : 0;
        for (int i = 0; i < kTempTries; i++) {
            if (!ftpd_snprintf(buf, size, "%.*s/%s%016llx", dir_len, target, kTempPrefix, random_part(i))) return -1;
            int fd = open(buf, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
            if (fd >= 0) {
                path_ = buf;
                return fd;
            }
            if (errno != EEXIST) return -1;
        }
        return -1;
    }
    const char *path() const { return path_; }
    void discard() {
        if (path_ != nullptr) unlink(path_);
        path_ = nullptr;
    }
    void forget() { path_ = nullptr; }
    bool commit(const char *target) {
        if (rename(path_, target) != 0) return false;
        path_ = nullptr;
        return true;
    }

  private:
    static unsigned long long random_part(int attempt) {
        unsigned long long r = 0;
        if (getrandom(&r, sizeof r, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof r)) return r;
        // Without entropy yet, time and thread still differ between uploads; O_EXCL settles the rest.
        struct timespec ts {};
        clock_gettime(CLOCK_REALTIME, &ts);
        return static_cast<unsigned long long>(ts.tv_sec) * 1000000000ULL +
               static_cast<unsigned long long>(ts.tv_nsec) + (static_cast<unsigned long long>(gettid()) << 40) +
               static_cast<unsigned long long>(attempt);
    }

    const char *path_ = nullptr;
};

// How a standard-profile upload meets the target: replaced whole through a temporary file,
// written in place from the REST offset, or appended to.
enum class upload_kind { replace, resume, append };

// Opens what a standard-profile upload writes, before any data connection. The descriptor, or -1
// after the refusal was sent. For a replacement, temp holds the new file.
int open_upload(int control_fd, const char *name, const char *path, upload_kind kind, off_t offset, upload_temp &temp,
                char *temp_buf, size_t temp_size) {
    struct stat st;
    if (kind == upload_kind::replace) {
        // The checks that opening the target in place would make, without touching it.
        bool exists = stat(path, &st) == 0;
        int fd =
            !exists || (S_ISREG(st.st_mode) && access(path, W_OK) == 0) ? temp.create(path, temp_buf, temp_size) : -1;
        if (fd < 0) {
            ftpd_reply(control_fd, "553", "%s open fail.", name, nullptr);
            return -1;
        }
        // The new file keeps the owner (where the daemon may give it) and permission bits of the
        // one it replaces, as writing over that file would.
        if (exists) {
            if (fchown(fd, st.st_uid, st.st_gid) != 0)
                FTPD_LOG_ERR("%s: fchown %s errno=%d\n", FTPD_MODULE, name, errno);
            fchmod(fd, st.st_mode & 0777);
        }
        return fd;
    }
    // Appending creates a missing file; resuming needs the part already there. Opening does not
    // wait on a pipe, and anything but a regular file is refused.
    int flags = kind == upload_kind::append ? O_WRONLY | O_CREAT | O_APPEND : O_WRONLY;
    unique_fd fd(open(path, flags | O_NONBLOCK | O_CLOEXEC, 0644));
    if (!fd && kind == upload_kind::resume && errno == ENOENT) {
        reply_text(control_fd, kRestBeyondEnd);
        return -1;
    }
    if (!fd || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        ftpd_reply(control_fd, "553", "%s open fail.", name, nullptr);
        return -1;
    }
    fcntl(fd.get(), F_SETFL, flags & O_APPEND);  // blocking again
    // Bytes beyond the end would leave a hole the client never sent: the client starts over.
    if (kind == upload_kind::resume && (offset > st.st_size || lseek(fd.get(), offset, SEEK_SET) != offset)) {
        reply_text(control_fd, kRestBeyondEnd);
        return -1;
    }
    return fd.release();
}

// The standard profile's upload after name resolution: as the device's, except where the bytes go
// (see upload_kind). The client hears of a failure only once the temporary file is gone, but for
// a data connection that cannot be made: dataconn answers that itself, just before.
int store_standard(int control_fd, const char *name, const char *path, upload_kind kind, int unique, int client_port,
                   const char *client_addr, struct credentials *pcred, int domain_fd, char *temp_buf,
                   size_t temp_size) {
    upload_temp temp;
    unique_fd file(open_upload(control_fd, name, path, kind, pcred->rest_offset, temp, temp_buf, temp_size));
    if (!file) return 0;
    pcred->byte_count = -1;
    int dfd = dataconn(control_fd, -1, "r", client_port, client_addr, pcred);
    if (dfd < 0) return 0;
    ftp_set_userinfo_update(pcred);
    // In place, a failure keeps what arrived: the client resumes from there.
    int result = receive_data(control_fd, dfd, file.get(), pcred, domain_fd, temp.path());
    if (result != 0) {
        temp.forget();
    } else if (kind == upload_kind::replace && !temp.commit(path)) {
        temp.discard();
        reply_text(control_fd, kLocalError);
        result = -1;
    } else if (kind == upload_kind::resume && ftruncate(file.get(), lseek(file.get(), 0, SEEK_CUR)) != 0) {
        // A resumed upload ends the file where the client's data ended.
        ftpd_reply(control_fd, "452", "Error writing file.", nullptr, nullptr);
        result = -1;
    }
    return finish_upload(control_fd, result, name, unique, dfd, pcred);
}

}  // namespace

int command_retr(int control_fd, char *data_buff, char *client_addr, int *client_port, char *current_dir,
                 struct credentials *pcred, int domain_fd) {
    int r = transfer_precheck(control_fd, data_buff, client_port, pcred);
    if (r == 1) r = rest_precheck(control_fd, pcred);
    if (r != 1) return r < 0 ? -1 : 0;
    // A stop message during the transfer ends the session.
    return retrieve(control_fd, data_buff, *client_port, client_addr, current_dir, pcred, domain_fd) == -2 ? -1 : 0;
}

int command_stor(int control_fd, char *data_buff, char *client_addr, int *client_port, char *current_dir,
                 struct credentials *pcred, int domain_fd) {
    int r = transfer_precheck(control_fd, data_buff, client_port, pcred);
    if (r == 1) r = rest_precheck(control_fd, pcred);
    if (r != 1) return r < 0 ? -1 : 0;
    return store(control_fd, data_buff, "w", 0, *client_port, client_addr, current_dir, pcred, domain_fd) == -2 ? -1
                                                                                                                : 0;
}

// APPE writes at the file's end whatever REST said.
int command_appe(int control_fd, char *data_buff, char *client_addr, int *client_port, char *current_dir,
                 struct credentials *pcred, int domain_fd) {
    int r = transfer_precheck(control_fd, data_buff, client_port, pcred);
    if (r != 1) return r < 0 ? -1 : 0;
    return store(control_fd, data_buff, "a", 0, *client_port, client_addr, current_dir, pcred, domain_fd) == -2 ? -1
                                                                                                                : 0;
}

int retrieve(int control_fd, const char *name, int client_port, const char *client_addr, char *current_dir,
             struct credentials *pcred, int domain_fd) {
    ftpd_block whole;
    const char *inpath = resolve_in_block(control_fd, "retrieve", name, name, current_dir, pcred, &whole);
    if (inpath == nullptr) return 0;

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
    // The engine sends from the file's offset, spliced or copied alike.
    off_t offset = rest_offset(pcred);
    if (offset != 0 && (offset > st.st_size || lseek(file.get(), offset, SEEK_SET) != offset)) {
        reply_text(control_fd, kRestBeyondEnd);
        return 0;
    }
    int dfd = dataconn(control_fd, st.st_size, "w", client_port, client_addr, pcred);
    if (dfd < 0) return 0;
    ftp_set_userinfo_update(pcred);
    int result = send_data(control_fd, file.get(), dfd, kSendBlock, pcred, domain_fd);
    ftpd_data_finish(pcred, dfd);
    ftp_set_userinfo_update(pcred);
    return result;
}

int store(int control_fd, const char *name, const char *mode, int unique, int client_port, const char *client_addr,
          char *current_dir, struct credentials *pcred, int domain_fd) {
    char tmp_name[kPathLen];
    (void)ftpd_strlcpy(tmp_name, name, sizeof tmp_name);  // the command line's argument fits
    ftpd_block whole;
    char *inpath = resolve_in_block(control_fd, "store", tmp_name, name, current_dir, pcred, &whole);
    if (inpath == nullptr) return 0;

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
    if (ftpd_standard()) {
        upload_kind kind = strcmp(mode, "a") == 0    ? upload_kind::append
                           : pcred->rest_offset != 0 ? upload_kind::resume
                                                     : upload_kind::replace;
        // The second half of the scratch block is free once the name is resolved.
        return store_standard(control_fd, name, path, kind, unique, client_port, client_addr, pcred, domain_fd, inpath + kPathLen,
                              kPathLen);
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
    return finish_upload(control_fd, result, name, unique, dfd, pcred);
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
            (void)ftpd_snprintf(s, n, "%s.%d", local, i);
            if (stat(s, &st) < 0) return s;
        }
        ftpd_free(FTPD_M_STRING, s);
    }
    ftpd_reply(control_fd, "452", "Unique file name cannot be created.", nullptr, nullptr);
    return nullptr;
}
