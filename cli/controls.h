// The effect's controls as command-line options and preset entries.
//
// Everything here is read from the effect's own parameter set-up, as the headless host recorded
// it: which controls exist, their labels, popup items, valid ranges and defaults. Only the
// option names and popup words are fixed here, derived from the labels and item texts: the
// label "Footage is" becomes --footage-is, the item "Remove smaller than :" the word
// remove-smaller-than, with a small explicit table where a shorter name reads better
// (--solid-alpha, --found top-half, --of matching-colors).
#pragma once

#include <AE_Effect.h>

#include <map>
#include <string>
#include <vector>

#include "headless/host.h"

namespace quorvane::cli {

enum class ControlKind { Popup, Slider, Color };

// A control's value: popup (1-based) and slider values in `number`, colours in `color`.
struct ControlValue {
    A_long number = 0;
    PF_Pixel color{};

    friend bool operator==(const ControlValue& a, const ControlValue& b) {
        return a.number == b.number && a.color.alpha == b.color.alpha &&
               a.color.red == b.color.red && a.color.green == b.color.green &&
               a.color.blue == b.color.blue;
    }
};

// The value of every control, by parameter index.
using ControlValues = std::map<PF_ParamIndex, ControlValue>;

struct ControlInfo {
    PF_ParamIndex index = 0;
    ControlKind kind = ControlKind::Slider;
    std::string label;                 // the name as the panel shows it
    std::string option;                // the option name without "--"
    std::vector<std::string> aliases;  // other accepted option names
    std::vector<std::string> choices;  // popup items as declared ("Show result ")
    std::vector<std::string> words;    // popup words, in item order ("show-result")
    A_long validMin = 0;               // sliders: accepted values
    A_long validMax = 0;
    A_long sliderMin = 0;  // sliders: the slider's span in the panel
    A_long sliderMax = 0;
    ControlValue byDefault;
};

// A parameter's name read as the host reads a C string: a name that fills the whole 32-byte
// field without a terminator runs on into the bytes that follow it (the flags word).
std::string parameterLabel(const PF_ParamDef& def);

// The option word of a popup item: blanks trimmed, a trailing ':' dropped, lower case, other
// characters as '-' ("Remove smaller than :" -> "remove-smaller-than").
std::string popupWord(const std::string& item);

class ControlSet {
  public:
    // The controls of a session that has run the parameter set-up.
    explicit ControlSet(const headless::Session& session);

    const std::vector<ControlInfo>& controls() const { return controls_; }
    // By option name or alias, without dashes; null when there is none.
    const ControlInfo* find(const std::string& option) const;
    // By option name; throws std::logic_error when the effect has no such control.
    const ControlInfo& get(const std::string& option) const;

    ControlValues defaults() const;

    // Parses the text of an option's value: a popup word or 1-based number, an integer, or
    // "R,G,B". Throws a usage error "<where>: "<label>" takes <range>".
    ControlValue parse(const ControlInfo& control, const std::string& text,
                       const std::string& where) const;
    // The value as the option writes it (word, number or "R,G,B").
    std::string valueText(const ControlInfo& control, const ControlValue& value) const;
    // What the control accepts: "2 to 6000", "show-result, show-alpha or show-color-info",
    // "R,G,B, each 0 to 255".
    std::string rangeText(const ControlInfo& control) const;
    // The word of a popup's value in `values`.
    std::string word(const ControlValues& values, const std::string& option) const;

    // Sets every control of `session` to `values`.
    void apply(const ControlValues& values, headless::Session& session) const;

    // A preset: a JSON object of option names and values ({"size": 200, "found":
    // "touching-bottom", "hi-color": [200, 200, 200]}); controls it does not name keep their
    // value in `values`. Throws a usage error naming the file and the entry.
    ControlValues readPreset(const std::string& path, ControlValues values) const;
    // Writes every control's value, in panel order. Throws a file error.
    void writePreset(const std::string& path, const ControlValues& values) const;

  private:
    std::vector<ControlInfo> controls_;
};

}  // namespace quorvane::cli
