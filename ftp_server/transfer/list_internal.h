// Internals shared by the listing commands (LIST, NLST, MLSD, MLST): the temporary listing file
// owner, the batched writer of listing lines, the per-entry listers and the rows with which each
// command fills the listing pipeline of either profile.
#pragma once

#include <cstddef>
#include <cstring>

#include "base/ftpd.h"

struct ftp_session;

// Listing writer buffer: one line / sending block, a directory, then room for an entry path.
#define FTP_LIST_BUF_SIZE 3072
#define FTP_LIST_LINE_SIZE 1024
#define FTP_LIST_TEMPPATH_SIZE 512
#define FTP_LIST_ENTRY_SIZE (FTP_LIST_BUF_SIZE - FTP_LIST_LINE_SIZE - FTP_LIST_TEMPPATH_SIZE)
// Behind those, in the same block: lines gathered for one write of the temporary file, and later
// the blocks in which the staged listing is sent.
#define FTP_LIST_BATCH_SIZE (32 * 1024)
// Path buffer of the temporary listing file.
#define FTP_LISTTEMP_LEN 65

// True when a directory entry must not be shown: dot names, the listing's own temporary file and,
// while the listed directory is "/", the system trees.
bool ftpd_entry_hidden(const char *name, const char *listtemp, bool dir_is_root);

// Splits a real path into the directory to scan (with a trailing "/") and the pattern after its
// last "/" (dir holds FTP_LIST_TEMPPATH_SIZE bytes). Without a "/" the directory is the current
// directory. Returns the pattern, a pointer into path.
const char *ftpd_split_pattern(const char *path, char *dir, const char *current_dir);

// The temporary file a listing is staged in; it is closed and removed on every path.
class ftpd_listtemp {
  public:
    ftpd_listtemp() { path_[0] = '\0'; }
    ~ftpd_listtemp() { remove(); }
    ftpd_listtemp(const ftpd_listtemp &) = delete;
    ftpd_listtemp &operator=(const ftpd_listtemp &) = delete;

    // 0 created; -1 no path below TMPDIR; -2 no unique file could be made.
    int create();
    // Closes the written file and opens it again for reading; false on failure.
    bool reopen_for_reading();
    void close() { fd_.reset(); }
    void remove();
    int fd() const { return fd_.get(); }
    const char *path() const { return path_; }

  private:
    char path_[FTP_LISTTEMP_LEN];
    unique_fd fd_;
    bool made_ = false;  // only a file this owner created is ever unlinked
};

// Lines of a listing on their way into the temporary file: gathered in memory and written in
// batches, then flushed once (written out and synced) before the file is sent.
class ftpd_list_batch {
  public:
    // sync: the file is synced once written (the device's staged listings).
    ftpd_list_batch(int fd, char *area, size_t size, bool sync) : fd_(fd), area_(area), size_(size), sync_(sync) {}
    ftpd_list_batch(const ftpd_list_batch &) = delete;
    ftpd_list_batch &operator=(const ftpd_list_batch &) = delete;

    // False once a write of the file came up short; nothing more is written after that.
    bool add(const char *text, size_t len);
    bool add(const char *line) { return add(line, strlen(line)); }
    // Writes what is gathered and (device profile) syncs the file.
    bool finish();

  private:
    bool flush();
    int fd_;
    char *area_;
    size_t size_;
    size_t used_ = 0;
    bool sync_;
    bool failed_ = false;
};

// The per-entry listers, writing into the batch of the temporary file, which the caller owns.
// list_dir / nlst_dir: 0 or -1. *_reg and *_wildcard: 0; -2 write or open failure; -3 not listable.
// The line a lister writes for a directory entry into databuff; false skips the entry.
using ftpd_entry_line = bool (*)(int dfd, const struct dirent *ent, char *databuff, int year);
// Every entry of the directory path that is not hidden and matches pattern (when not null) gets
// its line: 0, or fail_code when the directory cannot be read or the batch fails.
int ftpd_scan_dir(const char *path, const char *pattern, const char *listtemp, ftpd_list_batch &out, char *databuff,
                  ftpd_entry_line line, int fail_code);
// A wildcard path: its directory (split off into temppath) scanned for its pattern. -3 when that
// is not a directory, -2 on failure, else 0.
int ftpd_scan_pattern(const char *path, const char *current_dir, char *temppath, const char *listtemp,
                      ftpd_list_batch &out, char *databuff, ftpd_entry_line line);
