#include "matte/flood_fill.h"

#include <pthread.h>

#include <algorithm>
#include <cstring>
#include <cstdlib>
#include <functional>
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

constexpr A_u_short kOpen = 32768;
constexpr A_u_short kFull = 32768;

// A SeedStack as the render's container holds it: zero-filled storage, then constructed.
class ZeroedSeedStack {
  public:
    ZeroedSeedStack()
        : storage_(std::calloc(1, sizeof(SeedStack))), stack_(new (storage_) SeedStack()) {}
    ~ZeroedSeedStack() {
        stack_->~SeedStack();
        std::free(storage_);
    }
    SeedStack* get() { return stack_; }

  private:
    void* storage_;
    SeedStack* stack_;
};

// Red mask from art: '#' solid (red 0), anything else open (red 32768); alpha 32768.
OwnedWorld
maskFromArt(const std::vector<std::string>& rows) {
    OwnedWorld mask(static_cast<int>(rows[0].size()), static_cast<int>(rows.size()));
    for (int y = 0; y < mask.height(); ++y) {
        for (int x = 0; x < mask.width(); ++x) {
            mask.at(x, y) = PF_Pixel16{kFull, rows[y][x] == '#' ? A_u_short(0) : kOpen, 0, 0};
        }
    }
    return mask;
}

// A plane as art. Red: '.' open, '#' solid, 'a'.. labels 32.., '*' label 19168. Blue: '.' 0,
// 'B' 32768, 'r' 20000 (removed), 'd' 10000 (dark). '?' anything else.
std::string
planeArt(const OwnedWorld& mask, qtest::Channel channel) {
    std::string out;
    for (int y = 0; y < mask.height(); ++y) {
        for (int x = 0; x < mask.width(); ++x) {
            const int v = mask.get(channel, x, y);
            char c = v == 0 ? (channel == qtest::kRed ? '#' : '.') : '?';
            if (channel == qtest::kRed && v != 0) {
                c = v == kOpen                ? '.'
                    : v == 19168              ? '*'
                    : v % 32 == 0 && v <= 832 ? 'a' + v / 32 - 1
                                              : '?';
            } else if (v != 0) {
                c = v == 32768 ? 'B' : v == 20000 ? 'r' : v == 10000 ? 'd' : '?';
            }
            out += c;
        }
        out += '\n';
    }
    return out;
}
std::string
redArt(const OwnedWorld& mask) {
    return planeArt(mask, qtest::kRed);
}
std::string
blueArt(const OwnedWorld& mask) {
    return planeArt(mask, qtest::kBlue);
}

std::string
lines(std::initializer_list<const char*> rows) {
    std::string out;
    for (const char* r : rows) {
        out += r;
        out += '\n';
    }
    return out;
}

// Everything one call of the fill needs, with the main render call's settings as defaults
// (blob mode, any size, anywhere, zero tolerance).
struct FillCase {
    OwnedWorld mask;
    OwnedWorld alpha;
    std::unique_ptr<FillLimitsArray> limits = std::make_unique<FillLimitsArray>();
    std::unique_ptr<FillTagList> tags = std::make_unique<FillTagList>();
    ZeroedSeedStack seeds;
    Pix16LineRange range{};
    CrossHairsArray crossHairs{};
    int minSize = 0, maxSize = 999999;
    float tolerance = 0.0f, toleranceScale = 1.0f;
    int darkLimit = 0, thinLimit = 0, guardRadius = 0;
    bool blobMode = true, stopAtZeroAlpha = true, guardVeto = false;
    int found = 1;
    A_u_short edgeThreshold = 1;
    bool keepLabels = false, fillZeroFromDiagonal = false, keepLines = false;
    int edgeDistance = 3, scale = 1;

    explicit FillCase(OwnedWorld m) : mask(std::move(m)), alpha(mask.width(), mask.height()) {
        alpha.fill(PF_Pixel16{kFull, 0, 0, 0});
        fullLimits();
    }
    explicit FillCase(const std::vector<std::string>& art) : FillCase(maskFromArt(art)) {}

    void fullLimits() {
        *limits = FillLimitsArray{};
        limits->firstRow = 0;
        limits->lastRow = mask.height() - 1;
        for (int y = 0; y < mask.height(); ++y) limits->right[y] = mask.width() - 1;
    }
    void run() {
        const int w = mask.width(), h = mask.height();
        floodFillHolesLogInFillTagList(
            alpha, mask, w - 1, h, h - 1, w, w / 2, tags.get(), minSize, maxSize, tolerance,
            darkLimit, thinLimit, &range, toleranceScale, 0, guardRadius, &crossHairs, seeds.get(),
            blobMode, stopAtZeroAlpha, true, guardVeto, limits.get(), found, edgeThreshold,
            keepLabels, fillZeroFromDiagonal, edgeDistance, scale, keepLines);
    }
    const FillTag& tag(int i) const { return tags->tags[i]; }
};

// ---------------------------------------------------------------------------------------------
// An independent, unbounded statement of the labelling phase: recursion instead of a stack,
// spans found as "first to last claimable pixel, minus a pixel on the row's limit".
// ---------------------------------------------------------------------------------------------
struct RefTag {
    int area = 0, minX = 99999, maxX = 0, minY = 99999, maxY = 0, spanEnds = 0, guardEnds = 0;
    int widestLeft = 0, widestRight = 0, widestWidth = 0, widestY = 0;
};

