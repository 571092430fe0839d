#pragma once
// Phase unwrapping: makes a wrapped phase plane continuous over the pupil disc
// by a raster walk outward from the pixel nearest the pupil centre.

namespace torvel {

// Unwraps phase (nx columns, ny rows of float radians) in place. x0, y0 are
// the pupil centre in pixel units, dx, dy the pixel spacing and cutoff the
// pupil radius in the same units. Each walked pixel gets the whole multiple
// of 2pi that brings it within pi of a value predicted from pixels already
// unwrapped; the start pixel keeps its value and fixes the absolute phase.
// Rows are stepped by ny elements, as the historical walk did; rows whose
// elements would fall outside the nx*ny plane (possible only when nx != ny)
// and a start pixel outside the plane end the walk instead of reaching past
// the buffer.
void phunwrap(float x0, float y0, float dx, float dy, float cutoff, int nx, int ny, float* phase);

// The whole multiple of 2pi that, added to value, brings it within pi of
// reference (halves round away from zero).
float phcomp(float reference, float value);

}  // namespace torvel
