// Loads the real plugin library and two fixture libraries through the
// plugin loader, and registers classes of its own with the filter factory.
// This executable does not link the plugin's code: everything it sees of the
// plugin comes through dlopen.

#include <KEL/FilterFactory.h>
#include <KEL/KelVersion.h>
#include <KEL/PluginLoader.h>
#include <KEL/Target.h>
#include <KelCommon/Logger.h>
#include <KelCommon/VarManager.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/TestSupport.h"

namespace {

namespace fs = std::filesystem;

std::size_t TimesLoaded(const std::string& path) {
    const auto plugins = KEL::PluginLoader::GetLoadedPlugins();
    const std::string canonical = fs::weakly_canonical(path).string();
    return std::count_if(plugins.begin(), plugins.end(), [&](const auto& p) { return p.path == canonical; });
}

// Every class's parameters are listed in order, as "name|flags|type|domain":
// a source's own; a target's shared ones, then its strategy's, then an
// asynchronous target's queue and counters. Asking again adds the very same
// objects.
TEST(PluginLoaderTest, LoadsTheBuiltPluginOnceAndReadsItsDescriptorClassesAndParameters) {
    KEL::LoadedPlugin loaded;
    std::string error;
    ASSERT_EQ(KEL::PluginLoader::LoadPlugin(KEL_TEST_PLUGIN_PATH, &loaded, &error), KEL::KEL_OK) << error;
    EXPECT_EQ(loaded.info.name, "KEL2File");
    EXPECT_EQ(loaded.info.pluginVersion, "3.3.1");
    EXPECT_EQ(loaded.info.frameworkVersionTag, "kelversion_6.3.0");
    EXPECT_EQ(loaded.info.frameworkVersion, KelCommon::VersionInfo(6, 3, 0));
    // Compatible: the same major version and no newer minor one.
    EXPECT_TRUE(KEL::IsCompatibleFrameworkVersion({6, 0, 9}) && !KEL::IsCompatibleFrameworkVersion({6, 4, 0}));
    EXPECT_EQ(loaded.path, fs::canonical(KEL_TEST_PLUGIN_PATH).string());
    EXPECT_EQ(loaded.filterClasses.size(), 11U);
    const std::string root = KelCommon::VarManager::getInstance().getRootValue().str();
    const std::string targetParams = "KEL File Path|0|write-file|file path (*.kel), default \"" + root +
                                     "/record.kel\"\nWrite XML|1|bool|true/false, default true\n"
                                     "Create thumbnail for first frame|0|bool|true/false, default false\n";
    const std::string snapshot =
        "Take snapshot|0|callback|button (any value presses it)\n"
        "Frames count per snapshot|0|uint32|[1, 4294967295], default 3\n";
    const std::string recording = "Enable Recording|0|bool|true/false, default false\n";
    const std::string fileSource =
        "KEL File Path|1|read-file|file path (*.kel), default \"\"\nIncluded streams|1|string|text, default \"\"\n";
    const std::string directorySource = "KEL files dir|1|dir|text, default \"" + root + "/kel_files\"\n";
    const std::string queue =
        "Buffer size|1|uint32|[0, 4294967295], default 1\nBuffered frames count|4|uint32|[0, 4294967295], default 0\n"
        "Drop frames when full|0|bool|true/false, default true\n"
        "Dropped frames count|4|int64|[0, 9223372036854775807], default 0\n"
        "Reset dropped frames counter|0|callback|button (any value presses it)\n";
    // Every class registered while it loaded carries the library as provider
    // and makes filters of its own GUID, name and category: sources, and
    // targets that take every stream.
    for (const auto& guid : loaded.filterClasses) {
        const auto info = KEL::FilterFactory::Find(guid).value().info;
        const std::string name = info.GetName();
        EXPECT_EQ(info.GetProvider(), "libKEL2File_kpl.so");
        const auto filter = KEL::FilterFactory::CreateFilter(guid);
        ASSERT_NE(filter, nullptr);
        EXPECT_EQ(filter->TypeGuid(), guid);
        EXPECT_EQ(filter->GetFilterClassInfo().GetName(), name);
        const auto* target = dynamic_cast<const KEL::Target*>(filter.get());
        EXPECT_EQ(info.GetCategory(), target != nullptr ? KEL::FILTER_CATEGORY_TARGET : KEL::FILTER_CATEGORY_SOURCE);
        EXPECT_TRUE(target == nullptr || target->AcceptsAllStreams()) << name;
        const bool isSnapshot = name.find("Snapshot") != std::string::npos;
        std::string expected =
            targetParams + (isSnapshot ? snapshot : recording) + (name.ends_with("Async") ? queue : "");
        if (name.starts_with("Source")) {
            expected = name == "SourceKEL2FileReader" ? fileSource : directorySource;
        }
        ASSERT_EQ(filter->onInitializeParams(nullptr), KEL::KEL_OK);
        const auto params = filter->GetParams();
        std::string described;
        for (const auto& p : params) {
            described += p->GetName() + "|" + std::to_string(p->GetFlags()) + "|" + p->GetTypeName() + "|" +
                         p->DescribeDomain() + "\n";
        }
        EXPECT_EQ(described, expected) << name;
        ASSERT_EQ(filter->onInitializeParams(nullptr), KEL::KEL_OK);
        EXPECT_EQ(filter->GetParams(), params) << name;
    }
    // The same file through another spelling of its path is the same load.
    const auto classes = KEL::FilterFactory::GetRegisteredClasses().size();
    const fs::path plugin(KEL_TEST_PLUGIN_PATH);
    KEL::LoadedPlugin again;
    ASSERT_EQ(KEL::PluginLoader::LoadPlugin((plugin.parent_path() / "." / plugin.filename()).string(), &again, &error),
              KEL::KEL_OK)
        << error;
    EXPECT_EQ(again.path, loaded.path);
    EXPECT_EQ(again.filterClasses, loaded.filterClasses);
    EXPECT_EQ(KEL::FilterFactory::GetRegisteredClasses().size(), classes);
    EXPECT_EQ(TimesLoaded(KEL_TEST_PLUGIN_PATH), 1U);
}

// Each refusal names the file and the reason, is logged once, and leaves
// nothing loaded.
TEST(PluginLoaderTest, LibrariesThatAreNotLoadablePluginsAreRefusedWithTheReason) {
    kel_test::TempDir dir;
    std::ofstream(dir.Path() / "libbogus.so") << "this is not an ELF file";
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {KEL_TEST_FIXTURE_NO_DESCRIPTOR, {"not a KEL plugin", "\"kel_plugin\""}},
        {KEL_TEST_FIXTURE_FUTURE_PLUGIN, {"\"FutureFixture\"", "7.0.0", "6.3.0"}},
        {dir.File("libbogus.so"), {"cannot load library"}},
        {"/nonexistent/libnothing.so", {"no such file"}}};
    unsetenv("KEL_FIXTURE_FUTURE_REGISTERED");
    for (const auto& [path, reasons] : cases) {
        KelCommon::ScopedLogCapture capture;
        std::string error;
        EXPECT_EQ(KEL::PluginLoader::LoadPlugin(path, nullptr, &error),
                  fs::exists(path) ? KEL::KEL_ERR_PLUGIN : KEL::KEL_ERR_NOT_FOUND);
        for (const auto& part : reasons) {
            EXPECT_NE(error.find(part), std::string::npos) << error;
        }
        EXPECT_EQ(error.rfind("'" + path + "': ", 0), 0U) << error;
        EXPECT_EQ(capture.Count(error), 1U);
        EXPECT_EQ(TimesLoaded(path), 0U);
    }
    // The future plugin's static initialisation did register its class, and
    // the refusal took it back.
    const char* registered = std::getenv("KEL_FIXTURE_FUTURE_REGISTERED");
    ASSERT_NE(registered, nullptr);
    EXPECT_NE(std::string(registered), "0");
    EXPECT_FALSE(KEL::FilterFactory::Find(KelCommon::Guid::FromHexString("0F0F0F0F-7000-4000-8000-000000000007")));
    EXPECT_EQ(KEL::FilterFactory::CreateFilter("FutureFilter"), nullptr);
}

