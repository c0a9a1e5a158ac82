#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

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

    // A fresh graph with source "src" (instance "source") and, connected to
    // it, a target per tag (instance "target" for "tgt"); `tgt` is the first.
    void Build(std::uint32_t numStreams, std::optional<std::uint32_t> numFrames,
               const std::vector<std::string>& targets = {"tgt"}) {
        graph.reset();
        log = std::make_shared<EventLog>();
        graph = std::make_unique<KEL::Graph>();
        src = Add<TestSource>("source", "src", numStreams, numFrames);
        for (const auto& tag : targets) {
            auto* target = Add<TestTarget>(tag == "tgt" ? "target" : tag, tag);
            tgt = tag == targets.front() ? target : tgt;
            ASSERT_EQ(graph->Connect(src, target), KEL::KEL_OK);
        }
    }
    template <typename F, typename... Args>
    F* Add(const std::string& name, const std::string& tag, Args&&... args) {
        std::string error;
        auto* added = graph->AddFilter(std::make_unique<F>(tag, log, std::forward<Args>(args)...), name, &error);
        EXPECT_NE(added, nullptr) << error;
        return static_cast<F*>(added);
    }
    KEL::RunResult InitializeAndRun(const KEL::RunOptions& options = {}) {
        std::string error;
        EXPECT_EQ(graph->Initialize(&error), KEL::KEL_OK) << error;
        return graph->Run(options);
    }
    static std::string Summary(const KEL::RunResult& r) {
        return "code " + std::to_string(r.code) + ", " + std::to_string(r.framesDelivered) + " delivered, " +
               std::to_string(r.framesSkipped) + " skipped" + (r.stoppedEarly ? ", stopped early" : "");
    }
    // The logged events that start with one of `prefixes`, from the first
    // `from` on, as one line: "src.push 0, tgt.frame 0:0, ...".
    std::string Events(const std::vector<std::string>& prefixes, const std::string& from = "") const {
        std::string line;
        bool started = from.empty();
        for (const auto& e : log->Events()) {
            started = started || e == from;
            if (started && std::any_of(prefixes.begin(), prefixes.end(), [&](auto& p) { return e.rfind(p, 0) == 0; })) {
                line += (line.empty() ? "" : ", ") + e;
            }
        }
        return line;
    }
};

// Initialisation, a run and de-initialisation, then destruction: targets
// first, so that they may still refer to their source.
TEST_F(GraphTest, HooksRunInLifeCycleOrderInTheirStates) {
    Build(2, 2);
    std::vector<int> statesSeen;
    tgt->onFrame = [&](TestTarget& t, std::uint32_t) { statesSeen.push_back(t.GetFilterState()); };
    const auto result = InitializeAndRun();
    EXPECT_EQ(Summary(result), "code 0, 2 delivered, 0 skipped") << result.message;
    EXPECT_EQ(tgt->GetInputStreamIds(), (std::vector<std::uint32_t>{0, 1}));
    EXPECT_EQ(statesSeen, std::vector<int>(4, KEL::FILTER_STATE_PLAYING));
    EXPECT_EQ(tgt->GetFilterState(), KEL::FILTER_STATE_INITIALIZED);
    graph->DeInitialize();
    EXPECT_EQ(src->GetFilterState(), KEL::FILTER_STATE_PARAMS_READY);
    EXPECT_EQ(tgt->GetFilterState(), KEL::FILTER_STATE_PARAMS_READY);
    ASSERT_EQ(graph->Initialize(), KEL::KEL_OK);
    graph.reset();
    EXPECT_EQ(Events({""}),
              "src.onInitializeParams@0, tgt.onInitializeParams@0, src.onInitialize@2, tgt.onInitialize@2, "
              "tgt.onPlay@4, src.onPlay@4, src.push 0, tgt.frame 0:0, tgt.frame 1:0, tgt.post, src.push 1, "
              "tgt.frame 0:1, tgt.frame 1:1, tgt.post, src.onStop@7, tgt.onStop@7, tgt.onDeInitialize@4, "
              "src.onDeInitialize@4, src.onInitialize@2, tgt.onInitialize@2, tgt.onDeInitialize@4, "
              "src.onDeInitialize@4, tgt.destroyed, src.destroyed");
}

