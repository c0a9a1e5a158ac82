// Loads the real plugin library and two fixture libraries through the
// plugin loader. This executable does not link the plugin's code: everything
// it sees of the plugin comes through dlopen.

#include <KEL/FilterFactory.h>
#include <KEL/KELPurposeGuids.h>
#include <KEL/KelVersion.h>
#include <KEL/PluginLoader.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/TestSupport.h"

namespace {

namespace fs = std::filesystem;

const KelCommon::Guid kFutureFilterGuid = KelCommon::Guid::FromHexString("0F0F0F0F-7000-4000-8000-000000000007");

void WriteText(const fs::path& file, const std::string& text) { std::ofstream(file) << text; }

bool IsLoaded(const std::string& canonicalPath) {
    const auto plugins = KEL::PluginLoader::GetLoadedPlugins();
    return std::any_of(plugins.begin(), plugins.end(), [&](const auto& p) { return p.path == canonicalPath; });
}

TEST(PluginLoaderTest, LoadsTheBuiltPluginAndReadsItsDescriptor) {
    KelCommon::ScopedLogCapture capture;
    KEL::LoadedPlugin loaded;
    std::string error;
    ASSERT_EQ(KEL::PluginLoader::LoadPlugin(KEL_TEST_PLUGIN_PATH, &loaded, &error), KEL::KEL_OK) << error;
    EXPECT_EQ(loaded.info.name, "KEL2File");
    EXPECT_EQ(loaded.info.pluginVersion, "3.3.1");
    EXPECT_EQ(loaded.info.frameworkVersionTag, "kelversion_6.3.0");
    EXPECT_EQ(loaded.info.frameworkVersion, KelCommon::VersionInfo(6, 3, 0));
    EXPECT_EQ(loaded.path, fs::canonical(KEL_TEST_PLUGIN_PATH).string());
    EXPECT_TRUE(IsLoaded(loaded.path));
    EXPECT_EQ(capture.CountContaining("refused"), 0U);
    EXPECT_EQ(loaded.filterClasses.size(), 11U);
    // Every class registered while it loaded carries the library as provider.
    for (const auto& guid : loaded.filterClasses) {
        const auto registered = KEL::FilterFactory::Find(guid);
        ASSERT_TRUE(registered.has_value());
        EXPECT_EQ(registered->info.GetProvider(), "libKEL2File_kpl.so");
        EXPECT_NE(KEL::FilterFactory::CreateFilter(guid), nullptr);
    }
}

TEST(PluginLoaderTest, PurposeAliasesResolveAfterLoad) {
    ASSERT_EQ(KEL::PluginLoader::LoadPlugin(KEL_TEST_PLUGIN_PATH, nullptr, nullptr), KEL::KEL_OK);
    EXPECT_GE(KEL::KELPurposeGuids::Count(), 33U);
    const auto thumbnail = KEL::KELPurposeGuids::ResolveAlias("THUMBNAIL");
    ASSERT_TRUE(thumbnail.has_value());
    EXPECT_EQ(*thumbnail, KelCommon::Guid::FromHexString("64645F07-91BB-4DAB-A7AD-1B50F1C1D1F0"));
}

TEST(PluginLoaderTest, LoadingTheSameLibraryTwiceReturnsTheFirstLoad) {
    KEL::LoadedPlugin first;
    KEL::LoadedPlugin second;
    ASSERT_EQ(KEL::PluginLoader::LoadPlugin(KEL_TEST_PLUGIN_PATH, &first, nullptr), KEL::KEL_OK);
    const auto before = KEL::FilterFactory::GetRegisteredClasses().size();
    // The same file through another spelling of its path.
    const fs::path plugin(KEL_TEST_PLUGIN_PATH);
    const std::string other = (plugin.parent_path() / "." / plugin.filename()).string();
    std::string error;
    ASSERT_EQ(KEL::PluginLoader::LoadPlugin(other, &second, &error), KEL::KEL_OK) << error;
    EXPECT_EQ(second.path, first.path);
    EXPECT_EQ(second.filterClasses, first.filterClasses);
    EXPECT_EQ(KEL::FilterFactory::GetRegisteredClasses().size(), before);
    const auto plugins = KEL::PluginLoader::GetLoadedPlugins();
    EXPECT_EQ(std::count_if(plugins.begin(), plugins.end(), [&](const auto& p) { return p.path == first.path; }), 1);
}

TEST(PluginLoaderTest, LibraryWithoutDescriptorIsRefused) {
    KelCommon::ScopedLogCapture capture;
    std::string error;
    EXPECT_EQ(KEL::PluginLoader::LoadPlugin(KEL_TEST_FIXTURE_NO_DESCRIPTOR, nullptr, &error), KEL::KEL_ERR_PLUGIN);
    EXPECT_NE(error.find(KEL_TEST_FIXTURE_NO_DESCRIPTOR), std::string::npos) << error;
    EXPECT_NE(error.find("not a KEL plugin"), std::string::npos) << error;
    EXPECT_NE(error.find("kel_plugin"), std::string::npos) << error;
    EXPECT_EQ(capture.Count(error), 1U);
    EXPECT_FALSE(IsLoaded(fs::canonical(KEL_TEST_FIXTURE_NO_DESCRIPTOR).string()));
}

TEST(PluginLoaderTest, PluginForAnIncompatibleFrameworkIsRefusedAndItsClassesUnregistered) {
    unsetenv("KEL_FIXTURE_FUTURE_REGISTERED");
    std::string error;
    EXPECT_EQ(KEL::PluginLoader::LoadPlugin(KEL_TEST_FIXTURE_FUTURE_PLUGIN, nullptr, &error), KEL::KEL_ERR_PLUGIN);
    EXPECT_NE(error.find("7.0.0"), std::string::npos) << error;
    EXPECT_NE(error.find("6.3.0"), std::string::npos) << error;
    EXPECT_NE(error.find("FutureFixture"), std::string::npos) << error;
    // The library's static initialisation did register its class...
    const char* registered = std::getenv("KEL_FIXTURE_FUTURE_REGISTERED");
    ASSERT_NE(registered, nullptr);
    EXPECT_NE(std::string(registered), "0");
    // ...and the refusal took it back.
    EXPECT_FALSE(KEL::FilterFactory::Find(kFutureFilterGuid).has_value());
    EXPECT_EQ(KEL::FilterFactory::CreateFilter("FutureFilter"), nullptr);
    EXPECT_FALSE(IsLoaded(fs::canonical(KEL_TEST_FIXTURE_FUTURE_PLUGIN).string()));
}

TEST(PluginLoaderTest, MissingFileOrOneThatIsNotALibraryIsRefusedWithTheReason) {
    kel_test::TempDir dir;
    WriteText(dir.Path() / "libbogus.so", "this is not an ELF file");
    std::string error;
    EXPECT_EQ(KEL::PluginLoader::LoadPlugin(dir.File("libbogus.so"), nullptr, &error), KEL::KEL_ERR_PLUGIN);
    EXPECT_NE(error.find("cannot load library"), std::string::npos) << error;
    EXPECT_NE(error.find("libbogus.so"), std::string::npos) << error;
    EXPECT_EQ(KEL::PluginLoader::LoadPlugin("/nonexistent/libnothing.so", nullptr, &error), KEL::KEL_ERR_NOT_FOUND);
    EXPECT_EQ(error, "'/nonexistent/libnothing.so': no such file");
}

TEST(PluginLoaderTest, DirectoryLoadTakesSharedLibrariesAndReportsRefusals) {
    kel_test::TempDir dir;
    fs::create_symlink(fs::absolute(KEL_TEST_PLUGIN_PATH), dir.Path() / "libKEL2File_kpl.so");
    WriteText(dir.Path() / "libbroken.so", "garbage");
    WriteText(dir.Path() / "README.txt", "not a library");
    std::vector<std::string> errors;
    EXPECT_EQ(KEL::PluginLoader::LoadPluginsFromDirectory(dir.Path().string(), &errors), 1U);
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_NE(errors[0].find("libbroken.so"), std::string::npos) << errors[0];

    errors.clear();
    EXPECT_EQ(KEL::PluginLoader::LoadPluginsFromDirectory((dir.Path() / "missing").string(), &errors), 0U);
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_NE(errors[0].find("missing"), std::string::npos) << errors[0];
}

TEST(PluginLoaderTest, DefaultDirectoryFollowsTheEnvironment) {
    setenv("KEL_PLUGIN_PATH", "/opt/kel/plugins", 1);
    EXPECT_EQ(KEL::PluginLoader::DefaultPluginDirectory(), "/opt/kel/plugins");
    unsetenv("KEL_PLUGIN_PATH");
    EXPECT_NE(KEL::PluginLoader::DefaultPluginDirectory().find("kel/plugins"), std::string::npos);
}

TEST(FrameworkVersionTest, SameMajorAndNoNewerMinorIsCompatible) {
    EXPECT_EQ(KEL::GetRuntimeVersion(), KelCommon::VersionInfo(6, 3, 0));
    EXPECT_TRUE(KEL::IsCompatibleFrameworkVersion({6, 3, 0}));
    EXPECT_TRUE(KEL::IsCompatibleFrameworkVersion({6, 0, 0}));
    EXPECT_TRUE(KEL::IsCompatibleFrameworkVersion({6, 3, 9}));
    EXPECT_FALSE(KEL::IsCompatibleFrameworkVersion({6, 4, 0}));
    EXPECT_FALSE(KEL::IsCompatibleFrameworkVersion({5, 3, 0}));
    EXPECT_FALSE(KEL::IsCompatibleFrameworkVersion({7, 0, 0}));
}

}  // namespace
