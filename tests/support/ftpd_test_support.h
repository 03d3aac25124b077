// Fixtures shared by the unit tests and the fuzz targets: a scoped temporary directory tree, a
// connected socket pair whose far end the test reads back, report capture and platform settings.
#pragma once

#include <initializer_list>
#include <string>
#include <utility>

#include "base/ftpd.h"

// A private directory below the system's temporary area, removed with its contents at the end.
class ftpd_temp_tree {
  public:
    ftpd_temp_tree();
    ~ftpd_temp_tree();
    ftpd_temp_tree(const ftpd_temp_tree &) = delete;
    ftpd_temp_tree &operator=(const ftpd_temp_tree &) = delete;

    const std::string &path() const { return root_; }
    std::string full(const std::string &rel) const { return root_ + "/" + rel; }
    // Each returns the full path; parents must exist.
    std::string make_file(const std::string &rel, const std::string &contents = "") const;
    std::string make_dir(const std::string &rel) const;

  private:
    std::string root_;
};

// A connected stream socket pair: the daemon writes on near(), the test reads far(), which does
// not block: ftpd_read_all(far()) is everything queued, complete as handlers run on the test's thread.
class ftpd_socket_pair {
  public:
    ftpd_socket_pair();
    ftpd_socket_pair(const ftpd_socket_pair &) = delete;
    ftpd_socket_pair &operator=(const ftpd_socket_pair &) = delete;

    int near() const { return near_.get(); }
    int far() const { return far_.get(); }
    // Closes the far end, so that sends on the near end fail.
    void close_far() { far_.reset(); }

  private:
    unique_fd near_;
    unique_fd far_;
};

// What fd gives until its end (or, non-blocking, until nothing is queued); a file's whole text.
std::string ftpd_read_all(int fd);
std::string ftpd_read_all(const std::string &path);

// What a report function printed through its printf-like callback; ftpd_capture appends to it.
std::string &ftpd_captured();
int ftpd_capture(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

using ftpd_storage_dirs = std::initializer_list<std::pair<int, std::string>>;
// Puts the platform's defaults in force without syslog, with the given storage directories (by
// slot: 1 flash, 3 usb0, ...) and, when not empty, the given user database and product name.
void ftpd_use_platform(ftpd_storage_dirs dirs, const std::string &users = "", const std::string &product = "");