struct RefSeed {
    RefSeed(int x0, int y0, bool root, bool down, int height, RefSeed* from)
        : x(x0),
          y(y0),
          isRoot(root),
          goingDown(down),
          canUp(y0 >= 1),
          canDown(y0 < height - 1),
          parent(from) {}
    int x, y, left = 0, right = 0;
    bool isRoot, goingDown, canUp, canDown, upDone = false;
    int cursor = 0, spanRight = 0;
    RefSeed* parent;
};

struct ReferenceFill {
    ReferenceFill(const OwnedWorld& a, OwnedWorld& m, const FillLimitsArray& l, A_u_short t,
                  bool stop)
        : alpha(a), mask(m), lim(l), target(t), stopAtZeroAlpha(stop) {}
    const OwnedWorld& alpha;
    OwnedWorld& mask;
    const FillLimitsArray& lim;
    A_u_short target;
    bool stopAtZeroAlpha;
    std::vector<RefTag> tags = std::vector<RefTag>(600);
    int count = 1;
    int depth = 0, maxDepth = 0;
    A_u_short label = 0;
    RefTag* tag = nullptr;

    bool claimable(int x, int y) const {
        return mask.at(x, y).red == target && !(stopAtZeroAlpha && alpha.at(x, y).alpha == 0);
    }
    void countEnd(int x, int y) {
        ++tag->spanEnds;
        if (mask.at(x, y).green == 32767) ++tag->guardEnds;
    }
    void grow(RefSeed& s) {
        maxDepth = std::max(maxDepth, ++depth);
        s.left = s.right = s.x;
        if (s.y >= lim.firstRow && s.y <= lim.lastRow && s.x >= lim.left[s.y] &&
            s.x <= lim.right[s.y] && claimable(s.x, s.y)) {
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
        if (s.right - s.left < 1) {
            countEnd(s.x, s.y);
            --depth;
            return;
        }
        for (int x = s.left; x <= s.right; ++x) {
            mask.at(x, s.y).red = label;
            mask.at(x, s.y).alpha = kFull;
        }
        tag->area += s.right - s.left;
        tag->minX = std::min(tag->minX, s.left);
        tag->maxX = std::max(tag->maxX, s.right);
        tag->minY = std::min(tag->minY, s.y);
        tag->maxY = std::max(tag->maxY, s.y);
        if (s.right - s.left > tag->widestWidth) {
            *tag = RefTag{
                tag->area,      tag->minX, tag->maxX, tag->minY,        tag->maxY, tag->spanEnds,
                tag->guardEnds, s.left,    s.right,   s.right - s.left, s.y};
        }
        countEnd(s.left, s.y);
        countEnd(s.right, s.y);
        s.cursor = s.left;
        s.spanRight = s.right;
        if (!s.isRoot && p.left <= s.left && s.right <= p.right) {
            if (s.goingDown) {
                s.canUp = false;
                s.upDone = true;
            } else {
                s.canDown = false;
            }
        }
        const int height = mask.height();
        while (!s.upDone) {
            if (!s.canUp || s.y - 1 < 0 || s.spanRight <= s.cursor) {
                s.upDone = true;
                s.cursor = s.left;
                break;
            }
            RefSeed child(s.cursor, s.y - 1, false, false, height, &s);
            ++s.cursor;
            grow(child);
        }
        while (s.canDown && s.y + 1 < height && s.cursor < s.spanRight) {
            RefSeed child(s.cursor, s.y + 1, false, true, height, &s);
            ++s.cursor;
            grow(child);
        }
        --depth;
    }
    void run() {
        RefSeed none(0, 0, false, false, 1, nullptr);  // the all-zero entry below every root
        for (int y = lim.firstRow; y <= lim.lastRow; ++y) {
            for (int x = lim.left[y]; x <= lim.right[y]; ++x) {
                if (mask.at(x, y).red != target) continue;
                const int index = std::min(count, 599);
                tag = &tags[index];
                label = static_cast<A_u_short>(index * 32);
                RefSeed root(x, y, true, false, mask.height(), &none);
                grow(root);
                if (tag->area != 0) count = std::min(count + 1, 599);
            }
        }
    }
};

// Runs f on a thread with a large stack (the reference recurses once per live seed).
void
runWithLargeStack(const std::function<void()>& f) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 512u << 20);
    pthread_t thread;
    auto call = [](void* arg) -> void* {
        (*static_cast<const std::function<void()>*>(arg))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attr, call, const_cast<std::function<void()>*>(&f)), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
}

// The measurements a record holds after the labelling phase, for comparison.
template <typename Tag>
auto
measurements(const Tag& t) {
    return std::tuple(t.area, t.minX, t.maxX, t.minY, t.maxY, t.spanEnds, t.guardEnds, t.widestLeft,
                      t.widestRight, t.widestWidth, t.widestY);
}

// ---------------------------------------------------------------------------------------------

