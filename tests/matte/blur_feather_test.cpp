#include "matte/blur_feather.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>

#include "image/pixels.h"
#include "image/wide.h"
#include "tests/support/stage_limits.h"
#include "tests/support/worlds.h"

namespace {

using namespace qtest;

// Sigma and the three box widths of each level (level 0 unused).
constexpr float kSigma[9] = {0.0f, 0.1f, 0.1f, 0.6f, 1.3f, 1.7f, 2.0f, 2.4f, 3.0f};
constexpr int kBoxes[9][3] = {{0, 0, 0}, {1, 1, 1}, {1, 1, 1}, {1, 1, 3}, {3, 3, 3},
                              {3, 3, 5}, {3, 3, 5}, {5, 5, 5}, {5, 5, 7}};

// The noise blur as its description reads: every window summed in full, per segment.
void
plainBlur(PF_LayerDef* source, PF_LayerDef* destination, SegmentArray* segments, int margin,
          int level, bool initWholeRows, bool skipSolidInteriors) {
    const int w = source->width, h = source->height;
    if (level < 1 || level > 8) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) setPixel16(destination, x, y, *getPixel16(source, x, y));
        return;
    }
    for (int y = 0; initWholeRows && y < h; ++y) {
        segments->counts[y] = 1;
        int32_t* f = segments->slots[y][1].field;
        f[33] = 0, f[34] = w - 1, f[5] = w - 1;
    }
    PF_LayerDef* in[3] = {source, destination, source};
    PF_LayerDef* out[3] = {destination, source, destination};
    for (int p = 0; p < 3; ++p) {
        const int r = (kBoxes[level][p] - 1) / 2 + 1;
        for (int y = 0; y < h; ++y) {
            const int count = segments->counts[y];
            for (int s = count == 0 ? 0 : 1; s <= count; ++s) {
                const int32_t* f = segments->slots[y][s].field;
                int lo = -1000, hi = -1000;  // a solid interior between them is copied
                if (skipSolidInteriors && s != 0 && f[22] > 0 && f[21] > 0) {
                    lo = f[9] + r + 10, hi = std::max(lo, f[11] - r - 10);
                }
                const int c1 = std::min(f[5] + 4 + r + margin, w - 1);
                for (int x = std::max(f[4] - 4 - r - margin, 0); x <= c1; ++x) {
                    const PF_Pixel16 centre = *getPixel16(in[p], x, y);
                    int32_t sum[3] = {0, 0, 0}, k = 0;
                    for (int wy = std::max(y - r, 0); wy <= std::min(y + r, h - 1); ++wy) {
                        for (int wx = std::max(x - r, 0); wx <= std::min(x + r, w - 1); ++wx) {
                            const PF_Pixel16 q = *getPixel16(in[p], wx, wy);
                            sum[0] += q.red, sum[1] += q.green, sum[2] += q.blue, ++k;
                        }
                    }
                    A_u_short c[3];
                    for (int i = 0; i < 3; ++i) {
                        const float v = static_cast<float>(sum[i]) * (1.0f / static_cast<float>(k));
                        c[i] = std::min<A_u_short>(static_cast<A_u_short>(int(v + 0.5f)), 32768);
                    }
                    setPixel16(
                        out[p], x, y,
                        x > lo && x < hi ? centre : PF_Pixel16{centre.alpha, c[0], c[1], c[2]});
                }
            }
        }
    }
}

