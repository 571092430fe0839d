// The Python module torvel: the library's fit, render and report on numpy
// arrays and files, for the notebooks and scripts where pupils are analysed.
//
// Every call runs the same library functions as the programs, with the
// programs' option checks (options are handed over as the programs' own
// option texts) and their messages: a thread's messages are captured while
// the library works and become the text of torvel.Error, so the module
// prints nothing. The GIL is released while the library works, and only
// then is the image layer's lock taken, so that no thread holds the lock
// while it waits for the GIL.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <complex>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <torvel/bulk.hpp>
#include <torvel/driver.hpp>
#include <torvel/fit.hpp>
#include <torvel/imageio.hpp>
#include <torvel/messages.hpp>
#include <torvel/pupil.hpp>
#include <torvel/render.hpp>
#include <torvel/report.hpp>
#include <torvel/safeout.hpp>
#include <torvel/zernike.hpp>

namespace py = pybind11;

namespace torvel {
namespace {

// The image layer's streams are numbered and shared by the whole process:
// one call at a time opens files through it.
std::mutex g_image_layer;

// What torvel.Error carries: the messages of the failed call.
struct library_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A fitted or read pupil model; name is the file it was read from or last
// written to (empty for a fit held in memory only), named in messages.
struct model {
    pupil_ptr pupil;
    std::string name;
};

const char* model_label(const model& m) {
    return m.name.empty() ? "model" : m.name.c_str();
}

// Raises torvel.Error with the captured messages of a failed call.
[[noreturn]] void raise_messages(std::string text) {
    while (!text.empty() && text.back() == '\n') text.pop_back();
    throw library_error(text.empty() ? "torvel: the call failed" : text);
}

// Runs work, a callable returning 0 or a failure status, without the GIL
// and with the thread's messages captured; raises torvel.Error with the
// messages when it fails.
template <class Work>
void run_released(Work&& work) {
    int status = 0;
    std::string text;
    {
        py::gil_scoped_release release;
        message_capture capture;
        status = work();
        if (status != 0) text = capture.text();
    }
    if (status != 0) raise_messages(std::move(text));
}

std::string number_text(double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%.9g", value);
    return text;
}

// An int or float as option text: integers as such (an index for -w=).
std::string item_text(const py::handle& item) {
    if (py::isinstance<py::bool_>(item)) throw py::type_error("torvel: a number was expected");
    if (py::isinstance<py::int_>(item)) return std::to_string(item.cast<long long>());
    return number_text(item.cast<double>());
}

// One value or a sequence of them, joined by sep.
std::string list_text(const py::handle& value, const char* sep) {
    if (py::isinstance<py::str>(value)) return value.cast<std::string>();
    if (!py::isinstance<py::sequence>(value)) return item_text(value);
    std::string text;
    for (const py::handle& item : value.cast<py::sequence>()) {
        if (!text.empty()) text += sep;
        text += list_text(item, ":");  // an item (n, m) of -drop= is n:m
    }
    return text;
}

// A Zernike set as -zernike_amp= takes it: None for no fit, n, or (n, m).
std::string set_text(const py::object& set) {
    return set.is_none() ? std::string("-1") : list_text(set, ":");
}

// Option texts and the argv-style pointers to them.
struct option_list {
    std::vector<std::string> texts;
    std::vector<char*> argv() {
        std::vector<char*> pointers;
        for (std::string& t : texts) pointers.push_back(t.data());
        return pointers;
    }
};

option_list fit_options(const py::object& w, const py::object& amp, const py::object& phase,
                        const std::optional<double>& tol) {
    option_list list;
    if (!w.is_none()) list.texts.push_back("-w=" + list_text(w, ":"));
    list.texts.push_back("-zernike_amp=" + set_text(amp));
    list.texts.push_back("-zernike_phase=" + set_text(phase));
    if (tol) list.texts.push_back("-tol=" + number_text(*tol));
    return list;
}

// A float array made by the library, handed to numpy without a copy.
py::array_t<float> floats_to_numpy(bulk_array<float> values, std::vector<py::ssize_t> shape) {
    float* data = values.release();
    py::capsule owner(data, [](void* p) { bulk_deleter()(p); });
    return py::array_t<float>(shape, data, owner);
}

py::array complex_to_numpy(bulk_array<float> values, std::vector<py::ssize_t> shape) {
    auto* data = reinterpret_cast<std::complex<float>*>(values.release());
    py::capsule owner(data, [](void* p) { bulk_deleter()(p); });
    return py::array_t<std::complex<float>>(shape, data, owner);
}

std::int64_t pixels_of(const input_header& h) {
    return std::int64_t(h.nx) * h.ny;
}

int insufficient_memory() {
    print_message("torvel: insufficient memory\n");
    return 1;
}

// Fits every selected slot: planes_of(slot, &amplitude, &phase) hands over
// the slot's planes; residual (2 * nx * ny floats a slot) is filled when not
// null. The steps of the program's run from the record on.
template <class Planes>
int fit_slots(const fit_inputs& inputs, const input_header& h, Planes&& planes_of, model* out,
              float* residual) {
    out->pupil.reset(setup_parametric_output(inputs, h.lens_id, h.na, h.n_imm));
    if (!out->pupil) return 1;
    for (int slot = 0; slot < inputs.wavelength_count; ++slot) {
        float* amplitude = nullptr;
        float* phase = nullptr;
        if (planes_of(slot, &amplitude, &phase) != 0) return 1;
        if (const int status = fit_planes(inputs, h, slot, amplitude, phase, out->pupil.get());
            status != 0)
            return status;
        if (residual == nullptr) continue;
        float stats[3];
        compute_slot_residual(inputs, h, slot, amplitude, phase, out->pupil.get(),
                              residual + 2 * slot * pixels_of(h), stats);
    }
    return 0;
}

py::object fit_result(std::unique_ptr<model> fitted, bulk_array<float> residual,
                      std::vector<py::ssize_t> shape) {
    py::object m = py::cast(std::move(fitted));
    if (!residual) return m;
    return py::make_tuple(m, complex_to_numpy(std::move(residual), std::move(shape)));
}

// One selected wavelength's planes, read from the file before any fit.
struct slot_planes {
    bulk_array<float> amplitude;
    bulk_array<float> phase;
};

py::object fit_file(const std::string& path, option_list options, bool want_residual) {
    options.texts.insert(options.texts.begin(), {"torvel", path, ""});
    std::vector<char*> argv = options.argv();
    auto fitted = std::make_unique<model>();
    fit_inputs inputs = kDefaultFitInputs;
    input_header h{};
    std::vector<slot_planes> planes;
    bulk_array<float> residual;
    run_released([&] {
        {
            // The file is read whole, under the image layer's lock; the fits
            // then run beside other threads' calls.
            std::lock_guard<std::mutex> lock(g_image_layer);
            if (parse_command_line(int(argv.size()), argv.data(), &inputs) != 0) return 1;
            fit_run run;
            if (open_input_image(inputs.input_name, &run, &h) != 0 ||
                check_input_header(inputs.input_name, h) != 0)
                return 1;
            const std::int64_t pixels = pixels_of(h);
            if (2 * pixels > std::numeric_limits<int>::max()) return insufficient_memory();
            for (int slot = 0; slot < inputs.wavelength_count; ++slot) {
                slot_planes p{allocate_bulk<float>(h.complex_pixels ? 2 * pixels : pixels),
                              allocate_bulk<float>(pixels)};
                if (!p.amplitude || !p.phase) return insufficient_memory();
                if (read_amplitude_and_phase(h, inputs.wavelength_index[slot], p.amplitude.get(),
                                             p.phase.get()) != 0)
                    return 1;
                planes.push_back(std::move(p));
            }
        }
        if (want_residual) {
            residual = allocate_bulk<float>(2 * pixels_of(h) * inputs.wavelength_count);
            if (!residual) return insufficient_memory();
        }
        auto planes_of = [&](int slot, float** amplitude, float** phase) {
            *amplitude = planes[std::size_t(slot)].amplitude.get();
            *phase = planes[std::size_t(slot)].phase.get();
            return 0;
        };
        return fit_slots(inputs, h, planes_of, fitted.get(), residual.get());
    });
    return fit_result(std::move(fitted), std::move(residual),
                      {inputs.wavelength_count, h.ny, h.nx});
}

// A pair (x, y) of floats, or one float for both.
void float_pair(const py::object& value, const char* what, float* x, float* y) {
    if (py::isinstance<py::sequence>(value)) {
        const auto items = value.cast<std::vector<double>>();
        if (items.size() != 2)
            throw py::value_error(std::string("torvel: ") + what + " takes two values, x and y");
        *x = float(items[0]);
        *y = float(items[1]);
        return;
    }
    *x = *y = float(value.cast<double>());
}

py::object fit_array(const py::array& image, option_list options, bool want_residual,
                     const py::kwargs& geometry) {
    if (!py::array_t<std::complex<float>>::check_(image))
        throw py::type_error("torvel: the pupil array must be complex64, not " +
                             std::string(py::str(image.dtype())) +
                             " (numpy.complex64: the interleaved float pairs torvel reads)");
    if (image.ndim() != 2 && image.ndim() != 3)
        throw py::value_error(
            "torvel: the pupil array must have the shape (ny, nx) or (nw, ny, "
            "nx), not " +
            std::string(py::str(py::tuple(
                py::cast(std::vector<py::ssize_t>(image.shape(), image.shape() + image.ndim()))))));
    for (const char* key : {"na", "n", "wavelengths_nm", "spacing"})
        if (!geometry.contains(key))
            throw py::type_error(std::string("torvel: fitting an array needs the keyword ") + key);
    for (const auto& item : geometry) {
        const std::string key = item.first.cast<std::string>();
        if (key != "na" && key != "n" && key != "wavelengths_nm" && key != "spacing" &&
            key != "centre" && key != "lens")
            throw py::type_error("torvel: fit() got an unexpected keyword " + key);
    }
    // Contiguous complex64 is read where it lies; any other layout is copied
    // once into that form.
    auto data = py::array_t<std::complex<float>, py::array::c_style>::ensure(image);
    if (!data) throw py::error_already_set();
    const bool planar = image.ndim() == 2;
    const int nw = planar ? 1 : int(data.shape(0));
    input_header h{};
    h.ny = int(std::min<py::ssize_t>(data.shape(planar ? 0 : 1), std::numeric_limits<int>::max()));
    h.nx = int(std::min<py::ssize_t>(data.shape(planar ? 1 : 2), std::numeric_limits<int>::max()));
    h.mode = 4;
    h.nz = 1;
    h.nw = nw;
    h.nt = 1;
    h.type = kPupilImageType;
    h.lens_id = geometry.contains("lens") ? geometry["lens"].cast<int>() : -1;
    h.na = geometry["na"].cast<float>();
    h.n_imm = geometry["n"].cast<float>();
    float_pair(geometry["spacing"], "spacing", &h.dx, &h.dy);
    h.x0 = float(h.nx / 2);
    h.y0 = float(h.ny / 2);
    if (geometry.contains("centre")) float_pair(geometry["centre"], "centre", &h.x0, &h.y0);
    h.complex_pixels = true;
    const py::object waves_object = geometry["wavelengths_nm"];
    const auto waves = py::isinstance<py::sequence>(waves_object)
                           ? waves_object.cast<std::vector<float>>()
                           : std::vector<float>{waves_object.cast<float>()};
    if (int(waves.size()) != nw)
        throw py::value_error("torvel: wavelengths_nm lists " + std::to_string(waves.size()) +
                              " wavelengths for an array of " + std::to_string(nw));
    if (nw > kMaxSelectedWavelengths)
        throw py::value_error("torvel: a pupil image holds at most " +
                              std::to_string(kMaxSelectedWavelengths) +
                              " wavelengths; the array has " + std::to_string(nw));
    const std::int64_t pixels = pixels_of(h);
    if (2 * pixels > std::numeric_limits<int>::max())
        throw py::value_error("torvel: a plane of " + std::to_string(pixels) +
                              " pixels is more than torvel fits");

    fit_inputs inputs = kDefaultFitInputs;
    {
        message_capture capture;
        std::vector<char*> argv = options.argv();
        int status = check_input_header("array", h);
        status |= parse_fit_options(int(argv.size()), argv.data(), waves.data(), nw, &inputs);
        if (status != 0) raise_messages(capture.text());
    }
    inputs.input_name = "array";
    auto fitted = std::make_unique<model>();
    bulk_array<float> residual;
    const float* samples = reinterpret_cast<const float*>(data.data());
    run_released([&] {
        slot_planes p{allocate_bulk<float>(pixels), allocate_bulk<float>(pixels)};
        if (!p.amplitude || !p.phase) return insufficient_memory();
        if (want_residual) {
            residual = allocate_bulk<float>(2 * pixels * inputs.wavelength_count);
            if (!residual) return insufficient_memory();
        }
        auto planes_of = [&](int slot, float** amplitude, float** phase) {
            split_amplitude_phase(int(pixels), samples + 2 * pixels * inputs.wavelength_index[slot],
                                  p.amplitude.get(), p.phase.get());
            *amplitude = p.amplitude.get();
            *phase = p.phase.get();
            return 0;
        };
        return fit_slots(inputs, h, planes_of, fitted.get(), residual.get());
    });
    std::vector<py::ssize_t> shape = {inputs.wavelength_count, h.ny, h.nx};
    if (planar) shape.erase(shape.begin());
    return fit_result(std::move(fitted), std::move(residual), std::move(shape));
}

py::object fit(const py::object& image, const py::object& w, const py::object& zernike_amp,
               const py::object& zernike_phase, const std::optional<double>& tol, bool residual,
               const py::kwargs& geometry) {
    option_list options = fit_options(w, zernike_amp, zernike_phase, tol);
    if (py::isinstance<py::array>(image)) return fit_array(image, options, residual, geometry);
    if (!py::isinstance<py::str>(image) && !py::hasattr(image, "__fspath__"))
        throw py::type_error("torvel: fit() takes a file name or a complex64 numpy array");
    if (geometry.size() > 0)
        throw py::type_error(
            "torvel: na, n, wavelengths_nm, spacing, centre and lens are given "
            "with an array; a file's header holds them");
    const std::string path = py::str(py::module_::import("os").attr("fspath")(image));
    return fit_file(path, options, residual);
}

// ---- the model ---------------------------------------------------------------

std::unique_ptr<model> read_fit(const py::object& path_object) {
    const std::string path = py::str(py::module_::import("os").attr("fspath")(path_object));
    auto read = std::make_unique<model>();
    read->name = path;
    run_released([&] {
        std::int32_t code = 0, line = 0, column = 0;
        read->pupil.reset(read_parametric_pupil(path.c_str(), &code, &line, &column));
        if (read->pupil) return 0;
        print_message("torvel: %s:%d:%d: %s\n", path.c_str(), line, column,
                      read_parametric_pupil_error_text(code));
        return 1;
    });
    return read;
}

void write_model(model& m, const py::object& path_object) {
    const std::string path = py::str(py::module_::import("os").attr("fspath")(path_object));
    run_released([&] { return write_fit_file(m.pupil.get(), path.c_str()); });
    m.name = path;
}

int checked_wave(const model& m, int w) {
    const int count = get_parametric_pupil_wavelength_count(m.pupil.get());
    if (w < -count || w >= count)
        throw py::index_error("torvel: wavelength index " + std::to_string(w) +
                              " of a model with " + std::to_string(count));
    return w < 0 ? w + count : w;
}

// A writable view of a coefficient array, which keeps the model alive.
py::array coefficient_view(const py::object& self, bool amplitude, int w) {
    model& m = self.cast<model&>();
    const int wave = checked_wave(m, w);
    ParametricPupil* p = m.pupil.get();
    double* values = amplitude ? get_parametric_pupil_amplitude_zernike_coeff(p, wave)
                               : get_parametric_pupil_phase_zernike_coeff(p, wave);
    const int count = amplitude ? get_parametric_pupil_amplitude_zernike_count(p)
                                : get_parametric_pupil_phase_zernike_count(p);
    if (values == nullptr || count == 0) return py::array_t<double>(0);
    return py::array_t<double>({py::ssize_t(count)}, {py::ssize_t(sizeof(double))}, values, self);
}

// The Zernike set (n, m) of the amplitude or the phase series.
std::pair<std::int32_t, std::int32_t> series_orders(const model& m, bool amplitude) {
    std::int32_t n = -1, mm = -1;
    if (amplitude)
        get_parametric_pupil_amplitude_zernike_orders(m.pupil.get(), &n, &mm);
    else
        get_parametric_pupil_phase_zernike_orders(m.pupil.get(), &n, &mm);
    return {n, mm};
}

// The set as Python sees it: (n, m), or None without a series.
py::object zernike_set(const model& m, bool amplitude) {
    const auto [n, mm] = series_orders(m, amplitude);
    if (n < 0) return py::none();
    return py::make_tuple(n, mm);
}

py::list model_terms(const model& m, const std::string& series) {
    if (series != "amplitude" && series != "phase")
        throw py::value_error("torvel: series is \"amplitude\" or \"phase\", not \"" + series +
                              "\"");
    const auto [n, mm] = series_orders(m, series == "amplitude");
    py::list terms;
    for_each_zernike_term(n, mm, [&](int k, int l) {
        if (l == 0) {
            terms.append(py::make_tuple(k, l, "cos", noll_index(k, l, zernike_part::radial),
                                        osa_index(k, l, zernike_part::radial)));
            return;
        }
        terms.append(py::make_tuple(k, l, "cos", noll_index(k, l, zernike_part::cosine),
                                    osa_index(k, l, zernike_part::cosine)));
        terms.append(py::make_tuple(k, l, "sin", noll_index(k, l, zernike_part::sine),
                                    osa_index(k, l, zernike_part::sine)));
    });
    return terms;
}

std::vector<double> model_wavelengths_nm(const model& m) {
    std::vector<double> nm;
    for (int w = 0; w < get_parametric_pupil_wavelength_count(m.pupil.get()); ++w)
        nm.push_back(double(get_parametric_pupil_wavelength(m.pupil.get(), w) * 1000.0f));
    return nm;
}

// Floats as their shortest form in the repr: 1.4, not 1.39999998.
std::string short_text(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.7g", value);
    return text;
}

std::string model_repr(const model& m) {
    const ParametricPupil* p = m.pupil.get();
    std::string nm;
    for (double value : model_wavelengths_nm(m)) nm += (nm.empty() ? "" : ", ") + short_text(value);
    return "torvel.Model(na=" + short_text(get_parametric_pupil_numerical_aperture(p)) +
           ", n=" + short_text(get_parametric_pupil_immersion_refractive_index(p)) +
           ", wavelengths_nm=[" + nm +
           "], zernike_amp=" + std::string(py::repr(zernike_set(m, true))) +
           ", zernike_phase=" + std::string(py::repr(zernike_set(m, false))) + ")";
}

// ---- render and report -------------------------------------------------------------

py::object render(const model& m, const py::object& size, const std::optional<double>& spacing,
                  const py::object& centre, const py::object& w, const std::string& form,
                  const py::object& drop, const std::string& amplitude,
                  const py::object& path_object) {
    option_list options;
    options.texts.push_back("");  // where the image name stands on the command line
    if (!size.is_none()) options.texts.push_back("-size=" + list_text(size, ":"));
    if (spacing) options.texts.push_back("-spacing=" + number_text(*spacing));
    if (!centre.is_none()) options.texts.push_back("-centre=" + list_text(centre, ":"));
    if (!w.is_none()) options.texts.push_back("-w=" + list_text(w, ":"));
    options.texts.push_back("-form=" + form);
    if (!drop.is_none()) options.texts.push_back("-drop=" + list_text(drop, ","));
    options.texts.push_back("-amplitude=" + amplitude);
    std::vector<char*> argv = options.argv();
    std::string path;
    if (!path_object.is_none())
        path = py::str(py::module_::import("os").attr("fspath")(path_object));

    render_inputs inputs = kDefaultRenderInputs;
    inputs.model_name = model_label(m);
    inputs.image_name = path.c_str();
    render_plan plan{};
    bulk_array<float> planes;
    run_released([&] {
        // The dropped terms are left out of a copy: the model stays whole.
        pupil_ptr copy(copy_parametric_pupil(m.pupil.get()));
        if (!copy) return insufficient_memory();
        if (parse_render_options(int(argv.size()), argv.data(), *copy, &inputs) != 0 ||
            plan_render(inputs, *copy, &plan) != 0)
            return 1;
        drop_phase_terms(inputs.model, copy.get());
        if (!path.empty()) {
            if (same_file(inputs.image_name, m.name.empty() ? nullptr : m.name.c_str())) {
                print_message("torvel-render: %s is the fit file; it is not overwritten\n",
                              inputs.image_name);
                return 1;
            }
            std::lock_guard<std::mutex> lock(g_image_layer);
            image_set_program_name("torvel-render");
            const int status = write_rendered_image(inputs, copy.get(), plan);
            image_set_program_name("torvel");
            return status;
        }
        const std::int64_t pixels = std::int64_t(plan.nx) * plan.ny;
        planes = allocate_bulk<float>(2 * pixels * plan.wavelength_count);
        if (!planes) return insufficient_memory();
        const float na = get_parametric_pupil_numerical_aperture(copy.get());
        for (int slot = 0; slot < plan.wavelength_count; ++slot) {
            const pupil_grid grid{plan.x0,
                                  plan.y0,
                                  plan.spacing,
                                  plan.spacing,
                                  pupil_cutoff(na, plan.wavelength_nm[slot]),
                                  plan.nx,
                                  plan.ny};
            if (render_wavelength(inputs, copy.get(), inputs.model.wavelength_index[slot], grid,
                                  planes.get() + 2 * pixels * slot) != 0)
                return 1;
        }
        return 0;
    });
    if (!path.empty()) return py::none();
    if (inputs.complex_form)
        return complex_to_numpy(std::move(planes), {plan.wavelength_count, plan.ny, plan.nx});
    return floats_to_numpy(std::move(planes), {plan.wavelength_count, 2, plan.ny, plan.nx});
}

py::object report(const model& m, const py::object& json_name, const py::object& csv_name,
                  const py::object& png_name, const py::object& image_name,
                  const py::object& residual_name) {
    option_list options;
    options.texts = {"torvel-report", model_label(m)};
    const py::object os = py::module_::import("os");
    const std::pair<const char*, const py::object*> outputs[] = {{"-json=", &json_name},
                                                                 {"-csv=", &csv_name},
                                                                 {"-png=", &png_name},
                                                                 {"-image=", &image_name},
                                                                 {"-residual=", &residual_name}};
    for (const auto& [option, value] : outputs)
        if (!value->is_none())
            options.texts.push_back(option + std::string(py::str(os.attr("fspath")(*value))));
    std::vector<char*> argv = options.argv();
    std::string text;
    run_released([&] {
        report_inputs inputs;
        if (parse_report_command_line(int(argv.size()), argv.data(), &inputs) != 0) return 1;
        std::vector<report_entry> entries(1);
        report_entry& entry = entries.front();
        if (take_report_model(model_label(m), m.pupil.get(), &entry.model) != 0) return 1;
        for (int w = 0; w < int(entry.model.waves.size()); ++w)
            entry.metrics.push_back(compute_wavelength_metrics(entry.model, w));
        text = report_json_text(entries);
        if (inputs.json_name == nullptr && inputs.csv_name == nullptr && inputs.png_name == nullptr)
            return 0;
        std::lock_guard<std::mutex> lock(g_image_layer);
        image_set_program_name("torvel-report");
        const int status = write_report_outputs(inputs, entries);
        image_set_program_name("torvel");
        return status;
    });
    return py::module_::import("json").attr("loads")(text);
}

}  // namespace
}  // namespace torvel

