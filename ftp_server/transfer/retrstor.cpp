// RETR, STOR and APPE: resolve the client's file name inside the top
// directory, make sure the storage is mounted, open the file, then let the data connection move
// the bytes. A failed or aborted upload leaves no partial file under the target's name.
//
// The device empties the target and writes it in place, and removes it when the upload fails.
// The standard profile adds REST STREAM offsets for binary RETR and STOR, APPE, and atomic
// uploads: a plain STOR is received into a hidden file beside the target and renamed over it only
// once complete. APPE and a resumed STOR write the file in place, and a failure keeps what arrived
// so that the client can resume again.
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <climits>
#include <cstring>

#include "base/ftpd.h"
#include "base/path.h"
#include "login/security.h"
#include "session/session.h"
#include "transfer/transfer.h"

namespace {

constexpr int kPathLen = FTP_WHOLE_BUF_SIZE / 2;
constexpr size_t kSendBlock = 512;

const char kLocalError[] = "451 Requested action aborted. Local error in processing.\r\n";
const char kRestInAscii[] = "504 Restart is not supported in ASCII type.\r\n";
const char kRestBeyondEnd[] = "554 Requested action not taken: invalid REST parameter.\r\n";
// Hidden, so listings leave it out; the random part keeps simultaneous uploads apart.
const char kTempPrefix[] = FTP_UPLOAD_TEMP_PREFIX;
constexpr int kTempTries = 8;

// The checks every transfer makes before anything else: a data address was given (a client port
// above 1024 marks PORT/EPRT or PASV/EPSV), a name, and (standard profile) no offset in ASCII
// type, which counts file bytes, not the bytes on the wire. False once the refusal is sent.
bool transfer_precheck(ftp_session &s, bool uses_offset) {
    if (!is_access(s) || s.client_port <= kReservedPort) return reply(s, kLocalError) != 0 && false;
    if (is_data_empty(s.arg)) return reply(s, FTP_REPLY_501) != 0 && false;
    if (uses_offset && s.rest_offset != 0 && s.type == ftp_type::ascii) return reply(s, kRestInAscii) != 0 && false;
    return true;
}

int reply_missing(ftp_session &s, const char *name) {
    return reply_code(s, nullptr, FTP_REPLY_NO_SUCH_FILE, name);
}

// Resolves the client's name into the first half of a work block, the real path, or nullptr once
// the refusal has been sent. check_links: as for ftpd_resolve_path.
char *resolve_in_block(ftp_session &s, const char *func, const char *name, ftpd_block *whole,
                       bool check_links = true) {
    *whole = ftpd_block(FTPD_M_WHOLE_BUF, FTP_WHOLE_BUF_SIZE);
    if (!*whole) {
        FTPD_LOG_ERR("%s: malloc fail\n", FTPD_MODULE);
        reply(s, kLocalError);
        return nullptr;
    }
    char *inpath = whole->get();
    ftpd_resolve_result r = ftpd_resolve_path(s, name, inpath, inpath + kPathLen, true, check_links);
    if (r == ftpd_resolve_result::trim_failed) {
        reply(s, kLocalError);
        return nullptr;
    }
    if (r == ftpd_resolve_result::ok && ftpd_top_dir_mounted(session_root(s), func)) return inpath;
    reply_missing(s, name);
    return nullptr;
}

int dir_length(const char *target) {
    const char *slash = strrchr(target, '/');
    return slash != nullptr ? static_cast<int>(slash - target) : 0;
}

// Where a standard-profile upload goes: the target's directory, opened once (where links are
// confined, by the kernel's walk below the top directory), and the target's last name in it. The
// temporary file, its name and its renaming all work from that descriptor: a link swapped into
// the path meanwhile cannot take them out of the top directory.
class upload_place {
  public:
    // False with errno when the directory cannot be had.
    bool open(const char *root, const char *target, bool confine) {
        dir_.reset(ftpd_open_parent(root, target, confine, &base_));
        return static_cast<bool>(dir_);
    }
    int dir() const { return dir_.get(); }
    const char *base() const { return base_; }

