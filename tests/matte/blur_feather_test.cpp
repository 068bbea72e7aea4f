#include "matte/blur_feather.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>

#include "image/pixels.h"
#include "tests/support/stage_limits.h"
#include "tests/support/worlds.h"

namespace {

using qtest::fromArt;
using qtest::kAlpha;
using qtest::kBlue;
using qtest::kGreen;
using qtest::kRed;
using qtest::OwnedWorld;

constexpr float kSigma[9] = {0.0f, 0.1f, 0.1f, 0.6f, 1.3f, 1.7f, 2.0f, 2.4f, 3.0f};

// The noise blur as its description reads: every window summed in full, per segment.
void
plainBlur(PF_InData* in_data, PF_LayerDef* source, PF_LayerDef* destination, SegmentArray* segments,
          int margin, int level, bool initWholeRows, bool skipSolidInteriors,
          DividerArray* dividers) {
    const int w = source->width;
    const int h = source->height;
    if (level < 1 || level > 8) {
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                setPixel16(destination, x, y, *getPixel16(source, x, y));
            }
        }
        return;
    }
    const GaussBoxes boxes = boxesForGauss(in_data, kSigma[level], 3.0f);
    if (initWholeRows) {
        for (int y = 0; y < h; ++y) {
            segments->counts[y] = 1;
            segments->slots[y][1].field[33] = 0;
            segments->slots[y][1].field[34] = w - 1;
            segments->slots[y][1].field[5] = w - 1;
        }
    }
    const int b = static_cast<int>(boxes.width[2]);
    for (int k = 1; k <= (2 * b + 1) * (2 * b + 1); ++k) {
        dividers->reciprocal[k] = 1.0f / static_cast<float>(k);
    }
    PF_LayerDef* in[3] = {source, destination, source};
    PF_LayerDef* out[3] = {destination, source, destination};
    for (int p = 0; p < 3; ++p) {
        const int r = static_cast<int>((boxes.width[p] - 1.0f) / 2.0f) + 1;
        for (int y = 0; y < h; ++y) {
            const int count = segments->counts[y];
            for (int s = count == 0 ? 0 : 1; s <= (count == 0 ? 0 : count); ++s) {
                const int32_t* f = segments->slots[y][s].field;
                int lo = -1000;
                int hi = -1000;
                if (skipSolidInteriors && s != 0 && f[22] > 0 && f[21] > 0) {
                    lo = f[9] + r + 10;
                    hi = std::max(lo, f[11] - r - 10);
                }
                const int c0 = std::max(f[4] - 4 - r - margin, 0);
                const int c1 = std::min(f[5] + 4 + r + margin, w - 1);
                for (int x = c0; x <= c1; ++x) {
                    const PF_Pixel16 centre = *getPixel16(in[p], x, y);
                    if (x > lo && x < hi) {
                        setPixel16(out[p], x, y, centre);
                        continue;
                    }
                    int32_t sum[3] = {0, 0, 0};
                    int k = 0;
                    for (int wy = std::max(y - r, 0); wy <= std::min(y + r, h - 1); ++wy) {
                        for (int wx = std::max(x - r, 0); wx <= std::min(x + r, w - 1); ++wx) {
                            const PF_Pixel16 p16 = *getPixel16(in[p], wx, wy);
                            sum[0] += p16.red;
                            sum[1] += p16.green;
                            sum[2] += p16.blue;
                            ++k;
                        }
                    }
                    A_u_short c[3];
                    for (int i = 0; i < 3; ++i) {
                        const float v = static_cast<float>(sum[i]) * dividers->reciprocal[k];
                        const int t = static_cast<int>(v + 0.5f);
                        c[i] = std::min<A_u_short>(static_cast<A_u_short>(t), 32768);
                    }
                    setPixel16(out[p], x, y, PF_Pixel16{centre.alpha, c[0], c[1], c[2]});
                }
            }
        }
    }
}

