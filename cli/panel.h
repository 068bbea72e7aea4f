// The `controls` and `about` texts: the effect-controls panel as the host shows it, and the
// About box, both asked of the effect through the headless host.
#pragma once

#include <string>

#include "cli/controls.h"
#include "headless/host.h"

namespace quorvane::cli {

// Sets the session's controls to `values`, lets the effect update the panel (which controls it
// greys out, the colour group's name) and describes the panel: per control its label, value as
// the panel shows it, option, accepted values and default. `hostName` heads the text.
std::string describePanel(headless::Session& session, const ControlSet& controls,
                          const ControlValues& values, const std::string& hostName);

// The effect's About text, with its line breaks ('\r') as newlines.
std::string aboutText(headless::Session& session);

}  // namespace quorvane::cli
