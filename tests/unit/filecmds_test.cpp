// The file and directory commands (DELE, RNFR/RNTO, SIZE, MDTM, STAT with a path, CWD, CDUP, PWD,
// MKD, RMD) driven over a control connection below a temporary top directory: admission, effects,
// bounds and the exact replies.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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
const char k451[] = "451 Requested action aborted. Local error in processing.\r\n";
const char k250[] = "250 Requested file action okay, completed.\r\n";
const char k350[] = "350 Requested file action pending further information.\r\n";
const char k503[] = "503 Bad sequence of commands.\r\n";
const char kAtTop[] = "250 Directory change to \"/\".\r\n";
const char kRmdOk[] = "250 RMD command successful.\r\n";
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

struct step {
    const char *word;
    std::string arg, reply;
};

class FileCmdsTest : public ::testing::Test {
  protected:
    void SetUp() override { ftpd_product_name = test_product; }
    void TearDown() override { ftpd_product_name = saved_product_; }

    // Runs one command as the loop does (every command but RNTO first forgets a pending rename
    // source) and returns the replies it sent.
    std::string run(const std::string &word, const std::string &a) {
        if (word != "RNTO") s.rename_from[0] = '\0';
        char *arg = s.arg(a);
        int rc = 0;
        if (word == "DELE") rc = command_dele(s.ctl(), arg, s.reply_buff, s.currentdir, &s.cred);
        if (word == "RNFR") rc = command_rnfr(s.ctl(), arg, s.reply_buff, s.rename_from, s.currentdir, &s.cred);
        if (word == "RNTO") rc = command_rnto(s.ctl(), arg, s.rename_from, s.currentdir, &s.cred);
        if (word == "SIZE") rc = command_size(s.ctl(), arg, s.currentdir, &s.cred);
        if (word == "MDTM") rc = command_mdtm(s.ctl(), arg, s.reply_buff, s.currentdir, &s.cred);
        if (word == "STAT") rc = command_stat(s.ctl(), arg, s.reply_buff, s.currentdir, &s.cred);
        if (word == "CWD") rc = command_cwd(s.ctl(), arg, s.reply_buff, s.currentdir, &s.cred);
        if (word == "CDUP") cwd(s.ctl(), s.currentdir, "..", s.reply_buff, &s.cred);
        if (word == "PWD") pwd_fun(s.ctl(), s.currentdir, s.reply_buff, &s.cred);
        if (word == "MKD") rc = command_mkd(s.ctl(), arg, s.currentdir, &s.cred);
        if (word == "RMD") rc = command_rmd(s.ctl(), arg, s.currentdir, &s.cred);
        EXPECT_EQ(rc, 0) << word;
        return s.replies();
    }
    void run_steps(std::initializer_list<step> steps) {
        for (const step &st : steps) EXPECT_EQ(run(st.word, st.arg), st.reply) << st.word << " " << st.arg;
    }

    ftpd_mem_balance whole_{FTPD_M_WHOLE_BUF};
    ftpd_temp_tree tree;
    std::string top = tree.make_dir("top");
    ftpd_test_session s{top};

  private:
    char *saved_product_ = ftpd_product_name;
};

TEST_F(FileCmdsTest, AdmissionRefusalsInOrder) {
    s.cred.logged_in = 0;
    for (const char *w : {"DELE", "RNFR", "RNTO", "SIZE", "MDTM", "STAT", "CWD", "MKD", "RMD"})
        EXPECT_EQ(run(w, "f"), k530) << w;
    s.cred.logged_in = 1;
    s.cred.rwdir_flag = false;
    for (const char *w : {"DELE", "RNFR", "RNTO", "SIZE", "MDTM", "STAT", "MKD", "RMD"})
        EXPECT_EQ(run(w, "f"), k550) << w;
    EXPECT_EQ(run("CWD", "f"), "553 Access denied.\r\n");
    s.cred.rwdir_flag = true;
    for (const char *w : {"DELE", "RNFR", "RNTO", "SIZE", "CWD", "MKD", "RMD"}) EXPECT_EQ(run(w, ""), k501) << w;
}

