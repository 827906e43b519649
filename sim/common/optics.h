// Prism optics of one simulated KR7 unit, shared by the scanner stand-in
// (which renders frames through them) and the calibration stand-in (which
// undoes them).
//
// The record below is the payload of the calibration block stored in the
// simulated scanner's extended memory. It is plain C++17 with no dependency
// beyond the standard library.
//
// Image spaces (all coordinates in pixels, pixel centres at integer values,
// x to the right, y growing with the row index in memory order):
//
//   Platen space      W x H, uniform scale: what a perfect scanner would see.
//                     Point (px, py).
//   Uncorrected space W x H, the frame as the plug-in holds it right before
//                     calibration: after its upside-down flip and inversion,
//                     so white platen and dark ridges, still distorted and
//                     unevenly lit. Point (x, y).
//   Corrected space   OutputWidth() x OutputHeight(), the calibrated image: the
//                     platen with the margins cropped, u = px - marginX,
//                     v = py - marginY. Point (u, v).
//
// Geometry: a projective keystone about the optical centre (cx, cy). With
// h = H / 2 and w(py) = 1 + keystone * (py - cy) / h,
//     x = cx + (px - cx) / w(py),    y = cy + (py - cy) / w(py).
// A positive keystone makes rows further down (larger y) narrower and more
// tightly spaced in the uncorrected image.
//
// Illumination: a multiplicative factor on the uncorrected image,
//     f(x, y) = 1 - falloff * r^2 + tiltX * dx / (W/2) + tiltY * dy / (H/2),
// dx = x - cx, dy = y - cy, r^2 = (dx^2 + dy^2) / ((W/2)^2 + (H/2)^2); so with a
// centred optical axis `falloff` is the loss of light at the frame corners.
// An empty platen of level L in platen space appears as L * f(x, y).
//
// Photometric calibration: the unit's empty platen at the nominal dose reads
// flatLevel (in platen space, before the illumination factor); a calibrated
// image maps it to targetLevel:
//     corrected(u, v) = uncorrected(x, y) * targetLevel / (flatLevel * f(x, y)).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kr7sim {

// Binary layout, little-endian, no padding (kOpticsRecordSize bytes):
//
//   off size field
//     0    4 magic "KR7O"
//     4    2 version (1)
//     6    2 record size (56)
//     8    2 frame width W       (16..4096)
//    10    2 frame height H      (16..4096)
//    12    2 output margin x     (crop on the left and on the right)
//    14    2 output margin y     (crop at the top and at the bottom)
//    16    4 optical centre x, signed, 1/1000 pixel (inside the frame)
//    20    4 optical centre y, signed, 1/1000 pixel (inside the frame)
//    24    4 keystone, signed, parts per million (|k| <= 200000)
//    28    4 illumination falloff, signed, ppm (0..750000)
//    32    4 illumination tilt x, signed, ppm (|t| <= 250000)
//    36    4 illumination tilt y, signed, ppm (|t| <= 250000)
//    40    2 flat level: empty platen at nominal dose (1..255)
//    42    2 target level: empty platen after calibration (1..255)
//    44    8 per-unit seed (sensor pattern of the scanner stand-in)
//    52    4 CRC-32 (IEEE, reflected 0xEDB88320) of bytes 0..51
//
// A record is valid when, beyond the ranges above, the margins leave an output
// of at least 8 x 8 pixels, every corrected pixel maps inside the frame
// (0 <= x <= W-1, 0 <= y <= H-1) and the illumination factor stays at or above
// 0.2 over the whole frame.
constexpr std::size_t kOpticsRecordSize = 56;
constexpr std::uint16_t kOpticsVersion = 1;
constexpr char kOpticsMagic[4] = {'K', 'R', '7', 'O'};

struct Optics {
    std::uint16_t width = 0;
    std::uint16_t height = 0;
    std::uint16_t marginX = 0;
    std::uint16_t marginY = 0;
    std::int32_t centreXMilli = 0;
    std::int32_t centreYMilli = 0;
    std::int32_t keystonePpm = 0;
    std::int32_t falloffPpm = 0;
    std::int32_t tiltXPpm = 0;
    std::int32_t tiltYPpm = 0;
    std::uint16_t flatLevel = 248;
    std::uint16_t targetLevel = 248;
    std::uint64_t seed = 0;

    int OutputWidth() const { return int(width) - 2 * int(marginX); }
    int OutputHeight() const { return int(height) - 2 * int(marginY); }
    double CentreX() const { return centreXMilli / 1000.0; }
    double CentreY() const { return centreYMilli / 1000.0; }
    double Keystone() const { return keystonePpm / 1e6; }
    double Falloff() const { return falloffPpm / 1e6; }
    double TiltX() const { return tiltXPpm / 1e6; }
    double TiltY() const { return tiltYPpm / 1e6; }
};

// True when every field is in range and the geometry and illumination
// conditions above hold.
bool IsValid(const Optics& optics);

// The record's bytes (kOpticsRecordSize), CRC included.
std::vector<std::uint8_t> Serialize(const Optics& optics);

// Parses a record from `size` bytes at `data`; never reads beyond them. Bytes
// after the record are ignored. Returns false (leaving `out` untouched) for a
// null pointer, a short buffer, a wrong magic, version, record size or CRC, or
// a record that is not IsValid.
bool Parse(const std::uint8_t* data, std::size_t size, Optics& out);

// A plausible unit for a frame of width x height, drawn deterministically
// from `seed`: keystone 1-4 %, falloff 15-25 %, small tilt and centre offset,
// margins just large enough for a valid record. Returns a valid record for
// any frame size from 64 x 64 to 4096 x 4096.
Optics MakeUnitOptics(int width, int height, std::uint64_t seed);

// --- Geometry ---------------------------------------------------------------

// Platen space -> uncorrected space.
void PlatenToUncorrected(const Optics& optics, double px, double py, double& x, double& y);
// Uncorrected space -> platen space (exact inverse of the above).
void UncorrectedToPlaten(const Optics& optics, double x, double y, double& px, double& py);
// Corrected (calibrated output) space -> uncorrected space: where the
// calibration samples the input for output pixel (u, v).
void CorrectedToUncorrected(const Optics& optics, double u, double v, double& x, double& y);

// --- Illumination -------------------------------------------------------------

// Illumination factor f at point (x, y) of the uncorrected space.
double Illumination(const Optics& optics, double x, double y);

// --- Forward renderer -------------------------------------------------------

// Renders what the unit's optics make of a platen image: `platen` is an 8-bit
// W x H image in platen space (row stride `platenStride` bytes), `out` an 8-bit
// W x H image in uncorrected space (row stride `outStride`). Each output pixel
// samples the platen bilinearly at UncorrectedToPlaten(x, y), clamped to the
// platen's edge, and is multiplied by Illumination(x, y), rounded and clipped
// to 0..255. Pass `illumination` false to apply the geometry alone. The
// record must be valid (IsValid).
void ApplyOptics(const Optics& optics, const std::uint8_t* platen, std::size_t platenStride,
                 std::uint8_t* out, std::size_t outStride, bool illumination = true);

// CRC-32 (IEEE) of a byte range, as used by the record.
std::uint32_t Crc32(const std::uint8_t* data, std::size_t size);

}  // namespace kr7sim
