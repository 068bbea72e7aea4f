// Whole renders through the headless host, at 1920×1080 and 3840×2160, 8-bit and 16-bit, with a
// typical and a heavy setting; and, in the same run, two yardsticks: the time to read and
// write the frame's working worlds once (a memory-bandwidth floor) and an OpenCV pipeline doing
// the same kind of work (blur, threshold, connected components with statistics, size filter,
// dilate/erode, edge box blur). Each render is reported in ms per frame and as ratios to both.
//
// Single thread. The render's time includes the host's check-outs of the neighbouring frames.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "headless/frame_source.h"
#include "headless/host.h"
#include "image/container.h"

#if defined(QUORVANE_BENCH_OPENCV)
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

using namespace quorvane::headless;

namespace {

// A keyed frame as a keyer leaves it: a large subject with a soft, ragged edge, thin strands,
// and garbage (specks and small blobs) in the background.
std::vector<PF_Pixel16>
keyedFrame(int w, int h, uint32_t seed)
{
    std::vector<PF_Pixel16> px(static_cast<size_t>(w) * h, PF_Pixel16{0, 4000, 26000, 5000});
    const double cx = w * 0.5, cy = h * 0.55, rx = w * 0.22, ry = h * 0.38;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const double a = std::atan2(y - cy, x - cx);
            const double ragged = 1.0 + 0.04 * std::sin(a * 37.0) + 0.02 * std::sin(a * 91.0);
            const double d = std::hypot((x - cx) / rx, (y - cy) / ry) / ragged;
            const double cover = std::clamp((1.0 - d) * rx / 4.0, 0.0, 1.0);
            if (cover > 0)
                px[static_cast<size_t>(y) * w + x] = {
                    static_cast<A_u_short>(cover * 32768.0), static_cast<A_u_short>(18000 + x % 97),
                    static_cast<A_u_short>(14000 + y % 89), 9000};
        }
    std::mt19937 rng(seed);
    const auto disc = [&](int r) {
        const int bx = static_cast<int>(rng() % w), by = static_cast<int>(rng() % h);
        for (int y = std::max(0, by - r); y <= std::min(h - 1, by + r); ++y)
            for (int x = std::max(0, bx - r); x <= std::min(w - 1, bx + r); ++x)
                if ((x - bx) * (x - bx) + (y - by) * (y - by) <= r * r)
                    px[static_cast<size_t>(y) * w + x].alpha = 32768;
    };
    const int scale = w / 1920;
    for (int i = 0; i < 2000 * scale * scale; ++i) disc(static_cast<int>(rng() % 3));
    for (int i = 0; i < 150 * scale * scale; ++i) disc((3 + static_cast<int>(rng() % 10)) * scale);
    // Thin strands off the subject.
    for (int s = 0; s < 60; ++s) {
        const double a = s * 0.1047;
        for (int t = 0; t < 40 * scale; ++t) {
            const int x = static_cast<int>(cx + std::cos(a) * (rx + t));
            const int y = static_cast<int>(cy + std::sin(a) * (ry * 0.9 + t));
            if (x >= 0 && y >= 0 && x < w && y < h) px[static_cast<size_t>(y) * w + x].alpha = 30000;
        }
    }
    return px;
}

std::vector<PF_Pixel>
to8(const std::vector<PF_Pixel16>& p16)
{
    std::vector<PF_Pixel> p8(p16.size());
    const auto c = [](A_u_short v) { return static_cast<A_u_char>(std::min<int>(v, 32640) >> 7); };
    for (size_t i = 0; i < p16.size(); ++i)
        p8[i] = {c(p16[i].alpha), c(p16[i].red), c(p16[i].green), c(p16[i].blue)};
    return p8;
}

struct Setting {
    const char* name;
    int footage, preClean, further, size, found, smartExtend, grow, feather;
};
const Setting kTypical{"typical", 2, 10, 2, 200, 1, 5, 0, 2};
const Setting kHeavy{"heavy", 4, 10, 2, 200, 10, 20, 20, 20};

struct Frames {
    std::unique_ptr<MemoryFrameSource> deep, eight;
};

Frames&
frames(int w, int h)
{
    static std::map<int, Frames> cache;
    Frames& f = cache[w];
    if (!f.deep) {
        f.deep = std::make_unique<MemoryFrameSource>(w, h);
        f.eight = std::make_unique<MemoryFrameSource>(w, h);
        for (uint32_t i = 0; i < 3; ++i) {
            std::vector<PF_Pixel16> p = keyedFrame(w, h, 11 + i);
            f.eight->addFrame8(to8(p));
            f.deep->addFrame16(std::move(p));
        }
    }
    return f;
}

