// The parametric pupil record: owned raw arrays behind plain functions, so
// that the fitter can write coefficients straight into the record's arrays.
// No allocation throws (new (std::nothrow), and calloc or mmap for the
// coefficient arrays): running out of memory is a null result the caller can
// report, and each failure path frees what it made.

#include <torvel/pupil.hpp>

#include <torvel/zernike.hpp>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include <sys/mman.h>

namespace torvel {
namespace {

// The one empty label shared by every empty slot; it is never freed, so an
// empty label costs no allocation and cannot fail.
char empty_label[1] = {'\0'};

constexpr std::int32_t kWaveCapacityStep = 5;
constexpr std::int32_t kLabelCapacityStep = 8;
constexpr std::int64_t kMaxCount = INT32_MAX;

constexpr double kInverseSqrt2 = 0.7071067811865475;

bool is_valid_zernike_set(std::int32_t n, std::int32_t m) {
    return n >= 0 && n <= kMaxZernikeOrder && m >= 0 && m <= n && (n - m) % 2 == 0;
}

// Capacity that holds `needed` entries, rounded up to a whole step; 0 when it
// would not fit in 32 bits.
std::int32_t rounded_capacity(std::int64_t needed, std::int32_t step) {
    const std::int64_t capacity = (needed + step - 1) / step * step;
    return capacity > kMaxCount ? 0 : static_cast<std::int32_t>(capacity);
}

// Coefficient arrays begin after a small header that says how they were
// made. Large ones are fresh anonymous mappings: zero pages that cost no
// memory until written, with or without a sanitizer watching the heap, so a
// set larger than any fit can use, which the fit refuses, never costs the
// gigabytes its size names. Small ones come from calloc.
struct ArrayHeader {
    std::size_t bytes;  // of the whole block, header included
    bool mapped;
};
constexpr std::size_t kMappedFrom = std::size_t(1) << 20;

// New zero-filled array of count doubles, or null (also for count 0). Freed
// with free_coeff_array.
double* new_coeff_array(std::int32_t count) {
    if (count <= 0) return nullptr;
    const std::size_t bytes = sizeof(ArrayHeader) + std::size_t(count) * sizeof(double);
    const bool mapped = bytes >= kMappedFrom;
    void* block =
        mapped ? mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)
               : std::calloc(1, bytes);
    if (block == nullptr || block == MAP_FAILED) return nullptr;
    auto* header = static_cast<ArrayHeader*>(block);
    *header = {bytes, mapped};
    return reinterpret_cast<double*>(header + 1);
}

void free_coeff_array(double* array) {
    if (array == nullptr) return;
    ArrayHeader* header = reinterpret_cast<ArrayHeader*>(array) - 1;
    if (header->mapped)
        munmap(header, header->bytes);
    else
        std::free(header);
}

void free_label(char* label) {
    if (label != empty_label) delete[] label;
}

// Private heap copy of text, the shared empty label for null text, or null
// when memory runs out.
char* copy_label(const char* text) {
    if (text == nullptr) return empty_label;
    const std::size_t length = std::strlen(text) + 1;
    char* copy = new (std::nothrow) char[length];
    if (copy != nullptr) std::memcpy(copy, text, length);
    return copy;
}

void free_wave(WaveAttributes& wave) {
    free_coeff_array(wave.amplitude_zernike_coeff);
    free_coeff_array(wave.phase_zernike_coeff);
    free_coeff_array(wave.amplitude_polarf_coeff);
    free_coeff_array(wave.phase_polarf_coeff);
    wave = WaveAttributes{};
}

void free_waves(WaveAttributes* waves, std::int32_t first, std::int32_t end) {
    for (std::int32_t i = first; i < end; ++i) free_wave(waves[i]);
}

void move_waves(WaveAttributes* to, const WaveAttributes* from, std::int32_t count) {
    if (count > 0) std::memmove(to, from, sizeof(WaveAttributes) * std::size_t(count));
}

void move_labels(char** to, char* const* from, std::int32_t count) {
    if (count > 0) std::memmove(to, from, sizeof(char*) * std::size_t(count));
}

void fill_empty_labels(char** labels, std::int32_t first, std::int32_t end) {
    for (std::int32_t i = first; i < end; ++i) labels[i] = empty_label;
}

// Installs a larger wave array, moving the entries in use; false when out of
// memory (record unchanged).
bool grow_waves(ParametricPupil* pupil, std::int32_t capacity) {
    if (capacity == 0) return false;
    auto* waves = new (std::nothrow) WaveAttributes[std::size_t(capacity)]();
    if (waves == nullptr) return false;
    move_waves(waves, pupil->waves, pupil->wavelength_count);
    if (pupil->wavelength_capacity > 0) delete[] pupil->waves;
    pupil->waves = waves;
    pupil->wavelength_capacity = capacity;
    return true;
}

bool grow_labels(ParametricPupil* pupil, std::int32_t capacity) {
    if (capacity == 0) return false;
    auto* labels = new (std::nothrow) char*[std::size_t(capacity)]();
    if (labels == nullptr) return false;
    move_labels(labels, pupil->labels, pupil->label_count);
    if (pupil->label_capacity > 0) delete[] pupil->labels;
    pupil->labels = labels;
    pupil->label_capacity = capacity;
    return true;
}

// Insertion of a wavelength when the array has room for it.
ParametricPupil* insert_wave_in_place(ParametricPupil* pupil, std::int32_t i) {
    WaveAttributes* waves = pupil->waves;
    const std::int32_t c = pupil->wavelength_count;
    if (i < c) move_waves(waves + i + 1, waves + i, c - i);
    if (i > c && initialize_wave_attributes(waves, pupil, c, i) != 0) return nullptr;
    if (initialize_wave_attributes(waves, pupil, i, i + 1) != 0) {
        if (i < c) {
            move_waves(waves + i, waves + i + 1, c - i);
            waves[c] = WaveAttributes{};
        }
        if (i > c) free_waves(waves, c, i);
        return nullptr;
    }
    pupil->wavelength_count = i > c ? i + 1 : c + 1;
    return pupil;
}

// Insertion of a wavelength into a new, larger array.
ParametricPupil* insert_wave_in_new_array(ParametricPupil* pupil, std::int32_t i) {
    const std::int32_t c = pupil->wavelength_count;
    const std::int32_t k = pupil->wavelength_capacity;
    const std::int64_t base = (c == k && i < k) ? std::int64_t(k) + 1 : std::int64_t(i) + 1;
    const std::int32_t capacity = rounded_capacity(base, kWaveCapacityStep);
    if (capacity == 0) return nullptr;
    auto* waves = new (std::nothrow) WaveAttributes[std::size_t(capacity)]();
    if (waves == nullptr) return nullptr;
    move_waves(waves, pupil->waves, std::min(i, c));
    if (initialize_wave_attributes(waves, pupil, i, i + 1) != 0) {
        delete[] waves;
        return nullptr;
    }
    if (i < c) move_waves(waves + i + 1, pupil->waves + i, c - i);
    if (i > c && initialize_wave_attributes(waves, pupil, c, i) != 0) {
        free_wave(waves[i]);
        delete[] waves;
        return nullptr;
    }
    if (k > 0) delete[] pupil->waves;
    pupil->waves = waves;
    pupil->wavelength_capacity = capacity;
    pupil->wavelength_count = i > c ? i + 1 : c + 1;
    return pupil;
}

// Which of the four series an order-set change applies to.
enum class Series { amplitude_zernike, phase_zernike, amplitude_polarf, phase_polarf };

double*& series_array(WaveAttributes& wave, Series series) {
    switch (series) {
        case Series::amplitude_zernike:
            return wave.amplitude_zernike_coeff;
        case Series::phase_zernike:
            return wave.phase_zernike_coeff;
        case Series::amplitude_polarf:
            return wave.amplitude_polarf_coeff;
        case Series::phase_polarf:
            break;
    }
    return wave.phase_polarf_coeff;
}

struct OrderFields {
    std::int32_t* first;
    std::int32_t* second;
};

OrderFields series_orders(ParametricPupil* pupil, Series series) {
    switch (series) {
        case Series::amplitude_zernike:
            return {&pupil->amplitude_zernike_n, &pupil->amplitude_zernike_m};
        case Series::phase_zernike:
            return {&pupil->phase_zernike_n, &pupil->phase_zernike_m};
        case Series::amplitude_polarf:
            return {&pupil->amplitude_polarf_n, &pupil->amplitude_polarf_m};
        case Series::phase_polarf:
            break;
    }
    return {&pupil->phase_polarf_n, &pupil->phase_polarf_m};
}

// Grows the series' array of every wavelength to new_count, keeping the first
// old_count values by slot and zero-filling the rest. A failure stops at once;
// the arrays grown so far stay grown, which is harmless since readers go by
// the count.
bool grow_series(ParametricPupil* pupil, Series series, std::int32_t old_count,
                 std::int32_t new_count) {
    for (std::int32_t w = 0; w < pupil->wavelength_count; ++w) {
        double*& array = series_array(pupil->waves[w], series);
        double* grown = new_coeff_array(new_count);
        if (grown == nullptr) return false;
        if (old_count > 0) std::memcpy(grown, array, sizeof(double) * std::size_t(old_count));
        free_coeff_array(array);
        array = grown;
    }
    return true;
}

void remove_series(ParametricPupil* pupil, Series series) {
    for (std::int32_t w = 0; w < pupil->wavelength_count; ++w) {
        double*& array = series_array(pupil->waves[w], series);
        free_coeff_array(array);
        array = nullptr;
    }
}

// The shared step of all four order setters, once the new set is validated
// and its count known (0 when the series is removed).
ParametricPupil* change_orders(ParametricPupil* pupil, Series series, std::int32_t first,
                               std::int32_t second, std::int32_t old_count,
                               std::int32_t new_count) {
    const OrderFields orders = series_orders(pupil, series);
    if (new_count == 0) {
        remove_series(pupil, series);
        *orders.first = -1;
        *orders.second = -1;
        return pupil;
    }
    if (new_count > old_count && !grow_series(pupil, series, old_count, new_count)) return nullptr;
    *orders.first = first;
    *orders.second = second;
    return pupil;
}

ParametricPupil* set_zernike_orders(ParametricPupil* pupil, Series series, std::int32_t n,
                                    std::int32_t m, std::int32_t old_count) {
    if (pupil == nullptr) return nullptr;
    if (n >= 0 && !is_valid_zernike_set(n, m)) return nullptr;
    return change_orders(pupil, series, n, m, old_count, zernike_term_count(n, m));
}

ParametricPupil* set_polarf_orders(ParametricPupil* pupil, Series series, std::int32_t a,
                                   std::int32_t b, std::int32_t old_count) {
    if (pupil == nullptr) return nullptr;
    const std::int64_t count = polarf_term_count(a, b);
    if (count > kMaxCount) return nullptr;
    return change_orders(pupil, series, a, b, old_count, static_cast<std::int32_t>(count));
}

void write_pair(std::int32_t first, std::int32_t second, std::int32_t* out1, std::int32_t* out2) {
    if (out1 != nullptr) *out1 = first;
    if (out2 != nullptr) *out2 = second;
}

bool has_wave(const ParametricPupil* pupil, std::int32_t index) {
    return pupil != nullptr && index >= 0 && index < pupil->wavelength_count;
}

bool has_label(const ParametricPupil* pupil, std::int32_t index) {
    return pupil != nullptr && index >= 0 && index < pupil->label_count;
}

struct record_deleter {
    void operator()(ParametricPupil* pupil) const { destroy_parametric_pupil(pupil); }
};

// Copies count values of from into to, either of which may be null when
// there are none.
void copy_values(const double* from, double* to, std::int32_t count) {
    if (from != nullptr && to != nullptr && count > 0) std::copy(from, from + count, to);
}

}  // namespace

