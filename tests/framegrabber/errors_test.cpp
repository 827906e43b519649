#include "framegrabber/errors.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

namespace {

// What GuardedCall reports for each kind of exception: the plug-in's own
// exceptions (subclasses included) keep number and text, every other family
// member and standard exception becomes 23 with its text, and so do the
// plug-in's own under the list-copy handlers.
TEST(ErrorTranslation, NumbersAndTexts) {
    using H = vc::eHandlers;
    const struct Case {
        void (*thrower)();
        H handlers;
        int number;
        std::string text;
    } cases[] = {
        {[] { throw vc::ClVCException(vc::err::kBadDeviceIndexText, 27); }, H::All, 27,
         vc::err::kBadDeviceIndexText},
        {[] { throw vc::ClVCWarning("careful", 5); }, H::All, 5, "careful"},
        {[] { throw vc::ClQV2NOTImplException(vc::err::kHardwareNotSupportedText, 22); }, H::All,
         22, vc::err::kHardwareNotSupportedText},
        {[] { throw Nvk::CXSystemException(12); }, H::All, 23, std::strerror(12)},
        {[] { throw Nvk::CXOtherException("no such library", Nvk::kErrLibraryLoad); }, H::All, 23,
         "no such library"},
        {[] { throw Nvk::CXMemoryAllocException(); }, H::All, 23, "memory allocation failed"},
        {[] { throw std::bad_alloc(); }, H::All, 23, std::bad_alloc().what()},
        {[] { throw std::runtime_error("boom"); }, H::All, 23, "boom"},
        {[] { throw vc::ClVCException("x", 4); }, H::FamilyAndStd, 23, "x"},
    };
    for (const Case& c : cases) {
        vc::FGError error;
        EXPECT_FALSE(vc::GuardedCall(c.thrower, error, c.handlers));
        EXPECT_EQ(c.number, error.number) << c.text;
        EXPECT_EQ(c.text, error.text);
    }
}

TEST(ErrorTranslation, SuccessLeavesErrorAloneAndForeignObjectsPassThrough) {
    vc::FGError error{99, "kept"};
    EXPECT_TRUE(vc::GuardedCall([] {}, error));
    EXPECT_EQ(99, error.number);
    EXPECT_THROW(vc::GuardedCall([] { throw 42; }, error), int);
}

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
        // All 1024 stored characters are text; the reader still stops
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
