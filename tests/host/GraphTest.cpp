// The graph and the filter base, driven with small source and target filters
// of the test's own. Every hook appends a line to a shared EventLog
// ("src.onPlay@4", "tgt.frame 1:2@5"; the number after "@" is the filter's
// state inside the hook), so a test can assert the exact order in which the
// graph called them, and can wait on the log for an event that happens on
// another thread.

#include <KEL/Graph.h>
#include <KEL/Target.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <numeric>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/TestSupport.h"

namespace {

class EventLog {
public:
    void Add(const std::string& event) {
        std::lock_guard lock(mutex_);
        events_.push_back(event);
        changed_.notify_all();
    }
    std::vector<std::string> Events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }
    std::size_t Count(const std::string& event) const {
        const auto events = Events();
        return static_cast<std::size_t>(std::count(events.begin(), events.end(), event));
    }
    // Blocks until `event` has been logged `times` times.
    void WaitFor(const std::string& event, std::size_t times = 1) const {
        std::unique_lock lock(mutex_);
        changed_.wait(lock,
                      [&] { return std::cmp_greater_equal(std::count(events_.begin(), events_.end(), event), times); });
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<std::string> events_;
};

// Makes a test filter fail in one hook: return `code` through ReportError,
// or throw; with code KEL_OK it asks the graph to stop instead. Per-frame
// hooks fail at `frame` only.
struct HookFault {
    std::string hook;
    std::uint32_t frame = 0;
    bool throws = false;
    KEL::KelErrorCode code = KEL::KEL_ERR_INVALID;
    std::string message = "injected failure";
};

template <typename Base>
class RecordingFilter : public Base {
public:
    template <typename... Args>
    RecordingFilter(std::string tag, std::shared_ptr<EventLog> log, Args&&... args)
        : Base(std::forward<Args>(args)...), tag_(std::move(tag)), log_(std::move(log)) {}
    ~RecordingFilter() override { Record("destroyed"); }

    KelCommon::Guid TypeGuid() const override { return {}; }
    KEL::FilterClassInfo GetFilterClassInfo() const override {
        return {"RecordingFilter", KEL::FILTER_CATEGORY_UNKNOWN};
    }
    KEL::KelErrorCode onInitializeParams(KEL::Filter*) override { return Hook("onInitializeParams"); }
    KEL::KelErrorCode onInitialize(KEL::Filter*) override { return Hook("onInitialize"); }
    KEL::KelErrorCode onDeInitialize() override { return Hook("onDeInitialize"); }
    KEL::KelErrorCode onPlay() override { return Hook("onPlay"); }
    KEL::KelErrorCode onPause() override { return Hook("onPause"); }
    KEL::KelErrorCode onStop() override { return Hook("onStop"); }

    std::optional<HookFault> fault;

protected:
    void Record(const std::string& what) { log_->Add(tag_ + "." + what); }
    KEL::KelErrorCode Hook(const std::string& hook) {
        Record(hook + "@" + std::to_string(this->GetFilterState()));
        return MaybeFail(hook);
    }
    KEL::KelErrorCode MaybeFail(const std::string& hook, std::optional<std::uint32_t> frame = std::nullopt) {
        if (!fault || fault->hook != hook || (frame && *frame != fault->frame)) {
            return KEL::KEL_OK;
        }
        if (fault->throws) {
            throw std::runtime_error(fault->message);
        }
        if (fault->code == KEL::KEL_OK) {
            this->ForceGraphStop();
            return KEL::KEL_OK;
        }
        return this->ReportError(fault->code, fault->message.c_str());
    }

private:
    std::string tag_;
    std::shared_ptr<EventLog> log_;
};

// Pushes one MakeFrameAtom per stream for each frame it does not refuse.
// Without a frame count it has no stream information.
class TestSource : public RecordingFilter<KEL::Source> {
public:
    TestSource(std::string tag, std::shared_ptr<EventLog> log, std::uint32_t numStreams,
               std::optional<std::uint32_t> numFrames)
        : RecordingFilter(std::move(tag), std::move(log)), numStreams_(numStreams), numFrames_(numFrames) {}

