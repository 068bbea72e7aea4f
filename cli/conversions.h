// The conversions between file values and the effect's worlds. One rule each way for each kind
// of file, so that a world written to a file and read back is the same world.
//
//   8-bit file    <-> 8-bit world   as stored
//   16-bit file    -> 16-bit world  (v × 32768 + 32767) ÷ 65535       0..65535 onto 0..32768
//   16-bit world   -> 16-bit file   (w × 65535 + 16384) ÷ 32768       back, rounded
//   float file     -> 16-bit world  clamp to [0, 1], v × 32768 + 0.5 truncated (NaN as 0)
//   16-bit world   -> float file    w ÷ 32768
//   8-bit world    -> float file    v ÷ 255, 16-bit file v × 257
//   8-bit world    -> 16-bit world  v × 128                 (the effect's own rule)
//   16-bit world   -> 8-bit world   min(w, 32640) >> 7      (the effect's own rule)
// All integer arithmetic is exact in 32 bits; ÷ truncates.
#pragma once

#include <algorithm>
#include <cstdint>

namespace quorvane::cli {

inline constexpr std::uint32_t kWorldOne = 32768;  // full intensity in a 16-bit world

constexpr std::uint16_t
world16FromFile16(std::uint16_t v) {
    return static_cast<std::uint16_t>((std::uint32_t{v} * 32768u + 32767u) / 65535u);
}

constexpr std::uint16_t
file16FromWorld16(std::uint16_t w) {
    // Worlds hold at most 32768; anything above is treated as full intensity.
    const std::uint32_t clamped = std::min<std::uint32_t>(w, kWorldOne);
    return static_cast<std::uint16_t>((clamped * 65535u + 16384u) / 32768u);
}

inline std::uint16_t
world16FromFloat(float v) {
    if (!(v > 0.0f)) {  // negative, zero and NaN
        return 0;
    }
    if (v >= 1.0f) {
        return static_cast<std::uint16_t>(kWorldOne);
    }
    return static_cast<std::uint16_t>(v * 32768.0f + 0.5f);
}

constexpr float
floatFromWorld16(std::uint16_t w) {
    return static_cast<float>(w) / 32768.0f;
}

constexpr float
floatFromWorld8(std::uint8_t v) {
    return static_cast<float>(v) / 255.0f;
}

constexpr std::uint16_t
file16FromWorld8(std::uint8_t v) {
    return static_cast<std::uint16_t>(v * 257u);
}

constexpr std::uint16_t
world16FromWorld8(std::uint8_t v) {
    return static_cast<std::uint16_t>(v * 128u);
}

constexpr std::uint8_t
world8FromWorld16(std::uint16_t w) {
    return static_cast<std::uint8_t>(std::min<std::uint32_t>(w, 32640u) >> 7);
}

// Full-precision colour written back from a float or 16-bit input into a file of another
// type: plain scaling with rounding.
inline std::uint16_t
file16FromFloat(float v) {
    if (!(v > 0.0f)) {
        return 0;
    }
    if (v >= 1.0f) {
        return 65535;
    }
    return static_cast<std::uint16_t>(v * 65535.0f + 0.5f);
}

constexpr float
floatFromFile16(std::uint16_t v) {
    return static_cast<float>(v) / 65535.0f;
}

}  // namespace quorvane::cli
