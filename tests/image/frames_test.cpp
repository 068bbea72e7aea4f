#include "image/frames.h"

#include <cstddef>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AE_EffectCB.h"
#include "PrSDKAESupport.h"
#include "SPBasic.h"
#include "image/container.h"
#include "image/pixels.h"
#include "tests/support/worlds.h"

using qtest::kAlpha;
using qtest::kRed;
using qtest::OwnedWorld;

namespace {

// A minimal host for the image/ functions: worlds, check-outs and the pixel-format suite,
// with every call recorded. The callbacks find it through one pointer (GetPixelFormat has no
// effect reference to carry it).
struct FakeHost {
    PF_InData in_data{};
    PF_UtilCallbacks utils{};
    SPBasicSuite basic{};
    PF_PixelFormatSuite1 pixelFormats{};

    // new_world
    std::vector<std::unique_ptr<OwnedWorld>> made;
    std::vector<std::pair<A_long, A_long>> madeSizes;
    std::vector<PF_NewWorldFlags> madeFlags;
    int failMakeAt = -1;  // index of the new_world call that fails
    // dispose_world
    std::vector<PF_LayerDef*> disposed;
    std::map<PF_LayerDef*, PF_Err> disposeErrors;
    // check-out / check-in
    std::map<A_long, OwnedWorld*> layers;  // by time; missing: an empty layer
    std::map<A_long, PF_Err> checkoutErrors;
    std::vector<A_long> checkoutTimes;
    int checkins = 0;
    // pixel format suite
    bool hasPixelFormatSuite = true;
    bool answerFormat = true;
    PrPixelFormat format = PrPixelFormat_ARGB_4444_16u;
    int acquired = 0;
    int released = 0;

