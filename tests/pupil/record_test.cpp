#include "pupil/pupil.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace torvel {
namespace {

struct Destroy {
    void operator()(ParametricPupil* p) const { destroy_parametric_pupil(p); }
};
using Pupil = std::unique_ptr<ParametricPupil, Destroy>;

Pupil make_pupil() {
    Pupil p(create_parametric_pupil());
    EXPECT_NE(p, nullptr);
    return p;
}

std::vector<double> values(const double* array, int count) {
    return std::vector<double>(array, array + count);
}

std::vector<std::string> labels_of(const ParametricPupil* p) {
    std::vector<std::string> out;
    for (int i = 0; i < get_parametric_pupil_label_count(p); ++i)
        out.emplace_back(get_parametric_pupil_label(p, i));
    return out;
}

const double kInvSqrt2 = 0.7071067811865475;

TEST(ParametricPupilRecord, starts_empty_and_a_null_record_gives_defaults) {
    Pupil p = make_pupil();
    for (const ParametricPupil* r : {static_cast<const ParametricPupil*>(p.get()),
                                     static_cast<const ParametricPupil*>(nullptr)}) {
        EXPECT_EQ(get_parametric_pupil_label_count(r), 0);
        EXPECT_EQ(get_parametric_pupil_wavelength_count(r), 0);
        EXPECT_EQ(get_parametric_pupil_numerical_aperture(r), 1.0f);
        EXPECT_EQ(get_parametric_pupil_immersion_refractive_index(r), 1.0f);
        EXPECT_EQ(get_parametric_pupil_lens_id(r), -1);
        std::int32_t a = 0, b = 0;
        get_parametric_pupil_amplitude_zernike_orders(r, &a, &b);
        EXPECT_EQ(a, -1);
        EXPECT_EQ(b, -1);
        get_parametric_pupil_phase_polarf_orders(r, &a, &b);
        EXPECT_EQ(a, -1);
        EXPECT_EQ(b, -1);
        EXPECT_EQ(get_parametric_pupil_amplitude_zernike_count(r), 0);
        EXPECT_EQ(get_parametric_pupil_phase_zernike_count(r), 0);
        EXPECT_EQ(get_parametric_pupil_amplitude_polarf_count(r), 0);
        EXPECT_EQ(get_parametric_pupil_phase_polarf_count(r), 0);
        EXPECT_EQ(get_parametric_pupil_wavelength(r, 0), -1.0f);
        EXPECT_EQ(get_parametric_pupil_label(r, 0), nullptr);
    }
    EXPECT_EQ(set_parametric_pupil_lens_id(nullptr, 3), nullptr);
    EXPECT_EQ(set_parametric_pupil_wavelength_count(nullptr, 1), nullptr);
    EXPECT_EQ(insert_parametric_pupil_label(nullptr, 0, "x"), nullptr);
    EXPECT_EQ(set_parametric_pupil_amplitude_zernike_orders(nullptr, 2, 2), nullptr);
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_coeff(nullptr, 0), nullptr);
}

TEST(ParametricPupilRecord, accepts_only_valid_zernike_sets_and_removes_with_negative_n) {
    Pupil p = make_pupil();
    ASSERT_NE(set_parametric_pupil_amplitude_zernike_orders(p.get(), 4, 2), nullptr);
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_count(p.get()), 13);
    EXPECT_EQ(set_parametric_pupil_amplitude_zernike_orders(p.get(), 3, 0), nullptr);
    EXPECT_EQ(set_parametric_pupil_amplitude_zernike_orders(p.get(), 2, 3), nullptr);
    EXPECT_EQ(set_parametric_pupil_amplitude_zernike_orders(p.get(), 2, -2), nullptr);
    EXPECT_EQ(set_parametric_pupil_amplitude_zernike_orders(p.get(), kMaxZernikeOrder + 2, 0),
              nullptr);
    std::int32_t n = 0, m = 0;
    get_parametric_pupil_amplitude_zernike_orders(p.get(), &n, &m);
    EXPECT_EQ(n, 4);
    EXPECT_EQ(m, 2);  // failures keep the set

    const std::pair<int, int> counts[] = {{0, 0}, {1, 1}, {2, 0}, {2, 2}, {3, 1}, {3, 3}, {4, 4}};
    const int expected[] = {1, 3, 4, 6, 8, 10, 15};
    for (int k = 0; k < 7; ++k) {
        ASSERT_NE(
            set_parametric_pupil_phase_zernike_orders(p.get(), counts[k].first, counts[k].second),
            nullptr);
        EXPECT_EQ(get_parametric_pupil_phase_zernike_count(p.get()), expected[k]);
    }
    ASSERT_NE(set_parametric_pupil_phase_zernike_orders(p.get(), -1, 7), nullptr);
    get_parametric_pupil_phase_zernike_orders(p.get(), &n, &m);
    EXPECT_EQ(n, -1);
    EXPECT_EQ(m, -1);
    EXPECT_EQ(get_parametric_pupil_phase_zernike_count(p.get()), 0);
}

