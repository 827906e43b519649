#include "util/dynamic_library.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "base/errors.h"

namespace {

constexpr const char* kPath = KR7_TESTLIB_SYMBOLS;  // built for these tests
constexpr const char* kMissing = "/nonexistent/libkr7_missing.so";

class TestLibrary : public Nvk::CXDynamicLibrary {
public:
    using Nvk::CXDynamicLibrary::IsLoaded;
    using Nvk::CXDynamicLibrary::Open;
};

// Whether the test library is in the process, without loading it.
bool Resident() {
    void* handle = dlopen(kPath, RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) {
        dlclose(handle);
    }
    return handle != nullptr;
}

// "number: text" of the CXOtherException that `call` throws.
template <class Call>
std::string Failure(Call call) {
    try {
        call();
    } catch (const Nvk::CXOtherException& e) {
        return std::to_string(e.GetErrorNumber()) + ": " + e.GetDescription();
    }
    return "no exception";
}

TEST(DynamicLibrary, ResolvesSymbolsIncludingANullOne) {
    TestLibrary lib;
    lib.Open(kPath);
    auto answer = reinterpret_cast<int (*)()>(lib.GetSymbol("kr7_answer"));
    ASSERT_NE(nullptr, answer);
    EXPECT_EQ(42, answer());
    EXPECT_EQ(7, *static_cast<int*>(lib.GetSymbol("kr7_data")));
    // An absolute symbol of value zero: found, and its address is null.
    EXPECT_EQ(nullptr, lib.GetSymbol("kr7_null_symbol"));

    EXPECT_EQ("-202: " + std::string(kPath) + ": undefined symbol: kr7_nothing",
              Failure([&] { lib.GetSymbol("kr7_nothing"); }));
    // A stale loader error is not taken for the next lookup's.
    dlopen(kMissing, RTLD_NOW);
    EXPECT_EQ(nullptr, lib.GetSymbol("kr7_null_symbol"));
    EXPECT_EQ("-202: no symbol name given", Failure([&] { lib.GetSymbol(nullptr); }));
    // Without a library the global scope is not searched.
    EXPECT_EQ("-202: no library is loaded", Failure([&] { TestLibrary().GetSymbol("dlsym"); }));
}

TEST(DynamicLibrary, OpenCloseAndFailures) {
    ASSERT_FALSE(Resident());
    {
        TestLibrary lib;
        lib.Open(kPath);
        lib.Open(kPath);  // closes the first handle: one reference remains
        EXPECT_TRUE(Resident());
    }
    EXPECT_FALSE(Resident());  // the destructor closed it

    TestLibrary lib;
    lib.Open(kPath);
    const std::string failure = Failure([&] { lib.Open(kMissing); });
    EXPECT_EQ(0u, failure.find("-201: ")) << failure;
    EXPECT_NE(std::string::npos, failure.find(kMissing)) << failure;
    EXPECT_FALSE(lib.IsLoaded());  // the earlier handle was closed first
    EXPECT_FALSE(Resident());
    EXPECT_EQ("-201: no library name given", Failure([&] { lib.Open(nullptr); }));
}

}  // namespace
