// A host-owned image buffer as the headless host hands it out: new worlds made for the effect,
// checked-out layers, the input layer and the output world.
//
// Layout: a guard band, then `height` rows of `rowbytes` bytes, then a tail guard. Each row is
// padded past width × pixel size (three pixels' worth), so code that steps rows by width
// instead of by `rowbytes` reads and writes the wrong place. The padding and both guards hold
// a marker pattern; `guardIntact()` tells whether anything wrote there.
#pragma once

#include <AE_Effect.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace quorvane::headless {

class World {
  public:
    // Pixels every row is padded by, beyond width × pixel size.
    static constexpr A_long kRowPadPixels = 3;
    // Bytes of marker before the first row and after the last one.
    static constexpr std::size_t kGuardBytes = 64;
    // The marker byte that fills padding and guards.
    static constexpr std::uint8_t kMarker = 0xA7;

    // An empty record (data null, width and height 0).
    World() = default;
    // What a new world's pixels hold: zero (every world handed to the effect as new), or
    // whatever the storage held, for a layer its frame source is about to fill completely.
    enum class Pixels { Zeroed, LeftForTheSource };

    // A zero-filled world: 16-bit pixels (`PF_Pixel16`, world_flags carry PF_WorldFlag_DEEP)
    // when `deep`, else 8-bit (`PF_Pixel`). A negative size throws std::invalid_argument.
    // Padding and guards always hold the marker.
    World(A_long width, A_long height, bool deep, Pixels pixels = Pixels::Zeroed);

    World(World&&) noexcept;
    World& operator=(World&&) noexcept;
    World(const World&) = delete;
    World& operator=(const World&) = delete;
    ~World();

    // The record handed to the effect. Its `data` points at the first row.
    PF_LayerDef& layer() { return layer_; }
    const PF_LayerDef& layer() const { return layer_; }
    PF_LayerDef* operator->() { return &layer_; }

    bool empty() const { return storage_ == nullptr; }
    bool deep() const { return (layer_.world_flags & PF_WorldFlag_DEEP) != 0; }
    A_long width() const { return layer_.width; }
    A_long height() const { return layer_.height; }
    A_long rowbytes() const { return layer_.rowbytes; }
    std::size_t pixelBytes() const { return deep() ? sizeof(PF_Pixel16) : sizeof(PF_Pixel); }

    // Row y, for deep (row16) or 8-bit (row8) worlds; no depth check.
    PF_Pixel16* row16(A_long y);
    const PF_Pixel16* row16(A_long y) const;
    PF_Pixel* row8(A_long y);
    const PF_Pixel* row8(A_long y) const;
    PF_Pixel16& at16(A_long x, A_long y) { return row16(y)[x]; }
    const PF_Pixel16& at16(A_long x, A_long y) const { return row16(y)[x]; }
    PF_Pixel& at8(A_long x, A_long y) { return row8(y)[x]; }
    const PF_Pixel& at8(A_long x, A_long y) const { return row8(y)[x]; }

    // Every pixel of a deep world set to p (fill16) or of an 8-bit world (fill8).
    void fill16(const PF_Pixel16& p);
    void fill8(const PF_Pixel& p);

    // True when every padding and guard byte still holds the marker.
    bool guardIntact() const;
    // Where the first foreign write sits ("row 3 padding byte 5", "tail byte 0"); empty when
    // the guards are intact.
    std::string guardReport() const;
    // Writes the marker back into padding and guards (after a violation has been reported).
    void resetGuard();

    // A world of the same size and depth holding the same pixels.
    World clone() const;

    // True when the pixel bytes (not the padding) of both worlds are equal; sizes and depths
    // must match too.
    bool samePixels(const World& other) const;

  private:
    // Gives a world's storage back to the host's pool of freed blocks.
    struct StorageRelease {
        std::size_t words;
        void operator()(std::uint64_t* block) const;
    };

    PF_LayerDef layer_{};
    std::unique_ptr<std::uint64_t[], StorageRelease> storage_;
    std::size_t storageBytes_ = 0;
};

}  // namespace quorvane::headless
