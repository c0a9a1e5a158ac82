#include "targets/TargetTestSupport.h"

#include <KEL/DataTypeStreamInfo.h>
#include <KEL/Profile.h>
#include <KEL/ReadKEL2File.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "optimization/OptimizedDataLoosener.h"
#include "support/TestSupport.h"
#include "targets/TargetKEL2FilePerStreamSnapshotWriter.h"
#include "targets/TargetKEL2FilePerStreamSnapshotWriterAsync.h"
#include "targets/TargetKEL2FilePerStreamWriter.h"
#include "targets/TargetKEL2FilePerStreamWriterAsync.h"
#include "targets/TargetKEL2FileSnapshotWriter.h"
#include "targets/TargetKEL2FileSnapshotWriterAsync.h"
#include "targets/TargetKEL2FileWriter.h"
#include "targets/TargetKEL2FileWriterAsync.h"

namespace kel_test {

MemorySource::MemorySource(std::vector<std::uint16_t> streams, Frames frames)
    : streams_(std::move(streams)), frames_(std::move(frames)) {}

KelCommon::Guid MemorySource::TypeGuid() const {
    return KelCommon::Guid::FromHexString("0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0");
}

KEL::FilterClassInfo MemorySource::GetFilterClassInfo() const {
    return KEL::FilterClassInfo("MemorySource", KEL::FILTER_CATEGORY_SOURCE);
}

std::shared_ptr<KEL::Profile> MemorySource::GetOutputProfile() { return std::make_shared<KEL::Profile>(); }

std::uint32_t MemorySource::GetOutputNumStreams() { return static_cast<std::uint32_t>(streams_.size()); }

std::vector<std::uint32_t> MemorySource::GetStreamIds() { return {streams_.begin(), streams_.end()}; }

std::shared_ptr<KEL::DataTypeStreamInfo> MemorySource::GetStreamInfo() {
    return std::make_shared<KEL::DataTypeStreamInfo>(static_cast<std::uint32_t>(frames_.size()), 30.0, "memory");
}

KEL::KelErrorCode MemorySource::pushDataToOutput(std::uint32_t frameNr) {
    if (frameNr >= frames_.size()) {
        return 1;
    }
    for (const auto& atom : frames_[frameNr]) {
        pushToOutputQueue(KEL::Atom::Copy(atom, -1, true));
    }
    return 0;
}

Frames MakeCompleteFrames(const std::vector<std::uint16_t>& streams, std::uint32_t count, std::uint32_t firstFrameNr,
                          std::uint32_t step, std::uint32_t width, std::uint32_t height) {
    // A stream's layers other than its frame's texture and mesh; its fixed
    // camera only at odd positions (the others have per-frame cameras).
    std::vector<std::vector<std::shared_ptr<KEL::DataLayer>>> streamLayers;
    for (std::size_t s = 0; s < streams.size(); ++s) {
        auto layers = MakeFirstAtom(streams[s], count, width, height)->GetAllDataLayers();
        std::erase_if(layers, [&](const auto& layer) {
            const auto& type = layer->GetTypeGuid();
            return type == KEL::DataTypeTextureRGBA::TheTypeGuid() || type == KEL::DataTypeMesh::TheTypeGuid() ||
                   (s % 2 == 0 && type == KEL::DataTypeCameraParams::TheTypeGuid());
        });
        streamLayers.push_back(std::move(layers));
    }
    Frames frames(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        for (std::size_t s = 0; s < streams.size(); ++s) {
            AtomPtr atom = MakeFrameAtom(streams[s], firstFrameNr + i * step, width, height);
            if (s % 2 == 1) {
                atom->RemoveDataLayers(KEL::DataTypeCameraParams::TheTypeGuid());
            }
            for (const auto& layer : streamLayers[s]) {
                atom->AddDataLayer(layer, true);
            }
            frames[i].push_back(atom);
        }
    }
    return frames;
}

const std::vector<TargetStrategy>& TargetStrategies() {
    static const std::vector<TargetStrategy> strategies = {
        {"Writer", &TargetKEL2FileWriterFilterCreator, &TargetKEL2FileWriterAsyncFilterCreator, false, false},
        {"SnapshotWriter", &TargetKEL2FileSnapshotWriterFilterCreator, &TargetKEL2FileSnapshotWriterAsyncFilterCreator,
         true, false},
        {"PerStreamWriter", &TargetKEL2FilePerStreamWriterFilterCreator,
         &TargetKEL2FilePerStreamWriterAsyncFilterCreator, false, true},
        {"PerStreamSnapshotWriter", &TargetKEL2FilePerStreamSnapshotWriterFilterCreator,
         &TargetKEL2FilePerStreamSnapshotWriterAsyncFilterCreator, true, true},
    };
    return strategies;
}

std::string StrategyName(const ::testing::TestParamInfo<TargetStrategy>& info) { return info.param.name; }

KEL::RunOptions Arm(const TargetStrategy& s, const std::vector<KEL::Filter*>& targets, std::uint32_t snapshotFrames) {
    for (KEL::Filter* target : targets) {
        SetParam(*target, s.snapshot ? "Frames count per snapshot" : "Enable Recording",
                 s.snapshot ? std::to_string(snapshotFrames) : "true");
    }
    KEL::RunOptions options;
    options.beforeFrame = [=](KEL::Graph&, std::uint32_t nr) {
        for (KEL::Filter* target : targets) {
            if (s.snapshot && nr == 0) {
                Param<KEL::FilterParamCallback>(*target, "Take snapshot")->Press();
            }
        }
    };
    return options;
}

std::vector<std::string> OutputFiles(const TargetStrategy& s, const std::string& base,
                                     const std::vector<std::uint16_t>& streams) {
    if (!s.perStream) {
        return {base + ".kel"};
    }
    std::vector<std::string> files;
    files.reserve(streams.size());
    for (std::uint16_t stream : streams) {
        files.push_back(base + "_" + std::to_string(stream) + ".kel");
    }
    return files;
}

void SetParam(KEL::Filter& filter, const std::string& name, const std::string& text) {
    auto param = filter.FindParam(name);
    ASSERT_NE(param, nullptr) << name;
    std::string error;
    ASSERT_TRUE(param->SetValueFromString(text, &error)) << name << ": " << error;
}

std::map<std::uint16_t, std::vector<AtomPtr>> ReadStreams(const std::string& path, bool loosen) {
    std::map<std::uint16_t, std::vector<AtomPtr>> result;
    KEL::ReadKEL2File reader(path.c_str());
    const KEL::KelErrorCode opened = reader.Initialize();
    EXPECT_EQ(opened, 0U) << path;
    if (opened != 0) {
        return result;
    }
    for (int i = 0; i < reader.GetNumStreams(); ++i) {
        const std::uint16_t stream = reader.GetStreamId(i);
        std::shared_ptr<Kel2File::OptimizedDataLoosener> loosener;
        auto& atoms = result[stream];
        for (std::uint32_t frameNr : reader.GetFrameNumbers(stream)) {
            AtomPtr atom = reader.GetFrameAtom(stream, frameNr);
            if (loosen) {
                if (!loosener) {
                    loosener = std::make_shared<Kel2File::OptimizedDataLoosener>(
                        atom, atom->GetDataLayerByType(KEL::DataTypeStreamInfo::TheTypeGuid(), false));
                }
                loosener->LoosenOptimizedDataToAtom(atom);
            }
            atoms.push_back(atom);
        }
    }
    return result;
}

bool SameContent(const KEL::Atom& a, const KEL::Atom& b, std::string* why) {
    auto unmatched = b.GetAllDataLayers();
    std::string difference;
    if (a.GetStreamId() != b.GetStreamId() || a.GetTimeStamp() != b.GetTimeStamp()) {
        difference = "stream id or time stamp differs";
    } else if (a.GetNumDataLayers() != unmatched.size()) {
        difference = "layer count " + std::to_string(a.GetNumDataLayers()) + " vs " + std::to_string(unmatched.size());
    }
    for (const auto& layer : a.GetAllDataLayers()) {
        const auto match =
            std::ranges::find_if(unmatched, [&](const auto& other) { return layer->ContentEquals(*other); });
        if (match == unmatched.end() && difference.empty()) {
            difference = "no matching " + layer->TypeName() + " layer";
        } else if (match != unmatched.end()) {
            unmatched.erase(match);
        }
    }
    if (why != nullptr) {
        *why = difference;
    }
    return difference.empty();
}

void ExpectFileHoldsFrames(const std::string& path, const Frames& frames) {
    const auto streams = ReadStreams(path, true);
    ASSERT_FALSE(frames.empty());
    ASSERT_EQ(streams.size(), frames.front().size()) << path;
    for (std::size_t s = 0; s < frames.front().size(); ++s) {
        const std::uint16_t stream = frames.front()[s]->GetStreamId();
        ASSERT_TRUE(streams.count(stream)) << "stream " << stream;
        const auto& atoms = streams.at(stream);
        ASSERT_EQ(atoms.size(), frames.size()) << "stream " << stream;
        for (std::size_t i = 0; i < frames.size(); ++i) {
            std::string why;
            EXPECT_EQ(atoms[i]->GetFrameNr(), i);
            EXPECT_TRUE(SameContent(*atoms[i], *frames[i][s], &why))
                << "stream " << stream << " frame " << i << ": " << why;
        }
    }
}

GraphRun::GraphRun(std::vector<std::uint16_t> streams, Frames frames) {
    source_ = graph_.AddFilter(std::make_unique<MemorySource>(std::move(streams), std::move(frames)), "source");
    EXPECT_NE(source_, nullptr);
}

KEL::Filter* GraphRun::AddTarget(KEL::FilterCreator creator, const std::string& name) {
    std::string error;
    KEL::Filter* added = graph_.AddFilter(std::unique_ptr<KEL::Filter>(creator()), name, &error);
    EXPECT_NE(added, nullptr) << error;
    EXPECT_EQ(graph_.Connect(source_, added, &error), 0U) << error;
    return added;
}

KEL::RunResult GraphRun::Run(const KEL::RunOptions& options) {
    if (!initialized_) {
        std::string error;
        EXPECT_EQ(graph_.Initialize(&error), 0U) << error;
        initialized_ = true;
    }
    KEL::RunResult result = graph_.Run(options);
    EXPECT_TRUE(result.Ok()) << result.message;
    return result;
}

DirectDriver::DirectDriver(KEL::Target& target, std::vector<std::uint16_t> streams)
    : source_(std::move(streams), {}), target_(target) {
    EXPECT_EQ(target_.onInitializeParams(nullptr), 0U);
    target_.SetFilterState(KEL::FILTER_STATE_PARAMS_READY);
}

void DirectDriver::Initialize() {
    target_.SetInputProfile(&source_, source_.GetOutputProfile());
    EXPECT_EQ(target_.Initialize(nullptr), 0U);
}

void DirectDriver::Play() {
    EXPECT_EQ(target_.onPlay(), 0U);
    target_.SetFilterState(KEL::FILTER_STATE_PLAYING);
}

KEL::KelErrorCode DirectDriver::Process(const AtomPtr& atom) {
    return target_.onProcessFrame(KEL::Atom::Copy(atom, -1, true));
}

void DirectDriver::PostUpdate() { EXPECT_EQ(target_.onPostUpdate(), 0U); }

KEL::KelErrorCode DirectDriver::Deliver(const std::vector<AtomPtr>& frame) {
    KEL::KelErrorCode first = 0;
    for (const auto& atom : frame) {
        const KEL::KelErrorCode code = Process(atom);
        if (first == 0) {
            first = code;
        }
    }
    PostUpdate();
    return first;
}

void DirectDriver::Stop() {
    target_.SetFilterState(KEL::FILTER_STATE_STOPPING);
    EXPECT_EQ(target_.onStop(), 0U);
    target_.SetFilterState(KEL::FILTER_STATE_INITIALIZED);
}

}  // namespace kel_test
