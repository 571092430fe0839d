#pragma once
// Shared by the fit tests: a pupil geometry, the pixels it selects, their
// pupil coordinates and planes made from a Zernike series.

#include <cmath>
#include <cstddef>
#include <vector>

#include "fit/fit.hpp"
#include "zernike/zernike.hpp"

namespace torvel {

struct Geometry {
    float x0, y0, dx, dy, cutoff;
    int nx, ny;
};

// Indices (iy * nx + ix) of the pixels fill_rhs selects, in its order.
inline std::vector<int> selected_pixels(const Geometry& g) {
    std::vector<float> section(static_cast<std::size_t>(g.nx) * g.ny);
    for (std::size_t i = 0; i < section.size(); ++i) section[i] = static_cast<float>(i);
    std::vector<double> rhs(section.size() + 1);
    int nrow = -1;
    fill_rhs(g.x0, g.y0, g.dx, g.dy, g.cutoff, g.nx, g.ny, section.data(), rhs.data(), &nrow);
    return std::vector<int>(rhs.begin(), rhs.begin() + nrow);
}

// Pupil coordinates of a pixel, as the mapping defines them.
inline void pupil_coordinates(const Geometry& g, int pixel, double* rho, double* theta) {
    const float x = (static_cast<float>(pixel % g.nx) - g.x0) * g.dx;
    const float y = (static_cast<float>(pixel / g.nx) - g.y0) * g.dy;
    *rho = std::sqrt(static_cast<double>(x * x + y * y)) / static_cast<double>(g.cutoff);
    *theta = *rho > 0.0 ? std::atan2(static_cast<double>(y), static_cast<double>(x)) : 0.0;
}

// A plane holding the series (n, m, c) rounded to float on the selected
// pixels and `outside` everywhere else.
inline std::vector<float> series_plane(const Geometry& g, int n, int m,
                                       const std::vector<double>& c, float outside) {
    std::vector<float> plane(static_cast<std::size_t>(g.nx) * g.ny, outside);
    for (int pixel : selected_pixels(g)) {
        double rho = 0.0, theta = 0.0;
        pupil_coordinates(g, pixel, &rho, &theta);
        plane[pixel] = static_cast<float>(evaluate_zernike_series(rho, theta, n, m, c.data()));
    }
    return plane;
}

}  // namespace torvel
