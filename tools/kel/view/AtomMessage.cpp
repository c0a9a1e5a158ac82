#include "view/AtomMessage.h"

#include <KEL/DataTypeBinary.h>
#include <KEL/DataTypeCameraParams.h>
#include <KEL/DataTypeCylinderCrop.h>
#include <KEL/DataTypeMesh.h>
#include <KEL/DataTypeRecordingInfo.h>
#include <KEL/DataTypeStaticInfo.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/KELPurposeGuids.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <vector>

namespace KelView {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kAlignment = 16;

std::size_t AlignUp(std::size_t n) { return (n + kAlignment - 1) / kAlignment * kAlignment; }

// The blob section under construction: the buffers to copy and where each
// lands.
class BlobSection {
public:
    Json Add(const KelCommon::SharedBuffer& buffer) {
        const std::size_t offset = size_;
        blobs_.push_back(&buffer);
        offsets_.push_back(offset);
        size_ = AlignUp(offset + buffer.size());
        return Json{{"offset", offset}, {"bytes", buffer.size()}};
    }

    std::size_t Size() const noexcept { return size_; }

    void CopyTo(char* out) const {
        for (std::size_t i = 0; i < blobs_.size(); ++i) {
            if (blobs_[i]->size() != 0) {
                std::memcpy(out + offsets_[i], blobs_[i]->data(), blobs_[i]->size());
            }
        }
    }

private:
    std::vector<const KelCommon::SharedBuffer*> blobs_;
    std::vector<std::size_t> offsets_;
    std::size_t size_ = 0;
};

Json DescribeLayer(const KEL::DataLayer& layer, BlobSection& blobs) {
    Json j{{"type", layer.TypeName()},
           {"purpose", KEL::KELPurposeGuids::Describe(layer.GetPurposeGuid()).str()},
           {"version", layer.GetVersion()}};
    const KelCommon::Guid& type = layer.GetTypeGuid();
    if (type == KEL::DataTypeTextureRGBA::TheTypeGuid()) {
        const auto& t = static_cast<const KEL::DataTypeTextureRGBA&>(layer);
        j["width"] = t.GetWidth();
        j["height"] = t.GetHeight();
        j["pixels"] = blobs.Add(t.GetPixels());
    } else if (type == KEL::DataTypeMesh::TheTypeGuid()) {
        const auto& m = static_cast<const KEL::DataTypeMesh&>(layer);
        j["vertices"] = blobs.Add(m.GetVertices());
        j["indices"] = blobs.Add(m.GetIndices());
        j["texCoords"] = blobs.Add(m.GetTexCoords());
    } else if (type == KEL::DataTypeCameraParams::TheTypeGuid()) {
        const auto& c = static_cast<const KEL::DataTypeCameraParams&>(layer);
        j["width"] = c.width;
        j["height"] = c.height;
        j["fx"] = c.fx;
        j["fy"] = c.fy;
        j["cx"] = c.cx;
        j["cy"] = c.cy;
        j["distortion"] = c.distortion;
        j["pose"] = c.pose;
    } else if (type == KEL::DataTypeStreamInfo::TheTypeGuid()) {
        const auto& s = static_cast<const KEL::DataTypeStreamInfo&>(layer);
        j["name"] = s.GetName();
        j["frameRate"] = s.GetFrameRate();
        j["frames"] = s.GetNumFrames();
    } else if (type == KEL::DataTypeRecordingInfo::TheTypeGuid()) {
        const auto& r = static_cast<const KEL::DataTypeRecordingInfo&>(layer);
        j["startTime"] = r.GetStartTime();
        j["device"] = r.GetDevice();
        j["description"] = r.GetDescription();
    } else if (type == KEL::DataTypeStaticInfo::TheTypeGuid()) {
        j["values"] = static_cast<const KEL::DataTypeStaticInfo&>(layer).GetEntries();
    } else if (type == KEL::DataTypeCylinderCrop::TheTypeGuid()) {
        const auto& c = static_cast<const KEL::DataTypeCylinderCrop&>(layer);
        j["centerX"] = c.centerX;
        j["centerZ"] = c.centerZ;
        j["radius"] = c.radius;
        j["minY"] = c.minY;
        j["maxY"] = c.maxY;
    } else if (type == KEL::DataTypeBinary::TheTypeGuid()) {
        const auto& b = static_cast<const KEL::DataTypeBinary&>(layer);
        j["name"] = b.GetName();
        j["bytes"] = b.GetData().size();
    }
    return j;
}

std::string Assemble(const Json& header, const BlobSection* blobs) {
    // Invalid UTF-8 in a stored name becomes U+FFFD rather than an exception.
    const std::string text = header.dump(-1, ' ', false, Json::error_handler_t::replace);
    const std::size_t blobStart = AlignUp(4 + text.size());
    std::string message(blobStart + (blobs != nullptr ? blobs->Size() : 0), '\0');
    const auto length = static_cast<std::uint32_t>(text.size());
    for (int i = 0; i < 4; ++i) {
        message[i] = static_cast<char>((length >> (8 * i)) & 0xFFU);
    }
    std::memcpy(message.data() + 4, text.data(), text.size());
    if (blobs != nullptr) {
        blobs->CopyTo(message.data() + blobStart);
    }
    return message;
}

Json PlaceHeader(const AtomPlace& place) {
    return Json{{"take", place.take}, {"stream", place.stream}, {"frame", place.frame}};
}

}  // namespace

std::string EncodeAtomMessage(const AtomPlace& place, const KEL::Atom& atom) {
    Json header = PlaceHeader(place);
    header["frameNumber"] = atom.GetFrameNr();
    header["timeStamp"] = atom.GetTimeStamp();
    header["damaged"] = false;
    header["reason"] = "";
    BlobSection blobs;
    Json layers = Json::array();
    for (const auto& layer : atom.GetAllDataLayers()) {
        if (layer) {
            layers.push_back(DescribeLayer(*layer, blobs));
        }
    }
    header["layers"] = std::move(layers);
    return Assemble(header, &blobs);
}

std::string EncodeDamagedAtomMessage(const AtomPlace& place, std::uint32_t frameNumber, std::int64_t timeStamp,
                                     const std::string& reason) {
    Json header = PlaceHeader(place);
    header["frameNumber"] = frameNumber;
    header["timeStamp"] = timeStamp;
    header["damaged"] = true;
    header["reason"] = reason;
    header["layers"] = Json::array();
    return Assemble(header, nullptr);
}

}  // namespace KelView
