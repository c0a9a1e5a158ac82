// The text of the progress bar (that it stays silent when its stream is not
// a terminal is checked end to end by the `kel copy` runs, through the graph
// runner every command shares, and by the `kel export` test).

#include <gtest/gtest.h>

#include "ProgressBar.h"

namespace {

using KelTool::ProgressBar;

// An overrun is clamped to a full bar; without a total, a marker walks.
TEST(ProgressBar, RendersFractionPercentCountsAndAWalkingMarkerWithoutTotal) {
    EXPECT_EQ(ProgressBar::Render(5, 10, "", 10), "[#####.....]  50%  5/10");
    EXPECT_EQ(ProgressBar::Render(10, 10, "pass 2", 4), "[####] 100%  10/10  pass 2");
    EXPECT_EQ(ProgressBar::Render(0, 3, "", 3), "[...]   0%  0/3");
    EXPECT_EQ(ProgressBar::Render(12, 10, "", 5), "[#####] 100%  12/10");
    EXPECT_EQ(ProgressBar::Render(0, 0, "", 4), "[#...]  0");
    EXPECT_EQ(ProgressBar::Render(6, 0, "", 4), "[..#.]  6");
}

}  // namespace