TEST(ParametricPupilRecord, keeps_values_by_slot_when_a_zernike_set_grows_or_shrinks) {
    Pupil p = make_pupil();
    ASSERT_NE(set_parametric_pupil_amplitude_zernike_orders(p.get(), 2, 2), nullptr);
    ASSERT_NE(set_parametric_pupil_wavelength_count(p.get(), 2), nullptr);
    for (int w = 0; w < 2; ++w)
        EXPECT_EQ(values(get_parametric_pupil_amplitude_zernike_coeff(p.get(), w), 6),
                  (std::vector<double>{kInvSqrt2, 0, 0, 0, 0, 0}));
    double* a = get_parametric_pupil_amplitude_zernike_coeff(p.get(), 1);
    for (int k = 0; k < 6; ++k) a[k] = k + 1.5;

    ASSERT_NE(set_parametric_pupil_amplitude_zernike_orders(p.get(), 4, 4), nullptr);
    std::vector<double> grown{1.5, 2.5, 3.5, 4.5, 5.5, 6.5};
    grown.resize(15, 0.0);
    EXPECT_EQ(values(get_parametric_pupil_amplitude_zernike_coeff(p.get(), 1), 15), grown);

    // Lowering keeps the array; growing again zero-fills past the lowered count.
    double* kept = get_parametric_pupil_amplitude_zernike_coeff(p.get(), 1);
    ASSERT_NE(set_parametric_pupil_amplitude_zernike_orders(p.get(), 1, 1), nullptr);
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_count(p.get()), 3);
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_coeff(p.get(), 1), kept);
    EXPECT_EQ(kept[5], 6.5);
    ASSERT_NE(set_parametric_pupil_amplitude_zernike_orders(p.get(), 2, 2), nullptr);
    EXPECT_EQ(values(get_parametric_pupil_amplitude_zernike_coeff(p.get(), 1), 6),
              (std::vector<double>{1.5, 2.5, 3.5, 0, 0, 0}));

    ASSERT_NE(set_parametric_pupil_amplitude_zernike_orders(p.get(), -1, -1), nullptr);
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_coeff(p.get(), 0), nullptr);
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_coeff(p.get(), 2), nullptr);
}

TEST(ParametricPupilRecord,
     gives_constant_amplitude_to_the_polar_fourier_series_only_without_zernike) {
    Pupil p = make_pupil();
    ASSERT_NE(set_parametric_pupil_amplitude_polarf_orders(p.get(), 1, 1), nullptr);
    ASSERT_NE(set_parametric_pupil_phase_polarf_orders(p.get(), 2, 0), nullptr);
    EXPECT_EQ(get_parametric_pupil_amplitude_polarf_count(p.get()), 9);
    EXPECT_EQ(get_parametric_pupil_phase_polarf_count(p.get()), 5);
    ASSERT_NE(insert_parametric_pupil_wavelength(p.get(), 0), nullptr);
    std::vector<double> first(9, 0.0);
    first[0] = 1.0;
    EXPECT_EQ(values(get_parametric_pupil_amplitude_polarf_coeff(p.get(), 0), 9), first);
    EXPECT_EQ(values(get_parametric_pupil_phase_polarf_coeff(p.get(), 0), 5),
              std::vector<double>(5, 0.0));
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_coeff(p.get(), 0), nullptr);

    ASSERT_NE(set_parametric_pupil_amplitude_zernike_orders(p.get(), 0, 0), nullptr);
    ASSERT_NE(insert_parametric_pupil_wavelength(p.get(), 1), nullptr);
    EXPECT_EQ(get_parametric_pupil_amplitude_polarf_coeff(p.get(), 1)[0], 0.0);
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_coeff(p.get(), 1)[0], kInvSqrt2);

    ASSERT_NE(set_parametric_pupil_amplitude_polarf_orders(p.get(), 3, -2), nullptr);
    std::int32_t a = 0, b = 0;
    get_parametric_pupil_amplitude_polarf_orders(p.get(), &a, &b);
    EXPECT_EQ(a, -1);
    EXPECT_EQ(b, -1);
    EXPECT_EQ(get_parametric_pupil_amplitude_polarf_coeff(p.get(), 0), nullptr);
    // A set whose term count does not fit in 32 bits cannot be held.
    EXPECT_EQ(set_parametric_pupil_phase_polarf_orders(p.get(), 40000, 40000), nullptr);
    EXPECT_EQ(get_parametric_pupil_phase_polarf_count(p.get()), 5);
}