// The feather as its description reads: squares marked around each edge pixel, full window
// sums per band pixel, then the band written back.
void
plainFeather(PF_LayerDef* redMask, int r, bool blurBlack, const FillLimitsArray& limits,
             PF_LayerDef* scratch) {
    const int width = redMask->width, lastRow = redMask->height - 1;
    if (r == 0) return;
    for (int y = 0; y < scratch->height; ++y)
        for (int x = 0; x < scratch->width; ++x) setPixel16(scratch, x, y, PF_Pixel16{0, 0, 0, 0});
    const A_u_short target = blurBlack ? 0 : 32768;
    auto blue = [&](int x, int y) { return getPixel16Blue(redMask, x, y); };
    for (int y = std::max(1, limits.firstRow); y <= std::min(lastRow - 1, limits.lastRow); ++y) {
        for (int x = std::max(1, limits.left[y]); x <= std::min(width - 2, limits.right[y]); ++x) {
            if (blue(x, y) != target || (blue(x - 1, y) == target && blue(x + 1, y) == target &&
                                         blue(x, y - 1) == target && blue(x, y + 1) == target)) {
                continue;
            }
            for (int sy = std::max(0, y - r); sy <= std::min(lastRow, y + r); ++sy)
                for (int sx = std::max(0, x - r); sx <= std::min(width - 1, x + r); ++sx)
                    setPixel16Alpha(scratch, sx, sy, 30000), setPixel16Red(scratch, sx, sy, 30000);
        }
    }
    for (int y = limits.firstRow; y <= limits.lastRow; ++y) {
        for (int x = limits.left[y]; x <= limits.right[y]; ++x) {
            if (getPixel16Alpha(scratch, x, y) != 30000) continue;
            int64_t sum = 0;
            for (int dy = -r; dy <= r; ++dy)
                for (int dx = -r; dx <= r; ++dx)
                    sum += blue(std::clamp(x + dx, 0, width - 1), std::clamp(y + dy, 0, lastRow));
            const float mean =
                static_cast<float>(sum) / static_cast<float>((2 * r + 1) * (2 * r + 1));
            setPixel16Blue(scratch, x, y, std::min<A_u_short>(A_u_short(int(mean)), 32768));
        }
    }
    for (int y = 0; y <= lastRow; ++y) {
        for (int x = 0; x < width; ++x) {
            if (getPixel16Alpha(scratch, x, y) != 30000) continue;
            setPixel16Blue(redMask, x, y, getPixel16Blue(scratch, x, y));
            setPixel16Alpha(redMask, x, y, 32768);
        }
    }
}

void
feather(OwnedWorld& redMask, int radius, bool blurBlack, const FillLimitsArray& limits,
        OwnedWorld& scratch) {
    AnsiInData in;
    FillLimitsArray copy = limits;
    boxblur_RedmaskEdgeBlue(in.get(), redMask, redMask.width(), redMask.height(),
                            redMask.height() - 1, radius, blurBlack, &copy, scratch);
}

// Compares the fast blur with the plain one: both worlds and the segment rows. The fast one
// runs three ways: plainly; from `start` held apart while the source holds something else;
// and from an original that is the destination itself (which then starts as `start`).
void
expectBlurMatches(const OwnedWorld& start, const OwnedWorld& destination,
                  const SegmentArray& segments, int margin, int level, bool init, bool skip) {
    AnsiInData in;
    auto plainSegments = std::make_unique<SegmentArray>(segments);
    auto fastSegments = std::make_unique<SegmentArray>(segments);
    BFGarray bfg;
    DividerArray dividers;
    for (int mode = 0; mode < 3; ++mode) {
        SCOPED_TRACE(mode == 0   ? "plainly"
                     : mode == 1 ? "from the original"
                                 : "from the destination");
        const OwnedWorld& dst = mode == 2 ? start : destination;
        OwnedWorld plainSrc = start, plainDst = dst, src = mode == 0 ? start : destination,
                   out = dst;
        *plainSegments = segments, *fastSegments = segments;
        plainBlur(plainSrc, plainDst, plainSegments.get(), margin, level, init, skip);
        gaussOptimisedBlurCopyFromSegments(in.get(), src, out, fastSegments.get(), margin, level,
                                           init, skip, &bfg, &dividers,
                                           mode == 0   ? nullptr
                                           : mode == 1 ? start.get()
                                                       : out.get());
        ASSERT_TRUE(SameWorld(plainDst, out));
        ASSERT_TRUE(SameWorld(plainSrc, src)) << "second pass left in the source";
        ASSERT_TRUE(out.paddingIntact() && src.paddingIntact());
        ASSERT_EQ(0, std::memcmp(plainSegments.get(), fastSegments.get(), sizeof(SegmentArray)));
    }
}

// Colour channels anywhere in 0..65535, so that cuts and limits are exercised too.
uint16_t
anyValue(std::mt19937& rng, Channel) {
    const unsigned r = rng() % 8;
    return static_cast<uint16_t>(r == 0 ? 0 : r == 1 ? 32768 : r == 2 ? rng() : rng() % 32769);
}

