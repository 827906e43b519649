// Fault rules (KR7SIM_FAULTS, and KR7SIM_CAL_FAULTS, which also takes
// negative codes). Parsing must accept or refuse without reading outside the
// text; a refused list leaves the rules in force as they were; an accepted
// list never fails a call of an entry it does not name. Negative codes only
// add to the syntax: a list accepted without them means the same with them.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "scanner/faults.h"

using kr7fuzz::Check;
using kr7sim::scanner::Entry;
using kr7sim::scanner::FaultRules;

namespace {

constexpr std::size_t kEntries = static_cast<std::size_t>(Entry::Count);

const char* const* Names() {
    static const std::vector<const char*> names = [] {
        std::vector<const char*> list;
        for (std::size_t i = 0; i < kEntries; ++i) {
            list.push_back(kr7sim::scanner::EntryName(static_cast<Entry>(i)));
        }
        return list;
    }();
    return names.data();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    kr7sim::scanner::FaultPlan plan;
    std::string error;
    Check(plan.Parse("ftrScanGetVersion@1+=0x77", error));
    const bool accepted = plan.Parse(text, error);
    if (!accepted) {
        Check(error.compare(0, 7, "fault '") == 0);
        Check(plan.OnCall(Entry::GetVersion) == 0x77);
    }

    FaultRules negative(Names(), kEntries, true);
    std::string negativeError;
    const bool negativeAccepted = negative.Parse(text, negativeError);
    Check(negativeAccepted || !accepted);
    if (!negativeAccepted) {
        Check(negativeError.compare(0, 7, "fault '") == 0);
    }
    for (int call = 0; call < 3 && negativeAccepted; ++call) {
        for (std::size_t i = 0; i < kEntries; ++i) {
            const Entry entry = static_cast<Entry>(i);
            const std::uint32_t code = negative.OnCall(i);
            Check(code == 0 || text.find(kr7sim::scanner::EntryName(entry)) != std::string::npos);
            if (accepted) {
                Check(plan.OnCall(entry) == code);
            }
        }
    }
    Check(negative.OnCall(kEntries) == 0);
    return 0;
}
