#include <torvel/pupil.hpp>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "record_view.hpp"

namespace torvel {
namespace {

using namespace testing_view;

const double kInvSqrt2 = 0.7071067811865475;

std::vector<std::string> labels_of(const ParametricPupil* p) {
    std::vector<std::string> out;
    for (int i = 0; i < get_parametric_pupil_label_count(p); ++i)
        out.emplace_back(get_parametric_pupil_label(p, i));
    return out;
}

TEST(ParametricPupilRecord, starts_with_defaults_and_takes_an_aperture_up_to_the_immersion_index) {
    Pupil p(create_parametric_pupil());
    ASSERT_NE(p, nullptr);
    std::vector<double> row = {1, 1, -1, 0, 0, -1, -1, -1, -1, -1, -1, -1, -1, 0, 0, 0, 0};
    EXPECT_EQ(header_of(p.get()), row);
    EXPECT_EQ(header_of(nullptr), row);  // a null record reads as a fresh one

    ASSERT_NE(set_parametric_pupil_na_nimm(p.get(), 1.4f, 1.515f), nullptr);
    for (auto [na, n] : {std::pair{1.4f, 1.33f}, {0.0f, 1.5f}, {0.5f, -1.0f}})
        EXPECT_EQ(set_parametric_pupil_na_nimm(p.get(), na, n), nullptr) << na << " " << n;
    ASSERT_NE(set_parametric_pupil_lens_id(p.get(), -7), nullptr);
    row[0] = 1.4f, row[1] = 1.515f, row[2] = -7;
    EXPECT_EQ(header_of(p.get()), row);
    EXPECT_NE(set_parametric_pupil_na_nimm(p.get(), 1.33f, 1.33f), nullptr);

    EXPECT_EQ(get_parametric_pupil_wavelength(nullptr, 0), -1.0f);
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_coeff(nullptr, 0), nullptr);
    EXPECT_EQ(set_parametric_pupil_wavelength_count(nullptr, 1), nullptr);
}

TEST(ParametricPupilRecord, takes_only_valid_zernike_sets_and_keeps_values_by_slot_as_they_change) {
    Pupil p(create_parametric_pupil());
    // Term counts n(n+1)/2 + m + 1, up to the largest order a record takes.
    const int sets[][3] = {{0, 0, 1}, {2, 0, 4}, {3, 1, 8}, {4, 4, 15}, {65534, 65534, 2147450880}};
    for (auto [n, m, count] : sets) {
        ASSERT_NE(set_parametric_pupil_phase_zernike_orders(p.get(), n, m), nullptr) << n;
        EXPECT_EQ(get_parametric_pupil_phase_zernike_count(p.get()), count) << n << " " << m;
    }
    ASSERT_NE(set_parametric_pupil_amplitude_zernike_orders(p.get(), 4, 2), nullptr);
    // n - m odd, m above n, m negative, n above the largest order: refused, set kept.
    for (auto [n, m] : {std::pair{3, 0}, {2, 3}, {2, -2}, {kMaxZernikeOrder + 2, 0}})
        EXPECT_EQ(set_parametric_pupil_amplitude_zernike_orders(p.get(), n, m), nullptr) << n;
    ASSERT_NE(set_parametric_pupil_phase_zernike_orders(p.get(), -1, 7), nullptr);
    EXPECT_EQ(header_of(p.get()),
              (std::vector<double>{1, 1, -1, 0, 0, 4, 2, -1, -1, -1, -1, -1, -1, 13, 0, 0, 0}));

    ASSERT_NE(set_parametric_pupil_amplitude_zernike_orders(p.get(), 2, 2), nullptr);
    ASSERT_NE(set_parametric_pupil_wavelength_count(p.get(), 2), nullptr);
    EXPECT_EQ(values(get_parametric_pupil_amplitude_zernike_coeff(p.get(), 0), 6),
              (std::vector<double>{kInvSqrt2, 0, 0, 0, 0, 0}));
    double* kept = get_parametric_pupil_amplitude_zernike_coeff(p.get(), 1);
    for (int k = 0; k < 6; ++k) kept[k] = k + 1.5;

    ASSERT_NE(set_parametric_pupil_amplitude_zernike_orders(p.get(), 4, 4), nullptr);
    std::vector<double> grown{1.5, 2.5, 3.5, 4.5, 5.5, 6.5};
    grown.resize(15, 0.0);
    kept = get_parametric_pupil_amplitude_zernike_coeff(p.get(), 1);
    EXPECT_EQ(values(kept, 15), grown);

    // Lowering keeps the array; growing again zero-fills past the lowered count.
    ASSERT_NE(set_parametric_pupil_amplitude_zernike_orders(p.get(), 1, 1), nullptr);
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_count(p.get()), 3);
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_coeff(p.get(), 1), kept);
    EXPECT_EQ(kept[5], 6.5);
    ASSERT_NE(set_parametric_pupil_amplitude_zernike_orders(p.get(), 2, 2), nullptr);
    EXPECT_EQ(values(get_parametric_pupil_amplitude_zernike_coeff(p.get(), 1), 6),
              (std::vector<double>{1.5, 2.5, 3.5, 0, 0, 0}));

    ASSERT_NE(set_parametric_pupil_amplitude_zernike_orders(p.get(), -1, -1), nullptr);
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_coeff(p.get(), 0), nullptr);
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_coeff(p.get(), 1), nullptr);
}

