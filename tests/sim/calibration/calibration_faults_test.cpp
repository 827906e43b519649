// Injected failures of the calibration library stand-in (KR7SIM_CAL_FAULTS).
// The rules are read at the first call after a load, and with rules in force
// the library stays loaded until the process ends; so each rule list is tried
// in a child process of its own, which loads the library afresh. The parent
// never loads it.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "closed/norvakcalibratesdk.h"
#include "common/optics.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

// clang-format off
#define KR7_CAL_ENTRIES(X) X(CalibrateCreate) X(Calibrate) X(CalibrateDelete) X(CalibrateSetData) \
    X(ContaminationDetection) X(CalibrateGetErrorDescription)
// clang-format on

// A load of the library with KR7SIM_CAL_FAULTS set to `faults`.
struct Sdk {
    explicit Sdk(const std::string& faults, const std::string& journal = "") {
        setenv("KR7SIM_CAL_FAULTS", faults.c_str(), 1);
        setenv("KR7SIM_CAL_JOURNAL", journal.c_str(), 1);
        lib = dlopen(KR7_CALIBRATE_SDK_PATH, RTLD_NOW | RTLD_LOCAL);
        EXPECT_NE(nullptr, lib) << dlerror();
#define KR7_RESOLVE(name) \
    name = lib ? reinterpret_cast<decltype(&::name)>(dlsym(lib, #name)) : nullptr;
        KR7_CAL_ENTRIES(KR7_RESOLVE)
#undef KR7_RESOLVE
    }
    ~Sdk() {
        if (lib != nullptr) {
            dlclose(lib);
        }
    }
    void* lib = nullptr;
#define KR7_DECLARE(name) decltype(&::name) name = nullptr;
    KR7_CAL_ENTRIES(KR7_DECLARE)
#undef KR7_DECLARE
};

bool Loaded() {
    void* lib = dlopen(KR7_CALIBRATE_SDK_PATH, RTLD_NOW | RTLD_NOLOAD);
    if (lib != nullptr) {
        dlclose(lib);
    }
    return lib != nullptr;
}

// Runs `body` in a child process; its failures fail the test.
void InChild(const std::function<void()>& body) {
    ASSERT_FALSE(Loaded()) << "the parent must not load the library";
    EXPECT_EXIT(
        {
            body();
            std::_Exit(::testing::Test::HasFailure() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "");
}

// An empty-platen frame of `optics`' size as a packed 8-bit DIB.
Bytes Frame(const kr7sim::Optics& optics) {
    const unsigned stride = (unsigned(optics.width) + 3) & ~3u;
    Bytes block(1064 + stride * unsigned(optics.height), optics.flatLevel);
    const std::uint32_t header[10] = {
        40, std::uint32_t(optics.width), std::uint32_t(optics.height), 0x80001, 0, 0, 0, 0};
    std::memcpy(block.data(), header, sizeof header);
    return block;
}

tagBITMAPINFOHEADER* Dib(Bytes& block) {
    return reinterpret_cast<tagBITMAPINFOHEADER*>(block.data());
}

// Every entry with a rule of its own; each row gives the results of the
// first calls of one entry (counting from 1). A failed call changes nothing:
// not the data set, not the sizes or results it would report.
TEST(CalibrateFaults, InjectedFailuresHitTheChosenCallsAndTheNextCallWorks) {
    InChild([] {
        const std::string journal = ::testing::TempDir() + "kr7_cal_faults_journal.txt";
        std::remove(journal.c_str());
        Sdk sdk(
            "CalibrateCreate@1=1; CalibrateSetData@1=-11, Calibrate@3-4=-22;"
            "ContaminationDetection@2+=0x7FFFFFFF; CalibrateGetErrorDescription@1=-3;"
            "CalibrateDelete@1=5",
            journal);
        const kr7sim::Optics optics = kr7sim::MakeUnitOptics(320, 480, 3);
        const Bytes record = kr7sim::Serialize(optics);
        Bytes frame = Frame(optics);
        const unsigned corrected =
            1064 + ((unsigned(optics.OutputWidth()) + 3) & ~3u) * unsigned(optics.OutputHeight());
        void* handle = nullptr;
        unsigned size = 0;
        double share = -1;
        // "code value": a call's result and what it reported through a pointer.
        const auto call = [](std::int32_t code, auto value) {
            return std::to_string(code) + " " + std::to_string(value);
        };
        const std::vector<std::pair<std::function<std::string()>, std::vector<std::string>>> rows =
            {
                {[&] {
                     return std::string((handle = sdk.CalibrateCreate()) ? "instance" : "null");
                 },
                 {"null", "instance"}},
                // Data refused by the fault is not set: the frame finds no data.
                {[&] {
                     const int32_t code = sdk.CalibrateSetData(handle, record.data(), 56);
                     size = 0;
                     return call(code, sdk.Calibrate(handle, Dib(frame), unsigned(frame.size()),
                                                     nullptr, &size));
                 },
                 {"-11 -10", "0 -21"}},
                {[&] {
                     size = 7;
                     const int32_t code =
                         sdk.Calibrate(handle, Dib(frame), unsigned(frame.size()), nullptr, &size);
                     return call(code, size);
                 },
                 {"-22 7", "-22 7", "-21 " + std::to_string(corrected)}},
                {[&] {
                     share = -1;
                     const int32_t code = sdk.ContaminationDetection(
                         handle, Dib(frame), unsigned(frame.size()), &share);
                     return call(code, share);
                 },
                 {call(0, 0.0), call(0x7FFFFFFF, -1.0), call(0x7FFFFFFF, -1.0)}},
                {[&] { return std::string(sdk.CalibrateGetErrorDescription(-11)); },
                 {"Not enough memory for the calibration.", "The calibration data is malformed."}},
                // A refused release keeps the instance: the handle still works.
                {[&] {
                     sdk.CalibrateDelete(&handle);
                     return std::string(handle == nullptr ? "released" : "kept") + " " +
                            std::to_string(handle != nullptr &&
                                           sdk.ContaminationDetection(handle, Dib(frame),
                                                                      unsigned(frame.size()),
                                                                      &share) == 0x7FFFFFFF);
                 },
                 {"kept 1", "released 0"}},
            };
        for (std::size_t r = 0; r < rows.size(); ++r) {
            std::vector<std::string> results;
            while (results.size() < rows[r].second.size()) {
                results.push_back(rows[r].first());
            }
            EXPECT_EQ(rows[r].second, results) << "row " << r;
        }
        std::stringstream text;
        text << std::ifstream(journal).rdbuf();
        EXPECT_NE(std::string::npos, text.str().find("2 CalibrateCreate -> instance\n"))
            << text.str();
        EXPECT_NE(std::string::npos, text.str().find("Calibrate -> -22 (injected)\n"))
            << text.str();
        EXPECT_NE(std::string::npos, text.str().find("CalibrateDelete -> kept (injected)\n"))
            << text.str();
        std::remove(journal.c_str());
    });
}

// Counting goes on when the library is unloaded and loaded again (the
// plug-in reloads it after its first calibration failed); without rules the
// library unloads as usual.
TEST(CalibrateFaults, CountsGoOnAcrossAReloadWhileRulesAreSet) {
    InChild([] {
        {
            Sdk sdk("CalibrateCreate@1=1");
            EXPECT_EQ(nullptr, sdk.CalibrateCreate());
        }
        EXPECT_TRUE(Loaded());
        Sdk again("");
        void* handle = again.CalibrateCreate();
        EXPECT_NE(nullptr, handle);
        again.CalibrateDelete(&handle);
    });
    InChild([] {
        {
            Sdk sdk("");
            void* handle = sdk.CalibrateCreate();
            sdk.CalibrateDelete(&handle);
        }
        EXPECT_FALSE(Loaded());
    });
}

// A rule list that cannot be used leaves the library without instances;
// the boundaries of the codes are accepted.
TEST(CalibrateFaults, MalformedRulesLeaveNoInstance) {
    const struct {
        const char* rules;
        bool usable;
    } cases[] = {
        {"", true},
        {"Calibrate@1=-2147483648, ContaminationDetection@1=0xFFFFFFFF", true},
        {"Calibrate@1=-2147483649", false},
        {"Calibrate@1=-0x5", false},
        {"Calibrate@1=0", false},
        {"Calibrate@0=-1", false},
        {"ftrScanGetFrame@1=31", false},
        {"Calibrate=1", false},
    };
    for (const auto& c : cases) {
        InChild([&] {
            Sdk sdk(c.rules);
            void* handle = sdk.CalibrateCreate();
            EXPECT_EQ(c.usable, handle != nullptr) << c.rules;
            sdk.CalibrateDelete(&handle);
        });
    }
}

}  // namespace
