#include "window.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QComboBox>
#include <QDateTime>
#include <QDir>
#include <QFileDialog>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QScrollArea>
#include <QSettings>
#include <QSplitter>
#include <QStatusBar>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>
#include <climits>
#include <cmath>
#include <cstdio>

#include "view.h"

namespace kr7viewer {

namespace {

struct ModeName {
    vc::eCaptureModeIDs mode;
    const char* name;
};
constexpr ModeName kModes[] = {{vc::eCaptureLive, "Live"},
                               {vc::eCapturePlainFinger, "Plain finger"},
                               {vc::eCaptureFastPlainFinger, "Fast plain finger"},
                               {vc::eCaptureRolledFinger, "Rolled finger"}};

// How often the finger's state is read from a frame while the placements do
// not need every frame's: three frames of the scanner's 25 a second.
constexpr std::chrono::milliseconds kFingerStatePeriod(120);

constexpr const char* kInfoLabels[5] = {"Product", "Serial number", "Hardware", "Firmware",
                                        "Calibration"};

int Percent(double share) {
    return static_cast<int>(std::lround(share * 100.0));
}

QPushButton* Button(const QString& text, QWidget* parent) {
    auto* button = new QPushButton(text, parent);
    button->setFocusPolicy(Qt::NoFocus);
    return button;
}

}  // namespace

Window::Window(const Options& options, QWidget* parent)
    : QMainWindow(parent),
      m_Options(options),
      m_pSession(std::make_unique<Session>(options.session)) {
    setWindowTitle("kr7-viewer");
    auto* central = new QWidget(this);
    auto* layout = new QVBoxLayout(central);

    // The scanner and the capture, in one row.
    auto* bar = new QHBoxLayout;
    m_pScanners = new QComboBox(central);
    m_pScanners->setMinimumContentsLength(22);
    auto* relist = Button("List again", central);
    m_pMode = new QComboBox(central);
    for (const ModeName& mode : kModes) {
        m_pMode->addItem(mode.name, static_cast<int>(mode.mode));
    }
    m_pStartStop = Button("Start", central);
    auto* fit = Button("Fit", central);
    auto* actual = Button("1:1", central);
    bar->addWidget(new QLabel("Scanner", central));
    bar->addWidget(m_pScanners, 1);
    bar->addWidget(relist);
    bar->addSpacing(12);
    bar->addWidget(new QLabel("Mode", central));
    bar->addWidget(m_pMode);
    bar->addWidget(m_pStartStop);
    bar->addSpacing(12);
    bar->addWidget(fit);
    bar->addWidget(actual);
    layout->addLayout(bar);

    // Failures: a banner above the view, never a dialog.
    m_pBanner = new QWidget(central);
    m_pBanner->setAutoFillBackground(true);
    m_pBanner->setStyleSheet("background: #f8d7a0; color: #401000;");
    auto* bannerLayout = new QHBoxLayout(m_pBanner);
    m_pBannerText = new QLabel(m_pBanner);
    m_pBannerText->setWordWrap(true);
    m_pBannerText->setTextInteractionFlags(Qt::TextSelectableByMouse);
    auto* dismiss = new QToolButton(m_pBanner);
    dismiss->setText("×");
    bannerLayout->addWidget(m_pBannerText, 1);
    bannerLayout->addWidget(dismiss);
    m_pBanner->hide();
    layout->addWidget(m_pBanner);

    auto* splitter = new QSplitter(Qt::Horizontal, central);
    m_pScroll = new QScrollArea(splitter);
    m_pScroll->setAlignment(Qt::AlignCenter);
    m_pScroll->setWidgetResizable(true);
    m_pView = new LiveView;
    m_pScroll->setWidget(m_pView);
    splitter->addWidget(m_pScroll);
    splitter->addWidget(MakeSide());
    splitter->setStretchFactor(0, 1);
    layout->addWidget(splitter, 1);
    layout->addWidget(MakeStrip());
    setCentralWidget(central);
    m_pStatus = new QLabel(this);
    statusBar()->addWidget(m_pStatus, 1);
    MakeActions();

    connect(relist, &QPushButton::clicked, this, [this] { m_pSession->Refresh(); });
    connect(m_pScanners, QOverload<int>::of(&QComboBox::activated), this, [this](int row) {
        if (row >= 0 && static_cast<std::size_t>(row) < m_Info.interfaces.size() &&
            m_Info.interfaces[row] != m_Info.active) {
            m_pSession->Select(m_Info.interfaces[row]);
        }
    });
    connect(m_pMode, QOverload<int>::of(&QComboBox::activated), this, [this] {
        if (m_pSession->Wanted()) {
            m_pSession->Start(Mode());
        }
    });
    connect(m_pStartStop, &QPushButton::clicked, this, &Window::StartStop);
    connect(fit, &QPushButton::clicked, this, [this] {
        m_pScroll->setWidgetResizable(true);
        m_pView->SetFit(true);
    });
    connect(actual, &QPushButton::clicked, this, [this] {
        m_pScroll->setWidgetResizable(false);
        m_pView->SetFit(false);
    });
    connect(dismiss, &QToolButton::clicked, this, [this] { SetBanner(QString(), -1); });

    Session* session = m_pSession.get();
    connect(session, &Session::framesReady, this, &Window::OnFrames);
    connect(session, &Session::opened, this, &Window::OnOpened);
    connect(session, &Session::failed, this, &Window::OnFailed);
    connect(session, &Session::loadFailed, this, [this](const QString& text) {
        m_Info = ScannerInfo();
        m_pScanners->clear();
        m_pInfo->setText("No plug-in loaded.");
        SetBanner(text, 0);
    });
    connect(session, &Session::capturing, this, &Window::OnCapturing);
    connect(session, &Session::warning, this,
            [this](const QString& text) { statusBar()->showMessage(text, 3000); });
    connect(session, &Session::snapshot, this, &Window::OnSnapshot);
    connect(session, &Session::contamination, this, [this](double value) {
        m_pContamination->setText(QString("Contamination: %1 (%2 % of the platen)")
                                      .arg(value, 0, 'f', 3)
                                      .arg(Percent(value)));
    });
    connect(session, &Session::deviceEvent, this, &Window::OnDeviceEvent);

    auto* timer = new QTimer(this);
    connect(timer, &QTimer::timeout, this, &Window::UpdateStatus);
    timer->start(500);

    QSettings settings;
    if (!restoreGeometry(settings.value("window/geometry").toByteArray())) {
        resize(1100, 760);
    }
    SetMode(static_cast<vc::eCaptureModeIDs>(settings.value("capture/mode", 0).toInt()));
    m_pSession->Open();
    m_pSession->Start(Mode());
}

Window::~Window() {
    // Stops the capture and unloads the plug-in before the widgets go.
    m_pSession.reset();
}

QWidget* Window::MakeSide() {
    auto* side = new QWidget;
    auto* layout = new QVBoxLayout(side);

    auto* scanner = new QGroupBox("Scanner", side);
    m_pInfo = new QLabel("Loading the plug-in…", scanner);
    m_pInfo->setWordWrap(true);
    m_pInfo->setTextInteractionFlags(Qt::TextSelectableByMouse);
    (new QVBoxLayout(scanner))->addWidget(m_pInfo);
    layout->addWidget(scanner);

    auto* finger = new QGroupBox("Finger", side);
    auto* fingerLayout = new QVBoxLayout(finger);
    m_pFinger = new QLabel(finger);
    QFont big = m_pFinger->font();
    big.setPointSizeF(big.pointSizeF() * 1.4);
    big.setBold(true);
    m_pFinger->setFont(big);
    m_pPrompt = new QLabel(finger);
    m_pPrompt->setWordWrap(true);
    fingerLayout->addWidget(m_pFinger);
    fingerLayout->addWidget(m_pPrompt);
    layout->addWidget(finger);

    auto* device = new QGroupBox("Device", side);
    auto* deviceLayout = new QVBoxLayout(device);
    m_pRed = new QCheckBox("Red LED", device);
    m_pGreen = new QCheckBox("Green LED", device);
    m_pFake = new QCheckBox("Fake-finger detection", device);
    m_pEvent = new QLabel("No device event", device);
    auto* contamination = Button("Check contamination", device);
    m_pContamination = new QLabel("Contamination: not measured", device);
    auto* snapshot = Button("Snapshot", device);
    for (QWidget* widget : std::initializer_list<QWidget*>{
             m_pRed, m_pGreen, m_pFake, m_pEvent, contamination, m_pContamination, snapshot}) {
        deviceLayout->addWidget(widget);
    }
    layout->addWidget(device);
    layout->addStretch(1);

    const std::pair<QCheckBox*, vc::ePropertyIDs> controls[] = {
        {m_pRed, vc::ePropRedLED},
        {m_pGreen, vc::ePropGreenLED},
        {m_pFake, vc::ePropFakeFingerDetection}};
    for (const auto& [box, property] : controls) {
        const vc::ePropertyIDs id = property;
        connect(box, &QCheckBox::toggled, this,
                [this, id](bool on) { m_pSession->SetProperty(id, on); });
    }
    connect(contamination, &QPushButton::clicked, this, [this] {
        m_pContamination->setText("Contamination: measuring…");
        m_pSession->Contamination();
    });
    connect(snapshot, &QPushButton::clicked, this, [this] { m_pSession->Snapshot(); });
    side->setMinimumWidth(260);
    return side;
}

QWidget* Window::MakeStrip() {
    auto* box = new QGroupBox("Results of this session (click one to see it full size)");
    auto* layout = new QHBoxLayout(box);
    m_pStrip = new QListWidget(box);
    m_pStrip->setViewMode(QListView::IconMode);
    m_pStrip->setFlow(QListView::LeftToRight);
    m_pStrip->setWrapping(false);
    m_pStrip->setMovement(QListView::Static);
    m_pStrip->setIconSize(QSize(96, 112));
    m_pStrip->setGridSize(QSize(190, 150));
    m_pStrip->setFixedHeight(172);
    auto* buttons = new QVBoxLayout;
    auto* saveOne = Button("Save…", box);
    auto* saveAll = Button("Save all…", box);
    m_pFormat = new QComboBox(box);
    m_pFormat->addItem("PNG", "png");
    m_pFormat->addItem("BMP", "bmp");
    buttons->addWidget(saveOne);
    buttons->addWidget(saveAll);
    buttons->addWidget(m_pFormat);
    buttons->addStretch(1);
    layout->addWidget(m_pStrip, 1);
    layout->addLayout(buttons);
    connect(m_pStrip, &QListWidget::itemClicked, this,
            [this](QListWidgetItem* item) { ShowFull(m_pStrip->row(item)); });
    connect(saveOne, &QPushButton::clicked, this, &Window::SaveSelected);
    connect(saveAll, &QPushButton::clicked, this, &Window::SaveAllAsked);
    return box;
}

void Window::MakeActions() {
    const auto add = [this](const char* text, QKeySequence keys, auto slot) {
        auto* action = new QAction(text, this);
        action->setShortcut(keys);
        action->setShortcutContext(Qt::WindowShortcut);
        connect(action, &QAction::triggered, this, slot);
        addAction(action);
    };
    add("Start or stop", QKeySequence(Qt::CTRL | Qt::Key_R), [this] { StartStop(); });
    add("Snapshot", QKeySequence(Qt::CTRL | Qt::Key_T), [this] { m_pSession->Snapshot(); });
    add("Save", QKeySequence::Save, [this] { SaveSelected(); });
    add("Save all", QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_S), [this] { SaveAllAsked(); });
    add("Quit", QKeySequence::Quit, [this] { close(); });
}

