#include "cli/image_file.h"

#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>
#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <memory>

#include "cli/conversions.h"
#include "cli/errors.h"

namespace OIIO = OIIO_NAMESPACE;

namespace quorvane::cli {

namespace {

// Trims OpenImageIO's messages to one line.
std::string
oneLine(std::string message) {
    while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) {
        message.pop_back();
    }
    std::replace(message.begin(), message.end(), '\n', ' ');
    return message.empty() ? std::string("unknown OpenImageIO error") : message;
}

PixelType
typeOf(OIIO::TypeDesc format) {
    switch (format.basetype) {
        case OIIO::TypeDesc::UINT8:
            return PixelType::U8;
        case OIIO::TypeDesc::UINT16:
            return PixelType::U16;
        case OIIO::TypeDesc::HALF:
            return PixelType::Half;
        default:
            // float, double and the rarer integer types are read as float
            return PixelType::Float;
    }
}

OIIO::TypeDesc
typeDesc(PixelType type) {
    switch (type) {
        case PixelType::U8:
            return OIIO::TypeDesc::UINT8;
        case PixelType::U16:
            return OIIO::TypeDesc::UINT16;
        case PixelType::Half:
            return OIIO::TypeDesc::HALF;
        case PixelType::Float:
            break;
    }
    return OIIO::TypeDesc::FLOAT;
}

// The storage type an image of file type `type` is held in.
OIIO::TypeDesc
storageDesc(PixelType type) {
    return type == PixelType::Half ? OIIO::TypeDesc::FLOAT : typeDesc(type);
}

// The file type of `layout`'s channels; mixed per-channel types count as float.
PixelType
fileTypeOf(const OIIO::ImageSpec& layout) {
    PixelType type = typeOf(layout.format);
    for (const OIIO::TypeDesc& channel : layout.channelformats) {
        if (typeOf(channel) != type) {
            return PixelType::Float;
        }
    }
    return type;
}

std::unique_ptr<OIIO::ImageInput>
openInput(const std::string& path) {
    OIIO::ImageSpec config;
    config.attribute("oiio:UnassociatedAlpha", 1);
    auto in = OIIO::ImageInput::open(path, &config);
    if (!in) {
        throw fileError(path, "cannot read the image: " + oneLine(OIIO::geterror()));
    }
    return in;
}

// Where R, G, B and A come from among a file's channels (-1: none).
struct ChannelMap {
    int r = 0;
    int g = 0;
    int b = 0;
    int a = -1;
};

// The channel called `name`, or failing that the first called "<layer>.<name>" (an OpenEXR
// file holding only layered channels); -1 when there is none.
int
channelNamed(const OIIO::ImageSpec& layout, const std::string& name) {
    const int count = std::min<int>(layout.nchannels, static_cast<int>(layout.channelnames.size()));
    for (int c = 0; c < count; ++c) {
        if (layout.channelnames[c] == name) {
            return c;
        }
    }
    for (int c = 0; c < count; ++c) {
        const std::string& channel = layout.channelnames[c];
        if (channel.size() > name.size() + 1 &&
            channel.compare(channel.size() - name.size() - 1, std::string::npos, "." + name) == 0) {
            return c;
        }
    }
    return -1;
}

ChannelMap
mapChannels(const OIIO::ImageSpec& layout) {
    ChannelMap map;
    const int n = layout.nchannels;
    const int r = channelNamed(layout, "R");
    const int g = channelNamed(layout, "G");
    const int b = channelNamed(layout, "B");
    const int y = channelNamed(layout, "Y");
    if (r >= 0 && g >= 0 && b >= 0) {
        map = {r, g, b, channelNamed(layout, "A")};
    } else if (y >= 0) {
        map = {y, y, y, channelNamed(layout, "A")};
    } else if (n < 3) {
        // grey, or grey and alpha
        map = {0, 0, 0, n == 2 ? 1 : -1};
    } else {
        map = {0, 1, 2, n >= 4 ? 3 : -1};
    }
    if (map.a < 0 && layout.alpha_channel >= 0 && layout.alpha_channel < n) {
        map.a = layout.alpha_channel;
    }
    return map;
}

template <typename T>
void
gatherRgba(const std::vector<T>& file, int fileChannels, int firstChannel, const ChannelMap& map,
           T opaque, std::size_t pixels, std::vector<T>& rgba) {
    rgba.resize(pixels * 4);
    const std::size_t stride = static_cast<std::size_t>(fileChannels);
    for (std::size_t i = 0; i < pixels; ++i) {
        // channel c of pixel i sits at i × stride + c − firstChannel
        const std::size_t base = i * stride - static_cast<std::size_t>(firstChannel);
        T* q = &rgba[i * 4];
        q[0] = file[base + map.r];
        q[1] = file[base + map.g];
        q[2] = file[base + map.b];
        q[3] = map.a >= 0 ? file[base + map.a] : opaque;
    }
}

template <typename T>
void
readChannels(OIIO::ImageInput& in, const std::string& path, const ChannelMap& map,
             OIIO::TypeDesc desc, T opaque, Image& image, std::vector<T>& rgba) {
    const int first = std::min({map.r, map.g, map.b, map.a < 0 ? map.r : map.a});
    const int last = std::max({map.r, map.g, map.b, map.a});
    const int count = last - first + 1;
    std::vector<T> file(image.pixelCount() * static_cast<std::size_t>(count));
    if (!in.read_image(0, 0, first, last + 1, desc, file.data())) {
        throw fileError(path, "cannot read the image: " + oneLine(in.geterror()));
    }
    gatherRgba(file, count, first, map, opaque, image.pixelCount(), rgba);
}

template <typename T>
OIIO::ImageBuf
wrap(int width, int height, OIIO::TypeDesc desc, T* data) {
    return OIIO::ImageBuf(OIIO::ImageSpec(width, height, 4, desc), data);
}

template <typename T>
void
resizeStorage(const Image& from, const std::vector<T>& src, OIIO::TypeDesc desc, int width,
              int height, std::vector<T>& dst) {
    OIIO::ImageBuf in = wrap(from.width, from.height, desc, const_cast<T*>(src.data()));
    OIIO::ImageBuf out(OIIO::ImageSpec(width, height, 4, desc));
    if (!OIIO::ImageBufAlgo::resize(out, in)) {
        throw CliError("cannot resize a frame: " + oneLine(out.geterror()));
    }
    dst.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4);
    out.get_pixels(OIIO::ROI(0, width, 0, height, 0, 1, 0, 4), desc, dst.data());
}

