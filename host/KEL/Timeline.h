#pragma once

#include <KelCommon/Export.h>

#include <cstdint>
#include <vector>

namespace KEL {

// A stretch of a stream's time line with no frame where frames were due.
struct TimelineGap {
    std::int64_t from = 0;  // time stamp of the frame before the gap (microseconds)
    std::int64_t to = 0;    // time stamp of the frame after it
    std::uint64_t missing = 0;
};

// What the time stamps of one stream say about its frames.
struct TimelineAnalysis {
    std::vector<std::int64_t> stamps;  // ascending
    std::int64_t interval = 0;         // the usual distance between frames (0 with fewer than 2 frames)
    std::vector<TimelineGap> gaps;     // distances above 1.5 median distances, in time order
    std::uint64_t dropped = 0;         // frames missing in all gaps together

    std::int64_t First() const { return stamps.empty() ? 0 : stamps.front(); }
    std::int64_t Last() const { return stamps.empty() ? 0 : stamps.back(); }
};

// Sorts the time stamps and counts as gaps the distances between neighbours
// larger than 1.5 times their median. The frame interval is the mean of the
// distances within half and one and a half medians; a gap of d holds
// round(d / interval) - 1 missing frames (at least one).
KEL_API TimelineAnalysis AnalyzeTimeline(std::vector<std::int64_t> stamps);

}  // namespace KEL
