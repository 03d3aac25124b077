// Memory accounting: the process-wide table of allocation counters per category, the accounted
// allocation pair, the usage report, and a fault injector that tests use to make one chosen
// allocation fail.
#include "base/memory.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "ftp_tls.h"

static ftpd_mem_t ftpd_mem_table[FTPD_M_MAX];
static std::mutex ftpd_mem_sem;

// Pending injected failure: category (as a signed value, -1 = any) in the high half, the number
// of allocations still to go in the low half (0 = off). One word, so that setting and consuming
// it never see a category of one request with the count of another.
static std::atomic<uint64_t> ftpd_mem_fault{0};

// The counters are incremented under ftpd_mem_sem but read by the report without it; relaxed
// atomic access keeps those unlocked reads well-defined.
static unsigned int counter_load(unsigned int &c) {
    return std::atomic_ref<unsigned int>(c).load(std::memory_order_relaxed);
}

static void counter_inc(unsigned int &c) {
    std::lock_guard<std::mutex> lock(ftpd_mem_sem);
    std::atomic_ref<unsigned int>(c).fetch_add(1, std::memory_order_relaxed);
}

void ftpd_mem_init_table(int type, const char *name) {
    if (type < 0 || type >= FTPD_M_MAX) return;
    ftpd_mem_table[type].name = name;
}

void ftpd_mem_init(void) {
    {
        std::lock_guard<std::mutex> lock(ftpd_mem_sem);
        for (auto &row : ftpd_mem_table) {
            row.name = nullptr;
            std::atomic_ref<unsigned int>(row.allocs).store(0, std::memory_order_relaxed);
            std::atomic_ref<unsigned int>(row.allocfail).store(0, std::memory_order_relaxed);
            std::atomic_ref<unsigned int>(row.deallocs).store(0, std::memory_order_relaxed);
        }
    }
    ftpd_mem_init_table(FTPD_M_INIT, "INIT");
    ftpd_mem_init_table(FTPD_M_TMP, "TMP MALLOC");
    ftpd_mem_init_table(FTPD_M_PCRED_NAME, "PCRED NAME");
    ftpd_mem_init_table(FTPD_M_PCRED_PWD, "PCRED PWD");
    ftpd_mem_init_table(FTPD_M_PCRED_MSG, "PCRED MSG");
    ftpd_mem_init_table(FTPD_M_PCRED_DIR, "PCRED DIR");
    ftpd_mem_init_table(FTPD_M_BUF, "BUF");
    ftpd_mem_init_table(FTPD_M_CHANG_BUF, "CHANG BUF");
    ftpd_mem_init_table(FTPD_M_WHOLE_BUF, "WHOLE BUF");
    ftpd_mem_init_table(FTPD_M_STRING, "STRING");
    ftpd_mem_init_table(FTPD_M_DATA_BUF, "DATA BUF");
    ftpd_mem_init_table(FTPD_M_OUTPATH, "OUTPATH");
    ftpd_mem_init_table(FTPD_M_USER_CNT, "USER CNT");
    ftpd_mem_init_table(FTPD_M_INFO, "INFO");
    ftpd_mem_init_table(FTPD_M_EPOLL, "EPOLL");
}

void ftpd_mem_fail_after(int type, unsigned n) {
    uint64_t word = n == 0 ? 0 : (static_cast<uint64_t>(static_cast<uint32_t>(type)) << 32) | n;
    ftpd_mem_fault.store(word, std::memory_order_relaxed);
}

// True when this allocation is the one the injector was told to fail; consumes one step of the
// countdown when the category matches.
static bool injected_failure(int type) {
    uint64_t word = ftpd_mem_fault.load(std::memory_order_relaxed);
    for (;;) {
        uint32_t left = static_cast<uint32_t>(word);
        if (left == 0) return false;
        int want = static_cast<int32_t>(static_cast<uint32_t>(word >> 32));
        if (want != -1 && want != type) return false;
        uint64_t next = left == 1 ? 0 : word - 1;
        if (ftpd_mem_fault.compare_exchange_weak(word, next, std::memory_order_relaxed)) return left == 1;
    }
}

void *ftpd_malloc(int type, size_t size) {
    if (type < 0 || type >= FTPD_M_MAX) return nullptr;
    void *ptr = injected_failure(type) ? nullptr : calloc(1, size);
    if (ptr == nullptr) {
        counter_inc(ftpd_mem_table[type].allocfail);
        return nullptr;
    }
    counter_inc(ftpd_mem_table[type].allocs);
    return ptr;
}

void ftpd_free(int type, void *ptr) {
    if (type < 0 || type >= FTPD_M_MAX || ptr == nullptr) return;
    free(ptr);
    counter_inc(ftpd_mem_table[type].deallocs);
}

ftpd_mem_t ftpd_mem_get(int type) {
    ftpd_mem_t row{};
    if (type < 0 || type >= FTPD_M_MAX) return row;
    row.name = ftpd_mem_table[type].name;
    row.allocs = counter_load(ftpd_mem_table[type].allocs);
    row.allocfail = counter_load(ftpd_mem_table[type].allocfail);
    row.deallocs = counter_load(ftpd_mem_table[type].deallocs);
    return row;
}

void ftpd_mem_dump(ftpd_print_fn print) {
    if (print == nullptr) return;
    print("\nFTPD Dynamic Memory Usage:\n");
    print("  %-15s  %-12s  %-8s  %-8s  %-8s\n", "Memory Block", "Allocs(Fail)", "Allocs", "Free", "In Use");
    print("  %-15s  %-12s  %-8s  %-8s  %-8s\n", "---------------", "------------", "--------", "--------", "--------");
    for (int type = 0; type < FTPD_M_MAX; type++) {
        ftpd_mem_t row = ftpd_mem_get(type);
        // In Use is unsigned on purpose: more releases than allocations show as a wrapped value.
        print("  %-15s  %-12u  %-8u  %-8u  %-8u\n", row.name != nullptr ? row.name : "Unknown", row.allocfail,
              row.allocs, row.deallocs, row.allocs - row.deallocs);
    }
    // The TLS library's own allocations, counted apart: shown only where TLS is in use, so that a
    // table without it reads as it always has.
    if (ftp_tls_enabled()) {
        unsigned allocs = 0, fails = 0, frees = 0;
        ftp_tls_memory(&allocs, &fails, &frees);
        print("  %-15s  %-12u  %-8u  %-8u  %-8u\n", "TLS", fails, allocs, frees, allocs - frees);
    }
}