// One world pixel at 16 bits from image pixel i.
PF_Pixel16
pixel16(const Image& image, std::size_t i) {
    auto channel = [&](int c) -> A_u_short {
        const std::size_t k = i * 4 + static_cast<std::size_t>(c);
        if (image.isU8()) {
            return world16FromWorld8(image.u8[k]);
        }
        if (image.isU16()) {
            return world16FromFile16(image.u16[k]);
        }
        return world16FromFloat(image.f32[k]);
    };
    return PF_Pixel16{channel(3), channel(0), channel(1), channel(2)};
}

// The output formats' data types, for the formats the command is documented to write; any
// other format is taken to hold 8 bits only.
std::vector<PixelType>
typesHeldBy(const std::string& format) {
    using enum PixelType;
    if (format == "png") {
        return {U8, U16};
    }
    if (format == "tiff") {
        return {U8, U16, Half, Float};
    }
    if (format == "openexr") {
        return {Half, Float};
    }
    if (format == "dpx") {
        return {U8, U16};
    }
    return {U8};
}

}  // namespace

const char*
pixelTypeName(PixelType type) {
    switch (type) {
        case PixelType::U8:
            return "8-bit";
        case PixelType::U16:
            return "16-bit";
        case PixelType::Half:
            return "half float";
        case PixelType::Float:
            break;
    }
    return "float";
}

ImageHeader
probeImage(const std::string& path) {
    auto in = openInput(path);
    const OIIO::ImageSpec& layout = in->spec();
    ImageHeader header;
    header.width = layout.width;
    header.height = layout.height;
    header.channels = layout.nchannels;
    header.type = fileTypeOf(layout);
    header.format = in->format_name();
    const int bits = layout.get_int_attribute("oiio:BitsPerSample", 0);
    if (header.type == PixelType::U16 && bits > 8 && bits < 16) {
        header.bitsPerSample = bits;
    }
    if (header.width <= 0 || header.height <= 0 || header.channels <= 0) {
        throw fileError(path, "the image is empty");
    }
    return header;
}

