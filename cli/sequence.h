// File names of image sequences as compositors and render farms write them, and frame lists.
//
// A name holds at most one frame field, in its file-name part:
//   plate.####.exr   one '#' per digit (zero-padded to that many digits)
//   plate.@@@@.exr   the same with '@'
//   plate.%04d.exr   printf style; plate.%d.exr has no padding
// A name without a field is a single image. Frame numbers are zero or positive; a number with
// more digits than the padding is written in full (frame 10000 of plate.####.exr is
// plate.10000.exr).
#pragma once

#include <string>
#include <vector>

namespace quorvane::cli {

class FramePattern {
  public:
    // Throws a usage error for a name with two frame fields or a malformed printf field.
    explicit FramePattern(std::string text);

    const std::string& text() const { return text_; }
    bool isSequence() const { return sequence_; }
    // Digits the field pads to (0 for %d); 0 for a single image.
    int padding() const { return padding_; }

    // The file name of frame `frame`; the name itself for a single image.
    std::string pathFor(long frame) const;
    // The frames whose files exist, ascending. A file belongs to the pattern when its name is
    // the prefix, a frame number written as pathFor() writes it, and the suffix. For a single
    // image: {0} when the file exists, else empty.
    std::vector<long> framesOnDisk() const;
    // Whether `fileName` (no folder) is the name of one of this pattern's frames; its number
    // goes to *frame.
    bool matchFileName(const std::string& fileName, long* frame) const;
    // The folder the frames sit in ("." when the name has none).
    std::string folder() const;

  private:
    std::string text_;
    bool sequence_ = false;
    std::string prefix_;  // everything before the field, folders included
    std::string suffix_;  // everything after it
    int padding_ = 0;
};

// Parses a frame list: "1001", "1001-1100", "1001-1100x2" (every second frame), or several
// of these separated by commas. The result keeps the order given, without repeats. Throws a
// usage error naming the text.
std::vector<long> parseFrameList(const std::string& text);

}  // namespace quorvane::cli