    FakeHost();
    ~FakeHost();
};

FakeHost* host = nullptr;

PF_Err
fakeNewWorld(PF_ProgPtr, A_long width, A_long height, PF_NewWorldFlags flags, PF_EffectWorld* w) {
    const int index = int(host->madeSizes.size());
    host->madeSizes.emplace_back(width, height);
    host->madeFlags.push_back(flags);
    if (index == host->failMakeAt) return PF_Err_OUT_OF_MEMORY;
    host->made.push_back(std::make_unique<OwnedWorld>(width, height));
    *w = *host->made.back()->get();
    return PF_Err_NONE;
}

PF_Err
fakeDisposeWorld(PF_ProgPtr, PF_EffectWorld* w) {
    host->disposed.push_back(w);
    auto found = host->disposeErrors.find(w);
    return found == host->disposeErrors.end() ? PF_Err_NONE : found->second;
}

PF_Err
fakeCheckout(PF_ProgPtr, PF_ParamIndex index, A_long time, A_long, A_u_long, PF_ParamDef* param) {
    EXPECT_EQ(index, 0);
    host->checkoutTimes.push_back(time);
    auto error = host->checkoutErrors.find(time);
    if (error != host->checkoutErrors.end()) return error->second;
    auto layer = host->layers.find(time);
    if (layer != host->layers.end()) param->u.ld = *layer->second->get();
    return PF_Err_NONE;
}

PF_Err
fakeCheckin(PF_ProgPtr, PF_ParamDef*) {
    ++host->checkins;
    return PF_Err_BAD_CALLBACK_PARAM;  // check-in errors must not count
}

PF_Err
fakeGetPixelFormat(PF_EffectWorld*, PrPixelFormat* format) {
    EXPECT_EQ(*format, PrPixelFormat_ARGB_4444_16u);  // preset by the caller
    if (host->answerFormat) *format = host->format;
    return PF_Err_NONE;
}

SPErr
fakeAcquire(const char* name, int32 version, const void** suite) {
    if (!host->hasPixelFormatSuite || std::string(name) != kPFPixelFormatSuite || version != 1)
        return 1;
    ++host->acquired;
    *suite = &host->pixelFormats;
    return kSPNoError;
}

SPErr
fakeRelease(const char*, int32) {
    ++host->released;
    return kSPNoError;
}

int
fakeSprintf(A_char* out, const A_char* format, ...) {
    std::strcpy(out, format);
    return int(std::strlen(out));
}

FakeHost::FakeHost() {
    host = this;
    utils.new_world = fakeNewWorld;
    utils.dispose_world = fakeDisposeWorld;
    utils.ansi.sprintf = fakeSprintf;
    basic.AcquireSuite = fakeAcquire;
    basic.ReleaseSuite = fakeRelease;
    pixelFormats.GetPixelFormat = fakeGetPixelFormat;
    in_data.utils = &utils;
    in_data.pica_basicP = &basic;
    in_data.inter.checkout_param = fakeCheckout;
    in_data.inter.checkin_param = fakeCheckin;
    in_data.appl_id = 0x46584354;  // any host other than Premiere Pro
    in_data.time_step = 10;
    in_data.time_scale = 250;
}

FakeHost::~FakeHost() {
    host = nullptr;
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

TEST(DisposalList, caps_at_49_and_overwrites_the_last_slot) {
    auto list = std::make_unique<DisposalList>();
    std::vector<PF_LayerDef> worlds(52);
    for (PF_LayerDef& w : worlds) ADD_WorldToDISPOSElist(&w, list.get());
    EXPECT_EQ(list->count, 49);
    for (int i = 1; i <= 48; ++i) EXPECT_EQ(list->worlds[i], &worlds[i - 1]) << i;
    EXPECT_EQ(list->worlds[49], &worlds[51]);

    clearDisposalList(list.get());
    EXPECT_EQ(list->count, 0);
    ADD_WorldToDISPOSElist(&worlds[7], list.get());
    EXPECT_EQ(list->count, 1);
    EXPECT_EQ(list->worlds[1], &worlds[7]);
}

TEST(DisposalList, disposes_worlds_with_data_in_order_and_ors_errors) {
    FakeHost fake;
    DisposalList list;
    EXPECT_EQ(Dispose_OfAllWorldsOnDisposalList(&fake.in_data, &list), PF_Err_NONE);
    EXPECT_TRUE(fake.disposed.empty());

    OwnedWorld a(2, 2), b(2, 2), c(2, 2);
    PF_LayerDef never{};  // made by nobody: null data
    ADD_WorldToDISPOSElist(a.get(), &list);
    ADD_WorldToDISPOSElist(&never, &list);
    ADD_WorldToDISPOSElist(b.get(), &list);
    ADD_WorldToDISPOSElist(c.get(), &list);
    fake.disposeErrors[a.get()] = 1;
    fake.disposeErrors[b.get()] = 4;
    EXPECT_EQ(Dispose_OfAllWorldsOnDisposalList(&fake.in_data, &list), 5);
    EXPECT_EQ(fake.disposed, (std::vector<PF_LayerDef*>{a.get(), b.get(), c.get()}));
    EXPECT_EQ(list.count, 0);
}

TEST(BitDepthAndSizing, deep_flag_in_after_effects_pixel_format_in_premiere) {
    FakeHost fake;
    PF_OutData out{};
    OwnedWorld deep(4, 4, true), shallow(4, 4, false);
    bool is8 = true;
    int factor = 5;
    EXPECT_EQ(populate_BitDepthAndSizing(&fake.in_data, &out, deep, &is8, &factor), 0);
    EXPECT_FALSE(is8);
    EXPECT_EQ(factor, 1);
    EXPECT_EQ(populate_BitDepthAndSizing(&fake.in_data, &out, shallow, &is8, &factor), 0);
    EXPECT_TRUE(is8);
    EXPECT_EQ(fake.acquired, 0);

    // Premiere Pro: only the format counts, not the deep flag.
    fake.in_data.appl_id = kPremiereProApplId;
    struct Case {
        A_long format;
        bool answer;
        bool is8;
        int factor;
    };
    const Case cases[] = {
        {0x62677241, true, false, 2},
        {0x62677261, true, true, 2},
        {0x62675241, true, false, 1},  // other codes: left as the caller set them
        {0, false, false, 2},          // no answer: the preset 16-bit code
    };
    for (const Case& c : cases) {
        fake.format = PrPixelFormat(c.format);
        fake.answerFormat = c.answer;
        is8 = false;
        factor = 1;
        EXPECT_EQ(populate_BitDepthAndSizing(&fake.in_data, &out, shallow, &is8, &factor), 0);
        EXPECT_EQ(is8, c.is8) << std::hex << c.format;
        EXPECT_EQ(factor, c.factor) << std::hex << c.format;
    }
    EXPECT_EQ(fake.acquired, 4);
    EXPECT_EQ(fake.released, 4);

    // A missing suite throws 13 with the host's message.
    fake.hasPixelFormatSuite = false;
    try {
        populate_BitDepthAndSizing(&fake.in_data, &out, shallow, &is8, &factor);
        ADD_FAILURE() << "no throw";
    } catch (int thrown) {
        EXPECT_EQ(thrown, 13);
    }
    EXPECT_STREQ(out.return_msg, "Not able to acquire AEFX Suite.");
    EXPECT_TRUE(out.out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE);
}

TEST(WorkingInput, eight_bit_input_is_resampled_by_nearest_pixel) {
    FakeHost fake;
    DisposalList list;
    OwnedWorld input = numbered8(2, 2);
    PF_LayerDef working;
    std::memset(&working, 0x7F, sizeof(working));  // stale record: must be zeroed first
    EXPECT_EQ(populate_OrConvertWrldPreserveOriginalFrameWithMask(&working, input, &fake.in_data,
                                                                  &list, 4, 2, 4, true, false),
              PF_Err_NONE);
    ASSERT_EQ(fake.madeSizes.size(), 1u);
    EXPECT_EQ(fake.madeSizes[0], std::make_pair(A_long(8), A_long(4)));
    EXPECT_EQ(fake.madeFlags[0], PF_NewWorldFlag_DEEP_PIXELS);
    EXPECT_EQ(list.count, 1);
    EXPECT_EQ(list.worlds[1], &working);

    // Half-size input: every source pixel repeated 2 x 2, converted by x 128.
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 4; ++x) {
            const PF_Pixel16& p = *getPixel16(&working, x, y);
            EXPECT_EQ(p.alpha, 32640);
            EXPECT_EQ(p.red, (x / 2) * 128) << x << "," << y;
            EXPECT_EQ(p.green, (y / 2) * 128) << x << "," << y;
            EXPECT_EQ(p.blue, (100 + x / 2 + 10 * (y / 2)) * 128);
        }
        // The widened allocation's extra columns are never written.
        for (int x = 4; x < 8; ++x) EXPECT_EQ(getPixel16(&working, x, y)->blue, 0);
    }
}

