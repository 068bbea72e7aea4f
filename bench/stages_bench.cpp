// Benchmarks of the pixel stages on HD and UHD frames holding a realistic matte, each set
// beside two yardsticks measured in the same run: a plain copy of one world (the memory
// bandwidth floor) and, when built with OpenCV, the equivalent OpenCV operations.
//
// Counters per stage: x_floor = time / one world copy; x_floor_passes = time / (the stage's
// passes over the world x one copy); x_opencv = time / the OpenCV equivalent on the same
// 16-bit four-channel world; x_opencv_mask8 = time / OpenCV on an 8-bit one-channel mask.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include <time.h>

#include "AE_EffectCB.h"
#include "image/pixels.h"
#include "image/container.h"
#include "matte/blur_feather.h"
#include "matte/flood_fill.h"
#include "matte/grow_shrink.h"
#include "matte/isolated_holes.h"
#include "matte/red_mask.h"

#ifdef QUORVANE_BENCH_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

// CPU time of this thread: the machine may be shared, and every stage is single-threaded.
double
threadSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

constexpr int kGrowAmount = 20;
constexpr int kFeatherRadius = 20;
constexpr unsigned short kSolidThreshold = 16384;  // "Treat as solid alpha >" 50 %

// A 16-bit world owning its pixels, rows padded as a host pads them.
class World {
  public:
    World(int width, int height)
        : rowPixels_(width + 16), storage_(static_cast<size_t>(rowPixels_) * height) {
        def_.world_flags = PF_WorldFlag_DEEP | PF_WorldFlag_WRITEABLE;
        def_.width = width;
        def_.height = height;
        def_.rowbytes = rowPixels_ * static_cast<A_long>(sizeof(PF_Pixel16));
        def_.data = reinterpret_cast<PF_PixelPtr>(storage_.data());
    }
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    PF_LayerDef* get() { return &def_; }
    PF_Pixel16* row(int y) { return storage_.data() + static_cast<size_t>(y) * rowPixels_; }
    void copyFrom(const World& other) {
        std::memcpy(storage_.data(), other.storage_.data(), storage_.size() * sizeof(PF_Pixel16));
    }
    size_t bytes() const { return storage_.size() * sizeof(PF_Pixel16); }

  private:
    A_long rowPixels_;
    std::vector<PF_Pixel16> storage_;
    PF_LayerDef def_{};
};

// One frame size: a keyed input with a large subject, hair-like strands, specks and pin
// holes; the alpha world and red mask the stages work on; limits as the render makes them.
struct Scene {
    int width;
    int height;
    World input, alpha, redMask, work, work2, scratch;
    std::unique_ptr<FillLimitsArray> limits = std::make_unique<FillLimitsArray>();
    std::unique_ptr<FillLimitsArray> growLimits = std::make_unique<FillLimitsArray>();
    std::unique_ptr<SegmentArray> segments = std::make_unique<SegmentArray>();
    BFGarray bfg{};
    DividerArray dividers{};
    PF_InData inData{};
    PF_UtilCallbacks utils{};

    Scene(int w, int h)
        : width(w),
          height(h),
          input(w, h),
          alpha(w, h),
          redMask(w, h),
          work(w, h),
          work2(w, h),
          scratch(w, h) {
        utils.ansi.sqrt = [](A_FpLong v) { return std::sqrt(v); };
        utils.ansi.floor = [](A_FpLong v) { return std::floor(v); };
        inData.utils = &utils;
        *segments = SegmentArray{};
        paintMatte();
        alpha.copyFrom(input);
        for (int y = 0; y < h; ++y) {
            PF_Pixel16* m = redMask.row(y);
            const PF_Pixel16* a = alpha.row(y);
            for (int x = 0; x < w; ++x) {
                const bool solid = a[x].alpha >= kSolidThreshold;
                m[x] = PF_Pixel16{32768, static_cast<A_u_short>(solid ? 0 : 32768), 0,
                                  static_cast<A_u_short>(solid ? 32768 : 0)};
            }
        }
        // The limits as the render leaves them before edge shaping: from the alpha, widened
        // by grow + 4 + feather; the grow stage widens them once more by its own amount.
        populateAndInitialise_FillLimitsFromIncomingAlpha(alpha.get(), limits.get(),
                                                          kSolidThreshold);
        growShrink_FillLimitsArrayIfRequiredByGrowShrink(w, h, kGrowAmount + 4 + kFeatherRadius,
                                                         limits.get(), true);
        *growLimits = *limits;
        growShrink_FillLimitsArrayIfRequiredByGrowShrink(w, h, kGrowAmount, growLimits.get(), true);
    }

