#include "matte/flood_fill.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/worlds.h"

namespace {

using qtest::OwnedWorld;

constexpr A_u_short kOpen = 32768, kFull = 32768;

// A SeedStack as the render's container holds it: zero-filled storage, then constructed.
struct ZeroedSeedStack {
    void* storage = std::calloc(1, sizeof(SeedStack));
    SeedStack* stack = new (storage) SeedStack();
    ~ZeroedSeedStack() { stack->~SeedStack(), std::free(storage); }
};

// Red mask from art, rows split by '|': '#' solid (red 0), anything else open; alpha full.
OwnedWorld
maskFromArt(const std::string& art) {
    const int w = static_cast<int>(std::min(art.find('|'), art.size()));
    OwnedWorld mask(w, static_cast<int>(art.size() + 1) / (w + 1));
    for (int y = 0; y < mask.height(); ++y)
        for (int x = 0; x < w; ++x)
            mask.at(x, y) = {kFull, art[y * (w + 1) + x] == '#' ? A_u_short(0) : kOpen, 0, 0};
    return mask;
}

// The red plane as art: '#' 0, '.' open, 'a', 'b'.. labels 32, 64.., '?' anything else.
std::string
redArt(const OwnedWorld& mask) {
    std::string out;
    for (int y = 0; y < mask.height(); ++y) {
        for (int x = 0; x < mask.width(); ++x) {
            const int v = mask.at(x, y).red;
            out += v == 0 ? '#' : v == kOpen ? '.' : v % 32 == 0 ? char('a' + v / 32 - 1) : '?';
        }
        out += y + 1 < mask.height() ? "|" : "";
    }
    return out;
}

// One call of the fill, with the main render call's settings as defaults (blob mode, any
// size, anywhere, zero tolerance, full-frame limits).
struct FillCase {
    OwnedWorld mask, alpha;
    std::unique_ptr<FillLimitsArray> limits = std::make_unique<FillLimitsArray>();
    std::unique_ptr<FillTagList> tags = std::make_unique<FillTagList>();
    ZeroedSeedStack seeds;
    Pix16LineRange range{};
    CrossHairsArray crossHairs{};
    int minSize = 0, maxSize = 999999, darkLimit = 0, thinLimit = 0, guardRadius = 0, found = 1;
    float tolerance = 0.0f, toleranceScale = 1.0f;
    bool blobMode = true, stopAtZeroAlpha = true, guardVeto = false;
    bool keepLabels = false, fillZeroFromDiagonal = false, keepLines = false;
    A_u_short edgeThreshold = 1;
    int edgeDistance = 3, scale = 1;

    explicit FillCase(OwnedWorld m) : mask(std::move(m)), alpha(mask.width(), mask.height()) {
        alpha.fill(PF_Pixel16{kFull, 0, 0, 0});
        limits->lastRow = mask.height() - 1;
        for (int y = 0; y < mask.height(); ++y) limits->right[y] = mask.width() - 1;
    }
    explicit FillCase(const std::string& art) : FillCase(maskFromArt(art)) {}
    void run() {
        const int w = mask.width(), h = mask.height();
        floodFillHolesLogInFillTagList(
            alpha, mask, w - 1, h, h - 1, w, w / 2, tags.get(), minSize, maxSize, tolerance,
            darkLimit, thinLimit, &range, toleranceScale, 0, guardRadius, &crossHairs, seeds.stack,
            blobMode, stopAtZeroAlpha, true, guardVeto, limits.get(), found, edgeThreshold,
            keepLabels, fillZeroFromDiagonal, edgeDistance, scale, keepLines);
    }
    const FillTag& tag(int i) const { return tags->tags[i]; }
};

// An independent, unbounded reading of the labelling phase: recursion instead of a stack.
struct RefTag {
    int area = 0, minX = 99999, maxX = 0, minY = 99999, maxY = 0, spanEnds = 0, guardEnds = 0;
    int widestLeft = 0, widestRight = 0, widestWidth = 0, widestY = 0;
};

struct RefSeed {
    int x, y;
    bool isRoot, goingDown, canUp, canDown;
    RefSeed* parent;
    int left = 0, right = 0, cursor = 0, spanRight = 0;
    bool upDone = false;
};

struct ReferenceFill {
    const OwnedWorld& alpha;
    OwnedWorld& mask;
    const FillLimitsArray& lim;
    A_u_short target;
    bool stopAtZeroAlpha;
    std::vector<RefTag> tags = std::vector<RefTag>(600);
    int count = 1;
    A_u_short label = 0;
    RefTag* tag = nullptr;