const KelCommon::Guid kProbeGuid = KelCommon::Guid::FromHexString("11111111-2222-4333-8444-555555555555");
const KelCommon::Guid kThrowerGuid = KelCommon::Guid::FromHexString("11111111-2222-4333-8444-666666666666");
const KEL::FilterClassInfo kProbeInfo("Probe", KEL::FILTER_CATEGORY_TARGET);

class Probe : public KEL::Target {
public:
    Probe() : KEL::Target(true) {}
    KelCommon::Guid TypeGuid() const override { return kProbeGuid; }
    KEL::FilterClassInfo GetFilterClassInfo() const override { return kProbeInfo; }
};

KEL::Filter* CreateProbe() { return new Probe(); }
KEL::Filter* CreateOtherProbe() { return new Probe(); }
KEL::Filter* CreateThrower() { throw std::runtime_error("out of handles"); }

// Repeating a registration keeps its id; a conflicting one is refused and
// logged. A class is found by name or GUID text, with or without braces.
TEST(FilterFactoryTest, CreatesRegisteredClassesByNameOrGuidTextAndRefusesConflictingRegistrations) {
    KelCommon::ScopedLogCapture capture;
    const int id = KEL::FilterFactory::RegisterFilterClass(kProbeGuid, kProbeInfo, &CreateProbe);
    ASSERT_GT(id, 0);
    EXPECT_EQ(KEL::FilterFactory::RegisterFilterClass(kProbeGuid, kProbeInfo, &CreateProbe), id);
    EXPECT_EQ(KEL::FilterFactory::RegisterFilterClass(kProbeGuid, {"Impostor", KEL::FILTER_CATEGORY_SOURCE},
                                                      &CreateOtherProbe),
              0);
    EXPECT_EQ(KEL::FilterFactory::RegisterFilterClass(kThrowerGuid, kProbeInfo, nullptr), 0);
    EXPECT_EQ(capture.CountContaining("registration refused"), 2U);
    EXPECT_EQ(KEL::FilterFactory::Find(kProbeGuid)->info.GetName(), "Probe");
    EXPECT_FALSE(KEL::FilterFactory::Find(kThrowerGuid));
    for (const char* name :
         {"Probe", "{11111111-2222-4333-8444-555555555555}", "11111111-2222-4333-8444-555555555555"}) {
        auto filter = KEL::FilterFactory::CreateFilter(name);
        ASSERT_NE(filter, nullptr) << name;
        EXPECT_EQ(std::unique_ptr<KEL::Filter>(filter->Instantiate())->TypeGuid(), kProbeGuid);
    }
    EXPECT_EQ(KEL::FilterFactory::CreateFilter("NoSuchFilter"), nullptr);
    EXPECT_EQ(KEL::FilterFactory::CreateFilter(kThrowerGuid), nullptr);
    ASSERT_GT(
        KEL::FilterFactory::RegisterFilterClass(kThrowerGuid, {"Thrower", KEL::FILTER_CATEGORY_SOURCE}, &CreateThrower),
        0);
    EXPECT_EQ(KEL::FilterFactory::CreateFilter("Thrower"), nullptr);
    EXPECT_EQ(capture.CountContaining("out of handles"), 1U);
}

// Hosts look for plugins where the runtime says: $KEL_PLUGIN_PATH first, then
// the plugins of the build tree or installation this runtime belongs to (the
// kel tool and the Python module use the same list).
TEST(PluginLoaderTest, TheSearchPathStartsWithTheEnvironmentAndHoldsThisRuntimesPlugins) {
    const std::string built = fs::canonical(fs::path(KEL_TEST_PLUGIN_PATH).parent_path()).string();
    auto path = KEL::PluginLoader::SearchPath();
    EXPECT_NE(std::find(path.begin(), path.end(), built), path.end()) << ::testing::PrintToString(path);
    ASSERT_EQ(::setenv("KEL_PLUGIN_PATH", "/elsewhere/plugins", 1), 0);
    path = KEL::PluginLoader::SearchPath();
    ::unsetenv("KEL_PLUGIN_PATH");
    ASSERT_FALSE(path.empty());
    EXPECT_EQ(path.front(), "/elsewhere/plugins");
    EXPECT_EQ(std::count(path.begin(), path.end(), built), 1);
}

}  // namespace
