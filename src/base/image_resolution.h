// Output resolution of an image in pixels per metre, as the host sets it
// (SetResolution) and as bitmaps carry it.
#pragma once

#include <cstdint>

namespace vc {

// Output resolution in pixels per metre.
class ClImageResolution {
public:
    ClImageResolution() = default;
    ClImageResolution(std::uint32_t x, std::uint32_t y) : m_nX(x), m_nY(y) {}
    ClImageResolution(const ClImageResolution&) = default;
    ClImageResolution& operator=(const ClImageResolution&) = default;
    virtual ~ClImageResolution() = default;

    bool operator==(const ClImageResolution& o) const { return m_nX == o.m_nX && m_nY == o.m_nY; }
    bool operator!=(const ClImageResolution& o) const { return !(*this == o); }

    // Dots per inch to pixels per metre: × 39.37, truncated. The factor is
    // the double nearest 39.37 (a hair below it) multiplied in long double,
    // so 500 dpi gives 19684, not 19685.
    static std::uint32_t DpiToPels(std::uint32_t dpi) {
        return static_cast<std::uint32_t>(static_cast<long double>(dpi) *
                                          static_cast<long double>(39.37));
    }
    void put_DPI(std::uint32_t xDpi, std::uint32_t yDpi) {
        m_nX = DpiToPels(xDpi);
        m_nY = DpiToPels(yDpi);
    }
    std::uint32_t X() const { return m_nX; }
    std::uint32_t Y() const { return m_nY; }

private:
    std::uint32_t m_nX = 0;
    std::uint32_t m_nY = 0;
};

}  // namespace vc
