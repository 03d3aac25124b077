// Path rules of the name space: how a client path becomes a path below the virtual root "/",
// how it is normalised and mapped onto the session's real top directory and back, which system
// trees stay hidden when the top directory is the device root, and where the server's private
// temporary files go below TMPDIR. Confinement is purely textual; nothing here touches the
// process root.
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "app_dbg.h"
#include "fs_info.h"
#include "base/ftpd.h"
#include "base/path.h"

namespace {

// Length of the longest common leading run of a and b.
size_t common_prefix_len(const char *a, const char *b) {
    size_t i = 0;
    while (a[i] != '\0' && a[i] == b[i]) i++;
    return i;
}

// True when s begins with the top-level name word followed by the end or a "/".
bool is_top_component(const char *s, const char *word) {
    size_t n = strlen(word);
    return strncmp(s, word, n) == 0 && (s[n] == '\0' || s[n] == '/');
}

// Appends n bytes of src to buf (holding len bytes, capacity cap); what does not fit is cut, and
// false tells so.
bool append_bytes(char *buf, size_t *len, size_t cap, const char *src, size_t n) {
    if (*len + 1 >= cap) return n == 0;
    bool fit = n <= cap - 1 - *len;
    if (!fit) n = cap - 1 - *len;
    memcpy(buf + *len, src, n);
    *len += n;
    buf[*len] = '\0';
    return fit;
}

}  // namespace

char *ftpd_rootdir_relative_path(const char *root_dir, const char *current_dir, const char *path,
                                 char *outpath, int size) {
    const char *root = root_dir != nullptr ? root_dir : "";
    bool fit;
    // An absolute client path is taken relative to the top directory, never to the device root.
    if (path[0] == '/') {
        fit = ftpd_strlcpy(outpath, path, size);
    } else if (strcmp(root, current_dir) == 0) {
        fit = ftpd_snprintf(outpath, size, "/%s", path);
    } else if (strcmp(root, "/") == 0) {
        fit = ftpd_snprintf(outpath, size, "%s/%s", current_dir, path);
    } else {
        // The session keeps the current directory at or below the top directory.
        const char *rest = current_dir + common_prefix_len(root, current_dir);
        fit = ftpd_snprintf(outpath, size, "%s/%s", rest, path);
    }
    return fit ? outpath : nullptr;
}

bool ftpd_path_trim(const char *inpath, char *outpath, int size) {
    if (inpath == nullptr) return false;
    FTPD_ASSERT_LOG(*inpath == '/', "common_fun");
    if (size <= 0) return false;
    ftpd_block scratch(FTPD_M_TMP, static_cast<size_t>(size));
    if (!scratch) {
        FTPD_LOG_ERR("%s: malloc fail\n", FTPD_MODULE);
        return false;
    }
    char *out = scratch.get();
    size_t cap = static_cast<size_t>(size);
    size_t len = 0;
    const char *p = inpath;
    while (*p != '\0') {
        const char *slash = strchr(p, '/');
        if (slash != p) {
            size_t clen = slash != nullptr ? static_cast<size_t>(slash - p) : strlen(p);
            if (clen == 2 && p[0] == '.' && p[1] == '.') {
                if (len == 1) {
                    // ".." at the virtual root is dropped: nothing climbs above the top directory.
                    p += 2;
                    continue;
                }
                if (len > 0) out[--len] = '\0';
                char *last = strrchr(out, '/');
                if (last == nullptr) return false;
                last[1] = '\0';
                len = static_cast<size_t>(last + 1 - out);
                p += 2;
            } else if (clen == 1 && p[0] == '.') {
                p += 1;
            } else {
                // SECURITY: a name cut short would name another file.
                if (!append_bytes(out, &len, cap, p, clen)) return false;
                p += clen;
            }
        }
        if (slash != nullptr) {
            if ((len == 0 || out[len - 1] != '/') && !append_bytes(out, &len, cap, "/", 1)) return false;
            p += 1;
        }
    }
    return ftpd_strlcpy(outpath, out, cap);
}

char *ftpd_relative_to_absolute_path(const char *root_dir, const char *inpath, char *outpath, int size) {
    const char *root = root_dir != nullptr ? root_dir : "";
    bool fit;
    if (strcmp(root, "/") == 0)
        fit = ftpd_strlcpy(outpath, inpath, size);
    else
        fit = ftpd_snprintf(outpath, size, "%s%s", root, inpath);
    return fit ? outpath : nullptr;
}

