// The directory commands CWD, CDUP, PWD, MKD and RMD driven over a control connection below a
// temporary top directory: admission, moves of the current directory and the exact replies.
#include <gtest/gtest.h>

#include <string>

#include "ftpd.h"
#include "ftpd_test_support.h"

namespace {

const char k530[] = "530 Not logged in.\r\n";
const char k550[] = "550 Requested action not taken.\r\n";
const char k501[] = "501 Syntax error in parameters or arguments.\r\n";
const char kAtTop[] = "250 Directory change to \"/\".\r\n";

class DirCmdsTest : public ::testing::Test {
  protected:
    std::string cwd_to(const std::string &arg) {
        EXPECT_EQ(command_cwd(s.ctl(), s.arg(arg), s.reply_buff, s.currentdir, &s.cred), 0);
        return s.replies();
    }
    std::string cdup() {
        cwd(s.ctl(), s.currentdir, "..", s.reply_buff, &s.cred);
        return s.replies();
    }
    std::string pwd() {
        pwd_fun(s.ctl(), s.currentdir, s.reply_buff, &s.cred);
        return s.replies();
    }
    std::string mkd(const std::string &arg) {
        EXPECT_EQ(command_mkd(s.ctl(), s.arg(arg), s.currentdir, &s.cred), 0);
        return s.replies();
    }
    std::string rmd(const std::string &arg) {
        EXPECT_EQ(command_rmd(s.ctl(), s.arg(arg), s.currentdir, &s.cred), 0);
        return s.replies();
    }

    ftpd_mem_balance whole_{FTPD_M_WHOLE_BUF};
    ftpd_temp_tree tree;
    std::string top = tree.make_dir("top");
    ftpd_test_session s{top};
};

TEST_F(DirCmdsTest, AdmissionRefusalsInOrder) {
    s.cred.logged_in = 0;
    EXPECT_EQ(cwd_to("x") + mkd("x") + rmd("x"), std::string(k530) + k530 + k530);
    s.cred.logged_in = 1;
    s.cred.rwdir_flag = false;
    EXPECT_EQ(cwd_to("x") + mkd("x") + rmd("x"), std::string("553 Access denied.\r\n") + k550 + k550);
    s.cred.rwdir_flag = true;
    EXPECT_EQ(cwd_to("") + mkd("") + rmd(""), std::string(k501) + k501 + k501);
}

TEST_F(DirCmdsTest, CwdMovesWithinTheTopAndShowsTheClientView) {
    tree.make_dir("top/a");
    tree.make_dir("top/a/b");
    EXPECT_EQ(cwd_to("a/b/"), "250 Directory change to \"/a/b\".\r\n");
    EXPECT_EQ(std::string(s.currentdir), top + "/a/b");
    EXPECT_EQ(pwd(), "257 Current working directory is \"/a/b\".\r\n");
    EXPECT_EQ(cdup(), "250 Directory change to \"/a\".\r\n");
    EXPECT_EQ(cwd_to("/"), kAtTop);
    EXPECT_EQ(pwd(), "257 Current working directory is \"/\".\r\n");
    // The parent of the top is the top itself.
    EXPECT_EQ(cwd_to("..") + cdup() + cwd_to("../../.."), std::string(kAtTop) + kAtTop + kAtTop);
    EXPECT_EQ(std::string(s.currentdir), top);
}

TEST_F(DirCmdsTest, CwdRefusalsNameTheArgumentAndKeepTheDirectory) {
    tree.make_file("top/file");
    tree.make_dir("top/sub");
    cwd_to("sub");
    EXPECT_EQ(cwd_to("../file"), "550 \"../file\": No such file or directory.\r\n");
    EXPECT_EQ(cwd_to("missing"), "550 \"missing\": No such file or directory.\r\n");
    EXPECT_EQ(std::string(s.currentdir), top + "/sub");
}

TEST_F(DirCmdsTest, DirectoryWhoseRealPathReaches256CannotBeEntered) {
    std::string rel = std::string(100, 'd');
    tree.make_dir("top/" + rel);
    std::string fits = rel + "/" + std::string(255 - (top.size() + 1 + rel.size() + 1), 'e');
    std::string too_long = rel + "/" + std::string(256 - (top.size() + 1 + rel.size() + 1), 'f');
    tree.make_dir("top/" + fits);
    tree.make_dir("top/" + too_long);
    EXPECT_EQ(cwd_to("/" + too_long), "550 \"/" + too_long + "\": No such file or directory.\r\n");
    EXPECT_EQ(cwd_to("/" + fits), "250 Directory change to \"/" + fits + "\".\r\n");
    EXPECT_EQ(std::string(s.currentdir), top + "/" + fits);
}

TEST_F(DirCmdsTest, MkdEchoesTheArgumentAndReportsNoCause) {
    tree.make_dir("top/docs");
    EXPECT_EQ(mkd("docs/new"), "257 \"docs/new\" new directory created.\r\n");
    EXPECT_TRUE(tree.exists("top/docs/new"));
    EXPECT_EQ(mkd("./x/../y"), "257 \"./x/../y\" new directory created.\r\n");
    EXPECT_TRUE(tree.exists("top/y"));
    EXPECT_EQ(mkd("docs") + mkd("none/new"), std::string(k550) + k550);
}

TEST_F(DirCmdsTest, RmdRemovesEmptyDirectoriesIncludingTheTop) {
    tree.make_dir("top/docs");
    tree.make_file("top/docs/f");
    tree.make_dir("top/empty");
    EXPECT_EQ(rmd("docs"), "550 Remove docs fail.\r\n");
    EXPECT_EQ(rmd("empty"), "250 RMD command successful.\r\n");
    EXPECT_FALSE(tree.exists("top/empty"));
    unlink(tree.full("top/docs/f").c_str());
    EXPECT_EQ(rmd("docs"), "250 RMD command successful.\r\n");
    // No rule protects the top directory itself.
    EXPECT_EQ(rmd("/"), "250 RMD command successful.\r\n");
    EXPECT_FALSE(tree.exists("top"));
}

}  // namespace
