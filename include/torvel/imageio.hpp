#pragma once

// The image file layer: MRC2014 files carrying a "TVL1" multi-wavelength block
// (docs/image-format.md describes the format), addressed through process-wide
// numbered streams 1 to 9. One stream is one open file; a stream is opened
// either "ro" (an existing file, read only) or "new" (a file created empty,
// written little-endian). No function throws. Every message of the layer is
// one line on standard error, "torvel: <file>: <reason>" (or the name given
// to image_set_program_name instead of torvel), and
// image_set_message_printing(0) silences them all.
//
// Calling a function on a stream that is not open prints a message and does
// nothing else: queries then store zeros in their outputs, operations with a
// result return non-zero. Setters work on "new" streams only; on a "ro"
// stream they print a message and change nothing.
//
// Beside the streams, whole image stacks are written and read in one call,
// as MRC or TIFF files (write_image_stack, read_image_stack at the end).

#include <memory>
#include <span>

namespace torvel {

// Opens `name` on `stream` (1 to 9, not in use) with access "ro" (existing
// file, read only, header validated) or "new" (created or truncated, with the
// default header: 0 x 0 pixels, no sections, mode 2, spacing 1, no labels).
// Returns 0 on success, non-zero after one message on any failure.
int image_open(int stream, const char* name, const char* access) noexcept;

// Closes `stream` and frees its slot. A "new" stream whose header changed since
// it was last written (or was never written) gets its header written first,
// and its file takes its name only when everything written reached it.
// Returns 0, or non-zero after a message when a "new" stream's file could
// not be finished (it is then not kept). A stream that is not open is ignored.
int image_close(int stream) noexcept;

// Closes `stream` without keeping what was written: for a "new" stream the
// file being written is removed and whatever was at its name before stays as
// it was (a device or pipe written directly keeps what it got). A "ro"
// stream is simply closed; a stream that is not open is ignored.
void image_discard(int stream) noexcept;

// The program name that begins every message of the layer ("torvel" unless
// set); name must stay valid while the layer is used.
void image_set_program_name(const char* name) noexcept;

// 0 silences the layer's own messages, any other value restores them; applies
// to every stream of the process.
void image_set_message_printing(int on) noexcept;

// Stores NX, NY, NZ in dims, NXSTART, NYSTART, NZSTART in second, the pixel
// mode in *mode and DMIN, DMAX, DMEAN in *dmin, *dmax, *dmean.
void image_read_header(int stream, int dims[3], int second[3], int* mode, float* dmin, float* dmax,
                       float* dmean) noexcept;

// Stores z sections per (wavelength, time) NZ / (nw * nt) (0 when nw * nt is
// 0), the wavelength count nw, the time point count nt and the interleave
// order (0, 1 or 2). A file without the multi-wavelength block has nw = nt = 1.
void image_get_zwt_sizes(int stream, int* nz, int* nw, int* nt, int* interleave) noexcept;

// Stores the image type code, lens number, the two further integers and the two
// float type parameters P1, P2 (all 0 for a file without the block).
void image_get_type_info(int stream, int* type, int* lens, int* n1, int* n2, float* p1,
                         float* p2) noexcept;

// Stores the pixel spacing float(CELLA) / float(M) along x, y, z, each computed
// in single precision; 0 along an axis whose sampling word M is not positive.
void image_get_pixel_spacing(int stream, float* dx, float* dy, float* dz) noexcept;

// Stores the x, y, z origin as held in the header.
void image_get_origin(int stream, float* x, float* y, float* z) noexcept;

// Stores the wavelength count nw and all five wavelength slots in nm (slots at
// and beyond the count are as stored, normally 0).
void image_get_wavelengths(int stream, int* count, float waves[5]) noexcept;

// Stores the display minimum and maximum of wavelength w (0 to 4): DMIN, DMAX
// for wavelength 0, the block's pair for the others. Out-of-range w stores 0s.
void image_get_wavelength_min_max(int stream, int w, float* wmin, float* wmax) noexcept;

// Returns the number of labels in use, 0 to 10.
int image_get_label_count(int stream) noexcept;

// Copies label `index` (0-based, below the label count) without its trailing
// blanks into text, NUL terminated. Returns 0, or non-zero (text set to "")
// when there is no such label.
int image_get_label(int stream, int index, char text[81]) noexcept;

// Makes (z, w, t) the current section. Returns 0, or non-zero without a message
// when z, w or t lies outside [0, nz), [0, nw), [0, nt): the caller decides
// what a missing section means.
int image_seek_section(int stream, int z, int w, int t) noexcept;

// Fills buffer with the current section of a "ro" stream as floats: NX * NY of
// them, or NX * NY interleaved (real, imaginary) pairs for modes 3 and 4; then
// advances to the next section. Returns 0; on failure returns non-zero after a
// message and leaves buffer untouched.
int image_read_section(int stream, float* buffer) noexcept;

// Writes buffer (laid out as image_read_section delivers it) as the current
// section of a "new" stream, converted to the stream's pixel mode, at byte
// 1024 + NSYMBT + section number * section bytes; then advances to the next
// section. Integer modes round to nearest and clamp to their range (NaN gives
// 0); mode 12 cannot be written. Returns 0, or non-zero after a message.
int image_write_section(int stream, const float* buffer) noexcept;

// Copies the 1024-byte header of stream `source` (either access) to `stream`,
// the multi-wavelength block and labels included. The extended header is not
// copied: the copy has NSYMBT 0, as its contents belong to whoever wrote them.
void image_copy_header(int stream, int source) noexcept;

// Sets the number of resolution levels a and the reduction factor b between
// them. Files hold a single level, so only a = 1 is accepted (b is then
// ignored); anything else prints a message and changes nothing.
void image_set_resolutions(int stream, int a, int b) noexcept;

// Sets an extended header of a integers and b floats per section for c
// sections. Only (0, 0, 0), no extended header, is supported; other sizes print
// a message and change nothing.
void image_set_extended_header_size(int stream, int a, int b, int c) noexcept;

// Sets nz, nw (0 to 5), nt (0 to 32767) and the interleave order (0, 1 or 2),
// and NZ = nz * nw * nt (which must fit in 32 bits). Invalid values print a
// message and change nothing.
void image_set_zwt_sizes(int stream, int nz, int nw, int nt, int interleave) noexcept;

// Sets the first count (0 to 5) wavelengths, in nm, from waves and clears the
// remaining slots. Does not change the wavelength count of image_set_zwt_sizes.
void image_set_wavelengths(int stream, int count, const float* waves) noexcept;

// Sets the pixel mode: 0, 1, 2, 3, 4, 6 or 12; others print a message.
void image_set_pixel_mode(int stream, int mode) noexcept;

// Sets the display minimum and maximum of wavelength w (0 to 4); wavelength 0
// uses DMIN and DMAX, so image_write_header overrides it.
void image_set_wavelength_min_max(int stream, int w, float wmin, float wmax) noexcept;

// Sets NX, NY (not negative) and the sampling MX = NX, MY = NY where positive,
// rescaling CELLA so the pixel spacing stays as it was.
void image_set_dimensions(int stream, int nx, int ny) noexcept;

// Sets the image type code, lens number, the two further integers (each
// -32768 to 32767) and the two float type parameters P1, P2.
void image_set_type_info(int stream, int type, int lens, int n1, int n2, float p1,
                         float p2) noexcept;

// Sets the pixel spacing by storing CELLA = spacing * M rounded once to float;
// image_get_pixel_spacing gives the values back exactly whenever the format
// can hold them (always when M is a power of two). A sampling word M that is
// not positive first becomes NX (NY, 1 for z), or 1 when that is 0.
void image_set_pixel_spacing(int stream, float dx, float dy, float dz) noexcept;

// Sets the x, y, z origin.
void image_set_origin(int stream, float x, float y, float z) noexcept;

// Appends text (cut at 80 characters) as a label; with ten labels in use the
// oldest is dropped first.
void image_add_label(int stream, const char* text) noexcept;

// Sets DMIN, DMAX, DMEAN and, by title_flag: 0 replaces all labels with title,
// 1 appends title as image_add_label does, -1 (or a null title) keeps the
// labels as they are. Then writes the complete header of a "new" stream to
// its file: "MAP ", the little-endian stamp, NVERSION 20141, RMS -1 (the layer
// never computes it) and the multi-wavelength block. Any other flag prints a
// message and writes nothing.
void image_write_header(int stream, const char* title, int title_flag, float dmin, float dmax,
                        float dmean) noexcept;

// A stack of planes for one or more wavelengths, as microscopy programs keep it.
struct image_stack_header {
    int nx = 0, ny = 0, nz = 0;              // columns, rows, planes per wavelength
    int nw = 1;                              // wavelengths (1 to 5)
    float dx_um = 0, dy_um = 0, dz_um = 0;   // voxel spacing in micrometres; 0 where unknown
    float wavelengths_nm[5] = {};            // 0 where unknown
};

// Writes voxels (nw blocks, each nz planes of ny rows of nx floats; x fastest) to `name`, format by
// the name's extension: ".mrc" (mode 2, sections wavelength after wavelength, z fastest, the
// multi-wavelength block with type code 0 and the wavelengths, spacing dx, dy, dz in µm) or
// ".tif"/".tiff" (a 32-bit float ImageJ hyperstack: wavelengths as channels, planes as slices,
// spacing= and unit=micron in the ImageJ description, pixel size in the resolution tags); any other
// extension is refused, as are sizes below 1, more than 5 wavelengths and a voxel count that is not
// nx * ny * nz * nw. Written beside the final name and renamed over it when complete, so a failed
// or killed run leaves the earlier file untouched. Returns 0, or non-zero after one message that
// begins with the name set by image_set_program_name.
int write_image_stack(const char* name, const image_stack_header& header,
                      std::span<const float> voxels) noexcept;

// Reads a whole stack: an MRC file (an ordinary image, any pixel mode; complex modes refused; nz
// per wavelength from the multi-wavelength block, spacing from the header, wavelengths from the
// block) or a TIFF file (ImageJ hyperstack or plain multi-page; 8/16-bit unsigned integer or 32-bit
// float; spacing from the ImageJ description or the resolution tags), told apart by their first
// bytes. Every size is checked in 64-bit arithmetic against the file's length before anything is
// allocated. On success returns 0, fills *header and *voxels (laid out as write_image_stack takes
// them); otherwise returns non-zero after one message and leaves both untouched.
int read_image_stack(const char* name, image_stack_header* header,
                     std::unique_ptr<float[]>* voxels) noexcept;

}  // namespace torvel
