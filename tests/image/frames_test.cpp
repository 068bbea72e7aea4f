#include "image/frames.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <deque>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "AE_EffectCB.h"
#include "PrSDKAESupport.h"
#include "SPBasic.h"
#include "image/container.h"
#include "image/pixels.h"
#include "tests/support/worlds.h"

using qtest::OwnedWorld;

namespace {

// A minimal host for the image/ functions that records every call. The callbacks find it
// through one pointer (GetPixelFormat has no effect reference to carry it).
struct FakeHost {
    PF_InData in_data{};
    PF_UtilCallbacks utils{};
    SPBasicSuite basic{};
    PF_PixelFormatSuite1 pixelFormats{};

    std::deque<OwnedWorld> made;
    std::vector<std::tuple<A_long, A_long, PF_NewWorldFlags>> madeCalls;
    std::vector<PF_LayerDef*> disposed;
    std::map<PF_LayerDef*, PF_Err> disposeErrors;
    std::map<A_long, OwnedWorld*> layers;  // by time; missing: a layer with null data
    std::vector<A_long> checkoutTimes;
    int checkins = 0, acquired = 0, released = 0;
    bool hasPixelFormatSuite = true;
    PrPixelFormat format = PrPixelFormat_ARGB_4444_16u;

    FakeHost();
    ~FakeHost() { host = nullptr; }
    static inline FakeHost* host = nullptr;
};

int
copyFormat(A_char* out, const A_char* format, ...) {
    return int(std::strlen(std::strcpy(out, format)));
}

FakeHost::FakeHost() {
    host = this;
    utils.new_world = [](PF_ProgPtr, A_long w, A_long h, PF_NewWorldFlags f,
                         PF_EffectWorld* out) -> PF_Err {
        host->madeCalls.emplace_back(w, h, f);
        *out = *host->made.emplace_back(w, h).get();
        return PF_Err_NONE;
    };
    utils.dispose_world = [](PF_ProgPtr, PF_EffectWorld* w) -> PF_Err {
        host->disposed.push_back(w);
        return host->disposeErrors[w];
    };
    utils.ansi.sprintf = copyFormat;
    in_data.inter.checkout_param = [](PF_ProgPtr, PF_ParamIndex index, A_long time, A_long,
                                      A_u_long, PF_ParamDef* param) -> PF_Err {
        EXPECT_EQ(index, 0);
        host->checkoutTimes.push_back(time);
        if (host->layers.count(time)) param->u.ld = *host->layers[time]->get();
        return PF_Err_NONE;
    };
    in_data.inter.checkin_param = [](PF_ProgPtr, PF_ParamDef*) -> PF_Err {
        ++host->checkins;
        return PF_Err_BAD_CALLBACK_PARAM;  // check-in errors must not count
    };
    basic.AcquireSuite = [](const char* name, int32 version, const void** suite) -> SPErr {
        if (!host->hasPixelFormatSuite || name != std::string(kPFPixelFormatSuite) || version != 1)
            return 1;
        ++host->acquired;
        *suite = &host->pixelFormats;
        return kSPNoError;
    };
    basic.ReleaseSuite = [](const char*, int32) -> SPErr { return ++host->released, kSPNoError; };
    pixelFormats.GetPixelFormat = [](PF_EffectWorld*, PrPixelFormat* format) -> PF_Err {
        EXPECT_EQ(*format, PrPixelFormat_ARGB_4444_16u);  // preset by the caller
        *format = host->format;
        return PF_Err_NONE;
    };
    in_data.utils = &utils;
    in_data.pica_basicP = &basic;
    in_data.appl_id = 0x46584354;  // any host other than Premiere Pro
    in_data.time_step = 10;
    in_data.time_scale = 250;
}

// An 8-bit layer whose pixel (x, y) is (255, x, y, 100 + x + 10 y).
OwnedWorld
numbered8(int width, int height) {
    OwnedWorld world(width, height, false);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            world.at8(x, y) = {255, A_u_char(x), A_u_char(y), A_u_char(100 + x + 10 * y)};
    return world;
}

}  // namespace