// Random frame counts, start frames, refusals, skip limits and loop counts,
// checked against a plain model of which frames a run asks for and delivers.
TEST_F(GraphTest, GeneratedRunsDeliverTheFramesTheOptionsSelect) {
    std::mt19937 rng(7321);
    auto pick = [&](std::uint32_t lo, std::uint32_t hi) { return std::uniform_int_distribution(lo, hi)(rng); };
    for (int round = 0; round < 300; ++round) {
        const std::optional<std::uint32_t> numFrames = pick(0, 3) == 0 ? std::nullopt : std::optional(pick(0, 8));
        Build(1, numFrames);
        graph->RegisterFrameOrderResetListener(tgt);
        KEL::RunOptions options;
        options.startFrame = pick(0, 4);
        options.frameCount = pick(0, 2) == 0 ? std::optional(pick(0, 6)) : std::nullopt;
        options.maxConsecutiveSkips = pick(1, 3);
        options.loops = pick(1, 3);
        const std::optional<std::uint64_t> end =
            options.frameCount ? std::optional(options.startFrame + *options.frameCount) : numFrames;
        // A source without a frame count ends by refusing; an endless loop
        // over passes that yield nothing must end too.
        std::uint32_t refuseFrom = !end || pick(0, 1) == 0 ? pick(0, 10) : UINT32_MAX;
        if (pick(0, 4) == 0) {
            refuseFrom = 0;
            options.loops = 0;
        }
        const std::uint32_t refusedBits = pick(0, 0x3FFF) & pick(0, 0x3FFF);
        src->refuses = [=](std::uint32_t f) { return f >= refuseFrom || (f < 14 && (refusedBits >> f & 1) != 0); };
        SCOPED_TRACE("round " + std::to_string(round));

        std::string expectedEvents;
        auto expect = [&](const std::string& e) { expectedEvents += (expectedEvents.empty() ? "" : ", ") + e; };
        std::vector<std::pair<std::uint32_t, bool>> expectedAsked;
        std::uint64_t delivered = 0;
        for (std::uint32_t pass = 0; options.loops == 0 || pass < options.loops; ++pass) {
            if (pass > 0) {
                expect("tgt.reset");
            }
            const std::uint64_t deliveredBefore = delivered;
            for (std::uint32_t f = options.startFrame, skips = 0; !end || f < *end; ++f) {
                const bool ok = !src->refuses(f);
                expectedAsked.emplace_back(f, ok);
                skips = ok ? 0 : skips + 1;
                if (ok) {
                    expect("tgt.frame 0:" + std::to_string(f));
                    ++delivered;
                } else if (!end && skips >= options.maxConsecutiveSkips) {
                    break;
                }
            }
            if (options.loops == 0 && delivered == deliveredBefore) {
                break;
            }
        }
        std::vector<std::pair<std::uint32_t, bool>> asked;
        options.afterFrame = [&](KEL::Graph&, std::uint32_t f, bool ok) { asked.emplace_back(f, ok); };
        const auto result = InitializeAndRun(options);
        EXPECT_EQ(Summary(result), Summary({0, "", "", delivered, expectedAsked.size() - delivered})) << result.message;
        EXPECT_EQ(Events({"tgt.reset", "tgt.frame"}), expectedEvents);
        EXPECT_EQ(asked, expectedAsked);
        EXPECT_EQ(log->Count("tgt.post"), delivered);
        EXPECT_EQ(graph->FramesPerPass(), end && *end > options.startFrame ? *end - options.startFrame : 0);
    }
}