int list_dir(const char *path, ftpd_list_batch &out, const char *listtemp, char *databuff);
int list_reg(const char *path, ftpd_list_batch &out, const char *listtemp, char *databuff);
int list_wildcard(const char *path, ftpd_list_batch &out, const char *listtemp, char *databuff, char *temppath,
                  const char *current_dir);
int nlst_dir(const char *path, ftpd_list_batch &out, const char *nlsttemp, char *databuff);
int nlst_reg(const char *path, ftpd_list_batch &out, const char *nlsttemp, char *databuff);
int nlst_wildcard(const char *path, ftpd_list_batch &out, const char *nlsttemp, char *databuff, char *temppath,
                  const char *current_dir);


// What distinguishes LIST from NLST in the shared skeletons.
struct ftpd_listing_kind {
    bool strip_options;        // LIST drops an argument that begins with "-" or "*"
    bool log_failures;         // LIST logs buffer and temporary-file failures of the writer
    bool log_malloc;           // NLST logs a failing work buffer of the command
    bool count_before_update;  // NLST resets byte_count before refreshing the slot
    int (*dir)(const char *, ftpd_list_batch &, const char *, char *);
    int (*reg)(const char *, ftpd_list_batch &, const char *, char *);
    int (*wildcard)(const char *, ftpd_list_batch &, const char *, char *, char *, const char *);
};

// The device's LIST / NLST: resolves the argument, opens the data connection, then stages the
// listing and sends it. -2 when the session must end, else 0.
int ftpd_run_listing(ftp_session &s, const ftpd_listing_kind &kind);

// ---------------------------------------------------------------------------------------------
// Standard profile. The listing is staged completely before the data connection is opened, so
// that a path that cannot be listed is refused without a preliminary reply.

// What a standard-profile listing shows of the entries of one directory.
struct ftpd_std_view {
    const char *temp_name;  // the listing's own temporary file when it lies in that directory
    bool dot_names;         // names beginning with "." are shown ("." and ".." never are)
    bool root;              // the directory is "/": the system trees stay hidden
    bool dir_writable;      // the directory's owner may write it (MLSD perm facts)
    const char *prefix;     // put before every name: the directory part the client named (NLST)
    int this_year;          // for the listing line's time or year
    const char *dir;        // the real directory listed, and the top directory: whether a link
    const char *top;        // leads out of it
    unsigned facts;         // the MLSD facts the client selected
};

// The MLST and MLSD facts a client may select (OPTS MLST).
enum : unsigned { kFactType = 1, kFactSize = 2, kFactModify = 4, kFactPerm = 8, kFactUnique = 16, kFactAll = 31 };

// Whether the link name in the listed directory leads to something beneath the top directory.
bool ftpd_link_stays_inside(const ftpd_std_view &view, const char *name);

// One entry's line of a standard-profile listing, written into line (cap bytes) with its line end:
// the length, or 0 when the entry is not shown (type, vanished, or text that does not fit).
// dfd is the open directory; d_type is the entry's type from the directory, DT_UNKNOWN if unsure.
using ftpd_std_line_fn = size_t (*)(int dfd, const char *name, unsigned char d_type, const ftpd_std_view &view,
                                    char *line, size_t cap);

struct ftpd_std_kind {
    ftpd_std_line_fn line;
    bool options;      // leading option words are skipped; else every name is shown
    bool patterns;     // a missing path with "*" or "?" is matched in its directory
    bool single_file;  // a regular file is listed by itself (else: 501, not a directory)
    bool name_prefix;  // names carry the directory part the client named
    bool raw_lines;    // lines carry their CR LF already: sent untouched whatever the type
};

// The standard-profile LIST, NLST and MLSD command: resolves the argument, stages the listing,
// then opens the data connection and sends it. -2 when the session must end, else 0.
int ftpd_run_std_listing(ftp_session &s, const ftpd_std_kind &kind);
// OPTS MLST's argument into the facts it selects; the reply text lists them.
unsigned ftpd_mlst_select(const char *arg, char *reply_text, size_t cap);

// A listing command of either profile (device: nullptr where it is not the device's), with the
// admission the listings share. False when the session must end.
bool ftpd_list_command(ftp_session &s, const ftpd_listing_kind *device, const ftpd_std_kind *standard);
int ftpd_mkstemp(char *templ);
