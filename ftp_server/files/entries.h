// Entries of the name space as the listings and STAT show them: the listing line, the wildcard
// matcher.
#pragma once

// The listing line of a path (name shown as given): 0, or -1 when it cannot be queried or is
// neither a directory nor a regular file.
int get_file_info(const char *path, char *stat_buff, int length, const char *name);
// The same for an entry of an open directory (dfd), with the current calendar year given.
int ftpd_entry_info(int dfd, const char *name, char *stat_buff, int length, int this_year);
// The same, a symbolic link shown as one ("l", "name -> target") rather than what it names.
int ftpd_entry_info_link(int dfd, const char *name, char *stat_buff, int length, int this_year);
// The current calendar year (local time), as tm_year counts it.
int ftpd_this_year(void);
// The last component of an existing path that does not begin with ".": 0, else -1.
int get_file_name(const char *path, const char **name);
// 1 when the name matches the pattern ("*" and "?"; no backtracking), else 0.
int ftpd_is_match(const char *str1, const char *match1);
