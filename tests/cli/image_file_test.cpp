// File values to worlds and back: the documented conversions, and every supported format read
// and written through them without the effect in between.
#include "cli/image_file.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "cli/conversions.h"
#include "cli/errors.h"
#include "cli_support.h"
#include "headless/world.h"

namespace cli = quorvane::cli;
using clitest::Picture;
using clitest::TempDir;
namespace OIIO = OIIO_NAMESPACE;

TEST(Conversions, world_file_world_is_exact_and_ends_meet) {
    for (std::uint32_t w = 0; w <= 32768; ++w) {
        const auto w16 = static_cast<std::uint16_t>(w);
        ASSERT_EQ(cli::world16FromFile16(cli::file16FromWorld16(w16)), w16) << w;
        ASSERT_EQ(cli::world16FromFloat(cli::floatFromWorld16(w16)), w16) << w;
    }
    for (std::uint32_t v = 0; v <= 255; ++v) {
        const auto v8 = static_cast<std::uint8_t>(v);
        ASSERT_EQ(cli::world8FromWorld16(cli::world16FromWorld8(v8)), v8);
        ASSERT_EQ(cli::world8FromWorld16(cli::world16FromFloat(cli::floatFromWorld8(v8))), v8);
    }
    // Every 16-bit file value lands in 0..32768, in order.
    std::uint16_t previous = 0;
    for (std::uint32_t v = 0; v <= 65535; ++v) {
        const std::uint16_t w = cli::world16FromFile16(static_cast<std::uint16_t>(v));
        ASSERT_GE(w, previous);
        previous = w;
    }
    EXPECT_EQ(cli::world16FromFile16(65535), 32768);
    EXPECT_EQ(cli::file16FromWorld16(32768), 65535);
    EXPECT_EQ(cli::file16FromWorld16(40000), 65535);  // above full intensity: clamped
    EXPECT_EQ(cli::world16FromFloat(1.7f), 32768);
    EXPECT_EQ(cli::world16FromFloat(-0.2f), 0);
    EXPECT_EQ(cli::world16FromFloat(std::nanf("")), 0);
    EXPECT_EQ(cli::world8FromWorld16(32767), 255);  // the effect's 16-to-8 rule
}

namespace {

// A 4-channel picture of `type` holding the file values of seeded random worlds.
Picture
randomPicture(OIIO::TypeDesc type, unsigned seed) {
    Picture p;
    p.width = 23;
    p.height = 7;
    p.channels = 4;
    p.type = type;
    std::mt19937 rng(seed);
    for (std::size_t i = 0; i < p.size(); ++i) {
        const auto w = static_cast<std::uint16_t>(rng() % 32769);
        if (type == OIIO::TypeDesc::UINT8) {
            p.u8.push_back(static_cast<std::uint8_t>(rng() % 256));
        } else if (type == OIIO::TypeDesc::UINT16) {
            p.u16.push_back(cli::file16FromWorld16(w));
        } else {
            // multiples of 32: exact in half as well as float
            p.f32.push_back(cli::floatFromWorld16(static_cast<std::uint16_t>(w & ~31u)));
        }
    }
    return p;
}

}  // namespace

TEST(ImageFiles, every_format_round_trips_through_a_world) {
    struct Case {
        const char* name;
        OIIO::TypeDesc type;
        bool deep;
        cli::PixelType written;
    };
    const Case cases[] = {
        {"a.png", OIIO::TypeDesc::UINT8, false, cli::PixelType::U8},
        {"b.png", OIIO::TypeDesc::UINT16, true, cli::PixelType::U16},
        {"c.tif", OIIO::TypeDesc::UINT8, false, cli::PixelType::U8},
        {"d.tif", OIIO::TypeDesc::UINT16, true, cli::PixelType::U16},
        {"e.tif", OIIO::TypeDesc::FLOAT, true, cli::PixelType::Float},
        {"f.exr", OIIO::TypeDesc::FLOAT, true, cli::PixelType::Float},
        {"g.exr", OIIO::TypeDesc::HALF, true, cli::PixelType::Half},
        {"h.dpx", OIIO::TypeDesc::UINT8, false, cli::PixelType::U8},
        {"i.dpx", OIIO::TypeDesc::UINT16, true, cli::PixelType::U16},
        {"j.tga", OIIO::TypeDesc::UINT8, false, cli::PixelType::U8},
    };
    TempDir dir;
    unsigned seed = 1;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Picture picture = randomPicture(c.type, seed++);
        clitest::writePicture(dir / c.name, picture);

        const cli::ImageHeader header = cli::probeImage(dir / c.name);
        ASSERT_EQ(header.type, c.written);
        const cli::Image image = cli::readImage(dir / c.name);
        quorvane::headless::World world(picture.width, picture.height, c.deep);
        cli::fillWorld(image, world.layer());

        const cli::OutputFormat format = cli::outputFormatFor(dir / "out" + c.name);
        EXPECT_EQ(cli::outputTypeFor(format, header.type), c.written);
        cli::writeWorld(dir / "out" + c.name, c.name, world.layer(), c.written, true);
        const Picture back = clitest::readPicture(dir / "out" + c.name);
        ASSERT_EQ(back.size(), picture.size());
        for (std::size_t i = 0; i < picture.size(); ++i) {
            ASSERT_EQ(back.value(i), picture.value(i)) << "value " << i;
        }
    }
}

