// One pixel's place in the pupil, for code outside fit/ that must agree with
// the fit pixel for pixel (a rendered model is sampled where torvel samples).

#include <torvel/fit.hpp>

#include "sampling.hpp"

namespace torvel {

pupil_pixel locate_pupil_pixel(float x0, float y0, float dx, float dy, float cutoff, int nx, int ny,
                               int ix, int iy) {
    const fit_detail::PupilGeometry g{x0, y0, dx, dy, cutoff, nx, ny};
    const float x = fit_detail::axis_offset(ix, x0, dx);
    const float y = fit_detail::axis_offset(iy, y0, dy);
    const fit_detail::PupilPoint p = fit_detail::pupil_point(x, y, y * y, cutoff);
    const fit_detail::IndexRange rows = fit_detail::disc_rows(g);
    bool sampled = false;
    if (iy >= rows.begin && iy < rows.end) {
        const fit_detail::IndexRange columns = fit_detail::disc_columns(g, y);
        sampled = ix >= columns.begin && ix < columns.end;
    }
    return {p.rho, p.theta, sampled};
}

}  // namespace torvel
