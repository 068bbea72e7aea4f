// The headless host driven by a scripted fake effect: worlds, frames, loading, the records
// handed over, suites, the panel, check-outs, fault injection and sessions on two threads.
#include <gtest/gtest.h>

#include <AE_EffectCBSuites.h>
#include <AE_EffectSuites.h>
#include <PrSDKAESupport.h>
#include <SPBasic.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <map>
#include <thread>

#include "headless/host.h"

namespace {

using namespace quorvane::headless;
using Handler = std::function<PF_Err(PF_InData*, PF_OutData*, PF_ParamDef**, PF_LayerDef*)>;

// The fake effect: its entry point runs the handler the test set for each command on this
// thread; it reaches the host only through in_data, as a real effect does.
thread_local std::map<PF_Cmd, Handler> on;

PF_Err
entry(PF_Cmd cmd, PF_InData* in, PF_OutData* out, PF_ParamDef** params, PF_LayerDef* output,
      void*) {
    auto it = on.find(cmd);
    return it == on.end() ? PF_Err_NONE : it->second(in, out, params, output);
}

struct HeadlessSession : ::testing::Test {
    void TearDown() override { on.clear(); }
};

// A suite through the basic suite; null when the host refuses it.
template <typename Suite = void>
const Suite*
acquire(PF_InData* in, const char* name, int version) {
    const void* suite = nullptr;
    const bool ok = in->pica_basicP->AcquireSuite(name, version, &suite) == kSPNoError;
    return ok ? static_cast<const Suite*>(suite) : nullptr;
}

void
release(PF_InData* in, const char* name, int version) {
    in->pica_basicP->ReleaseSuite(name, version);
}

// True when the rows are padded and every pixel byte is zero.
bool
zeroFilledAndPadded(const PF_LayerDef& w) {
    const A_long bytes = w.width * (PF_WORLD_IS_DEEP(&w) ? 8 : 4);
    for (A_long y = 0; y < w.height; ++y) {
        const char* row = reinterpret_cast<const char*>(w.data) + y * w.rowbytes;
        if (std::any_of(row, row + bytes, [](char c) { return c != 0; })) {
            return false;
        }
    }
    return w.rowbytes > bytes;
}

TEST(HeadlessWorld, rows_are_padded_zero_filled_even_when_reused_and_guarded) {
    for (bool deep : {false, true}) {
        SCOPED_TRACE(deep ? "deep" : "8-bit");
        std::memset(World(5, 3, deep).layer().data, 7, 20);  // storage back to the pool, dirty
        World w(5, 3, deep);
        EXPECT_EQ(PF_WORLD_IS_DEEP(&w.layer()), deep);
        EXPECT_TRUE(zeroFilledAndPadded(w.layer()));
        EXPECT_EQ(w.rowbytes() % (deep ? 8 : 4), 0);
        // Padding and tail are checked through sessions below; here the guard before row 0.
        reinterpret_cast<char*>(w.layer().data)[-1] = 1;
        EXPECT_EQ(w.guardReport(), "guard before row 0, byte 63");
        w.resetGuard();
        deep ? w.fill16({1, 2, 3, 4}) : w.fill8({1, 2, 3, 4});
        EXPECT_TRUE(w.guardIntact());
    }
    EXPECT_THROW(World(-1, 2, true), std::invalid_argument);
}

TEST(HeadlessPlugin, loading_reports_the_path_and_wraps_linked_entry_points) {
    auto loadError = [](const char* path) {
        try {
            (void)Plugin::load(path);
        } catch (const std::runtime_error& e) {
            return std::string(e.what());
        }
        return std::string("loaded without error");
    };
    EXPECT_NE(loadError("/nowhere/Q.so").find("/nowhere/Q.so"), std::string::npos);
    const std::string noEntry = loadError("libm.so.6");  // loads, but is no plug-in
    EXPECT_NE(noEntry.find("libm.so.6 has no EntryPointFunc: "), std::string::npos) << noEntry;
    EXPECT_NE(noEntry.find("undefined symbol"), std::string::npos) << noEntry;
    const Plugin linked = Plugin::fromEntryPoint(entry, "fake");
    EXPECT_TRUE(linked.entry() == &entry && linked.name() == "fake");
    EXPECT_THROW(Plugin::fromEntryPoint(nullptr), std::invalid_argument);
}

TEST_F(HeadlessSession, worlds_made_by_the_effect_are_zeroed_accounted_and_guarded) {
    Session s(entry);
    PF_EffectWorld deep{}, eight{};
    std::vector<PF_Err> errs;
    on[PF_Cmd_RENDER] = [&](PF_InData* in, auto...) {
        PF_UtilCallbacks* u = in->utils;
        errs = {u->new_world(in->effect_ref, 3, 2, PF_NewWorldFlag_DEEP_PIXELS, &deep),
                u->new_world(in->effect_ref, 3, 2, PF_NewWorldFlag_NONE, &eight)};
        errs.push_back(!zeroFilledAndPadded(deep) || !zeroFilledAndPadded(eight));
        return u->dispose_world(in->effect_ref, &eight);
    };
    World out(3, 2, true);
    ASSERT_EQ(s.render(0, out), PF_Err_NONE);
    EXPECT_EQ(errs, (std::vector<PF_Err>{0, 0, 0}));
    EXPECT_EQ(s.accounting().worldsDisposed, 1);
    EXPECT_EQ(s.accounting().worldsMadeDeep, (std::vector<bool>{true, false}));

    // Disposing a world twice is refused and counted.
    on[PF_Cmd_RENDER] = [&](PF_InData* in, auto...) {
        return in->utils->dispose_world(in->effect_ref, &eight);
    };
    EXPECT_EQ(s.render(0, out), PF_Err_BAD_CALLBACK_PARAM);
    EXPECT_EQ(s.accounting().strayDisposals, 1);

    // The second new world of each command fails; its record comes back empty.
    s.faults().failNewWorldAt = 2;
    on[PF_Cmd_RENDER] = [&](PF_InData* in, auto...) {
        PF_EffectWorld w[3] = {};
        errs.clear();
        for (PF_EffectWorld& one : w) {
            errs.push_back(in->utils->new_world(in->effect_ref, 2, 2, 0, &one));
        }
        errs.push_back(w[1].data != nullptr);
        in->utils->dispose_world(in->effect_ref, &w[0]);
        return in->utils->dispose_world(in->effect_ref, &w[2]);
    };
    ASSERT_EQ(s.render(0, out), PF_Err_NONE);
    EXPECT_EQ(errs, (std::vector<PF_Err>{0, PF_Err_OUT_OF_MEMORY, 0, 0}));
    EXPECT_EQ(s.accounting().newWorldFailures, 1);
    s.faults().failNewWorldAt = 0;

    // Writes outside a world are reported after the command (rows stepped by width × pixel
    // size land in the padding; one past the output's end) and at its disposal.
    on[PF_Cmd_RENDER] = [&](PF_InData* in, PF_OutData*, PF_ParamDef**, PF_LayerDef* output) {
        PF_EffectWorld w{}, one{};
        in->utils->new_world(in->effect_ref, 4, 3, PF_NewWorldFlag_DEEP_PIXELS, &w);
        for (A_long y = 0; y < 3; ++y) {
            reinterpret_cast<PF_Pixel16*>(reinterpret_cast<char*>(w.data) + y * 4 * 8)->alpha = 1;
        }
        reinterpret_cast<char*>(output->data)[output->height * output->rowbytes] = 1;
        in->utils->new_world(in->effect_ref, 1, 1, 0, &one);
        reinterpret_cast<PF_Pixel*>(one.data)[1].red = 5;
        return in->utils->dispose_world(in->effect_ref, &one);
    };
    ASSERT_EQ(s.render(0, out), PF_Err_NONE);
    EXPECT_EQ(s.accounting().guardReports,
              (std::vector<std::string>{"disposed world: row 0 padding byte 1",
                                        "world made by the effect: row 0 padding byte 0",
                                        "output world: tail after the last row, byte 0"}));
    EXPECT_TRUE(out.guardIntact());  // reported once, then the marker is put back

    // The worlds left undisposed are freed and counted when the session ends.
    EXPECT_EQ(s.finish(), 2);
    EXPECT_EQ(s.finish(), 2);
    EXPECT_THROW(s.render(0, out), std::logic_error);
    EXPECT_EQ(s.accounting().guardViolations, 3);
}

TEST_F(HeadlessSession, suites_are_served_by_name_and_version_and_counted) {
    std::vector<bool> served;
    on[PF_Cmd_GLOBAL_SETUP] = [&](PF_InData* in, auto...) {
        const std::pair<const char*, int> names[] = {
            {kPFParamUtilsSuite, 3},  {kPFHandleSuite, 2},      {kPFHandleSuite, 1},
            {kPFANSISuite, 1},        {kPFColorParamSuite, 1},  {"PF Color Param Suite", 1},
            {kPFPixelFormatSuite, 1}, {kPFPixelFormatSuite, 2}, {kPFUtilitySuite, 4}};
        served.clear();
        for (const auto& [name, version] : names) {
            served.push_back(acquire(in, name, version) != nullptr);
            if (served.back()) {
                release(in, name, version);
            }
        }
        return PF_Err_NONE;
    };
    Session ae(entry), pr(entry, {.family = HostFamily::Premiere});
    ASSERT_EQ(ae.globalSetup(), PF_Err_NONE);
    EXPECT_EQ(served, (std::vector<bool>{1, 1, 0, 1, 1, 0, 0, 0, 0}));
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
    on[PF_Cmd_GLOBAL_SETUP] = [&](PF_InData* in, auto...) {
        acquire(in, kPFHandleSuite, 2);
        release(in, kPFColorParamSuite, 1);
        return PF_Err_NONE;
    };
    ASSERT_EQ(ae.globalSetup(), PF_Err_NONE);
    EXPECT_EQ(ae.accounting().suitesHeldAfterCommand, 1);
    EXPECT_EQ(ae.accounting().suitesHeld(), 1);
    EXPECT_EQ(ae.accounting().strayReleases, 1);
}

TEST_F(HeadlessSession, ansi_maths_and_colours_behave_as_the_host_s) {
    Session s(entry);
    std::vector<double> seen;
    on[PF_Cmd_ABOUT] = [&](PF_InData* in, auto...) {
        auto* colours = acquire<PF_ColorParamSuite1>(in, kPFColorParamSuite, 1);
        PF_ParamDef def{};
        def.param_type = PF_Param_COLOR;
        def.u.cd.value = PF_Pixel{255, 200, 0, 51};
        PF_PixelFloat c{};
        colours->PF_GetFloatingPointColorFromColorDef(in->effect_ref, &def, &c);
        release(in, kPFColorParamSuite, 1);
        seen = {in->utils->ansi.sqrt(2.0), in->utils->ansi.floor(-1.5), c.alpha, c.red, c.blue};
        return PF_Err_NONE;
    };
    ASSERT_EQ(s.about(), PF_Err_NONE);
    // Colours come as the 8-bit value / 255 in float.
    EXPECT_EQ(seen, (std::vector<double>{std::sqrt(2.0), -2.0, 1.0f, 200 / 255.0f, 51 / 255.0f}));
}

TEST_F(HeadlessSession, the_panel_is_built_by_add_param_and_changed_by_update_param_ui) {
    // A popup whose items die before the command returns, a slider, a colour whose name fills
    // the whole field.
    on[PF_Cmd_PARAMS_SETUP] = [](PF_InData* in, PF_OutData* out, auto...) {
        const std::string items = "Show result |Show alpha |";
        PF_ParamDef d[3] = {};
        d[0].param_type = PF_Param_POPUP;
        d[0].u.pd.num_choices = 2;
        d[0].u.pd.u.namesptr = items.c_str();
        d[1].param_type = PF_Param_SLIDER;
        d[1].flags = PF_ParamFlag_SUPERVISE;
        std::strcpy(d[1].name, "Size");
        d[2].param_type = PF_Param_COLOR;
        std::memcpy(d[2].name, "Pre clean blobs below size (0=off)", 32);
        PF_Err err = PF_Err_NONE;
        for (int i = 0; i < 3 && err == PF_Err_NONE; ++i) {
            err = in->inter.add_param(in->effect_ref, -1, &d[i]);
        }
        out->num_params = 4;
        return err;
    };
    Session s(entry), failing(entry);
    ASSERT_EQ(s.paramsSetup(), PF_Err_NONE);
    ASSERT_EQ(s.numParams(), 4);
    EXPECT_EQ(s.control(1).popupChoices(),
              (std::vector<std::string>{"Show result ", "Show alpha "}));
    EXPECT_STREQ(s.control(1).current.u.pd.u.namesptr, "Show result |Show alpha |");
    EXPECT_EQ(s.control(3).name(), "Pre clean blobs below size (0=of");  // all 32 bytes
    // The k-th add_param of a command fails as asked.
    failing.faults().failAddParamAt = 2;
    EXPECT_EQ(failing.paramsSetup(), PF_Err_OUT_OF_MEMORY);
    EXPECT_EQ(failing.accounting().addParamCalls, 2);

    // Commands get copies of the panel holding the user's values; PF_UpdateParamUI is
    // recorded and changes the panel.
    s.setPopup(1, 2);
    s.setSlider(2, 17);
    s.setColor(3, PF_Pixel{255, 1, 2, 3});
    EXPECT_THROW(s.setSlider(1, 3), std::invalid_argument);
    EXPECT_THROW(s.setPopup(9, 1), std::out_of_range);
    PF_ParamFlags sent = PF_ParamFlag_COLLAPSE_TWIRLY | PF_ParamFlag_CANNOT_TIME_VARY;
    std::vector<A_long> seen;
    on[PF_Cmd_UPDATE_PARAMS_UI] = [&](PF_InData* in, PF_OutData*, PF_ParamDef** params, auto...) {
        seen = {in->num_params, params[1]->u.pd.value, params[2]->u.sd.value,
                params[3]->u.cd.value.blue, params[2]->ui_flags};
        params[2]->u.sd.value = 99;  // the effect's copy, not the panel
        auto* suite = acquire<PF_ParamUtilsSuite3>(in, kPFParamUtilsSuite, 3);
        PF_ParamDef copy = *params[2];
        copy.ui_flags = PF_PUI_DISABLED;
        std::strcpy(copy.name, "renamed");
        copy.flags = sent;
        seen.push_back(suite->PF_UpdateParamUI(in->effect_ref, 2, &copy));
        seen.push_back(suite->PF_UpdateParamUI(in->effect_ref, 1, params[1]));
        seen.push_back(suite->PF_UpdateParamUI(in->effect_ref, 4, &copy));
        release(in, kPFParamUtilsSuite, 3);
        return PF_Err_NONE;
    };
    ASSERT_EQ(s.updateParamsUI(), PF_Err_NONE);
    EXPECT_EQ(seen, (std::vector<A_long>{4, 2, 17, 3, 0, 0, 0, PF_Err_INVALID_INDEX}));
    // Each call as made: index, ui_flags, flags, params[] itself passed or not, result; name.
    const std::vector<ParamUICall>& calls = s.accounting().paramUICalls;
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ((std::vector<A_long>{calls[0].index, calls[0].ui_flags, calls[0].flags,
                                   calls[0].passedParamsEntry, calls[1].passedParamsEntry,
                                   calls[2].result}),
              (std::vector<A_long>{2, PF_PUI_DISABLED, sent, 0, 1, PF_Err_INVALID_INDEX}));
    EXPECT_EQ(calls[0].nameString(), "renamed");
    // Of flags the panel takes only the collapse bit; the declaration stays as it was.
    const PF_ParamDef& size = s.control(2).current;
    EXPECT_EQ((std::vector<A_long>{size.u.sd.value, size.ui_flags, size.flags}),
              (std::vector<A_long>{17, PF_PUI_DISABLED,
                                   PF_ParamFlag_SUPERVISE | PF_ParamFlag_COLLAPSE_TWIRLY}));
    EXPECT_EQ(s.control(2).name(), "renamed");
    EXPECT_STREQ(s.control(2).declared.name, "Size");
    // The next command sees the panel; clearing the collapse bit clears it in the panel.
    sent = 0;
    ASSERT_EQ(s.updateParamsUI(), PF_Err_NONE);
    EXPECT_EQ(seen[4], PF_PUI_DISABLED);
    EXPECT_EQ(size.flags, PF_ParamFlag_SUPERVISE);
}

TEST_F(HeadlessSession, renders_get_in_data_layers_and_checkouts_as_the_host_hands_them_out) {
    MemoryFrameSource frames(3, 2, 1);
    for (A_u_short f = 1; f <= 3; ++f) {
        frames.addSolidFrame16({32768, A_u_short(128 * f), 0, 0});  // red 128 × f
    }
    Session s(entry, {HostFamily::Premiere, true, &frames}),
        e(entry, {HostFamily::Premiere, false, &frames, 100, 240});
    PF_InData data{};
    A_u_long format = 0;  // the render's pixel format
    std::vector<PF_Err> errs;
    std::vector<int> reds;  // the input layer's, then each check-out's; -1 for no data
    std::vector<const void*> buffers;
    int checkIns = 5;
    on[PF_Cmd_RENDER] = [&](PF_InData* in, PF_OutData*, PF_ParamDef** params, PF_LayerDef* out) {
        auto* formats = acquire<PF_PixelFormatSuite1>(in, kPFPixelFormatSuite, 1);
        PrPixelFormat f{};
        formats->GetPixelFormat(out, &f);
        release(in, kPFPixelFormatSuite, 1);
        PF_ParamDef layers[6] = {*params[0]};
        const A_long times[] = {0, 150, 200, 900, -100};
        data = *in, format = f;
        errs.clear(), reds.clear(), buffers.clear();
        for (int i = 0; i < 6; ++i) {
            if (i > 0) {
                errs.push_back(in->inter.checkout_param(in->effect_ref, 0, times[i - 1],
                                                        in->time_step, in->time_scale, &layers[i]));
            }
            const PF_LayerDef& l = layers[i].u.ld;
            buffers.push_back(l.data);
            reds.push_back(!l.data                ? -1
                           : PF_WORLD_IS_DEEP(&l) ? reinterpret_cast<PF_Pixel16*>(l.data)->red
                                                  : reinterpret_cast<PF_Pixel*>(l.data)->red);
        }
        for (int i = 1; i <= checkIns; ++i) {
            in->inter.checkin_param(in->effect_ref, &layers[i]);
        }
        return PF_Err_NONE;
    };
    // Check-outs clamp to the sequence, each in a buffer of its own.
    ASSERT_EQ(s.render(2), PF_Err_NONE);
    EXPECT_EQ(errs, std::vector<PF_Err>(5, PF_Err_NONE));
    EXPECT_EQ(s.accounting().checkoutFrames, (std::vector<A_long>{1, 1, 2, 3, 1}));
    EXPECT_EQ(reds, (std::vector<int>{256, 128, 128, 256, 384, 128}));
    std::sort(buffers.begin(), buffers.end());
    EXPECT_EQ(std::unique(buffers.begin(), buffers.end()), buffers.end());

    // The host's id and times; an 8-bit project hands out 8-bit layers.
    e.setDownsample(2);
    ASSERT_EQ(e.render(2), PF_Err_NONE);
    EXPECT_EQ(data.appl_id, kPremiereApplId);
    EXPECT_EQ((std::vector<A_long>{data.current_time, data.local_time_step, A_long(data.time_scale),
                                   data.total_time, A_long(data.downsample_x.den),
                                   A_long(data.downsample_y.den), data.num_params}),
              (std::vector<A_long>{200, 100, 240, 400, 2, 2, 1}));
    EXPECT_EQ(reds, (std::vector<int>{2, 1, 1, 2, 3, 1}));

    // Premiere: once the effect asks, check-outs follow the render's pixel format, which
    // follows the output's depth unless an answer is set for deep worlds (an unknown code
    // leaves the project's depth); 8-bit worlds always get the 8-bit code.
    on[PF_Cmd_GLOBAL_SETUP] = [](PF_InData* in, auto...) {
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
    World deepOut(3, 2, true), eightOut(3, 2, false);
    auto render = [&](Session& session, World& out) {
        EXPECT_EQ(session.render(2, out), PF_Err_NONE);
        return std::pair(format, reds[1] > 1);  // a deep check-out?
    };
    EXPECT_EQ(render(e, deepOut), std::pair(kPixelFormatArgb16, false));
    ASSERT_EQ(e.globalSetup(), PF_Err_NONE);
    EXPECT_TRUE(e.accounting().matchRenderPixelFormat);
    EXPECT_EQ(e.accounting().supportedPixelFormats, std::vector<A_u_long>{kPixelFormatArgb16});
    EXPECT_EQ(e.accounting().clearPixelFormatCalls, 1);
    EXPECT_EQ(render(e, deepOut), std::pair(kPixelFormatArgb16, true));
    EXPECT_EQ(render(e, eightOut), std::pair(kPixelFormatArgb8, false));
    e.setPremierePixelFormat(0x61726762);
    EXPECT_EQ(render(e, deepOut), std::pair(A_u_long{0x61726762}, false));
    EXPECT_EQ(render(e, eightOut), std::pair(kPixelFormatArgb8, false));
    ASSERT_EQ(s.globalSetup(), PF_Err_NONE);
    s.setPremierePixelFormat(kPixelFormatArgb8);
    EXPECT_EQ(render(s, deepOut), std::pair(kPixelFormatArgb8, false));

    // A "none" layer has no data and no error.
    frames.setNone(true);
    ASSERT_EQ(e.render(2), PF_Err_NONE);
    EXPECT_EQ(errs, std::vector<PF_Err>(5, PF_Err_NONE));
    EXPECT_EQ(reds, std::vector<int>(6, -1));
    EXPECT_EQ(e.accounting().checkins, 35);
    EXPECT_EQ(e.accounting().strayCheckins, 0);
    frames.setNone(false);

    // The second check-out of each command fails with an empty record; checking that record
    // in is harmless. A layer left checked out is reclaimed and counted.
    s.faults().failCheckoutAt = 2;
    checkIns = 4;
    ASSERT_EQ(s.render(2), PF_Err_NONE);
    EXPECT_EQ(errs, (std::vector<PF_Err>{0, PF_Err_OUT_OF_MEMORY, 0, 0, 0}));
    EXPECT_EQ(reds[2], -1);
    EXPECT_EQ(s.accounting().checkoutFailures, 1);
    EXPECT_EQ(s.accounting().strayCheckins, 1);
    EXPECT_EQ(s.accounting().checkoutsLeftAtCommandEnd, 1);

    // Other command codes pass through unchanged; a write into the input layer is noticed; an
    // exception other than the host's passes through and leaves the session usable.
    on[PF_Cmd_SEQUENCE_SETUP] = [](auto...) { return PF_Err_INVALID_CALLBACK; };
    EXPECT_EQ(s.call(PF_Cmd_SEQUENCE_SETUP), PF_Err_INVALID_CALLBACK);
    EXPECT_EQ(s.accounting().commands.back(), PF_Cmd_SEQUENCE_SETUP);
    on[PF_Cmd_RENDER] = [&](PF_InData*, PF_OutData*, PF_ParamDef** params, auto...) {
        reinterpret_cast<PF_Pixel16*>(params[0]->u.ld.data)->blue = 7;
        return PF_Err_NONE;
    };
    ASSERT_EQ(s.render(1), PF_Err_NONE);
    on[PF_Cmd_RENDER] = [&](auto...) -> PF_Err { throw std::runtime_error("effect bug"); };
    EXPECT_THROW(s.render(1), std::runtime_error);
    on.erase(PF_Cmd_RENDER);
    EXPECT_EQ(s.render(1), PF_Err_NONE);
    EXPECT_EQ(s.accounting().inputWrites, 1);
}

TEST(HeadlessSessions, on_two_threads_keep_to_their_own_records) {
    auto work = [](HostFamily family, int rounds, Accounting* result) {
        Session s(entry, {.family = family});
        // The basic suite, the handle suite and the ANSI suite carry no effect reference.
        on[PF_Cmd_ABOUT] = [](PF_InData* in, PF_OutData* out, auto...) {
            auto* ansi = acquire<PF_ANSICallbacksSuite1>(in, kPFANSISuite, 1);
            acquire<PF_HandleSuite1>(in, kPFHandleSuite, 2)->host_new_handle(8);
            const bool premiereSuite = acquire(in, kPFUtilitySuite, 4) != nullptr;
            if (premiereSuite) {
                release(in, kPFUtilitySuite, 4);
            }
            ansi->sprintf(out->return_msg, "%x %d", unsigned(in->appl_id), premiereSuite);
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
        on.clear();
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
    EXPECT_EQ(ae.suitesHeld() + premiere.suitesHeld(), 0);
}

}  // namespace
