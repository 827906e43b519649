// Helpers shared by the device-layer tests.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/errors.h"

namespace kr7test {

using Lines = std::vector<std::string>;

// "number: text" of what `call` throws, "system error" for a failed system
// call, empty when it throws nothing.
template <class Call>
std::string Thrown(Call&& call) {
    try {
        call();
    } catch (const vc::ClVCException& e) {
        return std::to_string(e.GetErrorNumber()) + ": " + e.GetDescription();
    } catch (const Nvk::CXOtherException& e) {
        return std::to_string(e.GetErrorNumber()) + ": " + e.GetDescription();
    } catch (const Nvk::CXSystemException&) {
        return "system error";
    }
    return "";
}

// Whether the library is in the process, without loading it.
inline bool Resident(const char* library) {
    void* handle = dlopen(library, RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) {
        dlclose(handle);
    }
    return handle != nullptr;
}

// Tests against the scanner API and calibration stand-ins, found by their
// bare names. Each test starts with neither loaded: the binding unloads them
// with its last object, and the scanner stand-in reads its KR7SIM_*
// variables when it is loaded, so what is constructed after Configure sees a
// freshly configured scanner. The API calls are journalled into the test's
// own folder.
class StandInTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* library : {"libQV2ScanAPI.so", "libnorvakcalibratesdk.so"}) {
            ASSERT_FALSE(Resident(library)) << "an earlier test left " << library << " loaded";
        }
        std::string folder = ::testing::TempDir() + "kr7_device_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(folder.data()));
        m_dir = folder;
        m_journal = m_dir + "/journal.txt";
        Configure("empty 60s;");
    }
    void TearDown() override {
        for (const char* name :
             {"KR7SIM_SCENARIO", "KR7SIM_UNITS", "KR7SIM_FAULTS", "KR7SIM_JOURNAL"}) {
            unsetenv(name);
        }
        std::filesystem::remove_all(m_dir);
    }

    // A new scenario, units and fault rules, and an empty journal.
    void Configure(const std::string& scenario, const std::string& units = "",
                   const std::string& faults = "") {
        setenv("KR7SIM_SCENARIO", scenario.c_str(), 1);
        setenv("KR7SIM_UNITS", units.c_str(), 1);
        setenv("KR7SIM_FAULTS", faults.c_str(), 1);
        setenv("KR7SIM_JOURNAL", m_journal.c_str(), 1);
        unsetenv("KR7SIM_REALTIME");
        std::remove(m_journal.c_str());
    }
    // The journal's lines from line `from` on without their sequence numbers:
    // "t<thread> call", or only the call.
    Lines Journal(std::size_t from = 0, bool threads = false) const {
        std::ifstream in(m_journal);
        Lines lines;
        for (std::string line; std::getline(in, line);) {
            std::size_t call = line.find(' ') + 1;
            if (!threads) {
                call = line.find(' ', call) + 1;
            }
            lines.push_back(line.substr(std::min(call, line.size())));
        }
        lines.erase(lines.begin(), lines.begin() + std::min(from, lines.size()));
        return lines;
    }

    std::string m_dir, m_journal;
};

}  // namespace kr7test
