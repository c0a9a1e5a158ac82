#include <KEL/Graph.h>
#include <KelCommon/Logger.h>
#include <KelCommon/VarManager.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <random>
#include <stdexcept>
#include <thread>
#include <tuple>

#include "support/Interleaving.h"

namespace {

// A filter that records the name of each changed parameter and the thread the
// change came on, then runs `onChange`. Read the records once the changing
// threads are joined.
class ChangeRecorder : public KEL::Filter {
public:
    ~ChangeRecorder() override {
        if (destroyed != nullptr) {
            *destroyed = true;
        }
    }
    KelCommon::Guid TypeGuid() const override { return {}; }
    KEL::FilterClassInfo GetFilterClassInfo() const override {
        return {"ChangeRecorder", KEL::FILTER_CATEGORY_UNKNOWN};
    }
    void cbiParameterValueChanged(std::shared_ptr<KEL::FilterParam> param, const char* name) override {
        {
            std::lock_guard lock(mutex_);
            changes.push_back(param->GetName() == name ? name : "mismatched name");
            threads.push_back(std::this_thread::get_id());
        }
        // Run from a copy, so that a hook held at a gate touches nothing of the filter.
        if (const auto hook = onChange) {
            hook();
        }
    }

    std::function<void()> onChange;
    std::atomic<bool>* destroyed = nullptr;
    std::vector<std::string> changes;
    std::vector<std::thread::id> threads;

private:
    std::mutex mutex_;
};

// Notifications come on the changing thread; a status value (flag 4) is the
// filter's own; a throwing listener is logged and does not escape the setter.
TEST(FilterParamTest, OnlyRealChangesAndEveryPressNotifyAndOnlyWhenAskedFor) {
    ChangeRecorder filter;
    auto flag = std::make_shared<KEL::FilterParamBool>("Write XML", 1, true);
    auto text = std::make_shared<KEL::FilterParamString>("Included streams", 1, "0,1");
    auto button = std::make_shared<KEL::FilterParamCallback>("Reset dropped frames counter", 0);
    auto silent = std::make_shared<KEL::FilterParamBool>("Take snapshot", 0, false);
    auto buffered = std::make_shared<KEL::FilterParamUInt32>("Buffered frames count", 4, 0, 0, UINT32_MAX);
    for (const auto& param : std::vector<std::shared_ptr<KEL::FilterParam>>{flag, text, button, buffered}) {
        filter.addParam(param, true);
    }
    filter.addParam(silent, false);
    flag->SetValue(true);
    text->SetValue("0,1");
    silent->SetValue(true);
    std::string error;
    EXPECT_FALSE(buffered->SetValueFromString("3", &error));
    EXPECT_EQ(error, "parameter \"Buffered frames count\": is a status value set by the filter and cannot be set");
    EXPECT_TRUE(filter.changes.empty());
    std::thread changer([&] { flag->SetValue(false); });
    const auto changerId = changer.get_id();
    changer.join();
    text->SetValue("2");
    button->Press();
    EXPECT_TRUE(button->SetValueFromString("anything", &error));
    EXPECT_TRUE(buffered->SetValue(3));
    EXPECT_EQ(filter.changes, (std::vector<std::string>{"Write XML", "Included streams", "Reset dropped frames counter",
                                                        "Reset dropped frames counter", "Buffered frames count"}));
    EXPECT_EQ(filter.threads[0], changerId);
    EXPECT_EQ(button->GetPressCount(), 2U);
    KelCommon::ScopedLogCapture capture;
    filter.onChange = [] { throw std::runtime_error("listener failed"); };
    EXPECT_NO_THROW(flag->SetValue(true));
    EXPECT_TRUE(flag->GetValue());
    EXPECT_EQ(capture.CountContaining("listener failed"), 1U);
}

// Random ranges (whole, narrow near zero, anywhere); random values at, beside
// and away from the bounds, set as text, and the same texts spoilt. The model:
// a decimal text is taken exactly when its value lies in the range, reads back
// the same, and notifies when it differs from the value before.
template <typename Param, typename T>
void CheckGeneratedIntegerTexts(std::mt19937_64& rng) {
    using Limits = std::numeric_limits<T>;
    auto any = [&](T lo, T hi) { return std::uniform_int_distribution<T>(lo, hi)(rng); };
    const std::string notDecimal = std::is_signed_v<T> ? "is not a decimal integer" : "is not an unsigned decimal";
    for (int round = 0; round < 40; ++round) {
        T lo = Limits::min();
        T hi = Limits::max();
        if (round % 3 == 1) {
            lo = any(std::is_signed_v<T> ? T(-20) : T(0), T(20));
            hi = lo + any(T(0), T(10));
        } else if (round % 3 == 2) {
            lo = any(Limits::min(), Limits::max());
            hi = any(lo, Limits::max());
        }
        const std::string range = "[" + std::to_string(lo) + ", " + std::to_string(hi) + "]";
        ChangeRecorder filter;
        auto param = std::make_shared<Param>("Generated", 0, lo, lo, hi);
        filter.addParam(param, true);
        EXPECT_EQ(param->DescribeDomain(), range + ", default " + std::to_string(lo));
        std::string error;
        EXPECT_FALSE(param->SetValueFromString(std::to_string(Limits::max()) + "0", &error));  // beyond the type
        EXPECT_NE(error.find("out of range"), std::string::npos) << error;
        T current = lo;
        std::size_t changes = 0;
        for (int i = 0; i < 30; ++i) {
            const T below = lo > Limits::min() ? T(lo - 1) : lo;
            const T above = hi < Limits::max() ? T(hi + 1) : hi;
            const T candidates[] = {lo, hi, below, above, any(lo, hi), any(Limits::min(), Limits::max())};
            const T value = candidates[rng() % std::size(candidates)];
            const std::string text = std::to_string(value);
            const bool inRange = lo <= value && value <= hi;
            EXPECT_EQ(param->SetValueFromString(text, &error), inRange) << text << " in " << range;
            changes += inRange && value != current ? 1 : 0;
            current = inRange ? value : current;
            if (!inRange) {
                EXPECT_EQ(error, "parameter \"Generated\": \"" + text + "\" is out of range " + range);
            }
            const std::string spoilt[] = {
                "",         "+" + text,  " " + text,  text + " ",
                text + "x", "0x" + text, text + ".5", (std::is_signed_v<T> ? "--" : "-") + text};
            const std::string& bad = spoilt[rng() % std::size(spoilt)];
            EXPECT_FALSE(param->SetValueFromString(bad, &error)) << bad;
            EXPECT_NE(error.find(notDecimal), std::string::npos) << bad << ": " << error;
            EXPECT_EQ(param->SetValue(value), inRange);
            EXPECT_EQ(param->GetValueAsString(), std::to_string(current));
        }
        EXPECT_EQ(filter.changes.size(), changes);
    }
}

TEST(FilterParamTest, IntegerTextIsTakenExactlyWhenItIsADecimalInRange) {
    std::mt19937_64 rng(11);
    CheckGeneratedIntegerTexts<KEL::FilterParamUInt32, std::uint32_t>(rng);
    CheckGeneratedIntegerTexts<KEL::FilterParamInt64, std::int64_t>(rng);
}

TEST(FilterParamTest, BoolAcceptsCommonWordsInAnyCase) {
    KEL::FilterParamBool flag("Drop frames when full", 0, false);
    const std::string words[] = {"false", "True", "0", "1", "No", "yes", "OFF", "oN"};  // odd ones mean true
    std::string error;
    for (std::size_t w = 0; w < std::size(words); ++w) {
        flag.SetValue(w % 2 == 0);
        EXPECT_TRUE(flag.SetValueFromString(words[w], &error)) << words[w];
        EXPECT_EQ(flag.GetValue(), w % 2 == 1) << words[w];
    }
    for (const std::string bad : {"maybe", "", "2", "yes "}) {
        EXPECT_FALSE(flag.SetValueFromString(bad, &error));
        EXPECT_NE(error.find("\"" + bad + "\" is not a boolean"), std::string::npos) << error;
    }
}

// Paths are kept as given and handed out expanded, absolute and normalised;
// directories without a trailing separator. Variables come from the
// variable manager or the environment; "$$" is a "$"; an unknown variable,
// a bad name or an unclosed brace stays as written.
TEST(FilterParamTest, PathsExpandVariablesAndNormalise) {
    auto& vars = KelCommon::VarManager::getInstance();
    const KelCommon::String oldRoot = vars.getRootValue();
    vars.setRootValue("/srv/kel");
    vars.setVar("KEL_PARAM_TEST_DIR", "/data/captures");
    setenv("KEL_PARAM_TEST_ENV_VAR", "fromenv", 1);  // NOLINT(concurrency-mt-unsafe): no other thread yet
    const auto cwd = std::filesystem::current_path();
    KEL::FilterParamWriteFilePath file("KEL File Path", 0, "${KEL_PARAM_TEST_DIR}/day1/../rec.kel", "kel");
    EXPECT_EQ(file.DescribeDomain(), "file path (*.kel), default \"${KEL_PARAM_TEST_DIR}/day1/../rec.kel\"");
    KEL::FilterParamDirPath dir("KEL files dir", 1, "");
    const std::tuple<bool, const char*, std::string> cases[] = {
        {false, "${KEL_PARAM_TEST_DIR}/day1/../rec.kel", "/data/captures/rec.kel"},
        {false, "out/./take.kel", (cwd / "out/take.kel").string()},
        {false, "/tmp/${KEL_PARAM_TEST_UNKNOWN_VAR}/a.kel", "/tmp/${KEL_PARAM_TEST_UNKNOWN_VAR}/a.kel"},
        {false, "/cost $$5/${bad name}/${KEL_PARAM_TEST_ENV_VAR}.kel", "/cost $5/${bad name}/fromenv.kel"},
        {false, "${KEL_PARAM_TEST_DIR}/${KEL_PARAM_TEST_DIR", "/data/captures/${KEL_PARAM_TEST_DIR"},
        {true, "${ROOT}/kel_files/", "/srv/kel/kel_files"},
        {true, "rel/../x", (cwd / "x").string()}};
    for (const auto& [isDir, value, absolute] : cases) {
        KEL::FilterParamString& param = isDir ? static_cast<KEL::FilterParamString&>(dir) : file;
        param.SetValue(value);
        EXPECT_EQ(param.GetValue(), value);
        EXPECT_EQ(isDir ? dir.GetAbsoluteDirPath() : file.GetAbsoluteFilePath(), absolute) << value;
    }
    vars.unsetVar("KEL_PARAM_TEST_DIR");
    vars.setRootValue(oldRoot);
}

// (A parameter that outlives its filter reaches it no more: see
// GraphDestroyingAFilterWaitsForACallbackUnderWayOnAnotherThread.)
TEST(FilterParamTest, ReplacedParameterNoLongerReachesItsFormerOwner) {
    ChangeRecorder filter;
    auto first = std::make_shared<KEL::FilterParamBool>("Write XML", 1, true);
    auto second = std::make_shared<KEL::FilterParamBool>("Write XML", 1, true);
    filter.addParam(first, true);
    filter.addParam(first, true);
    filter.addParam(second, true);
    EXPECT_EQ(filter.GetParams(), (std::vector<std::shared_ptr<KEL::FilterParam>>{second}));
    first->SetValue(false);
    EXPECT_TRUE(filter.changes.empty());
    second->SetValue(false);
    EXPECT_EQ(filter.changes.size(), 1U);
}

TEST(FilterParamTest, GraphDestroyingAFilterWaitsForACallbackUnderWayOnAnotherThread) {
    kel_test::Gate gate;
    std::atomic<bool> destroyed{false};
    std::atomic<bool> sawDestroyed{false};
    auto flag = std::make_shared<KEL::FilterParamBool>("Enable Recording", 0, false);
    auto graph = std::make_unique<KEL::Graph>();
    auto filter = std::make_unique<ChangeRecorder>();
    filter->destroyed = &destroyed;
    filter->onChange = [&] {
        gate.Pass();
        sawDestroyed = destroyed.load();
    };
    filter->addParam(flag, true);
    ASSERT_NE(graph->AddFilter(std::move(filter), "listener"), nullptr);
    kel_test::Completion setter([&] { flag->SetValue(true); });
    gate.WaitEntered(1);
    kel_test::Completion destroyer([&] { graph.reset(); });
    // The callback is held at the gate: the filter must not go meanwhile.
    EXPECT_TRUE(destroyer.Held());
    EXPECT_FALSE(destroyed.load());
    gate.Open();
    destroyer.Wait();
    setter.Wait();
    EXPECT_FALSE(sawDestroyed.load()) << "the callback ran on into a destroyed filter";
    EXPECT_TRUE(destroyed.load());
    EXPECT_EQ(flag->GetOwner(), nullptr);
    flag->SetValue(false);  // reaches nobody now
}

}  // namespace
