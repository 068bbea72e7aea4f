#include "tests/support/worlds.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace qtest {
namespace {

constexpr uint8_t kPadMarker = 0xA5;

uint16_t&
channelRef(PF_Pixel16& p, Channel c)
{
    switch (c) {
        case kAlpha: return p.alpha;
        case kRed: return p.red;
        case kGreen: return p.green;
        default: return p.blue;
    }
}

const char*
channelName(Channel c)
{
    static const char* names[] = {"alpha", "red", "green", "blue"};
    return names[c];
}

}  // namespace

OwnedWorld::OwnedWorld(int width, int height, bool deep, int padPixels)
{
    const int pixelSize = deep ? 8 : 4;
    world_.width = width;
    world_.height = height;
    world_.rowbytes = (width + padPixels) * pixelSize;
    world_.world_flags = PF_WorldFlag_WRITEABLE | (deep ? PF_WorldFlag_DEEP : 0);
    storage_.assign(static_cast<size_t>(world_.rowbytes) * std::max(height, 1), 0);
    rebind();
    for (int y = 0; y < height; ++y) {
        uint8_t* row = storage_.data() + static_cast<size_t>(y) * world_.rowbytes;
        std::fill(row + width * pixelSize, row + world_.rowbytes, kPadMarker);
    }
}

OwnedWorld::OwnedWorld(const OwnedWorld& other) : storage_(other.storage_), world_(other.world_)
{
    rebind();
}

OwnedWorld&
OwnedWorld::operator=(const OwnedWorld& other)
{
    storage_ = other.storage_;
    world_ = other.world_;
    rebind();
    return *this;
}

OwnedWorld::OwnedWorld(OwnedWorld&& other) noexcept
    : storage_(std::move(other.storage_)), world_(other.world_)
{
    rebind();
}

OwnedWorld&
OwnedWorld::operator=(OwnedWorld&& other) noexcept
{
    storage_ = std::move(other.storage_);
    world_ = other.world_;
    rebind();
    return *this;
}

void
OwnedWorld::rebind()
{
    world_.data = reinterpret_cast<PF_PixelPtr>(storage_.data());
}

PF_Pixel16&
OwnedWorld::at(int x, int y)
{
    return reinterpret_cast<PF_Pixel16*>(storage_.data() +
                                         static_cast<size_t>(y) * world_.rowbytes)[x];
}

const PF_Pixel16&
OwnedWorld::at(int x, int y) const
{
    return reinterpret_cast<const PF_Pixel16*>(storage_.data() +
                                               static_cast<size_t>(y) * world_.rowbytes)[x];
}

PF_Pixel&
OwnedWorld::at8(int x, int y)
{
    return reinterpret_cast<PF_Pixel*>(storage_.data() + static_cast<size_t>(y) * world_.rowbytes)[x];
}

const PF_Pixel&
OwnedWorld::at8(int x, int y) const
{
    return reinterpret_cast<const PF_Pixel*>(storage_.data() +
                                             static_cast<size_t>(y) * world_.rowbytes)[x];
}

uint16_t
OwnedWorld::get(Channel c, int x, int y) const
{
    PF_Pixel16 p = at(x, y);
    return channelRef(p, c);
}

void
OwnedWorld::set(Channel c, int x, int y, uint16_t v)
{
    channelRef(at(x, y), c) = v;
}

void
OwnedWorld::fill(PF_Pixel16 p)
{
    for (int y = 0; y < height(); ++y)
        for (int x = 0; x < width(); ++x) at(x, y) = p;
}

void
OwnedWorld::fillChannel(Channel c, uint16_t v)
{
    for (int y = 0; y < height(); ++y)
        for (int x = 0; x < width(); ++x) set(c, x, y, v);
}

bool
OwnedWorld::paddingIntact() const
{
    const int pixelSize = deep() ? 8 : 4;
    for (int y = 0; y < height(); ++y) {
        const uint8_t* row = storage_.data() + static_cast<size_t>(y) * world_.rowbytes;
        for (int b = width() * pixelSize; b < world_.rowbytes; ++b)
            if (row[b] != kPadMarker) return false;
    }
    return true;
}