    RefSeed seed(int x, int y, bool root, bool down, RefSeed* parent) const {
        return {x, y, root, down, y >= 1, y < mask.height() - 1, parent};
    }
    bool claimable(int x, int y) const {
        return mask.at(x, y).red == target && !(stopAtZeroAlpha && alpha.at(x, y).alpha == 0);
    }
    void countEnd(int x, int y) { ++tag->spanEnds, tag->guardEnds += mask.at(x, y).green == 32767; }
    void grow(RefSeed& s) {
        s.left = s.right = s.x;
        if (s.y >= lim.firstRow && s.y <= lim.lastRow && s.x >= lim.left[s.y] &&
            s.x <= lim.right[s.y] && claimable(s.x, s.y)) {
            // From the first to the last claimable pixel, less a pixel on the row's limit.
            const int lo = lim.left[s.y], hi = lim.right[s.y];
            int first = s.x, last = s.x;
            while (first - 1 >= lo && claimable(first - 1, s.y)) --first;
            while (last + 1 <= hi && claimable(last + 1, s.y)) ++last;
            s.left = first == lo ? first + 1 : first;
            s.right = last == hi ? last - 1 : last;
        }
        RefSeed& p = *s.parent;
        if (!p.isRoot && p.upDone == s.goingDown && p.cursor <= s.right) {
            p.cursor = std::min(p.spanRight, s.right + 1);
        }
        if (s.right - s.left < 1) return countEnd(s.x, s.y);  // single pixels are never painted
        for (int x = s.left; x <= s.right; ++x)
            mask.at(x, s.y).red = label, mask.at(x, s.y).alpha = kFull;
        tag->area += s.right - s.left;
        tag->minX = std::min(tag->minX, s.left), tag->maxX = std::max(tag->maxX, s.right);
        tag->minY = std::min(tag->minY, s.y), tag->maxY = std::max(tag->maxY, s.y);
        if (s.right - s.left > tag->widestWidth) {
            tag->widestLeft = s.left, tag->widestRight = s.right, tag->widestY = s.y;
            tag->widestWidth = s.right - s.left;
        }
        countEnd(s.left, s.y), countEnd(s.right, s.y);
        s.cursor = s.left, s.spanRight = s.right;
        if (!s.isRoot && p.left <= s.left && s.right <= p.right) {  // within the parent's span
            if (s.goingDown)
                s.canUp = false, s.upDone = true;
            else
                s.canDown = false;
        }
        while (!s.upDone) {  // the last column of a span never seeds
            if (!s.canUp || s.y - 1 < 0 || s.spanRight <= s.cursor) {
                s.upDone = true, s.cursor = s.left;
                break;
            }
            RefSeed child = seed(s.cursor++, s.y - 1, false, false, &s);
            grow(child);
        }
        while (s.canDown && s.y + 1 < mask.height() && s.cursor < s.spanRight) {
            RefSeed child = seed(s.cursor++, s.y + 1, false, true, &s);
            grow(child);
        }
    }
    void run() {
        RefSeed none{};  // the all-zero entry below every root
        for (int y = lim.firstRow; y <= lim.lastRow; ++y) {
            for (int x = lim.left[y]; x <= lim.right[y]; ++x) {
                if (mask.at(x, y).red != target) continue;
                const int index = std::min(count, 599);
                tag = &tags[index];
                label = static_cast<A_u_short>(index * 32);
                RefSeed root = seed(x, y, true, false, &none);
                grow(root);
                if (tag->area != 0) count = std::min(count + 1, 599);
            }
        }
    }
};

template <typename Tag>
auto
measurements(const Tag& t) {
    return std::tuple(t.area, t.minX, t.maxX, t.minY, t.maxY, t.spanEnds, t.guardEnds, t.widestLeft,
                      t.widestRight, t.widestWidth, t.widestY);
}

TEST(FloodFill, spans_of_two_or_more_inside_the_limits_are_labelled_single_pixel_spans_never) {
    struct Case {
        const char *art, *labelled;
        int left, right, count, area1;  // the limits' columns on every row
    };
    const Case cases[] = {
        // A two-pixel-wide bar is region 1, the one-pixel line never, the flat line region 2.
        {".........|.##..#...|.##..#...|.##..#...|.........|...####..|.........",
         ".........|.aa..#...|.aa..#...|.aa..#...|.........|...bbbb..|.........", 0, 8, 3, 3},
        {"..........|.##....##.|.##....##.|.########.|..........",  // arms meet below
         "..........|.aa....aa.|.aa....aa.|.aaaaaaaa.|..........", 0, 9, 2, 11},
        // The limits' columns 2 and 5 are never claimed; pixels outside are not looked at.
        {"........|#.####.#|..####..|..####..|........",
         "........|#.#aa#.#|..#aa#..|..#aa#..|........", 2, 5, 2, 3},
    };
    for (const Case& k : cases) {
        FillCase c(k.art);
        for (int y = 0; y < c.mask.height(); ++y)
            c.limits->left[y] = k.left, c.limits->right[y] = k.right;
        c.keepLabels = true;
        c.run();
        EXPECT_EQ(redArt(c.mask), k.labelled);
        EXPECT_EQ(c.tags->count, k.count);
        EXPECT_EQ(c.tag(1).area, k.area1) << k.art;
        // Record 2 was tried three times by the line and reused uncleared: its three span
        // ends stay, before the flat line's 2 ends and 6 failed seeds.
        EXPECT_TRUE(&k != cases || c.tag(2).spanEnds == 3 + 2 + 6);
    }
}

TEST(FloodFill, fill_tags_fold_overrun_into_last_record) {
    // 650 separate 2 x 2 blobs, 26 per row: blob k is region k + 1 up to 599; the last 52
    // share record 599, whose extents accumulate. Row 76 may hold single specks.
    auto blobs = [](int specks) {
        std::string a;
        for (int y = 0; y < 78; ++y) {
            for (int x = 0; x < 79; ++x)
                a += (y < 76 && x % 3 && y % 3) || (y == 76 && x % 10 == 0 && x && x <= 10 * specks)
                         ? '#'
                         : '.';
            a += y < 77 ? "|" : "";
        }
        return a;
    };
    FillCase labels(blobs(0));
    labels.keepLabels = true;
    labels.run();
    EXPECT_EQ(labels.tags->count, 599);
    EXPECT_EQ(labels.mask.at(61, 67).red, (22 * 26 + 20 + 1) * 32);
    EXPECT_EQ(labels.mask.at(76, 67).red, 598 * 32);  // k = 597
    EXPECT_EQ(labels.mask.at(1, 70).red, 19168);      // k = 598, record 599
    EXPECT_EQ(labels.mask.at(76, 73).red, 19168);     // k = 649
    const FillTag& last = labels.tag(599);
    EXPECT_EQ(std::tuple(last.area, last.minX, last.maxX, last.minY, last.maxY),
              std::tuple(52 * 2, 1, 77, 70, 74));

    // Size bound 3: every blob alone is removed, but the shared record's extent passes the
    // bound and the last region's verdict wins for all of them.
    FillCase removed(blobs(0));
    removed.maxSize = 3;
    removed.run();
    EXPECT_EQ(std::pair(removed.mask.at(73, 67).red, removed.mask.at(73, 67).blue),
              std::pair(kOpen, A_u_short(20000)));  // k = 596
    EXPECT_EQ(std::pair(removed.mask.at(1, 70).red, removed.mask.at(1, 70).blue),
              std::pair(A_u_short(0), A_u_short(32768)));  // k = 598
    EXPECT_EQ(removed.mask.at(77, 74).red, 0);

    // Once the shared record has an area, an attempt that paints nothing is judged again:
    // specks on green 32767 add guard ends, and with a veto the third spares the record.
    for (int specks : {2, 3}) {
        FillCase c(blobs(specks));
        for (int s = 1; s <= specks; ++s) c.mask.at(10 * s, 76).green = 32767;
        c.guardRadius = 1, c.guardVeto = true;
        c.run();
        EXPECT_EQ(c.tag(599).flagged, specks == 2);
    }
}

TEST(FloodFill, size_bounds_are_exclusive_thin_regions_change_lines_can_be_kept_holes_fill) {
    const char* blob = "......|.####.|.####.|.####.|......";  // extents 3 and 2
    const char* line = "......|.####.|......";
    const char* bar = "......|.####.|.####.|......";
    const char* hole = "######|#..###|#..#.#|######";
    struct Case {
        const char* art;
        int minSize, maxSize, thinLimit;
        bool keepLines, blobMode;
        A_u_short red, blue;
    };
    const Case cases[] = {
        {blob, 2, 4, 0, false, true, kOpen, 20000},
        {blob, 3, 4, 0, false, true, 0, 32768},      // = minSize
        {blob, 2, 3, 0, false, true, 0, 32768},      // = maxSize
        {blob, 2, 3, 3, false, true, kOpen, 32768},  // thin: changed, full blue
        {blob, 2, 3, 2, false, true, 0, 32768},
        {line, 0, 999999, 0, true, true, 0, 20000},     // a one-pixel-thick line is spared, dimmed
        {line, 0, 3, 0, true, true, 0, 32768},          // out of the size range: full blue
        {bar, 0, 999999, 0, true, true, kOpen, 20000},  // two pixels thick: not a line
        {hole, 0, 999999, 0, false, false, 0, 20000},   // a flagged hole turns solid
    };
    for (const Case& k : cases) {
        FillCase c(k.art);
        c.minSize = k.minSize, c.maxSize = k.maxSize, c.thinLimit = k.thinLimit;
        c.keepLines = k.keepLines, c.blobMode = k.blobMode;
        c.run();
        EXPECT_EQ(std::pair(c.mask.at(2, 1).red, c.mask.at(2, 1).blue), std::pair(k.red, k.blue))
            << &k - cases;
    }
}

TEST(FloodFill, found_picks_blobs_by_screen_edge_and_half_or_on_an_object_edge) {
    // A 3 x 3 blob with its top-left corner at (x, y) in a 40 x 30 frame (yMax 29); the alpha
    // world is transparent on the ring at Chebyshev distance 2 from it, opaque elsewhere.
    auto flagged = [](int found, int scale, int x, int y, int edgeDistance = 3,
                      A_u_short threshold = 1) {
        FillCase c{OwnedWorld(40, 30)};
        for (int v = 0; v < 30; ++v) {
            for (int u = 0; u < 40; ++u) {
                const int d = std::max({x - u, u - x - 2, y - v, v - y - 2});
                c.mask.at(u, v) = {kFull, d <= 0 ? A_u_short(0) : kOpen, 0, 0};
                c.alpha.at(u, v).alpha = d == 2 ? 0 : kFull;
            }
        }
        c.found = found, c.scale = scale, c.edgeDistance = edgeDistance,
        c.edgeThreshold = threshold;
        c.run();
        return c.tag(1).flagged;
    };
    // found, scale, x, y of the blob, flagged; each rule at and just past its bound.
    const int cases[][5] = {
        {1, 1, 10, 10, 1},                                        // anywhere
        {2, 1, 10, 4, 1},  {2, 1, 10, 5, 0},  {2, 2, 10, 4, 0},   // top: minY <= 4 / scale
        {2, 2, 10, 2, 1},  {2, 0, 10, 4, 1},  {2, 9, 10, 1, 1},   // scale clamped to 1..4
        {2, 9, 10, 2, 0},  {3, 1, 10, 24, 1}, {3, 1, 10, 23, 0},  // bottom: maxY >= 30 - 4
        {4, 1, 4, 10, 1},  {4, 1, 5, 10, 0},                      // left: minX <= 4
        {5, 1, 34, 10, 1}, {5, 1, 33, 10, 0},                     // right: maxX >= 40 - 4
        {6, 1, 10, 11, 1}, {6, 1, 10, 12, 0},                     // top half: maxY < 14
        {7, 1, 10, 15, 1}, {7, 1, 10, 14, 0},                     // bottom half: minY > 14
        {8, 1, 17, 10, 1}, {8, 1, 18, 10, 0},                     // left half: maxX < 20
        {9, 1, 21, 10, 1}, {9, 1, 20, 10, 0}};                    // right half: minX > 20
    for (const auto& k : cases) {
        EXPECT_EQ(flagged(k[0], k[1], k[2], k[3]), k[4] == 1)
            << "found " << k[0] << " scale " << k[1] << " at " << k[2] << "," << k[3];
    }
    // On an object edge: alpha sampled edgeDistance / scale (divided again) pixels out.
    EXPECT_TRUE(flagged(10, 1, 8, 8, 2));         // all samples transparent: on an edge
    EXPECT_FALSE(flagged(10, 1, 8, 8, 4));        // all samples opaque: inside the object
    EXPECT_TRUE(flagged(10, 2, 8, 8, 4));         // 4 / 2 = 2
    EXPECT_TRUE(flagged(10, 1, 8, 8, 4, kFull));  // opaque samples at the threshold do not count
}

TEST(FloodFill, colour_test_compares_tolerance_squared_with_squared_distance) {
    // Segment (0,0,0) -> (20000,0,0); the blob's colour (10000, 6, 8) lies at distance 10.
    auto verdict = [](float tolerance, float scaleBy, int darkLimit) {
        FillCase c("......|.####.|.####.|......");
        for (int i = 0; i < 8; ++i)
            c.alpha.at(1 + i % 4, 1 + i / 4) = PF_Pixel16{kFull, 10000, 6, 8};
        c.range.count = 2;
        c.range.b = c.range.c = XYZ{20000.0f, 0.0f, 0.0f};
        c.range.beyondAB = 1.0f;
        c.tolerance = tolerance, c.toleranceScale = scaleBy, c.darkLimit = darkLimit;
        c.run();
        return std::pair(c.mask.at(2, 1).red, c.mask.at(2, 1).blue);
    };
    using V = std::pair<A_u_short, A_u_short>;
    EXPECT_EQ(verdict(10.0f, 1.0f, 0), V(kOpen, 20000));  // exactly on the tolerance: out
    EXPECT_EQ(verdict(5.0f, 2.0f, 0), V(kOpen, 20000));   // the scale multiplies
    EXPECT_EQ(verdict(10.01f, 1.0f, 0), V(0, 32768));     // just inside: kept
    EXPECT_EQ(verdict(5.01f, 2.0f, 0), V(0, 32768));
    EXPECT_EQ(verdict(10.01f, 1.0f, 10015), V(kOpen, 10000));  // sum 10014 is dark
    EXPECT_EQ(verdict(10.01f, 1.0f, 10014), V(0, 32768));

    // Seven samples on the widest (first) span at widestLeft + i * (width / 8), i = 1..7.
    FillCase c("...................|.#################.|.#################.|...................");
    for (int x = 1; x <= 17; ++x) c.alpha.at(x, 1).red = A_u_short((x - 1) * 1000 + (x == 15) * 5);
    c.run();
    EXPECT_EQ(c.tag(1).sampleCount, 7);
    EXPECT_EQ(c.tag(1).sampleColour.red, 8000);  // (2000 + ... + 14000 + 5) / 7, truncated
    EXPECT_EQ(c.tag(1).sampleColour.alpha, kFull);
}

TEST(FloodFill, guard_veto_counts_span_ends_on_guard_pixels) {
    // A 3-pixel line: 2 span ends and 4 failed seeds (6); its left end is on green 32767.
    auto flagged = [](int guardRadius, bool veto) {
        FillCase c(".....|.###.|.....");
        c.mask.at(1, 1).green = 32767;
        c.guardRadius = guardRadius, c.guardVeto = veto;
        c.run();
        EXPECT_EQ(std::pair(c.tag(1).spanEnds, c.tag(1).guardEnds), std::pair(6, 1));
        return c.tag(1).flagged;
    };
    EXPECT_TRUE(flagged(1, true));   // 6 >= 2 and 1 <= 2: no guard
    EXPECT_TRUE(flagged(3, true));   // 6 >= 6 and 1 <= 6: no guard
    EXPECT_FALSE(flagged(4, true));  // 6 < 8: guard
    EXPECT_FALSE(flagged(0, true));  // 1 > 0: guard
    EXPECT_TRUE(flagged(4, false));
}

TEST(FloodFill, cross_hairs_override_verdicts_of_regions_below_max_size) {
    const char* blobs =
        "....................|.###...###...##.....|.###...###...##.....|"
        ".###...###..........|....................";
    auto hair = [](CrossHairsArray& h, int i, int cx, int cy) {
        h.centreX[i] = cx, h.centreY[i] = cy, h.radius[i] = 1, h.active[i] = true;
        h.left[i] = cx - 1, h.right[i] = cx + 1, h.top[i] = cy - 1, h.bottom[i] = cy + 1;
    };
    // The 2 x 2 blob (extent 1) is kept by minSize; the 3 x 3 blobs are removed.
    FillCase c(blobs);
    c.minSize = 1, c.maxSize = 10;
    hair(c.crossHairs, 1, 2, 2);   // keeps the first blob
    hair(c.crossHairs, 3, 14, 0);  // changes the 2 x 2 blob; its box leaves the frame
    hair(c.crossHairs, 0, 8, 2);   // entry 0 is never read
    hair(c.crossHairs, 2, 11, 2);  // its box covers the middle blob, its disc not
    c.crossHairs.left[2] = 8;
    c.run();
    EXPECT_EQ(redArt(c.mask),
              "....................|.###................|"
              ".###................|.###................|....................");
    // Blue keeps the region's own decision; so does altValue.
    EXPECT_EQ(std::tuple(c.mask.at(2, 2).blue, c.mask.at(8, 2).blue, c.mask.at(14, 2).blue),
              std::tuple(20000, 20000, 32768));
    EXPECT_EQ(std::pair(c.tag(1).altValue, c.tag(3).altValue),
              std::pair(A_u_short(0), A_u_short(32768)));

    // A region whose width or height reaches maxSize is not overridden.
    for (const char* art : {"......|.###..|.###..|......", "....|.##.|.##.|.##.|...."}) {
        FillCase big(art);
        big.maxSize = 2;
        hair(big.crossHairs, 4, 2, 2);
        big.run();
        EXPECT_EQ(big.mask.at(2, 2).red, 0) << art;
    }
}

TEST(FloodFill, seed_stack_grows_past_its_entries_and_clears_only_the_first_7000) {
    ZeroedSeedStack holder;
    SeedStack* seeds = holder.stack;
    for (int i = 1; i <= 25000; ++i) addSeedToStack(seeds, i % 2, i, i % 7, i, 5, i - 1, false);
    EXPECT_EQ(seeds->count, 25000);
    for (int i : {1, 19999, 20000, 25000}) {
        const Seed& s = seedAt(seeds, i);
        EXPECT_EQ(std::tuple(s.x, s.parent, s.state, s.canUp, s.canDown, s.goingDown),
                  std::tuple(i, i - 1, 1, i % 7 >= 1, i % 7 < 5, i % 2 == 1));
    }
    clearSeedStack(seeds);
    EXPECT_EQ(
        std::tuple(seeds->count, seeds->overflow, seeds->entries[6999].x, seeds->entries[7000].x),
        std::tuple(0, nullptr, 0, 7000));
}

// Guard zones as plainly read: markers off the border in scan order, each zone drawn at once
// (so a zone can hide a later marker).
void
literalGuardZones(OwnedWorld& mask, int radius) {
    const int w = mask.width(), h = mask.height();
    for (int y = 1; y <= h - 2; ++y) {
        for (int x = 1; x <= w - 2; ++x) {
            if (mask.at(x, y).green != 32768) continue;
            for (int yy = std::max(0, y - radius); yy <= std::min(h - 1, y + radius); ++yy)
                for (int xx = std::max(0, x - radius); xx <= std::min(w - 1, x + radius); ++xx)
                    if (xx != x || yy != y) mask.at(xx, yy).green = 32766;
        }
    }
}

// The final rewrite as plainly read, over a labelled mask and its records: labels take their
// region's verdict; with the diagonal rule a red-0 pixel takes the first diagonal neighbour
// with red 33 or more or any blue (so a label not yet rewritten is passed on, and label 32
// never is), else the values last taken.
void
literalRewrite(OwnedWorld& mask, const FillTagList& tags, const FillLimitsArray& l, bool diagonal) {
    A_u_short lastRed = 0, lastBlue = 0;
    const int w = mask.width(), h = mask.height();
    for (int y = l.firstRow; y <= l.lastRow; ++y) {
        for (int x = l.left[y]; x <= l.right[y]; ++x) {
            PF_Pixel16& p = mask.at(x, y);
            if (p.red > 31 && p.red < 19169) {
                const FillTag& t = tags.tags[p.red >> 5];
                p.red = t.redValue, p.blue = t.blueValue;
            } else if (p.red == 0 && diagonal) {
                bool taken = false;
                for (int yy = std::max(y - 1, 0); yy < std::min(h, y + 2) && !taken; yy += 2)
                    for (int xx = std::max(x - 1, 0); xx < std::min(w, x + 2) && !taken; xx += 2) {
                        const PF_Pixel16& n = mask.at(xx, yy);
                        if (n.red >= 33 || n.blue >= 1)
                            lastRed = n.red, lastBlue = n.blue, taken = true;
                    }
                p.red = lastRed, p.blue = lastBlue;
            }
        }
    }
}

TEST(FloodFill, random_mattes_match_the_reference_and_every_claimed_pixel_gets_its_verdict) {
    std::mt19937 rng(20240611);
    std::uniform_int_distribution<int> percent(0, 99);
    for (int round = 0; round < 60; ++round) {
        SCOPED_TRACE(round);
        // A red mask (solid, guard markers and guard-end greens, stray blues), an alpha world
        // (some zero alphas, any colour) and limits with partial rows.
        const int width = 8 + static_cast<int>(rng() % 40),
                  height = 6 + static_cast<int>(rng() % 30);
        OwnedWorld mask(width, height), alpha(width, height);
        const int solid = 35 + percent(rng) % 40;
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const A_u_short green = percent(rng) < 3 ? 32767 : percent(rng) < 2 ? 32768 : 0;
                mask.at(x, y) = {A_u_short(percent(rng) * 300),
                                 percent(rng) < solid ? A_u_short(0) : kOpen, green,
                                 A_u_short(percent(rng) < 50 ? 0 : 777)};
                alpha.at(x, y) = {percent(rng) < 4 ? A_u_short(0) : kFull, A_u_short(rng() % 32769),
                                  A_u_short(rng() % 32769), A_u_short(rng() % 32769)};
            }
        }
        FillLimitsArray limits{};
        limits.firstRow = static_cast<int>(rng() % 3),
        limits.lastRow = height - 1 - static_cast<int>(rng() % 3);
        for (int y = 0; y < height; ++y) {
            const int a = static_cast<int>(rng() % width), b = static_cast<int>(rng() % width);
            limits.left[y] = percent(rng) < 30 ? 0 : std::min(a, b);
            limits.right[y] = percent(rng) < 30 ? width - 1 : std::max(a, b);
        }
        const bool blobMode = rng() % 4 != 0, stopAtZeroAlpha = rng() % 2 != 0;