// The feather as its description reads: squares marked around each edge pixel, full window
// sums per band pixel.
void
plainFeather(PF_LayerDef* redMask, int width, int height, int lastRow, int r, bool blurBlack,
             const FillLimitsArray& limits, PF_LayerDef* scratch) {
    if (r == 0) {
        return;
    }
    for (int y = 0; y < scratch->height; ++y) {
        for (int x = 0; x < scratch->width; ++x) {
            setPixel16(scratch, x, y, PF_Pixel16{0, 0, 0, 0});
        }
    }
    const A_u_short target = blurBlack ? 0 : 32768;
    auto blue = [&](int x, int y) { return getPixel16Blue(redMask, x, y); };
    for (int y = std::max(1, limits.firstRow); y <= std::min(height - 2, limits.lastRow); ++y) {
        for (int x = std::max(1, limits.left[y]); x <= std::min(width - 2, limits.right[y]); ++x) {
            if (blue(x, y) != target || (blue(x - 1, y) == target && blue(x + 1, y) == target &&
                                         blue(x, y - 1) == target && blue(x, y + 1) == target)) {
                continue;
            }
            for (int sy = std::max(0, y - r); sy <= std::min(lastRow, y + r); ++sy) {
                for (int sx = std::max(0, x - r); sx <= std::min(width - 1, x + r); ++sx) {
                    setPixel16Alpha(scratch, sx, sy, 30000);
                    setPixel16Red(scratch, sx, sy, 30000);
                }
            }
        }
    }
    for (int y = limits.firstRow; y <= limits.lastRow; ++y) {
        for (int x = limits.left[y]; x <= limits.right[y]; ++x) {
            if (getPixel16Alpha(scratch, x, y) != 30000) {
                continue;
            }
            int64_t sum = 0;
            for (int dy = -r; dy <= r; ++dy) {
                for (int dx = -r; dx <= r; ++dx) {
                    sum += blue(std::clamp(x + dx, 0, width - 1), std::clamp(y + dy, 0, lastRow));
                }
            }
            const float mean =
                static_cast<float>(sum) / static_cast<float>((2 * r + 1) * (2 * r + 1));
            const auto low = static_cast<A_u_short>(static_cast<int>(mean));
            setPixel16Blue(scratch, x, y, std::min<A_u_short>(low, 32768));
        }
    }
    for (int y = 0; y <= lastRow; ++y) {
        for (int x = 0; x < width; ++x) {
            if (getPixel16Alpha(scratch, x, y) == 30000) {
                setPixel16Blue(redMask, x, y, getPixel16Blue(scratch, x, y));
                setPixel16Alpha(redMask, x, y, 32768);
            }
        }
    }
}

struct BlurTables {
    std::unique_ptr<SegmentArray> segments = std::make_unique<SegmentArray>();
    BFGarray bfg{};
    DividerArray dividers{};
    BlurTables() { *segments = SegmentArray{}; }
};

void
feather(OwnedWorld& redMask, int radius, bool blurBlack, const FillLimitsArray& limits,
        OwnedWorld& scratch) {
    qtest::AnsiInData in;
    FillLimitsArray copy = limits;
    boxblur_RedmaskEdgeBlue(in.get(), redMask, redMask.width(), redMask.height(),
                            redMask.height() - 1, radius, blurBlack, &copy, scratch);
}