char *ftpd_absolute_to_relative_path(const char *root_dir, const char *current_dir, char *outpath,
                                     int size) {
    const char *root = root_dir != nullptr ? root_dir : "";
    bool fit;
    if (strcmp(root, "/") == 0)
        fit = ftpd_strlcpy(outpath, current_dir, size);
    else if (strcmp(root, current_dir) == 0)
        fit = ftpd_strlcpy(outpath, "/", size);
    else
        fit = ftpd_strlcpy(outpath, current_dir + common_prefix_len(root, current_dir), size);
    return fit ? outpath : nullptr;
}

bool is_access_path(const char *inpath) {
    // Fetched afresh into a local buffer: the settings' flash-home buffer is process-wide.
    char flash_dir[FTP_NAME_LEN] = {0};
    const char *p = inpath;
    if (fs_get_flash_home(flash_dir, sizeof flash_dir) == 0) {
        size_t n = strlen(flash_dir);
        if (strncmp(p, flash_dir, n) == 0) p += n;
    }
    if (*p == '/') p++;
    if (is_top_component(p, "ram")) return false;
    if (is_top_component(p, "proc")) return false;
    if (is_top_component(p, "dev")) return false;
    return true;
}

char *ftp_make_path(char *path, int path_len, const char *path_suffix) {
    if (path == nullptr || path_suffix == nullptr) return nullptr;
    const char *tmpdir = getenv("TMPDIR");
    if (tmpdir == nullptr) return nullptr;
    if (path_len <= 0 || strlen(tmpdir) + strlen(path_suffix) >= static_cast<size_t>(path_len)) {
        FTPD_LOG_ERR("path_len is not enough.\n");
        return nullptr;
    }
    (void)ftpd_strlcpy(path, tmpdir, path_len);
    const char *last = strrchr(path_suffix, '/');
    if (last == nullptr) {
        (void)ftpd_strlcat(path, path_suffix, path_len);
        return path;
    }
    size_t used = strlen(path);
    // The whole text was measured to fit above.
    (void)append_bytes(path, &used, static_cast<size_t>(path_len), path_suffix,
                       static_cast<size_t>(last + 1 - path_suffix));
    if (mkdir(path, 0777) != 0 && errno != EEXIST) {
        int err = errno;
        FTPD_LOG_ERR("Failed to create directory %s, errno=%d, %s.\n", path, err, strerror(err));
        return nullptr;
    }
    (void)ftpd_strlcat(path, last + 1, path_len);
    return path;
}

bool is_special_file(const char *dir) {
    return dir != nullptr && dir[0] == '.';
}

bool ftpd_is_upload_temp(const char *name) {
    return strncmp(name, FTP_UPLOAD_TEMP_PREFIX, sizeof FTP_UPLOAD_TEMP_PREFIX - 1) == 0;
}

bool ftpd_names_upload_temp(const char *path) {
    for (const char *p = path; p != nullptr && *p != '\0'; p = strchr(p, '/')) {
        while (*p == '/') p++;
        if (ftpd_is_upload_temp(p)) return true;
    }
    return false;
}

namespace {

// The kernel's own confinement: every step of the walk, links included, stays below dirfd.
int open_beneath(int dirfd, const char *rel, bool follow, bool directory) {
    struct open_how how {};
    how.flags = O_PATH | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW) | (directory ? O_DIRECTORY : 0);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    return static_cast<int>(syscall(SYS_openat2, dirfd, rel[0] != '\0' ? rel : ".", &how, sizeof how));
}

// The part of real below root, or nullptr when real is not below root.
const char *below(const char *root, const char *real) {
    size_t n = strlen(root);
    while (n > 1 && root[n - 1] == '/') n--;
    if (strncmp(real, root, n) != 0 || (real[n] != '\0' && real[n] != '/' && n > 1)) return nullptr;
    const char *rel = real + n;
    while (*rel == '/') rel++;
    return rel;
}

}  // namespace

