// With VEXA_TEST_LOG_TO_DIAG set each test begins with the log on the diagnostic channel, whose
// messages carry fewer arguments than those of standard output.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "shared_int.h"
#include "vexa_common_def.h"

namespace {

class LogSink : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo& /*test*/) override { store_shared(g_qxdm_log, 1); }
    void OnTestEnd(const testing::TestInfo& test) override {
        if (load_shared(g_qxdm_log) == 1)
            return;
        // A failure that is noted here would not count any more.
        fprintf(stderr, "%s took the log off the diagnostic channel\n", test.name());
        abort();
    }
};

[[gnu::constructor]] void log_where_told() {
    if (std::getenv("VEXA_TEST_LOG_TO_DIAG") == nullptr)
        return;
    setenv("VEXA_DIAG_LOG", "/dev/null", 0);  // without it the stand-in formats nothing
    testing::UnitTest::GetInstance()->listeners().Append(new LogSink);
}

}  // namespace