Image
readImage(const std::string& path) {
    auto in = openInput(path);
    const OIIO::ImageSpec& layout = in->spec();
    if (layout.width <= 0 || layout.height <= 0 || layout.nchannels <= 0) {
        throw fileError(path, "the image is empty");
    }
    Image image;
    image.width = layout.width;
    image.height = layout.height;
    image.fileType = fileTypeOf(layout);
    const ChannelMap map = mapChannels(layout);
    const OIIO::TypeDesc desc = storageDesc(image.fileType);
    if (image.isU8()) {
        readChannels<std::uint8_t>(*in, path, map, desc, 255, image, image.u8);
    } else if (image.isU16()) {
        readChannels<std::uint16_t>(*in, path, map, desc, 65535, image, image.u16);
    } else {
        readChannels<float>(*in, path, map, desc, 1.0f, image, image.f32);
    }
    in->close();
    return image;
}

Image
resizeImage(const Image& image, int width, int height) {
    Image out;
    out.width = width;
    out.height = height;
    out.fileType = image.fileType;
    const OIIO::TypeDesc desc = storageDesc(image.fileType);
    if (image.isU8()) {
        resizeStorage(image, image.u8, desc, width, height, out.u8);
    } else if (image.isU16()) {
        resizeStorage(image, image.u16, desc, width, height, out.u16);
    } else {
        resizeStorage(image, image.f32, desc, width, height, out.f32);
    }
    return out;
}

void
fillWorld(const Image& image, PF_LayerDef& world) {
    char* base = reinterpret_cast<char*>(world.data);
    const int width = std::min<int>(image.width, world.width);
    const int height = std::min<int>(image.height, world.height);
    for (int y = 0; y < height; ++y) {
        const std::size_t rowStart = static_cast<std::size_t>(y) * image.width;
        if (PF_WORLD_IS_DEEP(&world)) {
            auto* row = reinterpret_cast<PF_Pixel16*>(base + y * world.rowbytes);
            for (int x = 0; x < width; ++x) {
                row[x] = pixel16(image, rowStart + x);
            }
        } else {
            auto* row = reinterpret_cast<PF_Pixel*>(base + y * world.rowbytes);
            for (int x = 0; x < width; ++x) {
                const std::size_t k = (rowStart + x) * 4;
                if (image.isU8()) {
                    row[x] =
                        PF_Pixel{image.u8[k + 3], image.u8[k], image.u8[k + 1], image.u8[k + 2]};
                } else {
                    const PF_Pixel16 p = pixel16(image, rowStart + x);
                    row[x] = PF_Pixel{world8FromWorld16(p.alpha), world8FromWorld16(p.red),
                                      world8FromWorld16(p.green), world8FromWorld16(p.blue)};
                }
            }
        }
    }
}

OutputFormat
outputFormatFor(const std::string& path) {
    auto out = OIIO::ImageOutput::create(path);
    if (!out) {
        OIIO::geterror();  // clear the library's message; ours names the file
        throw usageError(path + ": no image format is written for this file name's extension");
    }
    OutputFormat format;
    format.name = out->format_name();
    format.alpha = out->supports("alpha") != 0;
    format.types = typesHeldBy(format.name);
    return format;
}

PixelType
outputTypeFor(const OutputFormat& format, PixelType wanted) {
    using enum PixelType;
    // Preference after the wanted type: first what holds it exactly, then what loses least.
    std::vector<PixelType> order;
    switch (wanted) {
        case U8:
            order = {U8, U16, Float, Half};
            break;
        case U16:
            order = {U16, Float, Half, U8};
            break;
        case Half:
            order = {Half, Float, U16, U8};
            break;
        case Float:
            order = {Float, Half, U16, U8};
            break;
    }
    for (PixelType type : order) {
        if (std::find(format.types.begin(), format.types.end(), type) != format.types.end()) {
            return type;
        }
    }
    return U8;
}

