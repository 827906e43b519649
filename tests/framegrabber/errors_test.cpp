#include "framegrabber/errors.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

namespace {

vc::FGError Translate(void (*thrower)(), vc::eHandlers handlers = vc::eHandlers::All) {
    vc::FGError error;
    EXPECT_FALSE(vc::GuardedCall(thrower, error, handlers));
    return error;
}

TEST(ErrorTranslation, VCExceptionKeepsItsNumberAndText) {
    auto e = Translate([] { throw vc::ClVCException(vc::err::kBadDeviceIndexText, 27); });
    EXPECT_EQ(27, e.number);
    EXPECT_EQ(vc::err::kBadDeviceIndexText, e.text);
    EXPECT_EQ(0x1000001Bu, vc::FGERR_FLAG | static_cast<unsigned>(e.number));

    // Subclasses go through the first handler too.
    e = Translate([] { throw vc::ClVCWarning("careful", 5); });
    EXPECT_EQ(5, e.number);
    e = Translate([] { throw vc::ClQV2NOTImplException(vc::err::kHardwareNotSupportedText, 22); });
    EXPECT_EQ(22, e.number);
    EXPECT_EQ(vc::err::kHardwareNotSupportedText, e.text);
}

TEST(ErrorTranslation, OtherFamilyMembersBecome23WithTheirText) {
    auto e = Translate([] { throw Nvk::CXSystemException(12); });
    EXPECT_EQ(23, e.number);
    EXPECT_EQ(std::strerror(12), e.text);

    e = Translate([] { throw Nvk::CXOtherException("no such library", Nvk::kErrLibraryLoad); });
    EXPECT_EQ(23, e.number);  // the exception's own number is dropped
    EXPECT_EQ("no such library", e.text);

    e = Translate([] { throw Nvk::CXMemoryAllocException(); });
    EXPECT_EQ(23, e.number);
    EXPECT_EQ("memory allocation failed", e.text);
}

TEST(ErrorTranslation, StandardExceptionsBecome23WithWhat) {
    auto e = Translate([] { throw std::bad_alloc(); });
    EXPECT_EQ(23, e.number);
    EXPECT_EQ(std::bad_alloc().what(), e.text);
    e = Translate([] { throw std::runtime_error("boom"); });
    EXPECT_EQ("boom", e.text);
}

TEST(ErrorTranslation, ListCopyHandlersTreatVCExceptionAsFamily) {
    auto e = Translate([] { throw vc::ClVCException("x", 4); }, vc::eHandlers::FamilyAndStd);
    EXPECT_EQ(23, e.number);
    EXPECT_EQ("x", e.text);
}

TEST(ErrorTranslation, SuccessLeavesErrorAlone) {
    vc::FGError error{99, "kept"};
    EXPECT_TRUE(vc::GuardedCall([] {}, error));
    EXPECT_EQ(99, error.number);
}

TEST(ErrorTranslation, ForeignObjectsPassThrough) {
    vc::FGError error;
    EXPECT_THROW(vc::GuardedCall([] { throw 42; }, error), int);
}

TEST(Exceptions, WhatAndWhatAgreeWithDescription) {
    vc::ClVCException e(std::string("text"), 9);
    const std::exception& base = e;
    const Nvk::ClNorvakException& family = e;
    EXPECT_STREQ("text", base.what());
    EXPECT_STREQ("text", family.What());
    EXPECT_EQ(9, e.GetErrorNumber());
    EXPECT_STREQ("", vc::ClVCException(static_cast<const char*>(nullptr), 1).GetDescription());

    Nvk::CXSystemException sys(ENOENT);
    EXPECT_EQ(ENOENT, sys.GetErrorNumber());
    EXPECT_STREQ(std::strerror(ENOENT), sys.what());
}

TEST(Exceptions, HeaderExceptionsCarryTheirFixedTexts) {
    Nvk::ClHeaderFormatException format;
    EXPECT_STREQ("The header version is wrong.", format.What());
    EXPECT_EQ(-1, format.GetErrorNumber());
    Nvk::ClCHeaderDesrcTooLongException tooLong;
    EXPECT_STREQ("The description is too long.", tooLong.What());
    EXPECT_EQ(-1, tooLong.GetErrorNumber());
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
