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
#include <torvel/psf.hpp>
#include <torvel/pupil.hpp>
#include <torvel/render.hpp>
#include <torvel/report.hpp>
#include <torvel/retrieve.hpp>
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

// A stack of planes in memory, as torvel-psf writes it: voxels float32
// (nw, nz, ny, nx); header the file's header, with its spacing in µm as
// floats; dx_nm and dz_nm the spacing the stack was computed on.
struct stack_result {
    py::array voxels;
    image_stack_header header;
    double dx_nm = 0, dz_nm = 0;
};

// A retrieved pupil image in memory, as torvel-retrieve writes it, with the
// geometry torvel.fit takes and what each wavelength's iteration ended with.
struct pupil_result {
    py::array image;  // complex64 (nw, size, size)
    double na = 0, n = 0;
    int lens = 0;
    std::vector<double> wavelengths_nm;
    float spacing = 0;  // µm⁻¹
    float x0 = 0, y0 = 0;
    std::vector<double> background;
    py::list errors;  // float64 arrays, one per wavelength
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

int insufficient_memory(const char* program = "torvel") {
    print_message("%s: insufficient memory\n", program);
    return 1;
}

// A path argument (str, bytes or path-like) as the library takes it: the
// bytes the file system sees, so that a name that is not UTF-8 (bytes, or a
// str with Python's surrogate escapes) names the same file as in Python.
std::string path_text(const py::object& path) {
    return py::bytes(py::module_::import("os").attr("fsencode")(path));
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

// An array's shape as Python writes it, for messages.
std::string shape_text(const py::array& array) {
    return py::str(
        py::tuple(py::cast(std::vector<py::ssize_t>(array.shape(), array.shape() + array.ndim()))));
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
            "torvel: the pupil array must have the shape (ny, nx) or (nw, ny, nx), not " +
            shape_text(image));
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
    if (py::isinstance<pupil_result>(image)) {
        if (geometry.size() > 0)
            throw py::type_error(
                "torvel: na, n, wavelengths_nm, spacing, centre and lens are given "
                "with an array; a retrieved pupil holds them");
        const auto& p = image.cast<const pupil_result&>();
        py::kwargs own;
        own["na"] = p.na;
        own["n"] = p.n;
        own["lens"] = p.lens;
        own["wavelengths_nm"] = p.wavelengths_nm;
        own["spacing"] = p.spacing;
        own["centre"] = py::make_tuple(p.x0, p.y0);
        return fit_array(p.image, options, residual, own);
    }
    if (!py::isinstance<py::str>(image) && !py::hasattr(image, "__fspath__"))
        throw py::type_error(
            "torvel: fit() takes a file name, a complex64 numpy array or a retrieved pupil");
    if (geometry.size() > 0)
        throw py::type_error(
            "torvel: na, n, wavelengths_nm, spacing, centre and lens are given "
            "with an array; a file's header holds them");
    const std::string path = path_text(image);
    return fit_file(path, options, residual);
}

// ---- the model ---------------------------------------------------------------

std::unique_ptr<model> read_fit(const py::object& path_object) {
    const std::string path = path_text(path_object);
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
    const std::string path = path_text(path_object);
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

// Runs work, which reads or writes files through the image layer, under the
// layer's lock and with the layer's messages under program's name.
template <class Work>
int in_image_layer(const char* program, Work&& work) {
    std::lock_guard<std::mutex> lock(g_image_layer);
    image_set_program_name(program);
    const int status = work();
    image_set_program_name("torvel");
    return status;
}

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
    if (!path_object.is_none()) path = path_text(path_object);

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
            return in_image_layer("torvel-render",
                                  [&] { return write_rendered_image(inputs, copy.get(), plan); });
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
    const std::pair<const char*, const py::object*> outputs[] = {{"-json=", &json_name},
                                                                 {"-csv=", &csv_name},
                                                                 {"-png=", &png_name},
                                                                 {"-image=", &image_name},
                                                                 {"-residual=", &residual_name}};
    for (const auto& [option, value] : outputs)
        if (!value->is_none()) options.texts.push_back(option + path_text(*value));
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
        return in_image_layer("torvel-report",
                              [&] { return write_report_outputs(inputs, entries); });
    });
    return py::module_::import("json").attr("loads")(text);
}

// ---- psf and retrieve ----------------------------------------------------------

