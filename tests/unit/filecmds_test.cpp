// The file commands DELE, RNFR/RNTO, SIZE, MDTM and STAT with a path, driven over a control
// connection below a temporary top directory: admission, effects and the exact replies.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <string>

#include "ftpd.h"
#include "ftpd_test_support.h"

namespace {

const char k530[] = "530 Not logged in.\r\n";
const char k550[] = "550 Requested action not taken.\r\n";
const char k501[] = "501 Syntax error in parameters or arguments.\r\n";
const char k450[] = "450 Requested file action not taken.\r\n";
const char k451[] = "451 Requested action aborted. Local error in processing.\r\n";
const char k250[] = "250 Requested file action okay, completed.\r\n";
const char k350[] = "350 Requested file action pending further information.\r\n";
const char k503[] = "503 Bad sequence of commands.\r\n";
const char kHeader[] = "211- TESTBOX FTP server status:\r\n";
const char kEnd[] = "211 End of status.\r\n";

char test_product[] = "TESTBOX";

time_t utc_time(int year, int mon, int mday, int hour, int min, int sec) {
    struct tm tm {};
    tm.tm_year = year - 1900;
    tm.tm_mon = mon - 1;
    tm.tm_mday = mday;
    tm.tm_hour = hour;
    tm.tm_min = min;
    tm.tm_sec = sec;
    return timegm(&tm);
}

class FileCmdsTest : public ::testing::Test {
  protected:
    void SetUp() override { ftpd_product_name = test_product; }
    void TearDown() override { ftpd_product_name = saved_product_; }

    // Runs one command as the loop does (every command but RNTO first forgets a pending rename
    // source) and returns the replies it sent.
    std::string run(const std::string &word, const std::string &a) {
        if (word != "RNTO") s.rename_from[0] = '\0';
        char *arg = s.arg(a);
        int rc = -2;
        if (word == "DELE") rc = command_dele(s.ctl(), arg, s.reply_buff, s.currentdir, &s.cred);
        if (word == "RNFR") rc = command_rnfr(s.ctl(), arg, s.reply_buff, s.rename_from, s.currentdir, &s.cred);
        if (word == "RNTO") rc = command_rnto(s.ctl(), arg, s.rename_from, s.currentdir, &s.cred);
        if (word == "SIZE") rc = command_size(s.ctl(), arg, s.currentdir, &s.cred);
        if (word == "MDTM") rc = command_mdtm(s.ctl(), arg, s.reply_buff, s.currentdir, &s.cred);
        if (word == "STAT") rc = command_stat(s.ctl(), arg, s.reply_buff, s.currentdir, &s.cred);
        EXPECT_EQ(rc, 0) << word;
        return s.replies();
    }

    ftpd_mem_balance whole_{FTPD_M_WHOLE_BUF};
    ftpd_temp_tree tree;
    std::string top = tree.make_dir("top");
    ftpd_test_session s{top};

