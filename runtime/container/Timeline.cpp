#include <KEL/Timeline.h>

#include <algorithm>
#include <cmath>

namespace KEL {

TimelineAnalysis AnalyzeTimeline(std::vector<std::int64_t> stamps) {
    TimelineAnalysis result;
    std::sort(stamps.begin(), stamps.end());
    result.stamps = std::move(stamps);
    const auto& s = result.stamps;
    if (s.size() < 2) {
        return result;
    }
    std::vector<std::int64_t> distances;
    distances.reserve(s.size() - 1);
    for (std::size_t i = 1; i < s.size(); ++i) {
        distances.push_back(s[i] - s[i - 1]);
    }
    std::vector<std::int64_t> sorted = distances;
    const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
    std::nth_element(sorted.begin(), middle, sorted.end());
    const std::int64_t median = *middle;
    if (median <= 0) {
        return result;  // most frames share a stamp: nothing to measure gaps by
    }
    // The mean of the regular distances (those near the median) averages the
    // jitter out; a long gap is measured in multiples of it, where an error
    // of a few percent would miscount the frames missing.
    double sum = 0;
    std::size_t regular = 0;
    for (const std::int64_t d : distances) {
        if (d * 2 >= median && d * 2 <= median * 3) {
            sum += static_cast<double>(d);
            ++regular;
        }
    }
    const double interval = sum / static_cast<double>(regular);
    result.interval = static_cast<std::int64_t>(std::llround(interval));
    for (std::size_t i = 0; i < distances.size(); ++i) {
        const double d = static_cast<double>(distances[i]);
        if (d > 1.5 * static_cast<double>(median)) {
            const auto missing = static_cast<std::uint64_t>(std::max(1.0, std::round(d / interval) - 1.0));
            result.gaps.push_back({s[i], s[i + 1], missing});
            result.dropped += missing;
        }
    }
    return result;
}

}  // namespace KEL
