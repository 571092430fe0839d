// End-to-end checks of what a run writes: the residual image's layout,
// header and values, and the fit of each slot against the model the input
// was rendered from (render_round_trip.cpp holds the round trips proper).

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include "fixtures.hpp"
#include <torvel/imageio.hpp>
#include <torvel/pupil.hpp>

namespace fs = std::filesystem;

namespace {

using torvel_e2e::Pupil;
using torvel_e2e::read_fit;

fs::path run_ok(const std::string& name, const std::string& args) {
    const fs::path dir = torvel_e2e::fresh_case_dir(name);
    const torvel_e2e::RunResult r = torvel_e2e::run_in(dir, TORVEL_BINARY, args);
    EXPECT_EQ(r.status, 0) << r.err;
    return dir;
}

// Coefficients of fit wavelength `slot` against the model's wavelength
// `source`, to the accuracy a noise-free 64 x 64 sample allows.
void expect_fit_of(torvel::ParametricPupil* f, int slot, torvel::ParametricPupil* t, int source) {
    ASSERT_EQ(torvel::get_parametric_pupil_amplitude_zernike_count(f), 37);
    ASSERT_EQ(torvel::get_parametric_pupil_phase_zernike_count(f), 37);
    EXPECT_FLOAT_EQ(torvel::get_parametric_pupil_wavelength(f, slot),
                    torvel::get_parametric_pupil_wavelength(t, source));
    const double* fa = torvel::get_parametric_pupil_amplitude_zernike_coeff(f, slot);
    const double* ta = torvel::get_parametric_pupil_amplitude_zernike_coeff(t, source);
    const double* fp = torvel::get_parametric_pupil_phase_zernike_coeff(f, slot);
    const double* tp = torvel::get_parametric_pupil_phase_zernike_coeff(t, source);
    for (int k = 0; k < 37; ++k) {
        EXPECT_NEAR(fa[k], ta[k], 1e-4) << "amplitude term " << k;
        EXPECT_NEAR(fp[k], tp[k], 1e-3) << "phase term " << k;
    }
}

// An image read whole through the layer: one complex plane per section.
struct Image {
    int nx = 0, ny = 0, nz = 0, nw = 0, nt = 0, mode = 0, labels = 0;
    float dmin = 0, dmax = 0, dmean = 0;
    float waves[5] = {};
    std::vector<std::vector<float>> sections;  // by wavelength, time 0, z 0
};

Image read_image(const fs::path& path) {
    Image im;
    EXPECT_EQ(torvel::image_open(4, path.c_str(), "ro"), 0) << path;
    int dims[3], second[3], order, count;
    torvel::image_read_header(4, dims, second, &im.mode, &im.dmin, &im.dmax, &im.dmean);
    torvel::image_get_zwt_sizes(4, &im.nz, &im.nw, &im.nt, &order);
    torvel::image_get_wavelengths(4, &count, im.waves);
    im.nx = dims[0];
    im.ny = dims[1];
    im.labels = torvel::image_get_label_count(4);
    const int per_pixel = (im.mode == 3 || im.mode == 4) ? 2 : 1;
    for (int w = 0; w < im.nw; ++w) {
        im.sections.emplace_back(std::size_t(per_pixel) * im.nx * im.ny);
        EXPECT_EQ(torvel::image_seek_section(4, 0, w, 0), 0);
        EXPECT_EQ(torvel::image_read_section(4, im.sections.back().data()), 0);
    }
    torvel::image_close(4);
    return im;
}

// Pixels clearly inside the disc must carry a residual near zero; pixels
// clearly outside it carry the measured pupil itself.
void expect_residual_of(const std::vector<float>& residual, const std::vector<float>& input, int n,
                        double radius_px) {
    float real_min = 3.4e38f;
    for (int iy = 0; iy < n; ++iy)
        for (int ix = 0; ix < n; ++ix) {
            const std::size_t k = 2 * (std::size_t(iy) * n + ix);
            const double r = std::hypot(ix - n / 2, iy - n / 2);
            if (r < 0.9 * radius_px) {
                EXPECT_NEAR(residual[k], 0.0f, 2e-3) << ix << "," << iy;
                EXPECT_NEAR(residual[k + 1], 0.0f, 2e-3) << ix << "," << iy;
            } else if (r > radius_px + 1.5) {
                EXPECT_NEAR(residual[k], input[k], 1e-5) << ix << "," << iy;
                EXPECT_NEAR(residual[k + 1], input[k + 1], 1e-5) << ix << "," << iy;
            }
            real_min = std::min(real_min, residual[k]);
        }
    EXPECT_LT(real_min, 0.0f);  // the band just outside the disc is measured, not fitted
}

TEST(ResidualImage, holds_one_complex_section_per_slot_in_selection_order) {
    const fs::path dir =
        run_ok("residual_reordered", "complex.mrc fit.txt -w=1:0 -residual=res.mrc");
    const Image input = read_image(dir / "complex.mrc");
    const Image res = read_image(dir / "res.mrc");
    EXPECT_EQ(res.mode, 4);
    EXPECT_EQ(res.nx, 64);
    EXPECT_EQ(res.nz, 1);
    EXPECT_EQ(res.nw, 2);
    EXPECT_EQ(res.nt, 1);
    EXPECT_EQ(res.waves[0], 617.0f);
    EXPECT_EQ(res.waves[1], 525.0f);
    EXPECT_EQ(res.labels, input.labels);  // titles are copied from the input
    ASSERT_EQ(res.sections.size(), 2u);
    // 0.9 * 32 pixels is the disc radius at 525 nm; 617 nm's is smaller.
    expect_residual_of(res.sections[0], input.sections[1], 64, 28.8 * 525.0 / 617.0);
    expect_residual_of(res.sections[1], input.sections[0], 64, 28.8);

    // Slot 0's statistics are the image-wide ones; the fit file follows the slots.
    const auto [lo, hi] = std::minmax_element(res.sections[0].begin(), res.sections[0].end());
    EXPECT_LE(res.dmin, res.dmax);
    EXPECT_GE(res.dmin, *lo);
    EXPECT_LE(res.dmax, *hi);
    const Pupil fit = read_fit(dir / "fit.txt"), truth = read_fit(dir / "truth.txt");
    ASSERT_TRUE(fit && truth);
    expect_fit_of(fit.get(), 0, truth.get(), 1);
    expect_fit_of(fit.get(), 1, truth.get(), 0);
}

TEST(ResidualImage, keeps_the_sections_written_before_a_failing_fit) {
    // On 16 x 16 pixels the 617 nm disc has fewer pixels (121) than the 122
    // terms of the set (15, 1), the 525 nm one enough: the second slot's phase
    // fit fails.
    const fs::path dir = torvel_e2e::fresh_case_dir("residual_after_failure");
    const torvel_e2e::RunResult r = torvel_e2e::run_in(
        dir, TORVEL_BINARY, "small.mrc fit.txt -zernike_phase=15:1 -residual=res.mrc");
    EXPECT_EQ(r.status, 1);
    EXPECT_FALSE(fs::exists(dir / "fit.txt"));
    ASSERT_TRUE(fs::exists(dir / "res.mrc"));
    EXPECT_EQ(fs::file_size(dir / "res.mrc"), 1024u + 16u * 16u * 8u);

    // The header is complete and still describes both slots.
    std::ifstream in(dir / "res.mrc", std::ios::binary);
    char header[1024];
    in.read(header, sizeof header);
    std::int32_t mode, nz;
    std::int16_t nw;
    std::memcpy(&nz, header + 8, 4);
    std::memcpy(&mode, header + 12, 4);
    std::memcpy(&nw, header + 136, 2);
    EXPECT_EQ(std::string(header + 208, 4), "MAP ");
    EXPECT_EQ(mode, 4);
    EXPECT_EQ(nz, 2);
    EXPECT_EQ(nw, 2);
}

}  // namespace
