// FillLimitsArray builders for stage tests: whole frames, boxes and seeded random limits.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>

#include "matte/red_mask.h"

namespace qtest {

// Limits with no row set (every left and right 0) and the given row range.
inline std::unique_ptr<FillLimitsArray>
emptyLimits(int firstRow, int lastRow) {
    auto limits = std::make_unique<FillLimitsArray>();
    *limits = FillLimitsArray{};
    limits->firstRow = firstRow;
    limits->lastRow = lastRow;
    return limits;
}

// Rows y0..y1, each spanning columns x0..x1.
inline std::unique_ptr<FillLimitsArray>
boxLimits(int x0, int y0, int x1, int y1) {
    auto limits = emptyLimits(y0, y1);
    for (int y = std::max(y0, 0); y <= y1; ++y) {
        limits->left[y] = x0;
        limits->right[y] = x1;
    }
    return limits;
}

inline std::unique_ptr<FillLimitsArray>
wholeFrameLimits(int width, int height) {
    return boxLimits(0, 0, width - 1, height - 1);
}

// Seeded limits that rarely cover the frame: a random row range (sometimes the whole frame,
// sometimes empty) and per row a random span, some rows empty (left > right or both 0).
inline std::unique_ptr<FillLimitsArray>
randomLimits(int width, int height, uint32_t seed) {
    std::mt19937 rng(seed);
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    int first = pick(0, height - 1);
    int last = pick(0, height - 1);
    if (first > last && pick(0, 3) != 0) {
        std::swap(first, last);
    }
    if (pick(0, 4) == 0) {
        first = 0;
        last = height - 1;
    }
    auto limits = emptyLimits(first, last);
    for (int y = 0; y < height; ++y) {
        switch (width > 1 ? pick(0, 5) : 0) {
            case 0:  // empty row as the limits builder leaves it
                break;
            case 1:  // left beyond right
                limits->left[y] = pick(1, width - 1);
                limits->right[y] = pick(0, limits->left[y] - 1);
                break;
            case 2:
                limits->left[y] = 0;
                limits->right[y] = width - 1;
                break;
            default: {
                const int a = pick(0, width - 1);
                const int b = pick(0, width - 1);
                limits->left[y] = std::min(a, b);
                limits->right[y] = std::max(a, b);
            }
        }
    }
    return limits;
}

}  // namespace qtest
