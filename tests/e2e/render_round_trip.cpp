// torvel-render and torvel close the loop: a model with known coefficients,
// rendered and fitted again with the same Zernike sets, comes back within
// 1e-6 of its largest coefficient. The images are square: torvel's phase
// unwrapping walks rows of other images askew (docs/usage.md). A complex image holds only the
// wrapped phase, so there the phase piston may come back off by whole turns.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "fixtures.hpp"
#include <torvel/driver.hpp>
#include <torvel/imageio.hpp>
#include <torvel/pupil.hpp>

namespace fs = std::filesystem;

namespace {

using torvel_e2e::Pupil;
using torvel_e2e::read_fit;

constexpr double kTwoPi = 6.283185307179586;

// A model of two wavelengths (0.5 and 0.63 um, NA 1.2 in water) with every
// coefficient set, smaller at higher orders so that the phase changes by
// well under a turn per pixel; amplitude (-1, -1) means no amplitude series.
// Written to dir / name and read back, so the coefficients are the ones the
// file holds.
Pupil write_model(const fs::path& dir, const char* name, int amp_n, int amp_m, int phase_n,
                  int phase_m) {
    Pupil p(torvel::create_parametric_pupil());
    EXPECT_TRUE(torvel::set_parametric_pupil_na_nimm(p.get(), 1.2f, 1.33f) &&
                torvel::set_parametric_pupil_lens_id(p.get(), 5) &&
                torvel::set_parametric_pupil_wavelength_count(p.get(), 2) &&
                torvel::set_parametric_pupil_amplitude_zernike_orders(p.get(), amp_n, amp_m) &&
                torvel::set_parametric_pupil_phase_zernike_orders(p.get(), phase_n, phase_m));
    for (int w = 0; w < 2; ++w) {
        torvel::set_parametric_pupil_wavelength(p.get(), w, w == 0 ? 0.5f : 0.63f);
        double* a = torvel::get_parametric_pupil_amplitude_zernike_coeff(p.get(), w);
        for (int k = 0; k < torvel::get_parametric_pupil_amplitude_zernike_count(p.get()); ++k)
            a[k] = k == 0 ? 0.8 : 0.015 * std::sin(3.1 * k + w);
        double* f = torvel::get_parametric_pupil_phase_zernike_coeff(p.get(), w);
        for (int k = 0; k < torvel::get_parametric_pupil_phase_zernike_count(p.get()); ++k)
            f[k] = (k == 0 ? 2.0 : 1.2 / (1 + k / 3)) * std::cos(1.7 * k + w);
    }
    std::int32_t code = 0;
    EXPECT_TRUE(torvel::write_parametric_pupil(p.get(), (dir / name).c_str(), &code));
    return read_fit(dir / name);
}

// Runs program with args in dir; fails the test on a non-zero exit.
void run_ok(const fs::path& dir, const std::string& program, const std::string& args) {
    const torvel_e2e::RunResult r = torvel_e2e::run_in(dir, program, args);
    ASSERT_EQ(r.status, 0) << program << " " << args << ": " << r.err;
}

// Every one of count fitted coefficients against the model's, within 1e-6 of
// the model's largest; the first (the piston) up to whole turns when
// turns_allowed.
void expect_series(const double* fitted, const double* model, int count, bool turns_allowed,
                   const char* what) {
    double largest = 0.0;
    for (int k = 0; k < count; ++k) largest = std::max(largest, std::fabs(model[k]));
    for (int k = 0; k < count; ++k) {
        double difference = fitted[k] - model[k];
        if (k == 0 && turns_allowed) difference -= kTwoPi * std::round(difference / kTwoPi);
        EXPECT_LE(std::fabs(difference), 1e-6 * largest)
            << what << " term " << k << ": " << fitted[k] << " for " << model[k];
    }
}

void expect_model_back(torvel::ParametricPupil* back, int slot, torvel::ParametricPupil* model,
                       int w, bool complex_form) {
    ASSERT_EQ(torvel::get_parametric_pupil_amplitude_zernike_count(back),
              torvel::get_parametric_pupil_amplitude_zernike_count(model));
    ASSERT_EQ(torvel::get_parametric_pupil_phase_zernike_count(back),
              torvel::get_parametric_pupil_phase_zernike_count(model));
    EXPECT_FLOAT_EQ(torvel::get_parametric_pupil_wavelength(back, slot),
                    torvel::get_parametric_pupil_wavelength(model, w));
    expect_series(torvel::get_parametric_pupil_amplitude_zernike_coeff(back, slot),
                  torvel::get_parametric_pupil_amplitude_zernike_coeff(model, w),
                  torvel::get_parametric_pupil_amplitude_zernike_count(model), false, "amplitude");
    expect_series(torvel::get_parametric_pupil_phase_zernike_coeff(back, slot),
                  torvel::get_parametric_pupil_phase_zernike_coeff(model, w),
                  torvel::get_parametric_pupil_phase_zernike_count(model), complex_form, "phase");
}

TEST(RenderRoundTrip, brings_back_every_coefficient_in_both_forms_with_the_centre_off_the_grid) {
    const fs::path dir = torvel_e2e::fresh_case_dir("round_trip");
    const Pupil model = write_model(dir, "model.txt", 4, 2, 6, 4);
    const std::string sets = " -zernike_amp=4:2 -zernike_phase=6:4";
    run_ok(dir, TORVEL_RENDER_BINARY, "model.txt model_complex.mrc -size=96 -centre=47.37:46.62");
    run_ok(dir, TORVEL_BINARY, "model_complex.mrc back_complex.txt" + sets);
    run_ok(dir, TORVEL_RENDER_BINARY,
           "model.txt model_real.mrc -size=96 -centre=47.37:46.62 -form=real -w=630:0");
    run_ok(dir, TORVEL_BINARY, "model_real.mrc back_real.txt" + sets);

    // torvel finds the pupil centre where it was asked for.
    ASSERT_EQ(torvel::image_open(5, (dir / "model_real.mrc").c_str(), "ro"), 0);
    torvel::input_header h;
    torvel::read_input_header(5, &h);
    torvel::image_close(5);
    EXPECT_EQ(h.x0, 47.37f);
    EXPECT_EQ(h.y0, 46.62f);

    const Pupil complex_back = read_fit(dir / "back_complex.txt");
    const Pupil real_back = read_fit(dir / "back_real.txt");
    ASSERT_TRUE(model && complex_back && real_back);
    EXPECT_EQ(torvel::get_parametric_pupil_lens_id(complex_back.get()), 5);
    EXPECT_FLOAT_EQ(torvel::get_parametric_pupil_numerical_aperture(real_back.get()), 1.2f);
    for (int w = 0; w < 2; ++w) {
        expect_model_back(complex_back.get(), w, model.get(), w, true);
        // The real form holds the phase unwrapped: its piston comes back as it is.
        expect_model_back(real_back.get(), w, model.get(), 1 - w, false);
    }
}

TEST(RenderRoundTrip, leaves_out_dropped_terms_and_renders_amplitude_one_without_a_series) {
    const fs::path dir = torvel_e2e::fresh_case_dir("round_trip_drop");
    const Pupil model = write_model(dir, "model.txt", -1, -1, 3, 1);
    run_ok(dir, TORVEL_RENDER_BINARY, "model.txt m.mrc -size=64 -drop=defocus,3:1");
    run_ok(dir, TORVEL_BINARY, "m.mrc back.txt -zernike_amp=2:0 -zernike_phase=3:1");
    const Pupil back = read_fit(dir / "back.txt");
    ASSERT_TRUE(model && back);
    const double one[4] = {1.0, 0.0, 0.0, 0.0};
    for (int w = 0; w < 2; ++w) {
        double* phase = torvel::get_parametric_pupil_phase_zernike_coeff(model.get(), w);
        phase[3] = phase[6] = phase[7] = 0.0;  // R2^0, R3^1 cos and sin
        expect_series(torvel::get_parametric_pupil_amplitude_zernike_coeff(back.get(), w), one, 4,
                      false, "amplitude");
        expect_series(torvel::get_parametric_pupil_phase_zernike_coeff(back.get(), w), phase, 8,
                      true, "phase");
    }
}

}  // namespace