    void paintMatte() {
        std::mt19937 rng(2024);
        auto uniform = [&](double lo, double hi) {
            return std::uniform_real_distribution<double>(lo, hi)(rng);
        };
        const double cx = 0.5 * width, cy = 0.55 * height;
        const double rx = 0.27 * width, ry = 0.40 * height;
        const double scale = std::min(rx, ry);
        std::normal_distribution<double> noise(0.0, 900.0);
        for (int y = 0; y < height; ++y) {
            PF_Pixel16* p = input.row(y);
            for (int x = 0; x < width; ++x) {
                const double dx = (x - cx) / rx, dy = (y - cy) / ry;
                const double theta = std::atan2(dy, dx);
                const double edge =
                    1.0 + 0.06 * std::sin(7 * theta) + 0.03 * std::sin(23 * theta + 1);
                const double outside = (std::sqrt(dx * dx + dy * dy) - edge) * scale;  // pixels
                const double a = std::clamp(0.5 - outside / 1.5, 0.0, 1.0);
                auto colour = [&](double base) {
                    return static_cast<A_u_short>(std::clamp(base + noise(rng), 0.0, 32768.0));
                };
                p[x] = PF_Pixel16{
                    static_cast<A_u_short>(a * 32768.0), colour(6000 + 20000.0 * x / width),
                    colour(26000 - 12000.0 * y / height), colour(a > 0.5 ? 9000 : 24000)};
            }
        }
        auto put = [&](int x, int y, A_u_short a) {
            if (x >= 0 && x < width && y >= 0 && y < height) {
                input.row(y)[x].alpha = a;
            }
        };
        // Strands leaving the subject's edge, one pixel wide, slowly bending.
        for (int i = 0; i < width / 5; ++i) {
            double theta = uniform(-std::numbers::pi, std::numbers::pi);
            const double edge = 1.0 + 0.06 * std::sin(7 * theta) + 0.03 * std::sin(23 * theta + 1);
            double x = cx + std::cos(theta) * rx * edge, y = cy + std::sin(theta) * ry * edge;
            const double length = uniform(0.01, 0.05) * width;
            const auto a = static_cast<A_u_short>(uniform(12000, 32768));
            for (double s = 0; s < length; s += 0.7) {
                theta += uniform(-0.03, 0.03);
                x += std::cos(theta) * 0.7;
                y += std::sin(theta) * 0.7;
                put(static_cast<int>(x), static_cast<int>(y), a);
            }
        }
        // Specks (mostly solid) and pin holes of radius 0..2 anywhere.
        for (int i = 0; i < width * 2; ++i) {
            const int x = static_cast<int>(uniform(0, width)),
                      y = static_cast<int>(uniform(0, height));
            const int radius = static_cast<int>(uniform(0, 3));
            const bool hole = input.row(y)[x].alpha == 32768;
            const auto a = static_cast<A_u_short>(hole                  ? 0
                                                  : uniform(0, 1) < 0.7 ? 32768
                                                                        : uniform(3000, 32768));
            for (int dy = -radius; dy <= radius; ++dy) {
                for (int dx = -radius; dx <= radius; ++dx) {
                    if (dx * dx + dy * dy <= radius * radius) {
                        put(x + dx, y + dy, a);
                    }
                }
            }
        }
    }
};

Scene&
scene(int width, int height) {
    static std::map<int, std::unique_ptr<Scene>> scenes;
    auto& slot = scenes[width];
    if (!slot) {
        slot = std::make_unique<Scene>(width, height);
    }
    return *slot;
}

// Mean seconds per iteration of every benchmark run so far, by name.
std::map<std::string, double>&
means() {
    static std::map<std::string, double> m;
    return m;
}

// Times `body` only; `setup` restores the worlds before each iteration.
template <class Setup, class Body>
void
timed(benchmark::State& state, const std::string& name, Setup setup, Body body) {
    double total = 0.0;
    int64_t count = 0;
    for (auto _ : state) {
        setup();
        const double t0 = threadSeconds();
        body();
        const double seconds = threadSeconds() - t0;
        state.SetIterationTime(seconds);
        total += seconds;
        ++count;
    }
    means()[name] = total / static_cast<double>(count);
}

