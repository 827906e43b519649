#include "view.h"

#include <QPainter>
#include <QRegion>
#include <chrono>
#include <thread>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kr7viewer {

void ToRgb(const kr7host::Image& image, QImage& out) {
    if (image.Empty()) {
        out = QImage();
        return;
    }
    if (out.width() != image.width || out.height() != image.height ||
        out.format() != QImage::Format_RGB32) {
        out = QImage(image.width, image.height, QImage::Format_RGB32);
    }
    for (int y = 0; y < image.height; ++y) {
        const std::uint8_t* grey = image.Row(y);
        auto* rgb = reinterpret_cast<QRgb*>(out.scanLine(y));
        int x = 0;
#if defined(__SSE2__)
        // 16 pixels at a time: each grey byte spread over four, alpha set.
        const __m128i alpha = _mm_set1_epi32(static_cast<int>(0xff000000u));
        for (; x + 16 <= image.width; x += 16) {
            const __m128i g = _mm_loadu_si128(reinterpret_cast<const __m128i*>(grey + x));
            const __m128i low = _mm_unpacklo_epi8(g, g), high = _mm_unpackhi_epi8(g, g);
            const __m128i quads[4] = {_mm_unpacklo_epi16(low, low), _mm_unpackhi_epi16(low, low),
                                      _mm_unpacklo_epi16(high, high),
                                      _mm_unpackhi_epi16(high, high)};
            for (int i = 0; i < 4; ++i) {
                _mm_storeu_si128(reinterpret_cast<__m128i*>(rgb + x + 4 * i),
                                 _mm_or_si128(quads[i], alpha));
            }
        }
#endif
        for (; x < image.width; ++x) {
            rgb[x] = 0xff000000u | grey[x] * 0x010101u;
        }
    }
}

QImage ToRgb(const kr7host::Image& image) {
    QImage out;
    ToRgb(image, out);
    return out;
}

LiveView::LiveView(QWidget* parent) : QWidget(parent) {
    setAttribute(Qt::WA_OpaquePaintEvent);
    setMinimumSize(160, 120);
}

void LiveView::Show(const kr7host::Image& image, std::int64_t number) {
    const QSize before = m_Image.size();
    ToRgb(image, m_Image);
    m_nNumber = number;
    if (!m_bFit && before != m_Image.size()) {
        setFixedSize(m_Image.size());
    }
    update();
}

void LiveView::SetFit(bool fit) {
    m_bFit = fit;
    if (fit) {
        setMinimumSize(160, 120);
        setMaximumSize(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX);
    } else if (!m_Image.isNull()) {
        setFixedSize(m_Image.size());
    }
    update();
}

QSize LiveView::sizeHint() const {
    return m_bFit || m_Image.isNull() ? QSize(480, 560) : m_Image.size();
}

void LiveView::paintEvent(QPaintEvent*) {
    if (m_nDelay > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(m_nDelay));
    }
    QPainter painter(this);
    const QColor background(48, 48, 48);
    if (m_Image.isNull()) {
        painter.fillRect(rect(), background);
        return;
    }
    QRect target(QPoint(0, 0), m_Image.size());
    if (m_bFit) {
        const QSize fitted = m_Image.size().scaled(size(), Qt::KeepAspectRatio);
        target =
            QRect(QPoint((width() - fitted.width()) / 2, (height() - fitted.height()) / 2), fitted);
    }
    // Only the margins around the frame: under it every pixel is drawn.
    for (const QRect& margin : (QRegion(rect()) - target)) {
        painter.fillRect(margin, background);
    }
    painter.drawImage(target, m_Image);
    m_nPainted = m_nNumber;
    ++m_nPaints;
}

}  // namespace kr7viewer
