// The text of the progress bar.

#include <gtest/gtest.h>

#include <cstdio>

#include "ProgressBar.h"

namespace {

using KelTool::ProgressBar;

TEST(ProgressBar, RendersFractionPercentAndCounts) {
    EXPECT_EQ(ProgressBar::Render(5, 10, "", 10), "[#####.....]  50%  5/10");
    EXPECT_EQ(ProgressBar::Render(10, 10, "pass 2", 4), "[####] 100%  10/10  pass 2");
    EXPECT_EQ(ProgressBar::Render(0, 3, "", 3), "[...]   0%  0/3");
}

TEST(ProgressBar, OverrunIsClampedToFull) { EXPECT_EQ(ProgressBar::Render(12, 10, "", 5), "[#####] 100%  12/10"); }

TEST(ProgressBar, UnknownTotalShowsAWalkingMarker) {
    EXPECT_EQ(ProgressBar::Render(0, 0, "", 4), "[#...]  0");
    EXPECT_EQ(ProgressBar::Render(6, 0, "", 4), "[..#.]  6");
}

TEST(ProgressBar, StaysSilentWhenNotATerminal) {
    std::FILE* file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    EXPECT_FALSE(ProgressBar::IsTerminal(file));
    {
        ProgressBar bar(file, true);
        for (int i = 0; i < 1000; ++i) {
            bar.Update(static_cast<std::uint64_t>(i), 1000);
        }
        bar.Finish();
    }
    EXPECT_EQ(std::ftell(file), 0L);
    std::fclose(file);
}

}  // namespace
