// The headless host driven by a scripted fake effect: records handed over, worlds, suites,
// the panel, check-outs, fault injection and sessions on two threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <vector>

#include "headless/host.h"
#include "tests/headless/fake_effect.h"

namespace {

using namespace quorvane::headless;
using qheadless::acquire;
using qheadless::FakeEffect;
using qheadless::px16;
using qheadless::release;

constexpr const char* kOverlongName = "Pre clean blobs below size (0=off)";  // 34 characters

// Appends `count` frames; frame f is solid with red 128 × f.
void
addNumberedFrames(MemoryFrameSource& frames, A_long count) {
    for (A_long f = frames.firstFrame(); f < frames.firstFrame() + count; ++f) {
        frames.addSolidFrame16(px16(32768, static_cast<A_u_short>(128 * f), 0, 0));
    }
}

// A popup (its items in a string that dies before the command returns), a supervised slider
// and a colour with the overlong name, then the count.
PF_Err
declareThreeControls(PF_InData* in, PF_OutData* out) {
    const std::string items = "Show result |Show alpha |";
    A_long id = 0;
    auto add = [&](PF_ParamType type, const char* name, PF_ParamFlags flags, auto fill) {
        PF_ParamDef d{};
        d.param_type = type;
        d.flags = flags;
        d.uu.id = ++id;
        in->utils->ansi.strcpy(d.name, name);
        fill(d.u);
        return in->inter.add_param(in->effect_ref, -1, &d);
    };
    PF_Err err = add(PF_Param_POPUP, "Process", 0, [&](PF_ParamDefUnion& u) {
        u.pd.num_choices = 2;
        u.pd.value = u.pd.dephault = 1;
        u.pd.u.namesptr = items.c_str();
    });
    if (err == PF_Err_NONE) {
        err = add(PF_Param_SLIDER, "Size", PF_ParamFlag_SUPERVISE, [](PF_ParamDefUnion& u) {
            u.sd.valid_min = 2;
            u.sd.valid_max = 6000;
            u.sd.value = u.sd.dephault = 200;
        });
    }
    if (err == PF_Err_NONE) {
        err = add(PF_Param_COLOR, kOverlongName, 0, [](PF_ParamDefUnion& u) {
            u.cd.value = u.cd.dephault = PF_Pixel{255, 200, 200, 200};
        });
    }
    if (err == PF_Err_NONE) {
        out->num_params = 4;
    }
    return err;
}

TEST(HeadlessSession, commands_carry_in_data_and_the_input_layer_as_the_host_fills_them) {
    FakeEffect fx;
    MemoryFrameSource frames(4, 2, 1);
    addNumberedFrames(frames, 3);
    Session s(FakeEffect::entry, {.family = HostFamily::Premiere,
                                  .deep = false,
                                  .source = &frames,
                                  .timeStep = 10,
                                  .timeScale = 240});
    PF_InData seen{};
    PF_LayerDef input{};
    A_u_char firstRed = 0;  // read while the layer is still the effect's
    bool outputDeep = true;
    fx.on[PF_Cmd_RENDER] = [&](PF_InData* in, PF_OutData*, PF_ParamDef** params,
                               PF_LayerDef* output, auto...) -> PF_Err {
        seen = *in;
        input = params[0]->u.ld;
        firstRed = reinterpret_cast<PF_Pixel*>(input.data)->red;
        outputDeep = PF_WORLD_IS_DEEP(output);
        return PF_Err_NONE;
    };
    s.setDownsample(2);
    ASSERT_EQ(s.render(2), PF_Err_NONE);
    EXPECT_EQ(seen.appl_id, kPremiereApplId);
    EXPECT_EQ(seen.current_time, 20);
    EXPECT_EQ(seen.local_time_step, 10);
    EXPECT_EQ(seen.time_scale, 240u);
    EXPECT_EQ(seen.total_time, 40);
    EXPECT_EQ(seen.downsample_x.den, 2u);
    EXPECT_EQ(seen.downsample_y.den, 2u);
    EXPECT_EQ(seen.num_params, 1);
    EXPECT_EQ(input.height, 2);
    EXPECT_GT(input.rowbytes, 4 * 4);
    EXPECT_EQ(firstRed, 2);  // frame 2 at 8 bits
    EXPECT_FALSE(outputDeep);

    // An After Effects host has its own id; other command codes pass through unchanged.
    Session ae(FakeEffect::entry);
    fx.on[PF_Cmd_SEQUENCE_SETUP] = [&](PF_InData* in, auto...) -> PF_Err {
        seen.appl_id = in->appl_id;
        return PF_Err_INVALID_CALLBACK;
    };
    EXPECT_EQ(ae.call(PF_Cmd_SEQUENCE_SETUP), PF_Err_INVALID_CALLBACK);
    EXPECT_EQ(seen.appl_id, kAfterEffectsApplId);
    EXPECT_EQ(ae.accounting().commands, std::vector<PF_Cmd>{PF_Cmd_SEQUENCE_SETUP});

    // A write into the input layer is noticed; an exception other than the host's passes
    // through and leaves the session usable.
    fx.on[PF_Cmd_RENDER] = [&](PF_InData*, PF_OutData*, PF_ParamDef** params, auto...) -> PF_Err {
        reinterpret_cast<PF_Pixel*>(params[0]->u.ld.data)->blue = 7;
        return PF_Err_NONE;
    };
    ASSERT_EQ(s.render(1), PF_Err_NONE);
    EXPECT_EQ(s.accounting().inputWrites, 1);
    fx.on[PF_Cmd_RENDER] = [&](auto...) -> PF_Err { throw std::runtime_error("effect bug"); };
    EXPECT_THROW(s.render(1), std::runtime_error);
    fx.on.erase(PF_Cmd_RENDER);
    EXPECT_EQ(s.render(1), PF_Err_NONE);
    EXPECT_EQ(s.accounting().inputWrites, 1);
}

TEST(HeadlessSession, new_worlds_are_zero_filled_at_either_depth_and_accounted) {
    FakeEffect fx;
    Session s(FakeEffect::entry);
    PF_EffectWorld deep{}, eight{};
    bool zero = true;
    fx.on[PF_Cmd_RENDER] = [&](PF_InData* in, auto...) -> PF_Err {
        PF_UtilCallbacks* u = in->utils;
        EXPECT_EQ(u->new_world(in->effect_ref, 3, 2, PF_NewWorldFlag_DEEP_PIXELS, &deep), 0);
        EXPECT_EQ(u->new_world(in->effect_ref, 3, 2, PF_NewWorldFlag_NONE, &eight), 0);
        for (PF_EffectWorld* w : {&deep, &eight}) {
            const A_long bytes = w->width * (PF_WORLD_IS_DEEP(w) ? 8 : 4);
            EXPECT_GT(w->rowbytes, bytes);
            for (A_long y = 0; y < w->height; ++y) {
                const char* row = reinterpret_cast<const char*>(w->data) + y * w->rowbytes;
                zero = zero && std::all_of(row, row + bytes, [](char c) { return c == 0; });
            }
        }
        return u->dispose_world(in->effect_ref, &eight);
    };
    World out(3, 2, true);
    ASSERT_EQ(s.render(0, out), PF_Err_NONE);
    EXPECT_TRUE(zero);
    EXPECT_EQ(s.accounting().worldsDisposed, 1);
    EXPECT_EQ(s.accounting().worldsMadeDeep, (std::vector<bool>{true, false}));

    // Disposing a world twice is refused and counted.
    fx.on[PF_Cmd_RENDER] = [&](PF_InData* in, auto...) -> PF_Err {
        return in->utils->dispose_world(in->effect_ref, &eight);
    };
    EXPECT_EQ(s.render(0, out), PF_Err_BAD_CALLBACK_PARAM);
    EXPECT_EQ(s.accounting().strayDisposals, 1);

    // The second new world of each command fails; its record comes back empty.
    s.faults().failNewWorldAt = 2;
    std::vector<PF_Err> errs;
    PF_EffectWorld failed{};
    fx.on[PF_Cmd_RENDER] = [&](PF_InData* in, auto...) -> PF_Err {
        PF_EffectWorld w[3] = {};
        for (PF_EffectWorld& one : w) {
            errs.push_back(in->utils->new_world(in->effect_ref, 2, 2, 0, &one));
        }
        failed = w[1];
        in->utils->dispose_world(in->effect_ref, &w[0]);
        return in->utils->dispose_world(in->effect_ref, &w[2]);
    };
    ASSERT_EQ(s.render(0, out), PF_Err_NONE);
    EXPECT_EQ(errs, (std::vector<PF_Err>{0, PF_Err_OUT_OF_MEMORY, 0}));
    EXPECT_EQ(failed.data, nullptr);
    EXPECT_EQ(s.accounting().newWorldFailures, 1);
    EXPECT_EQ(s.accounting().worldsLive(), 1);

    // The world left undisposed is freed and counted when the session ends.
    EXPECT_EQ(s.finish(), 1);
    EXPECT_EQ(s.finish(), 1);
    EXPECT_THROW(s.render(0, out), std::logic_error);
    EXPECT_EQ(s.accounting().guardViolations, 0);
}

TEST(HeadlessSession, writes_outside_a_world_are_reported_after_the_command_and_at_disposal) {
    FakeEffect fx;
    Session s(FakeEffect::entry);
    // Rows stepped by width × pixel size instead of rowbytes: row 1 lands in row 0's padding.
    fx.on[PF_Cmd_RENDER] = [&](PF_InData* in, PF_OutData*, PF_ParamDef**, PF_LayerDef* output,
                               auto...) -> PF_Err {
        PF_EffectWorld w{};
        in->utils->new_world(in->effect_ref, 4, 3, PF_NewWorldFlag_DEEP_PIXELS, &w);
        for (A_long y = 0; y < 3; ++y) {
            reinterpret_cast<PF_Pixel16*>(reinterpret_cast<char*>(w.data) + y * 4 * 8)->alpha = 1;
        }
        reinterpret_cast<char*>(output->data)[output->height * output->rowbytes] =
            1;  // past the end
        return PF_Err_NONE;
    };
    World out(2, 2, false);
    ASSERT_EQ(s.render(0, out), PF_Err_NONE);
    ASSERT_EQ(s.accounting().guardViolations, 2);
    EXPECT_EQ(s.accounting().guardReports[0], "world made by the effect: row 0 padding byte 0");
    EXPECT_EQ(s.accounting().guardReports[1], "output world: tail after the last row, byte 0");
    EXPECT_TRUE(out.guardIntact());  // reported once, then the marker is put back

    fx.on[PF_Cmd_RENDER] = [&](PF_InData* in, auto...) -> PF_Err {
        PF_EffectWorld w{};
        in->utils->new_world(in->effect_ref, 1, 1, 0, &w);
        reinterpret_cast<PF_Pixel*>(w.data)[1].red = 5;  // the pixel after the only one
        return in->utils->dispose_world(in->effect_ref, &w);
    };
    ASSERT_EQ(s.render(0, out), PF_Err_NONE);
    ASSERT_EQ(s.accounting().guardViolations, 3);
    EXPECT_EQ(s.accounting().guardReports[2], "disposed world: row 0 padding byte 1");
}

TEST(HeadlessSession, suites_are_served_by_name_and_version_and_counted) {
    FakeEffect fx;
    std::vector<bool> served;
    fx.on[PF_Cmd_GLOBAL_SETUP] = [&](PF_InData* in, auto...) -> PF_Err {
        const std::pair<const char*, int> names[] = {
            {kPFParamUtilsSuite, 3},  {kPFHandleSuite, 2},      {kPFHandleSuite, 1},
            {kPFANSISuite, 1},        {kPFColorParamSuite, 1},  {"PF Color Param Suite", 1},
            {kPFPixelFormatSuite, 1}, {kPFPixelFormatSuite, 2}, {kPFUtilitySuite, 4}};
        served.clear();
        for (const auto& [name, version] : names) {
            served.push_back(acquire<void>(in, name, version) != nullptr);
            if (served.back()) {
                release(in, name, version);
            }
        }
        return PF_Err_NONE;
    };
    Session ae(FakeEffect::entry);
    ASSERT_EQ(ae.globalSetup(), PF_Err_NONE);
    EXPECT_EQ(served, (std::vector<bool>{1, 1, 0, 1, 1, 0, 0, 0, 0}));
    Session pr(FakeEffect::entry, {.family = HostFamily::Premiere});
    ASSERT_EQ(pr.globalSetup(), PF_Err_NONE);
    EXPECT_EQ(served, (std::vector<bool>{1, 1, 0, 1, 1, 0, 1, 0, 1}));
    EXPECT_EQ(pr.accounting().suite(kPFHandleSuite, 2).released, 1);
    EXPECT_EQ(pr.accounting().suite(kPFHandleSuite, 1).refused, 1);
    EXPECT_EQ(pr.accounting().suitesHeldAfterCommand, 0);

    // A named suite can be made missing; the others stay.
    pr.faults().missingSuites = {kPFANSISuite};
    ASSERT_EQ(pr.globalSetup(), PF_Err_NONE);
    EXPECT_EQ(served, (std::vector<bool>{1, 1, 0, 0, 1, 0, 1, 0, 1}));
    EXPECT_EQ(pr.accounting().suite(kPFANSISuite, 1).refused, 1);

    // A suite still held when the command returns, and a release of one not held.
    fx.on[PF_Cmd_GLOBAL_SETUP] = [&](PF_InData* in, auto...) -> PF_Err {
        acquire<PF_HandleSuite1>(in, kPFHandleSuite, 2);
        release(in, kPFColorParamSuite, 1);
        return PF_Err_NONE;
    };
    ASSERT_EQ(ae.globalSetup(), PF_Err_NONE);
    EXPECT_EQ(ae.accounting().suitesHeldAfterCommand, 1);
    EXPECT_EQ(ae.accounting().suitesHeld(), 1);
    EXPECT_EQ(ae.accounting().strayReleases, 1);
}

TEST(HeadlessSession, ansi_and_colour_callbacks_behave_as_the_host_s) {
    FakeEffect fx;
    Session s(FakeEffect::entry);
    PF_ParamDef bySuite{};
    double root = 0, low = 0;
    PF_PixelFloat colour{};
    fx.on[PF_Cmd_ABOUT] = [&](PF_InData* in, PF_OutData* out, auto...) -> PF_Err {
        root = in->utils->ansi.sqrt(2.0);
        low = in->utils->ansi.floor(-1.5);
        auto* ansi = acquire<PF_ANSICallbacksSuite1>(in, kPFANSISuite, 1);
        ansi->strcpy(bySuite.name, kOverlongName);
        const int n = ansi->sprintf(out->return_msg, "%s, v%d.%d\r%s", "Quorvane", 1, 1, "end");
        release(in, kPFANSISuite, 1);
        auto* colours = acquire<PF_ColorParamSuite1>(in, kPFColorParamSuite, 1);
        PF_ParamDef def{};
        def.param_type = PF_Param_COLOR;
        def.u.cd.value = PF_Pixel{255, 200, 0, 51};
        colours->PF_GetFloatingPointColorFromColorDef(in->effect_ref, &def, &colour);
        release(in, kPFColorParamSuite, 1);
        return n == 18 ? PF_Err_NONE : PF_Err_INTERNAL_STRUCT_DAMAGED;
    };
    ASSERT_EQ(s.about(), PF_Err_NONE);
    EXPECT_EQ(s.returnMessage(), "Quorvane, v1.1\rend");
    // The last two characters and the terminator run on into the low bytes of `flags`.
    EXPECT_EQ(bySuite.flags, 0x2966);
    EXPECT_EQ(std::memcmp(bySuite.name, kOverlongName, 32), 0);
    EXPECT_EQ(root, std::sqrt(2.0));
    EXPECT_EQ(low, -2.0);
    // Colours come as the 8-bit value / 255 in float.
    EXPECT_EQ(colour.alpha, 1.0f);
    EXPECT_EQ(colour.red, 200 / 255.0f);
    EXPECT_EQ(colour.blue, 51 / 255.0f);
}

TEST(HeadlessSession, add_param_builds_the_panel_and_commands_get_copies_of_it) {
    FakeEffect fx;
    fx.on[PF_Cmd_PARAMS_SETUP] = [](PF_InData* in, PF_OutData* out, auto...) -> PF_Err {
        return declareThreeControls(in, out);
    };
    Session s(FakeEffect::entry);
    ASSERT_EQ(s.paramsSetup(), PF_Err_NONE);
    ASSERT_EQ(s.numParams(), 4);
    EXPECT_EQ(s.outData().num_params, 4);
    EXPECT_EQ(s.accounting().addParamCalls, 3);
    EXPECT_EQ(s.control(1).popupChoices(),
              (std::vector<std::string>{"Show result ", "Show alpha "}));
    EXPECT_STREQ(s.control(1).current.u.pd.u.namesptr, "Show result |Show alpha |");
    EXPECT_EQ(s.control(2).current.u.sd.valid_max, 6000);
    EXPECT_EQ(s.control(3).name(), std::string(kOverlongName, 32));
    EXPECT_EQ(s.control(3).declared.flags, 0x2966);

    // Later commands get copies of the panel holding the user's values.
    s.setPopup(1, 2);
    s.setSlider(2, 17);
    s.setColor(3, PF_Pixel{255, 1, 2, 3});
    EXPECT_THROW(s.setSlider(1, 3), std::invalid_argument);
    EXPECT_THROW(s.setPopup(9, 1), std::out_of_range);
    std::vector<A_long> values;
    fx.on[PF_Cmd_UPDATE_PARAMS_UI] = [&](PF_InData* in, PF_OutData*, PF_ParamDef** params,
                                         auto...) -> PF_Err {
        values = {in->num_params, params[1]->u.pd.value, params[2]->u.sd.value,
                  params[3]->u.cd.value.blue};
        params[2]->u.sd.value = 99;  // the effect's copy, not the panel
        return PF_Err_NONE;
    };
    ASSERT_EQ(s.updateParamsUI(), PF_Err_NONE);
    EXPECT_EQ(values, (std::vector<A_long>{4, 2, 17, 3}));
    EXPECT_EQ(s.control(2).current.u.sd.value, 17);
}

TEST(HeadlessSession, update_param_ui_is_recorded_and_changes_the_panel_as_the_host_does) {
    FakeEffect fx;
    fx.on[PF_Cmd_PARAMS_SETUP] = [](PF_InData* in, PF_OutData* out, auto...) -> PF_Err {
        return declareThreeControls(in, out);
    };
    Session s(FakeEffect::entry);
    ASSERT_EQ(s.paramsSetup(), PF_Err_NONE);

    PF_ParamFlags sentFlags = PF_ParamFlag_COLLAPSE_TWIRLY | PF_ParamFlag_CANNOT_TIME_VARY;
    std::vector<PF_Err> errs;
    A_long uiFlagsSeen = -1;
    fx.on[PF_Cmd_UPDATE_PARAMS_UI] = [&](PF_InData* in, PF_OutData*, PF_ParamDef** params,
                                         auto...) -> PF_Err {
        uiFlagsSeen = params[2]->ui_flags;
        auto* suite = acquire<PF_ParamUtilsSuite3>(in, kPFParamUtilsSuite, 3);
        PF_ParamDef copy = *params[2];
        copy.ui_flags = PF_PUI_DISABLED;
        std::strcpy(copy.name, "renamed");
        copy.flags = sentFlags;
        errs = {suite->PF_UpdateParamUI(in->effect_ref, 2, &copy),
                suite->PF_UpdateParamUI(in->effect_ref, 1, params[1]),
                suite->PF_UpdateParamUI(in->effect_ref, 4, &copy)};
        release(in, kPFParamUtilsSuite, 3);
        return PF_Err_NONE;
    };
    ASSERT_EQ(s.updateParamsUI(), PF_Err_NONE);
    EXPECT_EQ(uiFlagsSeen, 0);
    EXPECT_EQ(errs, (std::vector<PF_Err>{0, 0, PF_Err_INVALID_INDEX}));
    const std::vector<ParamUICall>& calls = s.accounting().paramUICalls;
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].index, 2);
    EXPECT_EQ(calls[0].ui_flags, PF_PUI_DISABLED);
    EXPECT_EQ(calls[0].nameString(), "renamed");
    EXPECT_EQ(calls[0].flags, sentFlags);
    EXPECT_FALSE(calls[0].passedParamsEntry);
    EXPECT_TRUE(calls[1].passedParamsEntry);
    EXPECT_EQ(calls[2].result, PF_Err_INVALID_INDEX);

    // Of flags the panel takes only the collapse bit; the declaration stays as it was.
    EXPECT_EQ(s.control(2).current.ui_flags, PF_PUI_DISABLED);
    EXPECT_EQ(s.control(2).name(), "renamed");
    EXPECT_EQ(s.control(2).current.flags, PF_ParamFlag_SUPERVISE | PF_ParamFlag_COLLAPSE_TWIRLY);
    EXPECT_STREQ(s.control(2).declared.name, "Size");

    // The next command sees the panel; clearing the collapse bit clears it in the panel.
    sentFlags = 0;
    ASSERT_EQ(s.updateParamsUI(), PF_Err_NONE);
    EXPECT_EQ(uiFlagsSeen, PF_PUI_DISABLED);
    EXPECT_EQ(s.control(2).current.flags, PF_ParamFlag_SUPERVISE);
}

