#include "targets/TargetTestSupport.h"

#include <KEL/DataTypeStreamInfo.h>
#include <KEL/PurposeGuids.h>
#include <KEL/ReadKEL2File.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "optimization/OptimizedDataLoosener.h"
#include "support/TestSupport.h"

namespace kel_test {

namespace {

// Plays frames held in memory. It pushes copies, so the held atoms keep their
// frame numbers whatever the targets do.
class MemorySource final : public KEL::Source {
public:
    MemorySource(std::vector<std::uint16_t> streams, Frames frames, StreamListing listing)
        : streams_(std::move(streams)), frames_(std::move(frames)), listing_(listing) {}

    KelCommon::Guid TypeGuid() const override {
        return KelCommon::Guid::FromHexString("0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0");
    }
    KEL::FilterClassInfo GetFilterClassInfo() const override {
        return KEL::FilterClassInfo("MemorySource", KEL::FILTER_CATEGORY_SOURCE);
    }
    std::vector<std::uint32_t> GetStreamIds() override {
        return listing_ == StreamListing::kIds ? std::vector<std::uint32_t>(streams_.begin(), streams_.end())
                                               : std::vector<std::uint32_t>{};
    }
    std::uint32_t GetOutputNumStreams() override {
        return listing_ == StreamListing::kNothing ? 0 : static_cast<std::uint32_t>(streams_.size());
    }
    KEL::KelErrorCode pushDataToOutput(std::uint32_t frameNr) override {
        if (frameNr >= frames_.size()) {
            return 1;
        }
        for (const auto& atom : frames_[frameNr]) {
            pushToOutputQueue(KEL::Atom::Copy(atom, -1, true));
        }
        return 0;
    }

private:
    std::vector<std::uint16_t> streams_;
    Frames frames_;
    StreamListing listing_;
};

}  // namespace

Frames MakeCompleteFrames(const std::vector<std::uint16_t>& streams, std::uint32_t count, std::uint32_t firstFrameNr,
                          std::uint32_t step, std::uint32_t width, std::uint32_t height) {
    Frames frames(count);
    for (std::size_t s = 0; s < streams.size(); ++s) {
        // The stream's layers other than its frame's texture and mesh; its
        // fixed camera only at odd positions (the others have per-frame ones).
        auto shared = MakeFirstAtom(streams[s], count, width, height)->GetAllDataLayers();
        std::erase_if(shared, [&](const auto& layer) {
            const auto& type = layer->GetTypeGuid();
            return type == KEL::DataTypeTextureRGBA::TheTypeGuid() || type == KEL::DataTypeMesh::TheTypeGuid() ||
                   (s % 2 == 0 && type == KEL::DataTypeCameraParams::TheTypeGuid());
        });
        for (std::uint32_t i = 0; i < count; ++i) {
            AtomPtr atom = MakeFrameAtom(streams[s], firstFrameNr + i * step, width, height);
            if (s % 2 == 1) {
                atom->RemoveDataLayers(KEL::DataTypeCameraParams::TheTypeGuid());
            }
            for (const auto& layer : shared) {
                atom->AddDataLayer(layer, true);
            }
            frames[i].push_back(atom);
        }
    }
    return frames;
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
    if (reader.Initialize() != 0) {
        ADD_FAILURE() << "cannot open " << path;
        return result;
    }
    for (int i = 0; i < reader.GetNumStreams(); ++i) {
        const std::uint16_t stream = reader.GetStreamId(i);
        std::shared_ptr<Kel2File::OptimizedDataLoosener> loosener;
        for (std::uint32_t frameNr : reader.GetFrameNumbers(stream)) {
            AtomPtr atom = reader.GetFrameAtom(stream, frameNr);
            if (loosen && !loosener) {
                loosener = std::make_shared<Kel2File::OptimizedDataLoosener>(
                    atom, atom->GetDataLayerByType(KEL::DataTypeStreamInfo::TheTypeGuid(), false));
            }
            if (loosener) {
                loosener->LoosenOptimizedDataToAtom(atom);
                atom->RemoveDataLayers(KEL::PurposeGuid_THUMBNAIL, KEL::DataTypeTextureRGBA::TheTypeGuid());
            }
            result[stream].push_back(atom);
        }
    }
    return result;
}

std::size_t CountThumbnails(const KEL::Atom& atom) {
    return static_cast<std::size_t>(std::ranges::count_if(atom.GetAllDataLayers(), [](const auto& layer) {
        return layer->GetPurposeGuid() == KEL::PurposeGuid_THUMBNAIL &&
               layer->GetTypeGuid() == KEL::DataTypeTextureRGBA::TheTypeGuid();
    }));
}

bool SameContent(const KEL::Atom& a, const KEL::Atom& b, std::string* why) {
    auto unmatched = b.GetAllDataLayers();
    why->clear();
    if (a.GetStreamId() != b.GetStreamId() || a.GetTimeStamp() != b.GetTimeStamp()) {
        *why = "stream id or time stamp differs";
    } else if (a.GetNumDataLayers() != unmatched.size()) {
        *why = "layer count " + std::to_string(a.GetNumDataLayers()) + " vs " + std::to_string(unmatched.size());
    }
    for (const auto& layer : a.GetAllDataLayers()) {
        const auto match =
            std::ranges::find_if(unmatched, [&](const auto& other) { return layer->ContentEquals(*other); });
        if (match != unmatched.end()) {
            unmatched.erase(match);
        } else if (why->empty()) {
            *why = "no matching " + layer->TypeName() + " layer";
        }
    }
    return why->empty();
}

void ExpectFileHoldsFrames(const std::string& path, const Frames& frames) {
    const auto streams = ReadStreams(path, true);
    ASSERT_EQ(streams.size(), frames.at(0).size()) << path;
    for (std::size_t s = 0; s < frames[0].size(); ++s) {
        const std::uint16_t stream = frames[0][s]->GetStreamId();
        ASSERT_TRUE(streams.contains(stream)) << "stream " << stream;
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

GraphRun::GraphRun(std::vector<std::uint16_t> streams, Frames frames, StreamListing listing)
    : source_(
          graph_.AddFilter(std::make_unique<MemorySource>(std::move(streams), std::move(frames), listing), "source")) {}

KEL::Filter* GraphRun::AddTarget(KEL::FilterCreator creator, const std::string& name) {
    std::string error;
    KEL::Filter* added = graph_.AddFilter(std::unique_ptr<KEL::Filter>(creator()), name, &error);
    EXPECT_NE(added, nullptr) << error;
    EXPECT_EQ(graph_.Connect(source_, added, &error), 0U) << error;
    return added;
}

KEL::RunResult GraphRun::Run(const KEL::RunOptions& options) {
    std::string error;
    EXPECT_EQ(graph_.Initialize(&error), 0U) << error;
    KEL::RunResult result = graph_.Run(options);
    EXPECT_TRUE(result.Ok()) << result.message;
    return result;
}

DirectDriver::DirectDriver(KEL::Target& target, std::vector<std::uint16_t> streams)
    : source_(std::make_unique<MemorySource>(std::move(streams), Frames{}, StreamListing::kIds)), target_(target) {
    EXPECT_EQ(target_.onInitializeParams(nullptr), 0U);
    target_.SetFilterState(KEL::FILTER_STATE_PARAMS_READY);
}

void DirectDriver::Initialize() {
    target_.SetInputProfile(source_.get(), source_->GetOutputProfile());
    EXPECT_EQ(target_.Initialize(nullptr), 0U);
}

void DirectDriver::Play() {
    EXPECT_EQ(target_.onPlay(), 0U);
    target_.SetFilterState(KEL::FILTER_STATE_PLAYING);
}

void DirectDriver::PostUpdate() { EXPECT_EQ(target_.onPostUpdate(), 0U); }

KEL::KelErrorCode DirectDriver::Deliver(const std::vector<AtomPtr>& frame) {
    KEL::KelErrorCode first = 0;
    for (const auto& atom : frame) {
        const KEL::KelErrorCode code = Process(atom);
        first = first == 0 ? code : first;
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