const Plugin&
plugin()
{
    static const Plugin p = Plugin::load(Plugin::defaultPath());
    return p;
}

void
BM_Render(benchmark::State& state, int w, int h, bool deep, Setting s)
{
    Frames& f = frames(w, h);
    Session session(plugin(), {.deep = deep,
                               .source = deep ? f.deep.get() : f.eight.get(),
                               .checkInputWrites = false});
    session.start();
    session.setPopup(2, s.footage);
    session.setSlider(4, s.preClean);
    session.setPopup(5, s.further);
    session.setSlider(6, s.size);
    session.setPopup(7, s.found);
    session.setPopup(9, 1);
    session.setSlider(15, s.smartExtend);
    session.setSlider(16, s.grow);
    session.setSlider(17, s.feather);
    session.updateParamsUI();
    // One render outside the timing: the host's first worlds of a new size come fresh from the
    // system (a page fault per page), which a single timed iteration would otherwise measure.
    if (session.render(1) != PF_Err_NONE) state.SkipWithError("render failed");
    for (auto _ : state) {
        if (session.render(1) != PF_Err_NONE) state.SkipWithError("render failed");
    }
    const Accounting& a = session.accounting();
    const int renders = static_cast<int>(state.iterations()) + 1;  // the warm-up included
    // Working memory per render: the container and the worlds the render made.
    const double worldBytes = static_cast<double>(a.worldsMade) / renders * (w + 3) * 8.0 * h;
    state.counters["peak_MiB"] =
        (worldBytes + sizeof(QuorvaneMemoryContainer)) / (1024.0 * 1024.0);
    state.counters["worlds"] = static_cast<double>(a.worldsMade) / renders;
    session.finish();
}

// Reads and writes the render's 16-bit working worlds once each (the working input, three
// frames, four stage worlds): the least any render of this design can cost.
void
BM_Floor(benchmark::State& state, int w, int h)
{
    const size_t bytes = static_cast<size_t>(w) * h * 8;
    std::vector<char> a(bytes, 1), b(bytes, 2);
    for (auto _ : state) {
        for (int world = 0; world < 8; ++world) {
            std::memcpy(b.data(), a.data(), bytes);
            benchmark::DoNotOptimize(b.data());
            std::swap(a, b);
        }
        benchmark::ClobberMemory();
    }
}

#if defined(QUORVANE_BENCH_OPENCV)
// The same kind of work with OpenCV: colour blur (three box passes), threshold, connected
// components with statistics, size filter, dilate/erode, box blur of the edge band.
void
BM_OpenCv(benchmark::State& state, int w, int h, bool deep, int blur, int grow, int feather)
{
    const std::vector<PF_Pixel16> p = keyedFrame(w, h, 12);
    cv::Mat bgra(h, w, deep ? CV_16UC4 : CV_8UC4);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const PF_Pixel16& s = p[static_cast<size_t>(y) * w + x];
            if (deep)
                bgra.at<cv::Vec4w>(y, x) = {s.blue, s.green, s.red, s.alpha};
            else
                bgra.at<cv::Vec4b>(y, x) = {static_cast<uchar>(s.blue >> 7),
                                            static_cast<uchar>(s.green >> 7),
                                            static_cast<uchar>(s.red >> 7),
                                            static_cast<uchar>(std::min<int>(s.alpha, 32640) >> 7)};
        }
    cv::setNumThreads(1);
    // Every Mat keeps one type and size across iterations, so none is made again (a 16-bit
    // four-channel Mat reused for an 8-bit result would be remade, page faults and all, on
    // every frame).
    cv::Mat blurred, tmp, alpha, mask, mask8, labels, stats, centroids, keep, band, ring, soft;
    const int k = 2 * blur + 1;
    const double thr = deep ? 9830 : 76;
    const cv::Mat kernel = cv::getStructuringElement(cv::MORPH_ELLIPSE, {3, 3});
    for (auto _ : state) {
        cv::blur(bgra, tmp, {k, k});
        cv::blur(tmp, blurred, {k, k});
        cv::blur(blurred, tmp, {k, k});
        cv::extractChannel(tmp, alpha, 3);
        cv::threshold(alpha, mask, thr, 255, cv::THRESH_BINARY);
        mask.convertTo(mask8, CV_8U);
        const int n = cv::connectedComponentsWithStats(mask8, labels, stats, centroids, 8, CV_32S);
        std::vector<uchar> lut(static_cast<size_t>(n), 255);
        for (int i = 1; i < n; ++i)
            if (std::max(stats.at<int>(i, cv::CC_STAT_WIDTH), stats.at<int>(i, cv::CC_STAT_HEIGHT)) < 200)
                lut[static_cast<size_t>(i)] = 0;
        keep.create(h, w, CV_8U);
        for (int y = 0; y < h; ++y) {
            const int* l = labels.ptr<int>(y);
            uchar* o = keep.ptr<uchar>(y);
            for (int x = 0; x < w; ++x) o[x] = l[x] ? lut[static_cast<size_t>(l[x])] : 0;
        }
        if (grow > 0) cv::dilate(keep, keep, kernel, {-1, -1}, grow);
        cv::erode(keep, band, kernel);
        cv::dilate(keep, ring, kernel);
        cv::blur(keep, soft, {2 * feather + 1, 2 * feather + 1});
        soft.copyTo(keep, ring - band);
        benchmark::DoNotOptimize(keep.data);
    }
}
#endif

