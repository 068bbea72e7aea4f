// File values to worlds and back: the documented conversions, and what reading and writing
// keep without the effect in between.
#include "cli/image_file.h"

#include <cmath>

#include "cli/conversions.h"
#include "cli/errors.h"
#include "cli_support.h"
#include "headless/world.h"

namespace cli = quorvane::cli;
using namespace clitest;
using quorvane::headless::World;

TEST(Conversions, world_file_world_is_exact_and_ends_meet) {
    std::uint16_t previous = 0;
    for (std::uint32_t v = 0; v <= 65535; ++v) {
        const auto v16 = static_cast<std::uint16_t>(v);
        if (v <= 32768) {
            ASSERT_EQ(cli::world16FromFile16(cli::file16FromWorld16(v16)), v16) << v;
            ASSERT_EQ(cli::world16FromFloat(cli::floatFromWorld16(v16)), v16) << v;
        }
        if (v <= 255) {
            const auto v8 = static_cast<std::uint8_t>(v);
            ASSERT_EQ(cli::world8FromWorld16(cli::world16FromWorld8(v8)), v8);
            ASSERT_EQ(cli::world8FromWorld16(cli::world16FromFloat(cli::floatFromWorld8(v8))), v8);
        }
        // Every 16-bit file value lands in 0..32768, in order.
        ASSERT_GE(cli::world16FromFile16(v16), previous) << v;
        previous = cli::world16FromFile16(v16);
    }
    EXPECT_EQ(previous, 32768);
    EXPECT_EQ(cli::file16FromWorld16(32768), 65535);
    EXPECT_EQ(cli::file16FromWorld16(40000), 65535);  // above full intensity: clamped
    EXPECT_EQ(cli::world16FromFloat(1.7f), 32768);
    EXPECT_EQ(cli::world16FromFloat(-0.2f), 0);
    EXPECT_EQ(cli::world16FromFloat(std::nanf("")), 0);
    EXPECT_EQ(cli::world8FromWorld16(32767), 255);  // the effect's 16-to-8 rule
}

TEST(ImageFiles, grey_and_alphaless_files_become_rgba_with_straight_colours) {
    TempDir dir;
    writePicture(dir / "grey.png", {2, 1, 1, OIIO::TypeDesc::UINT8, {10, 200}});
    EXPECT_EQ(cli::readImage(dir / "grey.png").u8,
              (std::vector<std::uint8_t>{10, 10, 10, 255, 200, 200, 200, 255}));
    writePicture(dir / "ga.png", {1, 1, 2, OIIO::TypeDesc::UINT8, {90, 0}});
    EXPECT_EQ(cli::readImage(dir / "ga.png").u8, (std::vector<std::uint8_t>{90, 90, 90, 0}));
    // A 16-bit file's colours reach the world by the file-to-world rule.
    writePicture(dir / "rgb.tif", {1, 1, 3, OIIO::TypeDesc::UINT16, {}, {1000, 2000, 65535}});
    const cli::Image rgb = cli::readImage(dir / "rgb.tif");
    EXPECT_EQ(rgb.u16, (std::vector<std::uint16_t>{1000, 2000, 65535, 65535}));
    World deep(1, 1, true);
    cli::fillWorld(rgb, deep.layer());
    const PF_Pixel16 w = deep.at16(0, 0);
    EXPECT_EQ((std::vector<int>{w.alpha, w.red, w.green, w.blue}),
              (std::vector<int>{32768, cli::world16FromFile16(1000), cli::world16FromFile16(2000),
                                32768}));

    // Channels found by name, also inside an OpenEXR layer.
    auto exr = OIIO::ImageOutput::create(dir / "layers.exr");
    OIIO::ImageSpec layout(1, 1, 5, OIIO::TypeDesc::FLOAT);
    layout.channelnames = {"Z", "beauty.R", "beauty.G", "beauty.B", "beauty.A"};
    const float pixel[5] = {9.0f, 0.25f, 0.5f, 0.75f, 0.125f};
    ASSERT_TRUE(exr->open(dir / "layers.exr", layout) &&
                exr->write_image(OIIO::TypeDesc::FLOAT, pixel) && exr->close());
    EXPECT_EQ(cli::readImage(dir / "layers.exr").f32,
              (std::vector<float>{0.25f, 0.5f, 0.75f, 0.125f}));

    // Colour under zero or partial alpha is neither premultiplied nor divided.
    const Picture straight{2, 1, 4, OIIO::TypeDesc::UINT8, {200, 100, 50, 0, 200, 100, 50, 64}};
    for (const std::string name : {"straight.png", "straight.tga"}) {
        writePicture(dir / name, straight);
        const cli::Image read = cli::readImage(dir / name);
        EXPECT_EQ(read.u8, straight.u8) << name;
        World world(2, 1, false);
        cli::fillWorld(read, world.layer());
        cli::writeWorld(dir / "w" + name, name, world.layer(), cli::PixelType::U8, true);
        EXPECT_EQ(readPicture(dir / "w" + name).u8, straight.u8) << name;
    }
}

TEST(ImageFiles, output_types_follow_the_input_and_colours_keep_its_precision) {
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

    // Float colours beyond 0..1 and finer than the world's steps survive with write-back.
    const std::vector<float> hdr = {1.75f, -0.125f, 0.123456f, 1.0f, 0.5f, 0.25f, 1e-6f, 0.5f};
    writePicture(dir / "hdr.exr", {2, 1, 4, OIIO::TypeDesc::FLOAT, {}, {}, hdr});
    const cli::Image image = cli::readImage(dir / "hdr.exr");
    World world(2, 1, true);
    cli::fillWorld(image, world.layer());
    EXPECT_EQ(world.at16(0, 0).red, 32768);  // clamped in the world
    cli::writeWorld(dir / "out.exr", "out.exr", world.layer(), cli::PixelType::Float, true, &image);
    EXPECT_EQ(readPicture(dir / "out.exr").f32, hdr);
}
