#pragma once

#include <KEL/Atom.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/FilterParams.h>
#include <KEL/Profile.h>
#include <KEL/Source.h>
#include <KelCommon/Guid.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace KelSynthetic {

// A source that renders a multi-camera capture on the fly, for demos and
// tests: every stream is one camera looking at the same animated scene.
//
// Each atom it pushes is complete, the way a capture device delivers it: a
// colour image with a pattern that is easy to recognise (colour bars that
// identify the camera, a moving checkerboard, a frame counter), a mesh of a
// rippling surface, per-frame camera parameters (an orbiting pose), and the
// stream-level layers (stream, recording and static information, the rig's
// calibration attachment, the capture volume's crop cylinder).
//
// The output is deterministic: the same parameters give the same bytes, time
// stamps included (frame n of a stream is stamped at a fixed start time plus
// n frame periods).
//
// Parameters are read in onInitialize; changing them takes effect at the
// next initialisation. Hooks run on the graph thread only.
class SyntheticCaptureSource : public KEL::Source {
public:
    SyntheticCaptureSource();
    ~SyntheticCaptureSource() override;

    static KelCommon::Guid TheTypeGuid();
    static KEL::FilterClassInfo TheFilterClassInfo();

    KelCommon::Guid TypeGuid() const override;
    KEL::FilterClassInfo GetFilterClassInfo() const override;
    std::shared_ptr<KEL::Profile> GetOutputProfile() override;
    std::shared_ptr<KEL::Profile> GetAggregatedOutputProfile() override;
    std::uint32_t GetOutputNumStreams() override;
    std::vector<std::uint32_t> GetStreamIds() override;
    KEL::KelErrorCode onInitializeParams(KEL::Filter* filter) override;
    KEL::KelErrorCode onInitialize(KEL::Filter* filter) override;
    KEL::KelErrorCode onDeInitialize() override;
    std::shared_ptr<KEL::DataTypeStreamInfo> GetStreamInfo() override;
    // Pushes one atom per camera; returns 1 (nothing pushed) past the last frame.
    KEL::KelErrorCode pushDataToOutput(std::uint32_t frameNr) override;

    // The atom of one camera for one frame (also used by tests).
    std::shared_ptr<KEL::Atom> MakeAtom(std::uint16_t streamId, std::uint32_t frameNr) const;

private:
    std::shared_ptr<KEL::FilterParamUInt32> streamsParam_;
    std::shared_ptr<KEL::FilterParamUInt32> framesParam_;
    std::shared_ptr<KEL::FilterParamUInt32> widthParam_;
    std::shared_ptr<KEL::FilterParamUInt32> heightParam_;
    std::shared_ptr<KEL::FilterParamUInt32> frameRateParam_;
    std::shared_ptr<KEL::FilterParamBool> meshParam_;

    // Values captured at initialisation.
    std::uint32_t numStreams_ = 0;
    std::uint32_t numFrames_ = 0;
    std::uint32_t width_ = 0;
    std::uint32_t height_ = 0;
    std::uint32_t frameRate_ = 0;
    bool withMesh_ = false;
    std::shared_ptr<KEL::DataTypeStreamInfo> streamInfo_;
    std::shared_ptr<KEL::Profile> profile_;
};

}  // namespace KelSynthetic