void Window::StartStop() {
    if (m_pSession->Wanted()) {
        m_pSession->Stop();
    } else {
        m_pSession->Start(Mode());
    }
    m_pStartStop->setText(m_pSession->Wanted() ? "Stop" : "Start");
}

void Window::SetMode(vc::eCaptureModeIDs mode) {
    const int row = m_pMode->findData(static_cast<int>(mode));
    m_pMode->setCurrentIndex(row < 0 ? 0 : row);
    if (m_pSession->Wanted()) {
        m_pSession->Start(Mode());
    }
}

vc::eCaptureModeIDs Window::Mode() const {
    return static_cast<vc::eCaptureModeIDs>(m_pMode->currentData().toInt());
}

QString Window::Banner() const {
    return m_pBannerText->text();
}

QString Window::FingerState() const {
    return m_pFinger->text() + "\n" + m_pPrompt->text();
}

QString Window::EventText() const {
    return m_pEvent->text();
}

QCheckBox* Window::Control(vc::ePropertyIDs property) const {
    switch (property) {
        case vc::ePropRedLED:
            return m_pRed;
        case vc::ePropGreenLED:
            return m_pGreen;
        case vc::ePropFakeFingerDetection:
            return m_pFake;
        default:
            return nullptr;
    }
}

void Window::closeEvent(QCloseEvent* event) {
    QSettings settings;
    settings.setValue("window/geometry", saveGeometry());
    settings.setValue("capture/mode", static_cast<int>(Mode()));
    if (m_pFull) {
        m_pFull->close();
    }
    event->accept();
}