TEST_F(FileCmdsTest, FileCommandRepliesInSequence) {
    tree.make_file("top/f", "line\nline\n");
    tree.make_file("top/empty");
    tree.make_dir("top/d");
    tree.make_file("top/old", "x");
    run_steps({
        {"DELE", "d", "550 \"d\": No such file or directory.\r\n"},
        {"SIZE", "f", "213 10\r\n"},
        {"SIZE", "empty", "213 0\r\n"},
        {"SIZE", "d", "550 d: is an illegal file.\r\n"},
        {"MDTM", "d", "550 d: is an illegal file.\r\n"},
        {"MDTM", "missing", k550},
        {"MDTM", "", "550 : is an illegal file.\r\n"},  // names the current directory
        {"STAT", "missing", "450 Requested file action not taken.\r\n"},
        // A rename works only directly after a successful RNFR.
        {"RNTO", "x", k503},
        {"RNFR", "missing", k501},
        {"RNTO", "x", k503},
        {"RNFR", "old", k350},
        {"RNTO", "none/new", "553 Requested action not taken.\r\n"},
        {"RNTO", "d/new", k250},
        {"DELE", "f", k250},
    });
    EXPECT_TRUE(tree.exists("top/d/new"));
    EXPECT_FALSE(tree.exists("top/f"));
}

TEST_F(FileCmdsTest, DirectoryCommandRepliesInSequence) {
    tree.make_dir("top/a");
    tree.make_dir("top/a/b");
    tree.make_file("top/file");
    tree.make_file("top/a/f");
    run_steps({
        {"CWD", "a/b/", "250 Directory change to \"/a/b\".\r\n"},
        {"PWD", "", "257 Current working directory is \"/a/b\".\r\n"},
        {"CDUP", "", "250 Directory change to \"/a\".\r\n"},
        // Refusals name the argument and keep the directory.
        {"CWD", "../file", "550 \"../file\": No such file or directory.\r\n"},
        {"CWD", "missing", "550 \"missing\": No such file or directory.\r\n"},
        {"PWD", "", "257 Current working directory is \"/a\".\r\n"},
        {"CWD", "/", kAtTop},
        {"CDUP", "", kAtTop},  // the parent of the top is the top itself
        {"MKD", "a/new", "257 \"a/new\" new directory created.\r\n"},
        {"MKD", "./x/../y", "257 \"./x/../y\" new directory created.\r\n"},
        {"MKD", "a", k550},
        {"MKD", "none/new", k550},
        {"RMD", "a", "550 Remove a fail.\r\n"},
        {"RMD", "y", kRmdOk},
    });
    EXPECT_TRUE(tree.exists("top/a/new"));
    EXPECT_FALSE(tree.exists("top/y"));
    // No rule protects the top directory itself.
    run_steps({{"DELE", "file", k250},
               {"DELE", "a/f", k250},
               {"RMD", "a/b", kRmdOk},
               {"RMD", "a/new", kRmdOk},
               {"RMD", "a", kRmdOk},
               {"RMD", "/", kRmdOk}});
    EXPECT_FALSE(tree.exists("top"));
}

TEST_F(FileCmdsTest, RealPathsOf256CharactersAreRefusedByCwdAndRnfr) {
    std::string dir = std::string(100, 'd');
    tree.make_dir("top/" + dir);
    auto name_of_length = [&](size_t total, char c) {
        return dir + "/" + std::string(total - (top.size() + 1 + dir.size() + 1), c);
    };
    std::string fits = name_of_length(255, 'e'), too_long = name_of_length(256, 'f');
    tree.make_dir("top/" + fits);
    tree.make_dir("top/" + too_long);
    tree.make_file("top/" + name_of_length(255, 'n'));
    tree.make_file("top/" + name_of_length(256, 'n'));
    run_steps({
        {"RNFR", name_of_length(256, 'n'), k501},
        {"RNFR", name_of_length(255, 'n'), k350},
        {"CWD", "/" + too_long, "550 \"/" + too_long + "\": No such file or directory.\r\n"},
        {"CWD", "/" + fits, "250 Directory change to \"/" + fits + "\".\r\n"},
    });
    EXPECT_EQ(std::string(s.currentdir), top + "/" + fits);
}

TEST_F(FileCmdsTest, MdtmIsInUtcAndEndsWithABareLineFeed) {
    tree.make_file("top/f", "x");
    tree.set_mtime("top/f", utc_time(2024, 2, 29, 13, 5, 9));
    {
        ftpd_scoped_env tz("TZ", "XST-9");
        tzset();
        EXPECT_EQ(run("MDTM", "f"), "213 20240229130509\n");
    }
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
