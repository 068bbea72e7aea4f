#include "cli/panel.h"

#include <algorithm>

#include "cli/errors.h"

namespace quorvane::cli {

namespace {

std::string
padded(std::string text, std::size_t width) {
    if (text.size() < width) {
        text.append(width - text.size(), ' ');
    } else {
        text += ' ';
    }
    return text;
}

std::string
trimmed(const std::string& s) {
    const std::size_t b = s.find_first_not_of(' ');
    const std::size_t e = s.find_last_not_of(' ');
    return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

// The value as the panel shows it: the popup's item, the slider's number, the colour's RGB.
std::string
panelValue(const ControlInfo& control, const ControlValue& value) {
    switch (control.kind) {
        case ControlKind::Popup:
            if (value.number >= 1 && value.number <= static_cast<A_long>(control.choices.size())) {
                return trimmed(control.choices[static_cast<std::size_t>(value.number - 1)]);
            }
            return std::to_string(value.number);
        case ControlKind::Slider:
            return std::to_string(value.number);
        case ControlKind::Color:
            break;
    }
    return std::to_string(value.color.red) + ", " + std::to_string(value.color.green) + ", " +
           std::to_string(value.color.blue);
}

// `text` broken at blanks into lines of at most `width` columns, each starting with `indent`.
std::string
wrapped(const std::string& text, const std::string& indent, std::size_t width) {
    std::string out;
    std::string line = indent;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find(' ', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        const std::string word = text.substr(start, end - start);
        if (line.size() > indent.size() && line.size() + 1 + word.size() > width) {
            out += line + "\n";
            line = indent + "  ";
        } else if (line.size() > indent.size() && line.back() != ' ') {
            line += ' ';
        }
        line += word;
        start = end + 1;
    }
    return out + line + "\n";
}

}  // namespace

std::string
describePanel(headless::Session& session, const ControlSet& controls, const ControlValues& values,
              const std::string& hostName) {
    controls.apply(values, session);
    const PF_Err err = session.updateParamsUI();
    if (err != PF_Err_NONE) {
        throw CliError("the effect's panel update failed (error " + std::to_string(err) + ")");
    }

    std::string text = "Quorvane controls in " + hostName +
                       ", as the panel shows them for these options (- greyed out):\n\n";
    int depth = 0;
    for (PF_ParamIndex i = 1; i < session.numParams(); ++i) {
        const headless::Control& panel = session.control(i);
        const bool disabled = (panel.current.ui_flags & PF_PUI_DISABLED) != 0;
        const std::string mark = disabled ? "- " : "  ";
        const std::string indent(static_cast<std::size_t>(depth) * 2, ' ');
        if (panel.declared.param_type == PF_Param_GROUP_START) {
            const bool collapsed = (panel.declared.flags & PF_ParamFlag_START_COLLAPSED) != 0;
            text += mark + indent + padded(parameterLabel(panel.current), 40 - indent.size()) +
                    (collapsed ? "(group, starts collapsed)" : "(group)") + "\n";
            ++depth;
            continue;
        }
        if (panel.declared.param_type == PF_Param_GROUP_END) {
            depth = std::max(0, depth - 1);
            continue;
        }
        auto it = std::find_if(controls.controls().begin(), controls.controls().end(),
                               [&](const ControlInfo& c) { return c.index == i; });
        if (it == controls.controls().end()) {
            continue;
        }
        const ControlInfo& control = *it;
        const ControlValue& value = values.at(i);
        text += mark + indent + padded(parameterLabel(panel.current), 40 - indent.size()) +
                padded(panelValue(control, value), 28) + "--" + control.option + " " +
                controls.valueText(control, value) + "\n";
        std::string detail = controls.rangeText(control);
        if (control.kind == ControlKind::Slider &&
            (control.sliderMin != control.validMin || control.sliderMax != control.validMax)) {
            detail += " (slider " + std::to_string(control.sliderMin) + " to " +
                      std::to_string(control.sliderMax) + ")";
        }
        detail += "; default " + controls.valueText(control, control.byDefault);
        text += wrapped(detail, "      " + indent, 100);
    }
    return text;
}

std::string
aboutText(headless::Session& session) {
    const PF_Err err = session.about();
    if (err != PF_Err_NONE) {
        throw CliError("the effect's About command failed (error " + std::to_string(err) + ")");
    }
    std::string text = session.returnMessage();
    std::replace(text.begin(), text.end(), '\r', '\n');
    if (text.empty() || text.back() != '\n') {
        text += '\n';
    }
    return text;
}

}  // namespace quorvane::cli