int gSqrtCalls = 0, gFloorCalls = 0;

TEST(BoxesForGauss, gives_the_box_widths_of_every_level_through_the_host_maths) {
    AnsiInData in;
    in.utils.ansi.sqrt = [](A_FpLong v) { return ++gSqrtCalls, std::sqrt(v); };
    in.utils.ansi.floor = [](A_FpLong v) { return ++gFloorCalls, std::floor(v); };
    for (int level = 1; level <= 8; ++level) {
        gSqrtCalls = gFloorCalls = 0;
        const GaussBoxes boxes = boxesForGauss(in.get(), kSigma[level], 3.0f);
        for (int i = 0; i < 4; ++i)
            EXPECT_EQ(i < 3 ? kBoxes[level][i] : 0, boxes.width[i])
                << "level " << level << " box " << i;
        EXPECT_EQ(1, gSqrtCalls);
        EXPECT_EQ(2, gFloorCalls);
    }
}

TEST(NoiseBlur, windows_shrink_at_the_frame_edge_and_round_half_up) {
    // On a 2 x 2 frame every 3 x 3 window holds the 4 frame pixels and is divided by 4: red
    // 98304 / 4 = 24576 (not / 9); green 0.75 + 0.5 -> 1; blue 0.5 + 0.5 -> 1. Alpha is each
    // pixel's own, in both worlds.
    OwnedWorld src(2, 2), dst(2, 2);
    src.at(0, 0) = {11, 0, 3, 2}, src.at(1, 0) = {22, 32768, 0, 0};
    src.at(0, 1) = {33, 32768, 0, 0}, src.at(1, 1) = {44, 32768, 0, 0};
    auto segments = std::make_unique<SegmentArray>();
    BFGarray bfg;
    DividerArray dividers;
    AnsiInData in;
    gaussOptimisedBlurCopyFromSegments(in.get(), src, dst, segments.get(), 0, 1, true, false, &bfg,
                                       &dividers);
    EXPECT_EQ(toNumbers(dst, kRed), "24576 24576\n24576 24576\n");
    EXPECT_EQ(toNumbers(dst, kGreen), "1 1\n1 1\n");
    EXPECT_EQ(toNumbers(dst, kBlue), "1 1\n1 1\n");
    EXPECT_EQ(toNumbers(dst, kAlpha), "11 22\n33 44\n");
    EXPECT_EQ(toNumbers(src, kAlpha), "11 22\n33 44\n");
    EXPECT_FLOAT_EQ(1.0f / 9.0f, dividers.reciprocal[9]);
}

TEST(NoiseBlur, matches_the_full_window_sums_at_every_level_size_and_segment_layout) {
    // Widths around the four- and two-pixel steps (with odd tails), around the 128-column runs
    // of a whole row, and at and past the widest frame blurred in one strip (4096). Levels 0
    // and 9 copy the source and initialise nothing. Every other run initialises whole rows;
    // the rest take random segments (slot 0 for rows not listed, flagged solid interiors,
    // whole-row segments mixed in), a margin, and a destination that keeps what no segment
    // covers.
    const int sizes[][2] = {{1, 1},   {1, 6},   {6, 1},   {2, 3},    {5, 5},    {17, 9},
                            {19, 4},  {23, 11}, {37, 5},  {131, 3},  {64, 33},  {127, 5},
                            {128, 6}, {129, 4}, {261, 9}, {4096, 5}, {4097, 4}, {4200, 7}};
    auto segments = std::make_unique<SegmentArray>();
    for (bool wide : {false, true}) {  // the portable build and, where there is AVX2, the wide
        allowWideLoops(wide);
        uint32_t seed = 100;
        for (const auto& [w, h] : sizes) {
            for (int level = 0; level <= 9; ++level, ++seed) {
                std::mt19937 rng(seed);
                auto pick = [&](int lo, int hi) {
                    return std::uniform_int_distribution<int>(lo, hi)(rng);
                };
                const bool whole = seed % 2 == 0;
                *segments = SegmentArray{};
                for (int y = 0; y < h && !whole; ++y) {
                    segments->counts[y] = pick(0, 3) == 0 ? 0 : pick(1, 3);
                    for (SegmentSlot& slot : segments->slots[y]) {
                        int32_t* f = slot.field;
                        f[kSegmentStartColumn] = pick(-5, w);
                        f[kSegmentEndColumn] = pick(f[kSegmentStartColumn] - 3, w + 5);
                        f[kSegmentSolidStart] = pick(-5, w);
                        f[kSegmentSolidEnd] = pick(f[kSegmentSolidStart] - 5, w + 10);
                        f[kSegmentSolidFlagA] = pick(-1, 1), f[kSegmentSolidFlagB] = pick(0, 2);
                    }
                    if (pick(0, 2) == 0) {
                        segments->counts[y] = 1;
                        segments->slots[y][1].field[kSegmentStartColumn] = pick(-2, 4);
                        segments->slots[y][1].field[kSegmentEndColumn] = pick(w - 5, w + 2);
                    }
                }
                SCOPED_TRACE(::testing::Message()
                             << w << "x" << h << " L" << level << (wide ? " wide" : ""));
                expectBlurMatches(randomWorld(w, h, seed, anyValue),
                                  whole ? OwnedWorld(w, h) : randomWorld(w, h, seed + 1, anyValue),
                                  *segments, whole ? 0 : pick(0, 3), level, whole, seed % 3 != 0);
                if (HasFatalFailure()) return;
            }
        }
    }
}