// Runs the plain and the fast blur on copies of the same worlds and compares both.
void
expectBlurMatches(const OwnedWorld& start, const OwnedWorld& destination, const BlurTables& tables,
                  int margin, int level, bool initWholeRows, bool skip) {
    OwnedWorld srcA = start, dstA = destination, srcB = start, dstB = destination;
    BlurTables a, b;
    *a.segments = *tables.segments;
    *b.segments = *tables.segments;
    qtest::AnsiInData in;
    plainBlur(in.get(), srcA, dstA, a.segments.get(), margin, level, initWholeRows, skip,
              &a.dividers);
    gaussOptimisedBlurCopyFromSegments(in.get(), srcB, dstB, b.segments.get(), margin, level,
                                       initWholeRows, skip, &b.bfg, &b.dividers);
    ASSERT_TRUE(qtest::SameWorld(dstA, dstB));
    ASSERT_TRUE(qtest::SameWorld(srcA, srcB)) << "second pass left in the source";
    ASSERT_TRUE(dstB.paddingIntact() && srcB.paddingIntact());

    // Blurring `start` through a source holding something else gives the same two worlds.
    OwnedWorld srcC = destination, dstC = destination;
    BlurTables c;
    *c.segments = *tables.segments;
    gaussOptimisedBlurCopyFromSegments(in.get(), srcC, dstC, c.segments.get(), margin, level,
                                       initWholeRows, skip, &c.bfg, &c.dividers, start.get());
    ASSERT_TRUE(qtest::SameWorld(dstA, dstC)) << "blurred from the original";
    ASSERT_TRUE(qtest::SameWorld(srcA, srcC)) << "source when blurred from the original";

    // An original that is the destination itself.
    OwnedWorld srcD = destination, dstD = start;
    BlurTables d;
    *d.segments = *tables.segments;
    gaussOptimisedBlurCopyFromSegments(in.get(), srcD, dstD, d.segments.get(), margin, level,
                                       initWholeRows, skip, &d.bfg, &d.dividers, dstD.get());
    OwnedWorld srcE = start, dstE = start;
    BlurTables e;
    *e.segments = *tables.segments;
    gaussOptimisedBlurCopyFromSegments(in.get(), srcE, dstE, e.segments.get(), margin, level,
                                       initWholeRows, skip, &e.bfg, &e.dividers);
    ASSERT_TRUE(qtest::SameWorld(dstE, dstD)) << "blurred from the destination itself";
    ASSERT_TRUE(qtest::SameWorld(srcE, srcD)) << "source when blurred from the destination";
}

// Runs the plain and the fast feather on copies of the same worlds and compares both;
// returns the fast result.
OwnedWorld
expectFeatherMatches(const OwnedWorld& start, int radius, bool black, const FillLimitsArray& limits,
                     const OwnedWorld& scratch) {
    const int w = start.width(), h = start.height();
    OwnedWorld expected = start, actual = start, scratchA = scratch, scratchB = scratch;
    plainFeather(expected, w, h, h - 1, radius, black, limits, scratchA);
    feather(actual, radius, black, limits, scratchB);
    EXPECT_TRUE(qtest::SameWorld(expected, actual));
    EXPECT_TRUE(qtest::SameWorld(scratchA, scratchB));
    EXPECT_TRUE(actual.paddingIntact() && scratchB.paddingIntact());
    return actual;
}

// Host maths that count their calls.
int gSqrtCalls = 0;
int gFloorCalls = 0;
A_FpLong
countingSqrt(A_FpLong v) {
    ++gSqrtCalls;
    return std::sqrt(v);
}
A_FpLong
countingFloor(A_FpLong v) {
    ++gFloorCalls;
    return std::floor(v);
}

TEST(BoxesForGauss, gives_the_box_widths_of_every_level_through_the_host_maths) {
    const float expected[9][3] = {{0, 0, 0}, {1, 1, 1}, {1, 1, 1}, {1, 1, 3}, {3, 3, 3},
                                  {3, 3, 5}, {3, 3, 5}, {5, 5, 5}, {5, 5, 7}};
    qtest::AnsiInData in;
    in.utils.ansi.sqrt = countingSqrt;
    in.utils.ansi.floor = countingFloor;
    for (int level = 1; level <= 8; ++level) {
        gSqrtCalls = gFloorCalls = 0;
        const GaussBoxes boxes = boxesForGauss(in.get(), kSigma[level], 3.0f);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(expected[level][i], boxes.width[i]) << "level " << level << " box " << i;
        }
        EXPECT_EQ(0.0f, boxes.width[3]);
        EXPECT_EQ(1, gSqrtCalls);
        EXPECT_EQ(2, gFloorCalls);
    }
}

TEST(NoiseBlur, levels_outside_one_to_eight_copy_the_source) {
    const OwnedWorld source = qtest::randomWorld(
        9, 7, 5, [](std::mt19937& rng, qtest::Channel) { return static_cast<uint16_t>(rng()); });
    for (int level : {0, -3, 9}) {
        OwnedWorld src = source;
        OwnedWorld dst(9, 7);
        BlurTables t;
        qtest::AnsiInData in;
        gaussOptimisedBlurCopyFromSegments(in.get(), src, dst, t.segments.get(), 0, level, true,
                                           false, &t.bfg, &t.dividers);
        EXPECT_TRUE(qtest::SameWorld(source, dst));
        EXPECT_TRUE(qtest::SameWorld(source, src));
        EXPECT_EQ(0, t.segments->counts[0]);  // nothing initialised
    }
}

