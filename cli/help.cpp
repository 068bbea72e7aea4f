// The help texts. README.md's "The quorvane command" section says the same; the test of the
// help checks that every option and popup word the effect declares appears here.
#include "cli/app.h"

namespace quorvane::cli {

std::string
generalHelp() {
    return R"HELP(quorvane - cleans the matte (alpha channel) of keyed images and sequences with the
Quorvane effect, run through its entry point exactly as a host application runs it.

Usage:
  quorvane render INPUT OUTPUT [options]   clean a sequence or a single image
  quorvane controls [options]              show the effect's controls: values, choices,
                                           ranges, defaults, what the options grey out
  quorvane about [--host ae|premiere]      show the effect's About text
  quorvane help [render|controls|about]    show help (also: quorvane COMMAND --help)
  quorvane --version

Examples:
  quorvane render plate.####.exr clean/plate.####.exr --footage-is bad \
      --further-processing remove-smaller-than --size 200
  quorvane render shot.%04d.png preview/shot.%04d.png --downsample 2 --frames 1001-1100x5
  quorvane controls --further-processing remove --of matching-colors

The effect's module (Quorvane.plugin.so) is loaded from beside this program or from
../lib/quorvane, or from where --plugin PATH or the QUORVANE_PLUGIN variable says.
Exit status: 0 done, 1 a file or the effect failed, 2 wrong options, 130 interrupted.
)HELP";
}

std::string
renderHelp() {
    return R"HELP(Usage: quorvane render INPUT OUTPUT [options]

INPUT and OUTPUT name one image, or a sequence with one frame field in the file name:
  plate.####.exr   one # (or @) per digit, zero-padded     plate.%04d.exr   printf style
Without --frames, every frame from the first to the last on disk is rendered. Reads PNG,
TIFF, OpenEXR, DPX, JPEG and TGA; writes the format OUTPUT's extension names.

Effect controls (values, ranges and defaults: quorvane controls):
  --process show-result|show-alpha|show-color-info
  --footage-is excellent|good|ok|bad
  --solid-alpha N          "Treat as solid alpha >" (percent)
  --pre-clean-size N       "Pre clean blobs below size (0=off)" (pixels)
  --further-processing remove|remove-smaller-than|remove-larger-than|no
  --size N                 "Size (pixels)"
  --found anywhere|touching-top|touching-bottom|touching-left|touching-right|
          top-half|bottom-half|left-half|right-half|object-edge
  --of any-color|matching-colors
  --hi-color R,G,B         "Hi Color", each 0 to 255
  --mid-color R,G,B        "Mid Color (000=off)"
  --lo-color R,G,B         "Lo Color (000=off)"
  --tolerance N            "Tolerance"
  --smart-extend N         "Smart extend"
  --shrink-grow N          "Final Shrink<->Grow", below 0 shrinks (or --final-shrink-grow)
  --feather N              "Final Feather" (or --final-feather)
  A popup also takes its 1-based number; a value outside a control's range is refused.

Presets:
  --preset FILE            read controls from a JSON file: {"size": 200, "found": "anywhere",
                           "hi-color": [200, 200, 200]}; options on the command line win
  --save-preset FILE       write every control's value in effect to a JSON file

Host and frames:
  --frames LIST            1001-1100, 1001-1100x2 (every 2nd), 1001,1005,1010-1020
  --host ae|premiere       the host family the effect runs in (default ae)
  --downsample 1|2|3|4     a quick preview at 1/N size, as the host's resolution setting
  --depth auto|8|16        project depth (default auto: 8 for 8-bit files, else 16); output
                           files follow the input's type unless --depth is given
  -j, --jobs N             frames rendered at once (default: one per processor, fewer
                           when memory is short)
  --skip-existing          keep outputs that exist: resumes an interrupted run
  --contact-sheet FILE     also write a before/after PNG (up to 6 frames, over a checkerboard)
  -q, --quiet              no progress and no summary; errors are still reported
  --plugin PATH            the effect module to load

Files: colours are kept as stored (straight alpha stays straight); a file without alpha is
opaque, a grey file grey RGB. 16-bit values v map to the effect's 16-bit worlds as
(v*32768+32767)/65535 and back as (w*65535+16384)/32768; float values are clamped to 0..1
(v*32768+0.5). With show-result, the colours of 16-bit and float inputs are written back at
full precision. JPEG holds no alpha: only show-color-info is written to it. Each frame is
written as .NAME.tmp.EXT and renamed into place, so a frame is complete or absent.
)HELP";
}

std::string
controlsHelp() {
    return R"HELP(Usage: quorvane controls [control options] [--preset FILE] [--save-preset FILE]
                         [--host ae|premiere] [--plugin PATH]

Prints the effect's controls as the host's panel shows them - names, values, popup choices,
ranges and defaults - and, for the given options, which controls the effect greys out and
the colour group's current name. Takes the control options and presets of quorvane render:
  quorvane controls --further-processing no
  quorvane controls --preset shot.json --save-preset shot-full.json
)HELP";
}

std::string
aboutHelp() {
    return R"HELP(Usage: quorvane about [--host ae|premiere] [--plugin PATH]

Prints the effect's About text as the host's About box shows it.
)HELP";
}

}  // namespace quorvane::cli
