// Entries of the name space as the listings and STAT show them: the listing line of one file or
// directory, the current calendar year it is dated against, and the wildcard matcher of the
// listings' last path component.
#include "files/entries.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <sys/time.h>

#include <cstring>
#include <ctime>

#include "base/ftpd.h"

namespace {

const char *const kMonths[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// Both matcher inputs are worked on as copies cut at 255 characters.
constexpr size_t kMatchLen = 256;
// A name or a link's target as a listing shows it.
#define FTP_LIST_NAME_MAX 512

// The listing line from the entry's status, "today" being the current calendar year.
int format_line(const struct stat &st, const char *name, char *stat_buff, int length, int this_year) {
    char mode[11] = "----------";
    if (S_ISDIR(st.st_mode))
        mode[0] = 'd';
    else if (S_ISLNK(st.st_mode))
        mode[0] = 'l';
    else if (!S_ISREG(st.st_mode))
        return -1;
    static constexpr mode_t kBits[9] = {S_IRUSR, S_IWUSR, S_IXUSR, S_IRGRP, S_IWGRP,
                                        S_IXGRP, S_IROTH, S_IWOTH, S_IXOTH};
    static constexpr char kLetters[] = "rwxrwxrwx";
    for (int i = 0; i < 9; i++)
        if ((st.st_mode & kBits[i]) != 0) mode[i + 1] = kLetters[i];

    // Only the calendar years are compared: no six-month window.
    struct tm mtime;
    localtime_r(&st.st_mtime, &mtime);
    const char *shown = name != nullptr ? name : "";
    int links = static_cast<int>(st.st_nlink);
    long long size = static_cast<long long>(st.st_size);
    const char *month = kMonths[mtime.tm_mon];
    if (mtime.tm_year == this_year)
        (void)ftpd_snprintf(stat_buff, static_cast<size_t>(length), "%10s %3d user     group %lld %3.3s %2d %02d:%02d %-s\n",
                      mode, links, size, month, mtime.tm_mday, mtime.tm_hour, mtime.tm_min, shown);
    else
        (void)ftpd_snprintf(stat_buff, static_cast<size_t>(length), "%10s %3d user     group %lld %3.3s %2d %5d %-s\n", mode,
                      links, size, month, mtime.tm_mday, mtime.tm_year + 1900, shown);
    stat_buff[length - 1] = '\0';
    return 0;
}

}  // namespace

int ftpd_this_year(void) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    time_t now = tv.tv_sec;
    struct tm today;
    localtime_r(&now, &today);
    return today.tm_year;
}

int ftpd_entry_info(int dfd, const char *name, char *stat_buff, int length, int this_year) {
    struct stat st;
    if (length <= 0 || fstatat(dfd, name, &st, 0) != 0) return -1;
    return format_line(st, name, stat_buff, length, this_year);
}

int ftpd_entry_info_link(int dfd, const char *name, char *stat_buff, int length, int this_year) {
    struct stat st;
    if (length <= 0 || fstatat(dfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return -1;
    if (!S_ISLNK(st.st_mode)) return format_line(st, name, stat_buff, length, this_year);
    char target[FTP_LIST_NAME_MAX];
    ssize_t n = readlinkat(dfd, name, target, sizeof target - 1);
    if (n < 0) return -1;
    target[n] = '\0';
    char shown[2 * FTP_LIST_NAME_MAX];
    if (!ftpd_snprintf(shown, sizeof shown, "%s -> %s", name, target)) return -1;
    return format_line(st, shown, stat_buff, length, this_year);
}

int get_file_info(const char *path, char *stat_buff, int length, const char *name) {
    FTPD_ASSERT_LOG(path != NULL, "ftpd");
    FTPD_ASSERT_LOG(stat_buff != NULL, "ftpd");
    if (path == nullptr || stat_buff == nullptr || length <= 0) return -1;
    struct stat st;
    if (stat(path, &st) != 0) return -1;
    return format_line(st, name, stat_buff, length, ftpd_this_year());
}

int get_file_name(const char *path, const char **name) {
    if (path == nullptr || path[0] == '.') return -1;
    struct stat st;
    if (stat(path, &st) != 0) return -1;
    const char *slash = strrchr(path, '/');
    *name = slash != nullptr ? slash + 1 : path;
    return 0;
}

int ftpd_is_match(const char *str1, const char *match1) {
    if (str1 == nullptr || match1 == nullptr) return 0;
    char str[kMatchLen];
    char pat[kMatchLen];
    (void)ftpd_strlcpy(str, str1, sizeof str);
    (void)ftpd_strlcpy(pat, match1, sizeof pat);
    size_t sl = strlen(str);
    size_t pl = strlen(pat);
    if (sl == 0 || pl == 0) return 0;

    // Tail phase: everything after the last star is matched from the end.
    while (pat[pl - 1] != '*') {
        if (pat[pl - 1] != '?' && pat[pl - 1] != str[sl - 1]) return 0;
        pl--;
        sl--;
        if (pl == 0 && sl == 0) return 1;
        if (pl == 0 || sl == 0) return 0;
    }
    str[sl] = '\0';
    pat[pl] = '\0';

    // Front phase: each literal segment takes its first occurrence; there is no backtracking.
    size_t si = 0;
    size_t pi = 0;
    bool after_star = false;
    char seg[kMatchLen];
    for (;;) {
        size_t k = 0;
        while (pat[pi] != '\0' && pat[pi] != '*' && pat[pi] != '?') seg[k++] = pat[pi++];
        seg[k] = '\0';
        const char *found = strstr(str + si, seg);
        if (found == nullptr) return 0;
        if (found != str + si && !after_star) return 0;
        si = static_cast<size_t>(found - str) + k;
        if (pat[pi] == '?') {
            if (str[si] == '\0') return 0;
            si++;
            pi++;
            after_star = false;
        } else if (pat[pi] == '*') {
            pi++;
            after_star = true;
        } else {
            break;
        }
    }
    if (str[si] == '\0') return 1;
    return after_star ? 1 : 0;
}