py::object psf(const model& m, const py::object& size, const std::optional<double>& dx,
               const std::optional<double>& dz, const py::object& w, const py::object& drop,
               const std::string& amplitude, bool vector, const std::string& normalize,
               const py::object& path_object) {
    option_list options;
    options.texts.push_back("");  // where the output name stands on the command line
    if (!size.is_none()) options.texts.push_back("-size=" + list_text(size, ":"));
    if (dx) options.texts.push_back("-dx=" + number_text(*dx));
    if (dz) options.texts.push_back("-dz=" + number_text(*dz));
    if (!w.is_none()) options.texts.push_back("-w=" + list_text(w, ":"));
    if (!drop.is_none()) options.texts.push_back("-drop=" + list_text(drop, ","));
    options.texts.push_back("-amplitude=" + amplitude);
    options.texts.push_back(std::string("-model=") + (vector ? "vector" : "scalar"));
    options.texts.push_back("-normalize=" + normalize);
    std::vector<char*> argv = options.argv();
    const std::string path = path_object.is_none() ? std::string() : path_text(path_object);

    psf_inputs inputs = kDefaultPsfInputs;
    inputs.model_name = model_label(m);
    inputs.output_name = path.empty() ? nullptr : path.c_str();
    psf_plan plan{};
    bulk_array<float> voxels;
    run_released([&] {
        // The dropped terms are left out of a copy: the model stays whole.
        pupil_ptr copy(copy_parametric_pupil(m.pupil.get()));
        if (!copy) return insufficient_memory("torvel-psf");
        if (parse_psf_options(int(argv.size()), argv.data(), *copy, &inputs) != 0 ||
            plan_psf(inputs, *copy, &plan) != 0)
            return 1;
        drop_phase_terms(inputs.model, copy.get());
        if (!path.empty())
            return in_image_layer("torvel-psf",
                                  [&] { return write_psf_stack(inputs, copy.get(), plan); });
        const std::int64_t count =
            std::int64_t(plan.nx) * plan.ny * plan.nz * plan.wavelength_count;
        voxels = allocate_bulk<float>(count);
        if (!voxels) return insufficient_memory("torvel-psf");
        return compute_psf_voxels(inputs, copy.get(), plan, {voxels.get(), std::size_t(count)});
    });
    if (!path.empty()) return py::none();
    stack_result result;
    result.voxels =
        floats_to_numpy(std::move(voxels), {plan.wavelength_count, plan.nz, plan.ny, plan.nx});
    result.header = psf_stack_header(plan);
    result.dx_nm = plan.dx_um * 1000.0;
    result.dz_nm = plan.dz_um * 1000.0;
    return py::cast(std::move(result));
}

// A bead stack handed over in memory: its voxels, as float32 laid out as a
// file's are read, and what is known of its geometry.
struct stack_in_memory {
    py::array_t<float, py::array::c_style> voxels;
    image_stack_header header;
};

// A numpy array (nz, ny, nx) or (nw, nz, ny, nx) of real numbers, read where
// it lies when it is contiguous float32, else copied once into that form.
stack_in_memory stack_of_array(const py::array& array) {
    const char kind = array.dtype().kind();
    if (kind != 'f' && kind != 'i' && kind != 'u')
        throw py::type_error("torvel: the stack must hold real numbers, not " +
                             std::string(py::str(array.dtype())));
    if (array.ndim() != 3 && array.ndim() != 4)
        throw py::value_error(
            "torvel: the stack must have the shape (nz, ny, nx) or (nw, nz, ny, nx), not " +
            shape_text(array));
    stack_in_memory stack;
    stack.voxels = py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(array);
    if (!stack.voxels) throw py::error_already_set();
    const int first = array.ndim() - 3;
    image_stack_header& h = stack.header;
    h.nw = first == 0 ? 1 : int(std::min<py::ssize_t>(array.shape(0), 6));
    if (h.nw > 5)
        throw py::value_error("torvel: a stack holds at most 5 wavelengths; the array has " +
                              std::to_string(array.shape(0)));
    constexpr py::ssize_t kMaxSide = std::numeric_limits<int>::max();
    for (int axis = first; axis < array.ndim(); ++axis)
        if (array.shape(axis) > kMaxSide || array.shape(axis) < 1)
            throw py::value_error("torvel: the stack's sides must be 1 to " +
                                  std::to_string(kMaxSide) + " voxels");
    h.nz = int(array.shape(first));
    h.ny = int(array.shape(first + 1));
    h.nx = int(array.shape(first + 2));
    return stack;
}

stack_in_memory stack_of_result(const stack_result& result) {
    return {py::array_t<float, py::array::c_style>::ensure(result.voxels), result.header};
}

