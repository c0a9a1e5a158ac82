#include <KEL/Timeline.h>
#include <gtest/gtest.h>

#include <random>

namespace {

// Generated recordings: a frame interval, jitter of up to 15% of it on every
// stamp, and runs of dropped frames planted at random (fewer frames dropped
// than kept, so the usual interval stays the median); the analysis must find
// exactly the planted runs. (Measuring gaps in medians instead of the mean
// regular interval miscounts a run in a few of these 5,000 recordings.)
TEST(Timeline, FindsEveryPlantedRunOfDroppedFramesDespiteJitter) {
    std::mt19937_64 random(20261122);
    for (int round = 0; round < 5000; ++round) {
        SCOPED_TRACE(round);
        const std::int64_t interval = std::uniform_int_distribution<std::int64_t>(1'000, 100'000)(random);
        const int frames = std::uniform_int_distribution<int>(2, 400)(random);
        std::uniform_int_distribution<std::int64_t> jitter(-interval * 15 / 200, interval * 15 / 200);
        std::vector<std::int64_t> stamps;
        std::uint64_t planted = 0;
        std::size_t runs = 0;
        for (int f = 0; f < frames; ++f) {
            if (f > 0 && f < frames - 1 && std::bernoulli_distribution(0.05)(random)) {
                const int length = std::min(std::uniform_int_distribution<int>(1, 6)(random), frames - 1 - f);
                planted += static_cast<std::uint64_t>(length);
                ++runs;
                f += length;  // the frame after a run is kept, so runs stay apart
            }
            stamps.push_back(1'000'000 + f * interval + jitter(random));
        }
        if (planted * 2 >= static_cast<std::uint64_t>(frames) || stamps.size() < 3) {
            continue;
        }
        std::shuffle(stamps.begin(), stamps.end(), random);  // the analysis sorts
        const auto t = KEL::AnalyzeTimeline(stamps);
        EXPECT_NEAR(static_cast<double>(t.interval), static_cast<double>(interval),
                    0.15 * static_cast<double>(interval));
        EXPECT_EQ(t.dropped, planted);
        EXPECT_EQ(t.gaps.size(), runs);
    }
}

TEST(Timeline, FewOrEqualStampsHaveNoIntervalAndNoGaps) {
    for (const auto& stamps : std::vector<std::vector<std::int64_t>>{{}, {5}, {7, 7, 7, 7, 900}}) {
        const auto t = KEL::AnalyzeTimeline(stamps);
        EXPECT_EQ(std::tuple(t.interval, t.dropped, t.gaps.size()), std::tuple(0, 0U, 0U)) << stamps.size();
    }
}

}  // namespace
