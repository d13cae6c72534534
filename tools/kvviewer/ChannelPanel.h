// One capture channel in the viewer: its picture, its state, and Start and Record buttons.
#pragma once

#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <QElapsedTimer>
#include <QWidget>

#include <atomic>
#include <cstdint>
#include <vector>

class GLWidget;
class QLabel;
class QPushButton;

namespace kvpcie::viewer {

struct CaptureFormat {
    int width = 0;
    int height = 0;
    ePixelType pixelType = Y16;
    bool cardTiming = false;
};

class ChannelPanel : public QWidget {
    Q_OBJECT

public:
    ChannelPanel(PCIeDataManager& manager, int channel, const CaptureFormat& format,
                 QWidget* parent = nullptr);
    ~ChannelPanel() override;

    // False, with the reason on the panel, when the card refused.
    bool Start();
    // Returns once the library no longer calls back for this channel.
    void Stop();
    bool IsRunning() const { return running_; }
    std::uint64_t Frames() const { return frames_.load(); }
    int Channel() const { return channel_; }
    GLWidget* Display() const { return display_; }

protected:
    void changeEvent(QEvent* event) override;

private:
    static void OnFrame(int channel, const char* frame, void* context);
    void OnStartToggled(bool on);
    void OnRecordToggled(bool on);
    void ShowState();
    void ShowProblem(const QString& problem);

    PCIeDataManager& manager_;
    const int channel_;
    const CaptureFormat format_;
    GLWidget* display_;
    QLabel* state_;
    QPushButton* startButton_;
    QPushButton* recordButton_;
    bool running_ = false;
    bool recording_ = false;
    QString problem_;
    // Owned here, written by the library's polling thread while running.
    std::vector<char> frame_;
    std::vector<unsigned char> rgba_;
    std::atomic<std::uint64_t> frames_{0};
    std::uint64_t framesAtLastLook_ = 0;
    QElapsedTimer sinceLastLook_;
    double framesPerSecond_ = 0.0;
};

}  // namespace kvpcie::viewer