// Play order is the targets in connection order, then the source. A failure
// stops exactly the filters whose onPlay succeeded and asks for no further
// frame; `frame` is the frame the fault hits, and so the frames delivered.
TEST_F(GraphTest, FailingOrThrowingHookEndsTheRunNamingTheFilterAndStopsWhatStarted) {
    const std::vector<std::string> playOrder = {"first", "second", "src"};
    struct Case {
        std::size_t filter;  // in play order
        std::string hook;
        std::uint32_t frame;
    };
    for (const Case& c : {Case{0, "onPlay", 0}, Case{1, "onPlay", 0}, Case{2, "onPlay", 0},
                          Case{2, "pushDataToOutput", 2}, Case{1, "onProcessFrame", 1}, Case{0, "onPostUpdate", 0}}) {
        for (const bool throws : {false, true}) {
            if (c.hook == "pushDataToOutput" && !throws) {
                continue;  // a source's non-zero return refuses the frame; it does not fail the run
            }
            SCOPED_TRACE(playOrder[c.filter] + "." + c.hook + (throws ? " throws" : " fails"));
            Build(1, 5, {"first", "second"});
            auto* second = static_cast<TestTarget*>(graph->FindFilter("second"));
            std::optional<HookFault>* faults[] = {&tgt->fault, &second->fault, &src->fault};
            *faults[c.filter] = HookFault{c.hook, c.frame, throws, KEL::KEL_ERR_DISK_FULL, "no space for " + c.hook};
            const auto result = InitializeAndRun();
            const std::string instance = c.filter == 2 ? "source" : playOrder[c.filter];
            EXPECT_EQ(Summary(result),
                      Summary({throws ? KEL::KEL_ERR_EXCEPTION : KEL::KEL_ERR_DISK_FULL, "", "", c.frame}));
            EXPECT_EQ(result.failedFilter, instance);
            for (const auto& part : {"'" + instance + "'", c.hook, "no space for " + c.hook}) {
                EXPECT_NE(result.message.find(part), std::string::npos) << result.message;
            }
            const bool atPlay = c.hook == "onPlay";
            for (std::size_t i = 0; i < playOrder.size(); ++i) {
                EXPECT_EQ(log->Count(playOrder[i] + ".onStop@7"), !atPlay || i < c.filter ? 1U : 0U) << i;
            }
            EXPECT_EQ(log->Count("src.push " + std::to_string(atPlay ? 0 : c.frame)), atPlay ? 0U : 1U);
            EXPECT_EQ(log->Count("src.push " + std::to_string(c.frame + 1)), 0U);
            for (auto* filter : graph->GetFilters()) {
                EXPECT_EQ(filter->GetFilterState(), KEL::FILTER_STATE_INITIALIZED);
            }
            // A failed run leaves the graph ready for the next one.
            faults[c.filter]->reset();
            EXPECT_TRUE(graph->Run().Ok());
        }
    }
}

// Initialisation runs the source first, then the targets.
TEST_F(GraphTest, FailedInitializeLeavesTheFilterFailedAndDeInitialisesThoseBefore) {
    for (const bool sourceFails : {true, false}) {
        for (const bool throws : {false, true}) {
            SCOPED_TRACE(std::string(sourceFails ? "source" : "target") + (throws ? " throws" : " fails"));
            Build(1, 3);
            (sourceFails ? src->fault : tgt->fault) = HookFault{"onInitialize", 0, throws, KEL::KEL_ERR_IO, "bad path"};
            std::string error;
            EXPECT_EQ(graph->Initialize(&error), throws ? KEL::KEL_ERR_EXCEPTION : KEL::KEL_ERR_IO);
            EXPECT_NE(error.find(sourceFails ? "'source'" : "'target'"), std::string::npos) << error;
            EXPECT_NE(error.find("bad path"), std::string::npos) << error;
            EXPECT_EQ(src->GetFilterState(), sourceFails ? KEL::FILTER_STATE_FAILED : KEL::FILTER_STATE_PARAMS_READY);
            EXPECT_EQ(tgt->GetFilterState(), sourceFails ? KEL::FILTER_STATE_PARAMS_READY : KEL::FILTER_STATE_FAILED);
            EXPECT_EQ(Events({"src.onDeInitialize", "tgt.onInitialize@"}),
                      sourceFails ? "" : "tgt.onInitialize@2, src.onDeInitialize@4");
            EXPECT_EQ(graph->Run().code, KEL::KEL_ERR_GRAPH);
        }
    }
}

