#include "calibration/read_binary.h"

#include <cerrno>
#include <fstream>

#include "base/errors.h"

namespace Nvk {
namespace file {

void ReadBinary(const char* path, std::vector<unsigned char>& out) {
    if (path == nullptr) {
        throw CXSystemException(EFAULT);
    }
    std::ifstream in(path, std::ios::in | std::ios::binary);
    if (!in) {
        throw CXSystemException(errno);
    }
    out.clear();
    char chunk[1000];
    while (!in.eof()) {
        in.read(chunk, sizeof chunk);
        const std::streamsize got = in.gcount();
        if (got <= 0) {
            break;
        }
        out.insert(out.end(), chunk, chunk + got);
    }
    in.close();
}

}  // namespace file
}  // namespace Nvk