std::vector<std::string> retrieve_options(const py::object& w, const std::optional<double>& dx,
                                          const std::optional<double>& dz,
                                          const std::optional<int>& lens,
                                          const std::optional<int>& size,
                                          const std::optional<int>& iterations,
                                          const std::optional<double>& tol,
                                          const py::object& background, bool vector) {
    std::vector<std::string> texts;
    if (!w.is_none()) texts.push_back("-w=" + list_text(w, ":"));
    if (dx) texts.push_back("-dx=" + number_text(*dx));
    if (dz) texts.push_back("-dz=" + number_text(*dz));
    if (lens) texts.push_back("-lens=" + std::to_string(*lens));
    if (size) texts.push_back("-size=" + std::to_string(*size));
    if (iterations) texts.push_back("-iterations=" + std::to_string(*iterations));
    if (tol) texts.push_back("-tol=" + number_text(*tol));
    texts.push_back("-background=" + list_text(background, ":"));
    texts.push_back(std::string("-model=") + (vector ? "vector" : "scalar"));
    return texts;
}

// What a retrieval keeps besides its pupil image, per wavelength.
py::list error_arrays(std::span<const retrieval_log> logs) {
    py::list errors;
    for (const retrieval_log& log : logs) {
        py::array_t<double> values(log.count);
        std::copy_n(log.error.get(), log.count, values.mutable_data());
        errors.append(values);
    }
    return errors;
}

