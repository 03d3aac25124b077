// NLST: the bare name listing. It runs the LIST skeletons (command, staging writer, sending) with
// its own row: arguments are never taken for options, nothing is logged by the writer, and only
// regular files are listed, one name per line without any directory prefix. Names are gathered
// in batches and the staged file is flushed once, before it is sent.
//
// The standard profile names directories too, skips option words as LIST does, and gives every
// name the directory part the client named ("NLST sub" and "NLST sub/*.c" answer sub/a.c), so
// that each line can be handed back to RETR or DELE as it is, as multiple-file gets do.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>

#include "base/ftpd.h"
#include "files/entries.h"
#include "base/path.h"
#include "transfer/list_internal.h"
#include "transfer/transfer.h"

namespace {

// NLST cuts a directory entry's name at 255 characters and a single file's at 511.
constexpr size_t kEntryNameBound = 256;
constexpr size_t kFileNameBound = 512;

const ftpd_listing_kind kNlstKind = {
    .strip_options = false,
    .log_failures = false,
    .log_malloc = true,
    .count_before_update = true,
    .dir = nlst_dir,
    .reg = nlst_reg,
    .wildcard = nlst_wildcard,
};

// Whether an entry of an open directory is a regular file, following links as stat does. The
// directory's own type field answers without a query when it is certain.
bool is_regular_entry(int dfd, const struct dirent *ent) {
    if (ent->d_type == DT_REG) return true;
    if (ent->d_type != DT_LNK && ent->d_type != DT_UNKNOWN) return false;
    struct stat st;
    return fstatat(dfd, ent->d_name, &st, 0) == 0 && S_ISREG(st.st_mode);
}

// One name and its line feed; a name beyond bound is cut there, as the device does.
void name_line(const char *name, size_t bound, char *databuff) {
    (void)ftpd_strlcpy(databuff, name, bound);
    (void)ftpd_strlcat(databuff, "\n", FTP_LIST_LINE_SIZE);
}

// The NLST line of a directory entry, for regular files only.
bool nlst_line(int dfd, const struct dirent *ent, char *databuff, int year) {
    (void)year;
    if (!is_regular_entry(dfd, ent)) return false;
    name_line(ent->d_name, kEntryNameBound, databuff);
    return true;
}

// Standard profile: directories and regular files (links followed), after the prefix.
size_t std_nlst_line(int dfd, const char *name, unsigned char d_type, const ftpd_std_view &view, char *line,
                     size_t cap) {
    // Files, directories and links (whatever they lead to) are names a client can use.
    if (d_type != DT_REG && d_type != DT_DIR && d_type != DT_LNK) {
        if (d_type != DT_UNKNOWN) return 0;
        struct stat st;
        if (fstatat(dfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0 ||
            !(S_ISREG(st.st_mode) || S_ISDIR(st.st_mode) || S_ISLNK(st.st_mode)))
            return 0;
    }
    if (!ftpd_snprintf(line, cap, "%s%s\n", view.prefix, name)) return 0;
    return strlen(line);
}

const ftpd_std_kind kStdNlstKind = {
    .line = std_nlst_line,
    .options = true,
    .patterns = true,
    .single_file = true,
    .name_prefix = true,
    .raw_lines = false,
};

}  // namespace

bool nlst_fun(ftp_session &s) {
    return ftpd_list_command(s, &kNlstKind, &kStdNlstKind);
}

int nlst_dir(const char *path, ftpd_list_batch &out, const char *nlsttemp, char *databuff) {
    return ftpd_scan_dir(path, nullptr, nlsttemp, out, databuff, nlst_line, -1);
}

int nlst_reg(const char *path, ftpd_list_batch &out, const char *nlsttemp, char *databuff) {
    const char *name = nullptr;
    if (get_file_name(path, &name) != 0) return -3;
    if (strcmp(name, nlsttemp) == 0 || is_special_file(name)) return -3;
    name_line(name, kFileNameBound, databuff);
    if (!out.add(databuff) || !out.finish()) return -2;
    return 0;
}

int nlst_wildcard(const char *path, ftpd_list_batch &out, const char *nlsttemp, char *databuff, char *temppath,
                  const char *current_dir) {
    return ftpd_scan_pattern(path, current_dir, temppath, nlsttemp, out, databuff, nlst_line);
}
