#include "GraphRunner.h"

#include <KEL/FilterParams.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <stop_token>
#include <thread>

#include "GraphBuilder.h"
#include "PlannedOutputs.h"
#include "ProgressBar.h"
#include "utils/ParameterNames.h"

namespace KelTool {

namespace {

std::atomic<int> gInterrupts{0};

extern "C" void OnInterrupt(int /*signal*/) { gInterrupts.fetch_add(1); }

// Routes SIGINT to a counter for as long as it lives, and asks the graph to
// end from a thread of its own: the first Ctrl-C ends the run as its natural
// end does (no more frames; the targets write what they hold), the second
// stops it at once. A signal handler may not take the graph's locks, and the
// graph thread may be waiting for its targets, so neither can do it.
class InterruptGuard {
public:
    explicit InterruptGuard(KEL::Graph& graph) {
        gInterrupts.store(0);
        struct sigaction action {};
        action.sa_handler = &OnInterrupt;
        sigemptyset(&action.sa_mask);
        sigaction(SIGINT, &action, &previous_);
        watcher_ = std::jthread([&graph](const std::stop_token& stop) {
            int handled = 0;
            while (!stop.stop_requested()) {
                const int seen = gInterrupts.load();
                if (seen > handled) {
                    handled = seen;
                    if (seen == 1) {
                        graph.RequestFinish();
                    } else {
                        graph.RequestStop();
                    }
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        });
    }
    ~InterruptGuard() {
        watcher_.request_stop();
        watcher_.join();
        sigaction(SIGINT, &previous_, nullptr);
    }
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;
    int Count() const { return gInterrupts.load(); }

private:
    struct sigaction previous_ {};
    std::jthread watcher_;
};

// Sets the serializers' settings for as long as it lives.
class SerializerSettingsGuard {
public:
    explicit SerializerSettingsGuard(const KEL::SerializerSettings& settings)
        : previous_(KEL::GetSerializerSettings()) {
        KEL::SetSerializerSettings(settings);
    }
    ~SerializerSettingsGuard() { KEL::SetSerializerSettings(previous_); }
    SerializerSettingsGuard(const SerializerSettingsGuard&) = delete;
    SerializerSettingsGuard& operator=(const SerializerSettingsGuard&) = delete;

private:
    KEL::SerializerSettings previous_;
};

bool PressButton(KEL::Filter& filter, const std::string& name, std::string* error) {
    auto param = std::dynamic_pointer_cast<KEL::FilterParamCallback>(filter.FindParam(name));
    if (!param) {
        *error = "filter '" + filter.GetInstanceName() + "' has no button '" + name + "'";
        return false;
    }
    param->Press();
    return true;
}

bool ApplyEvent(KEL::Graph& graph, const TimelineEvent& event, std::string* error) {
    if (!event.filter.empty()) {
        KEL::Filter* filter = graph.FindFilter(event.filter);
        if (filter == nullptr) {
            *error = "no filter named '" + event.filter + "'";
            return false;
        }
        for (const auto& [name, value] : event.set) {
            if (!SetFilterParam(*filter, name, value, error)) {
                return false;
            }
        }
        for (const auto& name : event.press) {
            if (!PressButton(*filter, name, error)) {
                return false;
            }
        }
    }
    if (event.stop) {
        graph.RequestStop();
    }
    return true;
}

// Checks that every event of the timeline names a filter of the graph and,
// of that filter, parameters and buttons that exist.
bool CheckTimeline(const KEL::Graph& graph, const std::vector<TimelineEvent>& timeline, std::string* error) {
    for (const TimelineEvent& event : timeline) {
        if (event.filter.empty()) {
            continue;
        }
        const std::string where = "timeline event at frame " + std::to_string(event.frame) + ": ";
        const KEL::Filter* filter = graph.FindFilter(event.filter);
        if (filter == nullptr) {
            *error = where + "no filter named '" + event.filter + "'";
            return false;
        }
        for (const auto& [name, value] : event.set) {
            if (filter->FindParam(name) == nullptr) {
                *error = where + "filter '" + event.filter + "' has no parameter '" + name + "'";
                return false;
            }
        }
        for (const auto& name : event.press) {
            if (!std::dynamic_pointer_cast<KEL::FilterParamCallback>(filter->FindParam(name))) {
                *error = where + "filter '" + event.filter + "' has no button '" + name + "'";
                return false;
            }
        }
    }
    return true;
}

// Adds the serializer failures of the process since the last call to
// `failures`, one entry per file. True when there were any.
bool CollectWriteFailures(std::vector<KEL::SerializerFailure>* failures) {
    bool any = false;
    for (KEL::SerializerFailure& f : KEL::TakeSerializerFailures()) {
        any = true;
        const auto same = std::find_if(failures->begin(), failures->end(),
                                       [&](const KEL::SerializerFailure& known) { return known.path == f.path; });
        if (same != failures->end()) {
            same->count += f.count;
        } else {
            failures->push_back(std::move(f));
        }
    }
    return any;
}

// The planned files that the run created (their identity changed), with
// what they hold, and the targets that created none.
void ListWrittenFiles(const std::vector<PlannedOutput>& planned, const std::vector<FileIdentity>& before,
                      GraphRunOutcome* outcome) {
    std::vector<std::string> targets;
    for (std::size_t i = 0; i < planned.size(); ++i) {
        const PlannedOutput& output = planned[i];
        if (std::find(targets.begin(), targets.end(), output.target) == targets.end()) {
            targets.push_back(output.target);
        }
        const FileIdentity now = IdentifyPath(output.path);
        if (now == FileIdentity{} || now == before[i]) {
            continue;
        }
        GraphRunOutcome::WrittenFile file{output.target, output.path};
        KEL::ReadKEL2File reader(output.path.c_str(), {.verifyChecksums = false, .logDamage = false});
        if (reader.Initialize() == KEL::KEL_OK) {
            file.readable = true;
            file.streams = reader.GetNumStreams();
            file.atoms = reader.GetNumAtoms();
            file.bytes = reader.GetFileSize();
            file.frames = reader.GetNumPlayableFrames();
        }
        outcome->written.push_back(std::move(file));
    }
    for (const std::string& target : targets) {
        if (std::none_of(outcome->written.begin(), outcome->written.end(),
                         [&](const GraphRunOutcome::WrittenFile& f) { return f.target == target; })) {
            outcome->idleTargets.push_back(target);
        }
    }
}

void ReadStatusValues(const KEL::Graph& graph, std::vector<GraphRunOutcome::StatusValue>* values) {
    values->clear();
    for (const KEL::Filter* filter : graph.GetFilters()) {
        for (const auto& param : filter->GetParams()) {
            if ((param->GetFlags() & KEL::PARAM_FLAG_STATUS) != 0) {
                values->push_back({filter->GetInstanceName(), param->GetName(), param->GetValueAsString()});
            }
        }
    }
}

}  // namespace

GraphRunOutcome RunGraph(KEL::Graph& graph, const GraphDescription& description, bool showProgress,
                         const RunPolicy& policy) {
    GraphRunOutcome outcome;
    KEL::SerializerSettings serializers = KEL::GetSerializerSettings();
    serializers.allowReplace = policy.overwrite;
    serializers.compression = description.compression.value_or(serializers.compression);
    const SerializerSettingsGuard settings(serializers);
    // Failures and damage of earlier work are not this run's.
    (void)KEL::TakeSerializerFailures();
    (void)KEL::TakeReaderDamage();
    std::string why;
    if (graph.Initialize(&why) != KEL::KEL_OK) {
        outcome.error = "initialisation failed: " + why;
        outcome.damage = KEL::TakeReaderDamage(&outcome.damageNotListed);
        return outcome;
    }
    const std::vector<PlannedOutput> planned = PlannedOutputs(graph, description);
    std::vector<FileIdentity> before;
    for (const PlannedOutput& output : planned) {
        before.push_back(IdentifyPath(output.path));
    }
    if (!policy.overwrite) {
        if (const auto existing = ExistingFiles(planned); !existing.empty()) {
            outcome.error = DescribeExisting(existing);
            return outcome;
        }
    }
    if (!CheckTimeline(graph, description.timeline, &why)) {
        outcome.error = why;
        return outcome;
    }

    std::vector<bool> fired(description.timeline.size(), false);
    std::uint32_t pass = 0;
    bool seenFrame = false;
    std::uint32_t lastFrame = 0;
    std::string eventError;
    ProgressBar progress(stderr, showProgress);
    InterruptGuard interruptGuard(graph);

    KEL::RunOptions options;
    options.startFrame = description.startFrame;
    options.frameCount = description.frameCount;
    options.loops = description.loops;
    options.maxConsecutiveSkips = description.maxConsecutiveSkips;
    options.doneTimeout = description.doneTimeout;
    options.beforeFrame = [&](KEL::Graph& g, std::uint32_t frameNr) {
        if (seenFrame && frameNr <= lastFrame) {
            ++pass;
        }
        seenFrame = true;
        lastFrame = frameNr;
        for (std::size_t i = 0; i < description.timeline.size() && eventError.empty(); ++i) {
            const TimelineEvent& event = description.timeline[i];
            if (event.frame != frameNr || (event.pass && *event.pass != pass)) {
                continue;
            }
            std::string error;
            if (!ApplyEvent(g, event, &error)) {
                eventError = "timeline event at frame " + std::to_string(frameNr) + ": " + error;
                g.RequestStop();
                return;
            }
            fired[i] = true;
        }
    };
    options.afterFrame = [&](KEL::Graph& g, std::uint32_t /*frameNr*/, bool /*delivered*/) {
        ReadStatusValues(g, &outcome.lastStatus);
        if (CollectWriteFailures(&outcome.writeFailures) && !policy.keepGoing) {
            g.RequestStop();
        }
        const std::uint64_t perPass = g.FramesPerPass();
        const std::uint32_t current = g.CurrentFrame();
        const std::uint64_t inPass = current >= description.startFrame ? current - description.startFrame + 1 : 0;
        const std::uint64_t done = static_cast<std::uint64_t>(pass) * perPass + inPass;
        const std::uint64_t total = description.loops == 0 ? 0 : perPass * description.loops;
        progress.Update(done, total, description.loops > 1 ? "pass " + std::to_string(pass + 1) : std::string());
    };
    options.beforeStop = [&](KEL::Graph& g) { ReadStatusValues(g, &outcome.statusAtStop); };

    outcome.result = graph.Run(options);
    outcome.played = true;
    outcome.interrupted = interruptGuard.Count() > 0;
    progress.Finish();

    for (bool f : fired) {
        (f ? outcome.eventsFired : outcome.eventsNotFired) += 1;
    }
    CollectWriteFailures(&outcome.writeFailures);
    ListWrittenFiles(planned, before, &outcome);
    outcome.damage = KEL::TakeReaderDamage(&outcome.damageNotListed);
    if (!eventError.empty()) {
        outcome.error = eventError;
    } else if (!outcome.result.Ok()) {
        outcome.error = outcome.result.message.empty()
                            ? "the run failed (code " + std::to_string(outcome.result.code) + ")"
                            : outcome.result.message;
    }
    for (const auto& f : outcome.writeFailures) {
        outcome.error += (outcome.error.empty() ? "" : "; ") + std::string("writing '") + f.path +
                         "' failed: " + f.reason +
                         (f.count > 1 ? " (" + std::to_string(f.count) + " failed writes)" : "");
    }
    if (!outcome.damage.empty() && !policy.acceptDamage) {
        const std::uint64_t lost = outcome.damage.size() + outcome.damageNotListed;
        outcome.error += (outcome.error.empty() ? "" : "; ") + std::to_string(lost) +
                         " damaged atom(s) or region(s) could not be read, and the frames holding them are "
                         "missing from the output (--skip-damaged accepts that)";
    }
    outcome.ok = outcome.error.empty();
    return outcome;
}

void PrintWarnings(std::ostream& out, const GraphRunOutcome& outcome) {
    if (!outcome.played) {
        return;
    }
    for (const auto& target : outcome.idleTargets) {
        out << "kel: warning: target '" << target << "' wrote no file\n";
    }
}

void PrintDamage(std::ostream& out, const GraphRunOutcome& outcome, bool countOnly) {
    if (outcome.damage.empty()) {
        return;
    }
    const std::uint64_t lost = outcome.damage.size() + outcome.damageNotListed;
    if (countOnly) {
        out << "Skipped as damaged: " << lost << " atom(s) or region(s)\n";
        return;
    }
    for (const KEL::ReaderDamage& d : outcome.damage) {
        out << "damaged: '" << d.path << "' ";
        if (d.atomKnown) {
            out << "stream " << d.streamId << " frame " << d.frameNr << " at offset " << d.offset;
        } else {
            out << d.length << " byte(s) at offset " << d.offset << " (atoms unknown)";
        }
        out << ": " << d.reason << "\n";
    }
    if (outcome.damageNotListed > 0) {
        out << "damaged: " << outcome.damageNotListed << " more not listed\n";
    }
}

void PrintRunSummary(std::ostream& out, const GraphRunOutcome& outcome) {
    if (!outcome.played) {
        return;
    }
    const auto& r = outcome.result;
    out << "Frames delivered: " << r.framesDelivered << "\n";
    out << "Frames skipped:   " << r.framesSkipped << "\n";
    if (r.stoppedEarly) {
        out << "Stopped early:    yes\n";
    }
    if (outcome.eventsFired + outcome.eventsNotFired > 0) {
        out << "Timeline events:  " << outcome.eventsFired << " fired";
        if (outcome.eventsNotFired > 0) {
            out << ", " << outcome.eventsNotFired << " never reached";
        }
        out << "\n";
    }
    for (const auto& status : outcome.lastStatus) {
        out << status.filter << ": " << status.name << " = " << status.value << "\n";
    }
    for (const auto& status : outcome.statusAtStop) {
        if (status.name == Kel2File::kParamBufferedFrames) {
            out << status.filter << ": " << status.value << " queued frame(s) discarded at stop\n";
        }
    }
    for (const auto& file : outcome.written) {
        out << "Wrote " << file.path;
        if (file.readable) {
            out << ": " << file.streams << " stream(s), " << file.frames << " frame(s), " << file.atoms << " atom(s), "
                << file.bytes << " bytes";
        } else {
            out << ": cannot be opened";
        }
        out << "\n";
    }
}

}  // namespace KelTool
