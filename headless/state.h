// Inside the headless host: one session's records, its panel and bookkeeping, and the
// callback tables. Not for tests or tools; they use host.h.
#pragma once

#include <AE_EffectCB.h>
#include <SPBasic.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "headless/host.h"

namespace quorvane::headless {

// A host handle: PF_Handle points at `ptr`, which points at `size` bytes.
struct HandleBlock {
    char* ptr = nullptr;
    A_HandleSize size = 0;
    ~HandleBlock() { delete[] ptr; }
};

struct Session::State {
    EntryPoint entry = nullptr;
    SessionOptions options;
    bool finished = false;

    // The records handed to the effect. in_data and out_data are filled anew per command.
    PF_InData in{};
    PF_OutData out{};
    PF_UtilCallbacks utils{};
    SPBasicSuite basic{};
    PF_Err lastResult = PF_Err_NONE;

    // The effect-controls panel; index 0 is the input layer. A deque keeps each control (and
    // the popup string the definitions point at) in place as controls are added.
    std::deque<Control> panel;

    // Host settings.
    PF_RationalScale downsampleX{1, 1};
    PF_RationalScale downsampleY{1, 1};
    std::optional<A_u_long> premiereFormat;
    Faults faults;
    Accounting acc;
    A_long currentFrame = 0;
    std::unique_ptr<World> output;

    // The command being run.
    PF_Cmd command = -1;
    int addParamsThisCommand = 0;
    int newWorldsThisCommand = 0;
    int checkoutsThisCommand = 0;
    std::vector<PF_ParamDef> paramCopies;  // params[] of this command
    std::vector<PF_ParamDef*> paramPtrs;
    World input;          // the input layer of this command, if it has one
    World inputPristine;  // its pixels as handed over
    PF_LayerDef* commandOutput = nullptr;
    World* commandOutputWorld = nullptr;  // when the output is a World this host made

    // Owned by the host, lent to the effect: keyed by their `data` pointer.
    std::unordered_map<const void*, std::unique_ptr<World>> effectWorlds;
    std::unordered_map<const void*, std::unique_ptr<World>> checkedOut;
    int noneLayersOut = 0;  // "none" layers checked out and not yet checked in
    std::unordered_map<PF_Handle, std::unique_ptr<HandleBlock>> handles;
    std::map<std::string, int> suitesHeld;  // acquisitions not yet released, by key

    State(EntryPoint e, SessionOptions o);

    bool premiere() const { return options.family == HostFamily::Premiere; }
    // What GetPixelFormat answers for a world of this depth.
    A_u_long pixelFormatFor(bool worldDeep) const;
    // Depth of the render's pixel format in Premiere: the answer for this command's output
    // (the project's depth when that answer is no format the host knows).
    bool renderFormatDeep() const;
    bool inputDeep() const;
    bool checkoutDeep() const;
    A_long timeStep() const { return options.timeStep > 0 ? options.timeStep : 1; }
    // A frame index clamped to the source's frames.
    A_long clampFrame(A_long frame) const;
    // Reports (and clears) a write outside a world's pixels.
    void checkGuard(World& world, const std::string& what);

    PF_Err beginCommand(PF_Cmd cmd, PF_LayerDef* output, World* outputWorld);
    void endCommand();
    void requireLive() const;
    void freeEverything();
};

// Fills the session's callback tables (utility, interact, basic suite).
void installCallbacks(Session::State& state);
// Fills in_data's interact callbacks (check-out, check-in, add_param, abort, progress).
void fillInteractCallbacks(PF_InteractCallbacks& inter);

// Makes `state` the current session of this thread for its lifetime; restores the previous.
class CurrentSession {
  public:
    explicit CurrentSession(Session::State* state);
    ~CurrentSession();
    CurrentSession(const CurrentSession&) = delete;
    CurrentSession& operator=(const CurrentSession&) = delete;

  private:
    Session::State* previous_;
};

// Key of a suite in the accounting: "name/version".
std::string suiteKey(const char* name, int version);

}  // namespace quorvane::headless