TEST(FloodFill, spans_of_two_or_more_pixels_are_painted_single_pixel_spans_never) {
    const std::vector<std::string> world = {".........",  //
                                            ".##..#...",  //
                                            ".##..#...",  //
                                            ".##..#...",  //
                                            ".........",  //
                                            "...####..",  //
                                            "........."};
    FillCase c(world);
    c.keepLabels = true;
    c.run();
    // The two-pixel-wide bar is region 1; the one-pixel vertical line is never painted nor
    // logged; the horizontal line becomes region 2.
    EXPECT_EQ(redArt(c.mask), lines({".........", ".aa..#...", ".aa..#...", ".aa..#...",
                                     ".........", "...bbbb..", "........."}));
    EXPECT_EQ(c.tags->count, 3);
    EXPECT_EQ(c.tag(1).area, 3);
    EXPECT_EQ(c.tag(2).area, 3);
    EXPECT_EQ(c.tag(2).minX, 3);
    EXPECT_EQ(c.tag(2).maxX, 6);
    // Record 2 was tried three times by the line's pixels and reused uncleared: their three
    // span ends stay in it, before the horizontal line's 2 ends and 6 failed seeds.
    EXPECT_EQ(c.tag(2).spanEnds, 3 + 2 + 6);

    // Without labels kept: both logged regions are removed (zero tolerance puts every sampled
    // colour out of range); the unlogged line stays solid with blue 0.
    FillCase removed(world);
    removed.run();
    EXPECT_EQ(redArt(removed.mask), lines({".........", ".....#...", ".....#...", ".....#...",
                                           ".........", ".........", "........."}));
    EXPECT_EQ(blueArt(removed.mask), lines({".........", ".rr......", ".rr......", ".rr......",
                                            ".........", "...rrrr..", "........."}));

    // keepLines spares the one-pixel-thick line but leaves its blue at 20000 (dimmed).
    FillCase spared(world);
    spared.keepLines = true;
    spared.run();
    EXPECT_EQ(spared.mask.at(4, 5).red, 0);
    EXPECT_EQ(spared.mask.at(4, 5).blue, 20000);
    EXPECT_FALSE(spared.tag(2).flagged);
    EXPECT_EQ(spared.mask.at(1, 1).red, kOpen);

    // A region made only of single-pixel spans (a diagonal) is never logged.
    FillCase diagonal({"......", ".#....", "..#...", "...#..", "......"});
    diagonal.run();
    EXPECT_EQ(diagonal.tags->count, 1);
    EXPECT_EQ(redArt(diagonal.mask), lines({"......", ".#....", "..#...", "...#..", "......"}));
}

TEST(FloodFill, pixels_on_a_rows_limit_are_left_out_of_spans) {
    FillCase c({"........",  //
                "#.####.#",  //
                "..####..",  //
                "..####..",  //
                "........"});
    c.limits->firstRow = 1;
    c.limits->lastRow = 3;
    for (int y = 1; y <= 3; ++y) c.limits->left[y] = 2, c.limits->right[y] = 5;
    c.keepLabels = true;
    c.run();
    // Columns 2 and 5 are the limits: never claimed, even though the blob reaches them.
    // Pixels outside the limits are not looked at.
    EXPECT_EQ(redArt(c.mask), lines({"........",  //
                                     "#.#aa#.#",  //
                                     "..#aa#..",  //
                                     "..#aa#..",  //
                                     "........"}));
    EXPECT_EQ(c.tags->count, 2);
    EXPECT_EQ(c.tag(1).minX, 3);
    EXPECT_EQ(c.tag(1).maxX, 4);

    // With full-frame limits a blob on the frame's edges loses column 0 and the last column.
    FillCase edge({"####", "####", "...."});
    edge.keepLabels = true;
    edge.run();
    EXPECT_EQ(redArt(edge.mask), lines({"#aa#", "#aa#", "...."}));
}

TEST(FloodFill, u_shaped_blob_whose_arms_meet_below_or_above_is_one_region) {
    // Arms found before the bar that joins them, or found from the bar and filled downwards.
    const std::vector<std::string> u = {"..........", ".##....##.", ".##....##.", ".########.",
                                        ".........."};
    const std::vector<std::string> n = {"..........", ".########.", ".##....##.", ".##....##.",
                                        ".........."};
    for (const auto& art : {u, n}) {
        FillCase c(art);
        c.keepLabels = true;
        c.run();
        std::string expected;
        for (const std::string& row : art) {
            expected += row + '\n';
            std::replace(expected.end() - 11, expected.end(), '#', 'a');
        }
        EXPECT_EQ(redArt(c.mask), expected);
        EXPECT_EQ(c.tags->count, 2);
        EXPECT_EQ(c.tag(1).area, 2 * 1 + 2 * 1 + 7);
    }
}

