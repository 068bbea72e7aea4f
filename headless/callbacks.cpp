// The host's side of the interface: utility and interact callbacks, the basic suite and the
// suites it serves. Callbacks with an effect reference find their session through it; the
// others (basic suite, ANSI, handles, GetPixelFormat) through the thread's current session.
#include <AE_EffectCBSuites.h>
#include <AE_EffectSuites.h>
#include <SPBasic.h>
#include <PrSDKAESupport.h>

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "headless/state.h"

namespace quorvane::headless {

namespace {

// What AcquireSuite answers for a suite it does not have ('S!Fd').
constexpr SPErr kSuiteNotFound = 0x53214664;

thread_local Session::State* tCurrent = nullptr;

Session::State*
fromRef(PF_ProgPtr ref) {
    return ref != nullptr ? reinterpret_cast<Session::State*>(ref) : tCurrent;
}

// --- ANSI callbacks -------------------------------------------------------------------------

int
ansiSprintf(A_char* dst, const A_char* format, ...) {
    va_list args;
    va_start(args, format);
    const int n = std::vsprintf(dst, format, args);
    va_end(args);
    return n;
}

// A plain unbounded copy: the effect relies on an over-long name running on past the name
// field, as the host's own strcpy lets it.
A_char*
ansiStrcpy(A_char* dst, const A_char* src) {
    A_char* d = dst;
    while ((*d++ = *src++) != '\0') {
    }
    return dst;
}

A_FpLong
ansiAtan(A_FpLong x) {
    return std::atan(x);
}
A_FpLong
ansiAtan2(A_FpLong y, A_FpLong x) {
    return std::atan2(y, x);
}
A_FpLong
ansiCeil(A_FpLong x) {
    return std::ceil(x);
}
A_FpLong
ansiCos(A_FpLong x) {
    return std::cos(x);
}
A_FpLong
ansiExp(A_FpLong x) {
    return std::exp(x);
}
A_FpLong
ansiFabs(A_FpLong x) {
    return std::fabs(x);
}
A_FpLong
ansiFloor(A_FpLong x) {
    return std::floor(x);
}
A_FpLong
ansiFmod(A_FpLong x, A_FpLong y) {
    return std::fmod(x, y);
}
A_FpLong
ansiHypot(A_FpLong x, A_FpLong y) {
    return std::hypot(x, y);
}
A_FpLong
ansiLog(A_FpLong x) {
    return std::log(x);
}
A_FpLong
ansiLog10(A_FpLong x) {
    return std::log10(x);
}
A_FpLong
ansiPow(A_FpLong x, A_FpLong y) {
    return std::pow(x, y);
}
A_FpLong
ansiSin(A_FpLong x) {
    return std::sin(x);
}
A_FpLong
ansiSqrt(A_FpLong x) {
    return std::sqrt(x);
}
A_FpLong
ansiTan(A_FpLong x) {
    return std::tan(x);
}
A_FpLong
ansiAsin(A_FpLong x) {
    return std::asin(x);
}
A_FpLong
ansiAcos(A_FpLong x) {
    return std::acos(x);
}

const PF_ANSICallbacksSuite1 kAnsiSuite = {ansiAtan,    ansiAtan2,  ansiCeil, ansiCos,   ansiExp,
                                           ansiFabs,    ansiFloor,  ansiFmod, ansiHypot, ansiLog,
                                           ansiLog10,   ansiPow,    ansiSin,  ansiSqrt,  ansiTan,
                                           ansiSprintf, ansiStrcpy, ansiAsin, ansiAcos};

// --- Worlds --------------------------------------------------------------------------------

PF_Err
newWorld(PF_ProgPtr ref, A_long width, A_long height, PF_NewWorldFlags flags,
         PF_EffectWorld* world) {
    Session::State* s = fromRef(ref);
    if (s == nullptr || world == nullptr) {
        return PF_Err_BAD_CALLBACK_PARAM;
    }
    ++s->newWorldsThisCommand;
    if (s->faults.failNewWorldAt == s->newWorldsThisCommand) {
        ++s->acc.newWorldFailures;
        *world = PF_EffectWorld{};
        return s->faults.newWorldError;
    }
    if (width < 0 || height < 0) {
        ++s->acc.newWorldFailures;
        *world = PF_EffectWorld{};
        return PF_Err_BAD_CALLBACK_PARAM;
    }
    const bool deep = (flags & PF_NewWorldFlag_DEEP_PIXELS) != 0;
    std::unique_ptr<World> made;
    try {
        made = std::make_unique<World>(width, height, deep);
    } catch (const std::bad_alloc&) {
        ++s->acc.newWorldFailures;
        *world = PF_EffectWorld{};
        return PF_Err_OUT_OF_MEMORY;
    }
    *world = made->layer();
    s->effectWorlds.emplace(made->layer().data, std::move(made));
    ++s->acc.worldsMade;
    s->acc.worldsMadeDeep.push_back(deep);
    return PF_Err_NONE;
}

PF_Err
disposeWorld(PF_ProgPtr ref, PF_EffectWorld* world) {
    Session::State* s = fromRef(ref);
    if (s == nullptr || world == nullptr) {
        return PF_Err_BAD_CALLBACK_PARAM;
    }
    auto it = world->data != nullptr ? s->effectWorlds.find(world->data) : s->effectWorlds.end();
    if (it == s->effectWorlds.end()) {
        ++s->acc.strayDisposals;
        return PF_Err_BAD_CALLBACK_PARAM;
    }
    s->checkGuard(*it->second, "disposed world");
    s->effectWorlds.erase(it);
    ++s->acc.worldsDisposed;
    return PF_Err_NONE;
}

// --- Handles -------------------------------------------------------------------------------

PF_Handle
newHandle(A_HandleSize size) {
    Session::State* s = tCurrent;
    if (s == nullptr) {
        return nullptr;
    }
    auto block = std::make_unique<HandleBlock>();
    block->ptr = new char[size > 0 ? size : 1]();
    block->size = size;
    PF_Handle handle = &block->ptr;
    s->handles.emplace(handle, std::move(block));
    ++s->acc.handlesCreated;
    return handle;
}

HandleBlock*
findHandle(PF_Handle handle) {
    Session::State* s = tCurrent;
    if (s == nullptr) {
        return nullptr;
    }
    auto it = s->handles.find(handle);
    return it == s->handles.end() ? nullptr : it->second.get();
}

void*
lockHandle(PF_Handle handle) {
    HandleBlock* b = findHandle(handle);
    return b != nullptr ? b->ptr : nullptr;
}

void
unlockHandle(PF_Handle) {}

void
disposeHandle(PF_Handle handle) {
    Session::State* s = tCurrent;
    if (s != nullptr && s->handles.erase(handle) > 0) {
        ++s->acc.handlesDisposed;
    }
}

A_HandleSize
handleSize(PF_Handle handle) {
    HandleBlock* b = findHandle(handle);
    return b != nullptr ? b->size : 0;
}

PF_Err
resizeHandle(A_HandleSize size, PF_Handle* handle) {
    HandleBlock* b = handle != nullptr ? findHandle(*handle) : nullptr;
    if (b == nullptr) {
        return PF_Err_BAD_CALLBACK_PARAM;
    }
    char* bigger = new char[size > 0 ? size : 1]();
    std::memcpy(bigger, b->ptr, static_cast<std::size_t>(size < b->size ? size : b->size));
    delete[] b->ptr;
    b->ptr = bigger;
    b->size = size;
    return PF_Err_NONE;
}

const PF_HandleSuite1 kHandleSuite = {newHandle,     lockHandle, unlockHandle,
                                      disposeHandle, handleSize, resizeHandle};

// --- Interact callbacks --------------------------------------------------------------------

PF_Err
addParam(PF_ProgPtr ref, PF_ParamIndex index, PF_ParamDefPtr def) {
    Session::State* s = fromRef(ref);
    if (s == nullptr || def == nullptr) {
        return PF_Err_BAD_CALLBACK_PARAM;
    }
    ++s->acc.addParamCalls;
    ++s->addParamsThisCommand;
    if (s->faults.failAddParamAt == s->addParamsThisCommand) {
        return s->faults.addParamError;
    }
    if (s->command != PF_Cmd_PARAMS_SETUP) {
        return PF_Err_BAD_CALLBACK_PARAM;
    }
    // Parameters can only be appended: -1, or the index the next one gets.
    if (index != -1 && index != static_cast<PF_ParamIndex>(s->panel.size())) {
        return PF_Err_INVALID_INDEX;
    }
    Control& c = s->panel.emplace_back();
    c.declared = *def;
    if (def->param_type == PF_Param_POPUP) {
        c.popupItems = def->u.pd.u.namesptr != nullptr ? def->u.pd.u.namesptr : "";
        c.declared.u.pd.u.namesptr = c.popupItems.c_str();
    }
    c.current = c.declared;
    return PF_Err_NONE;
}

PF_Err
checkoutParam(PF_ProgPtr ref, PF_ParamIndex index, A_long what_time, A_long time_step,
              A_u_long /*time_scale*/, PF_ParamDef* param) {
    Session::State* s = fromRef(ref);
    if (s == nullptr || param == nullptr) {
        return PF_Err_BAD_CALLBACK_PARAM;
    }
    ++s->checkoutsThisCommand;
    s->acc.checkoutTimes.push_back(what_time);
    if (s->faults.failCheckoutAt == s->checkoutsThisCommand) {
        ++s->acc.checkoutFailures;
        *param = PF_ParamDef{};
        return s->faults.checkoutError;
    }
    if (index < 0 || index >= static_cast<PF_ParamIndex>(s->panel.size())) {
        ++s->acc.checkoutFailures;
        return PF_Err_INVALID_INDEX;
    }
    if (index > 0) {
        *param = s->panel[static_cast<std::size_t>(index)].current;
        ++s->acc.checkouts;
        return PF_Err_NONE;
    }

    PF_ParamDef def{};
    def.param_type = PF_Param_LAYER;
    FrameSource* source = s->options.source;
    if (source == nullptr || source->layerIsNone()) {
        // A layer choice of "none": the record comes back empty, with no error.
        *param = def;
        ++s->noneLayersOut;
        ++s->acc.checkouts;
        s->acc.checkoutFrames.push_back(-1);
        s->acc.checkoutsDeep.push_back(false);
        return PF_Err_NONE;
    }
    const A_long step = time_step > 0 ? time_step : s->timeStep();
    // Floor division, so a negative time lands on the frame before 0 and is then clamped.
    A_long frame = what_time / step;
    if (what_time % step != 0 && what_time < 0) {
        --frame;
    }
    frame = s->clampFrame(frame);
    const bool deep = s->checkoutDeep();
    std::unique_ptr<World> layer;
    PF_Err err = PF_Err_NONE;
    try {
        layer = std::make_unique<World>(source->width(), source->height(), deep,
                                        source->fillsEveryPixel()
                                            ? World::Pixels::LeftForTheSource
                                            : World::Pixels::Zeroed);
        err = source->fill(frame, layer->layer());
    } catch (const std::bad_alloc&) {
        err = PF_Err_OUT_OF_MEMORY;
    }
    if (err != PF_Err_NONE) {
        ++s->acc.checkoutFailures;
        *param = PF_ParamDef{};
        return err;
    }
    def.u.ld = layer->layer();
    *param = def;
    s->checkedOut.emplace(layer->layer().data, std::move(layer));
    ++s->acc.checkouts;
    s->acc.checkoutFrames.push_back(frame);
    s->acc.checkoutsDeep.push_back(deep);
    return PF_Err_NONE;
}

PF_Err
checkinParam(PF_ProgPtr ref, PF_ParamDef* param) {
    Session::State* s = fromRef(ref);
    if (s == nullptr || param == nullptr) {
        return PF_Err_BAD_CALLBACK_PARAM;
    }
    if (param->param_type != PF_Param_LAYER) {
        ++s->acc.checkins;
        return PF_Err_NONE;
    }
    if (param->u.ld.data == nullptr) {
        if (s->noneLayersOut > 0) {
            --s->noneLayersOut;
            ++s->acc.checkins;
        } else {
            ++s->acc.strayCheckins;
        }
        return PF_Err_NONE;
    }
    auto it = s->checkedOut.find(param->u.ld.data);
    if (it == s->checkedOut.end()) {
        ++s->acc.strayCheckins;
        return PF_Err_NONE;
    }
    s->checkGuard(*it->second, "checked-out layer");
    s->checkedOut.erase(it);
    ++s->acc.checkins;
    return PF_Err_NONE;
}

PF_Err
abortCheck(PF_ProgPtr) {
    return PF_Err_NONE;
}

PF_Err
progress(PF_ProgPtr, A_long, A_long) {
    return PF_Err_NONE;
}

// --- Suites --------------------------------------------------------------------------------

PF_Err
updateParamUI(PF_ProgPtr ref, PF_ParamIndex index, const PF_ParamDef* def) {
    Session::State* s = fromRef(ref);
    if (s == nullptr) {
        return PF_Err_BAD_CALLBACK_PARAM;
    }
    ParamUICall call;
    call.index = index;
    if (def != nullptr) {
        call.ui_flags = def->ui_flags;
        std::memcpy(call.name, def->name, sizeof call.name);
        call.flags = def->flags;
        call.passedParamsEntry = index >= 0 &&
                                 static_cast<std::size_t>(index) < s->paramPtrs.size() &&
                                 s->paramPtrs[static_cast<std::size_t>(index)] == def;
    }
    if (def == nullptr) {
        call.result = PF_Err_BAD_CALLBACK_PARAM;
    } else if (index < 1 || index >= static_cast<PF_ParamIndex>(s->panel.size())) {
        call.result = PF_Err_INVALID_INDEX;
    } else {
        // The panel takes ui_flags and the name as passed and, of flags, only the collapse bit.
        PF_ParamDef& current = s->panel[static_cast<std::size_t>(index)].current;
        current.ui_flags = def->ui_flags;
        std::memcpy(current.name, def->name, sizeof current.name);
        current.flags = (current.flags & ~PF_ParamFlag_COLLAPSE_TWIRLY) |
                        (def->flags & PF_ParamFlag_COLLAPSE_TWIRLY);
    }
    s->acc.paramUICalls.push_back(call);
    return call.result;
}

PF_ParamUtilsSuite3
makeParamUtilsSuite() {
    PF_ParamUtilsSuite3 suite{};
    suite.PF_UpdateParamUI = updateParamUI;
    return suite;
}

const PF_ParamUtilsSuite3 kParamUtilsSuite = makeParamUtilsSuite();

// After Effects hands colour parameters over as floats: the 8-bit value / 255.
PF_Err
floatColor(PF_ProgPtr /*effect_ref*/, const PF_ParamDef* def, PF_PixelFloat* color) {
    if (def == nullptr || color == nullptr) {
        return PF_Err_BAD_CALLBACK_PARAM;
    }
    const PF_Pixel& v = def->u.cd.value;
    color->alpha = static_cast<PF_FpShort>(v.alpha / 255.0f);
    color->red = static_cast<PF_FpShort>(v.red / 255.0f);
    color->green = static_cast<PF_FpShort>(v.green / 255.0f);
    color->blue = static_cast<PF_FpShort>(v.blue / 255.0f);
    return PF_Err_NONE;
}

const PF_ColorParamSuite1 kColorParamSuite = {floatColor};

PF_Err
addSupportedPixelFormat(PF_ProgPtr ref, PrPixelFormat format) {
    Session::State* s = fromRef(ref);
    if (s == nullptr) {
        return PF_Err_BAD_CALLBACK_PARAM;
    }
    ++s->acc.addPixelFormatCalls;
    s->acc.supportedPixelFormats.push_back(static_cast<A_u_long>(format));
    return PF_Err_NONE;
}

PF_Err
clearSupportedPixelFormats(PF_ProgPtr ref) {
    Session::State* s = fromRef(ref);
    if (s == nullptr) {
        return PF_Err_BAD_CALLBACK_PARAM;
    }
    ++s->acc.clearPixelFormatCalls;
    s->acc.supportedPixelFormats.clear();
    return PF_Err_NONE;
}

PF_Err
getPixelFormat(PF_EffectWorld* world, PrPixelFormat* format) {
    Session::State* s = tCurrent;
    if (s == nullptr || world == nullptr || format == nullptr) {
        return PF_Err_BAD_CALLBACK_PARAM;
    }
    ++s->acc.pixelFormatQueries;
    const A_u_long code = s->pixelFormatFor(PF_WORLD_IS_DEEP(world));
    *format = static_cast<PrPixelFormat>(code);
    return PF_Err_NONE;
}

const PF_PixelFormatSuite1 kPixelFormatSuite = {addSupportedPixelFormat,
                                                clearSupportedPixelFormats,
                                                nullptr,
                                                nullptr,
                                                getPixelFormat,
                                                nullptr,
                                                nullptr,
                                                nullptr};

PF_Err
wantsMatchingCheckouts(PF_ProgPtr ref) {
    Session::State* s = fromRef(ref);
    if (s == nullptr) {
        return PF_Err_BAD_CALLBACK_PARAM;
    }
    s->acc.matchRenderPixelFormat = true;
    return PF_Err_NONE;
}

PF_UtilitySuite4
makeUtilitySuite() {
    PF_UtilitySuite4 suite{};
    suite.EffectWantsCheckedOutFramesToMatchRenderPixelFormat = wantsMatchingCheckouts;
    return suite;
}

const PF_UtilitySuite4 kUtilitySuite = makeUtilitySuite();

// --- The basic suite -----------------------------------------------------------------------

struct ServedSuite {
    const char* name;
    int version;
    bool premiereOnly;
    const void* suite;
};

const ServedSuite kServed[] = {
    {kPFParamUtilsSuite, kPFParamUtilsSuiteVersion3, false, &kParamUtilsSuite},
    {kPFHandleSuite, kPFHandleSuiteVersion1, false, &kHandleSuite},
    {kPFANSISuite, kPFANSISuiteVersion1, false, &kAnsiSuite},
    {kPFColorParamSuite, kPFColorParamSuiteVersion1, false, &kColorParamSuite},
    {kPFPixelFormatSuite, kPFPixelFormatSuiteVersion1, true, &kPixelFormatSuite},
    {kPFUtilitySuite, kPFUtilitySuiteVersion4, true, &kUtilitySuite},
};

SPErr
acquireSuite(const char* name, int32 version, const void** suite) {
    if (suite != nullptr) {
        *suite = nullptr;
    }
    Session::State* s = tCurrent;
    if (s == nullptr || name == nullptr || suite == nullptr) {
        return kSuiteNotFound;
    }
    const std::string key = suiteKey(name, version);
    SuiteCount& count = s->acc.suites[key];
    if (s->faults.missingSuites.count(name) == 0) {
        for (const ServedSuite& served : kServed) {
            if (std::strcmp(served.name, name) == 0 && served.version == version &&
                (!served.premiereOnly || s->premiere())) {
                *suite = served.suite;
                ++count.acquired;
                ++s->suitesHeld[key];
                return kSPNoError;
            }
        }
    }
    ++count.refused;
    return kSuiteNotFound;
}

SPErr
releaseSuite(const char* name, int32 version) {
    Session::State* s = tCurrent;
    if (s == nullptr || name == nullptr) {
        return kSuiteNotFound;
    }
    const std::string key = suiteKey(name, version);
    auto held = s->suitesHeld.find(key);
    if (held == s->suitesHeld.end() || held->second == 0) {
        ++s->acc.strayReleases;
        return kSuiteNotFound;
    }
    --held->second;
    ++s->acc.suites[key].released;
    return kSPNoError;
}

SPBoolean
isEqual(const char* a, const char* b) {
    return a != nullptr && b != nullptr && std::strcmp(a, b) == 0;
}

SPErr
allocateBlock(size_t size, void** block) {
    if (block == nullptr) {
        return kSuiteNotFound;
    }
    *block = std::malloc(size > 0 ? size : 1);
    return *block != nullptr ? kSPNoError : PF_Err_OUT_OF_MEMORY;
}

SPErr
freeBlock(void* block) {
    std::free(block);
    return kSPNoError;
}

SPErr
reallocateBlock(void* block, size_t size, void** newBlock) {
    if (newBlock == nullptr) {
        return kSuiteNotFound;
    }
    *newBlock = std::realloc(block, size > 0 ? size : 1);
    return *newBlock != nullptr ? kSPNoError : PF_Err_OUT_OF_MEMORY;
}

SPErr
undefinedCall() {
    return kSuiteNotFound;
}

}  // namespace

std::string
suiteKey(const char* name, int version) {
    return std::string(name) + "/" + std::to_string(version);
}

CurrentSession::CurrentSession(Session::State* state) : previous_(tCurrent) {
    tCurrent = state;
}

CurrentSession::~CurrentSession() {
    tCurrent = previous_;
}

void
installCallbacks(Session::State& s) {
    PF_UtilCallbacks& u = s.utils;
    u = PF_UtilCallbacks{};
    u.new_world = newWorld;
    u.dispose_world = disposeWorld;
    u.host_new_handle = newHandle;
    u.host_lock_handle = lockHandle;
    u.host_unlock_handle = unlockHandle;
    u.host_dispose_handle = disposeHandle;
    u.host_get_handle_size = handleSize;
    u.host_resize_handle = resizeHandle;
    u.ansi.atan = ansiAtan;
    u.ansi.atan2 = ansiAtan2;
    u.ansi.ceil = ansiCeil;
    u.ansi.cos = ansiCos;
    u.ansi.exp = ansiExp;
    u.ansi.fabs = ansiFabs;
    u.ansi.floor = ansiFloor;
    u.ansi.fmod = ansiFmod;
    u.ansi.hypot = ansiHypot;
    u.ansi.log = ansiLog;
    u.ansi.log10 = ansiLog10;
    u.ansi.pow = ansiPow;
    u.ansi.sin = ansiSin;
    u.ansi.sqrt = ansiSqrt;
    u.ansi.tan = ansiTan;
    u.ansi.sprintf = ansiSprintf;
    u.ansi.strcpy = ansiStrcpy;
    u.ansi.asin = ansiAsin;
    u.ansi.acos = ansiAcos;

    s.basic = SPBasicSuite{acquireSuite, releaseSuite,    isEqual,      allocateBlock,
                           freeBlock,    reallocateBlock, undefinedCall};
}

// The interact callbacks go into in_data, which is filled anew per command.
void
fillInteractCallbacks(PF_InteractCallbacks& inter) {
    inter = PF_InteractCallbacks{};
    inter.checkout_param = checkoutParam;
    inter.checkin_param = checkinParam;
    inter.add_param = addParam;
    inter.abort = abortCheck;
    inter.progress = progress;
}

}  // namespace quorvane::headless
