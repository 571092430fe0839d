// Fuzz target: torvel-render and torvel-report, their whole path from an
// arbitrary fit file and options. The bytes before the first zero byte are
// the fit file; the words after it, split at zero bytes, are the fit file's
// name (in the scratch folder, '/' taken out) and then torvel-render's
// options. The rendered image is handed to torvel-report as the measured
// pupil (and, when complex, as the residual image) with the table, JSON,
// CSV and PNG asked for. Each program must either succeed, with every
// number it wrote finite, or fail leaving no output file behind; neither may
// leave a temporary file.

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <torvel/imageio.hpp>
#include <torvel/pupil.hpp>
#include <torvel/render.hpp>
#include <torvel/report.hpp>

#include "check.hpp"
#include "scratch.hpp"

namespace {

using namespace torvel;
namespace fs = std::filesystem;

// Work grows as pixels times the square of the order in use: a rendered
// image is kept to this many pixels, and fit files declaring higher orders
// are left to the tests that time them, so that a campaign tries many paths
// rather than a few long evaluations.
constexpr std::int64_t kMaxPixels = 48 * 48;
constexpr int kMaxOrder = 120;

// A file name in the scratch folder made of the word's bytes, any byte but
// '/' kept (names that are not UTF-8 included) after "fit-", which keeps it
// apart from the temporary files, whose names begin with '.'. Commas go
// too, so that ",nan" in the CSV can only be a number.
std::string fit_name(std::string word) {
    for (char& ch : word)
        if (ch == '/' || ch == ',') ch = '_';
    if (word.size() > 100) word.resize(100);
    return "fit-" + word;
}

bool too_much_work(const std::string& path) {
    std::int32_t code = 0;
    ParametricPupil* model = read_parametric_pupil(path.c_str(), &code, nullptr, nullptr);
    if (model == nullptr) return false;
    std::int32_t an = 0, am = 0, pn = 0, pm = 0;
    get_parametric_pupil_amplitude_zernike_orders(model, &an, &am);
    get_parametric_pupil_phase_zernike_orders(model, &pn, &pm);
    destroy_parametric_pupil(model);
    return an > kMaxOrder || pn > kMaxOrder;
}

// Names in the scratch folder: only the inputs and finished outputs.
void check_no_temporary_files() {
    for (const fs::directory_entry& e : fs::directory_iterator(fuzz::scratch_folder()))
        FUZZ_CHECK(e.path().filename().string()[0] != '.');
}

void remove_outputs(const std::vector<std::string>& paths) {
    for (const std::string& p : paths) std::remove(p.c_str());
}

bool exists(const std::string& path) {
    return fs::exists(fs::symlink_status(path));
}

// A written image: every pixel of every section finite.
void check_image_finite(const std::string& path) {
    FUZZ_CHECK(image_open(3, path.c_str(), "ro") == 0);
    int dims[3], second[3], mode;
    float dmin, dmax, dmean;
    image_read_header(3, dims, second, &mode, &dmin, &dmax, &dmean);
    const std::size_t floats = std::size_t(dims[0]) * dims[1] * (mode == 4 ? 2 : 1);
    std::vector<float> section(floats);
    for (int s = 0; s < dims[2]; ++s) {
        FUZZ_CHECK(image_read_section(3, section.data()) == 0);
        for (float v : section) FUZZ_CHECK(std::isfinite(v));
    }
    image_close(3);
}

bool holds_null(const nlohmann::json& j) {
    if (j.is_null()) return true;
    if (j.is_structured())
        for (const nlohmann::json& item : j)
            if (holds_null(item)) return true;
    return false;
}

// JSON that parses, with no null (what a non-finite number becomes) in it.
void check_json(const std::string& path) {
    std::ifstream in(path);
    const nlohmann::json j = nlohmann::json::parse(in, nullptr, false);
    FUZZ_CHECK(!j.is_discarded());
    FUZZ_CHECK(!holds_null(j));
}

void check_csv(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    const std::string csv = text.str();
    FUZZ_CHECK(csv.find(",nan") == std::string::npos && csv.find(",inf") == std::string::npos &&
               csv.find(",-nan") == std::string::npos && csv.find(",-inf") == std::string::npos);
}

// torvel-render as its main runs it. Returns its exit status.
int run_render(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    render_inputs inputs = kDefaultRenderInputs;
    pupil_ptr model;
    if (parse_render_command_line(int(args.size()), argv.data(), &inputs, &model) != 0) return 1;
    render_plan plan;
    if (plan_render(inputs, *model, &plan) != 0) return 1;
    if (std::int64_t(plan.nx) * plan.ny > kMaxPixels) return -1;
    drop_phase_terms(inputs.model, model.get());
    return write_rendered_image(inputs, model.get(), plan);
}

// torvel-report as its main runs it. Returns its exit status.
int run_report(std::vector<std::string> args) {
    std::vector<const char*> argv;
    for (const std::string& a : args) argv.push_back(a.c_str());
    argv.push_back(nullptr);
    report_inputs inputs;
    if (parse_report_command_line(int(args.size()), argv.data(), &inputs) != 0) return 1;
    std::vector<report_entry> entries;
    const int status = load_report_entries(inputs, &entries);
    static std::FILE* null_output = std::fopen("/dev/null", "w");
    print_report_table(null_output, entries);
    if (status != 0) return 1;
    return write_report_outputs(inputs, entries);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool named = (image_set_program_name("torvel-fuzz"), true);
    (void)named;
    std::vector<std::string> words = fuzz::split_at_zero_bytes(data, size);
    if (words.empty()) words.push_back("");
    const std::string fit = fuzz::scratch_path(fit_name(words.size() > 1 ? words[1] : "").c_str());
    const std::string image = fuzz::scratch_path("image.mrc");
    const std::string json = fuzz::scratch_path("report.json");
    const std::string csv = fuzz::scratch_path("report.csv");
    const std::string png = fuzz::scratch_path("report.png");
    const std::vector<std::string> outputs = {image, json, csv, png};
    remove_outputs(outputs);
    fuzz::write_bytes(fit, reinterpret_cast<const std::uint8_t*>(words[0].data()),
                      words[0].size());
    if (too_much_work(fit)) {
        std::remove(fit.c_str());
        return 0;
    }

    std::vector<std::string> render_args = {"torvel-render", fit, image};
    bool size_given = false;
    for (std::size_t i = 2; i < words.size(); ++i) {
        render_args.push_back(words[i]);
        size_given |= words[i].rfind("-size=", 0) == 0;
    }
    if (!size_given) render_args.push_back("-size=24");
    const int rendered = run_render(render_args);
    if (rendered == 0) {
        check_image_finite(image);
    } else {
        FUZZ_CHECK(!exists(image));
    }
    check_no_temporary_files();

    std::vector<std::string> report_args = {"torvel-report", fit, "-json=" + json, "-csv=" + csv};
    if (rendered == 0) {
        report_args.push_back("-png=" + png);
        report_args.push_back("-image=" + image);
        bool real = false;
        for (const std::string& w : words) real |= w == "-form=real";
        if (!real) report_args.push_back("-residual=" + image);
    }
    // Each output is written on its own: a failed run may have finished
    // some, and those must be whole.
    const int reported = run_report(report_args);
    if (reported == 0) FUZZ_CHECK(exists(json) && exists(csv) && exists(png) == (rendered == 0));
    if (exists(json)) check_json(json);
    if (exists(csv)) check_csv(csv);
    check_no_temporary_files();
    remove_outputs(outputs);
    std::remove(fit.c_str());
    return 0;
}
