// The command line itself: usage errors, plugin loading, the filter listing
// and verbosity.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ToolTestSupport.h"

namespace {

using KelCommandLine = kel_tool_test::KelToolTest;
using KelFilters = kel_tool_test::KelToolTest;
using KelPlugins = kel_tool_test::KelToolTest;

TEST_F(KelCommandLine, UsageErrorsExitTwoAndNameTheProblem) {
    KelFails({"frobnicate"}, 2, "frobnicate");
    KelFails({"copy", "only-one.kel"}, 2, "OUT");
    KelFails({"copy", "a.kel", "b.kel", "--buffer", "4"}, 2, "--async");  // a queue only the asynchronous writer has
}

TEST_F(KelCommandLine, VerboseShowsWriterStartLines) {
    kel_tool_test::RecordSynthetic(File("in.kel"), 1, 2);
    const auto quiet = Kel({"copy", "-q", "in.kel", "out.kel"});
    ASSERT_EQ(quiet.exitCode, 0) << quiet.err;
    EXPECT_EQ(quiet.err.find("WriterBase::Start writing"), std::string::npos) << quiet.err;
    const auto verbose = Kel({"-vv", "copy", "-q", "in.kel", "out2.kel"});
    ASSERT_EQ(verbose.exitCode, 0) << verbose.err;
    EXPECT_NE(verbose.err.find("WriterBase::Start writing"), std::string::npos) << verbose.err;
}

TEST_F(KelFilters, ListsEveryClassOfBothPluginsWithParameters) {
    const auto run = Kel({"filters", "--json"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    std::map<std::string, nlohmann::json> byName;
    for (const auto& c : nlohmann::json::parse(run.out)) {
        byName[c["name"].get<std::string>()] = c;
    }
    ASSERT_TRUE(byName.contains("SourceKEL2FileReader"));
    ASSERT_TRUE(byName.contains("TargetKEL2FileWriterAsync"));
    ASSERT_TRUE(byName.contains("SyntheticCaptureSource"));
    EXPECT_EQ(byName["SourceKEL2FileReader"]["typeGuid"], "B74863F3-13CF-47A0-9F90-07718FC52AB6");
    EXPECT_EQ(byName["SourceKEL2FileReader"]["category"], "source");
    EXPECT_EQ(byName["TargetKEL2FileWriterAsync"]["category"], "target");
    std::map<std::string, nlohmann::json> params;
    for (const auto& p : byName["TargetKEL2FileWriterAsync"]["params"]) {
        params[p["name"].get<std::string>()] = p;
    }
    ASSERT_TRUE(params.contains("Dropped frames count") && params.contains("Buffer size"));
    EXPECT_EQ(params["Dropped frames count"]["type"], "int64");
    EXPECT_EQ(params["Dropped frames count"]["flags"], 4);
    EXPECT_EQ(params["Buffer size"]["flags"], 1);
    EXPECT_FALSE(params["Buffer size"]["domain"].get<std::string>().empty());
}

TEST_F(KelPlugins, PluginOptionMayFollowTheCommandAndTheTableQuotesParameters) {
    const auto run = Kel({"filters", "--plugin", KEL_TEST_PLUGIN_PATH});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("11 filter class(es)"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("TargetKEL2FilePerStreamSnapshotWriterAsync"), std::string::npos);
    EXPECT_NE(run.out.find("\"Frames count per snapshot\""), std::string::npos);
    EXPECT_EQ(run.out.find("SyntheticCaptureSource"), std::string::npos);
}

// Without the plugins, only the tool's own classes are there.
TEST_F(KelPlugins, PluginDirectoryMustExistAndHoldPlugins) {
    KelFails({"--plugin-dir", File("nowhere"), "filters"}, 1, "does not exist");
    kel_tool_test::WriteText(File("libfake.so"), "not an ELF file");
    KelFails({"--plugin", File("libfake.so"), "filters"}, 1, "libfake.so");
    std::filesystem::create_directories(dir.Path() / "empty");
    const auto run = Kel({"--plugin-dir", File("empty"), "filters", "--json"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    for (const auto& c : nlohmann::json::parse(run.out)) {
        EXPECT_NE(c["name"], "SourceKEL2FileReader");
    }
}

}  // namespace