std::int64_t polarf_term_count(std::int32_t a, std::int32_t b) {
    if (a < 0 || b < 0) return 0;
    const std::int64_t rows = 2 * std::int64_t(a) + 1, columns = 2 * std::int64_t(b) + 1;
    // Both near 2^32 would overflow; any such count is far beyond every limit.
    if (rows > INT64_MAX / columns) return INT64_MAX;
    return rows * columns;
}

// ---- life ------------------------------------------------------------------

ParametricPupil* create_parametric_pupil() {
    return new (std::nothrow) ParametricPupil();
}

void destroy_parametric_pupil(ParametricPupil* pupil) {
    if (pupil == nullptr) return;
    for (std::int32_t i = 0; i < pupil->label_count; ++i) free_label(pupil->labels[i]);
    if (pupil->label_capacity > 0) delete[] pupil->labels;
    free_waves(pupil->waves, 0, pupil->wavelength_count);
    if (pupil->wavelength_capacity > 0) delete[] pupil->waves;
    delete pupil;
}

ParametricPupil* copy_parametric_pupil(const ParametricPupil* pupil) {
    if (pupil == nullptr) return nullptr;
    std::unique_ptr<ParametricPupil, record_deleter> copy(create_parametric_pupil());
    if (!copy) return nullptr;
    ParametricPupil* c = copy.get();
    for (std::int32_t i = 0; i < pupil->label_count; ++i)
        if (!insert_parametric_pupil_label(c, i, pupil->labels[i])) return nullptr;
    c->numerical_aperture = pupil->numerical_aperture;
    c->immersion_refractive_index = pupil->immersion_refractive_index;
    c->lens_id = pupil->lens_id;
    if (!set_parametric_pupil_amplitude_zernike_orders(c, pupil->amplitude_zernike_n,
                                                       pupil->amplitude_zernike_m) ||
        !set_parametric_pupil_phase_zernike_orders(c, pupil->phase_zernike_n,
                                                   pupil->phase_zernike_m) ||
        !set_parametric_pupil_amplitude_polarf_orders(c, pupil->amplitude_polarf_n,
                                                      pupil->amplitude_polarf_m) ||
        !set_parametric_pupil_phase_polarf_orders(c, pupil->phase_polarf_n,
                                                  pupil->phase_polarf_m) ||
        !set_parametric_pupil_wavelength_count(c, pupil->wavelength_count))
        return nullptr;
    const std::int32_t counts[4] = {get_parametric_pupil_amplitude_zernike_count(c),
                                    get_parametric_pupil_phase_zernike_count(c),
                                    get_parametric_pupil_amplitude_polarf_count(c),
                                    get_parametric_pupil_phase_polarf_count(c)};
    for (std::int32_t w = 0; w < pupil->wavelength_count; ++w) {
        const WaveAttributes& from = pupil->waves[w];
        WaveAttributes& to = c->waves[w];
        to.wavelength = from.wavelength;
        copy_values(from.amplitude_zernike_coeff, to.amplitude_zernike_coeff, counts[0]);
        copy_values(from.phase_zernike_coeff, to.phase_zernike_coeff, counts[1]);
        copy_values(from.amplitude_polarf_coeff, to.amplitude_polarf_coeff, counts[2]);
        copy_values(from.phase_polarf_coeff, to.phase_polarf_coeff, counts[3]);
    }
    return copy.release();
}

