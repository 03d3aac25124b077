// Command recognition: every code through its word, the loose matching that clients rely on, and
// the argument extraction bounds.
#include <gtest/gtest.h>

#include <string>

#include "base/ftpd.h"
#include "control/parser.h"

namespace {

struct word_code {
    const char *word;
    int code;
};

const word_code kAllWords[] = {
    {"USER", 1},  {"PASS", 2},  {"ACCT", 3},  {"CWD", 4},   {"CDUP", 5},  {"SMNT", 6},  {"QUIT", 7},  {"REIN", 8},
    {"PORT", 9},  {"PASV", 10}, {"TYPE", 11}, {"STRU", 12}, {"MODE", 13}, {"RETR", 14}, {"STOR", 15}, {"STOU", 16},
    {"APPE", 17}, {"ALLO", 18}, {"REST", 19}, {"RNFR", 20}, {"RNTO", 21}, {"ABOR", 22}, {"DELE", 23}, {"RMD", 24},
    {"MKD", 25},  {"PWD", 26},  {"LIST", 27}, {"NLST", 28}, {"SITE", 29}, {"SYST", 30}, {"STAT", 31}, {"HELP", 32},
    {"NOOP", 33}, {"MDTM", 36}, {"MAIL", 37}, {"MLFL", 38}, {"MRCP", 39}, {"MRSQ", 40}, {"MSAM", 41}, {"MSND", 42},
    {"MSOM", 43}, {"XCWD", 44}, {"XRMD", 45}, {"XMKD", 46}, {"XCUP", 47}, {"XPWD", 48}, {"FEAT", 49}, {"OPTS", 50},
    {"AUTH", 51}, {"PBSZ", 52}, {"PROT", 53}, {"EPRT", 54}, {"EPSV", 55}, {"SIZE", 56},
};

int parse(const std::string &line, std::string *arg) {
    char buf[FTP_BUF_SIZE];
    memset(buf, 'Z', sizeof buf);
    buf[sizeof buf - 1] = '\0';
    int code = ftpd_parse_cmd(line.c_str(), buf);
    *arg = buf;
    return code;
}

TEST(ParserTest, EveryWordGivesItsCodeWithAndWithoutArgument) {
    std::string arg;
    for (const auto &w : kAllWords) {
        EXPECT_EQ(parse(std::string(w.word) + " some arg\r\n", &arg), w.code) << w.word;
        EXPECT_EQ(arg, "some arg") << w.word;
        EXPECT_EQ(parse(std::string(w.word) + "\r\n", &arg), w.code) << w.word;
        EXPECT_EQ(arg, "") << w.word;
        EXPECT_EQ(parse(w.word, &arg), w.code) << w.word;
    }
}

TEST(ParserTest, ShortLinesLowerCaseForeignLettersAndWordPrefixesGiveZero) {
    char buf[FTP_BUF_SIZE];
    EXPECT_EQ(ftpd_parse_cmd(nullptr, buf), 0);
    std::string arg;
    for (const char *line : {"", "QU", "PAS", "PAX", "EXRT", "MSX", "STX", "REX", "XCXX", "user bob", "Retr x", "YES",
                             "ZZZZ", "1USER", " USER x", "@BC", "[AB", "VERB"})
        EXPECT_EQ(parse(line, &arg), 0) << line;
}

// Loose matching takes run-on text as the argument; leading blanks and the line end are dropped,
// inner and trailing blanks kept, and the rest beyond 511 characters cut.
TEST(ParserTest, ArgumentExtraction) {
    const std::string a511(511, 'a');
    const struct {
        std::string line;
        int code;
        std::string arg;
    } rows[] = {
        {"LISTX", FTP_CMD_LIST, "X"},
        {"PASSWORD", FTP_CMD_PASS, "WORD"},
        {"CWDIR", FTP_CMD_CWD, "IR"},
        {"RETR   my file.txt \r\n", FTP_CMD_RETR, "my file.txt "},
        {"STOR \t\r\n a\tb\n", FTP_CMD_STOR, "a\tb"},
        {"CWD x\ry", FTP_CMD_CWD, "x"},
        {"MKD " + a511 + "\r\n", FTP_CMD_MKD, a511},
        {"MKD " + a511 + "bcdef\r\n", FTP_CMD_MKD, a511},
    };
    std::string arg;
    for (const auto &r : rows) {
        EXPECT_EQ(parse(r.line, &arg), r.code) << r.line;
        EXPECT_EQ(arg, r.arg) << r.line;
    }
}

}  // namespace
