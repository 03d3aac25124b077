// Memory accounting: the counters per category, releases that must not count, and the exact report
// text. (Counters under concurrent sessions: the soak and load integration tests, which find every
// category back at its baseline; injected failures, one per category, each counted in the report:
// the fault-injection integration test.)
#include "base/memory.h"

#include <gtest/gtest.h>

#include <string>

#include "ftpd_test_support.h"

namespace {

class MemoryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ftpd_mem_init();
        ftpd_mem_fail_after(-1, 0);
        ftpd_captured().clear();
    }
};

// More releases than allocations is a category mismatch that nothing checks: the count wraps.
TEST_F(MemoryTest, ReportCountsPerCategoryAndUnsignedWrapAndZeroFills) {
    auto *a = static_cast<unsigned char *>(ftpd_malloc(FTPD_M_BUF, 64));
    ASSERT_NE(a, nullptr);
    for (int i = 0; i < 64; i++) EXPECT_EQ(a[i], 0);
    ftpd_free(FTPD_M_BUF, a);
    ftpd_free(FTPD_M_BUF, nullptr);  // counts nothing
    EXPECT_EQ(ftpd_malloc(FTPD_M_MAX, 8), nullptr);
    ftpd_free(FTPD_M_OUTPATH, ftpd_malloc(FTPD_M_PCRED_NAME, 65));
    ftpd_mem_init_table(FTPD_M_USER_CNT, nullptr);
    ftpd_mem_init_table(FTPD_M_MAX, "IGNORED");

    ftpd_mem_dump(ftpd_capture);
    const std::string &report = ftpd_captured();
    for (const char *line : {"\n  BUF              0             1         1         0       \n",
                             "\n  PCRED NAME       0             1         0         1       \n",
                             "\n  OUTPATH          0             0         1         4294967295\n",
                             "\n  Unknown          0             0         0         0       \n"})
        EXPECT_NE(report.find(line), std::string::npos) << line << report;
    EXPECT_EQ(report.find("IGNORED"), std::string::npos);
}

}  // namespace