TEST(WorkingInput, deep_input_is_copied_and_no_matte_means_alpha_32760) {
    FakeHost fake;
    DisposalList list;
    OwnedWorld input(3, 2);
    input.fill({1000, 2000, 3000, 4000});
    input.set(kRed, 2, 1, 5);
    PF_LayerDef working;
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

    // A world the host could not make is registered and never written into.
    fake.failMakeAt = 1;
    PF_LayerDef failed;
    EXPECT_EQ(populate_OrConvertWrldPreserveOriginalFrameWithMask(&failed, input, &fake.in_data,
                                                                  &list, 3, 1, 2, false, true),
              PF_Err_OUT_OF_MEMORY);
    EXPECT_EQ(list.count, 2);
    EXPECT_EQ(list.worlds[2], &failed);
    EXPECT_EQ(failed.data, nullptr);
}

TEST(FrameSet, checks_out_neighbours_clamped_at_time_zero) {
    FakeHost fake;
    DisposalList list;
    OwnedWorld frame0 = numbered8(3, 2), frame1 = numbered8(3, 2);
    frame1.at8(0, 0).red = 77;
    fake.layers[0] = &frame0;
    fake.layers[10] = &frame1;
    fake.in_data.current_time = 0;

    PF_LayerDef frames[kFrameSlots];
    PF_LayerDef* pointers[kFrameSlots] = {};
    PF_LayerDef fallback{};
    EXPECT_EQ(populate_FrameArrayFramesNoMatterWhat(frames, pointers, &fallback, &fake.in_data,
                                                    &list, 3, 1, 2, false, 1, 1),
              PF_Err_NONE);
    // The previous frame of the first frame is the first frame itself.
    EXPECT_EQ(fake.checkoutTimes, (std::vector<A_long>{0, 0, 10}));
    EXPECT_EQ(fake.checkins, 3);
    EXPECT_EQ(list.count, 3);
    for (int slot = 9; slot <= 11; ++slot) {
        EXPECT_EQ(pointers[slot], &frames[slot]);
        EXPECT_EQ(list.worlds[slot - 8], &frames[slot]);
    }
    // After Effects converts a layer that is not deep.
    EXPECT_EQ(getPixel16(&frames[10], 2, 1)->blue, (100 + 2 + 10) * 128);
    EXPECT_EQ(getPixel16(&frames[11], 0, 0)->red, 77 * 128);
    EXPECT_EQ(pointers[8], nullptr);
    EXPECT_EQ(pointers[12], nullptr);
}

TEST(FrameSet, empty_check_out_falls_back_to_the_working_input) {
    FakeHost fake;
    fake.in_data.appl_id = kPremiereProApplId;
    DisposalList list;
    OwnedWorld current(3, 2);  // deep, but Premiere Pro goes by outputIs8Bit
    current.fill({32768, 1, 2, 3});
    OwnedWorld zeroWidth(3, 2);
    zeroWidth->width = 0;
    fake.in_data.current_time = 50;
    fake.layers[50] = &current;
    fake.layers[60] = &zeroWidth;  // 40 has no layer: null data

    PF_LayerDef frames[kFrameSlots];
    PF_LayerDef* pointers[kFrameSlots] = {};
    PF_LayerDef fallback{};
    EXPECT_EQ(populate_FrameArrayFramesNoMatterWhat(frames, pointers, &fallback, &fake.in_data,
                                                    &list, 3, 2, 2, false, 1, 1),
              PF_Err_NONE);
    EXPECT_EQ(fake.checkoutTimes, (std::vector<A_long>{40, 50, 60}));
    EXPECT_EQ(pointers[9], &fallback);
    EXPECT_EQ(pointers[10], &frames[10]);
    EXPECT_EQ(pointers[11], &fallback);
    EXPECT_EQ(list.count, 3);  // the unused worlds are still made and registered
    EXPECT_EQ(getPixel16(&frames[10], 2, 1)->blue, 3);
    EXPECT_EQ(frames[10].width, 6);
}