// ---- labels ----------------------------------------------------------------

std::int32_t get_parametric_pupil_label_count(const ParametricPupil* pupil) {
    return pupil == nullptr ? 0 : pupil->label_count;
}

ParametricPupil* set_parametric_pupil_label_count(ParametricPupil* pupil, std::int32_t count) {
    if (pupil == nullptr || count < 0) return nullptr;
    if (count > pupil->label_capacity &&
        !grow_labels(pupil, rounded_capacity(count, kLabelCapacityStep)))
        return nullptr;
    for (std::int32_t i = count; i < pupil->label_count; ++i) free_label(pupil->labels[i]);
    fill_empty_labels(pupil->labels, pupil->label_count, count);
    pupil->label_count = count;
    return pupil;
}

ParametricPupil* insert_parametric_pupil_label(ParametricPupil* pupil, std::int32_t index,
                                               const char* text) {
    if (pupil == nullptr || index < 0) return nullptr;
    char* copy = copy_label(text);
    if (copy == nullptr) return nullptr;
    const std::int32_t i = index;
    const std::int32_t c = pupil->label_count;
    const std::int32_t k = pupil->label_capacity;
    if (c != k && i < k) {
        if (i < c) move_labels(pupil->labels + i + 1, pupil->labels + i, c - i);
        fill_empty_labels(pupil->labels, c, i);
        pupil->labels[i] = copy;
    } else {
        const std::int64_t base = (c == k && i < k) ? std::int64_t(k) + 1 : std::int64_t(i) + 1;
        const std::int32_t capacity = rounded_capacity(base, kLabelCapacityStep);
        char** labels = capacity == 0 ? nullptr : new (std::nothrow) char*[std::size_t(capacity)]();
        if (labels == nullptr) {
            free_label(copy);
            return nullptr;
        }
        move_labels(labels, pupil->labels, std::min(i, c));
        labels[i] = copy;
        if (i < c) move_labels(labels + i + 1, pupil->labels + i, c - i);
        fill_empty_labels(labels, c, i);
        if (k > 0) delete[] pupil->labels;
        pupil->labels = labels;
        pupil->label_capacity = capacity;
    }
    pupil->label_count = i > c ? i + 1 : c + 1;
    return pupil;
}

