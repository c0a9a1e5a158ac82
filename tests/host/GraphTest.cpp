#include <KEL/Graph.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/RecordingFilters.h"

namespace {

using kel_test::EventLog;
using kel_test::HookFault;
using kel_test::TestSource;
using kel_test::TestTarget;

class GraphTest : public ::testing::Test {
protected:
    std::shared_ptr<EventLog> log = std::make_shared<EventLog>();
    std::unique_ptr<KEL::Graph> graph = std::make_unique<KEL::Graph>();
    TestSource* src = nullptr;
    TestTarget* tgt = nullptr;

    void Build(std::uint32_t numStreams, std::optional<std::uint32_t> numFrames) {
        src = Add(std::make_unique<TestSource>("src", log, numStreams, numFrames), "source");
        tgt = Add(std::make_unique<TestTarget>("tgt", log), "target");
        ASSERT_EQ(graph->Connect(src, tgt), KEL::KEL_OK);
    }
    template <typename F>
    F* Add(std::unique_ptr<F> filter, const std::string& name) {
        std::string error;
        auto* added = graph->AddFilter(std::move(filter), name, &error);
        EXPECT_NE(added, nullptr) << error;
        return static_cast<F*>(added);
    }
    void Initialize() {
        std::string error;
        ASSERT_EQ(graph->Initialize(&error), KEL::KEL_OK) << error;
    }
    // Initialises the graph and runs it once.
    KEL::RunResult InitializeAndRun(const KEL::RunOptions& options = {}) {
        Initialize();
        return graph->Run(options);
    }
    // Options whose afterFrame counts the frames; WaitForFrames blocks until
    // `count` frames have been asked for.
    KEL::RunOptions CountingFrames() {
        KEL::RunOptions options;
        options.afterFrame = [this](KEL::Graph&, std::uint32_t, bool) {
            {
                std::lock_guard lock(framesMutex_);
                ++frames_;
            }
            framesSeen_.notify_all();
        };
        return options;
    }
    void WaitForFrames(std::uint64_t count) {
        std::unique_lock lock(framesMutex_);
        framesSeen_.wait(lock, [&] { return frames_ >= count; });
    }
    // The events from the first occurrence of `from` on.
    std::vector<std::string> EventsFrom(const std::string& from) const {
        auto events = log->Events();
        auto it = std::find(events.begin(), events.end(), from);
        return {it, events.end()};
    }

private:
    std::mutex framesMutex_;
    std::condition_variable framesSeen_;
    std::uint64_t frames_ = 0;
};

TEST_F(GraphTest, HooksRunInLifeCycleOrderInTheirStates) {
    Build(2, 2);
    std::vector<int> statesSeen;
    tgt->onFrame = [&](TestTarget& t, std::uint32_t) { statesSeen.push_back(t.GetFilterState()); };
    const auto result = InitializeAndRun();
    ASSERT_TRUE(result.Ok()) << result.message;
    // Playing during the frames, initialised again after the stop.
    EXPECT_EQ(statesSeen, std::vector<int>(4, KEL::FILTER_STATE_PLAYING));
    EXPECT_EQ(tgt->GetFilterState(), KEL::FILTER_STATE_INITIALIZED);
    EXPECT_EQ(src->GetFilterState(), KEL::FILTER_STATE_INITIALIZED);
    graph->DeInitialize();

    const std::vector<std::string> expected = {
        "src.onInitializeParams@0",
        "tgt.onInitializeParams@0",
        "src.onInitialize@2",
        "tgt.inputs 2",
        "tgt.onInitialize@2",
        "tgt.onPlay@4",
        "src.onPlay@4",
        "src.push 0",
        "tgt.frame 0:0",
        "tgt.frame 1:0",
        "tgt.post",
        "src.push 1",
        "tgt.frame 0:1",
        "tgt.frame 1:1",
        "tgt.post",
        "src.onStop@7",
        "tgt.onStop@7",
        "tgt.onDeInitialize@4",
        "src.onDeInitialize@4",
    };
    EXPECT_EQ(log->Events(), expected);
    EXPECT_EQ(result.framesDelivered, 2U);
    EXPECT_EQ(result.framesSkipped, 0U);
    EXPECT_FALSE(result.stoppedEarly);
    EXPECT_EQ(src->GetFilterState(), KEL::FILTER_STATE_PARAMS_READY);
    EXPECT_EQ(tgt->GetFilterState(), KEL::FILTER_STATE_PARAMS_READY);
    EXPECT_EQ(graph->FramesPerPass(), 2U);
}

TEST_F(GraphTest, RefusedFrameIsSkippedAndCounted) {
    Build(1, 3);
    src->refused = {1};
    std::vector<std::pair<std::uint32_t, bool>> after;
    KEL::RunOptions options;
    options.afterFrame = [&](KEL::Graph&, std::uint32_t f, bool delivered) { after.emplace_back(f, delivered); };
    const auto result = InitializeAndRun(options);
    ASSERT_TRUE(result.Ok()) << result.message;
    EXPECT_EQ(result.framesDelivered, 2U);
    EXPECT_EQ(result.framesSkipped, 1U);
    EXPECT_EQ(log->Count("tgt.frame 0:1"), 0U);
    EXPECT_EQ(log->Count("tgt.frame 0:2"), 1U);
    EXPECT_EQ(log->Count("tgt.post"), 2U);
    EXPECT_EQ(after, (std::vector<std::pair<std::uint32_t, bool>>{{0, true}, {1, false}, {2, true}}));
}

TEST_F(GraphTest, SourceWithoutFrameCountPlaysUntilItRefuses) {
    Build(1, std::nullopt);
    src->refuseFrom = 3;
    const auto result = InitializeAndRun();
    ASSERT_TRUE(result.Ok()) << result.message;
    EXPECT_EQ(result.framesDelivered, 3U);
    EXPECT_EQ(result.framesSkipped, 1U);
    EXPECT_EQ(log->Count("src.push 4"), 0U);
}

TEST_F(GraphTest, StartFrameAndFrameCountSelectTheFrames) {
    Build(1, 10);
    KEL::RunOptions options;
    options.startFrame = 4;
    options.frameCount = 2;
    const auto result = InitializeAndRun(options);
    ASSERT_TRUE(result.Ok()) << result.message;
    EXPECT_EQ(log->Count("tgt.frame 0:4"), 1U);
    EXPECT_EQ(log->Count("tgt.frame 0:5"), 1U);
    EXPECT_EQ(result.framesDelivered, 2U);
}

TEST_F(GraphTest, DoneTimeoutStopsATargetThatNeverFinishes) {
    Build(1, 1);
    tgt->holdDone = true;
    KEL::RunOptions options;
    options.doneTimeout = std::chrono::milliseconds(1);
    const auto result = InitializeAndRun(options);
    EXPECT_TRUE(result.Ok()) << result.message;
    EXPECT_EQ(log->Count("tgt.onStop@7"), 1U);
}

TEST_F(GraphTest, EndlessLoopOverAnEmptyPassEnds) {
    Build(1, std::nullopt);
    src->refuseFrom = 0;
    KEL::RunOptions options;
    options.loops = 0;
    const auto result = InitializeAndRun(options);
    ASSERT_TRUE(result.Ok()) << result.message;
    EXPECT_EQ(result.framesDelivered, 0U);
}

TEST_F(GraphTest, HookReturningErrorEndsRunNamingTheFilter) {
    Build(1, 5);
    tgt->SetFault({"onProcessFrame", 1, false, KEL::KEL_ERR_DISK_FULL, "no space left for frame 1"});
    const auto result = InitializeAndRun();
    EXPECT_EQ(result.code, KEL::KEL_ERR_DISK_FULL);
    EXPECT_EQ(result.failedFilter, "target");
    EXPECT_NE(result.message.find("'target'"), std::string::npos) << result.message;
    EXPECT_NE(result.message.find("onProcessFrame"), std::string::npos) << result.message;
    EXPECT_NE(result.message.find("no space left for frame 1"), std::string::npos) << result.message;
    EXPECT_EQ(log->Count("src.push 2"), 0U);
    EXPECT_EQ(log->Count("src.onStop@7"), 1U);
    EXPECT_EQ(log->Count("tgt.onStop@7"), 1U);
    EXPECT_EQ(tgt->GetFilterState(), KEL::FILTER_STATE_INITIALIZED);
    EXPECT_EQ(result.framesDelivered, 1U);
}

TEST_F(GraphTest, HookThrowingEndsRunNamingTheFilter) {
    Build(1, 5);
    src->SetFault({"pushDataToOutput", 2, true, 0, "reader exploded"});
    const auto result = InitializeAndRun();
    EXPECT_EQ(result.code, KEL::KEL_ERR_EXCEPTION);
    EXPECT_EQ(result.failedFilter, "source");
    EXPECT_NE(result.message.find("'source'"), std::string::npos) << result.message;
    EXPECT_NE(result.message.find("reader exploded"), std::string::npos) << result.message;
    EXPECT_EQ(log->Count("tgt.frame 0:2"), 0U);
    EXPECT_EQ(log->Count("src.onStop@7"), 1U);
    EXPECT_EQ(log->Count("tgt.onStop@7"), 1U);
    // The graph is usable again afterwards.
    src->SetFault({});
    EXPECT_TRUE(graph->Run().Ok());
}

TEST_F(GraphTest, ForceGraphStopEndsTheRunAfterTheFrame) {
    Build(1, 10);
    tgt->onFrame = [](TestTarget& t, std::uint32_t f) {
        if (f == 1) {
            t.ForceGraphStop();
        }
    };
    const auto result = InitializeAndRun();
    ASSERT_TRUE(result.Ok()) << result.message;
    EXPECT_TRUE(result.stoppedEarly);
    EXPECT_EQ(result.framesDelivered, 2U);
    EXPECT_EQ(log->Count("tgt.onStop@7"), 1U);
}

TEST_F(GraphTest, ThrowingCallbackEndsTheRunCleanly) {
    Build(1, 3);
    KEL::RunOptions options;
    options.beforeFrame = [](KEL::Graph&, std::uint32_t f) {
        if (f == 1) {
            throw std::runtime_error("script error");
        }
    };
    const auto result = InitializeAndRun(options);
    EXPECT_EQ(result.code, KEL::KEL_ERR_EXCEPTION);
    EXPECT_NE(result.message.find("script error"), std::string::npos);
    EXPECT_EQ(log->Count("tgt.onStop@7"), 1U);
}

TEST_F(GraphTest, NaturalEndWaitsUntilTargetIsDone) {
    Build(1, 2);
    tgt->holdDone = true;
    Initialize();
    // The target becomes done only once the graph has asked it with its input
    // finished; onStop must come after that.
    std::thread finisher([&] {
        log->WaitFor("tgt.asked IsDone");
        tgt->MarkDone();
    });
    const auto result = graph->Run();
    finisher.join();
    ASSERT_TRUE(result.Ok()) << result.message;
    EXPECT_FALSE(result.stoppedEarly);
    const long marked = log->IndexOf("tgt.marked done");
    const long stopped = log->IndexOf("tgt.onStop@7");
    ASSERT_GE(marked, 0);
    EXPECT_GT(stopped, marked);
    EXPECT_GT(log->IndexOf("tgt.asked IsDone"), log->IndexOf("tgt.post"));
}

TEST_F(GraphTest, PauseCallsOnPauseAndResumeReplaysOnPlayInPausedState) {
    Build(1, 3);
    KEL::RunOptions options;
    options.beforeFrame = [&](KEL::Graph& g, std::uint32_t f) {
        if (f == 1) {
            g.Pause();
        }
    };
    Initialize();
    std::thread resumer([&] {
        log->WaitFor("src.onPause@5");
        graph->Resume();
    });
    const auto result = graph->Run(options);
    resumer.join();
    ASSERT_TRUE(result.Ok()) << result.message;
    EXPECT_EQ(result.framesDelivered, 3U);
    const std::vector<std::string> expected = {"tgt.post",     "tgt.onPause@5", "src.onPause@5", "tgt.onPlay@6",
                                               "src.onPlay@6", "src.push 2",    "tgt.frame 0:2"};
    auto events = EventsFrom("tgt.frame 0:1");
    events.erase(events.begin());
    events.resize(expected.size());
    EXPECT_EQ(events, expected);
}

TEST_F(GraphTest, StopWhilePausedStopsWithoutResuming) {
    Build(1, 5);
    KEL::RunOptions options;
    options.beforeFrame = [&](KEL::Graph& g, std::uint32_t f) {
        if (f == 0) {
            g.Pause();
        }
    };
    Initialize();
    std::thread stopper([&] {
        log->WaitFor("src.onPause@5");
        graph->RequestStop();
    });
    const auto result = graph->Run(options);
    stopper.join();
    ASSERT_TRUE(result.Ok()) << result.message;
    EXPECT_TRUE(result.stoppedEarly);
    EXPECT_EQ(result.framesDelivered, 1U);
    EXPECT_EQ(log->Count("tgt.onPlay@6"), 0U);
    EXPECT_EQ(log->Count("tgt.onStop@7"), 1U);
    EXPECT_EQ(tgt->GetFilterState(), KEL::FILTER_STATE_INITIALIZED);
}

TEST_F(GraphTest, SeekResetsFrameOrderForRegisteredListenersOnly) {
    src = Add(std::make_unique<TestSource>("src", log, 1, 4), "source");
    tgt = Add(std::make_unique<TestTarget>("tgt", log), "listening");
    auto* quiet = Add(std::make_unique<TestTarget>("quiet", log), "quiet");
    tgt->listenWhilePlaying = true;
    ASSERT_EQ(graph->Connect(src, tgt), KEL::KEL_OK);
    ASSERT_EQ(graph->Connect(src, quiet), KEL::KEL_OK);
    // Registered and unregistered again: must not hear of the reset.
    graph->RegisterFrameOrderResetListener(quiet);
    graph->UnregisterFrameOrderResetListener(quiet);

    bool seeked = false;
    KEL::RunOptions options;
    options.afterFrame = [&](KEL::Graph& g, std::uint32_t f, bool) {
        if (f == 2 && !seeked) {
            seeked = true;
            g.Seek(0);
        }
    };
    const auto result = InitializeAndRun(options);
    ASSERT_TRUE(result.Ok()) << result.message;
    const std::vector<std::string> expected = {"tgt.post", "quiet.post", "tgt.reset", "src.push 0"};
    auto events = EventsFrom("src.push 2");
    auto it = std::find(events.begin(), events.end(), "tgt.post");
    ASSERT_NE(it, events.end());
    EXPECT_EQ(std::vector<std::string>(it, it + 4), expected);
    EXPECT_EQ(log->Count("tgt.reset"), 1U);
    EXPECT_EQ(log->Count("quiet.reset"), 0U);
    EXPECT_EQ(result.framesDelivered, 7U);  // 0,1,2 then 0,1,2,3
    std::lock_guard lock(graph->GetFrameOrderResetListenersLock());
    EXPECT_TRUE(graph->GetFrameOrderResetListeners().empty());
}

TEST_F(GraphTest, EveryLoopPassAfterTheFirstResetsFrameOrder) {
    src = Add(std::make_unique<TestSource>("src", log, 1, 2), "source");
    tgt = Add(std::make_unique<TestTarget>("tgt", log), "target");
    tgt->listenWhilePlaying = true;
    ASSERT_EQ(graph->Connect(src, tgt), KEL::KEL_OK);
    KEL::RunOptions options;
    options.loops = 3;
    const auto result = InitializeAndRun(options);
    ASSERT_TRUE(result.Ok()) << result.message;
    EXPECT_EQ(result.framesDelivered, 6U);
    std::vector<std::string> frames;
    for (const auto& e : log->Events()) {
        if (e == "tgt.reset" || e.rfind("tgt.frame", 0) == 0) {
            frames.push_back(e);
        }
    }
    EXPECT_EQ(frames, (std::vector<std::string>{"tgt.frame 0:0", "tgt.frame 0:1", "tgt.reset", "tgt.frame 0:0",
                                                "tgt.frame 0:1", "tgt.reset", "tgt.frame 0:0", "tgt.frame 0:1"}));
}

TEST_F(GraphTest, FailingOnPlayStopsOnlyTheFiltersThatStarted) {
    src = Add(std::make_unique<TestSource>("src", log, 1, 3), "source");
    tgt = Add(std::make_unique<TestTarget>("tgt", log), "first");
    auto* second = Add(std::make_unique<TestTarget>("second", log), "second");
    ASSERT_EQ(graph->Connect(src, tgt), KEL::KEL_OK);
    ASSERT_EQ(graph->Connect(src, second), KEL::KEL_OK);
    second->SetFault({"onPlay", 0, false, KEL::KEL_ERR_ACCESS_DENIED, "cannot open output"});
    const auto result = InitializeAndRun();
    EXPECT_EQ(result.code, KEL::KEL_ERR_ACCESS_DENIED);
    EXPECT_EQ(result.failedFilter, "second");
    EXPECT_EQ(log->Count("tgt.onStop@7"), 1U);
    EXPECT_EQ(log->Count("second.onStop@7"), 0U);
    EXPECT_EQ(log->Count("src.onPlay@4"), 0U);
    EXPECT_EQ(log->Count("src.push 0"), 0U);
}

TEST_F(GraphTest, FailedInitializeDeInitialisesTheFiltersBefore) {
    Build(1, 3);
    tgt->SetFault({"onInitialize", 0, false, KEL::KEL_ERR_INVALID, "bad path"});
    std::string error;
    EXPECT_EQ(graph->Initialize(&error), KEL::KEL_ERR_INVALID);
    EXPECT_NE(error.find("'target'"), std::string::npos) << error;
    EXPECT_NE(error.find("bad path"), std::string::npos) << error;
    EXPECT_EQ(log->Count("src.onDeInitialize@4"), 1U);
    EXPECT_EQ(src->GetFilterState(), KEL::FILTER_STATE_PARAMS_READY);
    EXPECT_EQ(tgt->GetFilterState(), KEL::FILTER_STATE_FAILED);
    EXPECT_EQ(graph->Run().code, KEL::KEL_ERR_GRAPH);
}

TEST_F(GraphTest, ThrowingOnInitializeIsReportedAsFailure) {
    Build(1, 3);
    src->SetFault({"onInitialize", 0, true, 0, "config unreadable"});
    std::string error;
    EXPECT_EQ(graph->Initialize(&error), KEL::KEL_ERR_EXCEPTION);
    EXPECT_NE(error.find("config unreadable"), std::string::npos) << error;
    EXPECT_EQ(src->GetFilterState(), KEL::FILTER_STATE_FAILED);
    EXPECT_EQ(log->Count("tgt.onInitialize@2"), 0U);
}

TEST_F(GraphTest, RequestStopFromAnotherThreadEndsAnEndlessRun) {
    Build(1, std::nullopt);
    KEL::RunOptions options = CountingFrames();
    options.loops = 0;
    std::thread stopper([&] {
        WaitForFrames(5);
        graph->RequestStop();
    });
    const auto result = InitializeAndRun(options);
    stopper.join();
    ASSERT_TRUE(result.Ok()) << result.message;
    EXPECT_TRUE(result.stoppedEarly);
    EXPECT_GE(result.framesDelivered, 5U);
    EXPECT_EQ(log->Count("tgt.onStop@7"), 1U);
}

TEST_F(GraphTest, AddFilterRefusesATakenName) {
    Build(1, 1);
    std::string error;
    EXPECT_EQ(graph->AddFilter(std::make_unique<TestTarget>("dup", log), "target", &error), nullptr);
    EXPECT_NE(error.find("'target'"), std::string::npos) << error;
    EXPECT_EQ(graph->GetFilters().size(), 2U);
}

TEST_F(GraphTest, AddFilterRefusesAFilterWhoseParametersFail) {
    auto filter = std::make_unique<TestTarget>("bad", log);
    filter->SetFault({"onInitializeParams", 0, false, KEL::KEL_ERR_INVALID, "no parameters today"});
    std::string error;
    EXPECT_EQ(graph->AddFilter(std::move(filter), "bad", &error), nullptr);
    EXPECT_NE(error.find("no parameters today"), std::string::npos) << error;
    EXPECT_EQ(graph->FindFilter("bad"), nullptr);
    EXPECT_EQ(log->Count("bad.destroyed"), 1U);
}

TEST_F(GraphTest, ConnectRefusesASecondSourceAndNonSources) {
    Build(1, 1);
    auto* other = Add(std::make_unique<TestSource>("other", log, 1, 1), "other");
    auto* second = Add(std::make_unique<TestTarget>("second", log), "second");
    std::string error;
    EXPECT_EQ(graph->Connect(other, second, &error), KEL::KEL_ERR_GRAPH);
    EXPECT_NE(error.find("one source"), std::string::npos) << error;
    EXPECT_EQ(graph->Connect(tgt, second, &error), KEL::KEL_ERR_INVALID);
    EXPECT_EQ(graph->Connect(src, tgt, &error), KEL::KEL_ERR_GRAPH);
    EXPECT_EQ(graph->Connect(src, nullptr, &error), KEL::KEL_ERR_INVALID);
}

TEST_F(GraphTest, InitializeNeedsASourceAndATarget) {
    Add(std::make_unique<TestSource>("src", log, 1, 1), "source");
    std::string error;
    EXPECT_EQ(graph->Initialize(&error), KEL::KEL_ERR_GRAPH);
    EXPECT_FALSE(error.empty());
}

TEST_F(GraphTest, SingleStreamTargetRefusesMultiStreamSource) {
    src = Add(std::make_unique<TestSource>("src", log, 2, 1), "source");
    tgt = Add(std::make_unique<TestTarget>("tgt", log, false), "single");
    ASSERT_EQ(graph->Connect(src, tgt), KEL::KEL_OK);
    std::string error;
    EXPECT_EQ(graph->Initialize(&error), KEL::KEL_ERR_GRAPH);
    EXPECT_NE(error.find("'single'"), std::string::npos) << error;
    EXPECT_EQ(log->Count("src.onDeInitialize@4"), 1U);
}

TEST_F(GraphTest, DestroyingTheGraphDeInitialisesThenDestroysTargetsFirst) {
    Build(1, 1);
    Initialize();
    graph.reset();
    const std::vector<std::string> expected = {"tgt.onDeInitialize@4", "src.onDeInitialize@4", "tgt.destroyed",
                                               "src.destroyed"};
    EXPECT_EQ(EventsFrom("tgt.onDeInitialize@4"), expected);
}

TEST_F(GraphTest, DestroyingTheGraphWhileItRunsElsewhereStopsTheRunFirst) {
    Build(1, std::nullopt);
    const KEL::RunOptions options = CountingFrames();
    Initialize();
    KEL::RunResult result;
    KEL::Graph* running = graph.get();
    std::thread runner([&] { result = running->Run(options); });
    WaitForFrames(3);
    graph.reset();
    runner.join();
    EXPECT_TRUE(result.Ok()) << result.message;
    EXPECT_TRUE(result.stoppedEarly);
    const long stopped = log->IndexOf("tgt.onStop@7");
    ASSERT_GE(stopped, 0);
    EXPECT_LT(stopped, log->IndexOf("tgt.onDeInitialize@4"));
    EXPECT_LT(log->IndexOf("tgt.onDeInitialize@4"), log->IndexOf("tgt.destroyed"));
}

TEST_F(GraphTest, ListenerRegistryKeepsOrderAndErasesFirstMatchOnly) {
    TestTarget a("a", log);
    TestTarget b("b", log);
    graph->RegisterFrameOrderResetListener(&a);
    graph->RegisterFrameOrderResetListener(&b);
    graph->RegisterFrameOrderResetListener(&a);
    graph->UnregisterFrameOrderResetListener(&a);
    {
        std::lock_guard lock(graph->GetFrameOrderResetListenersLock());
        const auto& listeners = graph->GetFrameOrderResetListeners();
        EXPECT_EQ(std::vector<KEL::IFrameOrderResetListener*>(listeners.begin(), listeners.end()),
                  (std::vector<KEL::IFrameOrderResetListener*>{&b, &a}));
    }
    graph->NotifyFrameOrderReset();
    EXPECT_EQ(log->Events(), (std::vector<std::string>{"b.reset", "a.reset"}));
    graph->UnregisterFrameOrderResetListener(&a);
    graph->UnregisterFrameOrderResetListener(&b);
    graph->UnregisterFrameOrderResetListener(&b);  // absent: nothing happens
}

}  // namespace