uint16_t
artValue(char c)
{
    if (c == '#') return 32768;
    if (c >= '0' && c <= '9') return static_cast<uint16_t>(std::min(32768, (c - '0') * 3641));
    return 0;
}

OwnedWorld
fromArt(std::initializer_list<const char*> rows, Channel channel, PF_Pixel16 base)
{
    const int height = static_cast<int>(rows.size());
    const int width = height ? static_cast<int>(std::strlen(*rows.begin())) : 0;
    OwnedWorld world(width, height);
    world.fill(base);
    int y = 0;
    for (const char* row : rows) {
        for (int x = 0; x < width && row[x]; ++x) world.set(channel, x, y, artValue(row[x]));
        ++y;
    }
    return world;
}

std::string
toArt(const OwnedWorld& world, Channel channel)
{
    std::string out;
    for (int y = 0; y < world.height(); ++y) {
        for (int x = 0; x < world.width(); ++x) {
            const uint16_t v = world.get(channel, x, y);
            out += v == 32768 ? '#' : (v == 0 ? '.' : '?');
        }
        out += '\n';
    }
    return out;
}

std::string
toNumbers(const OwnedWorld& world, Channel channel)
{
    std::ostringstream out;
    for (int y = 0; y < world.height(); ++y) {
        for (int x = 0; x < world.width(); ++x) out << (x ? " " : "") << world.get(channel, x, y);
        out << '\n';
    }
    return out.str();
}

::testing::AssertionResult
SamePlane(const OwnedWorld& expected, const OwnedWorld& actual, Channel channel)
{
    if (expected.width() != actual.width() || expected.height() != actual.height()) {
        return ::testing::AssertionFailure() << "sizes differ";
    }
    for (int y = 0; y < expected.height(); ++y) {
        for (int x = 0; x < expected.width(); ++x) {
            if (expected.get(channel, x, y) != actual.get(channel, x, y)) {
                auto failure = ::testing::AssertionFailure();
                failure << "first difference at (" << x << ", " << y << ") " << channelName(channel)
                        << ": expected " << expected.get(channel, x, y) << ", got "
                        << actual.get(channel, x, y);
                if (expected.width() <= 40 && expected.height() <= 40) {
                    failure << "\nexpected:\n"
                            << toArt(expected, channel) << "actual:\n"
                            << toArt(actual, channel);
                }
                return failure;
            }
        }
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult
SameWorld(const OwnedWorld& expected, const OwnedWorld& actual)
{
    for (Channel c : {kAlpha, kRed, kGreen, kBlue}) {
        auto r = SamePlane(expected, actual, c);
        if (!r) return r;
    }
    return ::testing::AssertionSuccess();
}

OwnedWorld
randomWorld(int width, int height, uint32_t seed,
            const std::function<uint16_t(std::mt19937&, Channel)>& gen)
{
    std::mt19937 rng(seed);
    OwnedWorld world(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (Channel c : {kAlpha, kRed, kGreen, kBlue}) world.set(c, x, y, gen(rng, c));
    return world;
}


namespace {

int
ansiSprintf(A_char* dst, const A_char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int n = std::vsprintf(dst, format, args);
    va_end(args);
    return n;
}

A_char*
ansiStrcpy(A_char* dst, const A_char* src)
{
    A_char* d = dst;
    while ((*d++ = *src++) != 0) {
    }
    return dst;
}

A_FpLong
ansiSqrt(A_FpLong v)
{
    return std::sqrt(v);
}

A_FpLong
ansiFloor(A_FpLong v)
{
    return std::floor(v);
}

}  // namespace

AnsiInData::AnsiInData()
{
    utils.ansi.sqrt = ansiSqrt;
    utils.ansi.floor = ansiFloor;
    utils.ansi.sprintf = ansiSprintf;
    utils.ansi.strcpy = ansiStrcpy;
    in_data.utils = &utils;
}

}  // namespace qtest