TEST(HeadlessSession, checkouts_clamp_to_the_sequence_get_own_buffers_and_can_fail) {
    FakeEffect fx;
    MemoryFrameSource frames(3, 2, 1), eight(3, 2, 1);  // frames 1..3
    addNumberedFrames(frames, 3);
    addNumberedFrames(eight, 3);
    Session s(FakeEffect::entry, {.source = &frames, .timeStep = 100});
    Session e(FakeEffect::entry, {.deep = false, .source = &eight, .timeStep = 100});
    std::vector<PF_Err> errs;
    std::vector<int> reds;  // -1 for no data
    std::vector<const void*> buffers;
    int checkIns = 5;
    fx.on[PF_Cmd_RENDER] = [&](PF_InData* in, auto...) -> PF_Err {
        errs.clear();
        reds.clear();
        buffers.clear();
        PF_ParamDef layers[5] = {};
        const A_long times[] = {0, 150, 200, 900, -100};
        for (int i = 0; i < 5; ++i) {
            errs.push_back(in->inter.checkout_param(in->effect_ref, 0, times[i], in->time_step,
                                                    in->time_scale, &layers[i]));
            const PF_LayerDef& l = layers[i].u.ld;
            buffers.push_back(l.data);
            reds.push_back(!l.data                ? -1
                           : PF_WORLD_IS_DEEP(&l) ? reinterpret_cast<PF_Pixel16*>(l.data)->red
                                                  : reinterpret_cast<PF_Pixel*>(l.data)->red);
        }
        for (int i = 0; i < checkIns; ++i) {
            in->inter.checkin_param(in->effect_ref, &layers[i]);
        }
        return PF_Err_NONE;
    };
    ASSERT_EQ(s.render(2), PF_Err_NONE);
    EXPECT_EQ(errs, std::vector<PF_Err>(5, PF_Err_NONE));
    EXPECT_EQ(s.accounting().checkoutFrames, (std::vector<A_long>{1, 1, 2, 3, 1}));
    EXPECT_EQ(reds, (std::vector<int>{128, 128, 256, 384, 128}));
    std::sort(buffers.begin(), buffers.end());
    EXPECT_EQ(std::unique(buffers.begin(), buffers.end()), buffers.end());

    // An 8-bit project hands out 8-bit layers; a "none" layer has no data and no error.
    ASSERT_EQ(e.render(2), PF_Err_NONE);
    EXPECT_EQ(reds, (std::vector<int>{1, 1, 2, 3, 1}));
    EXPECT_EQ(e.accounting().checkoutsDeep, std::vector<bool>(5, false));
    eight.setNone(true);
    ASSERT_EQ(e.render(2), PF_Err_NONE);
    EXPECT_EQ(errs, std::vector<PF_Err>(5, PF_Err_NONE));
    EXPECT_EQ(reds, std::vector<int>(5, -1));
    EXPECT_EQ(e.accounting().checkins, 10);
    EXPECT_EQ(e.accounting().strayCheckins, 0);

    // The second check-out of each command fails with an empty record; checking that record
    // in is harmless. A layer left checked out is reclaimed and counted.
    s.faults().failCheckoutAt = 2;
    checkIns = 4;
    ASSERT_EQ(s.render(2), PF_Err_NONE);
    EXPECT_EQ(errs, (std::vector<PF_Err>{0, PF_Err_OUT_OF_MEMORY, 0, 0, 0}));
    EXPECT_EQ(reds[1], -1);
    EXPECT_EQ(s.accounting().checkoutFailures, 1);
    EXPECT_EQ(s.accounting().strayCheckins, 1);
    EXPECT_EQ(s.accounting().checkoutsLeftAtCommandEnd, 1);
}

