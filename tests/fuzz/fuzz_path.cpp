// Fuzz target: path resolution as the handlers run it (client path made relative to the virtual
// root, trimmed, mapped onto the real top directory and back), and the system-tree test. Checks
// confinement: the real path, with its ".." resolved, never leaves the top directory; and the
// trimming scratch buffer is always given back.
//
// Input: byte 0 picks the top directory, byte 1 the buffer size; the rest is the session's
// current directory (below the top) and the client's path, separated by the first zero byte.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "base/ftpd.h"
#include "base/path.h"
#include "ftpd_test_support.h"

namespace {

const char *const kTops[] = {"/", "/flash", "/flash/ftp", "/mnt/usb0", "/tmp/a/b/c"};

// Whether path, its "." and ".." resolved as text (".." at "/" stays at "/"), is at or below top.
bool below(const std::string &path, const std::string &top) {
    std::string p = std::filesystem::path(path).lexically_normal().string();
    return top == "/" || p == top || (p.compare(0, top.size(), top) == 0 && p[top.size()] == '/');
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    ftpd_mem_init();
    ftpd_use_platform({{1, "/flash"}});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2 || size > 2 * FTP_BUF_SIZE) return 0;
    const char *top = kTops[data[0] % (sizeof kTops / sizeof kTops[0])];
    // The handlers use 512; smaller sizes exercise the truncation paths.
    int bufsize = (data[1] & 0x80) ? FTP_BUF_SIZE : 1 + data[1];
    std::string rest(reinterpret_cast<const char *>(data + 2), size - 2);
    size_t zero = rest.find('\0');
    std::string cur_rel = zero == std::string::npos ? "" : rest.substr(0, zero);
    // The client's path ends at a further zero byte, as a received line would.
    std::string client = rest.substr(zero == std::string::npos ? 0 : zero + 1);
    client = client.substr(0, std::min<size_t>(client.find('\0'), FTP_BUF_SIZE - 1));

    char rootdir[FTP_ROOTDIR_LEN];
    if (!ftpd_strlcpy(rootdir, top, sizeof rootdir)) return 0;

    // The session's current directory is its top directory or a trimmed path below it.
    char current[FTP_CURRENTDIR_LEN];
    char trimmed_cur[FTP_CURRENTDIR_LEN];
    std::string slashed = "/" + cur_rel;
    if (!ftpd_path_trim(slashed.c_str(), trimmed_cur, sizeof trimmed_cur)) return 0;
    bool fit;
    if (strcmp(top, "/") == 0)
        fit = ftpd_strlcpy(current, trimmed_cur, sizeof current);
    else if (strcmp(trimmed_cur, "/") == 0)
        fit = ftpd_strlcpy(current, top, sizeof current);
    else
        fit = ftpd_snprintf(current, sizeof current, "%s%s", top, trimmed_cur);
    if (!fit) return 0;

    ftpd_mem_t before = ftpd_mem_get(FTPD_M_TMP);
    std::vector<char> inpath(static_cast<size_t>(bufsize)), outpath(static_cast<size_t>(bufsize));
    // A result that does not fit is refused; whatever is in the buffer is still terminated.
    bool rel_fit = ftpd_rootdir_relative_path(rootdir, current, client.c_str(), inpath.data(), bufsize) != nullptr;
    if (memchr(inpath.data(), '\0', inpath.size()) == nullptr) __builtin_trap();
    if (!rel_fit) return 0;
    bool ok = ftpd_path_trim(inpath.data(), outpath.data(), bufsize);
    ftpd_mem_t after = ftpd_mem_get(FTPD_M_TMP);
    if (after.allocs - after.deallocs != before.allocs - before.deallocs) __builtin_trap();
    if (!ok) return 0;
    if (memchr(outpath.data(), '\0', outpath.size()) == nullptr) __builtin_trap();

    if (ftpd_relative_to_absolute_path(rootdir, outpath.data(), inpath.data(), bufsize) == nullptr) return 0;
    // Confinement: a real path that fit never leaves the top directory.
    if (outpath[0] == '/' && !below(inpath.data(), top)) __builtin_trap();
    (void)is_access_path(inpath.data());

    char back[FTP_CURRENTDIR_LEN];
    (void)ftpd_absolute_to_relative_path(rootdir, current, back, sizeof back);
    return 0;
}