TEST(DisposalList, caps_at_49_then_disposes_worlds_with_data_in_order_and_ors_errors) {
    auto list = std::make_unique<DisposalList>();
    std::vector<PF_LayerDef> worlds(52);
    for (PF_LayerDef& w : worlds) ADD_WorldToDISPOSElist(&w, list.get());
    EXPECT_EQ(list->count, 49);
    for (int i = 1; i <= 48; ++i) EXPECT_EQ(list->worlds[i], &worlds[i - 1]) << i;
    EXPECT_EQ(list->worlds[49], &worlds[51]);  // later worlds overwrite the last slot
    clearDisposalList(list.get());
    EXPECT_EQ(list->count, 0);

    FakeHost fake;
    EXPECT_EQ(Dispose_OfAllWorldsOnDisposalList(&fake.in_data, list.get()), PF_Err_NONE);
    EXPECT_TRUE(fake.disposed.empty());
    OwnedWorld a(2, 2), b(2, 2), c(2, 2);
    PF_LayerDef never{};  // made by nobody: null data, skipped
    for (PF_LayerDef* w : {a.get(), &never, b.get(), c.get()})
        ADD_WorldToDISPOSElist(w, list.get());
    EXPECT_EQ(list->worlds[1], a.get());
    fake.disposeErrors = {{a.get(), 1}, {b.get(), 4}};
    EXPECT_EQ(Dispose_OfAllWorldsOnDisposalList(&fake.in_data, list.get()), 5);
    EXPECT_EQ(fake.disposed, (std::vector<PF_LayerDef*>{a.get(), b.get(), c.get()}));
    EXPECT_EQ(list->count, 0);
}

TEST(BitDepthAndSizing, deep_flag_in_after_effects_pixel_format_in_premiere) {
    FakeHost fake;
    PF_OutData out{};
    OwnedWorld deep(4, 4, true), shallow(4, 4, false);
    bool is8;
    int factor;
    // After Effects goes by the deep flag; Premiere Pro only by the format, which it answers.
    const struct {
        bool premiere, deep;
        A_long format;
        bool is8;
        int factor;
    } cases[] = {
        {false, true, 0x62677261, false, 1}, {false, false, 0x62677241, true, 1},
        {true, false, 0x62677241, false, 2}, {true, true, 0x62677261, true, 2},
        {true, false, 0x62675241, false, 1},  // other codes: left as the caller set them
    };
    for (const auto& c : cases) {
        fake.in_data.appl_id = c.premiere ? kPremiereProApplId : 0x46584354;
        fake.format = PrPixelFormat(c.format);
        is8 = c.premiere ? false : !c.is8;  // Premiere presets: 16-bit, not widened
        factor = c.premiere ? 1 : 5;
        EXPECT_EQ(
            populate_BitDepthAndSizing(&fake.in_data, &out, c.deep ? deep : shallow, &is8, &factor),
            0);
        EXPECT_EQ(is8, c.is8) << std::hex << c.format;
        EXPECT_EQ(factor, c.factor) << std::hex << c.format;
    }
    EXPECT_EQ(fake.acquired, 3);  // Premiere only
    EXPECT_EQ(fake.released, 3);

    // A missing suite throws 13 with the host's message.
    fake.hasPixelFormatSuite = false;
    int thrown = 0;
    try {
        populate_BitDepthAndSizing(&fake.in_data, &out, shallow, &is8, &factor);
    } catch (int e) {
        thrown = e;
    }
    EXPECT_EQ(thrown, 13);
    EXPECT_STREQ(out.return_msg, "Not able to acquire AEFX Suite.");
    EXPECT_TRUE(out.out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE);
}

TEST(WorkingInput, resamples_8_bit_and_copies_16_bit_input) {
    FakeHost fake;
    DisposalList list;
    OwnedWorld input8 = numbered8(2, 2);
    PF_LayerDef working;
    std::memset(&working, 0x7F, sizeof(working));  // stale record: must be zeroed first
    EXPECT_EQ(populate_OrConvertWrldPreserveOriginalFrameWithMask(&working, input8, &fake.in_data,
                                                                  &list, 4, 2, 4, true, false),
              PF_Err_NONE);
    ASSERT_EQ(fake.madeCalls.size(), 1u);
    EXPECT_EQ(fake.madeCalls[0], std::make_tuple(8, 4, PF_NewWorldFlag_DEEP_PIXELS));
    EXPECT_EQ(list.count, 1);
    EXPECT_EQ(list.worlds[1], &working);
    // Half-size input: every source pixel repeated 2 x 2, converted by x 128; the widened
    // allocation's extra columns are never written.
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 8; ++x) {
            const PF_Pixel16& p = *getPixel16(&working, x, y);
            const bool in = x < 4;
            EXPECT_EQ(p.alpha, in ? 32640 : 0);
            EXPECT_EQ(p.red, in ? (x / 2) * 128 : 0) << x << "," << y;
            EXPECT_EQ(p.green, in ? (y / 2) * 128 : 0) << x << "," << y;
            EXPECT_EQ(p.blue, in ? (100 + x / 2 + 10 * (y / 2)) * 128 : 0) << x << "," << y;
        }

    // A deep input is copied; no matte sets every alpha of the frame to 32760.
    OwnedWorld input(3, 2);
    input.fill({1000, 2000, 3000, 4000});
    input.set(qtest::kRed, 2, 1, 5);
    EXPECT_EQ(populate_OrConvertWrldPreserveOriginalFrameWithMask(&working, input, &fake.in_data,
                                                                  &list, 3, 2, 2, false, true),
              PF_Err_NONE);
    for (int y = 0; y < 2; ++y) {
        for (int x = 0; x < 3; ++x) {
            EXPECT_EQ(getPixel16(&working, x, y)->alpha, 32760);
            EXPECT_EQ(getPixel16(&working, x, y)->green, 3000);
        }
        EXPECT_EQ(getPixel16(&working, 3, y)->alpha, 0);  // past the frame
    }
    EXPECT_EQ(getPixel16(&working, 2, 1)->red, 5);
}

