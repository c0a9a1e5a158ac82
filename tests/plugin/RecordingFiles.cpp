#include "plugin/RecordingFiles.h"

#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeCylinderCrop.h>
#include <KEL/DataTypeRecordingInfo.h>
#include <KEL/DataTypeStaticInfo.h>
#include <KEL/SerializeToKel.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "optimization/DataOptimizer.h"
#include "support/TestSupport.h"

namespace kel_test {

std::shared_ptr<KEL::Atom> MakeRecordedAtom(std::uint16_t stream, std::uint32_t frame, std::uint32_t numFrames,
                                            const RecordingOptions& options) {
    auto atom = std::make_shared<KEL::Atom>(stream, frame, options.timeStampOffset + 1'000'000LL + frame * 33'333LL);
    const std::uint32_t seed = stream * 100'003U + frame;
    atom->AddDataLayer(MakeTexture(8, 4, seed), true);
    if (!options.withoutMesh) {
        atom->AddDataLayer(MakeMesh(2, seed), true);
    }
    if (!options.withoutStreamInfo) {
        atom->AddDataLayer(
            std::make_shared<KEL::DataTypeStreamInfo>(numFrames, 30.0, "camera" + std::to_string(stream)), true);
    }
    atom->AddDataLayer(std::make_shared<KEL::DataTypeRecordingInfo>(1'700'000'000'000'000LL, "rig-a", "test take"),
                       true);
    atom->AddDataLayer(
        std::make_shared<KEL::DataTypeStaticInfo>(std::map<std::string, std::string>{
            {"take", options.take},
            {"marker", options.take + "-" + std::to_string(stream) + "-" + std::to_string(frame) + "-MARK"}}),
        true);
    atom->AddDataLayer(std::make_shared<KEL::DataTypeBinary>("calib.bin", PatternBuffer(32, stream)), true);
    atom->AddDataLayer(std::make_shared<KEL::DataTypeCylinderCrop>(0.0, 0.0, 1.5, 0.0, 2.2), true);
    atom->AddDataLayer(MakeCamera(1, stream), true);
    return atom;
}

void WriteRecording(const std::string& path, const std::vector<StreamSpec>& streams, const RecordingOptions& options) {
    KEL::SerializeToKel serializer(path.c_str(), true, KEL::CURRENT_VERSION, false);
    ASSERT_EQ(serializer.GetOpenResult(), 0U) << path;
    std::uint32_t maxFrames = 0;
    for (const auto& plan : streams) {
        maxFrames = std::max(maxFrames, plan.frames);
    }
    for (std::uint32_t frame = 0; frame < maxFrames; ++frame) {
        for (const auto& plan : streams) {
            if (frame >= plan.frames || std::ranges::find(plan.missingFrames, frame) != plan.missingFrames.end()) {
                continue;
            }
            auto atom = MakeRecordedAtom(plan.stream, frame, plan.frames, options);
            if (frame != 0 && options.optimizeLaterAtoms) {
                Kel2File::DataOptimizer::OptimizeAtomData(atom);
            }
            ASSERT_EQ(serializer.SerializeAtom(atom), 0U) << path;
        }
    }
    ASSERT_EQ(serializer.Close(), 0U) << path;
}

void CorruptAtMarker(const std::string& path, const std::string& marker) {
    auto bytes = ReadFileBytes(path);
    const auto it = std::search(bytes.begin(), bytes.end(), marker.begin(), marker.end());
    if (it == bytes.end()) {
        throw std::runtime_error("marker '" + marker + "' not found in " + path);
    }
    FlipByte(path, static_cast<std::uint64_t>(it - bytes.begin()), 0x20);
}

void SetParam(KEL::Filter& filter, const std::string& name, const std::string& value) {
    auto param = filter.FindParam(name);
    ASSERT_NE(param, nullptr) << name;
    std::string error;
    ASSERT_TRUE(param->SetValueFromString(value, &error)) << name << ": " << error;
}

std::string TakeOf(const KEL::Atom& atom) {
    for (const auto& layer : atom.GetAllDataLayers()) {
        if (auto info = KEL::LayerCast<KEL::DataTypeStaticInfo>(layer)) {
            const auto it = info->GetEntries().find("take");
            return it == info->GetEntries().end() ? std::string() : it->second;
        }
    }
    return {};
}

std::vector<std::string> SortedLayerKinds(const KEL::Atom& atom) {
    auto kinds = LayerKinds(atom);
    std::sort(kinds.begin(), kinds.end());
    return kinds;
}

PushResult PushFrame(KEL::Source& source, std::uint32_t frameNr) {
    PushResult result;
    result.code = source.pushDataToOutput(frameNr);
    result.atoms = source.TakeOutputQueue();
    return result;
}

}  // namespace kel_test
