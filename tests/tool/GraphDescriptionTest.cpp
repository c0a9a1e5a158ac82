// Parsing of graph description files and command-line overrides.

#include <gtest/gtest.h>

#include "GraphDescription.h"

namespace {

using KelTool::ApplyParamOverride;
using KelTool::GraphDescription;
using KelTool::ParseGraphDescription;

std::optional<GraphDescription> Parse(const std::string& text, std::string* error) {
    return ParseGraphDescription(text, error);
}

TEST(GraphDescription, ParsesFiltersConnectionsTimelineAndOptions) {
    std::string error;
    const auto g = Parse(R"({
      "filters": [
        {"class": "Src", "name": "a", "params": {"Frames": 10, "Name": "x", "On": true, "Rate": 2.5}},
        {"class": "Dst", "name": "b"}
      ],
      "connections": [["a", "b"], {"from": "a", "to": "b"}],
      "timeline": [
        {"frame": 3, "filter": "b", "set": {"Enable Recording": true}, "press": "Take snapshot"},
        {"frame": 7, "pass": 1, "filter": "b", "press": ["P1", "P2"]},
        {"frame": 9, "stop": true}
      ],
      "options": {"startFrame": 2, "frameCount": 5, "loops": 0, "maxConsecutiveSkips": 3, "doneTimeoutMs": 250}
    })",
                         &error);
    ASSERT_TRUE(g) << error;
    ASSERT_EQ(g->filters.size(), 2U);
    EXPECT_EQ(g->filters[0].className, "Src");
    const KelTool::ParamValues expected{{"Frames", "10"}, {"Name", "x"}, {"On", "true"}, {"Rate", "2.5"}};
    EXPECT_EQ(g->filters[0].params, expected);
    ASSERT_EQ(g->connections.size(), 2U);
    EXPECT_EQ(g->connections[1].from, "a");
    ASSERT_EQ(g->timeline.size(), 3U);
    EXPECT_EQ(g->timeline[0].frame, 3U);
    EXPECT_EQ(g->timeline[0].set, (KelTool::ParamValues{{"Enable Recording", "true"}}));
    EXPECT_EQ(g->timeline[0].press, std::vector<std::string>{"Take snapshot"});
    EXPECT_FALSE(g->timeline[0].pass.has_value());
    EXPECT_EQ(g->timeline[1].pass, 1U);
    EXPECT_EQ(g->timeline[1].press, (std::vector<std::string>{"P1", "P2"}));
    EXPECT_TRUE(g->timeline[2].stop);
    EXPECT_EQ(g->startFrame, 2U);
    EXPECT_EQ(g->frameCount, 5U);
    EXPECT_EQ(g->loops, 0U);
    EXPECT_EQ(g->maxConsecutiveSkips, 3U);
    EXPECT_EQ(g->doneTimeout.count(), 250);
}

TEST(GraphDescription, ParameterOrderIsKept) {
    std::string error;
    const auto g =
        Parse(R"({"filters": [{"class": "C", "name": "a", "params": {"z": "1", "a": "2", "m": "3"}}]})", &error);
    ASSERT_TRUE(g) << error;
    EXPECT_EQ(g->filters[0].params, (KelTool::ParamValues{{"z", "1"}, {"a", "2"}, {"m", "3"}}));
}

struct BadGraph {
    const char* text;
    const char* message;
};

class GraphDescriptionErrors : public testing::TestWithParam<BadGraph> {};

TEST_P(GraphDescriptionErrors, AreReportedWithWhere) {
    std::string error;
    EXPECT_FALSE(Parse(GetParam().text, &error));
    EXPECT_NE(error.find(GetParam().message), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, GraphDescriptionErrors,
    testing::Values(BadGraph{"[1, 2]", "must be a JSON object"}, BadGraph{"{", "not valid JSON"},
                    BadGraph{R"({"filters": []})", "'filters' must be a non-empty array"},
                    BadGraph{R"({"filters": [{"name": "a"}]})", "filters[0]: missing 'class'"},
                    BadGraph{R"({"filters": [{"class": "C", "name": "a"}, {"class": "C", "name": "a"}]})",
                             "filters[1]: instance name 'a' is used twice"},
                    BadGraph{R"({"filters": [{"class": "C", "name": "a.b"}]})", "must not contain '.'"},
                    BadGraph{R"({"filters": [{"class": "C", "name": "a", "params": {"x": [1]}}]})",
                             "filters[0].params: value of 'x'"},
                    BadGraph{R"({"filters": [{"class": "C", "name": "a", "colour": 1}]})", "unknown key 'colour'"},
                    BadGraph{R"({"filters": [{"class": "C", "name": "a"}], "connections": [["a", "b"]]})",
                             "connections[0]: no filter named 'b'"},
                    BadGraph{
                        R"({"filters": [{"class": "C", "name": "a"}], "timeline": [{"filter": "a", "stop": true}]})",
                        "timeline[0]: missing 'frame'"},
                    BadGraph{R"({"filters": [{"class": "C", "name": "a"}], "timeline": [{"frame": -1, "stop": true}]})",
                             "'frame' must be a non-negative integer"},
                    BadGraph{R"({"filters": [{"class": "C", "name": "a"}], "timeline": [{"frame": 1, "filter": "a"}]})",
                             "needs 'set', 'press' or 'stop'"},
                    BadGraph{R"({"filters": [{"class": "C", "name": "a"}], "timeline": [{"frame": 1, "press": "P"}]})",
                             "'filter' is required"},
                    BadGraph{R"({"filters": [{"class": "C", "name": "a"}], "options": {"loops": 5000000000}})",
                             "'loops' is too large"},
                    BadGraph{R"({"filters": [{"class": "C", "name": "a"}], "options": {"maxConsecutiveSkips": 0}})",
                             "at least 1"}));

TEST(GraphDescription, OverrideReplacesOrAppendsParameter) {
    std::string error;
    auto g = Parse(R"({"filters": [{"class": "C", "name": "rec", "params": {"KEL File Path": "a.kel"}}]})", &error);
    ASSERT_TRUE(g) << error;
    ASSERT_TRUE(ApplyParamOverride(*g, "rec.KEL File Path=b=c.kel", &error)) << error;
    ASSERT_TRUE(ApplyParamOverride(*g, "rec.Write XML=false", &error)) << error;
    EXPECT_EQ(g->filters[0].params, (KelTool::ParamValues{{"KEL File Path", "b=c.kel"}, {"Write XML", "false"}}));
}

TEST(GraphDescription, MalformedOrUnknownOverrideFails) {
    std::string error;
    auto g = Parse(R"({"filters": [{"class": "C", "name": "rec"}]})", &error);
    ASSERT_TRUE(g) << error;
    EXPECT_FALSE(ApplyParamOverride(*g, "rec=1", &error));
    EXPECT_NE(error.find("INSTANCE.PARAMETER=VALUE"), std::string::npos);
    EXPECT_FALSE(ApplyParamOverride(*g, "rec.=1", &error));
    EXPECT_FALSE(ApplyParamOverride(*g, "other.X=1", &error));
    EXPECT_NE(error.find("no filter named 'other'"), std::string::npos);
}

TEST(GraphDescription, MissingFileIsReported) {
    std::string error;
    EXPECT_FALSE(KelTool::LoadGraphDescription("/nonexistent/graph.json", &error));
    EXPECT_NE(error.find("cannot open graph file"), std::string::npos);
}

}  // namespace
