#include "util/dynamic_library.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "framegrabber/errors.h"

#ifndef KR7_TESTLIB_SYMBOLS
#error "KR7_TESTLIB_SYMBOLS must name the test library's path"
#endif

namespace {

// A derived loader as the library bindings write them.
class TestLibrary : public Nvk::CXDynamicLibrary {
public:
    using Nvk::CXDynamicLibrary::IsLoaded;
    using Nvk::CXDynamicLibrary::Open;
};

constexpr const char* kPath = KR7_TESTLIB_SYMBOLS;

// Whether the test library is in the process, without loading it.
bool TestLibraryResident() {
    void* handle = dlopen(kPath, RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr) {
        return false;
    }
    dlclose(handle);
    return true;
}

template <class Call>
Nvk::CXOtherException Caught(Call call) {
    try {
        call();
    } catch (const Nvk::CXOtherException& e) {
        return e;
    }
    ADD_FAILURE() << "no CXOtherException";
    return Nvk::CXOtherException("", 0);
}

TEST(DynamicLibrary, ResolvesFunctionsDataAndANullSymbol) {
    TestLibrary lib;
    lib.Open(kPath);
    ASSERT_TRUE(lib.IsLoaded());

    auto answer = reinterpret_cast<int (*)()>(lib.GetSymbol("kr7_answer"));
    ASSERT_NE(nullptr, answer);
    EXPECT_EQ(42, answer());
    EXPECT_EQ(7, *static_cast<int*>(lib.GetSymbol("kr7_data")));

    // The symbol exists and its value is null: no error.
    EXPECT_EQ(nullptr, lib.GetSymbol("kr7_null_symbol"));
}

TEST(DynamicLibrary, MissingSymbolThrows202WithTheLoaderText) {
    TestLibrary lib;
    lib.Open(kPath);
    auto e = Caught([&] { lib.GetSymbol("kr7_no_such_symbol"); });
    EXPECT_EQ(Nvk::kErrSymbolResolve, e.GetErrorNumber());
    EXPECT_NE(std::string::npos, std::string(e.GetDescription()).find("kr7_no_such_symbol"));

    // A stale loader error is not taken for the next lookup's.
    dlopen("/nonexistent/libkr7_missing.so", RTLD_NOW);
    EXPECT_EQ(nullptr, lib.GetSymbol("kr7_null_symbol"));

    e = Caught([&] { lib.GetSymbol(nullptr); });
    EXPECT_EQ(Nvk::kErrSymbolResolve, e.GetErrorNumber());
}

TEST(DynamicLibrary, NoLibraryLoadedNeverSearchesTheGlobalScope) {
    TestLibrary lib;
    // dlsym is in the process, but a loader without a library must not find it.
    auto e = Caught([&] { lib.GetSymbol("dlsym"); });
    EXPECT_EQ(Nvk::kErrSymbolResolve, e.GetErrorNumber());
    EXPECT_STRNE("", e.GetDescription());
}

TEST(DynamicLibrary, FailedOpenThrows201AndHoldsNoHandle) {
    TestLibrary lib;
    lib.Open(kPath);
    auto e = Caught([&] { lib.Open("/nonexistent/libkr7_missing.so"); });
    EXPECT_EQ(Nvk::kErrLibraryLoad, e.GetErrorNumber());
    EXPECT_NE(std::string::npos, std::string(e.GetDescription()).find("libkr7_missing.so"));
    EXPECT_FALSE(lib.IsLoaded());  // the earlier handle was closed first
    EXPECT_FALSE(TestLibraryResident());

    e = Caught([&] { lib.Open(nullptr); });
    EXPECT_EQ(Nvk::kErrLibraryLoad, e.GetErrorNumber());
    EXPECT_FALSE(lib.IsLoaded());
}

TEST(DynamicLibrary, ReopenAndDestructionReleaseTheHandle) {
    ASSERT_FALSE(TestLibraryResident());
    {
        TestLibrary lib;
        lib.Open(kPath);
        lib.Open(kPath);  // closes the first handle, so one reference remains
        EXPECT_TRUE(TestLibraryResident());
    }
    EXPECT_FALSE(TestLibraryResident());
}

}  // namespace
