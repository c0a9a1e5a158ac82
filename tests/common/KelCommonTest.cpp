#include <KEL/KELLogger.h>
#include <KelCommon/Guid.h>
#include <KelCommon/Logger.h>
#include <KelCommon/StringHelper.h>
#include <KelCommon/Thread.h>
#include <KelCommon/VarManager.h>
#include <KelCommon/VersionInfo.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <unordered_set>

#include "host/Completion.h"
#include "host/Gate.h"

using KelCommon::Guid;

TEST(Guid, ParsesTextFormInEitherCaseAndWithBraces) {
    const Guid upper = Guid::FromHexString("B74863F3-13CF-47A0-9F90-07718FC52AB6");
    EXPECT_EQ(upper.ToString(), "B74863F3-13CF-47A0-9F90-07718FC52AB6");
    EXPECT_EQ(Guid::FromHexString("b74863f3-13cf-47a0-9f90-07718fc52ab6"), upper);
    EXPECT_EQ(Guid::FromHexString("{B74863F3-13CF-47A0-9F90-07718FC52AB6}"), upper);
    EXPECT_EQ(upper.Bytes()[0], 0xB7);
    EXPECT_EQ(upper.Bytes()[15], 0xB6);
    EXPECT_FALSE(upper.IsNull());
    EXPECT_TRUE(Guid().IsNull());
}

TEST(Guid, BadTextIsAClearError) {
    for (const char* bad :
         {"", "B74863F3", "B74863F3-13CF-47A0-9F90-07718FC52AB", "B74863F3-13CF-47A0-9F90-07718FC52AB67",
          "B74863F3x13CF-47A0-9F90-07718FC52AB6", "G74863F3-13CF-47A0-9F90-07718FC52AB6",
          "B74863F-313CF-47A0-9F90-07718FC52AB6", "{B74863F3-13CF-47A0-9F90-07718FC52AB6"}) {
        EXPECT_FALSE(Guid::TryParse(bad).has_value()) << bad;
        try {
            (void)Guid::FromHexString(bad);
            ADD_FAILURE() << "accepted " << bad;
        } catch (const KelCommon::GuidParseError& e) {
            EXPECT_NE(std::string(e.what()).find("not a GUID"), std::string::npos);
        }
    }
}

TEST(Guid, HashSeparatesDistinctGuids) {
    std::unordered_set<Guid> set;
    set.insert(Guid::FromHexString("B74863F3-13CF-47A0-9F90-07718FC52AB6"));
    set.insert(Guid::FromHexString("B74863F3-13CF-47A0-9F90-07718FC52AB7"));
    set.insert(Guid::FromHexString("b74863f3-13cf-47a0-9f90-07718fc52ab6"));
    EXPECT_EQ(set.size(), 2U);
}

TEST(VersionInfo, PrintsDottedTriple) {
    EXPECT_EQ(KelCommon::VersionInfo(3, 3, 1).ToString(), "3.3.1");
    EXPECT_LT(KelCommon::VersionInfo(6, 2, 9), KelCommon::VersionInfo(6, 3, 0));
}

TEST(StringHelper, EndsWithComparesBytesExactly) {
    using KelCommon::StringHelper;
    EXPECT_TRUE(StringHelper::endsWith_CaseSensitive("take.kel", ".kel"));
    EXPECT_TRUE(StringHelper::endsWith_CaseSensitive(".kel", ".kel"));
    EXPECT_FALSE(StringHelper::endsWith_CaseSensitive("take.KEL", ".kel"));
    EXPECT_FALSE(StringHelper::endsWith_CaseSensitive("kel", ".kel"));
    EXPECT_FALSE(StringHelper::endsWith_CaseSensitive("take.kel.bak", ".kel"));
}