TEST(Feather, a_straight_edge_is_averaged_over_the_frozen_plane_and_rounded_down) {
    // Blue 32768 up to column 9, 0 from column 10, radius 1: the band is columns 8..10 on
    // every row (rows 0 and 4 are never edge rows but lie in the squares of rows 1 and 3;
    // their windows repeat the border row). Limits from column 9 leave column 8 outside
    // them: blue 0.
    const char* row = "##########..........";
    for (int left : {0, 9}) {
        OwnedWorld m = fromArt({row, row, row, row, row}, kBlue), scratch(20, 5);
        m.fillChannel(kAlpha, 111);
        feather(m, 1, false, *boxLimits(left, 0, 19, 4), scratch);
        for (int y = 0; y < 5; ++y) {
            for (int x = 0; x < 20; ++x) {
                const int blue = x == 8 && left == 9 ? 0
                                 : x < 9             ? 32768
                                 : x == 9            ? 21845
                                 : x == 10           ? 10922
                                                     : 0;
                EXPECT_EQ(blue, m.get(kBlue, x, y)) << x << "," << y;
                EXPECT_EQ(x >= 8 && x <= 10 ? 32768 : 111, m.get(kAlpha, x, y)) << x << "," << y;
            }
        }
    }
    // Blue only on the frame's outermost column is never an edge.
    OwnedWorld side = fromArt({"#.....", "#.....", "#....."}, kBlue), before = side;
    OwnedWorld scratch(6, 3);
    feather(side, 3, false, *wholeFrameLimits(6, 3), scratch);
    EXPECT_TRUE(SameWorld(before, side));
}

// Runs the plain and the fast feather on copies of the same worlds and compares both, with
// the fast one's portable loops and, where there is AVX2, its wide ones.
void
expectFeatherMatches(const OwnedWorld& start, int radius, bool black, const FillLimitsArray& limits,
                     const OwnedWorld& scratch) {
    OwnedWorld expected = start, expectedScratch = scratch;
    plainFeather(expected, radius, black, limits, expectedScratch);
    for (bool wide : {false, true}) {
        allowWideLoops(wide);
        SCOPED_TRACE(wide ? "wide" : "portable");
        OwnedWorld actual = start, actualScratch = scratch;
        feather(actual, radius, black, limits, actualScratch);
        ASSERT_TRUE(SameWorld(expected, actual));
        ASSERT_TRUE(SameWorld(expectedScratch, actualScratch));
        ASSERT_TRUE(actual.paddingIntact() && actualScratch.paddingIntact());
        // The render's variant, the scratch world only working memory: the same red mask.
        OwnedWorld ringed = start, ring = scratch;
        AnsiInData in;
        FillLimitsArray copy = limits;
        boxblur_RedmaskEdgeBlueScratchAsRing(in.get(), ringed, start.width(), start.height(),
                                             start.height() - 1, radius, black, &copy, ring);
        ASSERT_TRUE(SameWorld(expected, ringed)) << "scratch as working memory";
        ASSERT_TRUE(ringed.paddingIntact() && ring.paddingIntact());
    }
}

