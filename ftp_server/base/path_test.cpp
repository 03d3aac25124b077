// Path resolution: normalisation, the bounds of client to real path mapping, the system-tree test
// with the flash home, and temporary paths below TMPDIR.
#include "base/path.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "base/ftpd.h"
#include "ftpd_test_support.h"

namespace {

std::string trim(const char *in) {
    char out[512];
    return ftpd_path_trim(in, out, sizeof out) ? out : "<false>";
}

TEST(PathTrim, NormalisationTable) {
    const char *rows[][2] = {
        {"/", "/"},          {"//a//b//", "/a/b/"}, {"/a/./b", "/a/b"},      {"/a/../b", "/b"},
        {"/..", "/"},        {"/../..", "/"},       {"/a/b/..", "/a/"},      {"/a/b/../../..", "/"},
        {"/...", "/..."},    {"/a/..b", "/a/..b"},  {"/a/b/./../c", "/a/c"}, {"/a/.", "/a/"},
        {"a/..", "<false>"},
    };
    for (auto &r : rows) EXPECT_EQ(trim(r[0]), r[1]) << r[0];
}

TEST(PathTrim, ScratchBufferIsGivenBackAndItsShortageRefuses) {
    ftpd_mem_t before = ftpd_mem_get(FTPD_M_TMP);
    trim("/x/../y");
    trim("a/..");  // the early refusal gives it back too
    ftpd_mem_t after = ftpd_mem_get(FTPD_M_TMP);
    EXPECT_EQ(after.allocs - before.allocs, 2u);
    EXPECT_EQ(after.deallocs - before.deallocs, 2u);
    ftpd_mem_fail_after(FTPD_M_TMP, 1);
    EXPECT_EQ(trim("/a"), "<false>");
    ftpd_mem_fail_after(FTPD_M_TMP, 0);
}

// A path cut short would name another file: each step refuses what does not fit. (Paths that
// fit, resolved below the top directory: the confinement integration tests.)
TEST(PathMapping, OverlongResultIsRefused) {
    char out[16];
    EXPECT_EQ(ftpd_rootdir_relative_path("/top", "/top", std::string(600, 'n').c_str(), out, sizeof out), nullptr);
    EXPECT_EQ(ftpd_relative_to_absolute_path("/top", "/aaaaaaaaaaaaaaaaaaaaaaaa", out, sizeof out), nullptr);
    EXPECT_FALSE(ftpd_path_trim(("/" + std::string(40, 'x')).c_str(), out, sizeof out));
}

TEST(SystemTree, OnlyTheFirstComponentAfterFlashHomeDecides) {
    const std::string flash = "/srv/flash";
    ftpd_use_platform({{1, flash}});
    for (std::string p : std::initializer_list<std::string>{"/proc", "/proc/1/maps", "dev", "/dev/x", "/ram",
                                                            flash + "/proc", flash + "proc"})
        EXPECT_FALSE(is_access_path(p.c_str())) << p;
    for (std::string p : std::initializer_list<std::string>{"/procfs", "/devices", "/etc/proc", "/", flash + "/procfs"})
        EXPECT_TRUE(is_access_path(p.c_str())) << p;
}

TEST(MakePath, OneDirectoryLevelBelowTmpdirAndTheLengthRule) {
    ftpd_temp_tree tree;
    const std::string &dir = tree.path();
    setenv("TMPDIR", dir.c_str(), 1);
    char path[256];
    mkdir((dir + "/app").c_str(), 0755);
    EXPECT_STREQ(ftp_make_path(path, sizeof path, "/app/ftps/.ftptemp-XXXXXX"),
                 (dir + "/app/ftps/.ftptemp-XXXXXX").c_str());
    struct stat st;
    EXPECT_EQ(stat((dir + "/app/ftps").c_str(), &st), 0);
    EXPECT_NE(ftp_make_path(path, sizeof path, "/app/ftps/x"), nullptr);    // it exists now
    EXPECT_EQ(ftp_make_path(path, sizeof path, "/no/such/file"), nullptr);  // no parents made
    EXPECT_STREQ(ftp_make_path(path, sizeof path, "sock"), (dir + "sock").c_str());
    int exact = static_cast<int>(dir.size() + 2);
    EXPECT_EQ(ftp_make_path(path, exact, "/f"), nullptr);
    EXPECT_NE(ftp_make_path(path, exact + 1, "/f"), nullptr);
    unsetenv("TMPDIR");  // without it the daemon does not start: the management integration test
}

}  // namespace