TEST(FloodFill, fill_tags_fold_overrun_into_last_record) {
    // 650 separate 2 x 2 blobs, 26 per row: blob k is region k + 1 up to 599; the last 52
    // all share record 599, whose extents accumulate.
    constexpr int kPerRow = 26, kRows = 25;
    std::vector<std::string> art(kRows * 3 + 1, std::string(kPerRow * 3 + 1, '.'));
    for (int j = 0; j < kRows; ++j) {
        for (int i = 0; i < kPerRow; ++i) {
            for (int d = 0; d < 4; ++d) art[1 + 3 * j + d / 2][1 + 3 * i + d % 2] = '#';
        }
    }
    FillCase labels(art);
    labels.keepLabels = true;
    labels.run();
    EXPECT_EQ(labels.tags->count, 599);
    EXPECT_EQ(labels.mask.at(1 + 3 * 20, 1 + 3 * 22).red, (22 * 26 + 20 + 1) * 32);
    EXPECT_EQ(labels.mask.at(1 + 3 * 25, 1 + 3 * 22).red, 598 * 32);  // k = 597
    EXPECT_EQ(labels.mask.at(1 + 3 * 0, 1 + 3 * 23).red, 19168);      // k = 598, record 599
    EXPECT_EQ(labels.mask.at(1 + 3 * 25, 1 + 3 * 24).red, 19168);     // k = 649
    const FillTag& last = labels.tag(599);
    EXPECT_EQ(last.area, 52 * 2);
    EXPECT_EQ(last.minX, 1);
    EXPECT_EQ(last.maxX, 3 * 25 + 2);
    EXPECT_EQ(last.minY, 1 + 3 * 23);
    EXPECT_EQ(last.maxY, 2 + 3 * 24);

    // With a size bound of 3 every blob on its own is removed, but the shared record's
    // accumulated extent soon passes the bound, and the last region's verdict wins for all.
    FillCase removed(art);
    removed.maxSize = 3;
    removed.run();
    EXPECT_EQ(removed.mask.at(1 + 3 * 24, 1 + 3 * 22).red, kOpen);  // k = 596
    EXPECT_EQ(removed.mask.at(1 + 3 * 24, 1 + 3 * 22).blue, 20000);
    EXPECT_EQ(removed.mask.at(1 + 3 * 0, 1 + 3 * 23).red, 0);  // k = 598, alone it was removed
    EXPECT_EQ(removed.mask.at(1 + 3 * 0, 1 + 3 * 23).blue, 32768);
    EXPECT_EQ(removed.mask.at(2 + 3 * 25, 2 + 3 * 24).red, 0);

    // Once the shared record has an area, even an attempt that paints nothing is judged
    // again: single-pixel specks on green 32767 after the last blob add guard ends to it,
    // and with a guard veto the third one spares every region in the record.
    auto sharedFlagged = [&](int specks) {
        std::vector<std::string> more = art;
        more.push_back(std::string(kPerRow * 3 + 1, '.'));
        more.push_back(std::string(kPerRow * 3 + 1, '.'));
        for (int s = 0; s < specks; ++s) more[more.size() - 2][10 + 10 * s] = '#';
        FillCase c(more);
        for (int s = 0; s < specks; ++s) c.mask.at(10 + 10 * s, kRows * 3 + 1).green = 32767;
        c.guardRadius = 1, c.guardVeto = true;
        c.run();
        return c.tag(599).flagged;
    };
    EXPECT_TRUE(sharedFlagged(2));
    EXPECT_FALSE(sharedFlagged(3));
}

TEST(FloodFill, size_bounds_are_exclusive_and_thin_regions_always_change) {
    // A 4 x 3 blob: larger extent 3, smaller extent 2.
    const std::vector<std::string> art = {"......", ".####.", ".####.", ".####.", "......"};
    auto verdict = [&](int minSize, int maxSize, int thinLimit) {
        FillCase c(art);
        c.minSize = minSize, c.maxSize = maxSize, c.thinLimit = thinLimit;
        c.run();
        return std::make_pair(c.mask.at(2, 2).red, c.mask.at(2, 2).blue);
    };
    using V = std::pair<A_u_short, A_u_short>;
    EXPECT_EQ(verdict(2, 4, 0), V(kOpen, 20000));
    EXPECT_EQ(verdict(3, 4, 0), V(0, 32768));      // extent equal to minSize
    EXPECT_EQ(verdict(2, 3, 0), V(0, 32768));      // extent equal to maxSize
    EXPECT_EQ(verdict(2, 3, 3), V(kOpen, 32768));  // thin: flagged, full blue
    EXPECT_EQ(verdict(2, 3, 2), V(0, 32768));

    // A one-pixel-thick line is spared by keepLines; out of the size range it keeps full blue.
    FillCase line({"......", ".####.", "......"});
    line.keepLines = true;
    line.maxSize = 3;
    line.run();
    EXPECT_EQ(line.mask.at(2, 1).red, 0);
    EXPECT_EQ(line.mask.at(2, 1).blue, 32768);
}