PYBIND11_MODULE(torvel, module) {
    using namespace torvel;
    using namespace pybind11::literals;
    // Each docstring begins with its signature as Python users write it
    // (the stub torvel.pyi gives the types).
    py::options options;
    options.disable_function_signatures();
    module.doc() = R"doc(torvel: Zernike fits of microscope pupil functions, from Python.

The same library as the torvel programs, on files and numpy arrays:
read_fit() and fit() give a Model; render() turns a Model into a pupil
image, report() into the figures torvel-report gives. Failures raise
torvel.Error with the programs' message text; nothing is printed. The GIL
is released while fits and renders run, so threads fit in parallel.)doc";
    module.attr("__version__") = TORVEL_VERSION;
    py::register_exception<library_error>(module, "Error", PyExc_RuntimeError);

    py::class_<model>(module, "Model", R"doc(A fitted pupil model: what a torvel fit file holds.

Coefficients are for torvel's unnormalised Zernike basis (R_n^m(1) = 1), in
the file's slot order (see terms()); phase coefficients in radians.)doc")
        .def_property_readonly(
            "na",
            [](const model& m) { return get_parametric_pupil_numerical_aperture(m.pupil.get()); },
            "Numerical aperture of the objective.")
        .def_property_readonly(
            "n",
            [](const model& m) {
                return get_parametric_pupil_immersion_refractive_index(m.pupil.get());
            },
            "Refractive index of the immersion medium.")
        .def_property_readonly(
            "lens", [](const model& m) { return get_parametric_pupil_lens_id(m.pupil.get()); },
            "Objective lens number from the image header (-1: none).")
        .def_property_readonly("wavelengths_nm", &model_wavelengths_nm,
                               "The model's wavelengths in nm, in the file's order.")
        .def_property_readonly(
            "zernike_amp", [](const model& m) { return zernike_set(m, true); },
            "The amplitude's Zernike set (n, m), or None without an amplitude series.")
        .def_property_readonly(
            "zernike_phase", [](const model& m) { return zernike_set(m, false); },
            "The phase's Zernike set (n, m), or None without a phase series.")
        .def_property_readonly(
            "name", [](const model& m) { return m.name; },
            "The file the model was read from or last written to; '' for a fit in memory.")
        .def(
            "amplitude",
            [](const py::object& self, int w) { return coefficient_view(self, true, w); }, "w"_a,
            R"doc(amplitude(w) -> numpy.ndarray

The amplitude coefficients of wavelength index w (float64, the file's
order), as a writable view into the model; empty without an amplitude series.)doc")
        .def(
            "phase", [](const py::object& self, int w) { return coefficient_view(self, false, w); },
            "w"_a, R"doc(phase(w) -> numpy.ndarray

The phase coefficients of wavelength index w in radians (float64, the file's
order), as a writable view into the model; setting one to 0 leaves that term
out of what render() and report() see.)doc")
        .def("terms", &model_terms, "series"_a = "phase", R"doc(terms(series="phase") -> list

One tuple (n, m, "cos" or "sin", Noll index, OSA/ANSI index) per coefficient
of the series ("phase" or "amplitude"), in the order of its coefficients;
terms with m = 0 are "cos".)doc")
        .def("write", &write_model, "path"_a, R"doc(write(path)

Writes the model as a fit file, byte for byte as the torvel program writes
it. Whatever was at path before is left as it was when writing fails.)doc")
        .def("__repr__", &model_repr);

    module.def("read_fit", &read_fit, "path"_a, R"doc(read_fit(path) -> Model

Reads a fit file (the parametric pupil text file torvel writes). Raises
torvel.Error naming the line and column of what is wrong.)doc");

    module.def("fit", &fit, "image"_a, py::kw_only(), "w"_a = py::none(),
               "zernike_amp"_a = py::make_tuple(8, 0), "zernike_phase"_a = py::make_tuple(8, 0),
               "tol"_a = py::none(), "residual"_a = false,
               R"doc(fit(image, *, w=None, zernike_amp=(8, 0), zernike_phase=(8, 0), tol=None,
    residual=False, **geometry) -> Model | (Model, numpy.ndarray)

Fits Zernike series to the amplitude and the unwrapped phase of a pupil
function, wavelength by wavelength, as the torvel program does.

image: a pupil function image file name, or a complex64 numpy array of
    shape (ny, nx) or (nw, ny, nx); an array needs the keywords
    na, n: numerical aperture and immersion index;
    wavelengths_nm: one wavelength in nm per plane;
    spacing: pixel spacing in the pupil plane, reciprocal micrometres
        (one value, or (dx, dy));
    centre: pupil centre (x0, y0) in pixels, pixel centres at whole
        numbers (default (nx // 2, ny // 2));
    lens: the lens number recorded in the model (default -1).
w: the wavelengths to fit, by index or in nm (torvel's -w=); default all.
zernike_amp, zernike_phase: Zernike sets (n, m), or n for (n, n); None
    fits no series (amplitude 1, phase 0).
tol: relative tolerance of the least-squares rank (default 0.0001).
residual: also return the residual, measured minus fitted pupil, as a
    complex64 array with one plane per fitted wavelength.

From a file the coefficients are exactly those the torvel program writes.
A contiguous complex64 array is read where it lies, without a copy.
Raises torvel.Error with the program's message for a bad image, option or
fit; TypeError or ValueError for an array of the wrong type or shape.)doc");

    module.def("render", &render, "model"_a, py::kw_only(), "size"_a = py::none(),
               "spacing"_a = py::none(), "centre"_a = py::none(), "w"_a = py::none(),
               "form"_a = "complex", "drop"_a = py::none(), "amplitude"_a = "model",
               "path"_a = py::none(),
               R"doc(render(model, *, size=None, spacing=None, centre=None, w=None,
       form="complex", drop=None, amplitude="model", path=None) -> numpy.ndarray | None

The pupil function of a model as torvel-render makes it, with its options:
size nx or (nx, ny) (default 256); spacing in reciprocal micrometres (default:
the shortest wavelength's disc spans 90% of the smaller side); centre (x0, y0)
in pixels (default (nx // 2, ny // 2)); w the wavelengths by index or nm;
form "complex" or "real"; drop phase terms to leave out ("piston", "tilt",
"defocus" or (n, m), one or a list); amplitude "model" or "uniform".

Without path, returns complex64 (nw, ny, nx) (form "complex") or float32
(nw, 2, ny, nx), amplitude then phase (form "real"), rendered on exactly the
geometry given: fit(image, na=model.na, n=model.n, wavelengths_nm=...,
spacing=..., centre=...) with the same values reads it back. With path,
writes the pupil function image file as torvel-render does and returns None.)doc");

    module.def(
        "report", &report, "model"_a, py::kw_only(), "json"_a = py::none(), "csv"_a = py::none(),
        "png"_a = py::none(), "image"_a = py::none(), "residual"_a = py::none(),
        R"doc(report(model, *, json=None, csv=None, png=None, image=None, residual=None) -> dict

The figures torvel-report gives for the model (RMS wavefront error,
Strehl estimate, named aberrations, every coefficient), as a dict with the
content of its JSON export. json, csv and png name files to write as well,
as torvel-report's options do; image and residual (with png) add the
measured pupil image and torvel's residual image to the figure.)doc");
}