// A target's ForceGraphStop and a throwing callback both end the run after
// the frame under way, stopping the filters.
TEST_F(GraphTest, ForceGraphStopOrAThrowingCallbackEndsTheRunAfterTheFrame) {
    Build(1, 10);
    tgt->onFrame = [](TestTarget& t, std::uint32_t f) {
        if (f == 1) {
            t.ForceGraphStop();
        }
    };
    const auto result = InitializeAndRun();
    EXPECT_EQ(Summary(result), "code 0, 2 delivered, 0 skipped, stopped early") << result.message;
    tgt->onFrame = nullptr;
    KEL::RunOptions options;
    options.afterFrame = [](KEL::Graph&, std::uint32_t f, bool) {
        if (f == 2) {
            throw std::runtime_error("script error");
        }
    };
    const auto thrown = graph->Run(options);
    EXPECT_EQ(Summary(thrown), "code " + std::to_string(KEL::KEL_ERR_EXCEPTION) + ", 3 delivered, 0 skipped");
    EXPECT_NE(thrown.message.find("script error"), std::string::npos) << thrown.message;
    EXPECT_EQ(log->Count("src.push 3"), 0U);
    EXPECT_EQ(log->Count("tgt.onStop@7"), 2U);
}

TEST_F(GraphTest, NaturalEndWaitsUntilTargetIsDoneOrTheTimeoutPasses) {
    Build(1, 2);
    std::atomic<bool> marked = false;
    tgt->done = [&, asked = false]() mutable {
        if (!std::exchange(asked, true)) {
            log->Add("tgt.asked");
        }
        return marked.load();
    };
    std::thread finisher([&] {
        log->WaitFor("tgt.asked");
        log->Add("tgt.marked");
        marked = true;
    });
    auto result = InitializeAndRun();
    finisher.join();
    EXPECT_EQ(Summary(result), "code 0, 2 delivered, 0 skipped") << result.message;
    // Asked only once its input finished, and stopped only once done.
    EXPECT_EQ(Events({"tgt.post", "tgt.asked", "tgt.marked", "tgt.onStop"}),
              "tgt.post, tgt.post, tgt.asked, tgt.marked, tgt.onStop@7");

    tgt->done = [] { return false; };
    KEL::RunOptions options;
    options.doneTimeout = std::chrono::milliseconds(1);
    result = graph->Run(options);
    EXPECT_TRUE(result.Ok()) << result.message;
    EXPECT_EQ(log->Count("tgt.onStop@7"), 2U);
}

// Pausing at frame 1 and resuming, then pausing at frame 3 and stopping.
TEST_F(GraphTest, PauseResumeAndStopWhilePaused) {
    Build(1, 6);
    KEL::RunOptions options;
    options.beforeFrame = [&](KEL::Graph& g, std::uint32_t f) {
        if (f == 1 || f == 3) {
            g.Pause();
        }
    };
    std::string error;
    ASSERT_EQ(graph->Initialize(&error), KEL::KEL_OK) << error;
    std::thread controller([&] {
        log->WaitFor("src.onPause@5");
        graph->Resume();
        log->WaitFor("src.onPause@5", 2);
        graph->RequestStop();
    });
    const auto result = graph->Run(options);
    controller.join();
    EXPECT_EQ(Summary(result), "code 0, 4 delivered, 0 skipped, stopped early") << result.message;
    // A pause takes effect after the frame that asked for it; resuming replays
    // onPlay in the paused state; a stop while paused does not resume.
    EXPECT_EQ(Events({"tgt.on", "src.on", "src.push"}, "tgt.onPause@5"),
              "tgt.onPause@5, src.onPause@5, tgt.onPlay@6, src.onPlay@6, src.push 2, src.push 3, "
              "tgt.onPause@5, src.onPause@5, src.onStop@7, tgt.onStop@7");
    EXPECT_EQ(tgt->GetFilterState(), KEL::FILTER_STATE_INITIALIZED);
}

