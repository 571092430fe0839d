// Whether the pixels a fit would use are numbers: a NaN or an infinity in
// the pupil makes every coefficient of the fit meaningless.

#include <cmath>

#include <torvel/fit.hpp>
#include "sampling.hpp"

namespace torvel {

bool disc_is_finite(float x0, float y0, float dx, float dy, float cutoff, int nx, int ny,
                    const float* section) {
    const fit_detail::PupilGeometry g{x0, y0, dx, dy, cutoff, nx, ny};
    bool finite = true;
    fit_detail::for_each_disc_row(g, [&](int iy, float, fit_detail::IndexRange columns) {
        const float* row = section + std::int64_t(iy) * nx;
        for (int ix = columns.begin; ix < columns.end && finite; ++ix)
            finite = std::isfinite(row[ix]);
    });
    return finite;
}

}  // namespace torvel