TEST(NoiseBlur, windows_shrink_at_the_frame_edge_and_round_half_up) {
    // On a 2 x 2 frame every 3 x 3 window holds the 4 frame pixels and is divided by 4.
    OwnedWorld src(2, 2);
    src.at(0, 0) = PF_Pixel16{11, 0, 3, 2};
    src.at(1, 0) = PF_Pixel16{22, 32768, 0, 0};
    src.at(0, 1) = PF_Pixel16{33, 32768, 0, 0};
    src.at(1, 1) = PF_Pixel16{44, 32768, 0, 0};
    OwnedWorld dst(2, 2);
    BlurTables t;
    qtest::AnsiInData in;
    gaussOptimisedBlurCopyFromSegments(in.get(), src, dst, t.segments.get(), 0, 1, true, false,
                                       &t.bfg, &t.dividers);
    // Red 98304 / 4 = 24576 (not / 9); green 0.75 + 0.5 -> 1; blue 0.5 + 0.5 -> 1. Alpha is
    // each pixel's own, in both worlds.
    const uint16_t alphas[2][2] = {{11, 22}, {33, 44}};
    for (int y = 0; y < 2; ++y) {
        for (int x = 0; x < 2; ++x) {
            EXPECT_EQ(24576, dst.get(kRed, x, y));
            EXPECT_EQ(1, dst.get(kGreen, x, y));
            EXPECT_EQ(1, dst.get(kBlue, x, y));
            EXPECT_EQ(alphas[y][x], dst.get(kAlpha, x, y));
            EXPECT_EQ(alphas[y][x], src.get(kAlpha, x, y));
        }
    }
    EXPECT_FLOAT_EQ(1.0f / 9.0f, t.dividers.reciprocal[9]);
}

// Colour channels anywhere in 0..65535, so that cuts and limits are exercised too.
uint16_t
anyValue(std::mt19937& rng, qtest::Channel) {
    const unsigned r = rng() % 8;
    return static_cast<uint16_t>(r == 0 ? 0 : r == 1 ? 32768 : r == 2 ? rng() : rng() % 32769);
}

TEST(NoiseBlur, matches_the_full_window_sums_at_every_level_and_size) {
    // Widths around the four-pixel and two-pixel steps (with their odd tails), around the
    // 128-column runs of a whole row, and at and past the widest frame blurred in one strip
    // (4096); rows that start 8 bytes off a 16-byte boundary every other row.
    const int sizes[][2] = {{1, 1},   {1, 6},   {6, 1},   {2, 3},    {5, 5},    {17, 9},
                            {19, 4},  {23, 11}, {37, 5},  {131, 3},  {64, 33},  {127, 5},
                            {128, 6}, {129, 4}, {261, 9}, {4096, 5}, {4097, 4}, {4200, 7}};
    // Both builds of the passes: the portable one and, where the processor has it, AVX2.
    for (bool wide : {false, true}) {
        allowWideNoiseBlur(wide);
        uint32_t seed = 100;
        for (const auto& size : sizes) {
            for (int level = 1; level <= 8; ++level, ++seed) {
                const OwnedWorld start = qtest::randomWorld(size[0], size[1], seed, anyValue);
                SCOPED_TRACE(::testing::Message() << size[0] << "x" << size[1] << " L" << level
                                                  << (wide ? " wide" : ""));
                expectBlurMatches(start, OwnedWorld(size[0], size[1]), BlurTables(), 0, level, true,
                                  false);
                if (HasFatalFailure()) return;
            }
        }
    }
}

