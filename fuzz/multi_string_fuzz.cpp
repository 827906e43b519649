// String lists from outside bytes. The input, closed with the two zero bytes
// the list format ends with, is attached as a list's buffer (exactly that
// many bytes); its strings are also added one by one to a second list. Length,
// iteration, copies and Add must agree with each other and stay inside the
// buffers.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "util/multi_string.h"

using kr7fuzz::Check;

namespace {

std::vector<std::string> Strings(Nvk::ClMultiString& list) {
    std::vector<std::string> strings;
    unsigned long bytes = 0;
    list.ResetNext();
    while (const char* s = list.Next()) {
        strings.emplace_back(s);
        bytes += strings.back().size() + 1;
    }
    Check(bytes == list.Length());
    return strings;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    char* buffer = new char[size + 2];
    std::memcpy(buffer, data, size);
    buffer[size] = buffer[size + 1] = '\0';

    Nvk::ClMultiString attached;
    attached.Attach(buffer);
    attached.Attach(buffer);  // the own buffer stays
    const unsigned long length = attached.Length();
    Check(length >= 1 && length <= size + 1);
    const std::vector<std::string> strings = Strings(attached);

    Nvk::ClMultiString copy(attached);
    Check(std::memcmp(copy.Data(), buffer, length) == 0 && copy.Data()[length] == '\0');
    Check(Strings(copy) == strings);

    // Every string of the input added in turn: an empty one ends the list.
    Nvk::ClMultiString built;
    std::vector<std::string> added;
    for (std::size_t pos = 0; pos <= size;) {
        const char* s = reinterpret_cast<const char*>(buffer) + pos;
        built.Add(s);
        if (*s == '\0' && !added.empty()) {
            break;
        }
        added.emplace_back(s);
        pos += std::strlen(s) + 1;
    }
    Check(Strings(built) == added);
    copy = built;
    Check(Strings(copy) == added);

    char* taken = attached.Detach();
    Check(taken == buffer && attached.IsEmpty() && attached.Next() == nullptr);
    Nvk::ClMultiString other;
    other.Attach(taken);
    other.Attach(nullptr);  // frees the buffer
    Check(other.IsEmpty() && other.Length() == 0);
    return 0;
}