void Window::OnFrames() {
    const bool fresh = m_pSession->Take(m_Frame, m_vArrived);
    for (Result& result : m_vArrived) {
        OnResult(std::move(result));
    }
    m_vArrived.clear();
    if (!fresh) {
        return;
    }
    m_pView->Show(m_Frame.image, m_Frame.number);
    if (m_nBannerGeneration > 0 && m_Frame.generation > m_nBannerGeneration) {
        // A capture started after the failure delivers: it is over.
        SetBanner(QString(), -1);
    }
    if (m_pPlacements && kr7host::IsFingerMode(m_eCaptureMode)) {
        // The frame stays with the view; the placements need its measure
        // only. It tells when a finger has gone, needed on every frame only
        // while a placement waits for that; otherwise it keeps the finger's
        // state on screen, and a few times a second is enough for the eye.
        const auto now = std::chrono::steady_clock::now();
        if (m_pPlacements->NeedsQuality(m_Frame.number) ||
            now - m_LastMeasure >= kFingerStatePeriod) {
            m_LastQuality = kr7host::Measure(m_Frame.image);
            m_LastMeasure = now;
        }
        kr7host::Shot shot;
        shot.quality = m_LastQuality;
        shot.frame = m_Frame.number;
        m_pPlacements->Frame(std::move(shot));
        AddReady();
        UpdateFinger();
    }
}