        FillCase labelled{OwnedWorld(mask)}, rewritten{OwnedWorld(mask)},
            diagonal{OwnedWorld(mask)}, zonesOnly{OwnedWorld(mask)};
        for (FillCase* c : {&labelled, &rewritten, &diagonal, &zonesOnly}) {
            *c->limits = limits, c->alpha = alpha;
            c->blobMode = blobMode, c->stopAtZeroAlpha = stopAtZeroAlpha;
            c->found = 1 + round % 10, c->scale = 1 + round % 3;
            c->minSize = round % 3, c->maxSize = 2 + round % 9, c->thinLimit = round % 2;
            c->keepLines = round % 5 == 0, c->guardVeto = round % 7 == 0;
            c->guardRadius = round % 3, c->darkLimit = (round % 4) * 20000;
        }
        labelled.keepLabels = true;
        diagonal.fillZeroFromDiagonal = true;
        zonesOnly.maxSize = 0;  // guard zones only: nothing else changes, alphas included
        for (FillCase* c : {&labelled, &rewritten, &diagonal, &zonesOnly}) c->run();

        // The reference draws the same zones, labels the same pixels, measures the same regions.
        OwnedWorld refMask(mask);
        literalGuardZones(refMask, round % 3);
        ASSERT_TRUE(qtest::SameWorld(refMask, zonesOnly.mask));
        ReferenceFill ref{alpha, refMask, limits, A_u_short(blobMode ? 0 : kOpen), stopAtZeroAlpha};
        ref.run();
        ASSERT_TRUE(qtest::SamePlane(refMask, labelled.mask, qtest::kRed));
        ASSERT_EQ(labelled.tags->count, ref.count);
        for (int i = 1; i <= ref.count; ++i)
            ASSERT_EQ(measurements(ref.tags[i]), measurements(labelled.tag(i))) << "record " << i;

