// torvel-report: what torvel's fit files say, as tables of the figures
// microscopists quote, JSON and CSV exports of every coefficient with its
// conventions, and a PNG figure of the fitted pupil.

#include <cstdio>
#include <vector>

#include <torvel/cores.hpp>
#include <torvel/imageio.hpp>
#include <torvel/report.hpp>

int main(int argc, char** argv) {
    using namespace torvel;
    share_cores();  // before any thread: see <torvel/cores.hpp>

    if (report_help_requested(argc, argv)) {
        print_report_usage(stdout);
        return 0;
    }
    image_set_program_name("torvel-report");
    report_inputs inputs;
    if (parse_report_command_line(argc, argv, &inputs) != 0) return 1;

    std::vector<report_entry> entries;
    const int status = load_report_entries(inputs, &entries);
    print_report_table(stdout, entries);
    if (status != 0) {
        if (inputs.json_name || inputs.csv_name || inputs.png_name)
            std::fprintf(stderr,
                         "torvel-report: no output file written, since a fit file was rejected\n");
        return 1;
    }
    return write_report_outputs(inputs, entries);
}