TEST(ParametricPupilRecord,
     gives_constant_amplitude_to_the_polar_fourier_series_only_without_zernike) {
    Pupil p(create_parametric_pupil());
    ASSERT_NE(set_parametric_pupil_amplitude_polarf_orders(p.get(), 1, 1), nullptr);
    ASSERT_NE(set_parametric_pupil_phase_polarf_orders(p.get(), 2, 0), nullptr);
    ASSERT_NE(insert_parametric_pupil_wavelength(p.get(), 0), nullptr);
    std::vector<double> fresh(1 + 9 + 5, 0.0);  // wavelength, amplitude, phase
    fresh[1] = 1.0;
    EXPECT_EQ(wave_of(p.get(), 0), fresh);

    ASSERT_NE(set_parametric_pupil_amplitude_zernike_orders(p.get(), 0, 0), nullptr);
    ASSERT_NE(insert_parametric_pupil_wavelength(p.get(), 1), nullptr);
    fresh[1] = 0.0;
    fresh.insert(fresh.begin() + 1, kInvSqrt2);
    EXPECT_EQ(wave_of(p.get(), 1), fresh);

    // Either order negative removes the series; a term count beyond 32 bits is refused.
    ASSERT_NE(set_parametric_pupil_amplitude_polarf_orders(p.get(), 3, -2), nullptr);
    EXPECT_EQ(get_parametric_pupil_amplitude_polarf_coeff(p.get(), 0), nullptr);
    EXPECT_EQ(set_parametric_pupil_phase_polarf_orders(p.get(), 40000, 40000), nullptr);
    EXPECT_EQ(header_of(p.get()),
              (std::vector<double>{1, 1, -1, 0, 2, 0, 0, -1, -1, -1, -1, 2, 0, 1, 0, 0, 5}));
}

TEST(ParametricPupilRecord, inserts_labels_with_empty_gaps_growing_capacity_by_eight) {
    Pupil p(create_parametric_pupil());
    char text[] = "first";
    ASSERT_NE(insert_parametric_pupil_label(p.get(), 0, text), nullptr);
    std::strcpy(text, "later");  // the record holds its own copy
    for (auto [index, label] : {std::pair{1, "second"}, {5, "sixth"}})
        ASSERT_NE(insert_parametric_pupil_label(p.get(), index, label), nullptr);
    EXPECT_EQ(labels_of(p.get()),
              (std::vector<std::string>{"first", "second", "", "", "", "sixth"}));
    EXPECT_EQ(p->label_capacity, 8);
    EXPECT_EQ(insert_parametric_pupil_label(p.get(), -1, "x"), nullptr);

    // In place twice (null text: an empty label), then a 9th label needs a new array.
    for (auto [index, label] : {std::pair{1, (const char*)nullptr}, {0, "zero"}, {3, "mid"}})
        ASSERT_NE(insert_parametric_pupil_label(p.get(), index, label), nullptr);
    EXPECT_EQ(p->label_capacity, 16);
    EXPECT_EQ(labels_of(p.get()), (std::vector<std::string>{"zero", "first", "", "mid", "second",
                                                            "", "", "", "sixth"}));
    ASSERT_NE(set_parametric_pupil_label(p.get(), 1, nullptr), nullptr);
    ASSERT_NE(set_parametric_pupil_label(p.get(), 2, "two"), nullptr);
    EXPECT_EQ(set_parametric_pupil_label(p.get(), 9, "x"), nullptr);
    ASSERT_NE(delete_parametric_pupil_label(p.get(), 8), nullptr);
    ASSERT_NE(delete_parametric_pupil_label(p.get(), 0), nullptr);
    EXPECT_EQ(delete_parametric_pupil_label(p.get(), 7), nullptr);
    EXPECT_EQ(labels_of(p.get()),
              (std::vector<std::string>{"", "two", "mid", "second", "", "", ""}));

    ASSERT_NE(set_parametric_pupil_label_count(p.get(), 2), nullptr);
    ASSERT_NE(insert_parametric_pupil_label(p.get(), 17, "end"), nullptr);  // past capacity 16
    EXPECT_EQ(p->label_capacity, 24);
    std::vector<std::string> expected(18, "");
    expected[1] = "two";
    expected[17] = "end";
    EXPECT_EQ(labels_of(p.get()), expected);
    ASSERT_NE(set_parametric_pupil_label_count(p.get(), 25), nullptr);
    EXPECT_EQ(p->label_capacity, 32);
    EXPECT_EQ(set_parametric_pupil_label_count(p.get(), -1), nullptr);
    EXPECT_EQ(get_parametric_pupil_label_count(p.get()), 25);
}