int ftpd_open_beneath(const char *root, const char *real, int flags) {
    const char *rel = below(root, real);
    if (rel == nullptr) {
        errno = EXDEV;
        return -1;
    }
    unique_fd top(open(root, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!top) return -1;
    struct open_how how {};
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
    // The kernel refuses a mode for anything that makes no file.
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) how.mode = 0644;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    return static_cast<int>(syscall(SYS_openat2, top.get(), rel[0] != '\0' ? rel : ".", &how, sizeof how));
}

int ftpd_open_parent(const char *root, const char *real, bool confine, const char **base) {
    // A trailing slash stays on the name, where the kernel reads it as it would on the whole path.
    size_t end = strlen(real);
    while (end > 1 && real[end - 1] == '/') end--;
    const char *slash = static_cast<const char *>(memrchr(real, '/', end));
    size_t len = slash != nullptr ? static_cast<size_t>(slash - real) : 0;
    char dir[FTP_PATH_HALF];
    if (len >= sizeof dir) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(dir, real, len);
    dir[len] = '\0';
    if (len == 0) (void)ftpd_strlcpy(dir, slash != nullptr ? "/" : ".", sizeof dir);
    *base = slash != nullptr ? slash + 1 : real;
    return confine ? ftpd_open_beneath(root, dir, O_PATH | O_DIRECTORY)
                   : open(dir, O_PATH | O_DIRECTORY | O_CLOEXEC);
}

bool ftpd_resolves_beneath(const char *root, const char *real, bool follow) {
    const char *rel = below(root, real);
    if (rel == nullptr) return false;
    unique_fd top(open(root, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!top) return false;
    unique_fd fd(open_beneath(top.get(), rel, follow, false));
    if (fd) return true;
    if (errno != ENOENT) return false;
    // Not there (yet): its directory must be.
    const char *slash = strrchr(rel, '/');
    char parent[FTP_PATH_HALF];
    size_t len = slash != nullptr ? static_cast<size_t>(slash - rel) : 0;
    if (len >= sizeof parent) return false;
    memcpy(parent, rel, len);
    parent[len] = '\0';
    unique_fd dir(open_beneath(top.get(), parent, true, true));
    return static_cast<bool>(dir);
}

namespace {
// The two texts name one directory, whatever trailing slashes they carry.
bool same_dir(const char *a, const char *b) {
    size_t la = strlen(a), lb = strlen(b);
    while (la > 1 && a[la - 1] == '/') la--;
    while (lb > 1 && b[lb - 1] == '/') lb--;
    return la == lb && strncmp(a, b, la) == 0;
}
}  // namespace

bool ftpd_is_protected_dir(const char *root, const char *real) {
    if (root != nullptr && same_dir(root, real)) return true;
    char dir[FTP_ROOTDIR_LEN];
    for (int i = 0; i < FS_STORAGE_SLOTS; i++)
        if (get_final_path(i, "/", dir, sizeof dir) >= 0 && same_dir(dir, real)) return true;
    return false;
}

ftpd_resolve_result ftpd_resolve_path(const char *root_dir, const char *current_dir, const char *arg,
                                      char *inpath, char *outpath) {
    if (ftpd_rootdir_relative_path(root_dir, current_dir, arg, inpath, FTP_PATH_HALF) == nullptr)
        return ftpd_resolve_result::too_long;
    if (!ftpd_path_trim(inpath, outpath, FTP_PATH_HALF)) return ftpd_resolve_result::trim_failed;
    if (ftpd_relative_to_absolute_path(root_dir, outpath, inpath, FTP_PATH_HALF) == nullptr)
        return ftpd_resolve_result::too_long;
    // SECURITY: with the device root as top directory the system trees stay out of reach.
    const char *root = root_dir != nullptr ? root_dir : "";
    if (strcmp(root, "/") == 0 && !is_access_path(inpath)) return ftpd_resolve_result::refused;
    return ftpd_resolve_result::ok;
}

bool ftpd_top_dir_mounted(const char *root_dir, const char *func) {
    const char *root = root_dir != nullptr ? root_dir : "";
    if (strncmp(root, "/mnt/", 5) != 0) return true;
    FTPD_KEYMSG("%s: To check dir (%s)is mounted.\n", func, root);
    if (fs_check_mount(root) < 0) {
        FTPD_KEYMSG("%s: Path %s is not mounted !!\n", func, root);
        return false;
    }
    FTPD_KEYMSG("%s: Check dir mount ok.\n", func);
    return true;
}