ParametricPupil* set_parametric_pupil_label(ParametricPupil* pupil, std::int32_t index,
                                            const char* text) {
    if (!has_label(pupil, index)) return nullptr;
    char* copy = copy_label(text);
    if (copy == nullptr) return nullptr;
    free_label(pupil->labels[index]);
    pupil->labels[index] = copy;
    return pupil;
}

const char* get_parametric_pupil_label(const ParametricPupil* pupil, std::int32_t index) {
    return has_label(pupil, index) ? pupil->labels[index] : nullptr;
}

ParametricPupil* delete_parametric_pupil_label(ParametricPupil* pupil, std::int32_t index) {
    if (!has_label(pupil, index)) return nullptr;
    free_label(pupil->labels[index]);
    move_labels(pupil->labels + index, pupil->labels + index + 1, pupil->label_count - index - 1);
    --pupil->label_count;
    return pupil;
}

// ---- optics ----------------------------------------------------------------

ParametricPupil* set_parametric_pupil_na_nimm(ParametricPupil* pupil, float na, float n_imm) {
    if (pupil == nullptr) return nullptr;
    // The quotient is taken in single precision, the precision the values
    // are kept in, so an aperture equal to the index is always accepted.
    if (!(na > 0.0f) || !(n_imm > 0.0f)) return nullptr;
    const float ratio = na / n_imm;
    if (!(ratio <= 1.0f)) return nullptr;
    pupil->numerical_aperture = na;
    pupil->immersion_refractive_index = n_imm;
    return pupil;
}

