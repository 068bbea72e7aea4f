#pragma once

// The effect's controls: their positions in params[], the names the panel shows and the popup
// item strings. Everything that addresses a control goes through these names.

// Position of each control in params[] (index 0 is the input layer, which the host supplies).
// Each declared control's id (PF_ParamDef::uu.id) equals its index.
enum {
    PARAM_INPUT = 0,
    PARAM_PROCESS,             // 1  popup, output view
    PARAM_FOOTAGE_IS,          // 2  popup, footage quality
    PARAM_SOLID_ALPHA,         // 3  slider, percent
    PARAM_PRECLEAN_SIZE,       // 4  slider, pixels (0 = off)
    PARAM_FURTHER_PROCESSING,  // 5  popup, which blobs the main fill removes
    PARAM_SIZE,                // 6  slider, pixels
    PARAM_FOUND,               // 7  popup, where a blob must lie
    PARAM_COLOR_TOPIC,         // 8  group start; renamed at run time
    PARAM_COLOR_MODE,          // 9  popup, any colour or a colour range
    PARAM_HI_COLOR,            // 10 colour
    PARAM_MID_COLOR,           // 11 colour, black = not used
    PARAM_LO_COLOR,            // 12 colour, black = not used
    PARAM_TOLERANCE,           // 13 slider
    PARAM_COLOR_TOPIC_END,     // 14 group end
    PARAM_SMART_EXTEND,        // 15 slider
    PARAM_FINAL_SHRINK_GROW,   // 16 slider, negative shrinks
    PARAM_FINAL_FEATHER,       // 17 slider
    PARAM_NUM_PARAMS           // 18, the input layer included
};

// Popup values (1-based, in item order).
enum {
    PROCESS_SHOW_RESULT = 1,
    PROCESS_SHOW_ALPHA = 2,
    PROCESS_SHOW_COLOR_INFO = 3,
};
enum {
    FOOTAGE_IS_EXCELLENT = 1,
    FOOTAGE_IS_GOOD = 2,
    FOOTAGE_IS_OK = 3,
    FOOTAGE_IS_BAD = 4,
};
enum {
    FURTHER_PROCESSING_REMOVE = 1,
    FURTHER_PROCESSING_REMOVE_SMALLER = 2,
    FURTHER_PROCESSING_REMOVE_LARGER = 3,
    FURTHER_PROCESSING_NO = 4,
};
enum {
    FOUND_ANYWHERE = 1,
    FOUND_TOUCHING_TOP = 2,
    FOUND_TOUCHING_BOTTOM = 3,
    FOUND_TOUCHING_LEFT = 4,
    FOUND_TOUCHING_RIGHT = 5,
    FOUND_TOP_HALF = 6,
    FOUND_BOTTOM_HALF = 7,
    FOUND_LEFT_HALF = 8,
    FOUND_RIGHT_HALF = 9,
    FOUND_ON_OBJECT_EDGE = 10,
};
enum {
    COLOR_MODE_ANY = 1,
    COLOR_MODE_MATCHING = 2,
};

// Control names as the panel shows them. Blanks and " :" endings are part of the text.
inline constexpr char NAME_PROCESS[] = "Process";
inline constexpr char NAME_FOOTAGE_IS[] = "Footage is";
inline constexpr char NAME_SOLID_ALPHA[] = "Treat as solid alpha >";
// 34 characters: longer than the 31 the host's name field holds (see ParamsSetup).
inline constexpr char NAME_PRECLEAN_SIZE[] = "Pre clean blobs below size (0=off)";
inline constexpr char NAME_FURTHER_PROCESSING[] = "Further processing :";
inline constexpr char NAME_SIZE[] = "Size (pixels)";
inline constexpr char NAME_FOUND[] = "Found";
inline constexpr char NAME_COLOR_TOPIC[] = "Any color";
inline constexpr char NAME_COLOR_MODE[] = "Of";
inline constexpr char NAME_HI_COLOR[] = "Hi Color";
inline constexpr char NAME_MID_COLOR[] = "Mid Color (000=off)";
inline constexpr char NAME_LO_COLOR[] = "Lo Color (000=off)";
inline constexpr char NAME_TOLERANCE[] = "Tolerance";
inline constexpr char NAME_COLOR_TOPIC_END[] = "";
inline constexpr char NAME_SMART_EXTEND[] = "Smart extend";
inline constexpr char NAME_FINAL_SHRINK_GROW[] = "Final Shrink<->Grow";
inline constexpr char NAME_FINAL_FEATHER[] = "Final Feather";

// The colour group's run-time names, which make the panel read as a sentence from
// "Further processing :" down to "Of".
inline constexpr char NAME_COLOR_TOPIC_ANY[] = "of any color";
inline constexpr char NAME_COLOR_TOPIC_MATCHING[] = "matching color :";

// Popup item strings as handed to the host, which splits them at '|'. Every item ends in a
// blank; items 6 and 7 of "Found" also begin with one and items 8 and 9 do not.
inline constexpr char ITEMS_PROCESS[] = "Show result |Show alpha |Show color info |";
inline constexpr char ITEMS_FOOTAGE_IS[] = "Excellent |Good |OK |Bad |";
inline constexpr char ITEMS_FURTHER_PROCESSING[] =
    "Remove :|Remove smaller than :|Remove larger than :|NO |";
inline constexpr char ITEMS_FOUND[] =
    "Anywhere on screen |Touching top of screen |Touching bottom of screen |"
    "Touching left of screen |Touching right of screen | Only top 1/2 of screen |"
    " Only bottom 1/2 of screen |Only left 1/2 of screen |Only right 1/2 of screen |"
    "On an object edge |";
inline constexpr char ITEMS_COLOR_MODE[] = "Any color |Matching colors in range : |";
