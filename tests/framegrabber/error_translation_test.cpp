#include "framegrabber/error_translation.h"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>

namespace {

// What GuardedCall reports for each kind of exception: the plug-in's own
// exceptions (subclasses included) keep number and text, every other family
// member and standard exception becomes 23 with its text, and so do the
// plug-in's own under the list-copy handlers. The device-fault table and
// test_fghost see more of them end to end: 27 and 22 with their texts, 23
// with a loader's text or "std::bad_alloc".
TEST(ErrorTranslation, NumbersAndTexts) {
    using H = vc::eHandlers;
    const struct Case {
        void (*thrower)();
        H handlers;
        int number;
        std::string text;
    } cases[] = {
        {[] { throw vc::ClVCWarning("careful", 5); }, H::All, 5, "careful"},
        {[] { throw Nvk::CXSystemException(12); }, H::All, 23, std::strerror(12)},
        {[] { throw Nvk::CXMemoryAllocException(); }, H::All, 23, "memory allocation failed"},
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

}  // namespace
