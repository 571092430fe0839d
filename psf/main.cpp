// torvel-psf: writes the 3D point spread function of a fitted pupil model as
// an image stack (MRC or TIFF), for deconvolution, localisation and checking
// the model against the bead stack it came from.

#include <cstdio>

#include <torvel/cores.hpp>
#include <torvel/imageio.hpp>
#include <torvel/psf.hpp>

int main(int argc, char** argv) {
    using namespace torvel;
    share_cores();  // before any thread: see <torvel/cores.hpp>

    if (companion_help_requested(argc, argv)) {
        print_psf_usage(stdout);
        return 0;
    }
    image_set_program_name("torvel-psf");

    psf_inputs inputs = kDefaultPsfInputs;
    pupil_ptr model;
    if (parse_psf_command_line(argc, argv, &inputs, &model) != 0) return 1;
    psf_plan plan;
    if (plan_psf(inputs, *model, &plan) != 0) return 1;
    drop_phase_terms(inputs.model, model.get());
    return write_psf_stack(inputs, model.get(), plan);
}
