#include <KEL/DataTypeStreamInfo.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/filesystem/exception.hpp>
#include <filesystem>
#include <fstream>

#include "support/TestSupport.h"
#include "utils/Utils.h"

namespace {

namespace fs = std::filesystem;
using Kel2File::Utils;
using Paths = std::vector<std::string>;

TEST(UtilsStreamInfo, FrameCountIsSetInTheAtomsOwnLayerAndAMissingLayerIsLogged) {
    auto atom = kel_test::MakeFirstAtom(1, 3);
    const auto own = atom->GetDataLayerByType(KEL::DataTypeStreamInfo::TheTypeGuid(), false);

    const auto info = Utils::ExtractStreamInfo(atom, 4321);

    EXPECT_EQ(std::static_pointer_cast<KEL::DataLayer>(info), own);
    EXPECT_EQ(KEL::LayerCast<KEL::DataTypeStreamInfo>(own)->GetNumFrames(), 4321U);

    KelCommon::ScopedLogCapture capture;
    EXPECT_EQ(Utils::ExtractStreamInfo(kel_test::MakeFrameAtom(1, 0), 10), nullptr);
    ASSERT_EQ(capture.Records().size(), 1U);
    EXPECT_EQ(capture.Records()[0].message, "The atom lacks stream info data layer");
    EXPECT_EQ(capture.Records()[0].level, 2);
    EXPECT_EQ(capture.Records()[0].tag, "KEL2File");
}

TEST(UtilsProfile, HoldsOneEntryPerLayerInLayerOrder) {
    for (const auto& atom : {kel_test::MakeFirstAtom(1, 3), std::make_shared<KEL::Atom>(1, 0)}) {
        const auto profile = Utils::DetermineProfile(atom);

        ASSERT_NE(profile, nullptr);
        const auto layers = atom->GetAllDataLayers();
        ASSERT_EQ(profile->Size(), layers.size());
        for (std::size_t i = 0; i < layers.size(); ++i) {
            EXPECT_EQ(profile->GetDataProfiles()[i]->GetTypeGuid(), layers[i]->GetTypeGuid());
            EXPECT_EQ(profile->GetDataProfiles()[i]->GetPurposeGuid(), layers[i]->GetPurposeGuid());
        }
    }
}

class DirectoryCandidates : public ::testing::Test {
protected:
    void Touch(const fs::path& relative) { std::ofstream(root_ / relative) << "x"; }
    // Relative to the scratch directory and sorted: the order is the file
    // system's. Listed paths are canonical, so a path that is not does not
    // come out relative.
    std::vector<std::string> Candidates(const fs::path& dir, bool recursive = false) {
        std::vector<std::string> paths;
        for (const auto& path : Utils::CollectPotentialKELFilesInDirectory(dir.string(), recursive)) {
            paths.push_back(fs::path(path).lexically_relative(fs::canonical(root_)).string());
        }
        std::ranges::sort(paths);
        return paths;
    }

    kel_test::TempDir dir_;
    fs::path root_ = dir_.Path();
};

// Only regular files ending in lower-case ".kel" are listed, subdirectories
// only when searching recursively.
TEST_F(DirectoryCandidates, OnlyRegularFilesEndingInLowerCaseKelAreListed) {
    for (const char* name : {"take.kel", "clip.KEL", "clip.kel.bak", ".kel", "notes.txt"}) {
        Touch(name);
    }
    fs::create_directory(root_ / "folder.kel");
    fs::create_directory(root_ / "sub");
    Touch("sub/inner.kel");

    EXPECT_EQ(Candidates(root_), (Paths{".kel", "take.kel"}));
    EXPECT_EQ(Candidates(root_, true), (Paths{".kel", "sub/inner.kel", "take.kel"}));
}

// Each link is listed under its target's canonical path, so two links to one
// file give it twice; a relative directory reached through a link gives
// absolute canonical paths too.
TEST_F(DirectoryCandidates, LinksAreListedUnderTheirTargetsCanonicalPathOncePerLink) {
    fs::create_directory(root_ / "store");
    fs::create_directory(root_ / "scan");
    Touch("store/real.data");
    fs::create_symlink(root_ / "store" / "real.data", root_ / "scan" / "link.kel");
    fs::create_symlink(root_ / "store" / "real.data", root_ / "scan" / "two.kel");
    fs::create_directory_symlink(root_ / "scan", root_ / "alias");
    const auto previous = fs::current_path();
    fs::current_path(root_);
    const auto candidates = Candidates("alias");
    fs::current_path(previous);

    EXPECT_EQ(candidates, (Paths{"store/real.data", "store/real.data"}));
}

TEST_F(DirectoryCandidates, DanglingLinkOrMissingDirectoryRaisesAFilesystemError) {
    EXPECT_THROW(Candidates(root_ / "nope"), boost::filesystem::filesystem_error);

    fs::create_symlink(root_ / "gone.data", root_ / "broken.kel");
    EXPECT_THROW(Candidates(root_), boost::filesystem::filesystem_error);
}

}  // namespace