// Ratios of a stage against the yardsticks already measured at its size.
void
ratios(benchmark::State& state, const std::string& size, const std::string& stage, int passes,
       const std::string& opencv, const std::string& opencvMask8 = "") {
    if (!opencvMask8.empty() && means().count(size + "/" + opencvMask8 + "_world")) {
        state.counters["x_opencv_mask8_world"] =
            means()[size + "/" + stage] / means()[size + "/" + opencvMask8 + "_world"];
    }
    const double t = means()[size + "/" + stage];
    const double floor = means()[size + "/floor_copy"];
    state.counters["x_floor"] = t / floor;
    state.counters["x_floor_passes"] = t / (floor * passes);
    if (means().count(size + "/" + opencv)) {
        state.counters["x_opencv"] = t / means()[size + "/" + opencv];
    }
    if (!opencvMask8.empty() && means().count(size + "/" + opencvMask8)) {
        state.counters["x_opencv_mask8"] = t / means()[size + "/" + opencvMask8];
    }
}

int
blurRadius(Scene& s, int level, int pass) {
    const float sigma[9] = {0.0f, 0.1f, 0.1f, 0.6f, 1.3f, 1.7f, 2.0f, 2.4f, 3.0f};
    const GaussBoxes boxes = boxesForGauss(&s.inData, sigma[level], 3.0f);
    return static_cast<int>((boxes.width[pass] - 1.0f) / 2.0f) + 1;
}

