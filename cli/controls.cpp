#include "cli/controls.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "cli/errors.h"

namespace quorvane::cli {

namespace {

// Option names for the controls' labels. A label not listed gets its popupWord() form.
const std::map<std::string, std::string> kOptionForLabel = {
    {"Process", "process"},
    {"Footage is", "footage-is"},
    {"Treat as solid alpha >", "solid-alpha"},
    {"Pre clean blobs below size (0=off)", "pre-clean-size"},
    {"Further processing :", "further-processing"},
    {"Size (pixels)", "size"},
    {"Found", "found"},
    {"Of", "of"},
    {"Hi Color", "hi-color"},
    {"Mid Color (000=off)", "mid-color"},
    {"Lo Color (000=off)", "lo-color"},
    {"Tolerance", "tolerance"},
    {"Smart extend", "smart-extend"},
    {"Final Shrink<->Grow", "shrink-grow"},
    {"Final Feather", "feather"},
};

// Longer names accepted as well: the full labels of the two "Final" controls.
const std::map<std::string, std::vector<std::string>> kAliases = {
    {"shrink-grow", {"final-shrink-grow"}},
    {"feather", {"final-feather"}},
};

// Popup words that read better shorter than popupWord() makes them, by item text (trimmed).
const std::map<std::string, std::string> kWordForItem = {
    {"Anywhere on screen", "anywhere"},
    {"Touching top of screen", "touching-top"},
    {"Touching bottom of screen", "touching-bottom"},
    {"Touching left of screen", "touching-left"},
    {"Touching right of screen", "touching-right"},
    {"Only top 1/2 of screen", "top-half"},
    {"Only bottom 1/2 of screen", "bottom-half"},
    {"Only left 1/2 of screen", "left-half"},
    {"Only right 1/2 of screen", "right-half"},
    {"On an object edge", "object-edge"},
    {"Matching colors in range :", "matching-colors"},
};

std::string
trim(const std::string& s) {
    const std::size_t b = s.find_first_not_of(' ');
    if (b == std::string::npos) {
        return {};
    }
    const std::size_t e = s.find_last_not_of(' ');
    return s.substr(b, e - b + 1);
}

bool
parseInteger(const std::string& text, A_long* value) {
    const char* begin = text.data();
    const char* end = begin + text.size();
    if (begin != end && *begin == '+') {
        ++begin;
    }
    long v = 0;
    const auto [ptr, ec] = std::from_chars(begin, end, v);
    if (ec != std::errc() || ptr != end || begin == end || v < -2147483647L || v > 2147483647L) {
        return false;
    }
    *value = static_cast<A_long>(v);
    return true;
}

std::string
joinChoices(const std::vector<std::string>& words) {
    std::string out;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (i > 0) {
            out += i + 1 == words.size() ? " or " : ", ";
        }
        out += words[i];
    }
    return out;
}

}  // namespace

std::string
parameterLabel(const PF_ParamDef& def) {
    // Read from a byte copy of the record, so running past the name stays inside an object.
    unsigned char bytes[sizeof(PF_ParamDef)];
    std::memcpy(bytes, &def, sizeof def);
    const std::size_t start =
        static_cast<std::size_t>(reinterpret_cast<const unsigned char*>(def.name) -
                                 reinterpret_cast<const unsigned char*>(&def));
    std::string label;
    for (std::size_t i = start; i < sizeof bytes && bytes[i] != 0; ++i) {
        label += static_cast<char>(bytes[i]);
    }
    return label;
}

std::string
popupWord(const std::string& item) {
    std::string text = trim(item);
    if (!text.empty() && text.back() == ':') {
        text = trim(text.substr(0, text.size() - 1));
    }
    std::string word;
    for (char c : text) {
        if (std::isalnum(static_cast<unsigned char>(c))) {
            word += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        } else if (!word.empty() && word.back() != '-') {
            word += '-';
        }
    }
    while (!word.empty() && word.back() == '-') {
        word.pop_back();
    }
    return word;
}