py::object retrieve(const py::object& stack, const std::optional<double>& na,
                    const std::optional<double>& n, const py::object& w,
                    const std::optional<double>& dx, const std::optional<double>& dz,
                    const std::optional<int>& lens, const std::optional<int>& size,
                    const std::optional<int>& iterations, const std::optional<double>& tol,
                    const py::object& background, bool vector, const py::object& path_object,
                    const py::object& psf_object, const py::object& log_object) {
    // Without them pybind11's own complaint would print the whole stack.
    if (!na || !n)
        throw py::type_error(std::string("torvel: retrieve() needs the keyword ") +
                             (na ? "n (the immersion index)" : "na (the numerical aperture)"));
    option_list options;
    options.texts = {"", "-na=" + number_text(*na), "-n=" + number_text(*n)};
    for (std::string& text :
         retrieve_options(w, dx, dz, lens, size, iterations, tol, background, vector))
        options.texts.push_back(std::move(text));
    const std::pair<const char*, const py::object*> outputs[] = {{"-psf=", &psf_object},
                                                                 {"-log=", &log_object}};
    for (const auto& [option, value] : outputs)
        if (!value->is_none()) options.texts.push_back(option + path_text(*value));
    std::vector<char*> argv = options.argv();
    const std::string path = path_object.is_none() ? std::string() : path_text(path_object);

    std::string stack_name = "array";
    std::optional<stack_in_memory> in_memory;
    if (py::isinstance<stack_result>(stack))
        in_memory = stack_of_result(stack.cast<const stack_result&>());
    else if (py::isinstance<py::array>(stack))
        in_memory = stack_of_array(stack);
    else if (py::isinstance<py::str>(stack) || py::hasattr(stack, "__fspath__"))
        stack_name = path_text(stack);
    else
        throw py::type_error(
            "torvel: retrieve() takes a file name, a numpy array or a stack from torvel.psf");

    retrieve_inputs inputs = kDefaultRetrieveInputs;
    inputs.stack_name = stack_name.c_str();
    inputs.output_name = path.empty() ? nullptr : path.c_str();
    bead_data data;
    retrieval results[5];
    retrieval_log logs[5];
    bulk_array<float> images;
    run_released([&] {
        if (parse_retrieve_options(int(argv.size()), argv.data(), &inputs) != 0) return 1;
        if (in_memory) {
            const std::size_t count = std::size_t(in_memory->voxels.size());
            if (load_bead_voxels(inputs, in_memory->header, {in_memory->voxels.data(), count},
                                 &data) != 0)
                return 1;
        } else if (in_image_layer("torvel-retrieve",
                                  [&] { return load_bead_data(inputs, &data); }) != 0) {
            return 1;
        }
        for (int k = 0; k < data.wavelengths; ++k)
            if (retrieve_pupil(inputs, data.stacks[k], &results[k], &logs[k]) != 0) return 1;
        const std::size_t pixels = std::size_t(inputs.size) * inputs.size;
        images = allocate_bulk<float>(std::int64_t(2 * pixels) * data.wavelengths);
        if (!images) return insufficient_memory("torvel-retrieve");
        const std::span<std::complex<float>> all(
            reinterpret_cast<std::complex<float>*>(images.get()), pixels * data.wavelengths);
        for (int k = 0; k < data.wavelengths; ++k)
            pupil_on_image_grid(results[k], inputs.size, all.subspan(pixels * k, pixels));
        return in_image_layer("torvel-retrieve", [&] {
            if (inputs.output_name != nullptr && write_retrieved_pupil(inputs, data, all) != 0)
                return 1;
            if (inputs.psf_name != nullptr && write_retrieved_psf(inputs, data, results) != 0)
                return 1;
            if (inputs.log_name != nullptr &&
                write_retrieval_log(inputs, data, {logs, std::size_t(data.wavelengths)}) != 0)
                return 1;
            return 0;
        });
    });
    pupil_result result;
    result.image =
        complex_to_numpy(std::move(images), {data.wavelengths, inputs.size, inputs.size});
    result.na = inputs.na;
    result.n = inputs.n;
    result.lens = inputs.lens;
    for (int k = 0; k < data.wavelengths; ++k) {
        result.wavelengths_nm.push_back(data.header.wavelengths_nm[k]);
        result.background.push_back(results[k].background);
    }
    const render_plan plan = retrieved_pupil_plan(inputs, data);
    result.spacing = plan.spacing;
    result.x0 = plan.x0;
    result.y0 = plan.y0;
    result.errors = error_arrays({logs, std::size_t(data.wavelengths)});
    return py::cast(std::move(result));
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
image, report() into the figures torvel-report gives, psf() into its 3D
point spread function; retrieve() gives the pupil image of a bead z-stack,
which fit() takes. Failures raise torvel.Error with the programs' message
text; nothing is printed. The GIL is released while the library works, so
threads fit, render and compute in parallel.)doc";
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

    py::class_<stack_result>(module, "Stack", R"doc(A stack of planes as torvel-psf writes it.

voxels: float32 array (nw, nz, ny, nx), one stack per wavelength; voxel
    [w, k, j, i] lies at x = (i - nx // 2) dx, y = (j - ny // 2) dx,
    z = (k - nz // 2) dz, the emitter at the origin (the layout of the MRC
    file: sections wavelength after wavelength, rows of x).
dx_nm, dz_nm: lateral voxel size and plane spacing in nm.
wavelengths_nm: the wavelength of each stack.
numpy.asarray(stack) is stack.voxels; retrieve() takes a Stack with its
spacing and wavelengths.)doc")
        .def_readonly("voxels", &stack_result::voxels, "float32 (nw, nz, ny, nx).")
        .def_readonly("dx_nm", &stack_result::dx_nm, "Lateral voxel size in nm.")
        .def_readonly("dz_nm", &stack_result::dz_nm, "Plane spacing in nm.")
        .def_property_readonly(
            "wavelengths_nm",
            [](const stack_result& r) {
                return std::vector<double>(r.header.wavelengths_nm,
                                           r.header.wavelengths_nm + r.header.nw);
            },
            "The wavelength of each stack in nm.")
        .def(
            "__array__",
            [](const stack_result& r, const py::object& dtype, const py::object&) {
                return dtype.is_none() ? py::object(r.voxels) : r.voxels.attr("astype")(dtype);
            },
            "dtype"_a = py::none(), "copy"_a = py::none())
        .def("__repr__", [](const stack_result& r) {
            return "torvel.Stack(voxels=float32" + std::string(py::str(r.voxels.attr("shape"))) +
                   ", dx_nm=" + short_text(r.dx_nm) + ", dz_nm=" + short_text(r.dz_nm) + ")";
        });

    py::class_<pupil_result>(module, "Pupil", R"doc(A retrieved pupil: what torvel-retrieve writes.

image: complex64 array (nw, size, size), one pupil per wavelength; pixel
    [w, j, i] at k = ((i - size // 2), (j - size // 2)) * spacing, 0 outside
    the disc NA / wavelength, mean amplitude 1 over the disc.
na, n, lens, wavelengths_nm, spacing (reciprocal micrometres), centre
    (pixels): its geometry, as the pupil image's header records it.
background: the background each wavelength's iteration ended with, in the
    stack's units; errors: the error of every iteration, one float64 array
    per wavelength.
fit(pupil) fits it with this geometry.)doc")
        .def_readonly("image", &pupil_result::image, "complex64 (nw, size, size).")
        .def_readonly("na", &pupil_result::na, "Numerical aperture.")
        .def_readonly("n", &pupil_result::n, "Immersion refractive index.")
        .def_readonly("lens", &pupil_result::lens, "Lens number.")
        .def_readonly("wavelengths_nm", &pupil_result::wavelengths_nm, "Wavelengths in nm.")
        .def_readonly("spacing", &pupil_result::spacing, "Pixel spacing, reciprocal micrometres.")
        .def_property_readonly(
            "centre", [](const pupil_result& p) { return py::make_tuple(p.x0, p.y0); },
            "The pupil centre (x0, y0) in pixels.")
        .def_readonly("background", &pupil_result::background,
                      "Each wavelength's background, in the stack's units.")
        .def_readonly("errors", &pupil_result::errors,
                      "Each wavelength's error per iteration (float64 arrays).")
        .def("__repr__", [](const pupil_result& p) {
            std::string nm;
            for (double v : p.wavelengths_nm) nm += (nm.empty() ? "" : ", ") + short_text(v);
            return "torvel.Pupil(image=complex64" + std::string(py::str(p.image.attr("shape"))) +
                   ", na=" + short_text(p.na) + ", n=" + short_text(p.n) + ", wavelengths_nm=[" +
                   nm + "], spacing=" + short_text(p.spacing) + ")";
        });

    module.def("psf", &psf, "model"_a, py::kw_only(), "size"_a = py::none(), "dx"_a = py::none(),
               "dz"_a = py::none(), "w"_a = py::none(), "drop"_a = py::none(),
               "amplitude"_a = "model", "vector"_a = false, "normalize"_a = "sum",
               "path"_a = py::none(),
               R"doc(psf(model, *, size=None, dx=None, dz=None, w=None, drop=None,
    amplitude="model", vector=False, normalize="sum", path=None) -> Stack | None

The 3D point spread function of a model as torvel-psf computes it, with its
options: size nx, (nx, ny) or (nx, ny, nz) voxels (default 64, 64, 64); dx
and dz the lateral voxel size and plane spacing in nm (default Nyquist for
the shortest selected wavelength); w the wavelengths by index or nm; drop
phase terms to leave out ("piston", "tilt", "defocus" or (n, m), one or a
list); amplitude "model" or "uniform"; vector False for the scalar model
|E|^2, True for the vector model (torvel-psf's -model=vector); normalize
"sum" (each wavelength's stack sums to 1), "peak" (its largest voxel is 1)
or "none" (|E|^2 in um^-4).

Without path, returns a Stack: voxels float32 (nw, nz, ny, nx), voxel
[w, k, j, i] at x = (i - nx // 2) dx, y = (j - ny // 2) dx,
z = (k - nz // 2) dz, the emitter at the origin: the numbers torvel-psf
writes. With path, writes the stack as torvel-psf does (.mrc, .tif or
.tiff) and returns None.)doc");

    module.def("retrieve", &retrieve, "stack"_a, py::kw_only(), "na"_a = py::none(),
               "n"_a = py::none(), "w"_a = py::none(), "dx"_a = py::none(), "dz"_a = py::none(),
               "lens"_a = py::none(), "size"_a = py::none(), "iterations"_a = py::none(),
               "tol"_a = py::none(), "background"_a = "auto", "vector"_a = false,
               "path"_a = py::none(), "psf"_a = py::none(), "log"_a = py::none(),
               R"doc(retrieve(stack, *, na, n, w=None, dx=None, dz=None, lens=None, size=None,
         iterations=None, tol=None, background="auto", vector=False, path=None,
         psf=None, log=None) -> Pupil

The pupil function of a microscope from a z-stack of a sub-resolution bead,
by torvel-retrieve's phase retrieval, with its options:

stack: a stack file name (MRC or TIFF), a Stack (from psf()), or a numpy
    array of real numbers (nz, ny, nx) or (nw, nz, ny, nx), plane k at
    z = (k - nz // 2) dz (a C-contiguous float32 array is read where it
    lies; any other is copied once as float32).
na, n: numerical aperture and immersion refractive index (required).
w: each wavelength in nm; dx, dz: pixel size and plane spacing in nm. An
    array needs all three; they override a file's or a Stack's.
lens: the lens number recorded (default 0); size: the crop around the
    bead, N x N pixels (default 64); iterations: the most iterations
    (default 200); tol: stop when the pupil changes by less than this
    fraction of its norm (default 1e-6); background: "auto" (estimated
    from the border and refined) or the background per voxel in the
    stack's units; vector: the vector forward model.
path, psf, log: also write the pupil image (.mrc), the retrieved PSF
    beside the bead, and the error of every iteration (CSV), as
    torvel-retrieve's pupil_image, -psf= and -log= do.

Returns a Pupil, whose image holds the numbers torvel-retrieve writes;
fit(pupil) fits it. Raises torvel.Error with the program's message.)doc");
}