float get_parametric_pupil_numerical_aperture(const ParametricPupil* pupil) {
    return pupil == nullptr ? 1.0f : pupil->numerical_aperture;
}

float get_parametric_pupil_immersion_refractive_index(const ParametricPupil* pupil) {
    return pupil == nullptr ? 1.0f : pupil->immersion_refractive_index;
}

ParametricPupil* set_parametric_pupil_lens_id(ParametricPupil* pupil, std::int32_t id) {
    if (pupil == nullptr) return nullptr;
    pupil->lens_id = id;
    return pupil;
}

std::int32_t get_parametric_pupil_lens_id(const ParametricPupil* pupil) {
    return pupil == nullptr ? -1 : pupil->lens_id;
}

// ---- wavelengths -----------------------------------------------------------

std::int32_t get_parametric_pupil_wavelength_count(const ParametricPupil* pupil) {
    return pupil == nullptr ? 0 : pupil->wavelength_count;
}

ParametricPupil* set_parametric_pupil_wavelength_count(ParametricPupil* pupil, std::int32_t count) {
    if (pupil == nullptr || count < 0) return nullptr;
    if (count > pupil->wavelength_capacity &&
        !grow_waves(pupil, rounded_capacity(count, kWaveCapacityStep)))
        return nullptr;
    const std::int32_t old_count = pupil->wavelength_count;
    if (count > old_count && initialize_wave_attributes(pupil->waves, pupil, old_count, count) != 0)
        return nullptr;
    free_waves(pupil->waves, count, old_count);
    pupil->wavelength_count = count;
    return pupil;
}

