// The controls as options, read from the effect's own parameter set-up.
#include "cli/controls.h"

#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "cli/app.h"
#include "cli/errors.h"
#include "cli/panel.h"
#include "cli_support.h"

namespace cli = quorvane::cli;
namespace headless = quorvane::headless;

namespace {

struct Effect {
    headless::Plugin plugin = headless::Plugin::load(cli::pluginPath(""));
    headless::Session session{plugin};
    std::unique_ptr<cli::ControlSet> controls;

    Effect() {
        EXPECT_EQ(session.start(), PF_Err_NONE);
        controls = std::make_unique<cli::ControlSet>(session);
    }
};

std::string
slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

TEST(Controls, options_and_words_come_from_the_panel) {
    Effect effect;
    std::vector<std::string> options;
    for (const cli::ControlInfo& c : effect.controls->controls()) {
        options.push_back(c.option);
    }
    EXPECT_EQ(options, (std::vector<std::string>{
                           "process", "footage-is", "solid-alpha", "pre-clean-size",
                           "further-processing", "size", "found", "of", "hi-color", "mid-color",
                           "lo-color", "tolerance", "smart-extend", "shrink-grow", "feather"}));
    const cli::ControlSet& set = *effect.controls;
    EXPECT_EQ(set.get("process").words,
              (std::vector<std::string>{"show-result", "show-alpha", "show-color-info"}));
    EXPECT_EQ(
        set.get("further-processing").words,
        (std::vector<std::string>{"remove", "remove-smaller-than", "remove-larger-than", "no"}));
    EXPECT_EQ(set.get("found").words,
              (std::vector<std::string>{"anywhere", "touching-top", "touching-bottom",
                                        "touching-left", "touching-right", "top-half",
                                        "bottom-half", "left-half", "right-half", "object-edge"}));
    // "Of" declares 8 choices but lists two items: only the two are offered.
    EXPECT_EQ(set.get("of").words, (std::vector<std::string>{"any-color", "matching-colors"}));
    EXPECT_EQ(&set.get("final-shrink-grow"), &set.get("shrink-grow"));
    // The over-long label reads as the host reads it, on into the flags word.
    EXPECT_EQ(set.get("pre-clean-size").label, "Pre clean blobs below size (0=off)");

    // Defaults, ranges: the declared ones.
    const cli::ControlValues defaults = set.defaults();
    EXPECT_EQ(set.word(defaults, "further-processing"), "no");
    EXPECT_EQ(set.word(defaults, "hi-color"), "200,200,200");
    EXPECT_EQ(set.word(defaults, "feather"), "2");
    EXPECT_EQ(set.rangeText(set.get("shrink-grow")), "-50 to 50");
    EXPECT_EQ(set.rangeText(set.get("size")), "2 to 6000");
}

TEST(Controls, values_outside_a_range_are_refused_naming_the_control) {
    Effect effect;
    const cli::ControlSet& set = *effect.controls;
    auto message = [&](const char* option, const char* text) -> std::string {
        try {
            set.parse(set.get(option), text, std::string("--") + option + " " + text);
        } catch (const cli::CliError& e) {
            EXPECT_EQ(e.status(), cli::kExitUsage);
            return e.what();
        }
        return "accepted";
    };
    EXPECT_EQ(message("size", "6001"), "--size 6001: \"Size (pixels)\" takes 2 to 6000");
    EXPECT_EQ(message("shrink-grow", "-51"),
              "--shrink-grow -51: \"Final Shrink<->Grow\" takes -50 to 50");
    EXPECT_EQ(message("size", "2.5"), "--size 2.5: \"Size (pixels)\" takes 2 to 6000");
    EXPECT_EQ(message("footage-is", "great"),
              "--footage-is great: \"Footage is\" takes excellent, good, ok or bad");
    EXPECT_EQ(message("of", "3"), "--of 3: \"Of\" takes any-color or matching-colors");
    EXPECT_EQ(message("hi-color", "1,2"),
              "--hi-color 1,2: \"Hi Color\" takes R,G,B, each 0 to 255");
    EXPECT_EQ(message("hi-color", "1,2,256"),
              "--hi-color 1,2,256: \"Hi Color\" takes R,G,B, each 0 to 255");
    EXPECT_EQ(message("size", "6000"), "accepted");
    EXPECT_EQ(message("shrink-grow", "-50"), "accepted");
    EXPECT_EQ(set.parse(set.get("found"), "3", "").number, 3);
    EXPECT_EQ(set.parse(set.get("found"), "object-edge", "").number, 10);
}

TEST(Controls, help_and_readme_document_every_option_and_word) {
    Effect effect;
    const std::string help = cli::renderHelp();
    const std::string readme = slurp(QUORVANE_SOURCE_DIR "/README.md");
    for (const cli::ControlInfo& c : effect.controls->controls()) {
        EXPECT_TRUE(clitest::contains(help, "--" + c.option + " ")) << c.option;
        EXPECT_TRUE(clitest::contains(readme, "`--" + c.option)) << c.option;
        for (const std::string& alias : c.aliases) {
            EXPECT_TRUE(clitest::contains(help, "--" + alias)) << alias;
            EXPECT_TRUE(clitest::contains(readme, "--" + alias)) << alias;
        }
        for (const std::string& word : c.words) {
            EXPECT_TRUE(clitest::contains(help, word)) << word;
            EXPECT_TRUE(clitest::contains(readme, word)) << word;
        }
    }
    for (const char* option :
         {"--preset", "--save-preset", "--frames", "--host", "--downsample", "--depth", "--jobs",
          "--skip-existing", "--contact-sheet", "--quiet", "--plugin"}) {
        EXPECT_TRUE(clitest::contains(help, option)) << option;
        EXPECT_TRUE(clitest::contains(readme, option)) << option;
    }
}