    std::function<bool(std::uint32_t frameNr)> refuses = [](std::uint32_t) { return false; };

    std::shared_ptr<KEL::DataTypeStreamInfo> GetStreamInfo() override {
        return numFrames_ ? std::make_shared<KEL::DataTypeStreamInfo>(*numFrames_, 30.0, "test") : nullptr;
    }
    std::uint32_t GetOutputNumStreams() override { return numStreams_; }
    std::vector<std::uint32_t> GetStreamIds() override {
        std::vector<std::uint32_t> ids(numStreams_);
        std::iota(ids.begin(), ids.end(), 0U);
        return ids;
    }
    KEL::KelErrorCode pushDataToOutput(std::uint32_t frameNr) override {
        Record("push " + std::to_string(frameNr));
        for (std::uint32_t s = 0; s < numStreams_; ++s) {
            pushToOutputQueue(kel_test::MakeFrameAtom(static_cast<std::uint16_t>(s), frameNr));
        }
        // A reader that fails to read an atom may queue nothing for it: the
        // queue must drop it rather than hand a null atom to the targets.
        pushToOutputQueue(nullptr);
        const auto code = MaybeFail("pushDataToOutput", frameNr);
        return code != KEL::KEL_OK || !refuses(frameNr) ? code : 1;
    }

private:
    std::uint32_t numStreams_;
    std::optional<std::uint32_t> numFrames_;
};

// Logs every atom ("tag.frame <stream>:<frame>@<state>"), every update
// ("tag.post") and every frame-order reset ("tag.reset").
class TestTarget : public RecordingFilter<KEL::Target>, public KEL::IFrameOrderResetListener {
public:
    TestTarget(std::string tag, std::shared_ptr<EventLog> log, bool acceptsAllStreams = true)
        : RecordingFilter(std::move(tag), std::move(log), acceptsAllStreams) {}

    std::function<bool()> done;

    KEL::KelErrorCode onProcessFrame(std::shared_ptr<KEL::Atom> atom) override {
        Record("frame " + std::to_string(atom->GetStreamId()) + ":" + std::to_string(atom->GetFrameNr()) + "@" +
               std::to_string(GetFilterState()));
        return MaybeFail("onProcessFrame", atom->GetFrameNr());
    }
    KEL::KelErrorCode onPostUpdate() override {
        Record("post");
        return MaybeFail("onPostUpdate");
    }
    void OnFrameOrderReset() override { Record("reset"); }

