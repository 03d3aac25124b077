// LIST and NLST: the listing line, the unique temporary file, and the staged writers sending into
// a data connection with their replies per outcome.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>

#include "ftpd.h"
#include "ftpd_test_support.h"

namespace {

const char k226[] = "226 Closing data connection.\r\n";
const char k501[] = "501 Syntax error in parameters or arguments.\r\n";

time_t local_time(int year, int mon, int mday, int hour, int min) {
    struct tm tm {};
    tm.tm_year = year - 1900;
    tm.tm_mon = mon - 1;
    tm.tm_mday = mday;
    tm.tm_hour = hour;
    tm.tm_min = min;
    tm.tm_isdst = -1;
    return mktime(&tm);
}

int this_year() {
    time_t now = time(nullptr);
    struct tm tm;
    localtime_r(&now, &tm);
    return tm.tm_year + 1900;
}

std::string file_info(const std::string &path, const char *name) {
    char line[1024];
    return get_file_info(path.c_str(), line, sizeof line, name) == 0 ? line : "<none>";
}

using writer_fn = int (*)(int, int, char *, char *, struct credentials *);

class ListingTest : public ::testing::Test {
  protected:
    void SetUp() override {
        old_umask_ = umask(022);
        tree.make_dir("app");
        top = tree.make_dir("top");
        s = std::make_unique<ftpd_test_session>(top);
    }
    void TearDown() override {
        // Every path removes its temporary file.
        std::error_code ec;
        for (const auto &e : std::filesystem::directory_iterator(tree.full("app/ftps"), ec))
            ADD_FAILURE() << "left behind: " << e.path().filename();
        umask(old_umask_);
    }

    // A file with fixed size, mode and date, so that its line is known exactly.
    void make_known(const std::string &rel) {
        chmod(tree.make_file(rel, "12345").c_str(), 0644);
        tree.set_mtime(rel, local_time(2001, 9, 9, 1, 2));
    }

    // Runs a staged writer on a real path into a fresh data connection; returns what it sent.
    std::string write_with(writer_fn writer, const std::string &real) {
        ftpd_socket_pair data;
        std::string path = real;
        writer(s->ctl(), data.near(), s->currentdir, path.data(), &s->cred);
        return data.drain();
    }

    ftpd_mem_balance whole_{FTPD_M_WHOLE_BUF};
    ftpd_temp_tree tree;
    ftpd_scoped_env tmpdir_{"TMPDIR", tree.path()};  // the listings' temporary files go below the tree
    std::string top;
    std::unique_ptr<ftpd_test_session> s;

  private:
    mode_t old_umask_ = 022;
};

TEST_F(ListingTest, LineShowsTimeThisCalendarYearYearOtherwiseNineModeBitsAndOnlyDirsAndFiles) {
    std::string f = tree.make_file("top/f.txt", "hello");
    chmod(f.c_str(), 0644);
    tree.set_mtime("top/f.txt", local_time(this_year(), 1, 2, 10, 7));
    EXPECT_EQ(file_info(f, "f.txt"), "-rw-r--r--   1 user     group 5 Jan  2 10:07 f.txt\n");
    for (int year : {this_year() - 1, this_year() + 1}) {
        tree.set_mtime("top/f.txt", local_time(year, 12, 31, 12, 0));
        EXPECT_EQ(file_info(f, "f.txt"),
                  "-rw-r--r--   1 user     group 5 Dec 31  " + std::to_string(year) + " f.txt\n");
    }
    std::string d = tree.make_dir("top/d");
    for (int i = 0; i < 7; i++) tree.make_dir("top/d/" + std::to_string(i));
    chmod(d.c_str(), 0755);
    tree.set_mtime("top/d", local_time(2001, 9, 9, 1, 2));
    EXPECT_EQ(file_info(d, "d"), "drwxr-xr-x   9 user     group 4096 Sep  9  2001 d\n");
    chmod(f.c_str(), 04000 | 02000 | 01000 | 0751);
    EXPECT_EQ(file_info(f, "f.txt").substr(0, 10), "-rwxr-x--x");
    ASSERT_EQ(mkfifo(tree.full("top/fifo").c_str(), 0644), 0);
    EXPECT_EQ(file_info(tree.full("top/fifo"), "fifo"), "<none>");
    EXPECT_EQ(file_info(tree.full("top/missing"), "missing"), "<none>");
}

TEST_F(ListingTest, TemporaryNamesCountUpFromOneAndAreReusedOnceFree) {
    auto make = [&](const char *name) {
        std::string templ = tree.full(name);
        int fd = ftpd_mkstemp(templ.data());
        if (fd < 0) return std::string("<fail>");
        close(fd);
        return templ.substr(templ.size() - 6);
    };
    EXPECT_EQ(make("t-XXXXXX"), "000001");
    EXPECT_EQ(make("t-XXXXXX"), "000002");
    struct stat st;
    ASSERT_EQ(stat(tree.full("t-000001").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    unlink(tree.full("t-000001").c_str());
    EXPECT_EQ(make("t-XXXXXX"), "000001");
    EXPECT_EQ(make("t-XXXXX1"), "<fail>");
    EXPECT_EQ(make(""), "<fail>");
}

TEST_F(ListingTest, WritersSendAndReplyPerOutcome) {
    tree.make_dir("top/one");
    make_known("top/one/x.txt");
    tree.make_file("top/one/.hidden");
    tree.make_dir("top/docs");
    make_known("top/docs/x.txt");
    tree.make_file("top/docs/z.doc");
    tree.make_file("top/.profile");
    tree.make_file("top/a");
    tree.make_dir("top/empty");
    tree.make_dir("top/c");
    tree.make_file("top/c/x.txt");
    tree.make_dir("top/c/dir.txt");
    const std::string line = "-rw-r--r--   1 user     group 5 Sep  9  2001 x.txt\n";
    const std::string crlf = line.substr(0, line.size() - 1) + "\r\n";
    const struct {
        writer_fn writer;
        std::string path;
        int type;
        std::string data, reply;
    } rows[] = {
        {write_list, "one", 3, line, k226},
        {write_list, "one", 1, crlf, k226},
        {write_list, "docs/*.txt", 3, line, k226},
        {write_list, "docs/x.txt", 4, line, k226},
        {write_list, "nope", 3, "", "550 \"" + top + "/nope\": No such file or directory.\r\n"},
        {write_list, "none/*.txt", 3, "", k501},
        {write_list, ".profile", 3, "", k501},
        {write_list, "one", 2, "", "451 Unimplemented TYPE 2 in send_data.\r\n"},
        // The name list sends bare names of visible regular files only.
        {write_nlst, "", 1, "a\r\n", k226},
        {write_nlst, "c/*.txt", 1, "x.txt\r\n", k226},
        {write_nlst, "empty", 1, "", k226},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.path);
        s->cred.cnt.tran_type = r.type;
        s->cred.byte_count = 0;
        EXPECT_EQ(write_with(r.writer, r.path.empty() ? top : top + "/" + r.path), r.data);
        if (r.writer == write_list) {
            EXPECT_EQ(s->cred.byte_count, static_cast<off_t>(r.data.size()));
        }
        EXPECT_EQ(s->replies(), r.reply);
    }
}

}  // namespace
