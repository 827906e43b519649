// Recorded frames for the virtual scanner's replay steps: 8-bit binary PGM
// (P5) and uncompressed 8-, 24- or 32-bit BMP files, read as grey levels.
// The bytes come from outside (files a user points a scenario at), so the
// decoders check every size and offset and refuse images over 4096 pixels a
// side or files over 64 MiB.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kr7sim {
namespace scanner {

// An 8-bit grey image, row 0 first, no padding.
struct GreyImage {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> pixels;
};

// Reads one PGM or BMP file. False and a message that starts with the path
// on failure.
bool LoadGreyImage(const std::string& path, GreyImage& out, std::string& error);

// Reads the .pgm and .bmp files of a folder (the extension in any case), in
// name order. Other files are passed over; a folder without a frame, or one
// frame that cannot be read, is an error.
bool LoadFrameFolder(const std::string& folder, std::vector<GreyImage>& frames, std::string& error);

}  // namespace scanner
}  // namespace kr7sim
