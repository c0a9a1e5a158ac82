#include "SyntheticCaptureSource.h"

#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeCameraParams.h>
#include <KEL/DataTypeCylinderCrop.h>
#include <KEL/DataTypeMesh.h>
#include <KEL/DataTypeRecordingInfo.h>
#include <KEL/DataTypeStaticInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/PurposeGuids.h>
#include <KelCommon/SharedBuffer.h>

#include <array>
#include <cmath>
#include <numbers>
#include <string>

namespace KelSynthetic {

namespace {

// 2023-11-14T22:13:20Z: a fixed start keeps the output reproducible.
constexpr std::int64_t kCaptureStartUs = 1'700'000'000'000'000;
constexpr std::uint32_t kMeshGrid = 16;
constexpr std::uint32_t kMaxStreams = 64;

struct Rgb {
    std::uint8_t r, g, b;
};

constexpr std::array<Rgb, 8> kBars{{{255, 255, 255},
                                    {255, 255, 0},
                                    {0, 255, 255},
                                    {0, 255, 0},
                                    {255, 0, 255},
                                    {255, 0, 0},
                                    {0, 0, 255},
                                    {16, 16, 16}}};

void PutPixel(std::vector<std::uint8_t>& px, std::uint32_t width, std::uint32_t x, std::uint32_t y, Rgb c) {
    const std::size_t at = (static_cast<std::size_t>(y) * width + x) * 4;
    px[at] = c.r;
    px[at + 1] = c.g;
    px[at + 2] = c.b;
    px[at + 3] = 255;
}

// Colour bars whose order identifies the camera (top quarter), a checkerboard
// tinted per camera that scrolls with the frame number, a disc that circles
// the image centre, and the frame number as 16 binary blocks (bottom strip).
KelCommon::SharedBuffer RenderImage(std::uint32_t width, std::uint32_t height, std::uint16_t camera,
                                    std::uint32_t frameNr) {
    std::vector<std::uint8_t> px(static_cast<std::size_t>(width) * height * 4);
    const std::uint32_t barsEnd = height / 4;
    const std::uint32_t counterStart = height - std::max<std::uint32_t>(height / 8, 1);
    const std::uint32_t square = std::max<std::uint32_t>(width / 16, 2);
    const Rgb tint = kBars[(camera + 1) % kBars.size()];
    const double angle = 2.0 * std::numbers::pi * static_cast<double>(frameNr % 120) / 120.0;
    const double discX = width / 2.0 + std::cos(angle) * width / 4.0;
    const double discY = height / 2.0 + std::sin(angle) * height / 6.0;
    const double discR = std::max(2.0, height / 10.0);
    for (std::uint32_t y = 0; y < height; ++y) {
        for (std::uint32_t x = 0; x < width; ++x) {
            Rgb c{};
            if (y < barsEnd) {
                c = kBars[(x * kBars.size() / width + camera) % kBars.size()];
            } else if (y >= counterStart) {
                const std::uint32_t bit = 15 - std::min<std::uint32_t>(x * 16 / width, 15);
                const bool on = ((frameNr >> bit) & 1U) != 0;
                const bool gap = (x * 16) % width < width / 64 + 1;
                c = gap ? Rgb{0, 0, 0} : (on ? Rgb{255, 255, 255} : Rgb{64, 64, 64});
            } else {
                const double dx = x - discX;
                const double dy = y - discY;
                if (dx * dx + dy * dy <= discR * discR) {
                    c = {255, 128, 0};
                } else {
                    const bool dark = (((x + frameNr * 2) / square) + (y / square)) % 2 == 0;
                    const auto scale = [dark](std::uint8_t v) {
                        return static_cast<std::uint8_t>(dark ? v / 4 : 64 + v * 3 / 4);
                    };
                    c = {scale(tint.r), scale(tint.g), scale(tint.b)};
                }
            }
            PutPixel(px, width, x, y, c);
        }
    }
    return KelCommon::SharedBuffer::FromVector(std::move(px));
}

template <typename T>
KelCommon::SharedBuffer ToBuffer(const std::vector<T>& values) {
    return KelCommon::SharedBuffer::Copy(values.data(), values.size() * sizeof(T));
}

// A rippling square surface, kMeshGrid x kMeshGrid vertices, one metre wide.
std::shared_ptr<KEL::DataTypeMesh> MakeSurface(std::uint32_t frameNr) {
    std::vector<float> vertices;
    std::vector<float> uvs;
    std::vector<std::uint32_t> indices;
    const float phase = static_cast<float>(frameNr) * 0.2F;
    for (std::uint32_t j = 0; j < kMeshGrid; ++j) {
        for (std::uint32_t i = 0; i < kMeshGrid; ++i) {
            const float u = static_cast<float>(i) / (kMeshGrid - 1);
            const float v = static_cast<float>(j) / (kMeshGrid - 1);
            const float height = 0.05F * std::sin(u * 6.0F + phase) * std::cos(v * 4.0F + phase * 0.5F);
            vertices.insert(vertices.end(), {u - 0.5F, 1.0F + height, v - 0.5F});
            uvs.insert(uvs.end(), {u, v});
        }
    }
    for (std::uint32_t j = 0; j + 1 < kMeshGrid; ++j) {
        for (std::uint32_t i = 0; i + 1 < kMeshGrid; ++i) {
            const std::uint32_t a = j * kMeshGrid + i;
            indices.insert(indices.end(), {a, a + kMeshGrid, a + 1, a + 1, a + kMeshGrid, a + kMeshGrid + 1});
        }
    }
    return std::make_shared<KEL::DataTypeMesh>(ToBuffer(vertices), ToBuffer(indices), ToBuffer(uvs),
                                               KEL::PurposeGuid_DYNAMIC);
}

// Cameras stand evenly spaced on a circle around the scene and slowly orbit
// it, each looking at the centre of the capture volume.
std::shared_ptr<KEL::DataTypeCameraParams> MakeCamera(std::uint16_t camera, std::uint32_t numCameras,
                                                      std::uint32_t frameNr, std::uint32_t width,
                                                      std::uint32_t height) {
    auto cam = std::make_shared<KEL::DataTypeCameraParams>(KEL::DataTypeCameraParams::kCurrentVersion,
                                                           KEL::PurposeGuid_CAMERA_PRIMARY);
    cam->width = width;
    cam->height = height;
    cam->fx = 0.9 * width;
    cam->fy = 0.9 * width;
    cam->cx = width / 2.0;
    cam->cy = height / 2.0;
    cam->distortion = {-0.05, 0.01, 0.0, 0.0, 0.0};
    const double a = 2.0 * std::numbers::pi * camera / numCameras + frameNr * 0.005;
    const std::array<double, 3> pos{2.5 * std::cos(a), 1.5, 2.5 * std::sin(a)};
    const std::array<double, 3> target{0.0, 1.0, 0.0};
    std::array<double, 3> fwd{target[0] - pos[0], target[1] - pos[1], target[2] - pos[2]};
    const double fl = std::sqrt(fwd[0] * fwd[0] + fwd[1] * fwd[1] + fwd[2] * fwd[2]);
    for (double& f : fwd) {
        f /= fl;
    }
    // right = fwd x up (up = +y), then up' = right x fwd.
    std::array<double, 3> right{-fwd[2], 0.0, fwd[0]};
    const double rl = std::sqrt(right[0] * right[0] + right[2] * right[2]);
    right[0] /= rl;
    right[2] /= rl;
    const std::array<double, 3> up{right[1] * fwd[2] - right[2] * fwd[1], right[2] * fwd[0] - right[0] * fwd[2],
                                   right[0] * fwd[1] - right[1] * fwd[0]};
    // Camera axes as in computer vision: x right, y down (image rows), z
    // forward; a rotation (determinant +1).
    cam->pose = {right[0], -up[0], fwd[0], pos[0], right[1], -up[1], fwd[1], pos[1],
                 right[2], -up[2], fwd[2], pos[2], 0.0,      0.0,    0.0,    1.0};
    return cam;
}

}  // namespace

SyntheticCaptureSource::SyntheticCaptureSource() = default;
SyntheticCaptureSource::~SyntheticCaptureSource() = default;

KelCommon::Guid SyntheticCaptureSource::TheTypeGuid() {
    static const KelCommon::Guid guid = KelCommon::Guid::FromHexString("A1CD1D32-E3B1-4C07-AC82-81595EA62008");
    return guid;
}

KEL::FilterClassInfo SyntheticCaptureSource::TheFilterClassInfo() {
    return KEL::FilterClassInfo("SyntheticCaptureSource", KEL::FILTER_CATEGORY_SOURCE);
}

KelCommon::Guid SyntheticCaptureSource::TypeGuid() const { return TheTypeGuid(); }

KEL::FilterClassInfo SyntheticCaptureSource::GetFilterClassInfo() const { return TheFilterClassInfo(); }

std::shared_ptr<KEL::Profile> SyntheticCaptureSource::GetOutputProfile() {
    return profile_ ? std::make_shared<KEL::Profile>(*profile_) : nullptr;
}

std::shared_ptr<KEL::Profile> SyntheticCaptureSource::GetAggregatedOutputProfile() { return GetOutputProfile(); }

std::uint32_t SyntheticCaptureSource::GetOutputNumStreams() { return numStreams_; }

std::vector<std::uint32_t> SyntheticCaptureSource::GetStreamIds() {
    std::vector<std::uint32_t> ids(numStreams_);
    for (std::uint32_t i = 0; i < numStreams_; ++i) {
        ids[i] = i;
    }
    return ids;
}

KEL::KelErrorCode SyntheticCaptureSource::onInitializeParams(KEL::Filter* /*filter*/) {
    if (!streamsParam_) {
        streamsParam_ =
            std::make_shared<KEL::FilterParamUInt32>("Streams", KEL::PARAM_FLAG_INIT_ONLY, 3, 1, kMaxStreams);
        framesParam_ =
            std::make_shared<KEL::FilterParamUInt32>("Frames", KEL::PARAM_FLAG_INIT_ONLY, 100, 1, 0xFFFFFFFEU);
        widthParam_ = std::make_shared<KEL::FilterParamUInt32>("Width", KEL::PARAM_FLAG_INIT_ONLY, 320, 16, 4096);
        heightParam_ = std::make_shared<KEL::FilterParamUInt32>("Height", KEL::PARAM_FLAG_INIT_ONLY, 240, 16, 4096);
        frameRateParam_ =
            std::make_shared<KEL::FilterParamUInt32>("Frame rate", KEL::PARAM_FLAG_INIT_ONLY, 30, 1, 1000);
        meshParam_ = std::make_shared<KEL::FilterParamBool>("Include mesh", KEL::PARAM_FLAG_INIT_ONLY, true);
    }
    addParam(streamsParam_, true);
    addParam(framesParam_, true);
    addParam(widthParam_, true);
    addParam(heightParam_, true);
    addParam(frameRateParam_, true);
    addParam(meshParam_, true);
    return KEL::KEL_OK;
}

KEL::KelErrorCode SyntheticCaptureSource::onInitialize(KEL::Filter* /*filter*/) {
    numStreams_ = streamsParam_->GetValue();
    numFrames_ = framesParam_->GetValue();
    width_ = widthParam_->GetValue();
    height_ = heightParam_->GetValue();
    frameRate_ = frameRateParam_->GetValue();
    withMesh_ = meshParam_->GetValue();
    streamInfo_ = std::make_shared<KEL::DataTypeStreamInfo>(numFrames_, static_cast<double>(frameRate_),
                                                            "Synthetic capture", KEL::PurposeGuid_STATIC);
    profile_ = std::make_shared<KEL::Profile>();
    for (const auto& layer : MakeAtom(0, 0)->GetAllDataLayers()) {
        profile_->Add(layer->GetDataProfile());
    }
    return KEL::KEL_OK;
}

KEL::KelErrorCode SyntheticCaptureSource::onDeInitialize() {
    numStreams_ = 0;
    streamInfo_.reset();
    profile_.reset();
    return KEL::KEL_OK;
}

std::shared_ptr<KEL::DataTypeStreamInfo> SyntheticCaptureSource::GetStreamInfo() { return streamInfo_; }

KEL::KelErrorCode SyntheticCaptureSource::pushDataToOutput(std::uint32_t frameNr) {
    if (numStreams_ == 0 || frameNr >= numFrames_) {
        return 1;
    }
    for (std::uint32_t s = 0; s < numStreams_; ++s) {
        pushToOutputQueue(MakeAtom(static_cast<std::uint16_t>(s), frameNr));
    }
    return KEL::KEL_OK;
}

std::shared_ptr<KEL::Atom> SyntheticCaptureSource::MakeAtom(std::uint16_t streamId, std::uint32_t frameNr) const {
    const std::int64_t stamp =
        kCaptureStartUs + static_cast<std::int64_t>(frameNr) * 1'000'000 / std::max<std::uint32_t>(frameRate_, 1);
    auto atom = std::make_shared<KEL::Atom>(streamId, frameNr, stamp);
    const std::string cameraName = "Camera " + std::to_string(streamId);

    atom->AddDataLayer(std::make_shared<KEL::DataTypeStreamInfo>(numFrames_, static_cast<double>(frameRate_),
                                                                 cameraName, KEL::PurposeGuid_STATIC),
                       true);
    atom->AddDataLayer(
        std::make_shared<KEL::DataTypeRecordingInfo>(kCaptureStartUs, "KEL synthetic rig",
                                                     "Synthetic multi-camera capture", KEL::PurposeGuid_STATIC),
        true);
    auto info =
        std::make_shared<KEL::DataTypeStaticInfo>(std::map<std::string, std::string>{}, KEL::PurposeGuid_STATIC);
    info->Set("rig", "synthetic");
    info->Set("camera", std::to_string(streamId));
    info->Set("serial", "SYN-" + std::to_string(1000 + streamId));
    atom->AddDataLayer(info, true);
    const std::string calibration = "camera " + std::to_string(streamId) + "\nfx " + std::to_string(0.9 * width_) +
                                    "\nresolution " + std::to_string(width_) + "x" + std::to_string(height_) + "\n";
    atom->AddDataLayer(std::make_shared<KEL::DataTypeBinary>(
                           "calibration.txt", KelCommon::SharedBuffer::Copy(calibration.data(), calibration.size()),
                           KEL::PurposeGuid_STATIC),
                       true);
    atom->AddDataLayer(std::make_shared<KEL::DataTypeCylinderCrop>(0.0, 0.0, 1.5, 0.0, 2.2, KEL::PurposeGuid_CROP),
                       true);
    atom->AddDataLayer(
        std::make_shared<KEL::DataTypeTextureRGBA>(width_, height_, RenderImage(width_, height_, streamId, frameNr),
                                                   KEL::PurposeGuid_PRIMARY_COLOR),
        true);
    if (withMesh_) {
        atom->AddDataLayer(MakeSurface(frameNr), true);
    }
    atom->AddDataLayer(MakeCamera(streamId, std::max<std::uint32_t>(numStreams_, 1), frameNr, width_, height_), true);
    return atom;
}

}  // namespace KelSynthetic