TEST(NoiseBlur, follows_the_row_segments_margin_and_solid_interiors) {
    // Rows never initialised use slot 0 (columns 0..4 + r + margin); listed rows use slots
    // 1..count; flagged interiors are copied; the destination keeps what no segment covers.
    // Rows of one whole-row segment are mixed in, with and without an interior.
    for (bool wide : {false, true}) {
        allowWideNoiseBlur(wide);
        uint32_t seed = 500;
        for (int level : {1, 3, 5, 8}) {
            for (int round = 0; round < 6; ++round, ++seed) {
                const int w = 40 + round * 53;
                const int h = 12;
                std::mt19937 rng(seed);
                auto pick = [&](int lo, int hi) {
                    return std::uniform_int_distribution<int>(lo, hi)(rng);
                };
                BlurTables a;
                for (int y = 0; y < h; ++y) {
                    a.segments->counts[y] = pick(0, 3) == 0 ? 0 : pick(1, 3);
                    for (int s = 0; s < kSegmentSlotsPerRow; ++s) {
                        int32_t* f = a.segments->slots[y][s].field;
                        f[kSegmentStartColumn] = pick(-5, w);
                        f[kSegmentEndColumn] = pick(f[kSegmentStartColumn] - 3, w + 5);
                        f[kSegmentSolidStart] = pick(-5, w);
                        f[kSegmentSolidEnd] = pick(f[kSegmentSolidStart] - 5, w + 10);
                        f[kSegmentSolidFlagA] = pick(-1, 1);
                        f[kSegmentSolidFlagB] = pick(0, 2);
                    }
                    if (pick(0, 2) == 0) {
                        a.segments->counts[y] = 1;
                        a.segments->slots[y][1].field[kSegmentStartColumn] = pick(-2, 4);
                        a.segments->slots[y][1].field[kSegmentEndColumn] = pick(w - 5, w + 2);
                    }
                }
                const OwnedWorld start = qtest::randomWorld(w, h, seed, anyValue);
                const OwnedWorld destination = qtest::randomWorld(w, h, seed + 1, anyValue);
                SCOPED_TRACE(::testing::Message()
                             << "level " << level << " round " << round << (wide ? " wide" : ""));
                expectBlurMatches(start, destination, a, pick(0, 3), level, false, round % 3 != 0);
                if (HasFatalFailure()) return;
            }
        }
    }
}

TEST(Feather, a_straight_edge_is_averaged_over_the_frozen_plane_and_rounded_down) {
    // Blue 32768 up to column 9, 0 from column 10, radius 1. Rows 0 and 4 are never edge rows
    // but lie in the squares of rows 1 and 3; their windows repeat the border row.
    const char* row = "##########..........";
    OwnedWorld m = fromArt({row, row, row, row, row}, kBlue);
    m.fillChannel(kAlpha, 111);
    const OwnedWorld start = m;
    OwnedWorld scratch(20, 5);
    feather(m, 1, false, *qtest::wholeFrameLimits(20, 5), scratch);
    for (int y = 0; y < 5; ++y) {
        for (int x = 0; x < 20; ++x) {
            EXPECT_EQ(x < 9 ? 32768 : x == 9 ? 21845 : x == 10 ? 10922 : 0, m.get(kBlue, x, y));
            EXPECT_EQ(x >= 8 && x <= 10 ? 32768 : 111, m.get(kAlpha, x, y)) << x << "," << y;
        }
    }
    EXPECT_EQ(21845, scratch.get(kBlue, 9, 2));  // the scratch holds the band marks and averages
    EXPECT_EQ(30000, scratch.get(kRed, 10, 2));
    EXPECT_EQ(0, scratch.get(kAlpha, 11, 2));

    // Limits from column 9: column 8 is in the band but outside the limits, so it is never
    // averaged and comes out with blue 0.
    OwnedWorld cut = start;
    feather(cut, 1, false, *qtest::boxLimits(9, 0, 19, 4), scratch);
    EXPECT_EQ(0, cut.get(kBlue, 8, 2));
    EXPECT_EQ(32768, cut.get(kAlpha, 8, 2));
    EXPECT_EQ(21845, cut.get(kBlue, 9, 2));
}

TEST(Feather, nothing_changes_without_an_edge_or_with_radius_zero) {
    // All blue, all clear, blue only on the frame's outermost column (never an edge); and an
    // edge with radius 0, which does not even clear the scratch.
    for (const char* row : {"######", "......", "#.....", "..##.."}) {
        OwnedWorld m = fromArt({row, row, row, row}, kBlue), scratch(6, 4);
        scratch.fill(PF_Pixel16{1, 2, 3, 4});
        const OwnedWorld before = m, scratchBefore = scratch;
        const bool edge = row[0] == '.' && row[2] == '#';
        feather(m, edge ? 0 : 3, false, *qtest::wholeFrameLimits(6, 4), scratch);
        EXPECT_TRUE(qtest::SameWorld(before, m)) << row;
        EXPECT_TRUE(!edge || qtest::SameWorld(scratchBefore, scratch));
    }
}

