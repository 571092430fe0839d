#include <torvel/unwrap.hpp>

#include <cmath>
#include <cstdint>

namespace torvel {
namespace {

constexpr double kTwoPi = 6.283185307179586;

// A half-open run [lo, hi) of columns or rows to walk.
struct Run {
    int lo;
    int hi;
};

// ceil of a double bound, kept inside [-1, limit] so that bounds far outside
// the plane (or from a huge origin) cannot overflow an int; every walk starts
// inside the plane, so -1 and limit behave like any further-out value.
int clamped_ceil(double bound, int limit) {
    const double c = std::ceil(bound);
    if (!(c > -1.0)) return -1;  // also NaN: such a bound admits nothing
    if (c >= static_cast<double>(limit)) return limit;
    return static_cast<int>(c);
}

// The run from ceil(centre - half) to ceil(centre + half) - 1, with the lower
// bound 0 unless centre - half is at least 0 and the upper one n when
// centre + half exceeds n. An undefined chord (NaN half) thus opens the lower
// side down to 0 and admits nothing above the centre.
Run chord_run(float centre, double half, int n) {
    const double low = static_cast<double>(centre) - half;
    const double high = static_cast<double>(centre) + half;
    Run run;
    run.lo = (low >= 0.0) ? clamped_ceil(low, n) : 0;
    run.hi = (high > static_cast<double>(n)) ? n : clamped_ceil(high, n);
    return run;
}

// Half-chord sqrt(radius^2 - offset^2) / spacing: the operands of the root in
// single precision, the root and the quotient in double.
double half_chord(float radius, float offset, float spacing) {
    const float d = radius * radius - offset * offset;
    return std::sqrt(static_cast<double>(d)) / static_cast<double>(spacing);
}

// The multiple of 2pi that brings value within pi of predicted. The turn
// count is rounded half away from zero after narrowing to float, and the
// correction is formed in double and narrowed before it is added.
float whole_turns(float predicted, float value) {
    const float t = static_cast<float>(static_cast<double>(predicted - value) / kTwoPi);
    const float k = (t >= 0.0f) ? std::trunc(t + 0.5f) : std::trunc(t - 0.5f);
    return static_cast<float>(static_cast<double>(k) * kTwoPi);
}

void rewrap(float predicted, float& value) {
    value = value + whole_turns(predicted, value);
}

// Addressing of the walk: the start row begins at jc * nx, and each row
// further out is ny elements on.
struct Plane {
    float* data;
    std::int64_t centre_row_base;
    int jc;
    int ny;
    float& at(int row, int col) const {
        return data[centre_row_base + std::int64_t(row - jc) * ny + col];
    }
};

// Rows whose nx elements lie inside the plane under that addressing. They form
// one run around jc because the row base moves monotonically with the row.
Run addressable_rows(std::int64_t base, int jc, int nx, int ny) {
    const std::int64_t total = std::int64_t(nx) * ny;
    Run rows{jc, jc + 1};
    while (rows.lo > 0 && base + std::int64_t(rows.lo - 1 - jc) * ny >= 0) --rows.lo;
    while (rows.hi < ny && base + std::int64_t(rows.hi - jc) * ny + nx <= total) ++rows.hi;
    return rows;
}

// The start pixel index: x + 0.5 truncated. Returns false when it falls
// outside [0, n), where the walk would have nothing to start from.
bool start_index(float x, int n, int* index) {
    const float shifted = x + 0.5f;
    if (!(shifted > -1.0f && shifted < static_cast<float>(n))) return false;
    *index = static_cast<int>(shifted);
    return true;
}

// Walks one row outward from the start column: leftward to cols.lo, then
// rightward to cols.hi, predicting each pixel from the row nearer the centre
// (near) and its own already-walked neighbour.
void walk_row(const Plane& p, int j, int near, int ic, Run cols, float wx, float wy) {
    for (int i = ic - 1; i >= cols.lo; --i) {
        const float v = p.at(near, i), d = p.at(near, i + 1), h = p.at(j, i + 1);
        rewrap((v - d) * wx + d + (h - d) * wy, p.at(j, i));
    }
    for (int i = ic + 1; i < cols.hi; ++i) {
        const float v = p.at(near, i), d = p.at(near, i - 1), h = p.at(j, i - 1);
        rewrap((v - d) * wx + d + (h - d) * wy, p.at(j, i));
    }
}

}  // namespace

float phcomp(float reference, float value) {
    return whole_turns(reference, value);
}

void phunwrap(float x0, float y0, float dx, float dy, float cutoff, int nx, int ny, float* phase) {
    int ic = 0, jc = 0;
    if (phase == nullptr || nx < 1 || ny < 1) return;
    if (!start_index(x0, nx, &ic) || !start_index(y0, ny, &jc)) return;

    const double s = std::sqrt(static_cast<double>(dx * dx + dy * dy));
    const float wx = static_cast<float>(static_cast<double>(dx) / s);
    const float wy = static_cast<float>(static_cast<double>(dy) / s);
    const Plane p{phase, std::int64_t(jc) * nx, jc, ny};
    auto columns_of = [&](int row) {
        return chord_run(x0, half_chord(cutoff, (y0 - static_cast<float>(row)) * dy, dx), nx);
    };

    // The start row, leftward then rightward, by linear extrapolation; the two
    // neighbours of the start pixel are always adjusted against it.
    const Run centre = columns_of(jc);
    if (ic > 0) {
        p.at(jc, ic - 1) += phcomp(p.at(jc, ic), p.at(jc, ic - 1));
        for (int i = ic - 2; i >= centre.lo; --i)
            rewrap(2.0f * p.at(jc, i + 1) - p.at(jc, i + 2), p.at(jc, i));
    }
    if (ic < nx - 1) {
        p.at(jc, ic + 1) += phcomp(p.at(jc, ic), p.at(jc, ic + 1));
        for (int i = ic + 2; i < centre.hi; ++i)
            rewrap(2.0f * p.at(jc, i - 1) - p.at(jc, i - 2), p.at(jc, i));
    }

    Run rows = chord_run(y0, half_chord(cutoff, (x0 - static_cast<float>(ic)) * dx, dy), ny);
    const Run addressable = addressable_rows(p.centre_row_base, jc, nx, ny);
    if (rows.lo < addressable.lo) rows.lo = addressable.lo;
    if (rows.hi > addressable.hi) rows.hi = addressable.hi;

    // Rows below the start row, then above it, each from the start column out.
    if (jc > 0) {
        for (int j = jc - 1; j >= rows.lo; --j) {
            const float predicted =
                (j == jc - 1) ? p.at(j + 1, ic) : 2.0f * p.at(j + 1, ic) - p.at(j + 2, ic);
            rewrap(predicted, p.at(j, ic));
            walk_row(p, j, j + 1, ic, columns_of(j), wx, wy);
        }
    }
    if (jc < ny - 1) {
        for (int j = jc + 1; j < rows.hi; ++j) {
            const float predicted =
                (j == jc + 1) ? p.at(j - 1, ic) : 2.0f * p.at(j - 1, ic) - p.at(j - 2, ic);
            rewrap(predicted, p.at(j, ic));
            walk_row(p, j, j - 1, ic, columns_of(j), wx, wy);
        }
    }
}

}  // namespace torvel
