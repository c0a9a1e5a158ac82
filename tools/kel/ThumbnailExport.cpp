#include "ThumbnailExport.h"

#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/PurposeGuids.h>
#include <KEL/ReadKEL2File.h>
#include <KEL/ThumbnailHelper.h>

#include "Command.h"
#include "PngWriter.h"

namespace KelTool {

std::optional<ThumbnailExport> ExportThumbnail(const std::string& path, std::optional<std::uint32_t> stream,
                                               bool regenerate, const std::string& pngPath, std::string* error) {
    KEL::ReadKEL2File reader(path.c_str());
    if (const auto code = reader.Initialize(); code != KEL::KEL_OK) {
        *error = CannotOpen(path, reader, code);
        return std::nullopt;
    }
    if (reader.GetNumStreams() <= 0) {
        *error = "'" + path + "' holds no streams";
        return std::nullopt;
    }
    ThumbnailExport result;
    result.stream = reader.GetFirstStreamId();
    if (stream) {
        bool found = false;
        for (int i = 0; i < reader.GetNumStreams() && !found; ++i) {
            found = reader.GetStreamId(i) == *stream;
        }
        if (!found) {
            *error = "'" + path + "' has no stream " + std::to_string(*stream);
            return std::nullopt;
        }
        result.stream = static_cast<std::uint16_t>(*stream);
    }
    const auto atom = reader.GetFirstFrameAtom(result.stream);
    if (!atom) {
        *error = "stream " + std::to_string(result.stream) + " of '" + path + "' has no readable atom";
        return std::nullopt;
    }
    std::shared_ptr<KEL::DataTypeTextureRGBA> image;
    if (!regenerate) {
        image = KEL::LayerCast<KEL::DataTypeTextureRGBA>(
            atom->GetDataLayer(KEL::PurposeGuid_THUMBNAIL, KEL::DataTypeTextureRGBA::TheTypeGuid(), false));
        result.stored = image != nullptr;
    }
    if (!image) {
        image = KEL::ThumbnailHelper::getThumbnail({atom}, false, false);
    }
    if (!image) {
        *error = "stream " + std::to_string(result.stream) + " of '" + path +
                 "' has no thumbnail and no image to make one from";
        return std::nullopt;
    }
    if (!WritePngRgba(pngPath, image->GetWidth(), image->GetHeight(), image->GetPixels().data(),
                      image->GetPixels().size(), error)) {
        return std::nullopt;
    }
    result.width = image->GetWidth();
    result.height = image->GetHeight();
    return result;
}

}  // namespace KelTool
