// NLST: the bare name listing. It runs the LIST skeletons (command, staging writer, sending) with
// its own row: arguments are never taken for options, nothing is logged by the writer, and only
// regular files are listed, one name per line without any directory prefix.
#include <sys/stat.h>

#include <cstring>

#include "ftpd.h"
#include "ftpd_list_internal.h"

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

bool is_regular(const char *path) {
    struct stat st;
    return stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

// One name and its line feed, written with one write and flushed at once.
bool write_name(int fd, const char *name, size_t bound, char *databuff) {
    ftpd_strlcpy(databuff, name, bound);
    ftpd_strlcat(databuff, "\n", FTP_LIST_LINE_SIZE);
    if (!ftpd_write_line(fd, databuff)) return false;
    fsync(fd);
    return true;
}

}  // namespace

void nlst_fun(int control_fd, char *current_dir, char *path, int client_port, char *client_addr,
              struct credentials *pcred) {
    ftpd_run_listing(control_fd, current_dir, path, client_port, client_addr, pcred, kNlstKind, write_nlst);
}

int write_nlst(int control_fd, int data_sock, char *current_dir, char *path, struct credentials *pcred) {
    return ftpd_write_listing(control_fd, data_sock, current_dir, path, pcred, kNlstKind);
}

int nlst_dir(const char *path, int fd, const char *nlsttemp, char *onefile, char *databuff) {
    dir_handle dir(opendir(path));
    if (!dir) return -1;
    bool root = strcmp(path, "/") == 0;
    while (struct dirent *ent = readdir(dir.get())) {
        const char *name = ent->d_name;
        if (ftpd_entry_hidden(name, nlsttemp, root)) continue;
        ftpd_strlcpy(onefile, path, FTP_PATH_HALF);
        size_t len = strlen(onefile);
        if (len == 0 || onefile[len - 1] != '/') ftpd_strlcat(onefile, "/", FTP_LIST_ENTRY_SIZE);
        ftpd_strlcat(onefile, name, FTP_LIST_ENTRY_SIZE);
        if (!is_regular(onefile)) continue;
        if (!write_name(fd, name, kEntryNameBound, databuff)) return -1;
    }
    return 0;
}

int nlst_reg(const char *path, int fd, const char *nlsttemp, char *databuff) {
    const char *name = nullptr;
    if (get_file_name(path, &name) != 0) return -3;
    if (strcmp(name, nlsttemp) == 0 || is_special_file(name)) return -3;
    if (!write_name(fd, name, kFileNameBound, databuff)) return -2;
    return 0;
}

int nlst_wildcard(const char *path, int fd, const char *nlsttemp, char *onefile, char *databuff, char *temppath,
                  const char *current_dir) {
    const char *pattern = ftpd_split_pattern(path, temppath, current_dir);
    struct stat st;
    if (stat(temppath, &st) != 0 || !S_ISDIR(st.st_mode)) return -3;
    dir_handle dir(opendir(temppath));
    if (!dir) return -2;
    bool root = strcmp(temppath, "/") == 0;
    while (struct dirent *ent = readdir(dir.get())) {
        const char *name = ent->d_name;
        if (ftpd_entry_hidden(name, nlsttemp, root)) continue;
        ftpd_strlcpy(onefile, temppath, FTP_PATH_HALF);
        ftpd_strlcat(onefile, name, FTP_LIST_ENTRY_SIZE);
        if (!is_regular(onefile)) continue;
        if (ftpd_is_match(name, pattern) != 1) continue;
        if (!write_name(fd, name, kEntryNameBound, databuff)) return -2;
    }
    return 0;
}
