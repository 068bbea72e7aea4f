#include "image/pixels.h"

#include <algorithm>
#include <cstdlib>

void
copyWorldToWorld(const PF_LayerDef* source, PF_LayerDef* destination)
{
    for (A_long y = 0; y < source->height; ++y) {
        const PF_Pixel16* in = row16(source, y);
        std::copy(in, in + source->width, row16(destination, y));
    }
}

void
copy8To16BitWorld(const PF_LayerDef* source, PF_LayerDef* destination)
{
    for (A_long y = 0; y < source->height; ++y) {
        const PF_Pixel* in = row8(source, y);
        PF_Pixel16* out = row16(destination, y);
        for (A_long x = 0; x < source->width; ++x) {
            out[x] = convertPix8To16(&in[x]);
        }
    }
}

void
copy16To8BitWorld(const PF_LayerDef* source, PF_LayerDef* destination)
{
    for (A_long y = 0; y < source->height; ++y) {
        const PF_Pixel16* in = row16(source, y);
        PF_Pixel* out = row8(destination, y);
        for (A_long x = 0; x < source->width; ++x) {
            out[x] = convertPix16To8WithMaxCheck(in[x]);
        }
    }
}

void
safeCopyWorldAsMonochromish(const PF_LayerDef* source, PF_LayerDef* destination)
{
    const A_long width = std::min(source->width, destination->width);
    const A_long height = std::min(source->height, destination->height);
    const bool deep = PF_WORLD_IS_DEEP(source);
    // The sparse step is deliberate: only every third pixel each way is written.
    for (A_long y = 0; y < height; y += 3) {
        for (A_long x = 0; x < width; x += 3) {
            if (deep) {
                PF_Pixel16 p = *getPixel16(source, x, y);
                p.green = p.red;
                p.blue = p.red;
                setPixel16(destination, x, y, p);
            } else {
                PF_Pixel p = *getPixel8(source, x, y);
                p.green = p.red;
                p.blue = p.red;
                setPixel8(destination, x, y, p);
            }
        }
    }
}

void
clearWorldToTransparentBlack(PF_LayerDef* world)
{
    for (A_long y = 0; y < world->height; ++y) {
        PF_Pixel16* out = row16(world, y);
        std::fill(out, out + world->width, PF_Pixel16{0, 0, 0, 0});
    }
}

void
setWorldToAlpha32760(PF_LayerDef* world)
{
    setAllWorldAlphasToAConstant(world, world->width, world->height, 32760);
}

void
setAllWorldAlphasToAConstant(PF_LayerDef* world, A_long width, A_long height, A_long value)
{
    const A_u_short alpha = static_cast<A_u_short>(value & 0xFFFF);
    for (A_long y = 0; y < height; ++y) {
        PF_Pixel16* out = row16(world, y);
        for (A_long x = 0; x < width; ++x) {
            out[x].alpha = alpha;
        }
    }
}

void
Fill_Rectangle(PF_LayerDef* world, A_long left, A_long top, A_long width, A_long height,
               PF_Pixel16 pixel)
{
    width = std::abs(width);
    height = std::abs(height);
    const A_long y0 = std::max<A_long>(top, 0);
    const A_long y1 = std::min<A_long>(top + height - 1, world->height - 1);
    const A_long x0 = std::max<A_long>(left, 0);
    const A_long x1 = std::min<A_long>(left + width - 1, world->width - 1);
    for (A_long y = y0; y <= y1; ++y) {
        PF_Pixel16* out = row16(world, y);
        for (A_long x = x0; x <= x1; ++x) {
            out[x] = pixel;
        }
    }
}

namespace {

// The alpha at (x, y) in 16-bit units; an 8-bit world gives its 16-bit equivalent.
A_u_short
alphaAt(const PF_LayerDef* world, bool deep, A_long x, A_long y)
{
    return deep ? getPixel16Alpha(world, x, y)
                : static_cast<A_u_short>(getPixel8(world, x, y)->alpha << 7);
}

bool
isPartial(A_u_short a)
{
    return a > 1 && a < kFull16;
}

bool
inFrame(const PF_LayerDef* world, A_long x, A_long y)
{
    return x >= 0 && y >= 0 && x < world->width && y < world->height;
}

}  // namespace

bool
Is_ThereAMaskAtAll(const PF_LayerDef* world)
{
    if (world == nullptr || world->data == nullptr) {
        return false;
    }
    const bool deep = PF_WORLD_IS_DEEP(world);
    const A_long width = world->width;
    const A_long height = world->height;
    const A_long halfWidth = width / 2;
    const A_long halfHeight = height / 2;
    for (A_long s = std::min<A_long>(width / 8, 64); s >= 2; s /= 2) {
        for (A_long oy = 0; oy < halfHeight; oy += s) {
            for (A_long ox = 0; ox < halfWidth; ox += s) {
                const A_long x = s - 1 + ox;
                const A_long y = s - 1 + oy;
                // On wide, short frames a probe can fall outside; it neither fires nor blocks.
                if (!inFrame(world, x, y)) {
                    continue;
                }
                const A_u_short a = alphaAt(world, deep, x, y);
                if (isPartial(a)) {
                    return true;
                }
                const A_long mx[3] = {width - 1 - x, x, width - 1 - x};
                const A_long my[3] = {y, height - 1 - y, height - 1 - y};
                for (int m = 0; m < 3; ++m) {
                    if (!inFrame(world, mx[m], my[m])) {
                        continue;
                    }
                    const A_u_short b = alphaAt(world, deep, mx[m], my[m]);
                    if (b != a || isPartial(b)) {
                        return true;
                    }
                }
            }
        }
    }
    return false;
}
