#include "base/errors.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

namespace {

TEST(Exceptions, WhatAndWhatAgreeWithDescription) {
    vc::ClVCException e(std::string("text"), 9);
    const std::exception& base = e;
    EXPECT_STREQ("text", base.what());
    EXPECT_STREQ("text", static_cast<const Nvk::ClNorvakException&>(e).What());
    EXPECT_STREQ("", vc::ClVCException(static_cast<const char*>(nullptr), 1).GetDescription());
    EXPECT_STREQ(std::strerror(ENOENT), Nvk::CXSystemException(ENOENT).what());
}

TEST(Exceptions, OtherExceptionTextIsCutAt1024WithoutOverrun) {
    const std::string exact(1023, 'a');
    EXPECT_EQ(exact, Nvk::CXOtherException(exact.c_str(), 1).GetDescription());

    for (std::size_t len : {1024u, 1025u, 5000u}) {
        const std::string longText(len, 'b');
        Nvk::CXOtherException e(longText.c_str(), Nvk::kErrSymbolResolve);
        // All 1024 stored characters are text, and the terminator follows
        // inside the object (the sanitizer build checks the read).
        EXPECT_EQ(std::string(1024, 'b'), std::string(e.GetDescription()));
        EXPECT_EQ(Nvk::kErrSymbolResolve, e.GetErrorNumber());
        // A copy keeps the same bounded text.
        Nvk::CXOtherException copy(e);
        EXPECT_EQ(1024u, std::strlen(copy.What()));
    }
    EXPECT_STREQ("", Nvk::CXOtherException(nullptr, -201).GetDescription());
}

}  // namespace
