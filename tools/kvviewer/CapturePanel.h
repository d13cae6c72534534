// One capture channel in the viewer: its format chosen at run time, Start/Stop, Record and
// Snapshot, its picture (zoomable) and a line with its state.
#pragma once

#include "FrameTap.h"
#include "PixelConversion.h"
#include "StudioContext.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <QString>
#include <QWidget>

#include <atomic>
#include <cstdint>
#include <vector>

class GLWidget;
class QCheckBox;
class QComboBox;
class QLabel;
class QPushButton;
class QSpinBox;

namespace kvpcie::viewer {

class ZoomView;

struct CaptureFormat {
    int width = 640;
    int height = 512;
    ePixelType pixelType = Y16;
    bool cardTiming = false;
};

class CapturePanel : public QWidget {
    Q_OBJECT

public:
    CapturePanel(StudioContext& context, int channel, const CaptureFormat& format,
                 QWidget* parent = nullptr);
    ~CapturePanel() override;

    // False, with the reason on the panel and in the log, when the card refused.
    bool Start();
    // Returns once the library no longer calls back for this channel.
    void Stop();
    bool IsRunning() const { return running_; }
    // Takes the format; a running channel is started again with it. False when that failed.
    bool SetFormat(const CaptureFormat& format);
    CaptureFormat Format() const { return format_; }

    bool StartRecording();
    void StopRecording();
    bool IsRecording() const { return recording_; }
    // The take's folder while recording (empty before the first take).
    QString TakeFolder() const { return takeFolder_; }
    // Saves the latest frame as a PNG; false (logged) when there is none or it cannot be saved.
    bool SaveSnapshot(const QString& file);
    // Saves it as snapshot_ch<N>_<number>.png in the output folder, numbered on from the
    // highest number there, so no snapshot is overwritten. The file, or empty when none saved.
    QString SaveNumberedSnapshot();

    // The latest analysis copy of a frame in the format it came in; false when none came yet.
    bool LatestFrame(std::vector<char>& frame, CaptureFormat& format);
    // Asks for a new analysis copy; TakeNewFrame hands it over once it came.
    void AskForFrame() { tap_.Ask(); }
    bool TakeNewFrame(std::vector<char>& frame) { return tap_.TakeNew(frame); }

    std::uint64_t Frames() const { return frames_.load(); }
    // The memory the panel holds for its frames, in bytes.
    std::size_t HeldFrameBytes() const { return frame_.capacity() + rgba_.capacity(); }
    int Channel() const { return channel_; }
    ZoomView* View() const { return view_; }
    GLWidget* Display() const;
    void SetCurrent(bool current);
    // Empty: the card gives frames. Otherwise why it does not (a RIFFA device serves registers
    // only): Start is disabled, with the reason as its tip.
    void SetNoFramesReason(const QString& reason);
    bool CanStart() const;
    // The panel's status line.
    QString StateText() const;
    // How a Y16 picture is shown; from the next frame on. From the window's thread.
    void SetY16Window(const tools::Y16Window& window);
    tools::Y16Window Y16WindowShown() const;
    // A line over the picture with frames per second, frames lost and MB/s.
    void SetOverlayShown(bool shown);
    bool OverlayShown() const;
    QString OverlayText() const;
    QWidget* OverlayWidget() const;

signals:
    void selected(int channel);
    void pixelHovered(int channel, int x, int y);

protected:
    void changeEvent(QEvent* event) override;

private:
    static void OnFrame(int channel, const char* frame, void* context);
    void OnApplyClicked();
    void OnStartToggled(bool on);
    void OnRecordToggled(bool on);
    void OnSnapshotClicked();
    void ShowFormat();
    // Whether the library takes `format` on this channel; if not, the panel and the log say why.
    bool FormatAcceptable(const CaptureFormat& format);
    // Gives back the memory sized for the last format.
    void ReleaseFrames();
    CaptureFormat ChosenFormat() const;
    void ShowState();
    void ShowProblem(const QString& problem);
    void SyncButtons();

    StudioContext& context_;
    const int channel_;
    CaptureFormat format_;
    ZoomView* view_;
    QLabel* state_;
    QComboBox* typeBox_;
    QSpinBox* widthBox_;
    QSpinBox* heightBox_;
    QCheckBox* cardTimingBox_;
    QPushButton* applyButton_;
    QPushButton* startButton_;
    QPushButton* recordButton_;
    QPushButton* snapshotButton_;
    QString noFramesReason_;
    bool running_ = false;
    bool recording_ = false;
    QString takeFolder_;
    QString problem_;
    // Owned here, written by the library's polling thread while running.
    std::vector<char> frame_;
    std::vector<unsigned char> rgba_;
    FrameTap tap_;
    std::atomic<std::uint64_t> frames_{0};
    // The Y16 window in one word, so the polling thread never reads half of a change: bit 40
    // automatic, bits 16-31 low, bits 0-15 high.
    std::atomic<std::uint64_t> y16Window_{std::uint64_t{1} << 40 | 0xFFFF};
    QLabel* overlay_;
};

}  // namespace kvpcie::viewer
