// torvel: fits Zernike series to the amplitude and the unwrapped phase of a
// multi-wavelength pupil function image, wavelength by wavelength, and writes
// the coefficients as a parametric pupil text file, with an image of the
// residuals on request.

#include <cstdio>

#include <torvel/cores.hpp>
#include <torvel/driver.hpp>
#include <torvel/switches.hpp>

int main(int argc, char** argv) {
    using namespace torvel;
    share_cores();  // before any thread: see <torvel/cores.hpp>

    // Line by line, so that progress and messages keep their order in a log
    // that takes both streams.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    fit_inputs inputs = kDefaultFitInputs;
    if (help_requested(argc, argv)) {
        print_usage(stdout);
        return 0;
    }
    if (parse_command_line(argc, argv, &inputs) != 0) return 1;
    print_input_summary(inputs);

    fit_run run;  // closes the images and frees everything on every way out
    input_header header;
    if (open_input_image(inputs.input_name, &run, &header) != 0) return 1;
    if (check_input_header(inputs.input_name, header) != 0) return 1;
    if (check_output_names(inputs) != 0) return 1;
    if (allocate_work_planes(header, &run) != 0) return 1;
    run.pupil.reset(setup_parametric_output(inputs, header.lens_id, header.na, header.n_imm));
    if (!run.pupil) return 1;
    if (inputs.residual_name != nullptr && open_residual_image(inputs, &run) != 0) return 1;

    for (int slot = 0; slot < inputs.wavelength_count; ++slot) {
        if (const int status = fit_wavelength(inputs, header, slot, &run); status != 0)
            return status;
    }
    return write_fit_file(run.pupil.get(), inputs.output_name);
}
