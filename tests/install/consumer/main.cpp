// A program outside the project that finds the installed torvel package and
// uses its library: R_2^0(0.5) = 2 * 0.25 - 1.
#include <cstdio>

#include <torvel/pupil.hpp>
#include <torvel/zernike.hpp>

int main() {
    torvel::ParametricPupil* pupil = torvel::create_parametric_pupil();
    const bool ok = pupil != nullptr && torvel::evaluate_rnm(0.5, 2, 0) == -0.5 &&
                    torvel::zernike_term_count(8, 0) == 37;
    torvel::destroy_parametric_pupil(pupil);
    std::puts(ok ? "consumer ok" : "consumer got wrong values");
    return ok ? 0 : 1;
}