TEST(FloodFill, found_picks_blobs_by_screen_edge_and_half) {
    // A 3 x 3 blob with its top-left corner at (x, y) in a 40 x 30 frame (yMax 29).
    auto flagged = [](int found, int scale, int x, int y) {
        std::vector<std::string> art(30, std::string(40, '.'));
        for (int yy = y; yy < y + 3; ++yy) art[yy].replace(x, 3, "###");
        FillCase c(art);
        c.found = found, c.scale = scale;
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
}

TEST(FloodFill, object_edge_samples_alpha_at_edge_distance_divided_by_scale_again) {
    // A 3 x 3 blob at 8..10; every sample lies at Chebyshev distance `step` from it. The
    // alpha world is transparent on the ring at distance 2 and opaque elsewhere.
    auto flagged = [](int edgeDistance, int scale, A_u_short threshold) {
        std::vector<std::string> art(20, std::string(20, '.'));
        for (int y = 8; y <= 10; ++y) art[y].replace(8, 3, "###");
        FillCase c(art);
        for (int y = 0; y < 20; ++y) {
            for (int x = 0; x < 20; ++x) {
                const int d = std::max({8 - x, x - 10, 8 - y, y - 10, 0});
                c.alpha.at(x, y).alpha = d == 2 ? 0 : kFull;
            }
        }
        c.found = 10, c.edgeDistance = edgeDistance, c.scale = scale;
        c.edgeThreshold = threshold;
        c.run();
        return c.tag(1).flagged;
    };
    EXPECT_TRUE(flagged(2, 1, 1));      // all samples transparent: on an edge
    EXPECT_FALSE(flagged(4, 1, 1));     // all samples opaque: inside the object
    EXPECT_TRUE(flagged(4, 2, 1));      // the fill divides by the scale: 4 / 2 = 2
    EXPECT_TRUE(flagged(4, 1, kFull));  // opaque samples equal to the threshold do not count
}

TEST(FloodFill, colour_test_compares_tolerance_squared_with_squared_distance) {
    // Segment (0,0,0) -> (20000,0,0); the blob's colour (10000, 6, 8) lies at distance 10.
    auto verdict = [](float tolerance, float scaleBy, int darkLimit) {
        FillCase c({"......", ".####.", ".####.", "......"});
        for (int y = 1; y <= 2; ++y) {
            for (int x = 1; x <= 4; ++x) c.alpha.at(x, y) = PF_Pixel16{kFull, 10000, 6, 8};
        }
        c.range.count = 2;
        c.range.b = XYZ{20000.0f, 0.0f, 0.0f};
        c.range.c = c.range.b;
        c.range.beyondAB = 1.0f;
        c.tolerance = tolerance, c.toleranceScale = scaleBy, c.darkLimit = darkLimit;
        c.run();
        return std::make_pair(c.mask.at(2, 1).red, c.mask.at(2, 1).blue);
    };
    using V = std::pair<A_u_short, A_u_short>;
    EXPECT_EQ(verdict(10.0f, 1.0f, 0), V(kOpen, 20000));  // exactly on the tolerance: out
    EXPECT_EQ(verdict(5.0f, 2.0f, 0), V(kOpen, 20000));   // the scale multiplies
    EXPECT_EQ(verdict(10.01f, 1.0f, 0), V(0, 32768));     // just inside: kept
    EXPECT_EQ(verdict(5.01f, 2.0f, 0), V(0, 32768));
    EXPECT_EQ(verdict(10.01f, 1.0f, 10015), V(kOpen, 10000));  // sum 10014 is dark
    EXPECT_EQ(verdict(10.01f, 1.0f, 10014), V(0, 32768));

    // Seven samples on the widest (first) span at widestLeft + i * (width / 8), i = 1..7.
    FillCase c({"...................", ".#################.", ".#################.",
                "..................."});
    for (int x = 1; x <= 17; ++x) {
        c.alpha.at(x, 1).red = static_cast<A_u_short>((x - 1) * 1000 + (x == 15 ? 5 : 0));
    }
    c.run();
    EXPECT_EQ(c.tag(1).sampleCount, 7);
    EXPECT_EQ(c.tag(1).sampleColour.red, 8000);  // (2000 + ... + 14000 + 5) / 7, truncated
    EXPECT_EQ(c.tag(1).sampleColour.alpha, kFull);
}

TEST(FloodFill, guard_zones_and_guard_veto) {
    FillCase zones({"........", "........", "........", "........", "........", "........"});
    zones.mask.at(3, 2).green = 32768;
    zones.mask.at(0, 4).green = 32768;  // on the border: no zone
    zones.mask.at(5, 4).green = 32768;
    zones.mask.at(6, 4).green = 32768;  // hidden by the zone of (5, 4)
    zones.guardRadius = 1;
    zones.maxSize = 0;  // zones are written even when nothing is filled
    zones.run();
    std::string greens;
    for (int y = 0; y < 6; ++y) {
        for (int x = 0; x < 8; ++x) {
            const int g = zones.mask.at(x, y).green;
            greens += g == 0 ? '.' : g == 32766 ? 'z' : g == 32768 ? 'M' : '?';
        }
        greens += '\n';
    }
    EXPECT_EQ(greens, lines({"........",  //
                             "..zzz...",  //
                             "..zMz...",  //
                             "..zzzzz.",  //
                             "M...zMz.",  //
                             "....zzz."}));

    // A 3-pixel line: 2 span ends and 4 failed seeds (6); its left end is on green 32767.
    auto flagged = [](int guardRadius, bool veto) {
        FillCase c({".....", ".###.", "....."});
        c.mask.at(1, 1).green = 32767;
        c.guardRadius = guardRadius, c.guardVeto = veto;
        c.run();
        EXPECT_EQ(c.tag(1).spanEnds, 6);
        EXPECT_EQ(c.tag(1).guardEnds, 1);
        return c.tag(1).flagged;
    };
    EXPECT_TRUE(flagged(1, true));   // 6 >= 2 and 1 <= 2: no guard
    EXPECT_FALSE(flagged(4, true));  // 6 < 8: guard
    EXPECT_FALSE(flagged(0, true));  // 1 > 0: guard
    EXPECT_TRUE(flagged(4, false));
}

void
setCrossHair(CrossHairsArray& h, int i, int cx, int cy, int radius) {
    h.centreX[i] = cx, h.centreY[i] = cy, h.radius[i] = radius, h.active[i] = true;
    h.left[i] = cx - radius, h.right[i] = cx + radius;
    h.top[i] = cy - radius, h.bottom[i] = cy + radius;
}

TEST(FloodFill, cross_hairs_override_verdicts_of_regions_below_max_size) {
    const std::vector<std::string> art = {"....................",  //
                                          ".###...###...##.....",  //
                                          ".###...###...##.....",  //
                                          ".###...###..........",  //
                                          "...................."};
    // The 2 x 2 blob (extent 1) is kept by minSize; the 3 x 3 blobs are removed.
    FillCase c(art);
    c.minSize = 1, c.maxSize = 10;
    setCrossHair(c.crossHairs, 1, 2, 2, 1);   // keeps the first blob
    setCrossHair(c.crossHairs, 3, 14, 0, 1);  // changes the 2 x 2 blob; box leaves the frame
    setCrossHair(c.crossHairs, 0, 8, 2, 1);   // entry 0 is never read
    setCrossHair(c.crossHairs, 2, 11, 2, 1);  // its box covers the middle blob, its disc not
    c.crossHairs.left[2] = 8;
    c.run();
    EXPECT_EQ(redArt(c.mask), lines({"....................",  //
                                     ".###................",  //
                                     ".###................",  //
                                     ".###................",  //
                                     "...................."}));
    // Blue keeps the region's own decision.
    EXPECT_EQ(blueArt(c.mask), lines({"....................",  //
                                      ".rrr...rrr...BB.....",  //
                                      ".rrr...rrr...BB.....",  //
                                      ".rrr...rrr..........",  //
                                      "...................."}));
    EXPECT_EQ(c.tag(1).altValue, 0);
    EXPECT_EQ(c.tag(3).altValue, 32768);

    // A region whose width reaches maxSize is not overridden.
    FillCase big(art);
    big.maxSize = 2;
    setCrossHair(big.crossHairs, 4, 2, 2, 1);
    big.run();
    EXPECT_EQ(big.mask.at(2, 2).red, 0);
    EXPECT_FALSE(big.tag(1).flagged);
}

TEST(FloodFill, final_rewrite_fills_zero_pixels_from_diagonals) {
    // All solid with full limits: columns 0 and 6 are left out. (0, 0) sees only itself and
    // keeps red 0 with blue 0; every later one finds a rewritten diagonal or the last values.
    FillCase solid({"#######", "#######", "#######", "#######"});
    solid.fillZeroFromDiagonal = true;
    solid.run();
    EXPECT_EQ(redArt(solid.mask), lines({"#......", ".......", ".......", "......."}));
    EXPECT_EQ(blueArt(solid.mask), lines({".rrrrrr", "rrrrrrr", "rrrrrrr", "rrrrrrr"}));

    // Column 1 is the limit of rows 3 and 4. The first diagonal of (1, 3) that qualifies is
    // (2, 4), not yet rewritten: its label is passed on and stays. Label 32 does not qualify.
    auto leftover = [](bool earlierRegion) {
        FillCase c({earlierRegion ? ".....##." : "........",  //
                    earlierRegion ? ".....##." : "........",  //
                    "###.....",                               //
                    "####....",                               //
                    "####....",                               //
                    "........"});
        for (int y : {2}) c.limits->left[y] = 3;
        for (int y : {3, 4}) c.limits->left[y] = 1;
        c.fillZeroFromDiagonal = true;
        c.run();
        return std::make_pair(redArt(c.mask), blueArt(c.mask));
    };
    const auto [withRed, withBlue] = leftover(true);
    EXPECT_EQ(withRed,
              lines({"........", "........", "###.....", "#b......", "#.......", "........"}));
    EXPECT_EQ(withBlue,
              lines({".....rr.", ".....rr.", "........", "..rr....", ".rrr....", "........"}));
    const auto [aloneRed, aloneBlue] = leftover(false);
    EXPECT_EQ(aloneRed,
              lines({"........", "........", "###.....", "##......", "#.......", "........"}));
    EXPECT_EQ(aloneBlue,
              lines({"........", "........", "........", "..rr....", ".rrr....", "........"}));
}

TEST(FloodFill, hole_mode_turns_flagged_holes_solid) {
    FillCase c({"######", "#..###", "#..#.#", "######"});
    c.blobMode = false;
    c.run();
    EXPECT_EQ(redArt(c.mask), lines({"######", "######", "####.#", "######"}));
    EXPECT_EQ(c.tag(1).redValue, 0);
    EXPECT_EQ(c.tag(1).altValue, 32768);
    EXPECT_EQ(c.mask.at(1, 1).blue, 20000);
}

TEST(FloodFill, zero_alpha_stops_spans_unless_told_otherwise) {
    for (bool stop : {true, false}) {
        FillCase c({".......", ".#####.", ".#####.", "......."});
        c.alpha.at(3, 1).alpha = c.alpha.at(3, 2).alpha = 0;
        c.stopAtZeroAlpha = stop, c.keepLabels = true;
        c.run();
        EXPECT_EQ(redArt(c.mask), stop ? lines({".......", ".aa#bb.", ".aa#bb.", "......."})
                                       : lines({".......", ".aaaaa.", ".aaaaa.", "......."}));
    }
}

TEST(FloodFill, max_size_below_one_fills_nothing_and_alpha_is_reset_only_after_a_fill) {
    const std::vector<std::string> art = {"....", ".##.", ".##.", "...."};
    FillCase none(art);
    none.mask.fillChannel(qtest::kAlpha, 0);
    none.maxSize = 0;
    none.run();
    EXPECT_EQ(redArt(none.mask), lines({"....", ".##.", ".##.", "...."}));
    EXPECT_EQ(none.mask.at(0, 0).alpha, 0);
    EXPECT_EQ(none.tags->count, 1);

    FillCase some(art);
    some.mask.fillChannel(qtest::kAlpha, 0);
    some.limits->firstRow = 1, some.limits->lastRow = 1;
    some.run();
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 4; ++x) EXPECT_EQ(some.mask.at(x, y).alpha, kFull) << x << "," << y;
    }
}

