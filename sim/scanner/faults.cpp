#include "scanner/faults.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kr7sim {
namespace scanner {
namespace {

constexpr const char* kNames[] = {"ftrScanOpenDevice",
                                  "ftrScanCloseDevice",
                                  "ftrScanSetOptions",
                                  "ftrScanGetOptions",
                                  "ftrScanGetImageSize",
                                  "ftrScanGetFrame",
                                  "ftrScanGetBacklightImage",
                                  "ftrScanGetDarkImage",
                                  "ftrScanGetImage",
                                  "ftrScanIsFingerPresent",
                                  "ftrScanSave7Bytes",
                                  "ftrScanRestore7ControlBytes",
                                  "ftrScanGetDiodesStatus",
                                  "ftrScanSetDiodesStatus",
                                  "ftrScanGetInterfaces",
                                  "ftrSetBaseInterface",
                                  "ftrGetBaseInterfaceNumber",
                                  "ftrScanSaveSerialNumber",
                                  "ftrScanGetImageByVariableDose",
                                  "ftrScanGetImage2",
                                  "ftrScanGetLastError",
                                  "ftrScanSetLastError",
                                  "ftrScanGetExtMemorySize",
                                  "ftrScanSaveExtMemory",
                                  "ftrScanRestoreExtMemory",
                                  "ftrScanGetSerialNumber",
                                  "ftrScanGetVersion"};
static_assert(sizeof kNames / sizeof kNames[0] == static_cast<size_t>(Entry::Count),
              "one name per entry point");

bool ParseCount(const std::string& text, uint64_t& value) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    errno = 0;
    value = std::strtoull(text.c_str(), nullptr, 10);
    return errno == 0 && value >= 1;
}

std::string Trim(const std::string& s) {
    const size_t a = s.find_first_not_of(" \t\r\n");
    if (a == std::string::npos)
        return std::string();
    return s.substr(a, s.find_last_not_of(" \t\r\n") - a + 1);
}

}  // namespace

const char* EntryName(Entry entry) {
    const int i = static_cast<int>(entry);
    return i >= 0 && i < static_cast<int>(Entry::Count) ? kNames[i] : "?";
}

bool FaultPlan::Parse(const std::string& text, std::string& error) {
    std::vector<Rule> rules;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t end = text.find_first_of(";,", pos);
        if (end == std::string::npos)
            end = text.size();
        const std::string item = Trim(text.substr(pos, end - pos));
        pos = end + 1;
        if (item.empty())
            continue;
        const size_t at = item.find('@'), eq = item.find('=');
        if (at == std::string::npos || eq == std::string::npos || eq < at) {
            error = "fault '" + item + "': expected NAME@CALL=CODE";
            return false;
        }
        const std::string name = Trim(item.substr(0, at));
        std::string when = Trim(item.substr(at + 1, eq - at - 1));
        const std::string code_text = Trim(item.substr(eq + 1));
        Rule rule{Entry::Count, 0, 0, 0};
        for (int i = 0; i < static_cast<int>(Entry::Count); ++i) {
            if (name == kNames[i])
                rule.entry = static_cast<Entry>(i);
        }
        if (rule.entry == Entry::Count) {
            error = "fault '" + item + "': unknown entry point '" + name + "'";
            return false;
        }
        bool ok = true;
        if (!when.empty() && when.back() == '+') {
            when.pop_back();
            ok = ParseCount(when, rule.first);
            rule.last = UINT64_MAX;
        } else if (const size_t dash = when.find('-'); dash != std::string::npos) {
            ok = ParseCount(when.substr(0, dash), rule.first) &&
                 ParseCount(when.substr(dash + 1), rule.last) && rule.last >= rule.first;
        } else {
            ok = ParseCount(when, rule.first);
            rule.last = rule.first;
        }
        if (!ok) {
            error = "fault '" + item + "': bad call number (N, N+ or N-M, counting from 1)";
            return false;
        }
        char* stop = nullptr;
        errno = 0;
        const unsigned long long code = std::strtoull(code_text.c_str(), &stop, 0);
        if (code_text.empty() || *stop != '\0' || errno != 0 || code == 0 || code > 0xFFFFFFFFull) {
            error = "fault '" + item + "': bad error code (nonzero, decimal or 0x hex)";
            return false;
        }
        rule.code = static_cast<uint32_t>(code);
        rules.push_back(rule);
    }
    rules_.swap(rules);
    return true;
}

uint32_t FaultPlan::OnCall(Entry entry) {
    const uint64_t n = calls_[static_cast<int>(entry)].fetch_add(1) + 1;
    for (const Rule& r : rules_) {
        if (r.entry == entry && n >= r.first && n <= r.last)
            return r.code;
    }
    return 0;
}

Journal::~Journal() {
    if (file_ != nullptr)
        std::fclose(file_);
}

bool Journal::Open(const std::string& path, std::string& error) {
    FILE* f = std::fopen(path.c_str(), "a");
    if (f == nullptr) {
        error = "cannot open the journal " + path + ": " + std::strerror(errno);
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (file_ != nullptr)
        std::fclose(file_);
    file_ = f;
    return true;
}

void Journal::Write(const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (file_ == nullptr)
        return;
    std::fprintf(file_, "%llu %s\n", static_cast<unsigned long long>(++sequence_), line.c_str());
    std::fflush(file_);
}

}  // namespace scanner
}  // namespace kr7sim