  private:
    unique_fd dir_;
    const char *base_ = nullptr;
};

// Owner of a standard-profile upload's temporary file, in the target's directory. A new name gets
// a file without a name (O_TMPFILE), linked in whole at the end: nothing to see or to remove
// before then, whichever way the upload ends. A replacement (or a file system without unnamed
// files) gets a hidden name beside the target, removed on every way out unless it was renamed
// over the target. The place outlives it.
class upload_temp {
  public:
    upload_temp() = default;
    ~upload_temp() { discard(); }
    upload_temp(const upload_temp &) = delete;
    upload_temp &operator=(const upload_temp &) = delete;

    // Creates the new file in the place's directory (buf, of size bytes, holds its name), without
    // a name where the target is missing and the file system allows. The descriptor, or -1 when
    // the hidden name beside target does not fit buf or no file could be made.
    int create(const upload_place &place, const char *target, char *buf, size_t size, bool missing) {
        place_ = &place;
        buf_ = buf;
        size_ = size;
        // The hidden name must fit even where none is made: a file that comes by the target's
        // name meanwhile is replaced through one.
        if (static_cast<size_t>(dir_length(target)) + 1 + sizeof kTempPrefix - 1 + 16 >= size) return -1;
        if (missing && unnamed_files()) {
            int fd = openat(place.dir(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0644);
            if (fd >= 0) {
                unnamed_ = true;
                return fd;
            }
        }
        for (int i = 0; i < kTempTries; i++) {
            if (!hidden_name(i)) return -1;
            int fd = openat(place.dir(), buf, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
            if (fd >= 0) {
                named_ = true;
                return fd;
            }
            if (errno != EEXIST) return -1;
        }
        return -1;
    }
    void discard() {
        if (named_) unlinkat(place_->dir(), buf_, 0);
        named_ = false;
    }
    // Puts the file (fd) in place as the target.
    bool commit(int fd) {
        if (unnamed_ && !name_unnamed(fd)) return false;
        if (!named_) return true;
        if (renameat(place_->dir(), buf_, place_->dir(), place_->base()) != 0) return false;
        named_ = false;
        return true;
    }

  private:
    // A file that came by target's name meanwhile is replaced as any other: through a hidden
    // name, renamed over it.
    bool name_unnamed(int fd) {
        int dir = place_->dir();
        // By the descriptor itself where the daemon may (CAP_DAC_READ_SEARCH), else through /proc.
        static std::atomic<bool> by_descriptor{true};
        int err = 0;
        if (by_descriptor.load(std::memory_order_relaxed)) {
            if (linkat(fd, "", dir, place_->base(), AT_EMPTY_PATH) == 0) return true;
            err = errno;
            if (err == EPERM || err == ENOENT) {
                by_descriptor.store(false, std::memory_order_relaxed);
                err = 0;
            }
        }
        char proc[40];
        if (!ftpd_snprintf(proc, sizeof proc, "/proc/self/fd/%d", fd)) return false;
        if (err != EEXIST) {
            if (linkat(AT_FDCWD, proc, dir, place_->base(), AT_SYMLINK_FOLLOW) == 0) return true;
            err = errno;
        }
        for (int i = 0; err == EEXIST && i < kTempTries; i++) {
            if (!hidden_name(i)) return false;
            if (linkat(AT_FDCWD, proc, dir, buf_, AT_SYMLINK_FOLLOW) == 0) {
                named_ = true;
                return true;
            }
            err = errno;
        }
        return false;
    }
    bool hidden_name(int attempt) {
        return ftpd_snprintf(buf_, size_, "%s%016llx", kTempPrefix, random_part(attempt));
    }
    // An unnamed file is named through /proc; without it, every temporary has a name.
    static bool unnamed_files() {
        static const bool ok = access("/proc/self/fd", X_OK) == 0;
        return ok;
    }
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

    const upload_place *place_ = nullptr;
    char *buf_ = nullptr;
    size_t size_ = 0;
    bool named_ = false;
    bool unnamed_ = false;
};

// How an upload meets the target: emptied and written in place (the device), replaced whole
// through a temporary file, written in place from the REST offset, or appended to.
enum class upload_kind { overwrite, replace, resume, append };

// Opens what an upload writes, before any data connection. The descriptor, or -1 after the
// refusal was sent. For a replacement, temp holds the new file; missing: the target is known not
// to be there.
int open_upload(ftp_session &s, const char *name, const char *path, const upload_place &place, upload_kind kind,
                upload_temp &temp, char *temp_buf, size_t temp_size, bool missing) {
    struct stat st;
    if (kind == upload_kind::overwrite) {
        int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) reply_code(s, "553", "%s open fail.", name);
        return fd;
    }
    if (kind == upload_kind::replace) {
        // The checks that opening the target in place would make, without touching it; a name
        // the file system cannot hold is refused before any data moves.
        // A link found here came after the name was resolved: not written through, refused.
        bool exists = !missing && fstatat(place.dir(), place.base(), &st, AT_SYMLINK_NOFOLLOW) == 0;
        if (strlen(place.base()) > NAME_MAX || strchr(place.base(), '/') != nullptr) {
            reply_code(s, "553", "%s open fail.", name);
            return -1;
        }
        int fd = !exists || (S_ISREG(st.st_mode) && faccessat(place.dir(), place.base(), W_OK, 0) == 0)
                     ? temp.create(place, path, temp_buf, temp_size, !exists)
                     : -1;
        if (fd < 0) {
            reply_code(s, "553", "%s open fail.", name);
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
    bool confine = s.policy.confine_links;
    unique_fd fd(confine ? ftpd_open_beneath(session_root(s), path, flags | O_NONBLOCK)
                         : open(path, flags | O_NONBLOCK | O_CLOEXEC, 0644));
    if (!fd && kind == upload_kind::resume && errno == ENOENT) {
        reply(s, kRestBeyondEnd);
        return -1;
    }
    // SECURITY: a link that leads out is as good as missing.
    if (!fd && confine && (errno == EXDEV || errno == ELOOP)) {
        reply_missing(s, name);
        return -1;
    }
    if (!fd || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        reply_code(s, "553", "%s open fail.", name);
        return -1;
    }
    fcntl(fd.get(), F_SETFL, flags & O_APPEND);  // blocking again
    // Bytes beyond the end would leave a hole the client never sent: the client starts over.
    if (kind == upload_kind::resume && (s.rest_offset > st.st_size || lseek(fd.get(), s.rest_offset, SEEK_SET) != s.rest_offset)) {
        reply(s, kRestBeyondEnd);
        return -1;
    }
    return fd.release();
}

struct upload_run {
    int file;
    upload_kind kind;
    upload_temp *temp;
    const char *path;
};

// Receives the upload and puts it in place. A failure's file is gone before the client hears of
// it (the device's emptied target, a replacement's temporary); in place, what arrived stays.
ftp_move receive_upload(ftp_dataconn &dc, void *ctx) {
    auto *run = static_cast<upload_run *>(ctx);
    // A replacement's temporary is a new regular file.
    ftp_move m = dc.receive_file(run->file, run->kind == upload_kind::replace);
    if (m != ftp_move::done) {
        if (run->kind == upload_kind::overwrite) unlink(run->path);
        if (run->kind == upload_kind::replace) run->temp->discard();
        return m;
    }
    if (run->kind == upload_kind::replace && !run->temp->commit(run->file)) {
        run->temp->discard();
        return ftp_move::local_error;
    }
    return ftp_move::done;
}

// Where a link that the upload replaces leads (the new place is opened below the top directory
// again): the target's path into out. False when the place's name is no link; *missing when
// nothing is there.
bool link_target(const upload_place &place, const char *path, char *out, size_t cap, bool *missing) {
    struct stat st;
    bool found = fstatat(place.dir(), place.base(), &st, AT_SYMLINK_NOFOLLOW) == 0;
    *missing = !found && errno == ENOENT;
    if (!found || !S_ISLNK(st.st_mode)) return false;
    char resolved[PATH_MAX];
    if (realpath(path, resolved) != nullptr) return ftpd_strlcpy(out, resolved, cap);
    // A link to a name not there yet: the name, beside the link when relative.
    char target[PATH_MAX];
    ssize_t n = readlinkat(place.dir(), place.base(), target, sizeof target - 1);
    if (n <= 0) return false;
    target[n] = '\0';
    if (target[0] == '/') return ftpd_strlcpy(out, target, cap);
    return ftpd_snprintf(out, cap, "%.*s/%s", dir_length(path), path, target);
}

// STOR and APPE once admitted. False when the session must end.
bool store(ftp_session &s, bool append) {
    const char *name = s.arg;
    ftpd_block whole;
    bool confine = s.policy.confine_links;
    char *path = resolve_in_block(s, "store", name, &whole, !confine);
    if (path == nullptr) return true;
    // The second half of the work block is free once the name is resolved.
    char *temp_buf = whole.get() + kPathLen;
    upload_kind kind = !s.policy.atomic_uploads ? upload_kind::overwrite
                       : append                ? upload_kind::append
                       : s.rest_offset != 0    ? upload_kind::resume
                                               : upload_kind::replace;
    // SECURITY: confined, the target's directory is opened below the top directory before anything
    // is written (a directory that leads out is as good as missing), and the rest works from it.
    upload_place place;
    if (kind != upload_kind::overwrite && !place.open(session_root(s), path, confine))
        return reply_missing(s, name) >= 0 || true;
    // The standard profile writes through a link to what it names, as writing in place would.
    char through[FTP_PATH_HALF];
    bool missing = false;
    if (kind == upload_kind::replace && s.policy.links_as_entries &&
        link_target(place, path, through, sizeof through, &missing)) {
        path = through;
        if (!place.open(session_root(s), path, confine)) return reply_missing(s, name) >= 0 || true;
    }
    upload_temp temp;
    unique_fd file(open_upload(s, name, path, place, kind, temp, temp_buf, kPathLen, missing));
    if (!file) return true;
    upload_run run{file.get(), kind, &temp, path};
    char log_name[FTP_PATH_HALF];
    ftp_data_env env = data_env(s, path, true, log_name);
    // A data connection that cannot be made leaves the device's emptied file behind.
    return s.data.transfer(env, kUploadReplies, receive_upload, &run) != -1;
}

struct download_run {
    int file;
    ftp_dataconn::known_file known;
};

ftp_move send_download(ftp_dataconn &dc, void *ctx) {
    auto *run = static_cast<download_run *>(ctx);
    return dc.send_file(run->file, kSendBlock, false, &run->known);
}

bool retrieve(ftp_session &s) {
    const char *name = s.arg;
    ftpd_block whole;
    bool confine = s.policy.confine_links;
    const char *inpath = resolve_in_block(s, "retrieve", name, &whole, !confine);
    if (inpath == nullptr) return true;
    // SECURITY: confined, the kernel keeps the open itself below the top directory: a link put in
    // place after a check could still lead out.
    unique_fd file(confine ? ftpd_open_beneath(session_root(s), inpath) : open(inpath, O_RDONLY | O_CLOEXEC));
    if (!file && confine && !ftpd_resolves_beneath(session_root(s), inpath, true))
        return reply_missing(s, name) >= 0 || true;
    if (!file) return reply_code(s, "550", "%s Can not be open.", name) >= 0 || true;
    struct stat st;
    if (fstat(file.get(), &st) < 0 || !S_ISREG(st.st_mode)) return reply_code(s, "550", "%s: is an illegal file.", name) >= 0 || true;
    // The data connection sends from the file's offset, spliced or copied alike.
    off_t offset = s.policy.rest_offsets ? s.rest_offset : 0;
    if (offset != 0 && (offset > st.st_size || lseek(file.get(), offset, SEEK_SET) != offset)) {
        reply(s, kRestBeyondEnd);
        return true;
    }
    download_run run{file.get(), {st.st_size, offset}};
    char log_name[FTP_PATH_HALF];
    ftp_data_env env = data_env(s, inpath, false, log_name);
    env.small = st.st_size - offset <= kSmallDownload;
    return s.data.transfer(env, kDownloadReplies, send_download, &run) != -1;
}

// A REST offset serves only the transfer that follows it; the data family only the transfer.
bool after_transfer(ftp_session &s, bool keep) {
    s.rest_offset = 0;
    if (keep) s.data.set_family(0);
    return keep;
}

}  // namespace

bool command_retr(ftp_session &s) {
    if (ftpd_data_needs_tls(s)) return after_transfer(s, true);
    if (!transfer_precheck(s, true)) return after_transfer(s, true);
    return after_transfer(s, retrieve(s));
}

bool command_stor(ftp_session &s) {
    if (ftpd_data_needs_tls(s)) return after_transfer(s, true);
    if (!transfer_precheck(s, true)) return after_transfer(s, true);
    return after_transfer(s, store(s, false));
}

// APPE writes at the file's end whatever REST said.
bool command_appe(ftp_session &s) {
    if (ftpd_data_needs_tls(s)) return after_transfer(s, true);
    if (!transfer_precheck(s, false)) return after_transfer(s, true);
    return after_transfer(s, store(s, true));
}