TEST(ImageFiles, grey_and_alphaless_files_become_rgba_with_straight_colours) {
    TempDir dir;
    Picture grey{.width = 2, .height = 1, .channels = 1, .u8 = {10, 200}};
    clitest::writePicture(dir / "grey.png", grey);
    cli::Image image = cli::readImage(dir / "grey.png");
    EXPECT_EQ(image.u8, (std::vector<std::uint8_t>{10, 10, 10, 255, 200, 200, 200, 255}));

    Picture greyAlpha{.width = 1, .height = 1, .channels = 2, .u8 = {90, 0}};
    clitest::writePicture(dir / "ga.png", greyAlpha);
    EXPECT_EQ(cli::readImage(dir / "ga.png").u8, (std::vector<std::uint8_t>{90, 90, 90, 0}));

    Picture rgb{.width = 1,
                .height = 1,
                .channels = 3,
                .type = OIIO::TypeDesc::UINT16,
                .u16 = {1000, 2000, 3000}};
    clitest::writePicture(dir / "rgb.tif", rgb);
    EXPECT_EQ(cli::readImage(dir / "rgb.tif").u16,
              (std::vector<std::uint16_t>{1000, 2000, 3000, 65535}));

    // Channels found by name, also inside an OpenEXR layer.
    {
        auto out = OIIO::ImageOutput::create(dir / "layers.exr");
        OIIO::ImageSpec layout(1, 1, 5, OIIO::TypeDesc::FLOAT);
        layout.channelnames = {"Z", "beauty.R", "beauty.G", "beauty.B", "beauty.A"};
        const float pixel[5] = {9.0f, 0.25f, 0.5f, 0.75f, 0.125f};
        ASSERT_TRUE(out->open(dir / "layers.exr", layout) &&
                    out->write_image(OIIO::TypeDesc::FLOAT, pixel) && out->close());
        EXPECT_EQ(cli::readImage(dir / "layers.exr").f32,
                  (std::vector<float>{0.25f, 0.5f, 0.75f, 0.125f}));
    }

    // Colour under zero or partial alpha is neither premultiplied nor divided.
    Picture straight{
        .width = 2, .height = 1, .channels = 4, .u8 = {200, 100, 50, 0, 200, 100, 50, 64}};
    clitest::writePicture(dir / "straight.png", straight);
    clitest::writePicture(dir / "straight.tga", straight);
    for (const char* name : {"straight.png", "straight.tga"}) {
        const cli::Image read = cli::readImage(dir / name);
        EXPECT_EQ(read.u8, straight.u8) << name;
        quorvane::headless::World world(2, 1, false);
        cli::fillWorld(read, world.layer());
        cli::writeWorld(dir / "w" + name, name, world.layer(), cli::PixelType::U8, true);
        EXPECT_EQ(clitest::readPicture(dir / "w" + name).u8, straight.u8) << name;
    }
}

TEST(ImageFiles, output_types_follow_the_input_where_the_format_holds_it) {
    using enum cli::PixelType;
    TempDir dir;
    const struct {
        const char* name;
        cli::PixelType input, output;
    } cases[] = {{"x.png", Float, U16}, {"x.png", Half, U16},  {"x.exr", U8, Float},
                 {"x.exr", U16, Float}, {"x.exr", Half, Half}, {"x.jpg", U16, U8}};
    for (const auto& c : cases) {
        const cli::OutputFormat format = cli::outputFormatFor(dir / c.name);
        EXPECT_EQ(cli::outputTypeFor(format, c.input), c.output) << c.name;
        EXPECT_EQ(format.alpha, c.name[2] != 'j') << c.name;
    }
    EXPECT_THROW(cli::outputFormatFor(dir / "x.nothing"), cli::CliError);
}

TEST(ImageFiles, colours_written_back_keep_the_inputs_precision) {
    TempDir dir;
    // Float colours beyond 0..1 and finer than the world's steps survive with write-back.
    Picture hdr{.width = 2,
                .height = 1,
                .channels = 4,
                .type = OIIO::TypeDesc::FLOAT,
                .f32 = {1.75f, -0.125f, 0.123456f, 1.0f, 0.5f, 0.25f, 1e-6f, 0.5f}};
    clitest::writePicture(dir / "hdr.exr", hdr);
    const cli::Image image = cli::readImage(dir / "hdr.exr");
    quorvane::headless::World world(2, 1, true);
    cli::fillWorld(image, world.layer());
    EXPECT_EQ(world.at16(0, 0).red, 32768);  // clamped in the world
    cli::writeWorld(dir / "out.exr", "out.exr", world.layer(), cli::PixelType::Float, true, &image);
    EXPECT_EQ(clitest::readPicture(dir / "out.exr").f32, hdr.f32);
}
