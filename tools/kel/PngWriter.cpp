#include "PngWriter.h"

#include <png.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <vector>

namespace KelTool {

namespace {

// libpng reports errors through longjmp; the handler stores the message
// and jumps back to WritePngRgba's setjmp point.
void OnPngError(png_structp png, png_const_charp message) {
    auto* error = static_cast<std::string*>(png_get_error_ptr(png));
    if (error != nullptr) {
        *error = message;
    }
    png_longjmp(png, 1);
}

void OnPngWarning(png_structp /*png*/, png_const_charp /*message*/) {}

// Everything that must survive a longjmp lives outside the function that
// calls setjmp, so no automatic object is skipped over.
struct PngWriteJob {
    std::FILE* file = nullptr;
    png_structp png = nullptr;
    png_infop info = nullptr;
    std::vector<png_bytep> rows;
    std::string message;
};

bool RunPngWrite(PngWriteJob& job, std::uint32_t width, std::uint32_t height) {
    if (setjmp(png_jmpbuf(job.png)) != 0) {
        return false;
    }
    png_init_io(job.png, job.file);
    png_set_IHDR(job.png, job.info, width, height, 8, PNG_COLOR_TYPE_RGBA, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(job.png, job.info);
    png_write_image(job.png, job.rows.data());
    png_write_end(job.png, nullptr);
    return true;
}

// Checks the image's size against its pixel buffer.
bool ValidImage(std::uint32_t width, std::uint32_t height, const std::uint8_t* pixels, std::size_t size,
                std::string* error) {
    if (width == 0 || height == 0 || width > 0x7FFFFFFFU || height > 0x7FFFFFFFU) {
        *error = "cannot write an image of " + std::to_string(width) + "x" + std::to_string(height) + " pixels";
        return false;
    }
    if (pixels == nullptr || size != static_cast<std::size_t>(width) * height * 4) {
        *error = "pixel buffer holds " + std::to_string(size) + " bytes, expected " +
                 std::to_string(static_cast<std::size_t>(width) * height * 4);
        return false;
    }
    return true;
}

}  // namespace

std::vector<std::uint8_t> EncodePngRgba(std::uint32_t width, std::uint32_t height, const std::uint8_t* pixels,
                                        std::size_t size, std::string* error) {
    if (!ValidImage(width, height, pixels, size, error)) {
        return {};
    }
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = width;
    image.height = height;
    image.format = PNG_FORMAT_RGBA;
    // The first call only measures.
    png_alloc_size_t bytes = 0;
    if (png_image_write_get_memory_size(image, bytes, 0, pixels, 0, nullptr) == 0) {
        *error = std::string("cannot encode a PNG image: ") + image.message;
        png_image_free(&image);
        return {};
    }
    std::vector<std::uint8_t> png(bytes);
    if (png_image_write_to_memory(&image, png.data(), &bytes, 0, pixels, 0, nullptr) == 0) {
        *error = std::string("cannot encode a PNG image: ") + image.message;
        png_image_free(&image);
        return {};
    }
    png.resize(bytes);
    return png;
}

bool WritePngRgba(const std::string& path, std::uint32_t width, std::uint32_t height, const std::uint8_t* pixels,
                  std::size_t size, std::string* error) {
    if (!ValidImage(width, height, pixels, size, error)) {
        return false;
    }
    PngWriteJob job;
    job.file = std::fopen(path.c_str(), "wb");
    if (job.file == nullptr) {
        *error = "cannot create '" + path + "': " + std::generic_category().message(errno);
        return false;
    }
    job.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &job.message, &OnPngError, &OnPngWarning);
    job.info = job.png != nullptr ? png_create_info_struct(job.png) : nullptr;
    bool ok = job.info != nullptr;
    if (ok) {
        job.rows.resize(height);
        for (std::uint32_t y = 0; y < height; ++y) {
            // libpng takes non-const row pointers but does not write through them.
            job.rows[y] = const_cast<png_bytep>(pixels + static_cast<std::size_t>(y) * width * 4);
        }
        ok = RunPngWrite(job, width, height);
    } else {
        job.message = "out of memory";
    }
    png_destroy_write_struct(job.png != nullptr ? &job.png : nullptr, job.info != nullptr ? &job.info : nullptr);
    const bool closed = std::fclose(job.file) == 0;
    if (!ok || !closed) {
        *error =
            "cannot write '" + path + "': " + (ok ? std::string(std::generic_category().message(errno)) : job.message);
        std::remove(path.c_str());
        return false;
    }
    return true;
}

}  // namespace KelTool
