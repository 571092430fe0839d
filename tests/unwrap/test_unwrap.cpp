#include <torvel/unwrap.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

constexpr double kTwoPi = 6.283185307179586;

// A square plane with the pupil centred at (c, c), one pixel spacing of 1 and
// the given radius in pixels.
struct Geometry {
    int n;
    float c;
    float radius;
};

float wrap(double phase) {
    return static_cast<float>(phase - kTwoPi * std::floor((phase + M_PI) / kTwoPi));
}

std::vector<float> wrapped_ramp(const Geometry& g, double ax, double ay) {
    std::vector<float> plane(std::size_t(g.n) * g.n);
    for (int y = 0; y < g.n; ++y)
        for (int x = 0; x < g.n; ++x)
            plane[std::size_t(y) * g.n + x] = wrap(ax * (x - g.c) + ay * (y - g.c) + 0.3);
    return plane;
}

bool inside_disc(const Geometry& g, int x, int y, float margin) {
    const float r = g.radius - margin;
    return (x - g.c) * (x - g.c) + (y - g.c) * (y - g.c) <= r * r;
}

TEST(Phunwrap, leaves_a_plane_without_wraps_unchanged) {
    const Geometry g{33, 16.0f, 14.0f};
    std::vector<float> plane(33 * 33);
    for (int y = 0; y < 33; ++y)
        for (int x = 0; x < 33; ++x)
            plane[y * 33 + x] = 0.4f * std::sin(0.2f * x) + 0.3f * std::cos(0.15f * y);
    const std::vector<float> before = plane;
    torvel::phunwrap(g.c, g.c, 1.0f, 1.0f, g.radius, g.n, g.n, plane.data());
    EXPECT_EQ(plane, before);
}

TEST(Phunwrap, makes_a_wrapped_ramp_continuous_and_keeps_the_start_pixel) {
    const Geometry g{64, 31.6f, 28.0f};
    std::vector<float> plane = wrapped_ramp(g, 1.1, -0.7);
    const int ic = 32, jc = 32;
    const float start = plane[jc * g.n + ic];
    torvel::phunwrap(g.c, g.c, 1.0f, 1.0f, g.radius, g.n, g.n, plane.data());
    EXPECT_EQ(plane[jc * g.n + ic], start);
    // The one multiple of 2pi that leaves the start pixel where it was.
    const double offset = start - (1.1 * (ic - g.c) - 0.7 * (jc - g.c) + 0.3);
    int checked = 0;
    for (int y = 0; y < g.n; ++y)
        for (int x = 0; x < g.n; ++x) {
            if (!inside_disc(g, x, y, 1.0f)) continue;
            const double expected = 1.1 * (x - g.c) - 0.7 * (y - g.c) + 0.3 + offset;
            ASSERT_NEAR(plane[y * g.n + x], expected, 1e-3) << "pixel " << x << ", " << y;
            ++checked;
        }
    EXPECT_GT(checked, 2000);
}

TEST(Phunwrap, touches_nothing_outside_the_chords_but_the_start_neighbours) {
    const Geometry g{40, 20.0f, 9.0f};
    std::vector<float> plane = wrapped_ramp(g, 2.5, 2.0);
    const std::vector<float> before = plane;
    torvel::phunwrap(g.c, g.c, 1.0f, 1.0f, g.radius, g.n, g.n, plane.data());
    for (int y = 0; y < g.n; ++y)
        for (int x = 0; x < g.n; ++x) {
            const float dx = x - g.c, dy = y - g.c;
            if (dx * dx + dy * dy <= (g.radius + 1) * (g.radius + 1)) continue;
            EXPECT_EQ(plane[y * g.n + x], before[y * g.n + x]) << x << ", " << y;
        }
}

TEST(Phunwrap, adjusts_the_start_neighbours_even_for_a_sub_pixel_pupil) {
    std::vector<float> plane(9 * 9, 0.0f);
    plane[4 * 9 + 4] = 3.0f;
    plane[4 * 9 + 3] = -3.0f;  // 6 rad away: one turn up
    plane[4 * 9 + 5] = -3.1f;
    plane[3 * 9 + 4] = -3.0f;  // not a row neighbour: the chord does not reach it
    torvel::phunwrap(4.0f, 4.0f, 1.0f, 1.0f, 0.5f, 9, 9, plane.data());
    EXPECT_EQ(plane[4 * 9 + 4], 3.0f);
    EXPECT_FLOAT_EQ(plane[4 * 9 + 3], -3.0f + static_cast<float>(kTwoPi));
    EXPECT_FLOAT_EQ(plane[4 * 9 + 5], -3.1f + static_cast<float>(kTwoPi));
    EXPECT_EQ(plane[3 * 9 + 4], -3.0f);
}

TEST(Phunwrap, rounds_half_turns_away_from_zero) {
    const float half_turn = static_cast<float>(M_PI);
    EXPECT_EQ(torvel::phcomp(0.0f, -half_turn), static_cast<float>(kTwoPi));
    EXPECT_EQ(torvel::phcomp(0.0f, half_turn), -static_cast<float>(kTwoPi));
    EXPECT_EQ(torvel::phcomp(1.0f, 1.2f), 0.0f);
    EXPECT_EQ(torvel::phcomp(0.0f, 13.0f), static_cast<float>(-2 * kTwoPi));
}

TEST(Phunwrap, stays_inside_the_plane_for_non_square_images_and_far_centres) {
    // Rows are stepped by the row count, so a tall plane would be walked past
    // its end; the sanitizer build checks that nothing outside is touched.
    for (const auto& [nx, ny] : {std::pair{8, 32}, std::pair{32, 8}}) {
        std::vector<float> plane(std::size_t(nx) * ny, 1.0f);
        torvel::phunwrap(nx / 2.0f, ny / 2.0f, 1.0f, 1.0f, 40.0f, nx, ny, plane.data());
        torvel::phunwrap(-5.0f, 1e9f, 1.0f, 1.0f, 40.0f, nx, ny, plane.data());
        for (float v : plane) EXPECT_EQ(v, 1.0f);
    }
}

}  // namespace
