// The controls as options, read from the effect's own parameter set-up.
#include "cli/controls.h"

#include "cli/errors.h"
#include "cli_support.h"

namespace cli = quorvane::cli;
using Words = std::vector<std::string>;

TEST(Controls, options_words_defaults_and_refusals_come_from_the_panel) {
    const clitest::Effect effect;
    const cli::ControlSet& set = effect.controls;
    // Names and words are pinned by the help and README test below.
    // "Of" declares 8 choices but lists two items: only the two are offered.
    EXPECT_EQ(set.get("of").words, (Words{"any-color", "matching-colors"}));
    EXPECT_EQ(&set.get("final-shrink-grow"), &set.get("shrink-grow"));
    // The over-long label reads as the host reads it, on into the flags word.
    EXPECT_EQ(set.get("pre-clean-size").label, "Pre clean blobs below size (0=off)");
    EXPECT_EQ(set.word(set.defaults(), "further-processing"), "no");
    EXPECT_EQ(set.word(set.defaults(), "hi-color"), "200,200,200");
    EXPECT_EQ(set.parse(set.get("found"), "object-edge", "").number, 10);

    // Option, value, and the refusal after "--option value: " ("" when accepted).
    const char* const cases[][3] = {
        {"size", "6001", "\"Size (pixels)\" takes 2 to 6000"},
        {"size", "2.5", "\"Size (pixels)\" takes 2 to 6000"},
        {"shrink-grow", "-51", "\"Final Shrink<->Grow\" takes -50 to 50"},
        {"footage-is", "great", "\"Footage is\" takes excellent, good, ok or bad"},
        {"of", "3", "\"Of\" takes any-color or matching-colors"},
        {"hi-color", "1,2", "\"Hi Color\" takes R,G,B, each 0 to 255"},
        {"hi-color", "1,2,256", "\"Hi Color\" takes R,G,B, each 0 to 255"},
        {"size", "6000", ""},
        {"shrink-grow", "-50", ""},
    };
    for (const auto& [option, text, says] : cases) {
        const std::string where = std::string("--") + option + " " + text;
        std::string message;
        try {
            set.parse(set.get(option), text, where);
        } catch (const cli::CliError& e) {
            EXPECT_EQ(e.status(), cli::kExitUsage);
            message = e.what();
        }
        EXPECT_EQ(message, *says ? where + ": " + says : "");
    }
}

TEST(Controls, help_and_readme_document_every_option_and_word) {
    const clitest::Effect effect;
    const std::string help = cli::renderHelp();
    const std::string readme = clitest::readText(QUORVANE_SOURCE_DIR "/README.md");
    auto documented = [&](const std::string& inHelp, const std::string& inReadme) {
        EXPECT_TRUE(clitest::contains(help, inHelp)) << inHelp;
        EXPECT_TRUE(clitest::contains(readme, inReadme)) << inReadme;
    };
    for (const char* option :
         {"--preset", "--save-preset", "--frames", "--host", "--downsample", "--depth", "--jobs",
          "--skip-existing", "--contact-sheet", "--quiet", "--plugin"}) {
        documented(option, option);
    }
    for (const cli::ControlInfo& c : effect.controls.controls()) {
        documented("--" + c.option + " ", "`--" + c.option);
        for (const std::string& word : c.aliases) {
            documented("--" + word, "--" + word);
        }
        for (const std::string& word : c.words) {
            documented(word, word);
        }
    }
}
