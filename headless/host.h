// The headless host: an in-process stand-in for the application that loads the effect. It
// drives the effect only through its EntryPointFunc, with the records, callbacks and suites an
// After Effects-compatible host provides, keeps the effect-controls panel, and counts what
// the effect made, acquired and changed so tests can check it.
//
// One Session is one effect instance in one host: global set-up, parameter set-up, then per
// frame the UI update, frame set-up and render. A session is used by one thread at a time;
// callbacks that carry no effect reference (the basic suite, the ANSI callbacks, the handle
// suite, GetPixelFormat) find their session through a thread-local set around each call of
// the entry point, so sessions on different threads never see each other.
//
// Typical use:
//     Plugin plugin = Plugin::load(Plugin::defaultPath());
//     MemoryFrameSource frames(64, 64);
//     frames.addSolidFrame16({32768, 100, 200, 300});
//     Session session(plugin, {.family = HostFamily::AfterEffects, .source = &frames});
//     session.start();                  // global set-up, parameter set-up
//     session.setPopup(5, 2);
//     session.runFrame(0);              // UI update, frame set-up, render into output()
//     session.finish();
//     EXPECT_EQ(session.accounting().worldsLeftUndisposed, 0);
#pragma once

#include <AE_Effect.h>

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "headless/frame_source.h"
#include "headless/plugin.h"
#include "headless/world.h"

namespace quorvane::headless {

enum class HostFamily { AfterEffects, Premiere };

// in_data->appl_id of each family.
inline constexpr A_long kAfterEffectsApplId = 0x46585443;  // 'FXTC'
inline constexpr A_long kPremiereApplId = 0x50724D72;      // 'PrMr'

// Premiere's pixel-format codes the effect knows.
inline constexpr A_u_long kPixelFormatArgb16 = 0x62677241;  // bytes 'A','r','g','b', deep
inline constexpr A_u_long kPixelFormatArgb8 = 0x62677261;   // bytes 'a','r','g','b', 8-bit

struct SessionOptions {
    HostFamily family = HostFamily::AfterEffects;
    // Project depth: 16-bit worlds (true) or 8-bit. The input layer, check-outs and the
    // session's output world come at this depth.
    bool deep = true;
    // The input layer; may be null (then params[0] and check-outs are "none" layers).
    // Not owned; must outlive the session.
    FrameSource* source = nullptr;
    // in_data->time_step and time_scale; frame n is at time n × timeStep.
    A_long timeStep = 100;
    A_u_long timeScale = 2400;
    // Keep a copy of the input layer during each command and count any write into it
    // (Accounting::inputWrites). Tests want it; production renders skip the copy.
    bool checkInputWrites = true;
};

// One control of the effect-controls panel.
struct Control {
    // The definition exactly as add_param received it (an over-long name and what it wrote
    // into `flags` included); popup item strings point at `popupItems`.
    PF_ParamDef declared{};
    // What the panel holds now: the value the user set, ui_flags, name and collapse bit as
    // PF_UpdateParamUI left them. params[i] of every command is a copy of this.
    PF_ParamDef current{};
    // The popup's item string, copied at add_param ("Show result |Show alpha |...").
    std::string popupItems;

    // The current name: up to 32 bytes, stopping at the first zero (a name that fills the
    // whole field has no terminator).
    std::string name() const;
    // The popup items split at '|', exactly as written (trailing blanks kept); the empty text
    // after the final '|' is not an item.
    std::vector<std::string> popupChoices() const;
};

// One PF_UpdateParamUI call, as the effect made it.
struct ParamUICall {
    PF_ParamIndex index = 0;
    PF_ParamUIFlags ui_flags = 0;
    char name[32] = {};
    PF_ParamFlags flags = 0;
    // The effect passed the params[] entry itself instead of a copy.
    bool passedParamsEntry = false;
    PF_Err result = PF_Err_NONE;

    std::string nameString() const;  // up to 32 bytes, stopping at the first zero
};

// Acquire and release counts of one suite (name and version).
struct SuiteCount {
    int acquired = 0;
    int released = 0;
    int refused = 0;  // acquisitions answered "missing"
};

// What the effect did through the host during the session; read by tests.
struct Accounting {
    std::vector<PF_Cmd> commands;  // every command sent, in order
    int addParamCalls = 0;

    int worldsMade = 0;                // new_world calls that made a world
    int newWorldFailures = 0;          // new_world calls that failed (injected or bad arguments)
    int worldsDisposed = 0;            // dispose_world on a world this host made
    int strayDisposals = 0;            // dispose_world on anything else
    int worldsLeftUndisposed = 0;      // freed by the host when the session ended
    std::vector<bool> worldsMadeDeep;  // depth of each world made, in order

    std::map<std::string, SuiteCount> suites;  // keyed "name/version", e.g. "PF Handle Suite/2"
    int suitesHeldAfterCommand = 0;            // suites still acquired when a command returned
    int strayReleases = 0;                     // releases of a suite that was not held

    int handlesCreated = 0;
    int handlesDisposed = 0;

    int checkouts = 0;                   // successful check-outs
    int checkoutFailures = 0;            // injected or refused
    int checkins = 0;                    // check-ins of a checked-out layer
    int strayCheckins = 0;               // check-ins of anything else (a failed check-out's record)
    int checkoutsLeftAtCommandEnd = 0;   // not checked in when their command returned
    std::vector<A_long> checkoutFrames;  // frame index of each check-out, after clamping
    std::vector<A_long> checkoutTimes;   // what_time of each check-out request
    std::vector<bool> checkoutsDeep;     // depth of each layer handed out