    // Done when its input is finished and `done` (if set) says so.
    bool IsDone() override { return KEL::Target::IsDone() && (!done || done()); }
};

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
    void Initialize() {
        std::string error;
        ASSERT_EQ(graph->Initialize(&error), KEL::KEL_OK) << error;
    }
    KEL::RunResult InitializeAndRun(const KEL::RunOptions& options = {}) {
        Initialize();
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
    const auto result = InitializeAndRun();
    EXPECT_EQ(Summary(result), "code 0, 2 delivered, 0 skipped") << result.message;
    EXPECT_EQ(tgt->GetInputStreamIds(), (std::vector<std::uint32_t>{0, 1}));
    EXPECT_EQ(tgt->GetFilterState(), KEL::FILTER_STATE_INITIALIZED);
    graph->DeInitialize();
    EXPECT_EQ(src->GetFilterState(), KEL::FILTER_STATE_PARAMS_READY);
    EXPECT_EQ(tgt->GetFilterState(), KEL::FILTER_STATE_PARAMS_READY);
    ASSERT_EQ(graph->Initialize(), KEL::KEL_OK);
    graph.reset();
    EXPECT_EQ(Events({""}),
              "src.onInitializeParams@0, tgt.onInitializeParams@0, src.onInitialize@2, tgt.onInitialize@2, "
              "tgt.onPlay@4, src.onPlay@4, src.push 0, tgt.frame 0:0@5, tgt.frame 1:0@5, tgt.post, src.push 1, "
              "tgt.frame 0:1@5, tgt.frame 1:1@5, tgt.post, src.onStop@7, tgt.onStop@7, tgt.onDeInitialize@4, "
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
                    expect("tgt.frame 0:" + std::to_string(f) + "@5");
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

// A hook of one of the filters fails (through ReportError) or throws, a
// target asks the graph to stop, or the afterFrame callback throws.
// Initialisation goes source first, then the targets in connection order,
// and de-initialises, last first, the filters it initialised. Play goes the
// other way round; a run stops exactly the filters whose onPlay succeeded,
// asks for no further frame and leaves the graph ready for the next run.
// `frame` is the frame the fault hits: a stop or a callback comes once that
// frame is delivered, the other faults before.
TEST_F(GraphTest, AFaultEndsInitialisationOrTheRunNamingTheFilterAndUndoingWhatStarted) {
    const std::vector<std::string> playOrder = {"first", "second", "src"};
    struct Case {
        std::size_t filter;  // in play order
        std::string hook;
        std::uint32_t frame;
    };
    for (const Case& c :
         {Case{2, "onInitialize", 0}, Case{1, "onInitialize", 0}, Case{0, "onPlay", 0}, Case{1, "onPlay", 0},
          Case{2, "onPlay", 0}, Case{2, "pushDataToOutput", 2}, Case{1, "onProcessFrame", 1},
          Case{0, "onPostUpdate", 0}, Case{0, "stop", 1}, Case{0, "afterFrame", 2}}) {
        for (const bool throws : {false, true}) {
            // A source's non-zero return refuses the frame rather than failing the run;
            // a callback can only throw, and a stop cannot.
            if (throws ? c.hook == "stop" : c.hook == "pushDataToOutput" || c.hook == "afterFrame") {
                continue;
            }
            SCOPED_TRACE(playOrder[c.filter] + "." + c.hook + (throws ? " throws" : " fails"));
            Build(1, 5, {"first", "second"});
            auto* second = static_cast<TestTarget*>(graph->FindFilter("second"));
            std::optional<HookFault>* faults[] = {&tgt->fault, &second->fault, &src->fault};
            const bool stop = c.hook == "stop";
            const auto code = stop ? KEL::KEL_OK : throws ? KEL::KEL_ERR_EXCEPTION : KEL::KEL_ERR_DISK_FULL;
            *faults[c.filter] = HookFault{stop ? "onProcessFrame" : c.hook, c.frame, throws, code, "no space"};
            KEL::RunOptions options;
            options.afterFrame = [&](KEL::Graph&, std::uint32_t f, bool) {
                if (c.hook == "afterFrame" && f == c.frame) {
                    throw std::runtime_error("no space");
                }
            };
            const bool atInit = c.hook == "onInitialize";
            const bool afterTheFrame = stop || c.hook == "afterFrame";
            const std::string instance = afterTheFrame ? "" : c.filter == 2 ? "source" : playOrder[c.filter];
            std::string error;
            const auto result =
                atInit ? KEL::RunResult{graph->Initialize(&error), error, ""} : InitializeAndRun(options);
            EXPECT_EQ(Summary(result), Summary({code, "", "", c.frame + (afterTheFrame ? 1U : 0U), 0, stop}));
            EXPECT_EQ(result.failedFilter, atInit ? "" : instance);
            EXPECT_EQ(result.message.empty(), stop) << result.message;
            for (const auto& part : {instance.empty() ? "" : "'" + instance + "'", std::string(stop ? "" : "no space"),
                                     atInit && !throws ? ""
                                     : stop            ? ""
                                                       : c.hook}) {
                EXPECT_NE(result.message.find(part), std::string::npos) << result.message;
            }
            std::string undone;  // initialisation of the filters before the faulty one, last first
            for (std::size_t i = 0; i < playOrder.size(); ++i) {
                const std::size_t k = atInit ? (c.filter + 2 - i) % 3 : i;
                const bool started = atInit ? i < (c.filter + 1) % 3 : c.hook != "onPlay" || i < c.filter;
                undone += atInit && started ? (undone.empty() ? "" : ", ") + playOrder[k] + ".onDeInitialize@4" : "";
                EXPECT_EQ(log->Count(playOrder[k] + ".onStop@7"), started && !atInit ? 1U : 0U) << playOrder[k];
            }
            EXPECT_EQ(Events({"first.onDe", "second.onDe", "src.onDe"}), undone);
            EXPECT_EQ(log->Count("src.push " + std::to_string(c.frame + 1)), 0U);
            if (atInit) {
                for (std::size_t i = 0; i < playOrder.size(); ++i) {
                    EXPECT_EQ(graph->GetFilters()[i]->GetFilterState(),
                              i == (c.filter + 1) % 3 ? KEL::FILTER_STATE_FAILED : KEL::FILTER_STATE_PARAMS_READY);
                }
                EXPECT_EQ(graph->Run().code, KEL::KEL_ERR_GRAPH);
                continue;
            }
            EXPECT_EQ(log->Count("src.push " + std::to_string(c.frame)), c.hook == "onPlay" ? 0U : 1U);
            for (auto* filter : graph->GetFilters()) {
                EXPECT_EQ(filter->GetFilterState(), KEL::FILTER_STATE_INITIALIZED);
            }
            faults[c.filter]->reset();
            EXPECT_TRUE(graph->Run().Ok());
        }
    }
}

// A finish request ends the run after the current frame as a natural end
// does: the targets' input is finished and the graph waits until they are
// done before it stops them. A stop request during that wait cuts it short;
// a target that never says it is done (an asynchronous writer whose disk
// hangs) is stopped at the time-out rather than hanging the run, and the run
// fails naming it: stopping it may have discarded frames it accepted. (That
// a natural end waits for a target's queue is checked by the asynchronous
// `kel copy` runs, which would lose frames otherwise.)
TEST_F(GraphTest, FinishWaitsForTheTargetsUntilTheyAreDoneAStopOrTheTimeout) {
    enum class End { kDone, kStopped, kTimedOut };
    for (const End end : {End::kDone, End::kStopped, End::kTimedOut}) {
        Build(1, 10);
        std::atomic<bool> released{false};
        tgt->done = [&] { return released.load(); };
        KEL::RunOptions options;
        options.doneTimeout = std::chrono::milliseconds(end == End::kTimedOut ? 1 : 0);
        options.afterFrame = [&](KEL::Graph& g, std::uint32_t f, bool) {
            if (f == 3) {
                g.RequestFinish();
            }
        };
        ASSERT_NO_FATAL_FAILURE(Initialize());
        std::thread controller([&] {
            log->WaitFor("tgt.post", 4);
            while (end != End::kTimedOut && !tgt->KEL::Target::IsDone()) {
                std::this_thread::yield();  // the graph has finished the targets' input
            }
            if (end == End::kStopped) {
                graph->RequestStop();
            } else if (end == End::kDone) {
                released = true;
            }
        });
        const auto result = graph->Run(options);
        controller.join();
        EXPECT_EQ(Summary(result), std::string(end == End::kTimedOut ? "code 15" : "code 0") +
                                       ", 4 delivered, 0 skipped" + (end == End::kStopped ? ", stopped early" : ""))
            << result.message;
        EXPECT_EQ(result.finishedEarly, true);
        EXPECT_EQ(result.failedFilter, end == End::kTimedOut ? "target" : "");
        EXPECT_EQ(log->Count("tgt.onStop@7"), 1U);
        EXPECT_EQ(released.load(), end == End::kDone);
    }
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
    ASSERT_NO_FATAL_FAILURE(Initialize());
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
    ASSERT_NO_FATAL_FAILURE(Initialize());
    KEL::RunResult result;
    std::thread runner([&, running = graph.get()] { result = running->Run(); });
    log->WaitFor("tgt.frame 0:3@5");
    graph.reset();
    runner.join();
    EXPECT_TRUE(result.Ok() && result.stoppedEarly) << Summary(result) << ": " << result.message;
    EXPECT_EQ(Events({"tgt.onStop", "tgt.onDe", "tgt.destroyed"}), "tgt.onStop@7, tgt.onDeInitialize@4, tgt.destroyed");
}

}  // namespace