TEST(ParametricPupilRecord, resizes_inserts_and_deletes_wavelengths_in_capacity_steps_of_five) {
    Pupil p(create_parametric_pupil());
    ASSERT_NE(set_parametric_pupil_amplitude_zernike_orders(p.get(), 1, 1), nullptr);
    ASSERT_NE(set_parametric_pupil_wavelength_count(p.get(), 7), nullptr);
    EXPECT_EQ(p->wavelength_capacity, 10);
    for (int w = 0; w < 7; ++w) {
        ASSERT_NE(set_parametric_pupil_wavelength(p.get(), w, 0.5f + w), nullptr);
        get_parametric_pupil_amplitude_zernike_coeff(p.get(), w)[2] = w + 1;
    }
    ASSERT_NE(set_parametric_pupil_wavelength_count(p.get(), 3), nullptr);
    EXPECT_EQ(p->wavelength_capacity, 10);
    EXPECT_EQ(get_parametric_pupil_wavelength(p.get(), 3), -1.0f);
    EXPECT_EQ(set_parametric_pupil_wavelength(p.get(), 3, 1.0f), nullptr);
    EXPECT_EQ(set_parametric_pupil_wavelength_count(p.get(), -1), nullptr);

    // In place; in place past the end; filling capacity 10; so a new array; past the capacity.
    for (auto [index, capacity] : {std::pair{0, 10}, {6, 10}, {9, 10}, {2, 15}, {20, 25}}) {
        ASSERT_NE(insert_parametric_pupil_wavelength(p.get(), index), nullptr) << index;
        EXPECT_EQ(p->wavelength_capacity, capacity) << index;
    }
    EXPECT_EQ(insert_parametric_pupil_wavelength(p.get(), -1), nullptr);
    ASSERT_EQ(get_parametric_pupil_wavelength_count(p.get()), 21);
    // Kept wavelengths 0, 1, 2 moved to 1, 3, 4; every other entry is fresh,
    // including those where wavelengths 3 to 6 stood before the shrink.
    const auto moved = [](int w) { return std::vector<double>{0.5f + w, kInvSqrt2, 0, w + 1.0}; };
    const std::vector<double> fresh = {0, kInvSqrt2, 0, 0};
    const int from[5] = {-1, 0, -1, 1, 2};
    for (int w = 0; w < 21; ++w)
        EXPECT_EQ(wave_of(p.get(), w), w < 5 && from[w] >= 0 ? moved(from[w]) : fresh) << w;

    ASSERT_NE(delete_parametric_pupil_wavelength(p.get(), 20), nullptr);  // the last: no move
    ASSERT_NE(delete_parametric_pupil_wavelength(p.get(), 0), nullptr);
    EXPECT_EQ(delete_parametric_pupil_wavelength(p.get(), 19), nullptr);  // at the count
    EXPECT_EQ(p->wavelength_capacity, 25);
    EXPECT_EQ(get_parametric_pupil_wavelength_count(p.get()), 19);
    for (int w = 0; w < 4; ++w) EXPECT_EQ(wave_of(p.get(), w), w == 1 ? fresh : moved(w - (w > 1)));
}

TEST(ParametricPupilRecord, copies_into_a_record_of_its_own) {
    Pupil p(create_parametric_pupil());
    ASSERT_NE(set_parametric_pupil_na_nimm(p.get(), 1.2f, 1.33f), nullptr);
    ASSERT_NE(set_parametric_pupil_lens_id(p.get(), 7), nullptr);
    ASSERT_NE(insert_parametric_pupil_label(p.get(), 1, "second"), nullptr);  // "" before it
    ASSERT_NE(set_parametric_pupil_amplitude_zernike_orders(p.get(), -1, -1), nullptr);
    ASSERT_NE(set_parametric_pupil_phase_zernike_orders(p.get(), 6, 6), nullptr);
    ASSERT_NE(set_parametric_pupil_amplitude_polarf_orders(p.get(), 1, 0), nullptr);
    ASSERT_NE(set_parametric_pupil_wavelength_count(p.get(), 2), nullptr);
    for (int w = 0; w < 2; ++w) {
        ASSERT_NE(set_parametric_pupil_wavelength(p.get(), w, 0.5f + w), nullptr);
        for (int k = 0; k < 28; ++k)
            get_parametric_pupil_phase_zernike_coeff(p.get(), w)[k] = k + w;
        get_parametric_pupil_amplitude_polarf_coeff(p.get(), w)[2] = 3.0 + w;
    }
    // Lowered sets keep longer arrays; the copy holds what the counts reach.
    ASSERT_NE(set_parametric_pupil_phase_zernike_orders(p.get(), 4, 2), nullptr);

    Pupil copy(copy_parametric_pupil(p.get()));
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(header_of(copy.get()), header_of(p.get()));
    EXPECT_EQ(labels_of(copy.get()), labels_of(p.get()));
    for (int w = 0; w < 2; ++w) {
        EXPECT_EQ(wave_of(copy.get(), w), wave_of(p.get(), w)) << w;
        EXPECT_NE(get_parametric_pupil_phase_zernike_coeff(copy.get(), w),
                  get_parametric_pupil_phase_zernike_coeff(p.get(), w));
    }
    EXPECT_EQ(copy_parametric_pupil(nullptr), nullptr);
}

}  // namespace
}  // namespace torvel
