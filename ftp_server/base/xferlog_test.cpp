// Tests of the transfer log: the exact line of sample records, client text that would break the
// fields, and the writer's file mode and failed reopen.
#include "base/xferlog.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "ftpd_test_support.h"

namespace {

// 2026-01-05 13:45:02 UTC, a Monday.
const time_t kEnd = 1767620702;

class XferlogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
    }
    void TearDown() override { ftp_xferlog_close(); }

    static std::string line(const ftp_xferlog_record &r) {
        char buf[512];
        int n = ftp_xferlog_format(&r, buf, sizeof buf);
        return n < 0 ? "(refused)" : std::string(buf, static_cast<size_t>(n));
    }

    ftpd_temp_tree tree_;
};

// Records of both directions and types, their fields as a transfer gives them: the operations
// integration test; here the date, the rounding of the seconds and client text.
TEST_F(XferlogTest, RecordsBecomeTheirExactLine) {
    struct row {
        ftp_xferlog_record rec;
        const char *line;
    };
    const row rows[] = {
        {{kEnd + 86400 * 40, 0, "2001:db8::7", 0, "/in/notes.txt", false, true, "bob", false},
         "Sat Feb 14 13:45:02 2026 1 2001:db8::7 0 /in/notes.txt a _ i r bob ftp 0 * i\n"},
        // Client text with blanks and control characters stays one field each.
        {{kEnd, 1499, "192.0.2.1", 5, "/my file\t\r\n\x7f.txt", true, true, "x y", true},
         "Mon Jan 05 13:45:02 2026 1 192.0.2.1 5 /my_file____.txt b _ i r x_y ftp 0 * c\n"},
        {{kEnd, 1500, "192.0.2.1", 5, "/caf\xc3\xa9", true, false, "", true},
         "Mon Jan 05 13:45:02 2026 2 192.0.2.1 5 /caf\xc3\xa9 b _ o r _ ftp 0 * c\n"},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.line);
        EXPECT_EQ(line(r.rec), r.line);
    }
    ftp_xferlog_record long_name = rows[0].rec;
    std::string name(600, 'n');
    long_name.filename = name.c_str();
    EXPECT_EQ(line(long_name), "(refused)");  // never a cut line
}

// Rotation (the file moved away, SIGHUP, a new file from then on) and the line of a real transfer:
// the operations integration test.
TEST_F(XferlogTest, TheWriterCreatesItsFilePrivateAndKeepsItWhenAReopenFails) {
    ftp_xferlog_record rec = {kEnd, 1000, "192.0.2.1", 10, "/a", true, false, "alice", true};
    EXPECT_EQ(ftp_xferlog_write(&rec), 1);  // no log open
    EXPECT_EQ(ftp_xferlog_open(tree_.full("none/xferlog").c_str()), -1);
    tree_.make_dir("logs");
    std::string path = tree_.full("logs/xferlog");
    mode_t old = umask(022);
    ASSERT_EQ(ftp_xferlog_open(path.c_str()), 0);
    umask(old);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    ASSERT_EQ(ftp_xferlog_write(&rec), 0);
    ASSERT_EQ(rename(tree_.full("logs").c_str(), tree_.full("old").c_str()), 0);
    EXPECT_EQ(ftp_xferlog_reopen(), -1);
    rec.filename = "/b";
    ASSERT_EQ(ftp_xferlog_write(&rec), 0);
    const std::string head = "Mon Jan 05 13:45:02 2026 1 192.0.2.1 10 ", tail = " b _ o r alice ftp 0 * c\n";
    EXPECT_EQ(ftpd_read_all(tree_.full("old/xferlog")), head + "/a" + tail + head + "/b" + tail);
    ftp_xferlog_close();
    EXPECT_EQ(ftp_xferlog_reopen(), 0);  // nothing open: nothing to do
}

}  // namespace