TEST(FloodFill, companions_clear_push_and_grow_the_stack) {
    auto tags = std::make_unique<FillTagList>();
    std::memset(static_cast<void*>(tags.get()), 0x5A, sizeof(FillTagList));
    clearFillTagList(tags.get());
    EXPECT_EQ(tags->count, 0);
    for (const FillTag& t : tags->tags) {
        ASSERT_TRUE(t.minX == 99999 && t.minY == 99999 && t.maxX == 0 && t.area == 0 &&
                    t.altValue == 20000 && t.label == 0 && !t.flagged && t.sampleColour.red == 0);
    }

    // Pushes beyond the fixed entries continue in the overflow area, values intact.
    ZeroedSeedStack holder;
    SeedStack* seeds = holder.get();
    for (int i = 1; i <= 25000; ++i)
        addSeedToStack(seeds, i % 2 == 0, i, i % 7, i, 5, i - 1, false);
    EXPECT_EQ(seeds->count, 25000);
    ASSERT_NE(seeds->overflow, nullptr);
    for (int i : {1, 19999, 20000, 24999, 25000}) {
        const Seed& s = seedAt(seeds, i);
        EXPECT_EQ(s.x, i);
        EXPECT_EQ(s.parent, i - 1);
        EXPECT_EQ(s.state, 1);
        EXPECT_EQ(s.canUp, i % 7 >= 1);
        EXPECT_EQ(s.canDown, i % 7 < 5);
    }
    // Clearing zeroes only the first 7000 entries and gives the overflow back.
    clearSeedStack(seeds);
    EXPECT_EQ(seeds->count, 0);
    EXPECT_EQ(seeds->overflow, nullptr);
    EXPECT_EQ(seeds->entries[6999].x, 0);
    EXPECT_EQ(seeds->entries[7000].x, 7000);
}