void Window::OnOpened(const ScannerInfo& info) {
    if (info.scanners != m_Info.scanners || info.active != m_Info.active) {
        m_pScanners->clear();
        m_pScanners->addItems(info.scanners);
        for (std::size_t i = 0; i < info.interfaces.size(); ++i) {
            if (info.interfaces[i] == info.active) {
                m_pScanners->setCurrentIndex(static_cast<int>(i));
            }
        }
    }
    QString text = QString("<b>Plug-in</b> %1<br><small>%2</small>")
                       .arg(info.pluginVersion.toHtmlEscaped(), info.pluginFile.toHtmlEscaped());
    if (info.interfaces.empty()) {
        text += "<br><br>No scanner connected.";
        if (!m_bScannerLost) {
            SetBanner(
                "No scanner connected. Connect one and press “List again”, or start with "
                "--virtual for the virtual scanner.",
                0);
        }
    } else {
        text += QString("<br><b>Interface</b> %1").arg(info.active);
        for (int i = 0; i < info.details.size() && i < 5; ++i) {
            text +=
                QString("<br><b>%1</b> %2").arg(kInfoLabels[i], info.details[i].toHtmlEscaped());
        }
        if (m_nBannerGeneration == 0) {
            SetBanner(QString(), -1);
        }
    }
    m_pInfo->setText(text);
    m_Info = info;
}

void Window::OnFailed(const QString& text, long generation) {
    // A capture that failed is tried again by the session.
    m_bScannerLost = generation > 0;
    SetBanner(generation > 0 && m_pSession->Wanted()
                  ? text + "  The capture starts again when the scanner is back."
                  : text,
              generation);
}