TEST(FrameSet, clamps_at_time_zero_and_falls_back_on_empty_layers) {
    PF_LayerDef frames[kFrameSlots];
    PF_LayerDef* pointers[kFrameSlots];
    PF_LayerDef fallback{};
    auto run = [&](FakeHost& fake, DisposalList& list, int widthFactor) {
        std::fill(std::begin(pointers), std::end(pointers), nullptr);
        return populate_FrameArrayFramesNoMatterWhat(frames, pointers, &fallback, &fake.in_data,
                                                     &list, 3, widthFactor, 2, false, 1, 1);
    };
    {
        SCOPED_TRACE("After Effects at time 0: the previous frame is the first frame itself");
        FakeHost fake;
        DisposalList list;
        OwnedWorld frame0 = numbered8(3, 2), frame1 = numbered8(3, 2);
        frame1.at8(0, 0).red = 77;
        fake.layers = {{0, &frame0}, {10, &frame1}};
        EXPECT_EQ(run(fake, list, 1), PF_Err_NONE);
        EXPECT_EQ(fake.checkoutTimes, (std::vector<A_long>{0, 0, 10}));
        EXPECT_EQ(fake.checkins, 3);
        EXPECT_EQ(list.count, 3);
        for (int slot = 9; slot <= 11; ++slot) EXPECT_EQ(pointers[slot], &frames[slot]);
        // A layer that is not deep is converted.
        EXPECT_EQ(getPixel16(&frames[10], 2, 1)->blue, (100 + 2 + 10) * 128);
        EXPECT_EQ(getPixel16(&frames[11], 0, 0)->red, 77 * 128);
        EXPECT_EQ(pointers[8], nullptr);
        EXPECT_EQ(pointers[12], nullptr);
    }
    {
        SCOPED_TRACE("Premiere: empty layers fall back to the working input");
        FakeHost fake;
        fake.in_data.appl_id = kPremiereProApplId;
        fake.in_data.current_time = 50;
        DisposalList list;
        OwnedWorld current(3, 2);  // deep, but Premiere Pro goes by outputIs8Bit
        current.fill({32768, 1, 2, 3});
        OwnedWorld zeroWidth(3, 2);
        zeroWidth->width = 0;
        fake.layers = {{50, &current}, {60, &zeroWidth}};  // 40 has null data
        EXPECT_EQ(run(fake, list, 2), PF_Err_NONE);
        EXPECT_EQ(fake.checkoutTimes, (std::vector<A_long>{40, 50, 60}));
        EXPECT_EQ(pointers[9], &fallback);
        EXPECT_EQ(pointers[10], &frames[10]);
        EXPECT_EQ(pointers[11], &fallback);
        EXPECT_EQ(list.count, 3);  // the unused worlds are still made and registered
        EXPECT_EQ(getPixel16(&frames[10], 2, 1)->blue, 3);
        EXPECT_EQ(frames[10].width, 6);
    }
}

TEST(Container, is_made_zero_filled) {
    QuorvaneMemoryContainer* container = newQuorvaneMemoryContainer();
    ASSERT_NE(container, nullptr);
    const auto* bytes = reinterpret_cast<const unsigned char*>(container);
    EXPECT_EQ(std::count(bytes, bytes + sizeof(*container), 0), std::ptrdiff_t(sizeof(*container)));
    deleteQuorvaneMemoryContainer(container);
}