// ---------------------------------------------------------------------------------------------
// Random mattes
// ---------------------------------------------------------------------------------------------

struct RandomMatte {
    RandomMatte(int width, int height) : mask(width, height), alpha(width, height) {}
    OwnedWorld mask, alpha;
    FillLimitsArray limits{};
};

RandomMatte
randomMatte(std::mt19937& rng, int width, int height) {
    RandomMatte m(width, height);
    std::uniform_int_distribution<int> percent(0, 99);
    const int solid = 35 + percent(rng) % 40;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const A_u_short green = percent(rng) < 3 ? 32767 : percent(rng) < 2 ? 32768 : 0;
            m.mask.at(x, y) = PF_Pixel16{static_cast<A_u_short>(percent(rng) * 300),
                                         percent(rng) < solid ? A_u_short(0) : kOpen, green,
                                         static_cast<A_u_short>(percent(rng) < 50 ? 0 : 777)};
            m.alpha.at(x, y) = PF_Pixel16{
                percent(rng) < 4 ? A_u_short(0) : kFull, static_cast<A_u_short>(rng() % 32769),
                static_cast<A_u_short>(rng() % 32769), static_cast<A_u_short>(rng() % 32769)};
        }
    }
    m.limits.firstRow = static_cast<int>(rng() % 3);
    m.limits.lastRow = height - 1 - static_cast<int>(rng() % 3);
    for (int y = 0; y < height; ++y) {
        const int a = static_cast<int>(rng() % width), b = static_cast<int>(rng() % width);
        m.limits.left[y] = percent(rng) < 30 ? 0 : std::min(a, b);
        m.limits.right[y] = percent(rng) < 30 ? width - 1 : std::max(a, b);
    }
    return m;
}

// The guard zones as plainly stated: markers in scan order, each zone drawn at once (so a
// zone can hide a later marker).
void
literalGuardZones(OwnedWorld& mask, int radius) {
    const int w = mask.width(), h = mask.height();
    for (int y = 1; y <= h - 2; ++y) {
        for (int x = 1; x <= w - 2; ++x) {
            if (mask.at(x, y).green != 32768) continue;
            for (int yy = std::max(0, y - radius); yy <= y + radius && yy < h; ++yy)
                for (int xx = std::max(0, x - radius); xx <= x + radius && xx < w; ++xx)
                    if (xx != x || yy != y) mask.at(xx, yy).green = 32766;
        }
    }
}

// The final rewrite as plainly stated, over a labelled mask and its records.
void
literalRewrite(OwnedWorld& mask, const FillTagList& tags, const FillLimitsArray& l, bool diagonal) {
    A_u_short lastRed = 0, lastBlue = 0;
    const int w = mask.width(), h = mask.height();
    for (int y = l.firstRow; y <= l.lastRow; ++y) {
        for (int x = l.left[y]; x <= l.right[y]; ++x) {
            PF_Pixel16& p = mask.at(x, y);
            if (p.red > 31 && p.red < 19169) {
                const FillTag& t = tags.tags[p.red >> 5];
                p.red = t.redValue;
                p.blue = t.blueValue;
            } else if (p.red == 0 && diagonal) {
                bool taken = false;
                for (int yy = std::max(y - 1, 0); yy < std::min(h, y + 2) && !taken; yy += 2) {
                    for (int xx = std::max(x - 1, 0); xx < std::min(w, x + 2) && !taken; xx += 2) {
                        const PF_Pixel16& n = mask.at(xx, yy);
                        if (n.red >= 33 || n.blue >= 1) {
                            lastRed = n.red, lastBlue = n.blue, taken = true;
                        }
                    }
                }
                p.red = lastRed, p.blue = lastBlue;
            }
        }
    }
}

bool
insideLimits(const FillLimitsArray& l, int x, int y) {
    return y >= l.firstRow && y <= l.lastRow && x >= l.left[y] && x <= l.right[y];
}