TEST(Feather, blur_black_averages_around_the_clear_pixels) {
    // Target 0: the clear pixel at (3,2) is the edge; its 3 x 3 square is re-averaged.
    OwnedWorld m = fromArt({"#######", "#######", "###.###", "#######", "#######"}, kBlue);
    OwnedWorld scratch(7, 5);
    feather(m, 1, true, *qtest::wholeFrameLimits(7, 5), scratch);
    for (int y = 1; y <= 3; ++y) {
        for (int x = 2; x <= 4; ++x) {
            EXPECT_EQ(29127, m.get(kBlue, x, y)) << x << "," << y;  // 8 x 32768 / 9
        }
    }
    EXPECT_EQ(32768, m.get(kBlue, 1, 2));
}

TEST(Feather, matches_the_plain_squares_and_sums_on_random_planes) {
    const int sizes[][2] = {{1, 1},   {3, 3},   {2, 9},   {9, 2},
                            {31, 17}, {64, 40}, {97, 13}, {150, 61}};
    const int radii[] = {1, 2, 3, 4, 5, 8, 20, 91};  // 91: sums past 32 bits
    uint32_t seed = 900;
    for (const auto& size : sizes) {
        for (int radius : radii) {
            for (int round = 0; round < 2; ++round, ++seed) {
                const int w = size[0];
                const int h = size[1];
                // Blobs: a coarse random plane, so edges are lines and specks, not noise.
                std::mt19937 rng(seed);
                OwnedWorld start =
                    qtest::randomWorld(w, h, seed, [](std::mt19937& g, qtest::Channel) {
                        return static_cast<uint16_t>(g() % 30000);
                    });
                const int cell = 1 + static_cast<int>(rng() % 6);
                for (int y = 0; y < h; ++y) {
                    for (int x = 0; x < w; ++x) {
                        const uint32_t v =
                            ((x / cell) * 7919u + (y / cell) * 104729u + seed) * 2654435761u;
                        start.set(kBlue, x, y, (v >> 28) < 7 ? 32768 : (v >> 28) < 15 ? 0 : 20000);
                    }
                }
                auto limits =
                    round == 0 ? qtest::wholeFrameLimits(w, h) : qtest::randomLimits(w, h, seed);
                SCOPED_TRACE(::testing::Message() << w << "x" << h << " r" << radius);
                expectFeatherMatches(start, radius, seed % 4 == 0, *limits,
                                     qtest::randomWorld(w, h, seed + 3, anyValue));
                if (HasFailure()) return;
            }
        }
    }
}

TEST(Feather, strips_of_a_wide_frame_join_without_seams) {
    // Wider than one strip of columns: band squares and windows cross the strip boundary.
    const int w = 4200;
    const int h = 14;
    OwnedWorld start(w, h);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            start.set(kBlue, x, y,
                      ((x / 5 + y / 3) % 3 == 0 || (x > 4090 && x < 4100)) ? 32768 : 0);
        }
    }
    for (int radius : {1, 6, 40}) {
        SCOPED_TRACE(radius);
        expectFeatherMatches(start, radius, false, *qtest::randomLimits(w, h, 77 + radius),
                             OwnedWorld(w, h));
    }
}

TEST(Feather, a_radius_wider_than_the_edge_bit_rows_still_matches) {
    // A strip whose reach (the strip and the radius each side) exceeds the edge-test bit rows
    // takes the pixel-by-pixel edge test. One edge pixel, one limits column to average.
    const int w = 20000;
    const int h = 3;
    OwnedWorld start(w, h);
    start.set(kBlue, 10000, 1, 32768);
    start.set(kBlue, 10001, 1, 20000);
    auto limits = qtest::emptyLimits(1, 1);
    limits->left[1] = 10000;
    limits->right[1] = 10001;
    const OwnedWorld actual = expectFeatherMatches(start, 6200, false, *limits, OwnedWorld(w, h));
    EXPECT_EQ(0, actual.get(kBlue, 3800, 0));  // in the band, outside the limits
    EXPECT_EQ(32768, actual.get(kAlpha, 3800, 0));
}

}  // namespace