ControlSet::ControlSet(const headless::Session& session) {
    for (PF_ParamIndex i = 1; i < session.numParams(); ++i) {
        const headless::Control& control = session.control(i);
        const PF_ParamDef& def = control.declared;
        ControlInfo info;
        info.index = i;
        info.label = parameterLabel(def);
        switch (def.param_type) {
            case PF_Param_POPUP: {
                info.kind = ControlKind::Popup;
                info.choices = control.popupChoices();
                for (const std::string& item : info.choices) {
                    auto it = kWordForItem.find(trim(item));
                    info.words.push_back(it != kWordForItem.end() ? it->second : popupWord(item));
                }
                info.validMin = 1;
                info.validMax = static_cast<A_long>(info.choices.size());
                info.byDefault.number = def.u.pd.dephault;
                break;
            }
            case PF_Param_SLIDER:
                info.kind = ControlKind::Slider;
                info.validMin = def.u.sd.valid_min;
                info.validMax = def.u.sd.valid_max;
                info.sliderMin = def.u.sd.slider_min;
                info.sliderMax = def.u.sd.slider_max;
                info.byDefault.number = def.u.sd.dephault;
                break;
            case PF_Param_COLOR:
                info.kind = ControlKind::Color;
                info.byDefault.color = def.u.cd.dephault;
                break;
            default:
                continue;  // groups: part of the panel, not values
        }
        auto named = kOptionForLabel.find(info.label);
        info.option = named != kOptionForLabel.end() ? named->second : popupWord(info.label);
        auto aliases = kAliases.find(info.option);
        if (aliases != kAliases.end()) {
            info.aliases = aliases->second;
        }
        controls_.push_back(std::move(info));
    }
}

const ControlInfo*
ControlSet::find(const std::string& option) const {
    for (const ControlInfo& control : controls_) {
        if (control.option == option || std::find(control.aliases.begin(), control.aliases.end(),
                                                  option) != control.aliases.end()) {
            return &control;
        }
    }
    return nullptr;
}

const ControlInfo&
ControlSet::get(const std::string& option) const {
    const ControlInfo* control = find(option);
    if (control == nullptr) {
        throw std::logic_error("the effect declares no control for --" + option);
    }
    return *control;
}

ControlValues
ControlSet::defaults() const {
    ControlValues values;
    for (const ControlInfo& control : controls_) {
        values[control.index] = control.byDefault;
    }
    return values;
}

std::string
ControlSet::rangeText(const ControlInfo& control) const {
    switch (control.kind) {
        case ControlKind::Popup:
            return joinChoices(control.words);
        case ControlKind::Slider:
            return std::to_string(control.validMin) + " to " + std::to_string(control.validMax);
        case ControlKind::Color:
            break;
    }
    return "R,G,B, each 0 to 255";
}

ControlValue
ControlSet::parse(const ControlInfo& control, const std::string& text,
                  const std::string& where) const {
    auto refuse = [&]() {
        return usageError(where + ": \"" + control.label + "\" takes " + rangeText(control));
    };
    ControlValue value = control.byDefault;
    switch (control.kind) {
        case ControlKind::Popup: {
            auto it = std::find(control.words.begin(), control.words.end(), text);
            if (it != control.words.end()) {
                value.number = static_cast<A_long>(it - control.words.begin()) + 1;
            } else if (!parseInteger(text, &value.number) || value.number < control.validMin ||
                       value.number > control.validMax) {
                throw refuse();
            }
            break;
        }
        case ControlKind::Slider:
            if (!parseInteger(text, &value.number) || value.number < control.validMin ||
                value.number > control.validMax) {
                throw refuse();
            }
            break;
        case ControlKind::Color: {
            A_long rgb[3];
            std::size_t start = 0;
            for (int c = 0; c < 3; ++c) {
                const std::size_t comma = c < 2 ? text.find(',', start) : text.size();
                if (comma == std::string::npos) {
                    throw refuse();
                }
                if (!parseInteger(trim(text.substr(start, comma - start)), &rgb[c]) || rgb[c] < 0 ||
                    rgb[c] > 255) {
                    throw refuse();
                }
                start = comma + 1;
            }
            value.color.red = static_cast<A_u_char>(rgb[0]);
            value.color.green = static_cast<A_u_char>(rgb[1]);
            value.color.blue = static_cast<A_u_char>(rgb[2]);
            break;
        }
    }
    return value;
}