TEST(FloodFill, random_mattes_labels_match_reference_and_every_claimed_pixel_gets_its_verdict) {
    std::mt19937 rng(20240611);
    for (int round = 0; round < 60; ++round) {
        const int width = 8 + static_cast<int>(rng() % 40);
        const int height = 6 + static_cast<int>(rng() % 30);
        const RandomMatte m = randomMatte(rng, width, height);
        const bool blobMode = rng() % 4 != 0;
        const bool stopAtZeroAlpha = rng() % 2 != 0;
        auto setUp = [&](FillCase& c) {
            *c.limits = m.limits;
            c.alpha = m.alpha;
            c.blobMode = blobMode, c.stopAtZeroAlpha = stopAtZeroAlpha;
            c.found = 1 + round % 10, c.scale = 1 + round % 3;
            c.minSize = round % 3, c.maxSize = 2 + round % 9, c.thinLimit = round % 2;
            c.keepLines = round % 5 == 0, c.guardVeto = round % 7 == 0;
            c.guardRadius = round % 3, c.darkLimit = (round % 4) * 20000;
        };
        FillCase labelled{OwnedWorld(m.mask)}, rewritten{OwnedWorld(m.mask)},
            diagonal{OwnedWorld(m.mask)}, zonesOnly{OwnedWorld(m.mask)};
        for (FillCase* c : {&labelled, &rewritten, &diagonal, &zonesOnly}) setUp(*c);
        labelled.keepLabels = true;
        diagonal.fillZeroFromDiagonal = true;
        zonesOnly.maxSize = 0;  // guard zones only
        for (FillCase* c : {&labelled, &rewritten, &diagonal, &zonesOnly}) c->run();

        // The reference labels the same pixels and measures the same regions.
        OwnedWorld refMask(m.mask);
        literalGuardZones(refMask, round % 3);
        ASSERT_TRUE(qtest::SamePlane(refMask, zonesOnly.mask, qtest::kGreen)) << "round " << round;
        ReferenceFill ref{m.alpha, refMask, m.limits, A_u_short(blobMode ? 0 : kOpen),
                          stopAtZeroAlpha};
        ref.run();
        ASSERT_EQ(labelled.tags->count, ref.count) << "round " << round;
        for (int i = 1; i <= ref.count; ++i) {
            ASSERT_EQ(measurements(ref.tags[i]), measurements(labelled.tag(i)))
                << i << " " << round;
        }

        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const PF_Pixel16 in = m.mask.at(x, y);
                const PF_Pixel16 lab = labelled.mask.at(x, y);
                const PF_Pixel16 out = rewritten.mask.at(x, y);
                const PF_Pixel16 diag = diagonal.mask.at(x, y);
                ASSERT_EQ(lab.red, refMask.at(x, y).red) << x << "," << y << " round " << round;
                ASSERT_EQ(out.green, zonesOnly.mask.at(x, y).green);
                ASSERT_EQ(out.alpha, kFull);
                ASSERT_FALSE(out.red > 31 && out.red < 19169) << "label left at " << x << "," << y;
                if (lab.red != in.red) {  // claimed: exactly its region's verdict
                    const FillTag& t = labelled.tag(lab.red >> 5);
                    ASSERT_EQ(out.red, t.redValue);
                    ASSERT_EQ(out.blue, t.blueValue);
                    ASSERT_EQ(diag.red, t.redValue);
                    ASSERT_EQ(diag.blue, t.blueValue);
                } else {
                    ASSERT_EQ(out.red, in.red);
                    ASSERT_EQ(out.blue, in.blue);
                    if (!insideLimits(m.limits, x, y) || in.red != 0) {
                        ASSERT_EQ(diag.red, in.red) << x << "," << y << " round " << round;
                        ASSERT_EQ(diag.blue, in.blue);
                    }
                }
            }
        }
        ASSERT_TRUE(labelled.mask.paddingIntact());
        ASSERT_EQ(labelled.seeds.get()->overflow, nullptr);

        // Rewritten, with and without the diagonal rule: the literal rewrite of the labelled
        // mask, every channel.
        OwnedWorld expectRewritten(labelled.mask), expectDiagonal(labelled.mask);
        literalRewrite(expectRewritten, *labelled.tags, m.limits, false);
        literalRewrite(expectDiagonal, *labelled.tags, m.limits, true);
        ASSERT_TRUE(qtest::SameWorld(expectRewritten, rewritten.mask)) << "round " << round;
        ASSERT_TRUE(qtest::SameWorld(expectDiagonal, diagonal.mask)) << "round " << round;
    }
}

TEST(FloodFill, serpentine_beyond_the_fixed_stack_matches_the_unbounded_reference) {
    // Six 3-pixel-wide columns, 4000 rows tall, joined alternately at the bottom and the top:
    // the depth-first fill keeps one live seed per row walked, about 24000 at once.
    constexpr int kRowsTall = 4000, kColumns = 6;
    const int width = 4 * kColumns + 2, height = kRowsTall + 2;
    std::vector<std::string> art(height, std::string(width, '.'));
    for (int k = 0; k < kColumns; ++k) {
        for (int y = 1; y <= kRowsTall; ++y) art[y].replace(1 + 4 * k, 3, "###");
        if (k + 1 < kColumns) art[k % 2 == 0 ? kRowsTall : 1][4 + 4 * k] = '#';
    }
    FillCase c(art);
    c.keepLabels = true;
    c.run();
    EXPECT_EQ(c.seeds.get()->overflow, nullptr);  // released when the fill ends

    OwnedWorld refMask = maskFromArt(art);
    const OwnedWorld refAlpha(c.alpha);
    ReferenceFill ref{refAlpha, refMask, *c.limits, 0, true};
    runWithLargeStack([&] { ref.run(); });
    EXPECT_GT(ref.maxDepth, kSeedStackCapacity);
    EXPECT_EQ(c.tags->count, 2);
    EXPECT_EQ(measurements(ref.tags[1]), measurements(c.tag(1)));
    EXPECT_EQ(c.tag(1).area, kColumns * kRowsTall * 2 + (kColumns - 1) * 2);
    EXPECT_TRUE(qtest::SamePlane(refMask, c.mask, qtest::kRed));

    // The same region, judged and rewritten, is removed whole.
    FillCase removed(art);
    removed.run();
    for (int y = 1; y <= kRowsTall; ++y) {
        for (int k = 0; k < kColumns; ++k) ASSERT_EQ(removed.mask.at(2 + 4 * k, y).red, kOpen);
    }
}

}  // namespace
