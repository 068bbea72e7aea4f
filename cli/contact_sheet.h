// A before/after contact sheet: for a few frames of a run, the input over a checkerboard beside
// the output over the same checkerboard, so garbage and holes in the matte are plain to see.
#pragma once

#include <AE_Effect.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "cli/image_file.h"

namespace quorvane::cli {

class ContactSheet {
  public:
    // At most kMaxRows of `renders`, evenly spread; frames of width × height pixels, shown
    // at most kMaxCellWidth wide.
    ContactSheet(const std::vector<long>& renders, int width, int height);

    static constexpr int kMaxRows = 6;
    static constexpr int kMaxCellWidth = 720;

    // Whether `frame` has a row.
    bool wants(long frame) const;
    // Adds a frame's row: its input and the world the effect rendered. Thread-safe.
    void add(long frame, const Image& input, const PF_LayerDef& output);
    // Writes the sheet as an 8-bit RGB picture (rows of frames never added stay dark).
    void write(const std::string& path, const std::string& reportPath) const;

    int width() const;
    int height() const;

  private:
    // Straight RGBA (0..1) of one cell over the checkerboard, resized to the cell.
    void paint(int row, int column, std::vector<float> rgba, int width, int height);

    std::vector<long> frames_;
    int cellWidth_;
    int cellHeight_;
    std::vector<std::uint8_t> pixels_;  // RGB
    mutable std::mutex mutex_;
};

}  // namespace quorvane::cli