void
writeWorld(const std::string& path, const std::string& reportPath, const PF_LayerDef& world,
           PixelType type, bool alpha, const Image* colours, int bitsPerSample) {
    const int width = world.width;
    const int height = world.height;
    const int channels = alpha ? 4 : 3;
    const bool deep = PF_WORLD_IS_DEEP(&world);
    const std::size_t count = static_cast<std::size_t>(width) * height * channels;
    std::vector<std::uint8_t> u8;
    std::vector<std::uint16_t> u16;
    std::vector<float> f32;
    if (type == PixelType::U8) {
        u8.resize(count);
    } else if (type == PixelType::U16) {
        u16.resize(count);
    } else {
        f32.resize(count);
    }
    const char* base = reinterpret_cast<const char*>(world.data);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            // Channel values of this pixel in world terms: alpha, red, green, blue.
            A_u_short w[4];
            if (deep) {
                const PF_Pixel16& p =
                    reinterpret_cast<const PF_Pixel16*>(base + y * world.rowbytes)[x];
                w[0] = p.alpha, w[1] = p.red, w[2] = p.green, w[3] = p.blue;
            } else {
                const PF_Pixel& p = reinterpret_cast<const PF_Pixel*>(base + y * world.rowbytes)[x];
                w[0] = p.alpha, w[1] = p.red, w[2] = p.green, w[3] = p.blue;
            }
            const std::size_t i = static_cast<std::size_t>(y) * width + x;
            const std::size_t o = i * channels;
            for (int c = 0; c < channels; ++c) {
                // file channel c is R, G, B, A; the world holds A, R, G, B
                const A_u_short v = w[c == 3 ? 0 : c + 1];
                const bool fromInput = colours != nullptr && c < 3;
                const std::size_t k = i * 4 + c;
                switch (type) {
                    case PixelType::U8:
                        u8[o + c] = deep ? world8FromWorld16(v) : static_cast<std::uint8_t>(v);
                        break;
                    case PixelType::U16:
                        if (fromInput) {
                            u16[o + c] = colours->isU16()  ? colours->u16[k]
                                         : colours->isU8() ? file16FromWorld8(colours->u8[k])
                                                           : file16FromFloat(colours->f32[k]);
                        } else {
                            u16[o + c] = deep ? file16FromWorld16(v)
                                              : file16FromWorld8(static_cast<std::uint8_t>(v));
                        }
                        break;
                    case PixelType::Half:
                    case PixelType::Float:
                        if (fromInput) {
                            f32[o + c] = colours->isFloat() ? colours->f32[k]
                                         : colours->isU16() ? floatFromFile16(colours->u16[k])
                                                            : floatFromWorld8(colours->u8[k]);
                        } else {
                            f32[o + c] = deep ? floatFromWorld16(v)
                                              : floatFromWorld8(static_cast<std::uint8_t>(v));
                        }
                        break;
                }
            }
        }
    }

    auto out = OIIO::ImageOutput::create(path);
    if (!out) {
        throw fileError(reportPath, "cannot write: " + oneLine(OIIO::geterror()));
    }
    OIIO::ImageSpec layout(width, height, channels, typeDesc(type));
    layout.attribute("oiio:UnassociatedAlpha", 1);
    if (alpha) {
        layout.alpha_channel = 3;
    }
    if (type == PixelType::U16 && bitsPerSample > 0) {
        layout.attribute("oiio:BitsPerSample", bitsPerSample);
    }
    const void* data = type == PixelType::U8    ? static_cast<const void*>(u8.data())
                       : type == PixelType::U16 ? static_cast<const void*>(u16.data())
                                                : static_cast<const void*>(f32.data());
    const OIIO::TypeDesc dataDesc = storageDesc(type);
    if (!out->open(path, layout) || !out->write_image(dataDesc, data) || !out->close()) {
        throw fileError(reportPath, "cannot write: " + oneLine(out->geterror()));
    }
}

void
writeRgb8(const std::string& path, const std::string& reportPath, int width, int height,
          const std::vector<std::uint8_t>& rgb) {
    auto out = OIIO::ImageOutput::create(path);
    if (!out) {
        throw fileError(reportPath, "cannot write: " + oneLine(OIIO::geterror()));
    }
    OIIO::ImageSpec layout(width, height, 3, OIIO::TypeDesc::UINT8);
    if (!out->open(path, layout) || !out->write_image(OIIO::TypeDesc::UINT8, rgb.data()) ||
        !out->close()) {
        throw fileError(reportPath, "cannot write: " + oneLine(out->geterror()));
    }
}

}  // namespace quorvane::cli