TEST(HeadlessSession, premiere_answers_pixel_formats_and_matches_checkouts_to_the_render) {
    FakeEffect fx;
    MemoryFrameSource frames(2, 2, 0), deepFrames(2, 2, 0);
    addNumberedFrames(frames, 1);
    addNumberedFrames(deepFrames, 1);
    Session s(FakeEffect::entry,
              {.family = HostFamily::Premiere, .deep = false, .source = &frames});
    fx.on[PF_Cmd_GLOBAL_SETUP] = [](PF_InData* in, auto...) -> PF_Err {
        auto* utility = acquire<PF_UtilitySuite4>(in, kPFUtilitySuite, 4);
        auto* formats = acquire<PF_PixelFormatSuite1>(in, kPFPixelFormatSuite, 1);
        utility->EffectWantsCheckedOutFramesToMatchRenderPixelFormat(in->effect_ref);
        formats->AddSupportedPixelFormat(in->effect_ref, PrPixelFormat_BGRA_4444_8u);
        formats->ClearSupportedPixelFormats(in->effect_ref);
        formats->AddSupportedPixelFormat(in->effect_ref, PrPixelFormat_ARGB_4444_16u);
        release(in, kPFPixelFormatSuite, 1);
        release(in, kPFUtilitySuite, 4);
        return PF_Err_NONE;
    };
    A_u_long format = 0;
    bool layerDeep = false;
    fx.on[PF_Cmd_RENDER] = [&](PF_InData* in, PF_OutData*, PF_ParamDef**, PF_LayerDef* output,
                               auto...) -> PF_Err {
        auto* formats = acquire<PF_PixelFormatSuite1>(in, kPFPixelFormatSuite, 1);
        PrPixelFormat f = PrPixelFormat_ARGB_4444_16u;
        formats->GetPixelFormat(output, &f);
        format = static_cast<A_u_long>(f);
        release(in, kPFPixelFormatSuite, 1);
        PF_ParamDef layer{};
        in->inter.checkout_param(in->effect_ref, 0, 0, in->time_step, in->time_scale, &layer);
        layerDeep = PF_WORLD_IS_DEEP(&layer.u.ld);
        return in->inter.checkin_param(in->effect_ref, &layer);
    };
    World deepOut(2, 2, true), eightOut(2, 2, false);
    auto expectRender = [&](Session& session, World& out, A_u_long wantFormat, bool wantDeep) {
        ASSERT_EQ(session.render(0, out), PF_Err_NONE);
        EXPECT_EQ(format, wantFormat);
        EXPECT_EQ(layerDeep, wantDeep);
    };

    // Before the effect asks, check-outs come at the project's depth.
    expectRender(s, deepOut, kPixelFormatArgb16, false);
    ASSERT_EQ(s.globalSetup(), PF_Err_NONE);
    EXPECT_TRUE(s.accounting().matchRenderPixelFormat);
    EXPECT_EQ(s.accounting().supportedPixelFormats, std::vector<A_u_long>{kPixelFormatArgb16});
    EXPECT_EQ(s.accounting().clearPixelFormatCalls, 1);

    // Then they follow the render's pixel format, which follows the output's depth ...
    expectRender(s, deepOut, kPixelFormatArgb16, true);
    expectRender(s, eightOut, kPixelFormatArgb8, false);
    // ... unless an answer is set for deep worlds: an unknown code leaves check-outs at the
    // project's depth, the 8-bit code makes them 8-bit. 8-bit worlds always get the 8-bit code.
    s.setPremierePixelFormat(0x61726762);
    expectRender(s, deepOut, 0x61726762u, false);
    expectRender(s, eightOut, kPixelFormatArgb8, false);
    EXPECT_EQ(s.accounting().pixelFormatQueries, 5);
    Session d(FakeEffect::entry,
              {.family = HostFamily::Premiere, .deep = true, .source = &deepFrames});
    ASSERT_EQ(d.globalSetup(), PF_Err_NONE);
    d.setPremierePixelFormat(kPixelFormatArgb8);
    expectRender(d, deepOut, kPixelFormatArgb8, false);
}

