// pupil_model: reads a fit file that torvel wrote and prints the fitted pupil
// (amplitude and phase in radians) of every wavelength at a few points of the
// pupil, rho being the radius normalised to 1 at the edge (NA / wavelength)
// and theta the angle from the +x axis.
//
//   pupil_model fit.txt
//
// An example of a program built against the installed torvel library, with
// CMake (see CMakeLists.txt) or with pkg-config:
//   c++ -std=c++20 pupil_model.cpp $(pkg-config --cflags --libs torvel) -o pupil_model

#include <cstdint>
#include <cstdio>
#include <numbers>

#include <torvel/torvel.hpp>

namespace {

struct PupilPoint {
    double rho, theta;
};

constexpr PupilPoint kPoints[] = {
    {0.0, 0.0}, {0.5, 0.0}, {0.5, std::numbers::pi / 2}, {1.0, 0.0}, {1.0, std::numbers::pi}};

// A series that was not fitted is the model's default: uniform amplitude 1
// and zero phase inside the aperture.
double series_value(double rho, double theta, int n, int m, const double* coeff,
                    double absent_value) {
    if (n < 0 || coeff == nullptr) return absent_value;
    return torvel::evaluate_zernike_series(rho, theta, n, m, coeff);
}

void print_wavelength(torvel::ParametricPupil* pupil, int w) {
    int amp_n = 0, amp_m = 0, phase_n = 0, phase_m = 0;
    torvel::get_parametric_pupil_amplitude_zernike_orders(pupil, &amp_n, &amp_m);
    torvel::get_parametric_pupil_phase_zernike_orders(pupil, &phase_n, &phase_m);
    const double* amplitude = torvel::get_parametric_pupil_amplitude_zernike_coeff(pupil, w);
    const double* phase = torvel::get_parametric_pupil_phase_zernike_coeff(pupil, w);
    const double wavelength = torvel::get_parametric_pupil_wavelength(pupil, w);
    const double na = torvel::get_parametric_pupil_numerical_aperture(pupil);
    std::printf("wavelength %d: %.3f um, pupil radius %.4f 1/um\n", w, wavelength, na / wavelength);
    std::printf("    rho  theta  amplitude  phase/rad\n");
    for (const PupilPoint& p : kPoints) {
        std::printf("  %5.2f  %5.2f  %9.4f  %9.4f\n", p.rho, p.theta,
                    series_value(p.rho, p.theta, amp_n, amp_m, amplitude, 1.0),
                    series_value(p.rho, p.theta, phase_n, phase_m, phase, 0.0));
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: pupil_model fit_file\n");
        return 1;
    }
    std::int32_t error = 0, line = 0, column = 0;
    torvel::ParametricPupil* pupil = torvel::read_parametric_pupil(argv[1], &error, &line, &column);
    if (pupil == nullptr) {
        std::fprintf(stderr, "pupil_model: %s: not read (error %d at line %d, column %d)\n",
                     argv[1], error, line, column);
        return 1;
    }
    const int count = torvel::get_parametric_pupil_wavelength_count(pupil);
    for (int w = 0; w < count; ++w) print_wavelength(pupil, w);
    torvel::destroy_parametric_pupil(pupil);
    return 0;
}
