#pragma once

#include <KEL/Graph.h>
#include <KEL/ReadKEL2File.h>
#include <KEL/SerializeToKel.h>

#include <ostream>
#include <string>
#include <vector>

#include "GraphDescription.h"

namespace KelTool {

struct GraphRunOutcome {
    bool ok = false;
    bool played = false;       // initialisation succeeded and the graph was played
    bool interrupted = false;  // Ctrl-C ended the run (once: as a natural end; twice: stopped at once)
    std::string error;         // what went wrong: initialisation, a filter's hook, a timeline event
    KEL::RunResult result;
    // Status values (flag 4) of every filter as they stood after the last
    // frame played: filters may clear them when they stop (the asynchronous
    // writers reset "Dropped frames count"), so they are read during the run.
    struct StatusValue {
        std::string filter;
        std::string name;
        std::string value;
    };
    std::vector<StatusValue> lastStatus;
    // The same as the targets were stopped: an asynchronous writer's
    // "Buffered frames count" then is what its stop discards.
    std::vector<StatusValue> statusAtStop;
    // Files whose serializer failed during the run (a full disk, a size
    // limit, a failing sync), whichever writer wrote them: the asynchronous
    // targets cannot report write errors to the graph.
    std::vector<KEL::SerializerFailure> writeFailures;
    // What the sources' readers lost to damage during the run (each damaged
    // atom, whose frame the source could then not deliver, and each region
    // without an intact record), and how many more there were than listed.
    std::vector<KEL::ReaderDamage> damage;
    std::uint64_t damageNotListed = 0;
    // Each file a target of the plugin created in the run, and the targets
    // that created none.
    struct WrittenFile {
        std::string target;
        std::string path;
        int streams = 0;
        std::uint64_t atoms = 0;
        std::uint32_t frames = 0;  // playable: the shortest stream's
        std::uint64_t bytes = 0;
        bool readable = false;
    };
    std::vector<WrittenFile> written;
    std::vector<std::string> idleTargets;
    std::size_t eventsFired = 0;
    std::size_t eventsNotFired = 0;  // events whose frame (or pass) the run never reached
};

// What a run may do that it refuses by default.
struct RunPolicy {
    bool acceptDamage = false;  // frames lost to damage do not fail the run
    bool overwrite = false;     // writers may replace existing files
    bool keepGoing = false;     // a failed write does not stop the run
};

// Initialises `graph` (already built from `description`) and plays it on the
// calling thread with the description's run options, applying the timeline
// events before their frames. A failing event stops the run after the
// current frame, and so does the first failed write of any target unless the
// policy says to keep going; every timeline event's filter, parameters and
// buttons are checked before the first frame. Ctrl-C stops the run cleanly (files are closed as at a
// natural end). With `showProgress` a progress bar is drawn on stderr when it
// is a terminal. The graph is left initialised; destroying it de-initialises
// its filters. A run in which any file could not be written is a failed run
// whose error names the files; so is a run whose sources lost frames to
// damage, unless the policy accepts it. Unless the policy allows
// overwriting, a run whose writers would create a file that exists does not
// start, and no serializer of the run replaces a file.
GraphRunOutcome RunGraph(KEL::Graph& graph, const GraphDescription& description, bool showProgress,
                         const RunPolicy& policy = {});

// Frames delivered and skipped, whether the run was stopped early, every
// status value of every filter (such as "Dropped frames count") as it stood
// after the last frame, and each file written with its streams, frames,
// atoms and size.
void PrintRunSummary(std::ostream& out, const GraphRunOutcome& outcome);

// A line per target of the plugin that wrote no file in a run that played.
void PrintWarnings(std::ostream& out, const GraphRunOutcome& outcome);

// One line per damage of the run ("damaged: ..."), naming file, stream,
// frame and offset; with `countOnly` a single line with their number.
void PrintDamage(std::ostream& out, const GraphRunOutcome& outcome, bool countOnly);

}  // namespace KelTool
