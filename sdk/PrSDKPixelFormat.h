// Premiere Pro pixel formats (four-character codes, lowest byte first).
#pragma once

#include <stdint.h>

#define MAKE_PIXEL_FORMAT_FOURCC(ch0, ch1, ch2, ch3)                              \
    ((uint32_t)(uint8_t)(ch0) | ((uint32_t)(uint8_t)(ch1) << 8) |                \
     ((uint32_t)(uint8_t)(ch2) << 16) | ((uint32_t)(uint8_t)(ch3) << 24))

enum PrPixelFormat {
    PrPixelFormat_BGRA_4444_8u = MAKE_PIXEL_FORMAT_FOURCC('b', 'g', 'r', 'a'),
    PrPixelFormat_ARGB_4444_8u = MAKE_PIXEL_FORMAT_FOURCC('a', 'r', 'g', 'b'),
    PrPixelFormat_ARGB_4444_16u = MAKE_PIXEL_FORMAT_FOURCC('A', 'r', 'g', 'b'),
    PrPixelFormat_ARGB_4444_32f = MAKE_PIXEL_FORMAT_FOURCC('A', 'R', 'g', 'b'),
    PrPixelFormat_Invalid = MAKE_PIXEL_FORMAT_FOURCC('b', 'a', 'd', 'f'),
    PrPixelFormat_Any = MAKE_PIXEL_FORMAT_FOURCC('a', 'n', 'y', 'f')
};
