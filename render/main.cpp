// torvel-render: writes the pupil function image of a fitted pupil model, so
// that the model can be read back by torvel, viewed beside the measurement
// or handed to any program that computes PSFs from a pupil image.

#include <cstdio>

#include <torvel/cores.hpp>
#include <torvel/imageio.hpp>
#include <torvel/render.hpp>

int main(int argc, char** argv) {
    using namespace torvel;
    share_cores();  // before any thread: see <torvel/cores.hpp>

    if (render_help_requested(argc, argv)) {
        print_render_usage(stdout);
        return 0;
    }
    image_set_program_name("torvel-render");

    render_inputs inputs = kDefaultRenderInputs;
    pupil_ptr model;
    if (parse_render_command_line(argc, argv, &inputs, &model) != 0) return 1;
    render_plan plan;
    if (plan_render(inputs, *model, &plan) != 0) return 1;
    drop_phase_terms(inputs, model.get());
    return write_rendered_image(inputs, model.get(), plan);
}