    std::vector<ParamUICall> paramUICalls;  // every PF_UpdateParamUI call, in order

    // Premiere only.
    std::vector<A_u_long> supportedPixelFormats;  // as Clear/AddSupportedPixelFormat left them
    int clearPixelFormatCalls = 0;
    int addPixelFormatCalls = 0;
    bool matchRenderPixelFormat = false;  // EffectWantsCheckedOutFramesToMatchRenderPixelFormat
    int pixelFormatQueries = 0;

    // Writes outside a world's pixels (row padding, guards), found after each command and at
    // each disposal; and writes into the input layer.
    int guardViolations = 0;
    std::vector<std::string> guardReports;
    int inputWrites = 0;

    SuiteCount suite(const std::string& name, int version) const;
    // Suites acquired and not yet released, over all names.
    int suitesHeld() const;
    int worldsLive() const { return worldsMade - worldsDisposed; }
};

// Failures the host makes on purpose. Call counts k are 1-based and counted from the start of
// each command (failNewWorldAt = 3 fails the third new world of every command); 0 = never.
struct Faults {
    int failAddParamAt = 0;
    PF_Err addParamError = PF_Err_OUT_OF_MEMORY;
    int failNewWorldAt = 0;
    PF_Err newWorldError = PF_Err_OUT_OF_MEMORY;
    int failCheckoutAt = 0;
    PF_Err checkoutError = PF_Err_OUT_OF_MEMORY;
    // Suite names (any version) that AcquireSuite reports missing.
    std::set<std::string> missingSuites;
};

// The answer to PF_Cmd_GET_EXTERNAL_DEPENDENCIES.
struct DependencyAnswer {
    PF_Err err = PF_Err_NONE;
    bool handleNull = true;
    std::size_t handleSize = 0;  // as allocated
    std::string bytes;           // the handle's whole contents (handleSize bytes)
    std::string text() const;    // bytes up to the first zero
};

class Session {
  public:
    Session(const Plugin& plugin, SessionOptions options = {});
    Session(EntryPoint entry, SessionOptions options = {});
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    // Ends the session (finish()) if that has not been done.
    ~Session();

    // --- Commands. Each returns the entry point's result. ---
    // Any command code, with in_data as for the current frame; params[] from the panel;
    // params[0] holds the input layer for frame set-up, render and frame set-down.
    PF_Err call(PF_Cmd cmd, void* extra = nullptr, PF_LayerDef* output = nullptr);
    PF_Err globalSetup();
    PF_Err paramsSetup();
    // Global set-up then parameter set-up; stops at the first error.
    PF_Err start();
    PF_Err about();  // the text is returnMessage() afterwards
    PF_Err updateParamsUI();
    PF_Err userChangedParam(PF_ParamIndex index);
    PF_Err queryDynamicFlags();
    PF_Err frameSetup(A_long frame);
    // Renders frame `frame` into `output` (or into the session's output()).
    PF_Err render(A_long frame, World& output);
    PF_Err render(A_long frame);
    // What the host sends per frame: UI update, frame set-up, render; stops at the first error.
    PF_Err runFrame(A_long frame, World& output);
    PF_Err runFrame(A_long frame);
    DependencyAnswer dependencies(PF_DepCheckType check_type);

    // --- Results of the last command. ---
    const PF_InData& inData() const;
    const PF_OutData& outData() const;
    // out_data->return_msg up to its terminator.
    std::string returnMessage() const;
    PF_Err lastResult() const;

    // --- The effect-controls panel. Index 0 is the input layer. ---
    A_long numParams() const;
    const Control& control(PF_ParamIndex index) const;
    // Direct access for values the typed setters do not cover. Throws std::out_of_range.
    Control& control(PF_ParamIndex index);
    // Set a control's current value as the user would. Throw std::out_of_range for a bad
    // index and std::invalid_argument when the control is of another type.
    void setPopup(PF_ParamIndex index, A_long value);
    void setSlider(PF_ParamIndex index, A_long value);
    void setColor(PF_ParamIndex index, const PF_Pixel& color);

    // --- Host settings. ---
    const SessionOptions& options() const;
    void setFrameSource(FrameSource* source);
    // in_data->downsample_x and downsample_y; 1/1 by default.
    void setDownsample(PF_RationalScale x, PF_RationalScale y);
    void setDownsample(A_u_long denominator);  // 1/denominator on both axes
    // What GetPixelFormat answers (Premiere). By default it follows the queried world's depth:
    // deep gives kPixelFormatArgb16, 8-bit gives kPixelFormatArgb8. A code set here is the
    // answer for deep worlds only; 8-bit worlds are always answered kPixelFormatArgb8.
    void setPremierePixelFormat(A_u_long code);
    void clearPremierePixelFormat();
    Faults& faults();

    // The output world render(frame) writes into: made zero-filled at the source's size and
    // the project's depth on first use; tests may preset its pixels before a render.
    World& output();
    // Replaces the output world (another size or depth).
    void setOutput(World world);

    // --- Accounting. ---
    const Accounting& accounting() const;
    // Frees what the effect left behind (undisposed worlds, counted in worldsLeftUndisposed;
    // layers not checked in; handles) and returns accounting().worldsLeftUndisposed. Commands
    // after finish() throw std::logic_error. Called by the destructor if not called before.
    int finish();

    struct State;  // the host's records and callbacks (headless/state.h)

  private:
    std::unique_ptr<State> state_;
};

}  // namespace quorvane::headless
