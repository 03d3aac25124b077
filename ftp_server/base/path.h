// Path resolution and confinement: every client path below the virtual root "/", normalised and
// joined to the session's real top directory. A path that does not fit its buffer is refused
// (nullptr or false), never cut into another name.
#pragma once

#include <fcntl.h>

#include "base/ftpd.h"

// Work buffer of the path commands: two 512-byte halves, inpath then outpath.
#define FTP_PATH_HALF 512
enum class ftpd_resolve_result {
    ok,           // inpath holds the real path
    trim_failed,  // normalisation refused the client path
    refused,      // top directory "/" and the path lies in a system tree
    too_long,     // the real path does not fit: no file may be touched under a cut name
    missing,      // answered like a missing name: a daemon's temporary, or a link leading out
};
// Runs the resolution sequence on a client argument: inpath and outpath are the two halves of a
// work buffer of 2 * FTP_PATH_HALF bytes; on ok, inpath holds the real path.
[[nodiscard]] ftpd_resolve_result ftpd_resolve_path(const char *root_dir, const char *current_dir,
                                                    const char *arg, char *inpath, char *outpath);
// Whether the session's top directory, when it lies below /mnt/, is still mounted.
bool ftpd_top_dir_mounted(const char *root_dir, const char *func);
// The steps of resolution; each returns nullptr (or false) when its result does not fit.
// The client path below the virtual root, from the current directory.
[[nodiscard]] char *ftpd_rootdir_relative_path(const char *root_dir, const char *current_dir,
                                               const char *path, char *outpath, int size);
// Normalised: ".", ".." (stopping at the virtual root) and repeated "/" resolved.
[[nodiscard]] bool ftpd_path_trim(const char *inpath, char *outpath, int size);
// Joined to the session's real top directory.
[[nodiscard]] char *ftpd_relative_to_absolute_path(const char *root_dir, const char *inpath,
                                                   char *outpath, int size);
// A real directory as the client sees it, below the virtual root. The session's current directory
// (at most 255 characters) always fits the 512-byte buffers its callers use.
[[nodiscard]] char *ftpd_absolute_to_relative_path(const char *root_dir, const char *current_dir,
                                                   char *outpath, int size);
// Names the listings never show: those beginning with ".".
bool is_special_file(const char *name);
// The hidden temporary files of uploads being received: never listed, never addressable.
#define FTP_UPLOAD_TEMP_PREFIX ".ftps-upload."
bool ftpd_is_upload_temp(const char *name);
// Whether any component of the path names one.
bool ftpd_names_upload_temp(const char *path);
// Whether the real path, below root, resolves without leaving root, symbolic links followed by the
// kernel (the last one too when follow). A last component that does not exist yet is fine once its
// directory resolves beneath.
bool ftpd_resolves_beneath(const char *root, const char *real, bool follow);
// Opens the real path, below root, with flags (a new file gets mode 0644), every step of the walk
// (links included) kept below root by the kernel: the descriptor, or -1 with errno (EXDEV or
// ELOOP: the path leads out).
int ftpd_open_beneath(const char *root, const char *real, int flags = O_RDONLY);
// Opens the directory that holds the real path's last name (O_PATH, for calls relative to it
// that act on the name itself), below root by the same walk where confine, and points *base at
// that name in real. The descriptor, or -1 with errno.
int ftpd_open_parent(const char *root, const char *real, bool confine, const char **base);
// The top directory and every storage's directory: never removed nor renamed.
bool ftpd_is_protected_dir(const char *root, const char *real);
// False for the system trees (proc, dev, ram) below the device root.
bool is_access_path(const char *inpath);
// TMPDIR followed by path_suffix, its directory made; nullptr when it cannot be formed.
[[nodiscard]] char *ftp_make_path(char *path, int path_len, const char *path_suffix);