ParametricPupil* insert_parametric_pupil_wavelength(ParametricPupil* pupil, std::int32_t index) {
    if (pupil == nullptr || index < 0 || index == INT32_MAX) return nullptr;
    if (pupil->wavelength_count != pupil->wavelength_capacity && index < pupil->wavelength_capacity)
        return insert_wave_in_place(pupil, index);
    return insert_wave_in_new_array(pupil, index);
}

ParametricPupil* delete_parametric_pupil_wavelength(ParametricPupil* pupil, std::int32_t index) {
    if (!has_wave(pupil, index)) return nullptr;
    WaveAttributes* waves = pupil->waves;
    free_wave(waves[index]);
    move_waves(waves + index, waves + index + 1, pupil->wavelength_count - index - 1);
    --pupil->wavelength_count;
    waves[pupil->wavelength_count] = WaveAttributes{};
    return pupil;
}

ParametricPupil* set_parametric_pupil_wavelength(ParametricPupil* pupil, std::int32_t index,
                                                 float wavelength_um) {
    if (!has_wave(pupil, index)) return nullptr;
    pupil->waves[index].wavelength = wavelength_um;
    return pupil;
}

float get_parametric_pupil_wavelength(const ParametricPupil* pupil, std::int32_t index) {
    return has_wave(pupil, index) ? pupil->waves[index].wavelength : -1.0f;
}

int initialize_wave_attributes(WaveAttributes* waves, const ParametricPupil* pupil,
                               std::int32_t first, std::int32_t end) {
    const std::int32_t amplitude_zernike = get_parametric_pupil_amplitude_zernike_count(pupil);
    const std::int32_t phase_zernike = get_parametric_pupil_phase_zernike_count(pupil);
    const std::int32_t amplitude_polarf = get_parametric_pupil_amplitude_polarf_count(pupil);
    const std::int32_t phase_polarf = get_parametric_pupil_phase_polarf_count(pupil);
    for (std::int32_t i = first; i < end; ++i) {
        WaveAttributes& wave = waves[i];
        wave.amplitude_zernike_coeff = new_coeff_array(amplitude_zernike);
        wave.phase_zernike_coeff = new_coeff_array(phase_zernike);
        wave.amplitude_polarf_coeff = new_coeff_array(amplitude_polarf);
        wave.phase_polarf_coeff = new_coeff_array(phase_polarf);
        wave.wavelength = 0.0f;
        if ((amplitude_zernike > 0 && !wave.amplitude_zernike_coeff) ||
            (phase_zernike > 0 && !wave.phase_zernike_coeff) ||
            (amplitude_polarf > 0 && !wave.amplitude_polarf_coeff) ||
            (phase_polarf > 0 && !wave.phase_polarf_coeff)) {
            free_waves(waves, first, i + 1);
            return 1;
        }
        // A fresh wavelength describes a pupil of constant amplitude, carried
        // by the Zernike series when there is one and by the polar Fourier
        // series otherwise, so that an unfitted wavelength is still usable.
        if (amplitude_zernike > 0) wave.amplitude_zernike_coeff[0] = kInverseSqrt2;
        if (amplitude_polarf > 0 && amplitude_zernike == 0) wave.amplitude_polarf_coeff[0] = 1.0;
    }
    return 0;
}

// ---- order sets and coefficients -------------------------------------------

ParametricPupil* set_parametric_pupil_amplitude_zernike_orders(ParametricPupil* pupil,
                                                               std::int32_t n, std::int32_t m) {
    return set_zernike_orders(pupil, Series::amplitude_zernike, n, m,
                              get_parametric_pupil_amplitude_zernike_count(pupil));
}

