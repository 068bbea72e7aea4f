#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "headless/state.h"

namespace quorvane::headless {

// --- Small records -------------------------------------------------------------------------

namespace {

std::string
fieldText(const char* field, std::size_t size) {
    const void* end = std::memchr(field, '\0', size);
    return std::string(field, end ? static_cast<const char*>(end) - field : size);
}

// The project's version of the interface, as in_data->version reports it.
constexpr A_short kSpecMajor = 13;
constexpr A_short kSpecMinor = 28;

}  // namespace

std::string
Control::name() const {
    return fieldText(current.name, sizeof current.name);
}

std::vector<std::string>
Control::popupChoices() const {
    std::vector<std::string> items;
    std::string item;
    for (char c : popupItems) {
        if (c == '|') {
            items.push_back(item);
            item.clear();
        } else {
            item += c;
        }
    }
    if (!item.empty()) {
        items.push_back(item);
    }
    return items;
}

std::string
ParamUICall::nameString() const {
    return fieldText(name, sizeof name);
}

SuiteCount
Accounting::suite(const std::string& name, int version) const {
    auto it = suites.find(name + "/" + std::to_string(version));
    return it == suites.end() ? SuiteCount{} : it->second;
}

int
Accounting::suitesHeld() const {
    int held = 0;
    for (const auto& [key, count] : suites) {
        held += count.acquired - count.released;
    }
    return held;
}

std::string
DependencyAnswer::text() const {
    return fieldText(bytes.data(), bytes.size());
}

// --- Session state -------------------------------------------------------------------------

Session::State::State(EntryPoint e, SessionOptions o) : entry(e), options(o) {
    if (entry == nullptr) {
        throw std::invalid_argument("Session: null entry point");
    }
    installCallbacks(*this);
    Control& input = panel.emplace_back();
    input.declared.param_type = PF_Param_LAYER;
    input.current = input.declared;
    if (options.source != nullptr) {
        currentFrame = options.source->firstFrame();
    }
}

A_u_long
Session::State::pixelFormatFor(bool worldDeep) const {
    // A configured answer applies to deep worlds only: an 8-bit world answered with a deep
    // code would have the effect write 16-bit pixels into it.
    if (!worldDeep) {
        return kPixelFormatArgb8;
    }
    return premiereFormat ? *premiereFormat : kPixelFormatArgb16;
}

bool
Session::State::renderFormatDeep() const {
    const bool outputDeep =
        commandOutput != nullptr ? PF_WORLD_IS_DEEP(commandOutput) : options.deep;
    const A_u_long format = pixelFormatFor(outputDeep);
    if (format == kPixelFormatArgb16) {
        return true;
    }
    if (format == kPixelFormatArgb8) {
        return false;
    }
    return options.deep;
}

bool
Session::State::inputDeep() const {
    return premiere() ? renderFormatDeep() : options.deep;
}

bool
Session::State::checkoutDeep() const {
    return premiere() && acc.matchRenderPixelFormat ? renderFormatDeep() : options.deep;
}

A_long
Session::State::clampFrame(A_long frame) const {
    const FrameSource* source = options.source;
    if (source == nullptr) {
        return frame;
    }
    return std::clamp(frame, source->firstFrame(),
                      std::max(source->firstFrame(), source->lastFrame()));
}

void
Session::State::checkGuard(World& world, const std::string& what) {
    const std::string report = world.guardReport();
    if (!report.empty()) {
        ++acc.guardViolations;
        acc.guardReports.push_back(what + ": " + report);
        world.resetGuard();
    }
}

void
Session::State::requireLive() const {
    if (finished) {
        throw std::logic_error("Session: command after finish()");
    }
}

PF_Err
Session::State::beginCommand(PF_Cmd cmd, PF_LayerDef* output, World* outputWorld) {
    command = cmd;
    acc.commands.push_back(cmd);
    addParamsThisCommand = 0;
    newWorldsThisCommand = 0;
    checkoutsThisCommand = 0;
    commandOutput = output;
    commandOutputWorld = outputWorld;
    if (cmd == PF_Cmd_PARAMS_SETUP) {
        panel.resize(1);
    }

    FrameSource* source = options.source;
    const A_long step = timeStep();
    A_long width = 0;
    A_long height = 0;
    if (source != nullptr) {
        width = source->width();
        height = source->height();
    } else if (output != nullptr) {
        width = output->width;
        height = output->height;
    }

    in = PF_InData{};
    fillInteractCallbacks(in.inter);
    in.utils = &utils;
    in.effect_ref = reinterpret_cast<PF_ProgPtr>(this);
    in.quality = 1;  // high quality
    in.version = PF_SpecVersion{kSpecMajor, kSpecMinor};
    in.appl_id = premiere() ? kPremiereApplId : kAfterEffectsApplId;
    in.num_params = static_cast<A_long>(panel.size());
    in.current_time = currentFrame * step;
    in.time_step = step;
    in.local_time_step = step;
    in.total_time = source != nullptr ? (source->lastFrame() + 1) * step : step;
    in.time_scale = options.timeScale;
    in.width = width;
    in.height = height;
    in.extent_hint = PF_Rect{0, 0, width, height};
    in.downsample_x = downsampleX;
    in.downsample_y = downsampleY;
    in.pixel_aspect_ratio = PF_RationalScale{1, 1};
    in.pica_basicP = &basic;
    out = PF_OutData{};

    // params[0] carries the input layer for the commands that render; empty otherwise.
    paramCopies.assign(panel.size(), PF_ParamDef{});
    for (std::size_t i = 1; i < panel.size(); ++i) {
        paramCopies[i] = panel[i].current;
    }
    paramCopies[0].param_type = PF_Param_LAYER;
    input = World();
    inputPristine = World();
    const bool wantsInput =
        cmd == PF_Cmd_FRAME_SETUP || cmd == PF_Cmd_RENDER || cmd == PF_Cmd_FRAME_SETDOWN;
    if (wantsInput && source != nullptr && !source->layerIsNone()) {
        input = World(width, height, inputDeep(),
                      source->fillsEveryPixel() ? World::Pixels::LeftForTheSource
                                                : World::Pixels::Zeroed);
        const PF_Err err = source->fill(clampFrame(currentFrame), input.layer());
        if (err != PF_Err_NONE) {
            input = World();
            return err;
        }
        if (options.checkInputWrites) {
            inputPristine = input.clone();
        }
        paramCopies[0].u.ld = input.layer();
    }
    paramPtrs.resize(paramCopies.size());
    for (std::size_t i = 0; i < paramCopies.size(); ++i) {
        paramPtrs[i] = &paramCopies[i];
    }
    return PF_Err_NONE;
}

void
Session::State::endCommand() {
    for (auto& [data, world] : effectWorlds) {
        checkGuard(*world, "world made by the effect");
    }
    for (auto& [data, world] : checkedOut) {
        checkGuard(*world, "checked-out layer");
    }
    acc.checkoutsLeftAtCommandEnd += static_cast<int>(checkedOut.size()) + noneLayersOut;
    checkedOut.clear();
    noneLayersOut = 0;
    if (!input.empty()) {
        checkGuard(input, "input layer");
        if (!inputPristine.empty() && !input.samePixels(inputPristine)) {
            ++acc.inputWrites;
        }
    }
    if (commandOutputWorld != nullptr) {
        checkGuard(*commandOutputWorld, "output world");
    }
    for (auto& [key, held] : suitesHeld) {
        acc.suitesHeldAfterCommand += held;
    }
    suitesHeld.clear();
    input = World();
    inputPristine = World();
    command = -1;
    commandOutput = nullptr;
    commandOutputWorld = nullptr;
}

void
Session::State::freeEverything() {
    for (auto& [data, world] : effectWorlds) {
        checkGuard(*world, "world left by the effect");
    }
    acc.worldsLeftUndisposed += static_cast<int>(effectWorlds.size());
    effectWorlds.clear();
    checkedOut.clear();
    handles.clear();
}

// --- Session -------------------------------------------------------------------------------

Session::Session(const Plugin& plugin, SessionOptions options) : Session(plugin.entry(), options) {}

Session::Session(EntryPoint entry, SessionOptions options)
    : state_(std::make_unique<State>(entry, options)) {}

Session::~Session() {
    finish();
}

namespace {

PF_Err
runCommand(Session::State& s, PF_Cmd cmd, void* extra, PF_LayerDef* output, World* outputWorld) {
    s.requireLive();
    CurrentSession current(&s);
    PF_Err err = s.beginCommand(cmd, output, outputWorld);
    if (err == PF_Err_NONE) {
        try {
            err = s.entry(cmd, &s.in, &s.out, s.paramPtrs.data(), output, extra);
        } catch (...) {
            s.endCommand();
            throw;
        }
    }
    s.endCommand();
    s.lastResult = err;
    return err;
}

}  // namespace

PF_Err
Session::call(PF_Cmd cmd, void* extra, PF_LayerDef* output) {
    World* world = nullptr;
    if (state_->output && output == &state_->output->layer()) {
        world = state_->output.get();
    }
    return runCommand(*state_, cmd, extra, output, world);
}

PF_Err
Session::globalSetup() {
    return call(PF_Cmd_GLOBAL_SETUP);
}

PF_Err
Session::paramsSetup() {
    return call(PF_Cmd_PARAMS_SETUP);
}

PF_Err
Session::start() {
    const PF_Err err = globalSetup();
    return err != PF_Err_NONE ? err : paramsSetup();
}

PF_Err
Session::about() {
    return call(PF_Cmd_ABOUT);
}

PF_Err
Session::updateParamsUI() {
    return call(PF_Cmd_UPDATE_PARAMS_UI);
}

PF_Err
Session::userChangedParam(PF_ParamIndex index) {
    PF_UserChangedParamExtra extra{index};
    return call(PF_Cmd_USER_CHANGED_PARAM, &extra);
}

PF_Err
Session::queryDynamicFlags() {
    return call(PF_Cmd_QUERY_DYNAMIC_FLAGS);
}

PF_Err
Session::frameSetup(A_long frame) {
    state_->currentFrame = frame;
    World& out = output();
    return runCommand(*state_, PF_Cmd_FRAME_SETUP, nullptr, &out.layer(), &out);
}

PF_Err
Session::render(A_long frame, World& output) {
    state_->currentFrame = frame;
    return runCommand(*state_, PF_Cmd_RENDER, nullptr, &output.layer(), &output);
}

PF_Err
Session::render(A_long frame) {
    return render(frame, output());
}

PF_Err
Session::runFrame(A_long frame, World& output) {
    PF_Err err = updateParamsUI();
    if (err == PF_Err_NONE) {
        state_->currentFrame = frame;
        err = runCommand(*state_, PF_Cmd_FRAME_SETUP, nullptr, &output.layer(), &output);
    }
    if (err == PF_Err_NONE) {
        err = render(frame, output);
    }
    return err;
}

PF_Err
Session::runFrame(A_long frame) {
    return runFrame(frame, output());
}

DependencyAnswer
Session::dependencies(PF_DepCheckType check_type) {
    PF_ExtDependenciesExtra extra{};
    extra.check_type = check_type;
    extra.dependencies_strH = nullptr;
    DependencyAnswer answer;
    answer.err = call(PF_Cmd_GET_EXTERNAL_DEPENDENCIES, &extra);
    answer.handleNull = extra.dependencies_strH == nullptr;
    if (!answer.handleNull) {
        auto it = state_->handles.find(extra.dependencies_strH);
        if (it != state_->handles.end()) {
            answer.handleSize = static_cast<std::size_t>(it->second->size);
            answer.bytes.assign(it->second->ptr, answer.handleSize);
        }
    }
    return answer;
}

const PF_InData&
Session::inData() const {
    return state_->in;
}

const PF_OutData&
Session::outData() const {
    return state_->out;
}

std::string
Session::returnMessage() const {
    return fieldText(state_->out.return_msg, sizeof state_->out.return_msg);
}

PF_Err
Session::lastResult() const {
    return state_->lastResult;
}

A_long
Session::numParams() const {
    return static_cast<A_long>(state_->panel.size());
}

const Control&
Session::control(PF_ParamIndex index) const {
    if (index < 0 || index >= numParams()) {
        throw std::out_of_range("Session::control: no control " + std::to_string(index));
    }
    return state_->panel[static_cast<std::size_t>(index)];
}

Control&
Session::control(PF_ParamIndex index) {
    return const_cast<Control&>(std::as_const(*this).control(index));
}

namespace {

PF_ParamDef&
typedControl(Session& session, PF_ParamIndex index, PF_ParamType type, const char* what) {
    PF_ParamDef& def = session.control(index).current;
    if (def.param_type != type) {
        throw std::invalid_argument(std::string("Session: control ") + std::to_string(index) +
                                    " is not a " + what);
    }
    return def;
}

}  // namespace

void
Session::setPopup(PF_ParamIndex index, A_long value) {
    typedControl(*this, index, PF_Param_POPUP, "popup").u.pd.value = value;
}

void
Session::setSlider(PF_ParamIndex index, A_long value) {
    typedControl(*this, index, PF_Param_SLIDER, "slider").u.sd.value = value;
}

void
Session::setColor(PF_ParamIndex index, const PF_Pixel& color) {
    typedControl(*this, index, PF_Param_COLOR, "colour").u.cd.value = color;
}

const SessionOptions&
Session::options() const {
    return state_->options;
}

void
Session::setFrameSource(FrameSource* source) {
    state_->options.source = source;
}

void
Session::setDownsample(PF_RationalScale x, PF_RationalScale y) {
    state_->downsampleX = x;
    state_->downsampleY = y;
}

void
Session::setDownsample(A_u_long denominator) {
    setDownsample(PF_RationalScale{1, denominator}, PF_RationalScale{1, denominator});
}

void
Session::setPremierePixelFormat(A_u_long code) {
    state_->premiereFormat = code;
}

void
Session::clearPremierePixelFormat() {
    state_->premiereFormat.reset();
}

Faults&
Session::faults() {
    return state_->faults;
}

World&
Session::output() {
    if (!state_->output) {
        const FrameSource* source = state_->options.source;
        state_->output = std::make_unique<World>(
            source ? source->width() : 0, source ? source->height() : 0, state_->options.deep);
    }
    return *state_->output;
}

void
Session::setOutput(World world) {
    state_->output = std::make_unique<World>(std::move(world));
}

const Accounting&
Session::accounting() const {
    return state_->acc;
}

int
Session::finish() {
    State& s = *state_;
    if (!s.finished) {
        s.freeEverything();
        s.finished = true;
    }
    return s.acc.worldsLeftUndisposed;
}

}  // namespace quorvane::headless
