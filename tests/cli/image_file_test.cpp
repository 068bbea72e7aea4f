// File values to worlds and back: the documented conversions, and every supported format read
// and written through them without the effect in between.
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

TEST(ImageFiles, every_format_round_trips_through_a_world) {
    const struct {
        const char* name;
        OIIO::TypeDesc type;
        cli::PixelType written;
    } cases[] = {
        {"a.png", OIIO::TypeDesc::UINT8, cli::PixelType::U8},
        {"b.png", OIIO::TypeDesc::UINT16, cli::PixelType::U16},
        {"c.tif", OIIO::TypeDesc::UINT8, cli::PixelType::U8},
        {"d.tif", OIIO::TypeDesc::UINT16, cli::PixelType::U16},
        {"e.tif", OIIO::TypeDesc::FLOAT, cli::PixelType::Float},
        {"f.exr", OIIO::TypeDesc::FLOAT, cli::PixelType::Float},
        {"g.exr", OIIO::TypeDesc::HALF, cli::PixelType::Half},
        {"h.dpx", OIIO::TypeDesc::UINT8, cli::PixelType::U8},
        {"i.dpx", OIIO::TypeDesc::UINT16, cli::PixelType::U16},
        {"j.tga", OIIO::TypeDesc::UINT8, cli::PixelType::U8},
    };
    TempDir dir;
    std::mt19937 rng(1);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        // Seeded random file values of worlds (multiples of 32 in float: exact in half too).
        Picture in{23, 7, 4, c.type};
        for (std::size_t i = 0; i < in.size(); ++i) {
            const auto w = static_cast<std::uint16_t>(rng() % 32769);
            if (c.type == OIIO::TypeDesc::UINT8) {
                in.u8.push_back(static_cast<std::uint8_t>(rng() % 256));
            } else if (c.type == OIIO::TypeDesc::UINT16) {
                in.u16.push_back(cli::file16FromWorld16(w));
            } else {
                in.f32.push_back(cli::floatFromWorld16(static_cast<std::uint16_t>(w & ~31u)));
            }
        }
        writePicture(dir / c.name, in);
        const cli::ImageHeader header = cli::probeImage(dir / c.name);
        ASSERT_EQ(header.type, c.written);
        World world(in.width, in.height, c.type != OIIO::TypeDesc::UINT8);
        cli::fillWorld(cli::readImage(dir / c.name), world.layer());

        const std::string out = dir / "out" + c.name;
        EXPECT_EQ(cli::outputTypeFor(cli::outputFormatFor(out), header.type), c.written);
        cli::writeWorld(out, c.name, world.layer(), c.written, true);
        const Picture back = readPicture(out);
        ASSERT_EQ(back.size(), in.size());
        for (std::size_t i = 0; i < in.size(); ++i) {
            ASSERT_EQ(back.value(i), in.value(i)) << "value " << i;
        }
    }
}

TEST(ImageFiles, grey_and_alphaless_files_become_rgba_with_straight_colours) {
    TempDir dir;
    writePicture(dir / "grey.png", {.width = 2, .height = 1, .channels = 1, .u8 = {10, 200}});
    EXPECT_EQ(cli::readImage(dir / "grey.png").u8,
              (std::vector<std::uint8_t>{10, 10, 10, 255, 200, 200, 200, 255}));
    writePicture(dir / "ga.png", {.width = 1, .height = 1, .channels = 2, .u8 = {90, 0}});
    EXPECT_EQ(cli::readImage(dir / "ga.png").u8, (std::vector<std::uint8_t>{90, 90, 90, 0}));
    writePicture(dir / "rgb.tif", {1, 1, 3, OIIO::TypeDesc::UINT16, {}, {1000, 2000, 3000}});
    EXPECT_EQ(cli::readImage(dir / "rgb.tif").u16,
              (std::vector<std::uint16_t>{1000, 2000, 3000, 65535}));

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
    const Picture hdr{2,
                      1,
                      4,
                      OIIO::TypeDesc::FLOAT,
                      {},
                      {},
                      {1.75f, -0.125f, 0.123456f, 1.0f, 0.5f, 0.25f, 1e-6f, 0.5f}};
    writePicture(dir / "hdr.exr", hdr);
    const cli::Image image = cli::readImage(dir / "hdr.exr");
    World world(2, 1, true);
    cli::fillWorld(image, world.layer());
    EXPECT_EQ(world.at16(0, 0).red, 32768);  // clamped in the world
    cli::writeWorld(dir / "out.exr", "out.exr", world.layer(), cli::PixelType::Float, true, &image);
    EXPECT_EQ(readPicture(dir / "out.exr").f32, hdr.f32);
}
