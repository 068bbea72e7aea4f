#include "tests/render/render_support.h"

#include <algorithm>
#include <cmath>

namespace rtest {

KeyedFrame
makeKeyedFrame(int width, int height, const Disc& subject, const std::vector<Disc>& garbage)
{
    KeyedFrame f;
    f.width = width;
    f.height = height;
    f.pixels.assign(static_cast<size_t>(width) * height, PF_Pixel16{0, 5000, 28000, 6000});
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const double d = std::hypot(x - subject.cx, y - subject.cy);
            // A soft edge three pixels wide, as a keyer leaves it.
            const double cover = std::clamp((subject.radius - d) / 3.0, 0.0, 1.0);
            if (cover > 0.0) {
                f.at(x, y) = {static_cast<A_u_short>(std::lround(cover * 32768.0)), 20000, 15000,
                              10000};
            }
        }
    }
    for (const Disc& g : garbage) {
        for (int y = std::max(0, g.cy - g.radius); y <= std::min(height - 1, g.cy + g.radius); ++y)
            for (int x = std::max(0, g.cx - g.radius); x <= std::min(width - 1, g.cx + g.radius);
                 ++x)
                if ((x - g.cx) * (x - g.cx) + (y - g.cy) * (y - g.cy) <= g.radius * g.radius)
                    f.at(x, y) = {32768, 6000, 26000, 7000};
    }
    return f;
}

std::vector<PF_Pixel>
to8Bit(const std::vector<PF_Pixel16>& pixels)
{
    std::vector<PF_Pixel> out(pixels.size());
    const auto c = [](A_u_short v) { return static_cast<A_u_char>(std::min<int>(v, 32640) >> 7); };
    for (size_t i = 0; i < pixels.size(); ++i)
        out[i] = {c(pixels[i].alpha), c(pixels[i].red), c(pixels[i].green), c(pixels[i].blue)};
    return out;
}

const Plugin&
plugin()
{
    static const Plugin loaded = Plugin::load(Plugin::defaultPath());
    return loaded;
}

void
expectEverythingReturned(Session& session)
{
    const Accounting& a = session.accounting();
    EXPECT_EQ(a.worldsMade, a.worldsDisposed);
    EXPECT_EQ(a.strayDisposals, 0);
    EXPECT_EQ(a.suitesHeld(), 0);
    EXPECT_EQ(a.suitesHeldAfterCommand, 0);
    EXPECT_EQ(a.strayReleases, 0);
    EXPECT_EQ(a.checkoutsLeftAtCommandEnd, 0);
    EXPECT_EQ(a.guardViolations, 0) << (a.guardReports.empty() ? "" : a.guardReports.front());
    EXPECT_EQ(a.inputWrites, 0);
    EXPECT_EQ(session.finish(), 0);
}

PF_Pixel16
outputPixel(Session& session, int x, int y)
{
    auto& out = session.output();
    if (out.deep()) {
        return out.at16(x, y);
    }
    const PF_Pixel p = out.at8(x, y);
    return {static_cast<A_u_short>(p.alpha << 7), static_cast<A_u_short>(p.red << 7),
            static_cast<A_u_short>(p.green << 7), static_cast<A_u_short>(p.blue << 7)};
}

int
outputAlpha(Session& session, int x, int y)
{
    return outputPixel(session, x, y).alpha;
}

}  // namespace rtest
