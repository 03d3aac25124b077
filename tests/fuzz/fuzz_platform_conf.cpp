// Fuzz target: the platform-file parser. Each input is written to a private temporary file and
// loaded; a refusal must come with its "FILE:LINE: ..." reason.
#include <cstdint>
#include <string>

#include "ftpd_test_support.h"
#include "platform_conf.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const ftpd_temp_tree tree;
    std::string text(reinterpret_cast<const char *>(data), size);
    std::string path = tree.make_file("platform.conf", text);
    platform_conf conf;
    std::string err;
    int rc = platform_conf_load(path.c_str(), &conf, &err);
    if (rc != 0 && rc != -1) __builtin_trap();
    if (rc == -1 && err.compare(0, path.size(), path) != 0) __builtin_trap();
    return 0;
}
