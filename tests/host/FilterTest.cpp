#include <KEL/Filter.h>
#include <KEL/Source.h>
#include <KEL/Target.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "host/RecordingFilters.h"

namespace {

using kel_test::EventLog;
using kel_test::HookFault;
using kel_test::TestSource;
using kel_test::TestTarget;

TEST(FilterTest, ReportErrorKeepsTheErrorAndLogsItUnderTheInstanceName) {
    KelCommon::ScopedLogCapture capture;
    TestTarget filter("t", std::make_shared<EventLog>());
    filter.SetInstanceName("writer");
    EXPECT_EQ(filter.ReportError(KEL::KEL_ERR_INVALID, "KEL File Path is empty"), KEL::KEL_ERR_INVALID);
    EXPECT_EQ(filter.GetLastErrorCode(), KEL::KEL_ERR_INVALID);
    EXPECT_EQ(filter.GetLastErrorMessage(), "KEL File Path is empty");
    const auto records = capture.Records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].level, 2);
    EXPECT_EQ(records[0].tag, "writer");
    EXPECT_EQ(records[0].message, "KEL File Path is empty");
}

TEST(FilterTest, ReportErrorWithoutInstanceNameLogsUnderTheClassName) {
    KelCommon::ScopedLogCapture capture;
    TestTarget filter("t", std::make_shared<EventLog>());
    EXPECT_EQ(filter.ReportError(KEL::KEL_ERR_IO, nullptr), KEL::KEL_ERR_IO);
    const auto records = capture.Records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].tag, "RecordingFilter");
    EXPECT_EQ(records[0].message, "");
}

TEST(FilterTest, InitializeReportsStateTwoDuringAndFourAfter) {
    auto log = std::make_shared<EventLog>();
    TestTarget filter("t", log);
    EXPECT_EQ(filter.Initialize(nullptr), KEL::KEL_OK);
    EXPECT_EQ(log->Count("t.onInitialize@2"), 1U);
    EXPECT_EQ(filter.GetFilterState(), KEL::FILTER_STATE_INITIALIZED);
}

TEST(FilterTest, FailingOrThrowingInitializeLeavesStateFailed) {
    KelCommon::ScopedLogCapture capture;
    TestTarget failing("t", std::make_shared<EventLog>());
    failing.SetFault({"onInitialize", 0, false, KEL::KEL_ERR_NOT_FOUND, "no such directory"});
    EXPECT_EQ(failing.Initialize(nullptr), KEL::KEL_ERR_NOT_FOUND);
    EXPECT_EQ(failing.GetFilterState(), KEL::FILTER_STATE_FAILED);

    TestTarget throwing("t", std::make_shared<EventLog>());
    throwing.SetFault({"onInitialize", 0, true, 0, "bad alloc of a kind"});
    EXPECT_EQ(throwing.Initialize(nullptr), KEL::KEL_ERR_EXCEPTION);
    EXPECT_EQ(throwing.GetFilterState(), KEL::FILTER_STATE_FAILED);
    EXPECT_NE(throwing.GetLastErrorMessage().find("bad alloc of a kind"), std::string::npos);
}

TEST(FilterTest, TargetTakesStreamIdsAndProfileFromItsSource) {
    auto log = std::make_shared<EventLog>();
    TestSource source("s", log, 3, 10);
    TestTarget target("t", log);
    auto profile = std::make_shared<KEL::Profile>();
    target.SetInputProfile(&source, profile);
    EXPECT_EQ(target.GetInputNumStreams(), 3);
    EXPECT_EQ(target.GetInputStreamIds(), (std::vector<std::uint32_t>{0, 1, 2}));
    EXPECT_EQ(target.GetInputProfile(), profile);
    EXPECT_EQ(target.GetInputSource(), &source);
    EXPECT_TRUE(target.AcceptsAllStreams());
    EXPECT_FALSE(TestTarget("u", log, false).AcceptsAllStreams());
}

TEST(FilterTest, TargetIsDoneOnlyOnceItsInputFinished) {
    TestTarget target("t", std::make_shared<EventLog>());
    EXPECT_FALSE(target.IsDone());
    target.SetInputFinished(true);
    EXPECT_TRUE(target.IsDone());
}

TEST(FilterTest, SourceHandsOverItsQueuedAtomsOnce) {
    TestSource source("s", std::make_shared<EventLog>(), 2, 5);
    EXPECT_EQ(source.pushDataToOutput(3), KEL::KEL_OK);
    source.pushToOutputQueue(nullptr);  // ignored
    const auto atoms = source.TakeOutputQueue();
    ASSERT_EQ(atoms.size(), 2U);
    EXPECT_EQ(atoms[1]->GetStreamId(), 1);
    EXPECT_EQ(atoms[1]->GetFrameNr(), 3U);
    EXPECT_TRUE(source.TakeOutputQueue().empty());
}

TEST(FilterTest, ForceGraphStopWithoutAGraphDoesNothing) {
    TestTarget target("t", std::make_shared<EventLog>());
    EXPECT_NO_THROW(target.ForceGraphStop());
}

}  // namespace
