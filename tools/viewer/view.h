// The live view: the newest frame, scaled to fit with its aspect kept, or
// at 1:1 in a scroll area. It paints what it holds and calls nothing.
#pragma once

#include <QImage>
#include <QWidget>
#include <cstdint>

#include "kr7host/image.h"

namespace kr7viewer {

// The grey image as 32-bit RGB in `out` (reused when its size fits). Qt
// draws and scales that format directly; a grey one it would convert first,
// on every paint, on threads of its pool.
void ToRgb(const kr7host::Image& image, QImage& out);
QImage ToRgb(const kr7host::Image& image);

class LiveView : public QWidget {
    Q_OBJECT
public:
    explicit LiveView(QWidget* parent = nullptr);

    // Shows a copy of `image`.
    void Show(const kr7host::Image& image, std::int64_t number);
    void SetFit(bool fit);
    bool Fit() const { return m_bFit; }

    // What the last paint drew: the frame's number and its pixels.
    std::int64_t PaintedNumber() const { return m_nPainted; }
    const QImage& Painted() const { return m_Image; }
    long Paints() const { return m_nPaints; }
    // For tests: every paint sleeps this long first.
    void SetPaintDelay(int milliseconds) { m_nDelay = milliseconds; }

    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QImage m_Image;
    std::int64_t m_nNumber = -1;
    std::int64_t m_nPainted = -1;
    long m_nPaints = 0;
    bool m_bFit = true;
    int m_nDelay = 0;
};

}  // namespace kr7viewer