struct Row {
    std::string name;
    double ms;
};
std::vector<Row> gRows;

class Collector : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& r : runs)
            gRows.push_back({r.benchmark_name(), r.GetAdjustedRealTime()});  // in the run's unit
        ConsoleReporter::ReportRuns(runs);
    }
};

}  // namespace

int
main(int argc, char** argv)
{
    const struct {
        int w, h;
        const char* label;
    } sizes[] = {{1920, 1080, "1080p"}, {3840, 2160, "UHD"}};
    for (const auto& sz : sizes) {
        const std::string label = sz.label;
        benchmark::RegisterBenchmark(("floor/" + label).c_str(), BM_Floor, sz.w, sz.h)
            ->Unit(benchmark::kMillisecond);
        for (bool deep : {false, true}) {
            const std::string depth = deep ? "16bit" : "8bit";
#if defined(QUORVANE_BENCH_OPENCV)
            benchmark::RegisterBenchmark(("opencv_typical/" + label + "/" + depth).c_str(),
                                         BM_OpenCv, sz.w, sz.h, deep, 2, 0, 2)
                ->Unit(benchmark::kMillisecond);
            benchmark::RegisterBenchmark(("opencv_heavy/" + label + "/" + depth).c_str(),
                                         BM_OpenCv, sz.w, sz.h, deep, 4, 20, 20)
                ->Unit(benchmark::kMillisecond);
#endif
            for (const Setting& s : {kTypical, kHeavy})
                benchmark::RegisterBenchmark(
                    ("render_" + std::string(s.name) + "/" + label + "/" + depth).c_str(),
                    BM_Render, sz.w, sz.h, deep, s)
                    ->Unit(benchmark::kMillisecond)
                    ->UseRealTime();
        }
    }
    benchmark::Initialize(&argc, argv);
    Collector reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    // With --benchmark_repetitions only the medians are summarised, under their plain names.
    std::vector<Row> rows;
    for (Row r : gRows) {
        const auto cut = r.name.rfind('_');
        const std::string tail = cut == std::string::npos ? "" : r.name.substr(cut + 1);
        if (tail == "mean" || tail == "stddev" || tail == "cv") continue;
        if (tail == "median") r.name.erase(cut);
        rows.push_back(r);
    }
    std::map<std::string, double> ms;
    for (const Row& r : rows) ms[r.name] = r.ms;
    std::printf("\n%-34s %10s %10s %12s\n", "render", "ms/frame", "x floor", "x OpenCV");
    for (const Row& r : rows) {
        if (r.name.rfind("render_", 0) != 0) continue;
        const std::string rest = r.name.substr(r.name.find('/') + 1);   // "UHD/16bit..."
        const std::string size = rest.substr(0, rest.find('/'));
        const std::string kind = r.name.substr(7, r.name.find('/') - 7);  // typical / heavy
        const std::string depthAndMore = rest.substr(rest.find('/') + 1);
        const std::string depth = depthAndMore.substr(0, depthAndMore.find('/'));
        const double floor = ms["floor/" + size];
        const double cv = ms["opencv_" + kind + "/" + size + "/" + depth];
        std::printf("%-34s %10.1f %10.2f %12s\n", r.name.c_str(), r.ms,
                    floor > 0 ? r.ms / floor : 0.0,
                    cv > 0 ? std::to_string(r.ms / cv).substr(0, 5).c_str() : "-");
    }
    return 0;
}