TEST(FrameSet, first_error_checks_in_and_stops) {
    FakeHost fake;
    DisposalList list;
    OwnedWorld layer(3, 2);
    fake.in_data.current_time = 100;
    fake.layers[90] = &layer;
    fake.checkoutErrors[100] = 2;

    PF_LayerDef frames[kFrameSlots];
    PF_LayerDef* pointers[kFrameSlots] = {};
    PF_LayerDef fallback{};
    EXPECT_EQ(populate_FrameArrayFramesNoMatterWhat(frames, pointers, &fallback, &fake.in_data,
                                                    &list, 3, 1, 2, false, 1, 1),
              2);
    EXPECT_EQ(fake.checkoutTimes, (std::vector<A_long>{90, 100}));
    EXPECT_EQ(fake.checkins, 2);
    EXPECT_EQ(list.count, 2);
    EXPECT_EQ(pointers[9], &frames[9]);
    EXPECT_EQ(pointers[10], nullptr);
    EXPECT_EQ(pointers[11], nullptr);

    // A failed creation is ORed with the check-out's result and also stops the loop, before
    // anything is copied into the world that was not made.
    FakeHost second;
    second.failMakeAt = 0;
    second.in_data.current_time = 100;
    second.layers[90] = &layer;
    DisposalList list2;
    EXPECT_EQ(populate_FrameArrayFramesNoMatterWhat(frames, pointers, &fallback, &second.in_data,
                                                    &list2, 3, 1, 2, false, 1, 1),
              PF_Err_OUT_OF_MEMORY);
    EXPECT_EQ(second.checkoutTimes, (std::vector<A_long>{90}));
    EXPECT_EQ(second.checkins, 1);
    EXPECT_EQ(list2.count, 1);
}

TEST(OutputPointer, eight_bit_output_gets_a_registered_local_world) {
    FakeHost fake;
    DisposalList list;
    OwnedWorld output(4, 3, false);
    PF_LayerDef local;
    PF_LayerDef* target = nullptr;

    EXPECT_EQ(setup_OutputPointer(&target, &local, output, &fake.in_data, &list, 4, 1, 3, false),
              PF_Err_NONE);
    EXPECT_EQ(target, output.get());
    EXPECT_EQ(list.count, 0);
    EXPECT_TRUE(fake.madeSizes.empty());

    EXPECT_EQ(setup_OutputPointer(&target, &local, output, &fake.in_data, &list, 4, 2, 3, true),
              PF_Err_NONE);
    EXPECT_EQ(target, &local);
    EXPECT_EQ(list.count, 1);
    EXPECT_EQ(list.worlds[1], &local);
    EXPECT_EQ(fake.madeSizes[0], std::make_pair(A_long(8), A_long(3)));
}

TEST(Container, zero_filled_with_members_in_layout_order) {
    QuorvaneMemoryContainer* container = newQuorvaneMemoryContainer();
    ASSERT_NE(container, nullptr);
    const auto* bytes = reinterpret_cast<const unsigned char*>(container);
    size_t nonZero = 0;
    for (size_t i = 0; i < sizeof(*container); ++i) nonZero += bytes[i] != 0;
    EXPECT_EQ(nonZero, 0u);

    const size_t offsets[] = {
        offsetof(QuorvaneMemoryContainer, disposalList),
        offsetof(QuorvaneMemoryContainer, limits),
        offsetof(QuorvaneMemoryContainer, segmentArray),
        offsetof(QuorvaneMemoryContainer, userRange),
        offsetof(QuorvaneMemoryContainer, whiteRange),
        offsetof(QuorvaneMemoryContainer, mainFillTags),
        offsetof(QuorvaneMemoryContainer, mainSeeds),
        offsetof(QuorvaneMemoryContainer, bfgArray),
        offsetof(QuorvaneMemoryContainer, dividerArray),
        offsetof(QuorvaneMemoryContainer, preCleanFillTags),
        offsetof(QuorvaneMemoryContainer, preCleanSeeds),
        offsetof(QuorvaneMemoryContainer, spareSeeds),
    };
    for (size_t i = 1; i < std::size(offsets); ++i) EXPECT_LT(offsets[i - 1], offsets[i]) << i;
    deleteQuorvaneMemoryContainer(container);
}
