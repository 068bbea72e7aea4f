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

// Declares a popup (its items in a string that dies before add_param's caller returns), a
// supervised slider and a colour, then stores the count.
PF_Err
declareThreeControls(PF_InData* in, PF_OutData* out) {
    PF_Err err = PF_Err_NONE;
    {
        std::string items = "Show result |Show alpha |";
        PF_ParamDef d{};
        d.param_type = PF_Param_POPUP;
        in->utils->ansi.strcpy(d.name, "Process");
        d.u.pd.num_choices = 2;
        d.u.pd.dephault = 1;
        d.u.pd.value = 1;
        d.u.pd.u.namesptr = items.c_str();
        d.uu.id = 1;
        err = in->inter.add_param(in->effect_ref, -1, &d);
    }
    if (err == PF_Err_NONE) {
        PF_ParamDef d{};
        d.flags = PF_ParamFlag_SUPERVISE;
        d.param_type = PF_Param_SLIDER;
        in->utils->ansi.strcpy(d.name, "Size");
        d.u.sd.valid_min = 2;
        d.u.sd.valid_max = 6000;
        d.u.sd.value = d.u.sd.dephault = 200;
        d.uu.id = 2;
        err = in->inter.add_param(in->effect_ref, -1, &d);
    }
    if (err == PF_Err_NONE) {
        PF_ParamDef d{};
        d.param_type = PF_Param_COLOR;
        in->utils->ansi.strcpy(d.name, kOverlongName);
        d.u.cd.value = d.u.cd.dephault = PF_Pixel{255, 200, 200, 200};
        d.uu.id = 3;
        err = in->inter.add_param(in->effect_ref, -1, &d);
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
    PF_Pixel inputPixel{};
    bool outputDeep = true;
    fx.on[PF_Cmd_RENDER] = [&](PF_InData* in, PF_OutData*, PF_ParamDef** params,
                               PF_LayerDef* output, void*) {
        seen = *in;
        input = params[0]->u.ld;
        inputPixel = *reinterpret_cast<PF_Pixel*>(input.data);
        outputDeep = PF_WORLD_IS_DEEP(output);
        return PF_Err_NONE;
    };
    s.setDownsample(2);
    ASSERT_EQ(s.render(2), PF_Err_NONE);
    EXPECT_EQ(seen.appl_id, kPremiereApplId);
    EXPECT_EQ(seen.current_time, 20);
    EXPECT_EQ(seen.time_step, 10);
    EXPECT_EQ(seen.local_time_step, 10);
    EXPECT_EQ(seen.time_scale, 240u);
    EXPECT_EQ(seen.total_time, 40);
    EXPECT_EQ(seen.downsample_y.num, 1);
    EXPECT_EQ(seen.downsample_y.den, 2u);
    EXPECT_EQ(seen.downsample_x.den, 2u);
    EXPECT_NE(seen.effect_ref, nullptr);
    EXPECT_NE(seen.pica_basicP, nullptr);
    EXPECT_EQ(seen.num_params, 1);
    EXPECT_EQ(seen.width, 4);
    EXPECT_EQ(input.width, 4);
    EXPECT_EQ(input.height, 2);
    EXPECT_GT(input.rowbytes, 4 * 4);
    EXPECT_EQ(inputPixel.red, 2);  // frame 2 at 8 bits
    EXPECT_FALSE(outputDeep);

    // An After Effects host has its own id; other command codes pass through unchanged.
    Session ae(FakeEffect::entry);
    A_long applId = 0;
    fx.on[PF_Cmd_SEQUENCE_SETUP] = [&](PF_InData* in, PF_OutData*, PF_ParamDef**, PF_LayerDef*,
                                       void*) {
        applId = in->appl_id;
        return PF_Err_INVALID_CALLBACK;
    };
    EXPECT_EQ(ae.call(PF_Cmd_SEQUENCE_SETUP), PF_Err_INVALID_CALLBACK);
    EXPECT_EQ(applId, kAfterEffectsApplId);
    EXPECT_EQ(ae.lastResult(), PF_Err_INVALID_CALLBACK);
    EXPECT_EQ(ae.accounting().commands, std::vector<PF_Cmd>{PF_Cmd_SEQUENCE_SETUP});

    // A write into the input layer is noticed; an exception other than the host's passes
    // through and leaves the session usable.
    fx.on[PF_Cmd_RENDER] = [&](PF_InData*, PF_OutData*, PF_ParamDef** params, PF_LayerDef*, void*) {
        reinterpret_cast<PF_Pixel*>(params[0]->u.ld.data)->blue = 7;
        return PF_Err_NONE;
    };
    ASSERT_EQ(s.render(1), PF_Err_NONE);
    EXPECT_EQ(s.accounting().inputWrites, 1);
    fx.on[PF_Cmd_RENDER] = [&](PF_InData*, PF_OutData*, PF_ParamDef**, PF_LayerDef*,
                               void*) -> PF_Err { throw std::runtime_error("effect bug"); };
    EXPECT_THROW(s.render(1), std::runtime_error);
    fx.on.erase(PF_Cmd_RENDER);
    EXPECT_EQ(s.render(1), PF_Err_NONE);
    EXPECT_EQ(s.accounting().inputWrites, 1);
}

TEST(HeadlessSession, new_worlds_are_zero_filled_at_either_depth_and_accounted) {
    FakeEffect fx;
    Session s(FakeEffect::entry);
    PF_EffectWorld deep{};
    PF_EffectWorld eight{};
    bool zero = true;
    fx.on[PF_Cmd_RENDER] = [&](PF_InData* in, PF_OutData*, PF_ParamDef**, PF_LayerDef*, void*) {
        PF_UtilCallbacks* u = in->utils;
        EXPECT_EQ(u->new_world(in->effect_ref, 3, 2, PF_NewWorldFlag_DEEP_PIXELS, &deep), 0);
        EXPECT_EQ(u->new_world(in->effect_ref, 3, 2, PF_NewWorldFlag_NONE, &eight), 0);
        for (PF_EffectWorld* w : {&deep, &eight}) {
            const A_long bytes = w->width * (PF_WORLD_IS_DEEP(w) ? 8 : 4);
            EXPECT_GT(w->rowbytes, bytes);
            for (A_long y = 0; y < w->height; ++y) {
                const char* row = reinterpret_cast<const char*>(w->data) + y * w->rowbytes;
                for (A_long i = 0; i < bytes; ++i) {
                    zero = zero && row[i] == 0;
                }
            }
        }
        return u->dispose_world(in->effect_ref, &eight);
    };
    World out(3, 2, true);
    ASSERT_EQ(s.render(0, out), PF_Err_NONE);
    EXPECT_TRUE(zero);
    EXPECT_TRUE(PF_WORLD_IS_DEEP(&deep));
    EXPECT_FALSE(PF_WORLD_IS_DEEP(&eight));
    EXPECT_EQ(s.accounting().worldsMade, 2);
    EXPECT_EQ(s.accounting().worldsDisposed, 1);
    EXPECT_EQ(s.accounting().worldsMadeDeep, (std::vector<bool>{true, false}));

    // Disposing a world twice is refused and counted.
    fx.on[PF_Cmd_RENDER] = [&](PF_InData* in, PF_OutData*, PF_ParamDef**, PF_LayerDef*, void*) {
        return in->utils->dispose_world(in->effect_ref, &eight);
    };
    EXPECT_EQ(s.render(0, out), PF_Err_BAD_CALLBACK_PARAM);
    EXPECT_EQ(s.accounting().strayDisposals, 1);

    // The second new world of each command fails; its record comes back empty.
    s.faults().failNewWorldAt = 2;
    std::vector<PF_Err> errs;
    PF_EffectWorld failed{};
    fx.on[PF_Cmd_RENDER] = [&](PF_InData* in, PF_OutData*, PF_ParamDef**, PF_LayerDef*, void*) {
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
                               void*) {
        PF_EffectWorld w{};
        in->utils->new_world(in->effect_ref, 4, 3, PF_NewWorldFlag_DEEP_PIXELS, &w);
        for (A_long y = 0; y < 3; ++y) {
            auto* row = reinterpret_cast<PF_Pixel16*>(reinterpret_cast<char*>(w.data) + y * 4 * 8);
            row[0].alpha = 1;
        }
        char* out = reinterpret_cast<char*>(output->data);
        out[output->height * output->rowbytes] = 1;  // one byte past the last row
        return PF_Err_NONE;
    };
    World out(2, 2, false);
    ASSERT_EQ(s.render(0, out), PF_Err_NONE);
    ASSERT_EQ(s.accounting().guardViolations, 2);
    EXPECT_EQ(s.accounting().guardReports[0], "world made by the effect: row 0 padding byte 0");
    EXPECT_EQ(s.accounting().guardReports[1], "output world: tail after the last row, byte 0");
    EXPECT_TRUE(out.guardIntact());  // reported once, then the marker is put back

    fx.on[PF_Cmd_RENDER] = [&](PF_InData* in, PF_OutData*, PF_ParamDef**, PF_LayerDef*, void*) {
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
    auto probe = [&](PF_InData* in, PF_OutData*, PF_ParamDef**, PF_LayerDef*, void*) {
        const std::pair<const char*, int> names[] = {
            {kPFParamUtilsSuite, 3},  {kPFHandleSuite, 2},      {kPFHandleSuite, 1},
            {kPFANSISuite, 1},        {kPFColorParamSuite, 1},  {"PF Color Param Suite", 1},
            {kPFPixelFormatSuite, 1}, {kPFPixelFormatSuite, 2}, {kPFUtilitySuite, 4}};
        served.clear();
        for (const auto& [name, version] : names) {
            const bool got = acquire<void>(in, name, version) != nullptr;
            served.push_back(got);
            if (got) {
                release(in, name, version);
            }
        }
        return PF_Err_NONE;
    };
    fx.on[PF_Cmd_GLOBAL_SETUP] = probe;

    Session ae(FakeEffect::entry);
    ASSERT_EQ(ae.globalSetup(), PF_Err_NONE);
    EXPECT_EQ(served,
              (std::vector<bool>{true, true, false, true, true, false, false, false, false}));
    Session pr(FakeEffect::entry, {.family = HostFamily::Premiere});
    ASSERT_EQ(pr.globalSetup(), PF_Err_NONE);
    EXPECT_EQ(served, (std::vector<bool>{true, true, false, true, true, false, true, false, true}));
    EXPECT_EQ(pr.accounting().suite(kPFHandleSuite, 2).acquired, 1);
    EXPECT_EQ(pr.accounting().suite(kPFHandleSuite, 2).released, 1);
    EXPECT_EQ(pr.accounting().suite(kPFHandleSuite, 1).refused, 1);
    EXPECT_EQ(pr.accounting().suitesHeld(), 0);
    EXPECT_EQ(pr.accounting().suitesHeldAfterCommand, 0);

    // A named suite can be made missing; the others stay.
    pr.faults().missingSuites = {kPFANSISuite};
    ASSERT_EQ(pr.globalSetup(), PF_Err_NONE);
    EXPECT_EQ(served,
              (std::vector<bool>{true, true, false, false, true, false, true, false, true}));
    EXPECT_EQ(pr.accounting().suite(kPFANSISuite, 1).refused, 1);

    // A suite still held when the command returns, and a release of one not held.
    fx.on[PF_Cmd_GLOBAL_SETUP] = [&](PF_InData* in, PF_OutData*, PF_ParamDef**, PF_LayerDef*,
                                     void*) {
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
    PF_ParamDef byCallback{};
    PF_ParamDef bySuite{};
    double root = 0;
    double low = 0;
    PF_PixelFloat colour{};
    fx.on[PF_Cmd_ABOUT] = [&](PF_InData* in, PF_OutData* out, PF_ParamDef**, PF_LayerDef*, void*) {
        in->utils->ansi.strcpy(byCallback.name, kOverlongName);
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
    EXPECT_EQ(byCallback.flags, 0x2966);
    EXPECT_EQ(bySuite.flags, 0x2966);
    EXPECT_EQ(std::memcmp(byCallback.name, kOverlongName, 32), 0);
    EXPECT_EQ(root, std::sqrt(2.0));
    EXPECT_EQ(low, -2.0);
    // Colours come as the 8-bit value / 255 in float.
    EXPECT_EQ(colour.alpha, 1.0f);
    EXPECT_EQ(colour.red, 200 / 255.0f);
    EXPECT_EQ(colour.green, 0.0f);
    EXPECT_EQ(colour.blue, 51 / 255.0f);
}

TEST(HeadlessSession, add_param_builds_the_panel_and_fails_at_the_chosen_call) {
    FakeEffect fx;
    fx.on[PF_Cmd_PARAMS_SETUP] = [](PF_InData* in, PF_OutData* out, PF_ParamDef**, PF_LayerDef*,
                                    void*) { return declareThreeControls(in, out); };
    Session s(FakeEffect::entry);
    ASSERT_EQ(s.paramsSetup(), PF_Err_NONE);
    ASSERT_EQ(s.numParams(), 4);
    EXPECT_EQ(s.outData().num_params, 4);
    EXPECT_EQ(s.accounting().addParamCalls, 3);
    EXPECT_EQ(s.control(1).name(), "Process");
    EXPECT_EQ(s.control(1).popupChoices(),
              (std::vector<std::string>{"Show result ", "Show alpha "}));
    EXPECT_STREQ(s.control(1).current.u.pd.u.namesptr, "Show result |Show alpha |");
    EXPECT_EQ(s.control(2).current.u.sd.valid_max, 6000);
    EXPECT_EQ(s.control(3).current.u.cd.value.red, 200);
    EXPECT_EQ(s.control(3).name(), std::string(kOverlongName, 32));
    EXPECT_EQ(s.control(3).declared.flags, 0x2966);

    // Later commands get copies of the panel holding the user's values.
    s.setPopup(1, 2);
    s.setSlider(2, 17);
    s.setColor(3, PF_Pixel{255, 1, 2, 3});
    EXPECT_THROW(s.setSlider(1, 3), std::invalid_argument);
    EXPECT_THROW(s.setPopup(9, 1), std::out_of_range);
    A_long numParams = 0;
    std::vector<A_long> values;
    fx.on[PF_Cmd_UPDATE_PARAMS_UI] = [&](PF_InData* in, PF_OutData*, PF_ParamDef** params,
                                         PF_LayerDef*, void*) {
        numParams = in->num_params;
        values = {params[1]->u.pd.value, params[2]->u.sd.value, params[3]->u.cd.value.blue};
        params[2]->u.sd.value = 99;  // the effect's copy, not the panel
        return PF_Err_NONE;
    };
    ASSERT_EQ(s.updateParamsUI(), PF_Err_NONE);
    EXPECT_EQ(numParams, 4);
    EXPECT_EQ(values, (std::vector<A_long>{2, 17, 3}));
    EXPECT_EQ(s.control(2).current.u.sd.value, 17);

    // Failing the second add_param stops the list after the first control.
    Session failing(FakeEffect::entry);
    failing.faults().failAddParamAt = 2;
    failing.faults().addParamError = PF_Err_INTERNAL_STRUCT_DAMAGED;
    EXPECT_EQ(failing.paramsSetup(), PF_Err_INTERNAL_STRUCT_DAMAGED);
    EXPECT_EQ(failing.numParams(), 2);
    EXPECT_EQ(failing.outData().num_params, 0);
}

TEST(HeadlessSession, update_param_ui_is_recorded_and_changes_the_panel_as_the_host_does) {
    FakeEffect fx;
    fx.on[PF_Cmd_PARAMS_SETUP] = [](PF_InData* in, PF_OutData* out, PF_ParamDef**, PF_LayerDef*,
                                    void*) { return declareThreeControls(in, out); };
    Session s(FakeEffect::entry);
    ASSERT_EQ(s.paramsSetup(), PF_Err_NONE);

    PF_ParamFlags sentFlags = PF_ParamFlag_COLLAPSE_TWIRLY | PF_ParamFlag_CANNOT_TIME_VARY;
    std::vector<PF_Err> errs;
    A_long uiFlagsSeen = -1;
    fx.on[PF_Cmd_UPDATE_PARAMS_UI] = [&](PF_InData* in, PF_OutData*, PF_ParamDef** params,
                                         PF_LayerDef*, void*) {
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
    EXPECT_EQ(s.control(2).declared.ui_flags, 0);
    EXPECT_STREQ(s.control(2).declared.name, "Size");

    // The next command sees the panel; clearing the collapse bit clears it in the panel.
    sentFlags = 0;
    ASSERT_EQ(s.updateParamsUI(), PF_Err_NONE);
    EXPECT_EQ(uiFlagsSeen, PF_PUI_DISABLED);
    EXPECT_EQ(s.control(2).current.flags, PF_ParamFlag_SUPERVISE);
    EXPECT_EQ(s.accounting().paramUICalls.size(), 6u);
}

TEST(HeadlessSession, checkouts_clamp_to_the_sequence_get_own_buffers_and_can_fail) {
    FakeEffect fx;
    MemoryFrameSource frames(3, 2, 1);  // frames 1..3
    addNumberedFrames(frames, 3);
    Session s(FakeEffect::entry, {.source = &frames, .timeStep = 100});
    std::vector<PF_Err> errs;
    std::vector<int> reds;
    std::vector<const void*> buffers;
    bool checkInAll = true;
    fx.on[PF_Cmd_RENDER] = [&](PF_InData* in, PF_OutData*, PF_ParamDef**, PF_LayerDef*, void*) {
        errs.clear();
        reds.clear();
        buffers.clear();
        std::vector<PF_ParamDef> layers(5);
        const A_long times[] = {0, 150, 200, 900, -100};
        for (int i = 0; i < 5; ++i) {
            errs.push_back(in->inter.checkout_param(in->effect_ref, 0, times[i], in->time_step,
                                                    in->time_scale, &layers[i]));
            const PF_LayerDef& l = layers[i].u.ld;
            buffers.push_back(l.data);
            if (l.data == nullptr) {
                reds.push_back(-1);
            } else if (PF_WORLD_IS_DEEP(&l)) {
                reds.push_back(reinterpret_cast<PF_Pixel16*>(l.data)->red);
            } else {
                reds.push_back(reinterpret_cast<PF_Pixel*>(l.data)->red);
            }
        }
        for (int i = 0; i < (checkInAll ? 5 : 4); ++i) {
            in->inter.checkin_param(in->effect_ref, &layers[i]);
        }
        return PF_Err_NONE;
    };
    ASSERT_EQ(s.render(2), PF_Err_NONE);
    EXPECT_EQ(errs, std::vector<PF_Err>(5, PF_Err_NONE));
    EXPECT_EQ(s.accounting().checkoutFrames, (std::vector<A_long>{1, 1, 2, 3, 1}));
    EXPECT_EQ(reds, (std::vector<int>{128, 128, 256, 384, 128}));
    std::vector<const void*> distinct = buffers;
    std::sort(distinct.begin(), distinct.end());
    EXPECT_EQ(std::unique(distinct.begin(), distinct.end()), distinct.end());
    EXPECT_EQ(s.accounting().checkins, 5);

    // The second check-out of each command fails with an empty record; checking that record
    // in is harmless. A layer left checked out is reclaimed and counted.
    s.faults().failCheckoutAt = 2;
    checkInAll = false;
    ASSERT_EQ(s.render(2), PF_Err_NONE);
    EXPECT_EQ(errs, (std::vector<PF_Err>{0, PF_Err_OUT_OF_MEMORY, 0, 0, 0}));
    EXPECT_EQ(buffers[1], nullptr);
    EXPECT_EQ(s.accounting().checkoutFailures, 1);
    EXPECT_EQ(s.accounting().strayCheckins, 1);
    EXPECT_EQ(s.accounting().checkoutsLeftAtCommandEnd, 1);

    // An 8-bit project hands out 8-bit layers; a "none" layer has no data and no error.
    MemoryFrameSource eight(3, 2, 1);
    addNumberedFrames(eight, 3);
    Session e(FakeEffect::entry, {.deep = false, .source = &eight, .timeStep = 100});
    checkInAll = true;
    ASSERT_EQ(e.render(2), PF_Err_NONE);
    EXPECT_EQ(reds, (std::vector<int>{1, 1, 2, 3, 1}));
    EXPECT_EQ(e.accounting().checkoutsDeep, std::vector<bool>(5, false));
    eight.setNone(true);
    ASSERT_EQ(e.render(2), PF_Err_NONE);
    EXPECT_EQ(errs, std::vector<PF_Err>(5, PF_Err_NONE));
    EXPECT_EQ(reds, std::vector<int>(5, -1));
    EXPECT_EQ(e.accounting().checkins, 10);
    EXPECT_EQ(e.accounting().strayCheckins, 0);
}

TEST(HeadlessSession, premiere_answers_pixel_formats_and_matches_checkouts_to_the_render) {
    FakeEffect fx;
    MemoryFrameSource frames(2, 2, 0);
    addNumberedFrames(frames, 1);
    Session s(FakeEffect::entry,
              {.family = HostFamily::Premiere, .deep = false, .source = &frames});
    fx.on[PF_Cmd_GLOBAL_SETUP] = [](PF_InData* in, PF_OutData*, PF_ParamDef**, PF_LayerDef*,
                                    void*) {
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
                               void*) {
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

    // Before the effect asks, check-outs come at the project's depth.
    World deepOut(2, 2, true);
    ASSERT_EQ(s.render(0, deepOut), PF_Err_NONE);
    EXPECT_EQ(format, kPixelFormatArgb16);
    EXPECT_FALSE(layerDeep);

    ASSERT_EQ(s.globalSetup(), PF_Err_NONE);
    EXPECT_TRUE(s.accounting().matchRenderPixelFormat);
    EXPECT_EQ(s.accounting().supportedPixelFormats, std::vector<A_u_long>{kPixelFormatArgb16});
    EXPECT_EQ(s.accounting().clearPixelFormatCalls, 1);

    // Then they follow the render's pixel format, which follows the output's depth ...
    ASSERT_EQ(s.render(0, deepOut), PF_Err_NONE);
    EXPECT_TRUE(layerDeep);
    World eightOut(2, 2, false);
    ASSERT_EQ(s.render(0, eightOut), PF_Err_NONE);
    EXPECT_EQ(format, kPixelFormatArgb8);
    EXPECT_FALSE(layerDeep);

    // ... unless an answer is set for deep worlds: an unknown code leaves check-outs at the
    // project's depth, the 8-bit code makes them 8-bit. 8-bit worlds always get the 8-bit code.
    s.setPremierePixelFormat(0x61726762);
    ASSERT_EQ(s.render(0, deepOut), PF_Err_NONE);
    EXPECT_EQ(format, 0x61726762u);
    EXPECT_FALSE(layerDeep);
    ASSERT_EQ(s.render(0, eightOut), PF_Err_NONE);
    EXPECT_EQ(format, kPixelFormatArgb8);
    EXPECT_FALSE(layerDeep);
    MemoryFrameSource deepFrames(2, 2, 0);
    addNumberedFrames(deepFrames, 1);
    Session d(FakeEffect::entry,
              {.family = HostFamily::Premiere, .deep = true, .source = &deepFrames});
    ASSERT_EQ(d.globalSetup(), PF_Err_NONE);
    d.setPremierePixelFormat(kPixelFormatArgb8);
    ASSERT_EQ(d.render(0, deepOut), PF_Err_NONE);
    EXPECT_EQ(format, kPixelFormatArgb8);
    EXPECT_FALSE(layerDeep);
    EXPECT_EQ(s.accounting().pixelFormatQueries, 5);
}

TEST(HeadlessSession, dependency_answers_read_the_host_handle) {
    FakeEffect fx;
    fx.on[PF_Cmd_GET_EXTERNAL_DEPENDENCIES] = [](PF_InData* in, PF_OutData*, PF_ParamDef**,
                                                 PF_LayerDef*, void* extra) {
        auto* request = static_cast<PF_ExtDependenciesExtra*>(extra);
        if (request->check_type == PF_DepCheckType_ALL_DEPENDENCIES) {
            auto* handles = acquire<PF_HandleSuite1>(in, kPFHandleSuite, 2);
            PF_Handle h = handles->host_new_handle(6);
            std::strcpy(*h, "hello");
            request->dependencies_strH = h;
            release(in, kPFHandleSuite, 2);
        }
        return PF_Err_NONE;
    };
    Session s(FakeEffect::entry);
    DependencyAnswer all = s.dependencies(PF_DepCheckType_ALL_DEPENDENCIES);
    EXPECT_EQ(all.err, PF_Err_NONE);
    EXPECT_FALSE(all.handleNull);
    EXPECT_EQ(all.handleSize, 6u);
    EXPECT_EQ(all.bytes, std::string("hello", 6));
    EXPECT_EQ(all.text(), "hello");
    DependencyAnswer missing = s.dependencies(PF_DepCheckType_MISSING_DEPENDENCIES);
    EXPECT_TRUE(missing.handleNull);
    EXPECT_EQ(s.accounting().handlesCreated, 1);
}

TEST(HeadlessSession, sessions_on_two_threads_keep_to_their_own_records) {
    auto work = [](HostFamily family, int rounds, Accounting* result) {
        FakeEffect fx;  // this thread's effect
        Session s(FakeEffect::entry, {.family = family});
        fx.on[PF_Cmd_ABOUT] = [](PF_InData* in, PF_OutData* out, PF_ParamDef**, PF_LayerDef*,
                                 void*) {
            // The basic suite, the handle suite and the ANSI suite carry no effect reference.
            auto* ansi = acquire<PF_ANSICallbacksSuite1>(in, kPFANSISuite, 1);
            auto* handles = acquire<PF_HandleSuite1>(in, kPFHandleSuite, 2);
            handles->host_new_handle(8);
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
    Accounting ae;
    Accounting premiere;
    std::thread a(work, HostFamily::AfterEffects, 300, &ae);
    std::thread b(work, HostFamily::Premiere, 200, &premiere);
    a.join();
    b.join();
    EXPECT_EQ(ae.handlesCreated, 300);
    EXPECT_EQ(premiere.handlesCreated, 200);
    EXPECT_EQ(ae.suite(kPFANSISuite, 1).acquired, 300);
    EXPECT_EQ(premiere.suite(kPFUtilitySuite, 4).acquired, 200);
    EXPECT_EQ(ae.suite(kPFUtilitySuite, 4).refused, 300);
    EXPECT_EQ(ae.worldsMade, 300);
    EXPECT_EQ(premiere.worldsDisposed, 200);
    EXPECT_EQ(ae.suitesHeld() + premiere.suitesHeld(), 0);
    EXPECT_EQ(ae.worldsLeftUndisposed + premiere.worldsLeftUndisposed, 0);
}

}  // namespace