TEST(Feather, matches_the_plain_squares_and_sums_on_random_planes) {
    // 4200 columns: wider than one strip, so band squares and windows cross its boundary.
    const int sizes[][2] = {{1, 1},   {3, 3},   {2, 9},    {9, 2},    {31, 17},
                            {64, 40}, {97, 13}, {150, 61}, {4200, 14}};
    // Radius 0 changes nothing, not even the scratch; 91 takes sums past 32 bits.
    const int radii[] = {0, 1, 2, 3, 4, 5, 8, 20, 91};
    uint32_t seed = 900;
    for (const auto& [w, h] : sizes) {
        for (int radius : radii) {
            for (int round = 0; round < 2 && (w < 4200 || radius < 40); ++round, ++seed) {
                // A coarse random blue plane, so edges are lines and specks, not noise.
                OwnedWorld start = randomWorld(
                    w, h, seed, [](std::mt19937& g, Channel) { return uint16_t(g() % 30000); });
                const int cell = 1 + static_cast<int>(std::mt19937(seed)() % 6);
                for (int y = 0; y < h; ++y) {
                    for (int x = 0; x < w; ++x) {
                        const uint32_t v =
                            ((x / cell) * 7919u + (y / cell) * 104729u + seed) * 2654435761u;
                        start.set(kBlue, x, y, (v >> 28) < 7 ? 32768 : (v >> 28) < 15 ? 0 : 20000);
                    }
                }
                auto limits = round == 0 ? wholeFrameLimits(w, h) : randomLimits(w, h, seed);
                SCOPED_TRACE(::testing::Message() << w << "x" << h << " r" << radius);
                expectFeatherMatches(start, radius, seed % 4 == 0, *limits,
                                     randomWorld(w, h, seed + 3, anyValue));
                if (HasFatalFailure()) return;
            }
        }
    }

    // A few blobs on an empty plane: blocks of columns leave the band and come back after
    // gaps shorter and longer than the radius, and short frames leave the render's variant
    // little room for its ring of rows.
    const int sparse[][2] = {{600, 150}, {333, 47}, {70, 12}};
    for (const auto& [w, h] : sparse) {
        for (int radius : {1, 2, 5, 11, 20, 33}) {
            ++seed;
            std::mt19937 rng(seed);
            auto pick = [&](int lo, int hi) { return std::uniform_int_distribution(lo, hi)(rng); };
            const bool black = seed % 3 == 0;
            const uint16_t target = black ? 0 : 32768;
            OwnedWorld start = randomWorld(w, h, seed, anyValue);
            start.fillChannel(kBlue, 32768 - target);
            for (int blob = 0; blob < 8; ++blob) {
                const int cx = pick(0, w - 1), cy = pick(0, h - 1);
                const int rx = pick(0, 12), ry = pick(0, 12);
                const uint16_t value = pick(0, 3) == 0 ? 20000 : target;
                for (int y = std::max(cy - ry, 0); y <= std::min(cy + ry, h - 1); ++y) {
                    for (int x = std::max(cx - rx, 0); x <= std::min(cx + rx, w - 1); ++x) {
                        start.set(kBlue, x, y, value);
                    }
                }
            }
            auto limits = seed % 2 == 0 ? wholeFrameLimits(w, h) : randomLimits(w, h, seed);
            SCOPED_TRACE(::testing::Message() << "sparse " << w << "x" << h << " r" << radius);
            expectFeatherMatches(start, radius, black, *limits,
                                 randomWorld(w, h, seed + 3, anyValue));
            if (HasFatalFailure()) return;
        }
    }

    // 20000 columns at radius 6200: a strip's reach exceeds the edge-test bit rows and takes
    // the pixel-by-pixel edge test. One edge pixel, one limits row to average.
    OwnedWorld single(20000, 3);
    single.set(kBlue, 10000, 1, 32768), single.set(kBlue, 10001, 1, 20000);
    expectFeatherMatches(single, 6200, false, *boxLimits(10000, 1, 10001, 1), OwnedWorld(20000, 3));
}

}  // namespace
