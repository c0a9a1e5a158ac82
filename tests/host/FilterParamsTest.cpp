#include <KEL/Filter.h>
#include <KEL/FilterParams.h>
#include <KEL/Graph.h>
#include <KelCommon/Logger.h>
#include <KelCommon/VarManager.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "host/Completion.h"
#include "host/Gate.h"

namespace {

// A filter that records each parameter change with the thread it came on.
class ChangeRecorder : public KEL::Filter {
public:
    struct Change {
        std::shared_ptr<KEL::FilterParam> param;
        std::string name;
        std::thread::id thread;
    };

    KelCommon::Guid TypeGuid() const override { return {}; }
    KEL::FilterClassInfo GetFilterClassInfo() const override {
        return {"ChangeRecorder", KEL::FILTER_CATEGORY_UNKNOWN};
    }
    void cbiParameterValueChanged(std::shared_ptr<KEL::FilterParam> param, const char* name) override {
        if (throwOnChange) {
            throw std::runtime_error("listener failed");
        }
        std::lock_guard lock(mutex_);
        changes_.push_back({std::move(param), name, std::this_thread::get_id()});
    }
    std::vector<Change> Changes() const {
        std::lock_guard lock(mutex_);
        return changes_;
    }

    bool throwOnChange = false;

private:
    mutable std::mutex mutex_;
    std::vector<Change> changes_;
};

TEST(FilterParamTest, ChangeFromAnotherThreadReachesOwnerOnThatThread) {
    ChangeRecorder filter;
    auto size = std::make_shared<KEL::FilterParamUInt32>("Buffer size", 1, 1, 0, 100);
    filter.addParam(size, true);
    std::thread::id setterId;
    std::thread setter([&] {
        setterId = std::this_thread::get_id();
        EXPECT_TRUE(size->SetValue(42));
    });
    setter.join();
    const auto changes = filter.Changes();
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_EQ(changes[0].param, size);
    EXPECT_EQ(changes[0].name, "Buffer size");
    EXPECT_EQ(changes[0].thread, setterId);
    EXPECT_EQ(size->GetValue(), 42U);
}

TEST(FilterParamTest, SettingTheCurrentValueNotifiesNobody) {
    ChangeRecorder filter;
    auto flag = std::make_shared<KEL::FilterParamBool>("Write XML", 1, true);
    auto text = std::make_shared<KEL::FilterParamString>("Included streams", 1, "0,1");
    auto count = std::make_shared<KEL::FilterParamInt64>("Dropped frames count", 4, 0, 0, INT64_MAX);
    filter.addParam(flag, true);
    filter.addParam(text, true);
    filter.addParam(count, true);
    flag->SetValue(true);
    text->SetValue("0,1");
    EXPECT_TRUE(count->SetValue(0));
    EXPECT_TRUE(filter.Changes().empty());
    flag->SetValue(false);
    text->SetValue("2");
    EXPECT_TRUE(count->SetValue(3));
    EXPECT_EQ(filter.Changes().size(), 3U);
}

TEST(FilterParamTest, ConcurrentIdenticalChangesNotifyExactlyOnce) {
    ChangeRecorder filter;
    auto flag = std::make_shared<KEL::FilterParamBool>("Enable Recording", 0, false);
    filter.addParam(flag, true);
    std::vector<std::thread> setters;
    for (int i = 0; i < 8; ++i) {
        setters.emplace_back([&] { flag->SetValue(true); });
    }
    for (auto& t : setters) {
        t.join();
    }
    EXPECT_EQ(filter.Changes().size(), 1U);
}

TEST(FilterParamTest, CallbackNotifiesOnEveryPress) {
    ChangeRecorder filter;
    auto button = std::make_shared<KEL::FilterParamCallback>("Reset dropped frames counter", 0);
    filter.addParam(button, true);
    button->Press();
    button->Press();
    std::string error;
    EXPECT_TRUE(button->SetValueFromString("anything", &error));
    EXPECT_EQ(filter.Changes().size(), 3U);
    EXPECT_EQ(button->GetPressCount(), 3U);
}

TEST(FilterParamTest, ParameterAddedWithoutNotificationStaysSilent) {
    ChangeRecorder filter;
    auto flag = std::make_shared<KEL::FilterParamBool>("Take snapshot", 0, false);
    filter.addParam(flag, false);
    flag->SetValue(true);
    EXPECT_TRUE(filter.Changes().empty());
    EXPECT_EQ(filter.FindParam("Take snapshot"), flag);
}

TEST(FilterParamTest, UInt32OutsideItsRangeIsRefused) {
    ChangeRecorder filter;
    auto frames = std::make_shared<KEL::FilterParamUInt32>("Frames count per snapshot", 0, 10, 1, 1000);
    filter.addParam(frames, true);
    EXPECT_FALSE(frames->SetValue(0));
    EXPECT_FALSE(frames->SetValue(1001));
    EXPECT_EQ(frames->GetValue(), 10U);
    EXPECT_TRUE(filter.Changes().empty());

    std::string error;
    EXPECT_FALSE(frames->SetValueFromString("1001", &error));
    EXPECT_NE(error.find("Frames count per snapshot"), std::string::npos) << error;
    EXPECT_NE(error.find("out of range [1, 1000]"), std::string::npos) << error;
    EXPECT_FALSE(frames->SetValueFromString("99999999999999999999", &error));
    EXPECT_NE(error.find("out of range"), std::string::npos) << error;
    for (const char* bad : {"", "abc", "-1", "12x", " 5", "5 ", "+5", "0x10", "1.5"}) {
        error.clear();
        EXPECT_FALSE(frames->SetValueFromString(bad, &error)) << bad;
        EXPECT_NE(error.find("not an unsigned decimal integer"), std::string::npos) << bad << ": " << error;
    }
    EXPECT_EQ(frames->GetValue(), 10U);
    EXPECT_TRUE(frames->SetValueFromString("1000", &error)) << error;
    EXPECT_EQ(frames->GetValue(), 1000U);
    EXPECT_EQ(frames->GetValueAsString(), "1000");
}

TEST(FilterParamTest, Int64ParsesSignedDecimalsWithinRange) {
    auto value = std::make_shared<KEL::FilterParamInt64>("Offset", 0, 0, -5, 5);
    std::string error;
    EXPECT_TRUE(value->SetValueFromString("-5", &error)) << error;
    EXPECT_EQ(value->GetValue(), -5);
    EXPECT_FALSE(value->SetValueFromString("-6", &error));
    EXPECT_NE(error.find("out of range [-5, 5]"), std::string::npos) << error;
    EXPECT_FALSE(value->SetValueFromString("--1", &error));
    EXPECT_NE(error.find("not a decimal integer"), std::string::npos) << error;
    EXPECT_FALSE(value->SetValue(6));
    EXPECT_EQ(value->GetValue(), -5);
}

TEST(FilterParamTest, BoolAcceptsCommonWordsInAnyCase) {
    auto flag = std::make_shared<KEL::FilterParamBool>("Drop frames when full", 0, false);
    std::string error;
    for (const char* yes : {"true", "1", "yes", "on", "TRUE", "On"}) {
        flag->SetValue(false);
        EXPECT_TRUE(flag->SetValueFromString(yes, &error)) << yes;
        EXPECT_TRUE(flag->GetValue()) << yes;
    }
    for (const char* no : {"false", "0", "no", "off", "No"}) {
        flag->SetValue(true);
        EXPECT_TRUE(flag->SetValueFromString(no, &error)) << no;
        EXPECT_FALSE(flag->GetValue()) << no;
    }
    EXPECT_FALSE(flag->SetValueFromString("maybe", &error));
    EXPECT_NE(error.find("\"maybe\" is not a boolean"), std::string::npos) << error;
    EXPECT_FALSE(flag->GetValue());
}

TEST(FilterParamTest, StatusParameterRefusesUserValuesButTakesTheFiltersOwn) {
    ChangeRecorder filter;
    auto buffered = std::make_shared<KEL::FilterParamUInt32>("Buffered frames count", 4, 0, 0, UINT32_MAX);
    filter.addParam(buffered, true);
    std::string error;
    EXPECT_FALSE(buffered->SetValueFromString("3", &error));
    EXPECT_NE(error.find("Buffered frames count"), std::string::npos) << error;
    EXPECT_NE(error.find("status"), std::string::npos) << error;
    EXPECT_EQ(buffered->GetValue(), 0U);
    EXPECT_TRUE(filter.Changes().empty());
    EXPECT_TRUE(buffered->SetValue(3));
    EXPECT_EQ(buffered->GetValue(), 3U);
    EXPECT_EQ(filter.Changes().size(), 1U);
}

TEST(FilterParamTest, FilePathExpandsVariablesAndNormalises) {
    auto& vars = KelCommon::VarManager::getInstance();
    vars.setVar("KEL_PARAM_TEST_DIR", "/data/captures");
    auto path = std::make_shared<KEL::FilterParamWriteFilePath>("KEL File Path", 0,
                                                                "${KEL_PARAM_TEST_DIR}/day1/../rec.kel", "kel");
    EXPECT_EQ(path->GetAbsoluteFilePath(), "/data/captures/rec.kel");
    EXPECT_EQ(path->GetValue(), "${KEL_PARAM_TEST_DIR}/day1/../rec.kel");
    EXPECT_EQ(path->GetExtension(), "kel");

    path->SetValue("out/./take.kel");
    EXPECT_EQ(path->GetAbsoluteFilePath(), (std::filesystem::current_path() / "out/take.kel").string());

    path->SetValue("/tmp/${KEL_PARAM_TEST_UNKNOWN_VAR}/a.kel");
    EXPECT_EQ(path->GetAbsoluteFilePath(), "/tmp/${KEL_PARAM_TEST_UNKNOWN_VAR}/a.kel");

    path->SetValue("");
    EXPECT_EQ(path->GetAbsoluteFilePath(), "");
    vars.unsetVar("KEL_PARAM_TEST_DIR");
}

TEST(FilterParamTest, DirPathIsAbsoluteWithoutTrailingSeparator) {
    auto& vars = KelCommon::VarManager::getInstance();
    const KelCommon::String oldRoot = vars.getRootValue();
    vars.setRootValue("/srv/kel");
    auto dir = std::make_shared<KEL::FilterParamDirPath>("KEL files dir", 1, "${ROOT}/kel_files/");
    EXPECT_EQ(dir->GetAbsoluteDirPath(), "/srv/kel/kel_files");
    dir->SetValue("/");
    EXPECT_EQ(dir->GetAbsoluteDirPath(), "/");
    dir->SetValue("rel/../x");
    EXPECT_EQ(dir->GetAbsoluteDirPath(), (std::filesystem::current_path() / "x").string());
    vars.setRootValue(oldRoot);
}

TEST(FilterParamTest, AddingAnotherObjectUnderTheSameNameReplacesAndDetachesIt) {
    ChangeRecorder filter;
    auto first = std::make_shared<KEL::FilterParamBool>("Write XML", 1, true);
    auto second = std::make_shared<KEL::FilterParamBool>("Write XML", 1, true);
    filter.addParam(first, true);
    filter.addParam(first, true);
    ASSERT_EQ(filter.GetParams().size(), 1U);
    filter.addParam(second, true);
    ASSERT_EQ(filter.GetParams().size(), 1U);
    EXPECT_EQ(filter.FindParam("Write XML"), second);
    EXPECT_EQ(first->GetOwner(), nullptr);
    first->SetValue(false);
    EXPECT_TRUE(filter.Changes().empty());
    second->SetValue(false);
    EXPECT_EQ(filter.Changes().size(), 1U);
}

TEST(FilterParamTest, ParameterOutlivingItsFilterNoLongerCallsIt) {
    auto flag = std::make_shared<KEL::FilterParamBool>("Enable Recording", 0, false);
    {
        ChangeRecorder filter;
        filter.addParam(flag, true);
        EXPECT_EQ(flag->GetOwner(), &filter);
    }
    EXPECT_EQ(flag->GetOwner(), nullptr);
    flag->SetValue(true);  // would touch the destroyed filter if still attached
    EXPECT_TRUE(flag->GetValue());
}

// A filter whose change callback stops at a gate and then checks that the
// derived part of the filter is still there.
class GatedListener : public KEL::Filter {
public:
    GatedListener(kel_test::Gate* gate, std::atomic<bool>* destroyed, std::atomic<bool>* sawDestroyed)
        : gate_(gate), destroyed_(destroyed), sawDestroyed_(sawDestroyed) {}
    ~GatedListener() override { *destroyed_ = true; }
    KelCommon::Guid TypeGuid() const override { return {}; }
    KEL::FilterClassInfo GetFilterClassInfo() const override { return {"GatedListener", KEL::FILTER_CATEGORY_UNKNOWN}; }
    void cbiParameterValueChanged(std::shared_ptr<KEL::FilterParam> /*param*/, const char* /*name*/) override {
        // Copied before the gate: only state outside the filter is used after it.
        std::atomic<bool>* destroyed = destroyed_;
        std::atomic<bool>* sawDestroyed = sawDestroyed_;
        gate_->Pass();
        *sawDestroyed = destroyed->load();
    }

private:
    kel_test::Gate* gate_;
    std::atomic<bool>* destroyed_;
    std::atomic<bool>* sawDestroyed_;
};

TEST(FilterParamTest, GraphDestroyingAFilterWaitsForACallbackUnderWayOnAnotherThread) {
    kel_test::Gate gate;
    std::atomic<bool> destroyed{false};
    std::atomic<bool> sawDestroyed{false};
    auto flag = std::make_shared<KEL::FilterParamBool>("Enable Recording", 0, false);
    auto graph = std::make_unique<KEL::Graph>();
    auto filter = std::make_unique<GatedListener>(&gate, &destroyed, &sawDestroyed);
    filter->addParam(flag, true);
    ASSERT_NE(graph->AddFilter(std::move(filter), "listener"), nullptr);
    kel_test::Completion setter([&] { flag->SetValue(true); });
    gate.WaitEntered(1);
    kel_test::Completion destroyer([&] { graph.reset(); });
    // The callback is held at the gate: the filter must not go meanwhile.
    EXPECT_FALSE(destroyer.WaitFor(std::chrono::milliseconds(200)));
    EXPECT_FALSE(destroyed.load());
    gate.Open();
    destroyer.Wait();
    setter.Wait();
    EXPECT_FALSE(sawDestroyed.load()) << "the callback ran on into a destroyed filter";
    EXPECT_TRUE(destroyed.load());
    EXPECT_EQ(flag->GetOwner(), nullptr);
    flag->SetValue(false);  // reaches nobody now
}

TEST(FilterParamTest, ThrowingListenerDoesNotEscapeTheSetter) {
    KelCommon::ScopedLogCapture capture;
    ChangeRecorder filter;
    filter.SetInstanceName("writer");
    filter.throwOnChange = true;
    auto flag = std::make_shared<KEL::FilterParamBool>("Enable Recording", 0, false);
    filter.addParam(flag, true);
    EXPECT_NO_THROW(flag->SetValue(true));
    EXPECT_TRUE(flag->GetValue());
    EXPECT_EQ(capture.CountContaining("listener failed"), 1U);
}

TEST(FilterParamTest, TypeNamesAndDomainsDescribeTheParameter) {
    KEL::FilterParamUInt32 size("Buffer size", 1, 1, 0, 4294967295U);
    EXPECT_STREQ(size.GetTypeName(), "uint32");
    EXPECT_EQ(size.DescribeDomain(), "[0, 4294967295], default 1");
    KEL::FilterParamWriteFilePath path("KEL File Path", 0, "/r/record.kel", "kel");
    EXPECT_STREQ(path.GetTypeName(), "write-file");
    EXPECT_EQ(path.DescribeDomain(), "file path (*.kel), default \"/r/record.kel\"");
    KEL::FilterParamDirPath dir("KEL files dir", 1, nullptr);
    EXPECT_STREQ(dir.GetTypeName(), "dir");
    EXPECT_EQ(dir.GetValue(), "");
}

}  // namespace