void Window::OnCapturing(bool running, int mode) {
    m_bCapturing = running;
    if (running) {
        m_eCaptureMode = static_cast<vc::eCaptureModeIDs>(mode);
        m_pPlacements = std::make_unique<kr7host::Placements>(m_eCaptureMode, INT_MAX);
        m_LastMeasure = {};
    } else if (m_pPlacements) {
        m_pPlacements->Close();
        AddReady();
        m_pPlacements.reset();
    }
    m_pStartStop->setText(m_pSession->Wanted() ? "Stop" : "Start");
    UpdateFinger();
}

void Window::OnResult(Result&& result) {
    if (!m_pPlacements) {
        return;
    }
    if (m_eCaptureMode == vc::eCaptureRolledFinger) {
        // No live frames in this mode: the view shows the rolled print.
        m_pView->Show(result.image, result.frame);
    }
    // Of each placement the darkest result is kept: the mean is all it takes
    // to choose; the kept one is measured in full for the strip.
    kr7host::Shot shot;
    shot.quality.mean = kr7host::MeanGrey(result.image);
    shot.image = std::move(result.image);
    shot.frame = result.frame;
    m_pPlacements->Result(std::move(shot));
    AddReady();
    UpdateFinger();
}

void Window::OnSnapshot(const kr7host::Image& image) {
    kr7host::Image copy = image;
    AddThumbnail(kr7host::Measured(std::move(copy), 0), "snapshot");
    ShowFull(Results() - 1);
}

void Window::OnDeviceEvent(unsigned int type) {
    ++m_nEvents;
    const QString what = type == vc::eKR7EventFakeFinger ? "Fake finger detected"
                                                         : QString("Device event %1").arg(type);
    m_pEvent->setText(QString("<b style='color:#b00000'>%1</b> at %2 (%3 in all)")
                          .arg(what, QTime::currentTime().toString("hh:mm:ss"))
                          .arg(m_nEvents));
}

void Window::AddReady() {
    for (kr7host::Shot& shot : m_pPlacements->TakeReady()) {
        shot.quality = kr7host::Measure(shot.image);
        AddThumbnail(std::move(shot), "");
    }
}

void Window::AddThumbnail(kr7host::Shot&& shot, const QString& label) {
    const int number = Results() + 1;
    const QPixmap icon = QPixmap::fromImage(
        ToRgb(shot.image)
            .scaled(m_pStrip->iconSize(), Qt::KeepAspectRatio, Qt::SmoothTransformation));
    const QString caption = QString("#%1 %2\narea %3 %  contrast %4 %")
                                .arg(number)
                                .arg(label)
                                .arg(Percent(shot.quality.area))
                                .arg(Percent(shot.quality.contrast));
    auto* item = new QListWidgetItem(QIcon(icon), caption);
    item->setToolTip(QString("%1×%2 pixels").arg(shot.image.width).arg(shot.image.height));
    m_pStrip->addItem(item);
    m_pStrip->scrollToItem(item);
    m_vResults.push_back(std::move(shot));
    if (!m_Options.screenshot.isEmpty()) {
        // Taken when the next finger has given its result too, so that the
        // picture shows a finger in the view and a result in the strip.
        m_bScreenshotDue = true;
    }
}

void Window::ShowFull(int index) {
    if (index < 0 || index >= Results()) {
        return;
    }
    if (!m_pFull) {
        m_pFull = std::make_unique<QScrollArea>();
        m_pFull->setWidget(new QLabel);
        m_pFull->setAlignment(Qt::AlignCenter);
    }
    const kr7host::Image& image = m_vResults[index].image;
    static_cast<QLabel*>(m_pFull->widget())->setPixmap(QPixmap::fromImage(ToRgb(image)));
    m_pFull->widget()->adjustSize();
    m_pFull->setWindowTitle(
        QString("Result #%1 (%2×%3)").arg(index + 1).arg(image.width).arg(image.height));
    m_pFull->resize(image.width + 24, std::min(image.height + 24, 900));
    m_pFull->show();
    m_pFull->raise();
}

