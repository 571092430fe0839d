// torvel-retrieve: the pupil function of a microscope from a z-stack of a
// sub-resolution bead, written as a pupil image that torvel fits.

#include <cstdio>
#include <memory>
#include <new>

#include <torvel/cores.hpp>
#include <torvel/imageio.hpp>
#include <torvel/render.hpp>
#include <torvel/retrieve.hpp>

int main(int argc, char** argv) {
    using namespace torvel;
    share_cores();  // before any thread: see <torvel/cores.hpp>

    if (companion_help_requested(argc, argv)) {
        print_retrieve_usage(stdout);
        return 0;
    }
    image_set_program_name("torvel-retrieve");

    retrieve_inputs inputs = kDefaultRetrieveInputs;
    if (parse_retrieve_command_line(argc, argv, &inputs) != 0) return 1;
    bead_data data;
    if (load_bead_data(inputs, &data) != 0) return 1;
    retrieval results[5];
    retrieval_log logs[5];
    for (int w = 0; w < data.wavelengths; ++w)
        if (retrieve_pupil(inputs, data.stacks[w], &results[w], &logs[w]) != 0) return 1;
    return write_retrieval_outputs(inputs, data, results, logs);
}
