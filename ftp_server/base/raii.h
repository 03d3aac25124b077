// Small owners for descriptors and directory handles, so that an early return cannot leak.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <utility>

class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    ~unique_fd() { reset(); }
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;
    unique_fd(unique_fd &&o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
    unique_fd &operator=(unique_fd &&o) noexcept {
        if (this != &o) reset(std::exchange(o.fd_, -1));
        return *this;
    }
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }
    explicit operator bool() const { return fd_ >= 0; }

  private:
    int fd_ = -1;
};

class dir_handle {
  public:
    explicit dir_handle(DIR *d) : d_(d) {}
    ~dir_handle() {
        if (d_ != nullptr) closedir(d_);
    }
    dir_handle(const dir_handle &) = delete;
    dir_handle &operator=(const dir_handle &) = delete;
    DIR *get() const { return d_; }
    explicit operator bool() const { return d_ != nullptr; }

  private:
    DIR *d_;
};