void
registerSize(const std::string& size, int w, int h) {
    auto reg = [&](const std::string& name, auto fn) {
        benchmark::RegisterBenchmark((size + "/" + name).c_str(),
                                     [=](benchmark::State& st) { fn(st, size + "/" + name); })
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    };

    // The floor: read one world and write another, once.
    reg("floor_copy", [=](benchmark::State& st, const std::string& name) {
        Scene& s = scene(w, h);
        timed(
            st, name, [] {},
            [&] {
                for (int y = 0; y < h; ++y) {
                    std::memcpy(s.work.row(y), s.input.row(y), static_cast<size_t>(w) * 8);
                }
                benchmark::ClobberMemory();
            });
        st.SetBytesProcessed(static_cast<int64_t>(st.iterations()) * w * h * 8 * 2);
    });

#ifdef QUORVANE_BENCH_OPENCV
    auto mat = [](World& world) {
        PF_LayerDef* d = world.get();
        return cv::Mat(d->height, d->width, CV_16UC4, reinterpret_cast<void*>(d->data),
                       static_cast<size_t>(d->rowbytes));
    };
    for (int level : {2, 3, 4}) {
        reg("opencv_boxfilter_x3_level" + std::to_string(level),
            [=](benchmark::State& st, const std::string& name) {
                Scene& s = scene(w, h);
                int r[3];
                for (int p = 0; p < 3; ++p) {
                    r[p] = blurRadius(s, level, p);
                }
                cv::Mat a = mat(s.work), b = mat(s.work2);
                timed(
                    st, name, [&] { s.work.copyFrom(s.input); },
                    [&] {
                        for (int p = 0; p < 3; ++p) {
                            const cv::Size k(2 * r[p] + 1, 2 * r[p] + 1);
                            cv::boxFilter(p == 1 ? b : a, p == 1 ? a : b, -1, k, cv::Point(-1, -1),
                                          true, cv::BORDER_REPLICATE);
                        }
                    });
            });
    }
    for (int sign : {1, -1}) {
        const std::string what = sign > 0 ? "dilate" : "erode";
        // The same passes as the stage: 3 x 3 cross on even passes, 3 x 3 square on odd (grow);
        // square then cross (shrink).
        auto passes = [sign](cv::Mat& a, cv::Mat& b) {
            const cv::Mat cross = cv::getStructuringElement(cv::MORPH_CROSS, cv::Size(3, 3));
            const cv::Mat square = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(3, 3));
            for (int p = 0; p < kGrowAmount; ++p) {
                const cv::Mat& k = (p % 2 == 0) == (sign > 0) ? cross : square;
                cv::Mat& from = p % 2 == 0 ? a : b;
                cv::Mat& to = p % 2 == 0 ? b : a;
                if (sign > 0) {
                    cv::dilate(from, to, k, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
                } else {
                    cv::erode(from, to, k, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
                }
            }
        };
        reg("opencv_" + what + "_x20_16u4", [=](benchmark::State& st, const std::string& name) {
            Scene& s = scene(w, h);
            cv::Mat a = mat(s.work), b = mat(s.work2);
            timed(
                st, name, [&] { s.work.copyFrom(s.redMask); }, [&] { passes(a, b); });
        });
        reg("opencv_" + what + "_x20_mask8", [=](benchmark::State& st, const std::string& name) {
            Scene& s = scene(w, h);
            cv::Mat blue, mask, a, b(h, w, CV_8UC1);
            cv::extractChannel(mat(s.redMask), blue, 3);
            cv::compare(blue, 0, mask, cv::CMP_GT);
            timed(
                st, name, [&] { mask.copyTo(a); }, [&] { passes(a, b); });
        });
        reg("opencv_" + what + "_x20_mask8_world",
            [=](benchmark::State& st, const std::string& name) {
                // The mask passes with the way in and out: the blue plane taken from the world
                // as a one-byte mask, and the result written back into it as 0 or 32768.
                Scene& s = scene(w, h);
                cv::Mat world = mat(s.work), blue, a, b(h, w, CV_8UC1);
                timed(
                    st, name, [&] { s.work.copyFrom(s.redMask); },
                    [&] {
                        cv::extractChannel(world, blue, 3);
                        cv::compare(blue, 0, a, cv::CMP_GT);
                        passes(a, b);
                        a.convertTo(blue, CV_16U, 32768.0 / 255.0);
                        cv::insertChannel(blue, world, 3);
                    });
            });
    }
    // Edge pixels of the solid plane, a band of radius 20 around them, a 41 x 41 box average
    // of the blue plane written back on the band; with marks, also the band as a four-channel
    // world (alpha and red 30000, blue the average; transparent black elsewhere), as the
    // feather leaves its scratch world.
    for (bool marks : {false, true}) {
        reg(marks ? "opencv_feather_r20_marks" : "opencv_feather_r20", [=](benchmark::State& st,
                                                                           const std::string&
                                                                               name) {
            Scene& s = scene(w, h);
            cv::Mat world = mat(s.work), out = mat(s.scratch), blue, solid, inner, edge, band,
                    average, markPlane, bandBlue;
            const cv::Mat zero = cv::Mat::zeros(h, w, CV_16UC1);
            const cv::Mat cross = cv::getStructuringElement(cv::MORPH_CROSS, cv::Size(3, 3));
            const cv::Size k(2 * kFeatherRadius + 1, 2 * kFeatherRadius + 1);
            const cv::Mat square = cv::getStructuringElement(cv::MORPH_RECT, k);
            timed(
                st, name, [&] { s.work.copyFrom(s.redMask); },
                [&] {
                    cv::extractChannel(world, blue, 3);
                    cv::compare(blue, 32768, solid, cv::CMP_EQ);
                    cv::erode(solid, inner, cross, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
                    cv::subtract(solid, inner, edge);
                    cv::dilate(edge, band, square, cv::Point(-1, -1), 1, cv::BORDER_CONSTANT, 0);
                    cv::boxFilter(blue, average, -1, k, cv::Point(-1, -1), true,
                                  cv::BORDER_REPLICATE);
                    average.copyTo(blue, band);
                    cv::insertChannel(blue, world, 3);
                    if (marks) {
                        band.convertTo(markPlane, CV_16U, 30000.0 / 255.0);
                        zero.copyTo(bandBlue);
                        average.copyTo(bandBlue, band);
                        cv::merge(std::vector<cv::Mat>{markPlane, markPlane, zero, bandBlue}, out);
                    }
                });
        });
    }
#endif

    for (int level : {2, 3, 4}) {
        const std::string stage = "noise_blur_level" + std::to_string(level);
        reg(stage, [=](benchmark::State& st, const std::string& name) {
            Scene& s = scene(w, h);
            timed(
                st, name, [&] { s.work.copyFrom(s.input); },
                [&] {
                    gaussOptimisedBlurCopyFromSegments(&s.inData, s.work.get(), s.work2.get(),
                                                       s.segments.get(), 0, level, true, false,
                                                       &s.bfg, &s.dividers);
                });
            ratios(st, size, stage, 3, "opencv_boxfilter_x3_level" + std::to_string(level));
        });
    }
    reg("isolated_holes", [=](benchmark::State& st, const std::string& name) {
        Scene& s = scene(w, h);
        timed(
            st, name, [&] { s.work.copyFrom(s.alpha); },
            [&] {
                killIsolatedHoles(s.work.get(), s.scratch.get(), w - 1, h, h - 1, w, w / 2, true,
                                  s.limits.get(), kSolidThreshold);
            });
        // Clear, detect and apply: three sweeps as described.
        ratios(st, size, "isolated_holes", 3, "");
    });
    // The main flood fill as the render calls it ("Remove smaller than :" 200, anywhere), on the
    // solid/open red mask: every blob labelled, measured, judged and rewritten.
    reg("flood_fill", [=](benchmark::State& st, const std::string& name) {
        Scene& s = scene(w, h);
        QuorvaneMemoryContainer* c = newQuorvaneMemoryContainer();
        CrossHairsArray crossHairs{};
        timed(
            st, name,
            [&] {
                for (int y = 0; y < h; ++y) {
                    PF_Pixel16* m = s.work.row(y);
                    std::memcpy(m, s.redMask.row(y), static_cast<size_t>(w) * 8);
                    for (int x = 0; x < w; ++x) m[x].blue = 0;
                }
            },
            [&] {
                floodFillHolesLogInFillTagList(
                    s.alpha.get(), s.work.get(), w - 1, h, h - 1, w, w / 2, &c->mainFillTags, 0,
                    200, 0.0f, 0, 0, &c->userRange, 1.0f, 4, 1, &crossHairs, &c->mainSeeds, true,
                    true, true, false, s.limits.get(), 1, 1, false, true, 3, 1, true);
            });
        deleteQuorvaneMemoryContainer(c);
        // Guard scan, region scan and labelling, rewrite with the alpha reset.
        ratios(st, size, "flood_fill", 3, "");
    });
    reg("grow_20", [=](benchmark::State& st, const std::string& name) {
        Scene& s = scene(w, h);
        timed(
            st, name, [&] { s.work.copyFrom(s.redMask); },
            [&] {
                growShrink_JustBlueInRedMaskBlockyBlueNiceEdgeHandling(
                    s.work.get(), w, h, h - 1, kGrowAmount, s.growLimits.get());
            });
        ratios(st, size, "grow_20", kGrowAmount, "opencv_dilate_x20_16u4",
               "opencv_dilate_x20_mask8");
    });
    reg("shrink_20", [=](benchmark::State& st, const std::string& name) {
        Scene& s = scene(w, h);
        timed(
            st, name, [&] { s.work.copyFrom(s.redMask); },
            [&] {
                growShrink_JustBlueInRedMaskBlockyBlueNiceEdgeHandling(
                    s.work.get(), w, h, h - 1, -kGrowAmount, s.limits.get());
            });
        ratios(st, size, "shrink_20", kGrowAmount, "opencv_erode_x20_16u4",
               "opencv_erode_x20_mask8");
    });
    reg("feather_20", [=](benchmark::State& st, const std::string& name) {
        Scene& s = scene(w, h);
        timed(
            st, name, [&] { s.work.copyFrom(s.redMask); },
            [&] {
                boxblur_RedmaskEdgeBlue(&s.inData, s.work.get(), w, h, h - 1, kFeatherRadius, false,
                                        s.limits.get(), s.scratch.get());
            });
        // Clear, mark, average, write back: four sweeps as described.
        ratios(st, size, "feather_20", 4, "opencv_feather_r20");
        if (means().count(size + "/opencv_feather_r20_marks")) {
            st.counters["x_opencv_marks"] =
                means()[size + "/feather_20"] / means()[size + "/opencv_feather_r20_marks"];
        }
    });
    reg("feather_20_ring", [=](benchmark::State& st, const std::string& name) {
        // The feather as the render runs it: the scratch world only holds a ring of band rows.
        Scene& s = scene(w, h);
        timed(
            st, name, [&] { s.work.copyFrom(s.redMask); },
            [&] {
                boxblur_RedmaskEdgeBlueScratchAsRing(&s.inData, s.work.get(), w, h, h - 1,
                                                     kFeatherRadius, false, s.limits.get(),
                                                     s.scratch.get());
            });
        // Edge tests and window sums read the red mask, the write-back rewrites it: two sweeps.
        ratios(st, size, "feather_20_ring", 2, "opencv_feather_r20");
    });
}

}  // namespace

int
main(int argc, char** argv) {
#ifdef QUORVANE_BENCH_OPENCV
    cv::setNumThreads(0);  // single thread, like the stages
#endif
    registerSize("1080p", 1920, 1080);
    registerSize("UHD", 3840, 2160);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
