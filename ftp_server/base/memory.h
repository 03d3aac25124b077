// Memory accounting: every allocation of the daemon's own logic is counted by category.
#pragma once

#include <cstddef>
#include <utility>

typedef enum {
    FTPD_M_INIT = 0,
    FTPD_M_TMP,
    FTPD_M_PCRED_NAME,
    FTPD_M_PCRED_PWD,
    FTPD_M_PCRED_MSG,
    FTPD_M_PCRED_DIR,
    FTPD_M_BUF,
    FTPD_M_CHANG_BUF,
    FTPD_M_WHOLE_BUF,
    FTPD_M_STRING,
    FTPD_M_DATA_BUF,
    FTPD_M_OUTPATH,
    FTPD_M_USER_CNT,
    FTPD_M_INFO,
    FTPD_M_EPOLL,
    FTPD_M_MAX
} ftpd_mem_type_t;

typedef struct ftpd_mem_s {
    const char *name;
    unsigned int allocs;
    unsigned int allocfail;
    unsigned int deallocs;
} ftpd_mem_t;

typedef int (*ftpd_print_fn)(const char *fmt, ...);

void ftpd_mem_init(void);
void ftpd_mem_init_table(int type, const char *name);
// Zero-filled block of size bytes, or nullptr. A type of FTPD_M_MAX or above gives nullptr, uncounted.
void *ftpd_malloc(int type, size_t size);
void ftpd_free(int type, void *ptr);
void ftpd_mem_dump(ftpd_print_fn print);
// Counters of one category (tests and the soak checks).
ftpd_mem_t ftpd_mem_get(int type);
// Test-only fault injection: the n-th following allocation of the category fails (1 = the next
// one); type -1 means any category; n 0 switches it off.
void ftpd_mem_fail_after(int type, unsigned n);

// Owner of one accounted block: gives it back with its category on every path.
class ftpd_block {
  public:
    ftpd_block() = default;
    ftpd_block(int type, size_t size) : type_(type), ptr_(ftpd_malloc(type, size)) {}
    ~ftpd_block() { reset(); }
    ftpd_block(const ftpd_block &) = delete;
    ftpd_block &operator=(const ftpd_block &) = delete;
    ftpd_block(ftpd_block &&o) noexcept : type_(o.type_), ptr_(std::exchange(o.ptr_, nullptr)) {}
    ftpd_block &operator=(ftpd_block &&o) noexcept {
        if (this != &o) {
            reset();
            type_ = o.type_;
            ptr_ = std::exchange(o.ptr_, nullptr);
        }
        return *this;
    }
    void reset() {
        if (ptr_ != nullptr) ftpd_free(type_, ptr_);
        ptr_ = nullptr;
    }
    char *get() const { return static_cast<char *>(ptr_); }
    explicit operator bool() const { return ptr_ != nullptr; }

  private:
    int type_ = FTPD_M_TMP;
    void *ptr_ = nullptr;
};
