// The steps of one fitting run, in the order main takes them.

#include <cstdint>
#include <cstdio>
#include <limits>
#include <new>

#include <torvel/driver.hpp>
#include <torvel/fit.hpp>
#include <torvel/imageio.hpp>
#include <torvel/messages.hpp>
#include <torvel/pupil.hpp>
#include <torvel/safeout.hpp>
#include <torvel/unwrap.hpp>

namespace torvel {
namespace {

constexpr int kInput = 1;
constexpr int kResidual = 2;
constexpr int kComplexFloatMode = 4;

bool is_complex_mode(int mode) {
    return mode == 3 || mode == 4;
}

// Floats in one plane of the image; the fitting code indexes pixels with int,
// so a plane must stay countable in one.
std::int64_t plane_pixels(const input_header& header) {
    return std::int64_t(header.nx) * header.ny;
}

bulk_array<float> allocate_floats(std::int64_t count) {
    if (count <= 0 || count > std::numeric_limits<int>::max()) return nullptr;
    return allocate_bulk<float>(count);
}

int report_insufficient_memory() {
    print_message("torvel: insufficient memory\n");
    return 1;
}

// The residual of one slot: computed into a plane of its own, written at
// output section (0, slot, 0). Slot 0's statistics become the image-wide ones
// of the final header; later slots record theirs per wavelength.
int write_residual_section(const fit_inputs& inputs, const input_header& h, int slot,
                           fit_run* run) {
    if (image_seek_section(kResidual, 0, slot, 0) != 0) {
        print_message("torvel: unable to position at output section 0 %d 0\n", slot);
        return 1;
    }
    bulk_array<float> residual = allocate_floats(2 * plane_pixels(h));
    if (!residual) return report_insufficient_memory();
    float stats[3];
    compute_slot_residual(inputs, h, slot, run->amplitude.get(), run->phase.get(), run->pupil.get(),
                          residual.get(), stats);
    if (slot == 0) {
        for (int k = 0; k < 3; ++k) run->residual_stats[k] = stats[k];
    } else {
        image_set_wavelength_min_max(kResidual, slot, stats[0], stats[1]);
    }
    return image_write_section(kResidual, residual.get()) != 0 ? 1 : 0;
}

// A NaN or an infinity among the pixels a fit uses would make every
// coefficient of the fit, and the fit file, meaningless.
int check_finite_planes(const fit_inputs& inputs, const input_header& h, int slot, float cutoff,
                        const float* amplitude, const float* phase) {
    const float* planes[2] = {amplitude, phase};
    const char* names[2] = {"amplitude", "phase"};
    for (int k = 0; k < 2; ++k) {
        if (disc_is_finite(h.x0, h.y0, h.dx, h.dy, cutoff, h.nx, h.ny, planes[k])) continue;
        print_message(
            "torvel: %s: the %s at wavelength %.0f (%d) is not finite inside the "
            "pupil\n",
            inputs.input_name, names[k], double(inputs.wavelength[slot]),
            inputs.wavelength_index[slot]);
        return 1;
    }
    return 0;
}

}  // namespace

fit_run::~fit_run() {
    if (input_open) image_close(kInput);
    if (residual_open) {
        // A run that failed keeps the sections it wrote only where no file
        // was: an earlier residual image under the name is never replaced
        // by a part of a new one.
        image_write_header(kResidual, nullptr, -1, residual_stats[0], residual_stats[1],
                           residual_stats[2]);
        image_close_unfinished(kResidual);
    }
}

int finish_run(fit_run* run) {
    if (run->input_open) image_close(kInput);
    run->input_open = false;
    if (!run->residual_open) return 0;
    run->residual_open = false;
    image_write_header(kResidual, nullptr, -1, run->residual_stats[0], run->residual_stats[1],
                       run->residual_stats[2]);
    return image_close(kResidual) != 0 ? 1 : 0;
}

int open_input_image(const char* name, fit_run* run, input_header* header) {
    if (image_open(kInput, name, "ro") != 0) {
        print_message("torvel: unable to open %s for reading\n", name);
        return 1;
    }
    run->input_open = true;
    read_input_header(kInput, header);
    return 0;
}

void read_input_header(int stream, input_header* header) {
    input_header& h = *header;
    int dims[3], second[3], order, n1, n2;
    float dmin, dmax, dmean, p1, p2, dz, zorig;
    image_read_header(stream, dims, second, &h.mode, &dmin, &dmax, &dmean);
    image_get_zwt_sizes(stream, &h.nz, &h.nw, &h.nt, &order);
    image_get_type_info(stream, &h.type, &h.lens_id, &n1, &n2, &p1, &p2);
    image_get_pixel_spacing(stream, &h.dx, &h.dy, &dz);
    image_get_origin(stream, &h.xorig, &h.yorig, &zorig);
    h.nx = dims[0];
    h.ny = dims[1];
    // The header keeps the aperture times 10 and the index times 100.
    h.na = p1 / 10.0f;
    h.n_imm = p2 / 100.0f;
    h.x0 = (0.0f - h.xorig) / h.dx;
    h.y0 = (0.0f - h.yorig) / h.dy;
    h.complex_pixels = is_complex_mode(h.mode);
}

float pupil_cutoff(float na, float wavelength_nm) {
    const float na_times_1000 = na * 1000.0f;
    return na_times_1000 / wavelength_nm;
}

int check_input_header(const char* name, const input_header& h) {
    int status = 0;
    if (h.nx < 1 || h.ny < 1 || h.nz < 1 || h.nw < 1 || h.nt < 1) {
        print_message("torvel: no image data for pupil function image\n");
        status = 1;
    }
    if (h.complex_pixels && h.nz != 1) {
        print_message("torvel: for complex-valued pupil function image expect one z section\n");
        status = 1;
    } else if (!h.complex_pixels && h.nz != 2) {
        print_message("torvel: for real-valued pupil function image expect two z sections\n");
        status = 1;
    }
    if (!(h.dx > 0.0f && h.dy > 0.0f)) {
        print_message("torvel: invalid pixel spacing (%g %g) for pupil function image\n", h.dx,
                      h.dy);
        status = 1;
    }
    if (h.type != kPupilImageType) {
        print_message("torvel: %s is not a pupil image file\n", name);
        status = 1;
    } else if (!(h.na >= 0.0f && h.na <= h.n_imm)) {
        print_message(
            "torvel: invalid numerical aperture (%g) or immersion media refractive "
            "index (%g) for pupil function image\n",
            h.na, h.n_imm);
        status = 1;
    }
    return status;
}

int check_output_names(const fit_inputs& inputs) {
    const char* clash = nullptr;
    if (same_file(inputs.output_name, inputs.input_name))
        clash = inputs.output_name;
    else if (same_file(inputs.residual_name, inputs.input_name))
        clash = inputs.residual_name;
    if (clash != nullptr) {
        print_message("torvel: %s is the input image; it is not overwritten\n", clash);
        return 1;
    }
    if (same_file(inputs.residual_name, inputs.output_name)) {
        print_message("torvel: %s cannot be both the fit file and the residual image\n",
                      inputs.output_name);
        return 1;
    }
    return 0;
}

int allocate_work_planes(const input_header& h, fit_run* run) {
    const std::int64_t pixels = plane_pixels(h);
    run->amplitude = allocate_floats(h.complex_pixels ? 2 * pixels : pixels);
    run->phase = allocate_floats(pixels);
    if (!run->amplitude || !run->phase) return report_insufficient_memory();
    return 0;
}

ParametricPupil* setup_parametric_output(const fit_inputs& inputs, std::int32_t lens_id, float na,
                                         float n_imm) {
    std::unique_ptr<ParametricPupil, pupil_deleter> pupil(create_parametric_pupil());
    if (!pupil || !set_parametric_pupil_lens_id(pupil.get(), lens_id) ||
        !set_parametric_pupil_wavelength_count(pupil.get(), inputs.wavelength_count)) {
        print_message("torvel: insufficient memory\n");
        return nullptr;
    }
    for (int i = 0; i < inputs.wavelength_count; ++i) {
        if (!set_parametric_pupil_wavelength(pupil.get(), i, inputs.wavelength[i] / 1000.0f)) {
            print_message("torvel: internal error setting output wavelengths\n");
            return nullptr;
        }
    }
    if (!set_parametric_pupil_na_nimm(pupil.get(), na, n_imm)) {
        print_message(
            "torvel: invalid combination of numerical aperture, %g, and immersion "
            "media refractive index, %g\n",
            na, n_imm);
        return nullptr;
    }
    if (!set_parametric_pupil_amplitude_zernike_orders(pupil.get(), inputs.amplitude_n,
                                                       inputs.amplitude_m)) {
        print_message("torvel: unable to set up Zernike functions for the amplitude\n");
        return nullptr;
    }
    if (!set_parametric_pupil_phase_zernike_orders(pupil.get(), inputs.phase_n, inputs.phase_m)) {
        print_message("torvel: unable to set up Zernike functions for the phase\n");
        return nullptr;
    }
    return pupil.release();
}

int open_residual_image(const fit_inputs& inputs, fit_run* run) {
    if (image_open(kResidual, inputs.residual_name, "new") != 0) {
        print_message("torvel: unable to open %s for writing\n", inputs.residual_name);
        return 1;
    }
    image_copy_header(kResidual, kInput);
    image_set_resolutions(kResidual, 1, 1);
    image_set_extended_header_size(kResidual, 0, 0, 0);
    image_set_zwt_sizes(kResidual, 1, inputs.wavelength_count, 1, 0);
    image_set_wavelengths(kResidual, inputs.wavelength_count, inputs.wavelength);
    image_set_pixel_mode(kResidual, kComplexFloatMode);
    run->residual_open = true;
    return 0;
}

int read_amplitude_and_phase(const input_header& h, int w, float* amplitude, float* phase) {
    if (image_seek_section(kInput, 0, w, 0) != 0) {
        print_message("torvel: unable to position input at section 0 %d 0\n", w);
        return 1;
    }
    // The layer has said why when a read fails; fitting the stale plane
    // would pass made-up values off as a fit.
    if (image_read_section(kInput, amplitude) != 0) return 1;
    if (h.complex_pixels) {
        separate_amplitude_phase(h.nx * h.ny, amplitude, phase);
        return 0;
    }
    // A missing phase section is reported but, as it always has been, does
    // not stop the run: the read below then takes the next section in turn.
    if (image_seek_section(kInput, 1, w, 0) != 0)
        print_message("torvel: unable to position input at section 1 %d 0\n", w);
    return image_read_section(kInput, phase) != 0 ? 1 : 0;
}

int fit_planes(const fit_inputs& inputs, const input_header& h, int slot, const float* amplitude,
               float* phase, ParametricPupil* pupil) {
    const float cutoff = pupil_cutoff(h.na, inputs.wavelength[slot]);
    if (check_finite_planes(inputs, h, slot, cutoff, amplitude, phase) != 0) return 1;

    // Unwrapped before the fits, not between them as the progress lines
    // suggest, so that both can share one least-squares system; unwrapping
    // prints nothing and touches nothing the amplitude fit reads.
    phunwrap(h.x0, h.y0, h.dx, h.dy, cutoff, h.nx, h.ny, phase);
    const FitRequest amplitude_fit{"\nPerforming least squares fit to amplitude...\n", amplitude,
                                   inputs.amplitude_n, inputs.amplitude_m,
                                   get_parametric_pupil_amplitude_zernike_coeff(pupil, slot)};
    const FitRequest phase_fit{"\nPerforming least squares fit to phase...\n", phase,
                               inputs.phase_n, inputs.phase_m,
                               get_parametric_pupil_phase_zernike_coeff(pupil, slot)};
    return compute_fit_pair(h.x0, h.y0, h.dx, h.dy, cutoff, h.nx, h.ny, amplitude_fit, phase_fit,
                            inputs.tolerance);
}

void compute_slot_residual(const fit_inputs& inputs, const input_header& h, int slot,
                           const float* amplitude, const float* phase, ParametricPupil* pupil,
                           float* residual, float stats[3]) {
    compute_residual(h.x0, h.y0, h.dx, h.dy, pupil_cutoff(h.na, inputs.wavelength[slot]), h.nx,
                     h.ny, amplitude, phase, inputs.amplitude_n, inputs.amplitude_m,
                     get_parametric_pupil_amplitude_zernike_coeff(pupil, slot), inputs.phase_n,
                     inputs.phase_m, get_parametric_pupil_phase_zernike_coeff(pupil, slot),
                     residual, stats);
}

int fit_wavelength(const fit_inputs& inputs, const input_header& h, int slot, fit_run* run) {
    if (read_amplitude_and_phase(h, inputs.wavelength_index[slot], run->amplitude.get(),
                                 run->phase.get()) != 0)
        return 1;
    if (const int status =
            fit_planes(inputs, h, slot, run->amplitude.get(), run->phase.get(), run->pupil.get());
        status != 0)
        return status;
    if (run->residual_open) return write_residual_section(inputs, h, slot, run);
    return 0;
}

int write_fit_file(ParametricPupil* pupil, const char* name) {
    std::int32_t code = 0;
    if (write_parametric_pupil(pupil, name, &code)) return 0;
    if (code == 1) {
        print_message("torvel: unable to open %s for writing\n", name);
    } else if (code == 2) {
        print_message("torvel: an I/O error occurred while writing %s\n", name);
    } else {
        print_message("torvel: an unrecognized error code, %d, occurred while writing %s\n", code,
                      name);
    }
    return 1;
}

}  // namespace torvel