std::string
ControlSet::valueText(const ControlInfo& control, const ControlValue& value) const {
    switch (control.kind) {
        case ControlKind::Popup:
            if (value.number >= 1 && value.number <= static_cast<A_long>(control.words.size())) {
                return control.words[static_cast<std::size_t>(value.number - 1)];
            }
            return std::to_string(value.number);
        case ControlKind::Slider:
            return std::to_string(value.number);
        case ControlKind::Color:
            break;
    }
    return std::to_string(value.color.red) + "," + std::to_string(value.color.green) + "," +
           std::to_string(value.color.blue);
}

std::string
ControlSet::word(const ControlValues& values, const std::string& option) const {
    const ControlInfo& control = get(option);
    return valueText(control, values.at(control.index));
}

void
ControlSet::apply(const ControlValues& values, headless::Session& session) const {
    for (const ControlInfo& control : controls_) {
        const ControlValue& value = values.at(control.index);
        switch (control.kind) {
            case ControlKind::Popup:
                session.setPopup(control.index, value.number);
                break;
            case ControlKind::Slider:
                session.setSlider(control.index, value.number);
                break;
            case ControlKind::Color:
                session.setColor(control.index, value.color);
                break;
        }
    }
}

ControlValues
ControlSet::readPreset(const std::string& path, ControlValues values) const {
    std::ifstream file(path);
    if (!file) {
        throw usageError(path + ": cannot read the preset: " + std::strerror(errno));
    }
    nlohmann::json json;
    try {
        json = nlohmann::json::parse(file);
    } catch (const nlohmann::json::exception& e) {
        throw usageError(path + ": the preset is not valid JSON (" + e.what() + ")");
    }
    if (!json.is_object()) {
        throw usageError(path + ": a preset is a JSON object of option names and values");
    }
    for (const auto& [key, entry] : json.items()) {
        const ControlInfo* control = find(key);
        const std::string where = path + ": \"" + key + "\"";
        if (control == nullptr) {
            throw usageError(where + " is not a control's option name");
        }
        std::string text;
        if (entry.is_string()) {
            text = entry.get<std::string>();
        } else if (entry.is_number_integer()) {
            text = std::to_string(entry.get<long long>());
        } else if (entry.is_array() && entry.size() == 3 &&
                   std::all_of(entry.begin(), entry.end(),
                               [](const nlohmann::json& c) { return c.is_number_integer(); })) {
            text = std::to_string(entry[0].get<long long>()) + "," +
                   std::to_string(entry[1].get<long long>()) + "," +
                   std::to_string(entry[2].get<long long>());
        } else {
            throw usageError(where + ": \"" + control->label + "\" takes " + rangeText(*control));
        }
        values[control->index] = parse(*control, text, where + ": " + entry.dump());
    }
    return values;
}

void
ControlSet::writePreset(const std::string& path, const ControlValues& values) const {
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    for (const ControlInfo& control : controls_) {
        const ControlValue& value = values.at(control.index);
        switch (control.kind) {
            case ControlKind::Popup:
                json[control.option] = valueText(control, value);
                break;
            case ControlKind::Slider:
                json[control.option] = value.number;
                break;
            case ControlKind::Color:
                json[control.option] = {value.color.red, value.color.green, value.color.blue};
                break;
        }
    }
    std::ofstream file(path);
    file << json.dump(2) << "\n";
    file.close();
    if (!file) {
        throw fileError(path, std::string("cannot write the preset: ") + std::strerror(errno));
    }
}

}  // namespace quorvane::cli
