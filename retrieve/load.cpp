// The bead stack: read, checked, its background estimated, the bead found
// and each wavelength cropped around it.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <new>
#include <vector>

#include <torvel/retrieve.hpp>
#include <torvel/messages.hpp>

namespace torvel {
namespace {

constexpr const char* kProgram = "torvel-retrieve";

// A bead must stand out of the background's noise by this many standard
// deviations (estimated from the border) to count as found.
constexpr double kBeadSigmas = 10.0;

// Spacing and wavelengths: the options' where given, else the file's.
int settle_geometry(const retrieve_inputs& inputs, image_stack_header* h) {
    int error = 0;
    if (inputs.dx_nm > 0) h->dx_um = h->dy_um = float(inputs.dx_nm / 1000.0);
    if (inputs.dz_nm > 0) h->dz_um = float(inputs.dz_nm / 1000.0);
    if (!(h->dx_um > 0) || !(h->dz_um > 0)) {
        print_message("%s: %s gives no %s spacing: give it with %s\n", kProgram,
                     inputs.stack_name, h->dx_um > 0 ? "plane" : "pixel",
                     h->dx_um > 0 ? "-dz=nm" : "-dx=nm");
        error = 1;
    }
    if (inputs.wavelength_count > 0) {
        if (inputs.wavelength_count != h->nw) {
            print_message("%s: -w= gives %d wavelength(s) for the %d of %s\n", kProgram,
                         inputs.wavelength_count, h->nw, inputs.stack_name);
            return 1;
        }
        for (int w = 0; w < h->nw; ++w) h->wavelengths_nm[w] = float(inputs.wavelength_nm[w]);
    }
    for (int w = 0; w < h->nw; ++w) {
        if (!(h->wavelengths_nm[w] > 0)) {
            print_message("%s: %s names no wavelength: give it with -w=nm\n", kProgram,
                         inputs.stack_name);
            return 1;
        }
    }
    return error;
}

int check_shape(const retrieve_inputs& inputs, const image_stack_header& h,
                std::span<const float> voxels) {
    if (h.nz < 3) {
        print_message("%s: %s has %d plane(s); retrieval needs at least 3\n", kProgram,
                     inputs.stack_name, h.nz);
        return 1;
    }
    if (inputs.size > h.nx || inputs.size > h.ny) {
        print_message("%s: the %d-pixel crop is larger than the %d x %d image; give a "
                     "smaller -size=\n", kProgram, inputs.size, h.nx, h.ny);
        return 1;
    }
    for (std::size_t k = 0; k < voxels.size(); ++k) {
        if (!std::isfinite(voxels[k])) {
            print_message("%s: %s has a non-finite voxel (number %zu)\n", kProgram,
                         inputs.stack_name, k);
            return 1;
        }
    }
    // The pupil image holds the disc only when the pixel is fine enough.
    const double dx = h.dx_um;
    for (int w = 0; w < h.nw; ++w) {
        const double limit = 0.45 * h.wavelengths_nm[w] / 1000.0 / inputs.na;
        if (dx > limit) {
            print_message("%s: the %g nm pixel is too coarse for NA %g at %g nm (at most "
                         "%.0f nm, 0.45 wavelength / NA)\n", kProgram, dx * 1000.0, inputs.na,
                         double(h.wavelengths_nm[w]), limit * 1000.0);
            return 1;
        }
    }
    return 0;
}

// The border voxels' spread, as a standard deviation from the median
// absolute deviation; 0 for a noise-free stack.
double border_sigma(std::span<const float> voxels, int nx, int ny, int nz, double median) {
    std::vector<float> deviations;
    for (int k = 0; k < nz; ++k)
        for (int j = 0; j < ny; ++j)
            for (int i = 0; i < nx; ++i) {
                if (i != 0 && i != nx - 1 && j != 0 && j != ny - 1) continue;
                const float v = voxels[(std::size_t(k) * ny + j) * nx + i];
                deviations.push_back(float(std::abs(v - median)));
            }
    auto middle = deviations.begin() + std::ptrdiff_t(deviations.size() / 2);
    std::nth_element(deviations.begin(), middle, deviations.end());
    return 1.4826 * double(*middle);
}

// The brightest voxel after a 3 x 3 box sum in each plane, so that a single
// hot pixel is not taken for the bead.
void find_brightest(std::span<const float> voxels, int nx, int ny, int nz, int* bx, int* by,
                    int* bz, double* value) {
    double best = -1e300;
    for (int k = 0; k < nz; ++k)
        for (int j = 0; j < ny; ++j)
            for (int i = 0; i < nx; ++i) {
                double sum = 0;
                int count = 0;
                for (int dj = -1; dj <= 1; ++dj)
                    for (int di = -1; di <= 1; ++di) {
                        const int x = i + di, y = j + dj;
                        if (x < 0 || y < 0 || x >= nx || y >= ny) continue;
                        sum += voxels[(std::size_t(k) * ny + y) * nx + x];
                        ++count;
                    }
                sum /= count;
                if (sum > best) {
                    best = sum;
                    *bx = i;
                    *by = j;
                    *bz = k;
                }
            }
    *value = best;
}

int crop_wavelength(const retrieve_inputs& inputs, const image_stack_header& h,
                    std::span<const float> voxels, int w, bead_stack* bead) {
    const int nx = h.nx, ny = h.ny, nz = h.nz, n = inputs.size;
    const double median = estimate_background(voxels, nx, ny, nz);
    const double sigma = border_sigma(voxels, nx, ny, nz, median);
    int bx = 0, by = 0, bz = 0;
    double peak = 0;
    find_brightest(voxels, nx, ny, nz, &bx, &by, &bz, &peak);
    const char* which = h.nw > 1 ? " in one wavelength" : "";
    if (!(peak - median > kBeadSigmas * sigma) || !(peak > median)) {
        print_message("%s: %s: no bead found%s: nothing stands out of the background "
                     "(%g, noise %g)\n", kProgram, inputs.stack_name, which, median, sigma);
        return 1;
    }
    if (bx == 0 || by == 0 || bx == nx - 1 || by == ny - 1 || bz == 0 || bz == nz - 1) {
        print_message("%s: %s: no bead found%s: the brightest voxel (%d, %d, %d) lies on "
                     "the stack's edge\n", kProgram, inputs.stack_name, which, bx, by, bz);
        return 1;
    }
    const int x0 = bx - n / 2, y0 = by - n / 2;
    if (x0 < 0 || y0 < 0 || x0 + n > nx || y0 + n > ny) {
        print_message("%s: %s: the bead at pixel (%d, %d) lies too near the image's edge "
                     "for a %d-pixel crop; give a smaller -size=\n", kProgram, inputs.stack_name,
                     bx, by, n);
        return 1;
    }
    bead->size = n;
    bead->nz = nz;
    bead->dx_um = h.dx_um;
    bead->dz_um = h.dz_um;
    bead->wavelength_um = h.wavelengths_nm[w] / 1000.0;
    bead->background_fixed = !inputs.background_auto;
    bead->background = inputs.background_auto ? median : inputs.background;
    bead->x0 = x0;
    bead->y0 = y0;
    bead->bead_x = bx;
    bead->bead_y = by;
    bead->bead_z = bz;
    bead->voxels.reset(new (std::nothrow) float[std::size_t(n) * n * nz]);
    if (!bead->voxels) {
        print_message("%s: insufficient memory for the crop\n", kProgram);
        return 1;
    }
    for (int k = 0; k < nz; ++k)
        for (int j = 0; j < n; ++j)
            std::copy_n(&voxels[(std::size_t(k) * ny + (y0 + j)) * nx + x0], n,
                        &bead->voxels[(std::size_t(k) * n + j) * n]);
    return 0;
}

}  // namespace

double estimate_background(std::span<const float> voxels, int nx, int ny, int nz) {
    std::vector<float> border;
    border.reserve(std::size_t(2 * (nx + ny)) * nz);
    for (int k = 0; k < nz; ++k)
        for (int j = 0; j < ny; ++j)
            for (int i = 0; i < nx; ++i)
                if (i == 0 || i == nx - 1 || j == 0 || j == ny - 1)
                    border.push_back(voxels[(std::size_t(k) * ny + j) * nx + i]);
    auto middle = border.begin() + std::ptrdiff_t(border.size() / 2);
    std::nth_element(border.begin(), middle, border.end());
    return *middle;
}

int load_bead_data(const retrieve_inputs& inputs, bead_data* data) {
    image_stack_header h;
    std::unique_ptr<float[]> voxels;
    if (read_image_stack(inputs.stack_name, &h, &voxels) != 0) return 1;
    const std::size_t count = std::size_t(h.nx) * h.ny * h.nz * h.nw;
    return load_bead_voxels(inputs, h, {voxels.get(), count}, data);
}

int load_bead_voxels(const retrieve_inputs& inputs, image_stack_header h,
                     std::span<const float> voxels, bead_data* data) {
    if (settle_geometry(inputs, &h) != 0) return 1;
    const std::size_t per_wavelength = std::size_t(h.nx) * h.ny * h.nz;
    const std::span<const float> all = voxels.first(per_wavelength * h.nw);
    if (check_shape(inputs, h, all) != 0) return 1;
    data->header = h;
    data->wavelengths = h.nw;
    for (int w = 0; w < h.nw; ++w)
        if (crop_wavelength(inputs, h, all.subspan(per_wavelength * w, per_wavelength), w,
                            &data->stacks[w]) != 0)
            return 1;
    return 0;
}

}  // namespace torvel
