// Small geometry types used with bitmaps.
#pragma once

#include <cstdint>

namespace Nvk {

// A rectangle stored as top, bottom, left, right.
struct CLRect {
    std::int32_t top = 0;
    std::int32_t bottom = 0;
    std::int32_t left = 0;
    std::int32_t right = 0;

    CLRect() = default;
    // Argument order differs from the storage order.
    CLRect(std::int32_t t, std::int32_t l, std::int32_t b, std::int32_t r)
        : top(t), bottom(b), left(l), right(r) {}

    std::int32_t Width() const { return right - left; }
    std::int32_t Height() const { return bottom - top; }
};

struct CLSize {
    std::int32_t width = 0;
    std::int32_t height = 0;

    CLSize() = default;
    CLSize(std::int32_t w, std::int32_t h) : width(w), height(h) {}
    explicit CLSize(const CLRect& rect) : width(rect.Width()), height(rect.Height()) {}
};

// Rectangle object of the framework (polymorphic, all values 0 by default).
class ClRect {
public:
    ClRect() = default;
    ClRect(std::int32_t l, std::int32_t t, std::int32_t r, std::int32_t b)
        : m_nLeft(l), m_nTop(t), m_nRight(r), m_nBottom(b) {}
    ClRect(const ClRect&) = default;
    ClRect& operator=(const ClRect&) = default;
    virtual ~ClRect() = default;

    std::int32_t Left() const { return m_nLeft; }
    std::int32_t Top() const { return m_nTop; }
    std::int32_t Right() const { return m_nRight; }
    std::int32_t Bottom() const { return m_nBottom; }

private:
    std::int32_t m_nLeft = 0;
    std::int32_t m_nTop = 0;
    std::int32_t m_nRight = 0;
    std::int32_t m_nBottom = 0;
};

}  // namespace Nvk
