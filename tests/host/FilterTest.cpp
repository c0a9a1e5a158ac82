// The filter base outside a graph. How the graph drives a filter's hooks and
// states, and reports its errors, is GraphTest's subject.

#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include "host/RecordingFilters.h"

namespace {

TEST(FilterTest, ReportErrorKeepsTheErrorAndLogsItUnderTheInstanceOrClassName) {
    for (const std::string instance : {"writer", ""}) {
        KelCommon::ScopedLogCapture capture;
        kel_test::TestTarget filter("t", std::make_shared<kel_test::EventLog>());
        filter.SetInstanceName(instance);
        EXPECT_EQ(filter.ReportError(KEL::KEL_ERR_INVALID, "KEL File Path is empty"), KEL::KEL_ERR_INVALID);
        EXPECT_EQ(filter.ReportError(KEL::KEL_ERR_IO, nullptr), KEL::KEL_ERR_IO);
        EXPECT_EQ(filter.GetLastErrorCode(), KEL::KEL_ERR_IO);
        EXPECT_EQ(filter.GetLastErrorMessage(), "");
        const auto records = capture.Records();
        ASSERT_EQ(records.size(), 2U);
        EXPECT_EQ(records[0].level, 2);
        EXPECT_EQ(records[0].tag, instance.empty() ? "RecordingFilter" : instance);
        EXPECT_EQ(records[0].message, "KEL File Path is empty");
    }
}

TEST(FilterTest, TargetIsDoneOnceItsInputFinishedAndHasNoGraphToStop) {
    kel_test::TestTarget target("t", std::make_shared<kel_test::EventLog>());
    EXPECT_FALSE(target.IsDone());
    target.SetInputFinished(true);
    EXPECT_TRUE(target.IsDone());
    target.ForceGraphStop();  // outside a graph: nothing to stop, nothing to crash
}

}  // namespace
