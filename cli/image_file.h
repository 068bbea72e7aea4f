// Image files through OpenImageIO: reading frames into RGBA pixels at the file's precision,
// filling the effect's worlds from them, and writing worlds back to files.
//
// Colour channels are kept exactly as stored: every file is opened and written with
// oiio:UnassociatedAlpha = 1, so straight alpha is never premultiplied or divided, and no
// colour transform is applied. A file without alpha is opaque; a grey file becomes grey RGB.
#pragma once

#include <AE_Effect.h>

#include <cstdint>
#include <string>
#include <vector>

namespace quorvane::cli {

// The data type of a file's channels, as far as the command distinguishes them.
enum class PixelType { U8, U16, Half, Float };

const char* pixelTypeName(PixelType type);  // "8-bit", "16-bit", "half float", "float"

// What a file's header says.
struct ImageHeader {
    int width = 0;
    int height = 0;
    int channels = 0;
    PixelType type = PixelType::U8;
    std::string format;  // OpenImageIO's format name: "png", "openexr", "tiff", ...
    // Bits per channel of a 16-bit type that stores fewer (10-bit DPX), else 0.
    int bitsPerSample = 0;
};

// Opens `path` and reads its header only. Throws a file error naming the path and the reason.
ImageHeader probeImage(const std::string& path);

// One frame: RGBA, interleaved, row-major, in one of three storage types. 8-bit files are held
// as 8 bits, 16-bit files as 16 bits, half and float files (and any other type) as float.
struct Image {
    int width = 0;
    int height = 0;
    PixelType fileType = PixelType::U8;  // the type the file stores (Half stays Half here)
    std::vector<std::uint8_t> u8;        // filled when fileType is U8
    std::vector<std::uint16_t> u16;      // filled when fileType is U16
    std::vector<float> f32;              // filled when fileType is Half or Float

    bool isU8() const { return fileType == PixelType::U8; }
    bool isU16() const { return fileType == PixelType::U16; }
    bool isFloat() const { return fileType == PixelType::Half || fileType == PixelType::Float; }
    std::size_t pixelCount() const {
        return static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    }
};

// Reads the first image of `path` as RGBA: grey (one channel) becomes grey RGB, grey + alpha
// keeps its alpha, a missing alpha is opaque (255, 65535 or 1.0). Throws a file error.
Image readImage(const std::string& path);

// The image reduced (or enlarged) to width × height with OpenImageIO's resize; same storage.
Image resizeImage(const Image& image, int width, int height);

// Fills `world` (at the image's size) with the image at the world's depth, by the conversions
// in conversions.h. Rows are `rowbytes` apart.
void fillWorld(const Image& image, PF_LayerDef& world);

// --- Output ---

// What a format can hold, and what a frame is written as.
struct OutputFormat {
    std::string name;  // OpenImageIO's format name
    bool alpha = true;
    std::vector<PixelType> types;  // data types it holds
};

// The format OpenImageIO writes for `path` (by its extension). Throws a usage error when no
// format writes that extension.
OutputFormat outputFormatFor(const std::string& path);

// The type to write: `wanted` when the format holds it, else the nearest type it holds
// (the one that loses least).
PixelType outputTypeFor(const OutputFormat& format, PixelType wanted);

// Writes `world` to `path` as RGBA (RGB when `alpha` is false) of type `type`, through the
// conversions in conversions.h. With `colours` (the frame's input at the world's size), the
// colour channels of a 16-bit or float file come from it at its full precision instead of the
// world (8-bit files always take the world's); alpha always comes from the world. Throws a file
// error naming `reportPath` (the name the user knows).
void writeWorld(const std::string& path, const std::string& reportPath, const PF_LayerDef& world,
                PixelType type, bool alpha, const Image* colours = nullptr, int bitsPerSample = 0);

// Writes an 8-bit RGB picture (for contact sheets). Throws a file error.
void writeRgb8(const std::string& path, const std::string& reportPath, int width, int height,
               const std::vector<std::uint8_t>& rgb);

}  // namespace quorvane::cli
