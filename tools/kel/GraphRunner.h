#pragma once

#include <KEL/Graph.h>
#include <KEL/SerializeToKel.h>

#include <ostream>
#include <string>
#include <vector>

#include "GraphDescription.h"

namespace KelTool {

struct GraphRunOutcome {
    bool ok = false;
    bool played = false;       // initialisation succeeded and the graph was played
    bool interrupted = false;  // Ctrl-C ended the run (cleanly)
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
    // Files whose serializer failed during the run (a full disk, a size
    // limit, a failing sync), whichever writer wrote them: the asynchronous
    // targets cannot report write errors to the graph.
    std::vector<KEL::SerializerFailure> writeFailures;
    std::size_t eventsFired = 0;
    std::size_t eventsNotFired = 0;  // events whose frame (or pass) the run never reached
};

// Initialises `graph` (already built from `description`) and plays it on the
// calling thread with the description's run options, applying the timeline
// events before their frames. A failing event stops the run after the
// current frame. Ctrl-C stops the run cleanly (files are closed as at a
// natural end). With `showProgress` a progress bar is drawn on stderr when it
// is a terminal. The graph is left initialised; destroying it de-initialises
// its filters. A run in which any file could not be written is a failed run
// whose error names the files.
GraphRunOutcome RunGraph(KEL::Graph& graph, const GraphDescription& description, bool showProgress);

// Frames delivered and skipped, whether the run was stopped early, and every
// status value of every filter (such as "Dropped frames count") as it stood
// after the last frame.
void PrintRunSummary(std::ostream& out, const GraphRunOutcome& outcome);

}  // namespace KelTool