  private:
    char *saved_product_ = ftpd_product_name;
};

TEST_F(FileCmdsTest, AdmissionRefusalsInOrder) {
    const char *all[] = {"DELE", "RNFR", "RNTO", "SIZE", "MDTM", "STAT"};
    s.cred.logged_in = 0;
    for (const char *w : all) EXPECT_EQ(run(w, "f"), k530) << w;
    s.cred.logged_in = 1;
    s.cred.rwdir_flag = false;
    for (const char *w : all) EXPECT_EQ(run(w, "f"), k550) << w;
    s.cred.rwdir_flag = true;
    for (const char *w : {"DELE", "RNFR", "RNTO", "SIZE"}) EXPECT_EQ(run(w, ""), k501) << w;
}

TEST_F(FileCmdsTest, DeleRemovesRegularFilesOnly) {
    tree.make_file("top/f", "x");
    tree.make_dir("top/d");
    EXPECT_EQ(run("DELE", "d"), "550 \"d\": No such file or directory.\r\n");
    EXPECT_EQ(run("DELE", "f"), k250);
    EXPECT_TRUE(tree.exists("top/d"));
    EXPECT_FALSE(tree.exists("top/f"));
}

TEST_F(FileCmdsTest, RenameWorksOnlyDirectlyAfterASuccessfulRnfr) {
    tree.make_file("top/old", "x");
    tree.make_dir("top/sub");
    EXPECT_EQ(run("RNTO", "x"), k503);
    EXPECT_EQ(run("RNFR", "missing") + run("RNTO", "x"), std::string(k501) + k503);
    EXPECT_EQ(run("RNFR", "old"), k350);
    EXPECT_EQ(run("RNTO", "none/new"), "553 Requested action not taken.\r\n");
    EXPECT_EQ(run("RNTO", "sub/new"), k250);
    EXPECT_TRUE(tree.exists("top/sub/new"));
}

TEST_F(FileCmdsTest, RnfrRefusesASourceTooLongForThePendingField) {
    std::string dir = std::string(120, 'd');
    tree.make_dir("top/" + dir);
    std::string rel = dir + "/" + std::string(256 - (top.size() + 1 + dir.size() + 1), 'n');
    tree.make_file("top/" + rel);
    EXPECT_EQ(run("RNFR", rel), k501);
    EXPECT_EQ(s.rename_from[0], '\0');
    std::string shorter = rel.substr(0, rel.size() - 1);
    tree.make_file("top/" + shorter);
    EXPECT_EQ(run("RNFR", shorter), k350);
    EXPECT_EQ(std::string(s.rename_from), top + "/" + shorter);
}

TEST_F(FileCmdsTest, SizeAndMdtmAnswerForRegularFilesOnly) {
    tree.make_file("top/f", "line\nline\n");
    tree.make_file("top/empty");
    tree.make_dir("top/d");
    EXPECT_EQ(run("SIZE", "f") + run("SIZE", "empty"), "213 10\r\n213 0\r\n");
    EXPECT_EQ(run("SIZE", "d") + run("MDTM", "d"), "550 d: is an illegal file.\r\n550 d: is an illegal file.\r\n");
    EXPECT_EQ(run("MDTM", "missing"), k550);
    // An empty MDTM argument names the current directory.
    EXPECT_EQ(run("MDTM", ""), "550 : is an illegal file.\r\n");
}

TEST_F(FileCmdsTest, MdtmIsInUtcAndEndsWithABareLineFeed) {
    const char *tz = getenv("TZ");
    std::string saved = tz != nullptr ? tz : "";
    setenv("TZ", "XST-9", 1);
    tzset();
    tree.make_file("top/f", "x");
    tree.set_mtime("top/f", utc_time(2024, 2, 29, 13, 5, 9));
    EXPECT_EQ(run("MDTM", "f"), "213 20240229130509\n");
    if (tz != nullptr)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

TEST_F(FileCmdsTest, StatOfAFileIsThreeLinesAndOfADirectoryItsVisibleEntries) {
    chmod(tree.make_file("top/f", "12345").c_str(), 0644);
    tree.set_mtime("top/f", utc_time(2001, 9, 9, 12, 0, 0));
    EXPECT_EQ(run("STAT", "f"), std::string(kHeader) + "-rw-r--r--   1 user     group 5 Sep  9  2001 f\n" + kEnd);
    tree.make_dir("top/d");
    tree.make_file("top/d/.secret");
    EXPECT_EQ(run("STAT", "d"), std::string(kHeader) + kEnd);
    tree.make_dir("top/d/sub");
    std::string out = run("STAT", "d");
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 3) << out;
    EXPECT_NE(out.find(" sub\n"), std::string::npos) << out;
    EXPECT_EQ(run("STAT", "missing"), k450);
}

TEST_F(FileCmdsTest, DeviceRootAsTopRefusesSystemTreesPerCommand) {
    ftpd_strlcpy(s.cred.rootdir, "/", FTP_ROOTDIR_LEN);
    ftpd_strlcpy(s.currentdir, "/", sizeof s.currentdir);
    EXPECT_EQ(run("SIZE", "/proc/self/status") + run("MDTM", "/proc/self/status"), std::string(k450) + k450);
    EXPECT_EQ(run("DELE", "/dev/null"), "550 \"/dev/null\": No such file or directory.\r\n");
    EXPECT_EQ(run("RNFR", "/dev/null"), k501);
    std::string out = run("STAT", "/");
    EXPECT_EQ(out.find(" proc\n"), std::string::npos);
    EXPECT_EQ(out.find(" dev\n"), std::string::npos);
}

TEST_F(FileCmdsTest, WorkBufferExhaustionRepliesPerCommand) {
    tree.make_file("top/f");
    const std::pair<const char *, const char *> rows[] = {
        {"DELE", k550}, {"RNFR", "502 Command not implemented.\r\n"}, {"SIZE", k451}, {"MDTM", k451}, {"STAT", k451}};
    for (const auto &[word, expected] : rows) {
        ftpd_mem_fail_after(FTPD_M_WHOLE_BUF, 1);
        EXPECT_EQ(run(word, "f"), expected) << word;
    }
    EXPECT_TRUE(tree.exists("top/f"));
}

}  // namespace
