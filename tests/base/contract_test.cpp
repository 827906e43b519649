#include <gtest/gtest.h>

#include <type_traits>

#include "base/framegrabber.h"

namespace {

// The host passes these enumerations as 32-bit values.
static_assert(sizeof(vc::eCaptureModeIDs) == 4 && sizeof(vc::ePropertyIDs) == 4);
static_assert(std::is_abstract_v<vc::ClFramegrabber>);

TEST(ClImageResolution, DpiConversionTruncates) {
    vc::ClImageResolution r;
    r.put_DPI(500, 1000);
    EXPECT_EQ(vc::ClImageResolution(19684, 39369), r);
}

}  // namespace