        // A claimed pixel carries exactly its region's verdict, any other keeps its red and
        // blue (so no label is left and nothing outside the limits changes); alphas are reset.
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const PF_Pixel16 in = mask.at(x, y), out = rewritten.mask.at(x, y);
                const int label = labelled.mask.at(x, y).red;
                const bool claimed = label != in.red;
                const FillTag& t = labelled.tag(claimed ? label >> 5 : 0);
                ASSERT_EQ(std::tuple(out.red, out.blue, out.alpha),
                          claimed ? std::tuple(t.redValue, t.blueValue, kFull)
                                  : std::tuple(in.red, in.blue, kFull))
                    << x << "," << y;
            }
        }
        ASSERT_TRUE(labelled.mask.paddingIntact());
        ASSERT_EQ(labelled.seeds.stack->overflow, nullptr);

        // Rewritten, with and without the diagonal rule: the literal rewrite, every channel.
        OwnedWorld expectRewritten(labelled.mask), expectDiagonal(labelled.mask);
        literalRewrite(expectRewritten, *labelled.tags, limits, false);
        literalRewrite(expectDiagonal, *labelled.tags, limits, true);
        ASSERT_TRUE(qtest::SameWorld(expectRewritten, rewritten.mask));
        ASSERT_TRUE(qtest::SameWorld(expectDiagonal, diagonal.mask));
    }
}

