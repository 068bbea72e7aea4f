#include "cli/contact_sheet.h"

#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>

#include <algorithm>
#include <cmath>

#include "cli/conversions.h"

namespace OIIO = OIIO_NAMESPACE;

namespace quorvane::cli {

namespace {

constexpr int kGap = 8;  // pixels between and around cells
constexpr std::uint8_t kBackground = 40;
constexpr int kCheckerSize = 16;  // checkerboard square, pixels
constexpr float kCheckerDark = 0.30f;
constexpr float kCheckerLight = 0.55f;

float
clamp01(float v) {
    return v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f;
}

}  // namespace

ContactSheet::ContactSheet(const std::vector<long>& renders, int width, int height) {
    const std::size_t n = renders.size();
    if (n <= static_cast<std::size_t>(kMaxRows)) {
        frames_ = renders;
    } else {
        for (int i = 0; i < kMaxRows; ++i) {
            frames_.push_back(renders[static_cast<std::size_t>(
                std::lround(static_cast<double>(i) * (n - 1) / (kMaxRows - 1)))]);
        }
    }
    cellWidth_ = std::min(width, kMaxCellWidth);
    cellHeight_ = std::max(1, static_cast<int>(std::lround(static_cast<double>(height) *
                                                           cellWidth_ / std::max(1, width))));
    pixels_.assign(static_cast<std::size_t>(this->width()) * this->height() * 3, kBackground);
}

int
ContactSheet::width() const {
    return 3 * kGap + 2 * cellWidth_;
}

int
ContactSheet::height() const {
    const int rows = static_cast<int>(frames_.size());
    return (rows + 1) * kGap + rows * cellHeight_;
}

bool
ContactSheet::wants(long frame) const {
    return std::find(frames_.begin(), frames_.end(), frame) != frames_.end();
}

void
ContactSheet::paint(int row, int column, std::vector<float> rgba, int width, int height) {
    if (width != cellWidth_ || height != cellHeight_) {
        OIIO::ImageBuf in(OIIO::ImageSpec(width, height, 4, OIIO::TypeDesc::FLOAT), rgba.data());
        OIIO::ImageBuf out(OIIO::ImageSpec(cellWidth_, cellHeight_, 4, OIIO::TypeDesc::FLOAT));
        OIIO::ImageBufAlgo::resize(out, in);
        rgba.resize(static_cast<std::size_t>(cellWidth_) * cellHeight_ * 4);
        out.get_pixels(OIIO::ROI(0, cellWidth_, 0, cellHeight_, 0, 1, 0, 4), OIIO::TypeDesc::FLOAT,
                       rgba.data());
    }
    const int left = kGap + column * (cellWidth_ + kGap);
    const int top = kGap + row * (cellHeight_ + kGap);
    const std::size_t sheetWidth = static_cast<std::size_t>(this->width());
    std::lock_guard lock(mutex_);
    for (int y = 0; y < cellHeight_; ++y) {
        std::uint8_t* out = &pixels_[(static_cast<std::size_t>(top + y) * sheetWidth + left) * 3];
        for (int x = 0; x < cellWidth_; ++x) {
            const float* p = &rgba[(static_cast<std::size_t>(y) * cellWidth_ + x) * 4];
            const bool light = ((x / kCheckerSize) + (y / kCheckerSize)) % 2 == 0;
            const float back = light ? kCheckerLight : kCheckerDark;
            const float a = clamp01(p[3]);
            for (int c = 0; c < 3; ++c) {
                const float v = clamp01(p[c]) * a + back * (1.0f - a);
                out[x * 3 + c] = static_cast<std::uint8_t>(std::lround(v * 255.0f));
            }
        }
    }
}

void
ContactSheet::add(long frame, const Image& input, const PF_LayerDef& output) {
    const auto it = std::find(frames_.begin(), frames_.end(), frame);
    if (it == frames_.end()) {
        return;
    }
    const int row = static_cast<int>(it - frames_.begin());

    std::vector<float> before(input.pixelCount() * 4);
    for (std::size_t k = 0; k < before.size(); ++k) {
        before[k] = input.isU8()    ? input.u8[k] / 255.0f
                    : input.isU16() ? input.u16[k] / 65535.0f
                                    : input.f32[k];
    }
    paint(row, 0, std::move(before), input.width, input.height);

    std::vector<float> after(static_cast<std::size_t>(output.width) * output.height * 4);
    const char* base = reinterpret_cast<const char*>(output.data);
    for (int y = 0; y < output.height; ++y) {
        for (int x = 0; x < output.width; ++x) {
            float* q = &after[(static_cast<std::size_t>(y) * output.width + x) * 4];
            if (PF_WORLD_IS_DEEP(&output)) {
                const PF_Pixel16& p =
                    reinterpret_cast<const PF_Pixel16*>(base + y * output.rowbytes)[x];
                q[0] = floatFromWorld16(p.red), q[1] = floatFromWorld16(p.green);
                q[2] = floatFromWorld16(p.blue), q[3] = floatFromWorld16(p.alpha);
            } else {
                const PF_Pixel& p =
                    reinterpret_cast<const PF_Pixel*>(base + y * output.rowbytes)[x];
                q[0] = floatFromWorld8(p.red), q[1] = floatFromWorld8(p.green);
                q[2] = floatFromWorld8(p.blue), q[3] = floatFromWorld8(p.alpha);
            }
        }
    }
    paint(row, 1, std::move(after), output.width, output.height);
}

void
ContactSheet::write(const std::string& path, const std::string& reportPath) const {
    std::lock_guard lock(mutex_);
    writeRgb8(path, reportPath, width(), height(), pixels_);
}

}  // namespace quorvane::cli
