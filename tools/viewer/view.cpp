#include "view.h"

#include <QPainter>
#include <chrono>
#include <thread>

namespace kr7viewer {

QImage Wrap(const kr7host::Image& image) {
    if (image.Empty()) {
        return QImage();
    }
    return QImage(image.pixels.data(), image.width, image.height, image.width,
                  QImage::Format_Grayscale8);
}

LiveView::LiveView(QWidget* parent) : QWidget(parent) {
    setAttribute(Qt::WA_OpaquePaintEvent);
    setMinimumSize(160, 120);
}

void LiveView::Show(const kr7host::Image& image, std::int64_t number) {
    const QSize before = m_Image.size();
    m_Image = Wrap(image);
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
    painter.fillRect(rect(), QColor(48, 48, 48));
    if (m_Image.isNull()) {
        return;
    }
    QRect target(QPoint(0, 0), m_Image.size());
    if (m_bFit) {
        const QSize fitted = m_Image.size().scaled(size(), Qt::KeepAspectRatio);
        target = QRect(QPoint((width() - fitted.width()) / 2, (height() - fitted.height()) / 2),
                       fitted);
    }
    painter.drawImage(target, m_Image);
    m_nPainted = m_nNumber;
    ++m_nPaints;
}

}  // namespace kr7viewer