TEST(FloodFill, a_region_beyond_the_fixed_seed_stack_is_filled_whole) {
    // Six 3-pixel-wide columns, 4000 rows tall, joined alternately at the bottom and the top:
    // the depth-first fill keeps one live seed per row walked, about 24000 at once, past the
    // 20000 fixed entries.
    constexpr int kRowsTall = 4000, kColumns = 6;
    std::string art;
    for (int y = 0; y < kRowsTall + 2; ++y) {
        for (int x = 0; x < 4 * kColumns + 2; ++x) {
            const bool join =
                x % 4 == 0 && x > 0 && x < 4 * kColumns && y == ((x / 4) % 2 ? kRowsTall : 1);
            art += (y >= 1 && y <= kRowsTall && x % 4 != 0 && x < 4 * kColumns) || join ? '#' : '.';
        }
        art += y <= kRowsTall ? "|" : "";
    }
    FillCase c(art);
    c.keepLabels = true;
    c.run();
    EXPECT_EQ(c.seeds.stack->overflow, nullptr);  // released when the fill ends
    EXPECT_EQ(c.tags->count, 2);
    EXPECT_EQ(c.tag(1).area, kColumns * kRowsTall * 2 + (kColumns - 1) * 2);
    std::string labelled = art, open = art;
    std::replace(labelled.begin(), labelled.end(), '#', 'a');
    EXPECT_EQ(redArt(c.mask), labelled);

    // The same region, judged and rewritten, is removed whole.
    FillCase removed(art);
    removed.run();
    std::replace(open.begin(), open.end(), '#', '.');
    EXPECT_EQ(redArt(removed.mask), open);
}

}  // namespace