ParametricPupil* set_parametric_pupil_phase_zernike_orders(ParametricPupil* pupil, std::int32_t n,
                                                           std::int32_t m) {
    return set_zernike_orders(pupil, Series::phase_zernike, n, m,
                              get_parametric_pupil_phase_zernike_count(pupil));
}

ParametricPupil* set_parametric_pupil_amplitude_polarf_orders(ParametricPupil* pupil,
                                                              std::int32_t a, std::int32_t b) {
    return set_polarf_orders(pupil, Series::amplitude_polarf, a, b,
                             get_parametric_pupil_amplitude_polarf_count(pupil));
}

ParametricPupil* set_parametric_pupil_phase_polarf_orders(ParametricPupil* pupil, std::int32_t a,
                                                          std::int32_t b) {
    return set_polarf_orders(pupil, Series::phase_polarf, a, b,
                             get_parametric_pupil_phase_polarf_count(pupil));
}

void get_parametric_pupil_amplitude_zernike_orders(const ParametricPupil* pupil, std::int32_t* n,
                                                   std::int32_t* m) {
    if (pupil == nullptr) return write_pair(-1, -1, n, m);
    write_pair(pupil->amplitude_zernike_n, pupil->amplitude_zernike_m, n, m);
}

void get_parametric_pupil_phase_zernike_orders(const ParametricPupil* pupil, std::int32_t* n,
                                               std::int32_t* m) {
    if (pupil == nullptr) return write_pair(-1, -1, n, m);
    write_pair(pupil->phase_zernike_n, pupil->phase_zernike_m, n, m);
}

void get_parametric_pupil_amplitude_polarf_orders(const ParametricPupil* pupil, std::int32_t* a,
                                                  std::int32_t* b) {
    if (pupil == nullptr) return write_pair(-1, -1, a, b);
    write_pair(pupil->amplitude_polarf_n, pupil->amplitude_polarf_m, a, b);
}

void get_parametric_pupil_phase_polarf_orders(const ParametricPupil* pupil, std::int32_t* a,
                                              std::int32_t* b) {
    if (pupil == nullptr) return write_pair(-1, -1, a, b);
    write_pair(pupil->phase_polarf_n, pupil->phase_polarf_m, a, b);
}

std::int32_t get_parametric_pupil_amplitude_zernike_count(const ParametricPupil* pupil) {
    if (pupil == nullptr) return 0;
    return zernike_term_count(pupil->amplitude_zernike_n, pupil->amplitude_zernike_m);
}

std::int32_t get_parametric_pupil_phase_zernike_count(const ParametricPupil* pupil) {
    if (pupil == nullptr) return 0;
    return zernike_term_count(pupil->phase_zernike_n, pupil->phase_zernike_m);
}

std::int32_t get_parametric_pupil_amplitude_polarf_count(const ParametricPupil* pupil) {
    if (pupil == nullptr) return 0;
    return static_cast<std::int32_t>(
        polarf_term_count(pupil->amplitude_polarf_n, pupil->amplitude_polarf_m));
}

std::int32_t get_parametric_pupil_phase_polarf_count(const ParametricPupil* pupil) {
    if (pupil == nullptr) return 0;
    return static_cast<std::int32_t>(
        polarf_term_count(pupil->phase_polarf_n, pupil->phase_polarf_m));
}

double* get_parametric_pupil_amplitude_zernike_coeff(ParametricPupil* pupil, std::int32_t index) {
    return has_wave(pupil, index) ? pupil->waves[index].amplitude_zernike_coeff : nullptr;
}

double* get_parametric_pupil_phase_zernike_coeff(ParametricPupil* pupil, std::int32_t index) {
    return has_wave(pupil, index) ? pupil->waves[index].phase_zernike_coeff : nullptr;
}

double* get_parametric_pupil_amplitude_polarf_coeff(ParametricPupil* pupil, std::int32_t index) {
    return has_wave(pupil, index) ? pupil->waves[index].amplitude_polarf_coeff : nullptr;
}

double* get_parametric_pupil_phase_polarf_coeff(ParametricPupil* pupil, std::int32_t index) {
    return has_wave(pupil, index) ? pupil->waves[index].phase_polarf_coeff : nullptr;
}

}  // namespace torvel