// Listeners hear of a reset in registration order; unregistering erases the
// first registration only.
TEST_F(GraphTest, SeekResetsFrameOrderForTheRegisteredListeners) {
    Build(1, 4, {"tgt", "quiet"});
    auto* quiet = static_cast<TestTarget*>(graph->FindFilter("quiet"));
    for (auto* listener : {tgt, quiet, tgt}) {
        graph->RegisterFrameOrderResetListener(listener);
    }
    graph->UnregisterFrameOrderResetListener(tgt);
    KEL::RunOptions options;
    options.afterFrame = [&, seeked = false](KEL::Graph& g, std::uint32_t f, bool) mutable {
        if (f == 2 && !std::exchange(seeked, true)) {
            g.Seek(0);
        }
    };
    const auto result = InitializeAndRun(options);
    EXPECT_EQ(Summary(result), "code 0, 7 delivered, 0 skipped") << result.message;
    // The reset comes between the frame that asked for the seek and the frame sought.
    EXPECT_EQ(Events({"src.push", "tgt.reset", "quiet.reset"}),
              "src.push 0, src.push 1, src.push 2, quiet.reset, tgt.reset, src.push 0, src.push 1, src.push 2, "
              "src.push 3");
    graph->UnregisterFrameOrderResetListener(quiet);
    graph->UnregisterFrameOrderResetListener(quiet);  // absent: nothing happens
    graph->NotifyFrameOrderReset();
    EXPECT_EQ(Events({"tgt.reset", "quiet.reset"}), "quiet.reset, tgt.reset, tgt.reset");
}

// One source feeding targets that take its streams, under names of their own.
TEST_F(GraphTest, SetUpsTheGraphCannotRunAreRefused) {
    auto* lone = Add<TestSource>("lone", "lone", 2, 1);
    auto* single = Add<TestTarget>("single", "single", false);
    std::string error;
    EXPECT_EQ(graph->Initialize(&error), KEL::KEL_ERR_GRAPH);  // nothing connected
    EXPECT_EQ(graph->Connect(single, lone, &error), KEL::KEL_ERR_INVALID);
    EXPECT_EQ(graph->Connect(lone, nullptr, &error), KEL::KEL_ERR_INVALID);
    ASSERT_EQ(graph->Connect(lone, single), KEL::KEL_OK);
    EXPECT_EQ(graph->Connect(lone, single, &error), KEL::KEL_ERR_GRAPH);
    EXPECT_EQ(graph->Connect(Add<TestSource>("other", "other", 1, 1), Add<TestTarget>("t", "t"), &error),
              KEL::KEL_ERR_GRAPH);
    EXPECT_NE(error.find("one source"), std::string::npos) << error;
    EXPECT_EQ(graph->AddFilter(std::make_unique<TestTarget>("dup", log), "single", &error), nullptr);
    EXPECT_NE(error.find("'single'"), std::string::npos) << error;
    auto bad = std::make_unique<TestTarget>("bad", log);
    bad->fault = HookFault{"onInitializeParams", 0, false, KEL::KEL_ERR_INVALID, "no parameters today"};
    EXPECT_EQ(graph->AddFilter(std::move(bad), "bad", &error), nullptr);
    EXPECT_NE(error.find("no parameters today"), std::string::npos) << error;
    EXPECT_EQ(graph->GetFilters().size(), 4U);
    // A single-stream target behind a two-stream source.
    EXPECT_EQ(graph->Initialize(&error), KEL::KEL_ERR_GRAPH);
    EXPECT_NE(error.find("'single'"), std::string::npos) << error;
    EXPECT_EQ(Events({"dup.", "bad.", "lone.onDe"}),
              "dup.destroyed, bad.onInitializeParams@0, bad.destroyed, lone.onDeInitialize@4");
}

TEST_F(GraphTest, DestroyingTheGraphWhileItRunsElsewhereStopsTheRunFirst) {
    Build(1, std::nullopt);  // never refuses: plays until stopped
    std::string error;
    ASSERT_EQ(graph->Initialize(&error), KEL::KEL_OK) << error;
    KEL::RunResult result;
    std::thread runner([&, running = graph.get()] { result = running->Run(); });
    log->WaitFor("tgt.frame 0:3");
    graph.reset();
    runner.join();
    EXPECT_TRUE(result.Ok() && result.stoppedEarly) << Summary(result) << ": " << result.message;
    EXPECT_EQ(Events({"tgt.onStop", "tgt.onDe", "tgt.destroyed"}), "tgt.onStop@7, tgt.onDeInitialize@4, tgt.destroyed");
}

}  // namespace