TEST(HeadlessSession, sessions_on_two_threads_keep_to_their_own_records) {
    auto work = [](HostFamily family, int rounds, Accounting* result) {
        FakeEffect fx;  // this thread's effect
        Session s(FakeEffect::entry, {.family = family});
        fx.on[PF_Cmd_ABOUT] = [](PF_InData* in, PF_OutData* out, auto...) -> PF_Err {
            // The basic suite, the handle suite and the ANSI suite carry no effect reference.
            auto* ansi = acquire<PF_ANSICallbacksSuite1>(in, kPFANSISuite, 1);
            acquire<PF_HandleSuite1>(in, kPFHandleSuite, 2)->host_new_handle(8);
            PF_EffectWorld w{};
            in->utils->new_world(in->effect_ref, 2, 2, 0, &w);
            in->utils->dispose_world(in->effect_ref, &w);
            const bool premiereSuite = acquire<void>(in, kPFUtilitySuite, 4) != nullptr;
            if (premiereSuite) {
                release(in, kPFUtilitySuite, 4);
            }
            ansi->sprintf(out->return_msg, "%x %d", static_cast<unsigned>(in->appl_id),
                          premiereSuite ? 1 : 0);
            release(in, kPFHandleSuite, 2);
            release(in, kPFANSISuite, 1);
            return PF_Err_NONE;
        };
        const std::string expected = family == HostFamily::Premiere ? "50724d72 1" : "46585443 0";
        for (int i = 0; i < rounds; ++i) {
            ASSERT_EQ(s.about(), PF_Err_NONE);
            ASSERT_EQ(s.returnMessage(), expected);
        }
        s.finish();
        *result = s.accounting();
    };
    Accounting ae, premiere;
    std::thread a(work, HostFamily::AfterEffects, 300, &ae);
    std::thread b(work, HostFamily::Premiere, 200, &premiere);
    a.join();
    b.join();
    EXPECT_EQ(ae.handlesCreated, 300);
    EXPECT_EQ(premiere.handlesCreated, 200);
    EXPECT_EQ(premiere.suite(kPFUtilitySuite, 4).acquired, 200);
    EXPECT_EQ(ae.suite(kPFUtilitySuite, 4).refused, 300);
    EXPECT_EQ(ae.worldsMade, 300);
    EXPECT_EQ(premiere.worldsDisposed, 200);
    EXPECT_EQ(ae.suitesHeld() + premiere.suitesHeld(), 0);
}

}  // namespace
