// The viewer's window: the scanner and its information, the live view, the
// capture mode with the finger's state and what to do next, the results of
// this session, the device controls and a banner for failures. Everything
// it asks of the scanner goes through the session's control thread.
#pragma once

#include <QMainWindow>
#include <QString>
#include <QStringList>
#include <chrono>
#include <memory>
#include <vector>

#include "kr7host/quality.h"
#include "session.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QListWidget;
class QPushButton;
class QScrollArea;
class QToolButton;

namespace kr7viewer {

class LiveView;

class Window : public QMainWindow {
    Q_OBJECT
public:
    struct Options {
        Session::Options session;
        QString screenshot;  // save a picture of the window after the first result, then quit
    };

    explicit Window(const Options& options, QWidget* parent = nullptr);
    ~Window() override;

    // Starts or stops a capture in the chosen mode.
    void StartStop();
    void SetMode(vc::eCaptureModeIDs mode);
    vc::eCaptureModeIDs Mode() const;
    // Writes the results, numbered, into `folder` as PNG or BMP files
    // ("png", "bmp"); returns the files written (a failure goes to the banner).
    QStringList SaveAll(const QString& folder, const QString& format = "png");
    bool SaveOne(int index, const QString& file);

    // What the window shows, for tests and the screenshot.
    Session& Scanner() { return *m_pSession; }
    LiveView& View() { return *m_pView; }
    QString Banner() const;
    QString FingerState() const;
    QString EventText() const;
    int Results() const { return static_cast<int>(m_vResults.size()); }
    // The frame the view was last given.
    const Frame& Shown() const { return m_Frame; }
    bool Capturing() const { return m_bCapturing; }
    QCheckBox* Control(vc::ePropertyIDs property) const;

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    QWidget* MakeSide();
    QWidget* MakeStrip();
    void MakeActions();
    void OnFrames();
    void OnOpened(const ScannerInfo& info);
    void OnFailed(const QString& text, long generation);
    void OnCapturing(bool running, int mode);
    void OnResult(Result&& result);
    void OnSnapshot(const kr7host::Image& image);
    void OnDeviceEvent(unsigned int type);
    void AddReady();
    void AddThumbnail(kr7host::Shot&& shot, const QString& label);
    void ShowFull(int index);
    void SaveSelected();
    void SaveAllAsked();
    void SetBanner(const QString& text, long generation);
    void UpdateFinger();
    void UpdateStatus();
    void TakeScreenshot();

    const Options m_Options;
    std::unique_ptr<Session> m_pSession;
    LiveView* m_pView = nullptr;
    QScrollArea* m_pScroll = nullptr;
    QComboBox* m_pScanners = nullptr;
    QComboBox* m_pMode = nullptr;
    QPushButton* m_pStartStop = nullptr;
    QWidget* m_pBanner = nullptr;
    QLabel* m_pBannerText = nullptr;
    QLabel* m_pInfo = nullptr;
    QLabel* m_pFinger = nullptr;
    QLabel* m_pPrompt = nullptr;
    QLabel* m_pEvent = nullptr;
    QLabel* m_pContamination = nullptr;
    QCheckBox* m_pRed = nullptr;
    QCheckBox* m_pGreen = nullptr;
    QCheckBox* m_pFake = nullptr;
    QListWidget* m_pStrip = nullptr;
    QComboBox* m_pFormat = nullptr;
    QLabel* m_pStatus = nullptr;
    std::unique_ptr<QScrollArea> m_pFull;

    ScannerInfo m_Info;
    Frame m_Frame;
    std::vector<Result> m_vArrived;  // taken from the session, not yet handled
    bool m_bCapturing = false;
    vc::eCaptureModeIDs m_eCaptureMode = vc::eCaptureLive;
    std::unique_ptr<kr7host::Placements> m_pPlacements;
    // The last frame measured for the finger's state, and when.
    kr7host::Quality m_LastQuality;
    std::chrono::steady_clock::time_point m_LastMeasure;
    std::vector<kr7host::Shot> m_vResults;
    // The banner's capture: a frame of a later one takes it away; 0 keeps it.
    long m_nBannerGeneration = -1;
    bool m_bScannerLost = false;
    int m_nEvents = 0;
    long m_nRateFrames = 0;
    qint64 m_nRateSince = 0;
    bool m_bScreenshotDue = false;
};

}  // namespace kr7viewer
