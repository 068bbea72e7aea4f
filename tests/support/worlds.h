// Worlds for tests: owned 8-bit and 16-bit PF_LayerDefs with padded rows, built from text art
// and printed back as text art when a comparison fails.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AEConfig.h"
#include "AE_Effect.h"
#include "AE_EffectCB.h"

namespace qtest {

enum Channel { kAlpha = 0, kRed = 1, kGreen = 2, kBlue = 3 };

// A world that owns its pixels. Rows are padded past width × pixel size (and the padding is
// filled with a marker) so that code ignoring `rowbytes` reads or writes the wrong pixels.
class OwnedWorld {
public:
    OwnedWorld(int width, int height, bool deep = true, int padPixels = 3);
    OwnedWorld(const OwnedWorld& other);
    OwnedWorld& operator=(const OwnedWorld& other);
    OwnedWorld(OwnedWorld&&) noexcept;
    OwnedWorld& operator=(OwnedWorld&&) noexcept;

    PF_LayerDef* get() { return &world_; }
    const PF_LayerDef* get() const { return &world_; }
    PF_LayerDef* operator->() { return &world_; }
    operator PF_LayerDef*() { return &world_; }

    int width() const { return world_.width; }
    int height() const { return world_.height; }
    bool deep() const { return (world_.world_flags & PF_WorldFlag_DEEP) != 0; }

    PF_Pixel16& at(int x, int y);
    const PF_Pixel16& at(int x, int y) const;
    PF_Pixel& at8(int x, int y);
    const PF_Pixel& at8(int x, int y) const;

    uint16_t get(Channel c, int x, int y) const;
    void set(Channel c, int x, int y, uint16_t v);

    void fill(PF_Pixel16 p);
    void fillChannel(Channel c, uint16_t v);
    // True while no byte of the row padding has been written since construction.
    bool paddingIntact() const;

private:
    void rebind();
    std::vector<uint8_t> storage_;
    PF_LayerDef world_{};
};

// Builds a 16-bit world from rows of text art. Each character sets `channel` through
// `legend` ('#' -> 32768 and '.' -> 0 by default, digits d -> d × 3641 i.e. ninths); other
// channels start at `base`.
OwnedWorld fromArt(std::initializer_list<const char*> rows, Channel channel = kAlpha,
                   PF_Pixel16 base = {0, 0, 0, 0});
// Default legend: '#' 32768, '.' 0, '0'..'9' as d × 3641 (9 -> 32769 is clamped to 32768).
uint16_t artValue(char c);

// Text art of one channel: '#' for 32768, '.' for 0, '?' for anything else; or numbers.
std::string toArt(const OwnedWorld& world, Channel channel);
std::string toNumbers(const OwnedWorld& world, Channel channel);

// Compares two worlds channel by channel; on failure reports the first differing
// (x, y, channel) and both planes as text.
::testing::AssertionResult SameWorld(const OwnedWorld& expected, const OwnedWorld& actual);
::testing::AssertionResult SamePlane(const OwnedWorld& expected, const OwnedWorld& actual,
                                     Channel channel);

// Seeded random 16-bit world; `gen` picks each channel value.
OwnedWorld randomWorld(int width, int height, uint32_t seed,
                       const std::function<uint16_t(std::mt19937&, Channel)>& gen);

// A PF_InData whose utils carry the ANSI maths (sqrt, floor, ...) and sprintf/strcpy, for
// stages that take in_data only for those callbacks.
struct AnsiInData {
    AnsiInData();
    PF_InData in_data{};
    PF_UtilCallbacks utils{};
    PF_InData* get() { return &in_data; }
};

}  // namespace qtest