TEST(VarManager, ExpandsKnownVariablesAndKeepsUnknownOnesVerbatim) {
    auto& vars = KelCommon::VarManager::getInstance();
    vars.setVar("TAKE", "take7");
    vars.setRootValue("/data/root");
    EXPECT_EQ(vars.translateFromVars("${ROOT}/${TAKE}.kel").str(), "/data/root/take7.kel");
    EXPECT_EQ(vars.translateFromVars("${NO_SUCH_VARIABLE_X}/a").str(), "${NO_SUCH_VARIABLE_X}/a");
    EXPECT_EQ(vars.translateFromVars("cost $$5 ${TAKE").str(), "cost $5 ${TAKE");
    EXPECT_EQ(vars.translateFromVars("${bad name}").str(), "${bad name}");
    EXPECT_EQ(vars.translateFromVars("plain, 1,,2").str(), "plain, 1,,2");
    EXPECT_EQ(vars.translateFromVars(nullptr).str(), "");
    setenv("KEL_TEST_ENV_VAR", "fromenv", 1);
    EXPECT_EQ(vars.translateFromVars("${KEL_TEST_ENV_VAR}").str(), "fromenv");
    vars.unsetVar("TAKE");
    EXPECT_EQ(vars.translateFromVars("${TAKE}").str(), "${TAKE}");
}

TEST(Logger, SinksSeeEveryLevelAndCaptureIsScoped) {
    auto logger = KEL::GetKELLoggerInstance().lock();
    ASSERT_TRUE(logger);
    {
        KelCommon::ScopedLogCapture capture;
        logger->LogMessage(6, "T", "detail %d of '%s'", 7, "x");
        logger->LogMessage(2, "T", "failure");
        const auto records = capture.Records();
        ASSERT_EQ(records.size(), 2U);
        EXPECT_EQ(records[0].level, 6);
        EXPECT_EQ(records[0].tag, "T");
        EXPECT_EQ(records[0].message, "detail 7 of 'x'");
        EXPECT_EQ(capture.Count("failure"), 1U);
        EXPECT_EQ(capture.CountContaining("detail"), 1U);
    }
    KelCommon::ScopedLogCapture later;
    EXPECT_TRUE(later.Records().empty());
}

TEST(Logger, RemovingASinkWaitsForACallUnderWayOnAnotherThread) {
    auto logger = KEL::GetKELLoggerInstance().lock();
    ASSERT_TRUE(logger);
    kel_test::Gate gate;
    std::atomic<bool> returned{false};
    const int handle = logger->AddSink([&](const KelCommon::LogRecord& record) {
        if (record.tag == "SinkRace") {
            gate.Pass();
            returned = true;
        }
    });
    kel_test::Completion writer([&] { logger->LogMessage(6, "SinkRace", "held in the sink"); });
    gate.WaitEntered(1);
    kel_test::Completion remover([&] { logger->RemoveSink(handle); });
    // Whatever the sink uses may be destroyed once RemoveSink returns.
    EXPECT_FALSE(remover.WaitFor(std::chrono::milliseconds(200)));
    gate.Open();
    remover.Wait();
    EXPECT_TRUE(returned.load());
    writer.Wait();
}

TEST(Logger, RemovedLoggerSilencesCallersWithoutDangling) {
    auto original = KEL::GetKELLoggerInstance().lock();
    KEL::SetKELLoggerInstance(nullptr);
    EXPECT_FALSE(KEL::GetKELLoggerInstance().lock());
    KEL::SetKELLoggerInstance(original);
    EXPECT_EQ(KEL::GetKELLoggerInstance().lock(), original);
}

TEST(Thread, KeepsTheFullNameAndGivesTheKernelACutOne) {
    std::string seen;
    std::string kernel;
    std::thread t([&] {
        KelCommon::concurrency::Thread::setCurrentThreadName("KEL2File_AsyncWriter");
        seen = KelCommon::concurrency::Thread::getCurrentThreadName();
        char buf[32] = {};
        pthread_getname_np(pthread_self(), buf, sizeof(buf));
        kernel = buf;
    });
    t.join();
    EXPECT_EQ(seen, "KEL2File_AsyncWriter");
    EXPECT_EQ(kernel, "KEL2File_AsyncW");
}