bool Window::SaveOne(int index, const QString& file) {
    if (index < 0 || index >= Results()) {
        return false;
    }
    try {
        kr7host::WriteImage(m_vResults[index].image, file.toStdString());
    } catch (const std::exception& e) {
        SetBanner(QString::fromStdString(e.what()), 0);
        return false;
    }
    statusBar()->showMessage("Saved " + file, 3000);
    return true;
}

QStringList Window::SaveAll(const QString& folder, const QString& format) {
    QStringList files;
    for (int i = 0; i < Results(); ++i) {
        const QString file = QDir(folder).filePath(
            QString("result-%1.%2").arg(i + 1, 3, 10, QChar('0')).arg(format));
        if (!SaveOne(i, file)) {
            break;
        }
        files << file;
    }
    return files;
}

void Window::SaveSelected() {
    const int row = m_pStrip->currentRow();
    if (row < 0) {
        statusBar()->showMessage("Select a result first.", 3000);
        return;
    }
    const QString file = QFileDialog::getSaveFileName(
        this, "Save the result", QString("result-%1.png").arg(row + 1, 3, 10, QChar('0')),
        "PNG, 500 ppi (*.png);;BMP (*.bmp)");
    if (!file.isEmpty()) {
        SaveOne(row, file);
    }
}

void Window::SaveAllAsked() {
    if (Results() == 0) {
        statusBar()->showMessage("No results yet.", 3000);
        return;
    }
    const QString folder = QFileDialog::getExistingDirectory(this, "Save all results into");
    if (!folder.isEmpty()) {
        const QStringList files = SaveAll(folder, m_pFormat->currentData().toString());
        statusBar()->showMessage(QString("Saved %1 files in %2").arg(files.size()).arg(folder),
                                 5000);
    }
}

void Window::SetBanner(const QString& text, long generation) {
    if (text.isEmpty()) {
        m_bScannerLost = false;
    }
    m_nBannerGeneration = text.isEmpty() ? -1 : generation;
    m_pBannerText->setText(text);
    m_pBanner->setVisible(!text.isEmpty());
}

void Window::UpdateFinger() {
    if (!m_bCapturing || !m_pPlacements) {
        m_pFinger->setText(m_pSession->Wanted() ? "Waiting for the scanner" : "Stopped");
        m_pPrompt->setText(m_pSession->Wanted() ? "" : "Press Start (Ctrl+R) to capture.");
        return;
    }
    if (!kr7host::IsFingerMode(m_eCaptureMode)) {
        m_pFinger->setText("Live");
        m_pPrompt->setText("Every frame is shown; no results are taken.");
        return;
    }
    m_pFinger->setText(m_pPlacements->Taken()    ? "Result taken"
                       : m_pPlacements->Finger() ? "Finger on the platen"
                                                 : "No finger");
    m_pPrompt->setText(m_pPlacements->Prompt());
    if (m_bScreenshotDue && m_pPlacements->Taken()) {
        m_bScreenshotDue = false;
        QTimer::singleShot(300, this, &Window::TakeScreenshot);
    }
}

void Window::UpdateStatus() {
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    const long delivered = m_pSession->Delivered();
    const qint64 since = m_nRateSince;
    const double seconds = since > 0 ? (now - since) / 1000.0 : 0;
    const double rate = seconds > 0 ? (delivered - m_nRateFrames) / seconds : 0;
    m_nRateFrames = delivered;
    m_nRateSince = now;
    char text[160];
    std::snprintf(text, sizeof text,
                  "%.1f frames per second   %ld frames   %ld dropped by the view   %s",
                  m_bCapturing ? rate : 0.0, delivered, m_pSession->Dropped(),
                  m_pView->Fit() ? "fit" : "1:1");
    m_pStatus->setText(text);
}

void Window::TakeScreenshot() {
    const bool saved = grab().save(m_Options.screenshot);
    if (!saved) {
        std::fprintf(stderr, "kr7-viewer: cannot write %s\n",
                     m_Options.screenshot.toLocal8Bit().constData());
    }
    close();
    QApplication::exit(saved ? 0 : 1);
}

}  // namespace kr7viewer
