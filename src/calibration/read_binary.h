#pragma once

#include <vector>

namespace Nvk {
namespace file {

// Reads the whole file at `path` in binary mode into `out`, replacing its
// contents. Throws CXSystemException with errno when the file cannot be opened.
void ReadBinary(const char* path, std::vector<unsigned char>& out);

}  // namespace file
}  // namespace Nvk
