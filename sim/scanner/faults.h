// Fault injection and the call journal of the scanner API stand-in.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kr7sim {
namespace scanner {

// Every entry point of the library, in the order of its function table.
enum class Entry : int {
    OpenDevice,
    CloseDevice,
    SetOptions,
    GetOptions,
    GetImageSize,
    GetFrame,
    GetBacklightImage,
    GetDarkImage,
    GetImage,
    IsFingerPresent,
    Save7Bytes,
    Restore7ControlBytes,
    GetDiodesStatus,
    SetDiodesStatus,
    GetInterfaces,
    SetBaseInterface,
    GetBaseInterfaceNumber,
    SaveSerialNumber,
    GetImageByVariableDose,
    GetImage2,
    GetLastError,
    SetLastError,
    GetExtMemorySize,
    SaveExtMemory,
    RestoreExtMemory,
    GetSerialNumber,
    GetVersion,
    Count
};

// The exported name of an entry point ("ftrScanGetFrame").
const char* EntryName(Entry entry);

// Injected failures of one library: rules "NAME@N=CODE" (the N-th call
// fails once), "NAME@N+=CODE" (the N-th and every later call) and
// "NAME@N-M=CODE" (calls N to M), separated by ';' or ','. NAME is one of the
// library's entry names, given as a table whose positions number the
// entries. Calls are counted per entry from 1 over the life of the object.
class FaultRules {
public:
    // `names` (`count` of them) must outlive the object. With `negative`,
    // CODE may also be a negative decimal (down to -2147483648), kept as its
    // 32-bit two's complement.
    FaultRules(const char* const* names, size_t count, bool negative = false);

    // Replaces the rules. False and a message for a malformed rule list (the
    // previous rules stay).
    bool Parse(const std::string& text, std::string& error);

    // Counts one call of entry `entry`; the code it must fail with, 0 for
    // none.
    uint32_t OnCall(size_t entry);

private:
    struct Rule {
        size_t entry;
        uint64_t first, last;
        uint32_t code;
    };
    const char* const* names_;
    size_t count_;
    bool negative_;
    std::vector<Rule> rules_;
    std::unique_ptr<std::atomic<uint64_t>[]> calls_;
};

// The scanner API's rules, over its entry points.
class FaultPlan {
public:
    FaultPlan();

    // Replaces the rules. False and a message for a malformed rule list (the
    // previous rules stay).
    bool Parse(const std::string& text, std::string& error) { return rules_.Parse(text, error); }

    // Counts one call of `entry`; the code it must fail with, 0 for none.
    uint32_t OnCall(Entry entry) { return rules_.OnCall(static_cast<size_t>(entry)); }

private:
    FaultRules rules_;
};

// One line per API call, appended to a file and flushed at once so that the
// record survives a crash of the host.
class Journal {
public:
    ~Journal();
    bool Open(const std::string& path, std::string& error);
    bool enabled() const { return file_ != nullptr; }
    void Write(const std::string& line);

private:
    std::mutex mutex_;
    FILE* file_ = nullptr;
    uint64_t sequence_ = 0;
};

}  // namespace scanner
}  // namespace kr7sim