TEST(ParametricPupilRecord, accepts_an_aperture_up_to_the_immersion_index) {
    Pupil p = make_pupil();
    ASSERT_NE(set_parametric_pupil_na_nimm(p.get(), 1.4f, 1.515f), nullptr);
    EXPECT_EQ(set_parametric_pupil_na_nimm(p.get(), 1.4f, 1.33f), nullptr);
    EXPECT_EQ(set_parametric_pupil_na_nimm(p.get(), 0.0f, 1.5f), nullptr);
    EXPECT_EQ(set_parametric_pupil_na_nimm(p.get(), 0.5f, -1.0f), nullptr);
    EXPECT_EQ(get_parametric_pupil_numerical_aperture(p.get()), 1.4f);
    EXPECT_EQ(get_parametric_pupil_immersion_refractive_index(p.get()), 1.515f);
    EXPECT_NE(set_parametric_pupil_na_nimm(p.get(), 1.33f, 1.33f), nullptr);
    ASSERT_NE(set_parametric_pupil_lens_id(p.get(), -7), nullptr);
    EXPECT_EQ(get_parametric_pupil_lens_id(p.get()), -7);
}

TEST(ParametricPupilRecord, inserts_labels_with_empty_gaps_and_copies_the_text) {
    Pupil p = make_pupil();
    char text[] = "first";
    ASSERT_NE(insert_parametric_pupil_label(p.get(), 0, text), nullptr);
    std::strcpy(text, "later");
    ASSERT_NE(insert_parametric_pupil_label(p.get(), 1, "second"), nullptr);
    ASSERT_NE(insert_parametric_pupil_label(p.get(), 5, "sixth"), nullptr);
    EXPECT_EQ(labels_of(p.get()),
              (std::vector<std::string>{"first", "second", "", "", "", "sixth"}));
    EXPECT_EQ(p->label_capacity, 8);
    EXPECT_EQ(insert_parametric_pupil_label(p.get(), -1, "x"), nullptr);

    ASSERT_NE(insert_parametric_pupil_label(p.get(), 1, nullptr), nullptr);
    ASSERT_NE(insert_parametric_pupil_label(p.get(), 0, "zero"), nullptr);
    ASSERT_NE(insert_parametric_pupil_label(p.get(), 3, "mid"), nullptr);  // 9th
    EXPECT_EQ(labels_of(p.get()), (std::vector<std::string>{"zero", "first", "", "mid", "second",
                                                            "", "", "", "sixth"}));
    EXPECT_EQ(p->label_capacity, 16);

    ASSERT_NE(set_parametric_pupil_label(p.get(), 1, nullptr), nullptr);
    ASSERT_NE(set_parametric_pupil_label(p.get(), 2, "two"), nullptr);
    EXPECT_EQ(set_parametric_pupil_label(p.get(), 9, "x"), nullptr);
    ASSERT_NE(delete_parametric_pupil_label(p.get(), 8), nullptr);
    ASSERT_NE(delete_parametric_pupil_label(p.get(), 0), nullptr);
    EXPECT_EQ(delete_parametric_pupil_label(p.get(), 7), nullptr);
    EXPECT_EQ(labels_of(p.get()),
              (std::vector<std::string>{"", "two", "mid", "second", "", "", ""}));

    ASSERT_NE(set_parametric_pupil_label_count(p.get(), 2), nullptr);
    ASSERT_NE(insert_parametric_pupil_label(p.get(), 17, "end"), nullptr);  // past 16
    EXPECT_EQ(p->label_capacity, 24);
    EXPECT_EQ(get_parametric_pupil_label_count(p.get()), 18);
    EXPECT_EQ(get_parametric_pupil_label(p.get(), 1), std::string("two"));
    EXPECT_EQ(get_parametric_pupil_label(p.get(), 16), std::string(""));
    EXPECT_EQ(get_parametric_pupil_label(p.get(), 17), std::string("end"));
    ASSERT_NE(set_parametric_pupil_label_count(p.get(), 25), nullptr);
    EXPECT_EQ(p->label_capacity, 32);
    EXPECT_EQ(get_parametric_pupil_label(p.get(), 24), std::string(""));
    EXPECT_EQ(set_parametric_pupil_label_count(p.get(), -1), nullptr);
    EXPECT_EQ(get_parametric_pupil_label_count(p.get()), 25);
}

