#include "scanner/faults.h"

#include <cctype>
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

FaultRules::FaultRules(const char* const* names, size_t count, bool negative)
    : names_(names),
      count_(count),
      negative_(negative),
      calls_(new std::atomic<uint64_t>[count]()) {}

bool FaultRules::Parse(const std::string& text, std::string& error) {
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
        std::string code_text = Trim(item.substr(eq + 1));
        Rule rule{count_, 0, 0, 0};
        for (size_t i = 0; i < count_; ++i) {
            if (name == names_[i])
                rule.entry = i;
        }
        if (rule.entry == count_) {
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
        // Where negative codes are allowed, a minus sign goes only in front
        // of a decimal number.
        const bool minus = negative_ && !code_text.empty() && code_text[0] == '-';
        if (minus)
            code_text.erase(0, 1);
        char* stop = nullptr;
        errno = 0;
        const unsigned long long code = std::strtoull(code_text.c_str(), &stop, minus ? 10 : 0);
        if (code_text.empty() || *stop != '\0' || errno != 0 || code == 0 ||
            code > (minus ? 0x80000000ull : 0xFFFFFFFFull) ||
            (minus && !std::isdigit(static_cast<unsigned char>(code_text[0])))) {
            error = "fault '" + item + "': bad error code (nonzero, decimal or 0x hex" +
                    (negative_ ? ", or negative decimal)" : ")");
            return false;
        }
        rule.code = static_cast<uint32_t>(minus ? 0 - code : code);
        rules.push_back(rule);
    }
    rules_.swap(rules);
    return true;
}

uint32_t FaultRules::OnCall(size_t entry) {
    if (entry >= count_)
        return 0;
    const uint64_t n = calls_[entry].fetch_add(1) + 1;
    for (const Rule& r : rules_) {
        if (r.entry == entry && n >= r.first && n <= r.last)
            return r.code;
    }
    return 0;
}

FaultPlan::FaultPlan() : rules_(kNames, sizeof kNames / sizeof kNames[0]) {}

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
