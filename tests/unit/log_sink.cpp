// With VEXA_TEST_LOG_TO_DIAG set each test begins with the log on the diagnostic channel, whose
// messages carry fewer arguments than those of standard output.
#include <gtest/gtest.h>

#include <cstdlib>

#include "shared_int.h"
#include "vexa_common_def.h"

namespace {

class LogSink : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo& /*test*/) override { store_shared(g_qxdm_log, 1); }
};

[[gnu::constructor]] void log_where_told() {
    if (std::getenv("VEXA_TEST_LOG_TO_DIAG") == nullptr)
        return;
    setenv("VEXA_DIAG_LOG", "/dev/null", 0);  // without it the stand-in formats nothing
    testing::UnitTest::GetInstance()->listeners().Append(new LogSink);
}

}  // namespace