TEST(ParametricPupilRecord, grows_wavelengths_in_steps_of_five_and_never_shrinks) {
    Pupil p = make_pupil();
    ASSERT_NE(set_parametric_pupil_phase_zernike_orders(p.get(), 1, 1), nullptr);
    ASSERT_NE(set_parametric_pupil_wavelength_count(p.get(), 7), nullptr);
    EXPECT_EQ(p->wavelength_capacity, 10);
    for (int w = 0; w < 7; ++w) {
        EXPECT_EQ(get_parametric_pupil_wavelength(p.get(), w), 0.0f);
        ASSERT_NE(set_parametric_pupil_wavelength(p.get(), w, 0.5f + w), nullptr);
    }
    ASSERT_NE(set_parametric_pupil_wavelength_count(p.get(), 2), nullptr);
    EXPECT_EQ(p->wavelength_capacity, 10);
    EXPECT_EQ(get_parametric_pupil_wavelength(p.get(), 1), 1.5f);
    EXPECT_EQ(get_parametric_pupil_wavelength(p.get(), 2), -1.0f);
    EXPECT_EQ(set_parametric_pupil_wavelength(p.get(), 2, 1.0f), nullptr);
    EXPECT_EQ(set_parametric_pupil_wavelength_count(p.get(), -1), nullptr);

    // Growing back makes fresh entries, not the old ones.
    ASSERT_NE(set_parametric_pupil_wavelength_count(p.get(), 3), nullptr);
    EXPECT_EQ(get_parametric_pupil_wavelength(p.get(), 2), 0.0f);
    EXPECT_EQ(get_parametric_pupil_phase_zernike_coeff(p.get(), 2)[1], 0.0);
}

TEST(ParametricPupilRecord, inserts_and_deletes_wavelengths_moving_their_arrays) {
    Pupil p = make_pupil();
    ASSERT_NE(set_parametric_pupil_amplitude_zernike_orders(p.get(), 1, 1), nullptr);
    ASSERT_NE(set_parametric_pupil_wavelength_count(p.get(), 3), nullptr);
    for (int w = 0; w < 3; ++w) {
        set_parametric_pupil_wavelength(p.get(), w, 0.4f + 0.1f * w);
        get_parametric_pupil_amplitude_zernike_coeff(p.get(), w)[2] = w + 1;
    }
    ASSERT_NE(insert_parametric_pupil_wavelength(p.get(), 0), nullptr);
    ASSERT_EQ(get_parametric_pupil_wavelength_count(p.get()), 4);
    EXPECT_EQ(get_parametric_pupil_wavelength(p.get(), 0), 0.0f);
    EXPECT_EQ(values(get_parametric_pupil_amplitude_zernike_coeff(p.get(), 0), 3),
              (std::vector<double>{kInvSqrt2, 0, 0}));
    for (int w = 1; w < 4; ++w) {
        EXPECT_EQ(get_parametric_pupil_wavelength(p.get(), w), 0.4f + 0.1f * (w - 1));
        EXPECT_EQ(get_parametric_pupil_amplitude_zernike_coeff(p.get(), w)[2], w);
    }
    // Count 4 of capacity 5: past the end fills the gap and needs a new array.
    ASSERT_NE(insert_parametric_pupil_wavelength(p.get(), 6), nullptr);
    EXPECT_EQ(get_parametric_pupil_wavelength_count(p.get()), 7);
    EXPECT_EQ(p->wavelength_capacity, 10);
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_coeff(p.get(), 5)[0], kInvSqrt2);
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_coeff(p.get(), 3)[2], 3.0);
    ASSERT_NE(insert_parametric_pupil_wavelength(p.get(), 8), nullptr);  // in place
    EXPECT_EQ(get_parametric_pupil_wavelength_count(p.get()), 9);
    EXPECT_EQ(p->wavelength_capacity, 10);
    EXPECT_EQ(insert_parametric_pupil_wavelength(p.get(), -1), nullptr);

    ASSERT_NE(insert_parametric_pupil_wavelength(p.get(), 9), nullptr);  // full
    ASSERT_NE(insert_parametric_pupil_wavelength(p.get(), 2), nullptr);  // new array
    EXPECT_EQ(p->wavelength_capacity, 15);
    EXPECT_EQ(get_parametric_pupil_wavelength_count(p.get()), 11);
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_coeff(p.get(), 2)[2], 0.0);
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_coeff(p.get(), 3)[2], 2.0);

    ASSERT_NE(delete_parametric_pupil_wavelength(p.get(), 10), nullptr);
    ASSERT_NE(delete_parametric_pupil_wavelength(p.get(), 1), nullptr);
    EXPECT_EQ(delete_parametric_pupil_wavelength(p.get(), 9), nullptr);
    EXPECT_EQ(get_parametric_pupil_wavelength_count(p.get()), 9);
    EXPECT_EQ(get_parametric_pupil_wavelength(p.get(), 1), 0.0f);
    EXPECT_EQ(get_parametric_pupil_amplitude_zernike_coeff(p.get(), 2)[2], 2.0);
    EXPECT_EQ(get_parametric_pupil_wavelength(p.get(), 3), 0.6f);
    EXPECT_EQ(p->wavelength_capacity, 15);
}

}  // namespace
}  // namespace torvel
