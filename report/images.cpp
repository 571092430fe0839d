// The pupil image and the residual image beside a fit: read through the
// image layer, checked against the model, the phase unwrapped as torvel
// unwraps it before fitting.

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <new>
#include <string>

#include <torvel/driver.hpp>
#include <torvel/fit.hpp>
#include <torvel/imageio.hpp>
#include <torvel/messages.hpp>
#include <torvel/unwrap.hpp>

#include "figure_detail.hpp"

namespace torvel::report_detail {
namespace {

constexpr int kPupilStream = 1;
constexpr int kResidualStream = 2;
constexpr float kWavelengthMatchNm = 0.5f;

// The header values torvel itself reads, and the image's wavelengths.
struct image_header {
    input_header torvel;
    int wave_count = 0;
    float waves[5] = {};
};

// Opens name on stream and reads its header; the layer reports a failure.
int open_image(int stream, const char* name, image_header* h) {
    if (image_open(stream, name, "ro") != 0) return 1;
    read_input_header(stream, &h->torvel);
    image_get_wavelengths(stream, &h->wave_count, h->waves);
    return 0;
}

// Closes the stream on every way out.
struct stream_closer {
    int stream;
    ~stream_closer() { image_close(stream); }
};

image_geometry geometry_of(const input_header& h) {
    return {h.x0, h.y0, h.dx, h.dy, h.na, h.nx, h.ny};
}

// "525, 617" for a list of wavelengths in nm.
std::string nm_list(const float* nm, int count) {
    std::string text;
    for (int k = 0; k < count; ++k) {
        char item[32];
        std::snprintf(item, sizeof item, "%s%g", k > 0 ? ", " : "", double(nm[k]));
        text += item;
    }
    return text;
}

std::vector<float> model_nm(const report_model& model) {
    std::vector<float> nm;
    for (const report_wavelength& w : model.waves)
        nm.push_back(float(std::round(double(w.wavelength_um) * 1e6) / 1e3));
    return nm;
}

// The checks every pupil image passes in torvel, and the aperture of the
// model. Returns 0, or 1 after a message per failed check.
int check_pupil_header(const char* name, const input_header& h, const report_model& model,
                       bool want_complex) {
    int status = 0;
    auto fail = [&](const std::string& what) {
        print_message("torvel-report: %s: %s\n", name, what.c_str());
        status = 1;
    };
    if (h.type != kPupilImageType)
        fail("not a pupil function image (image type code " + std::to_string(h.type) +
             ", not 8000)");
    if (h.nx < 1 || h.ny < 1 || h.nz < 1 || h.nw < 1 || h.nt < 1) fail("holds no image data");
    if (std::int64_t(h.nx) * h.ny > INT_MAX / 2) fail("sections too large for the figure");
    if (!(h.dx > 0.0f && h.dy > 0.0f)) fail("invalid pixel spacing");
    if (want_complex && !(h.complex_pixels && h.nz == 1))
        fail("expected one complex section per wavelength, as torvel writes residuals");
    if (!want_complex && h.nz != (h.complex_pixels ? 1 : 2))
        fail(h.complex_pixels ? "complex pupil image with more than one z section"
                              : "real pupil image without exactly two z sections");
    const float na = h.na;
    if (!(std::fabs(na - model.na) <= 0.0005f)) {
        char text[200];
        std::snprintf(text, sizeof text, "numerical aperture %g does not match %g of %s",
                      double(na), double(model.na), model.file.c_str());
        fail(text);
    }
    return status;
}

// For each wavelength of the model, the index of the image's wavelength
// within 0.5 nm of it (in_order: the image's wavelength of the same slot).
// Returns 0, or 1 after one message naming both lists.
int match_wavelengths(const char* name, const image_header& h, const report_model& model,
                      bool in_order, std::vector<int>* index) {
    const std::vector<float> nm = model_nm(model);
    const int count = h.wave_count < 0 ? 0 : (h.wave_count > 5 ? 5 : h.wave_count);
    bool matched = !in_order || count == int(nm.size());
    for (std::size_t w = 0; matched && w < nm.size(); ++w) {
        int found = -1;
        for (int j = 0; j < count && found < 0; ++j) {
            if (in_order && j != int(w)) continue;
            if (std::fabs(h.waves[j] - nm[w]) <= kWavelengthMatchNm) found = j;
        }
        matched = found >= 0;
        index->push_back(found);
    }
    if (matched) return 0;
    print_message("torvel-report: %s: wavelengths %s nm do not match %s nm of %s\n", name,
                  nm_list(h.waves, count).c_str(), nm_list(nm.data(), int(nm.size())).c_str(),
                  model.file.c_str());
    return 1;
}

// Opens image name on stream and checks it against the model: its header
// (a pupil image, or with residual a residual image of the fit) and its
// wavelengths, whose indices for the model's go to *index. Returns 0 with
// the stream open, or 1 after messages with it closed.
int open_matching_image(int stream, const char* name, const report_model& model, bool residual,
                        image_header* h, std::vector<int>* index) {
    if (open_image(stream, name, h) != 0) return 1;
    int status = check_pupil_header(name, h->torvel, model, residual);
    status |= match_wavelengths(name, *h, model, residual, index);
    if (status != 0) image_close(stream);
    return status != 0 ? 1 : 0;
}

plane allocate_plane(std::int64_t floats) {
    return plane(new (std::nothrow) float[std::size_t(floats)]);
}

int report_no_memory() {
    print_message("torvel-report: insufficient memory for the figure\n");
    return 1;
}

// Reads section (z, w, 0) of stream into buffer. Returns 0, or 1 after a
// message.
int read_section(int stream, const char* name, int z, int w, float* buffer) {
    if (image_seek_section(stream, z, w, 0) != 0) {
        print_message("torvel-report: %s: no section %d of wavelength %d\n", name, z, w);
        return 1;
    }
    return image_read_section(stream, buffer) != 0 ? 1 : 0;
}

// The figure draws what torvel fits, the pixels of the disc; a NaN or an
// infinity there would leave a blank panel that looks like a flat one. A
// complex plane is checked as its real and imaginary halves would be.
int check_finite(const char* name, const image_geometry& g, float cutoff, float wavelength_nm,
                 const float* values, const char* what, bool interleaved = false) {
    bool finite = true;
    if (interleaved) {
        for (int iy = 0; finite && iy < g.ny; ++iy) {
            for (int ix = 0; finite && ix < g.nx; ++ix) {
                const std::int64_t k = 2 * (std::int64_t(iy) * g.nx + ix);
                finite = !locate_pupil_pixel(g.x0, g.y0, g.dx, g.dy, cutoff, g.nx, g.ny, ix, iy)
                              .sampled ||
                         (std::isfinite(values[k]) && std::isfinite(values[k + 1]));
            }
        }
    } else {
        finite = disc_is_finite(g.x0, g.y0, g.dx, g.dy, cutoff, g.nx, g.ny, values);
    }
    if (finite) return 0;
    print_message("torvel-report: %s: the %s at wavelength %g nm is not finite inside the pupil\n",
                 name, what, double(wavelength_nm));
    return 1;
}

}  // namespace

int read_measured_pupil(const char* name, const report_model& model, measured_pupil* out) {
    image_header h{};
    std::vector<int> index;
    if (open_matching_image(kPupilStream, name, model, false, &h, &index) != 0) return 1;
    stream_closer closer{kPupilStream};

    out->geometry = geometry_of(h.torvel);
    const image_geometry& g = out->geometry;
    const std::int64_t pixels = std::int64_t(g.nx) * g.ny;
    const bool complex_pixels = h.torvel.complex_pixels;
    std::vector<int> read_from;  // the image wavelength of each of out->waves
    for (int w : index) {
        const auto known = std::find(read_from.begin(), read_from.end(), w);
        out->of_model.push_back(int(known - read_from.begin()));
        if (known != read_from.end()) continue;
        measured_wavelength m{allocate_plane(complex_pixels ? 2 * pixels : pixels),
                              allocate_plane(pixels), pupil_cutoff(g.na, h.waves[w])};
        if (!m.amplitude || !m.phase) return report_no_memory();
        if (read_section(kPupilStream, name, 0, w, m.amplitude.get()) != 0) return 1;
        if (complex_pixels) {
            separate_amplitude_phase(int(pixels), m.amplitude.get(), m.phase.get());
        } else if (read_section(kPupilStream, name, 1, w, m.phase.get()) != 0) {
            return 1;
        }
        if (check_finite(name, g, m.cutoff, h.waves[w], m.amplitude.get(), "amplitude") != 0 ||
            check_finite(name, g, m.cutoff, h.waves[w], m.phase.get(), "phase") != 0)
            return 1;
        phunwrap(g.x0, g.y0, g.dx, g.dy, m.cutoff, g.nx, g.ny, m.phase.get());
        out->waves.push_back(std::move(m));
        read_from.push_back(w);
    }
    return 0;
}

int read_residual_image(const char* name, const report_model& model, residual_image* out) {
    image_header h{};
    std::vector<int> index;
    if (open_matching_image(kResidualStream, name, model, true, &h, &index) != 0) return 1;
    stream_closer closer{kResidualStream};

    out->geometry = geometry_of(h.torvel);
    const std::int64_t pixels = std::int64_t(h.torvel.nx) * h.torvel.ny;
    for (int w : index) {
        plane section = allocate_plane(2 * pixels);
        if (!section) return report_no_memory();
        if (read_section(kResidualStream, name, 0, w, section.get()) != 0) return 1;
        const float cutoff = pupil_cutoff(out->geometry.na, h.waves[w]);
        if (check_finite(name, out->geometry, cutoff, h.waves[w], section.get(), "residual",
                         true) != 0)
            return 1;
        out->waves.push_back(std::move(section));
        out->cutoff.push_back(cutoff);
    }
    return 0;
}

}  // namespace torvel::report_detail
