// The viewer's window, the bench's one window: a card picker, four capture channels, and for
// the current channel the inspector, inject, command, status and register panels, with a log.
#pragma once

#include "CapturePanel.h"
#include "CardPicker.h"
#include "CommandPage.h"
#include "InjectPage.h"
#include "InspectPage.h"
#include "LogPane.h"
#include "RegisterPage.h"
#include "StatusPage.h"
#include "StudioContext.h"
#include "ViewerOptions.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <QImage>
#include <QMainWindow>

#include <array>

class QComboBox;
class QLabel;
class QTabWidget;

namespace kvpcie::viewer {

class StudioWindow : public QMainWindow {
    Q_OBJECT

public:
    explicit StudioWindow(const ViewerOptions& options, QWidget* parent = nullptr);
    ~StudioWindow() override;

    // Opens the card the picker shows; false (logged) when it did not open.
    bool OpenChosenCard();
    bool IsCardOpen() const { return cardOpen_; }
    // Starts the channels that the command line chose; false when one did not start.
    bool StartChosenChannels();
    // The simulated card's tour: channel 0 live, a pattern injected into channel 1 and seen
    // there through the card's loopback. False (logged) on another card.
    bool StartDemo();
    // Shows the channel panel of that name (inspect, inject, command, status, registers).
    void ShowTab(const QString& name);
    void SetCurrentChannel(int channel);
    int CurrentChannel() const { return current_; }
    // Recordings (folder/Capture<N>/<take>/) and snapshots go below `folder` from the next take
    // on; empty: the library's default beside the program. Logged, and kept for the next start.
    void SetOutputFolder(const QString& folder);
    // The line over each picture with frames per second, frames lost and MB/s (Ctrl+I).
    void SetOverlayShown(bool shown);
    bool OverlayShown() const { return overlayShown_; }

    // The four pictures as on screen, channel n in quarter n.
    QImage PicturesShot();
    // The whole window as on screen.
    QImage WindowShot();
    // Stops every channel and closes the card. Safe to call again.
    void Shutdown();
    // False when a screenshot was asked for and could not be saved.
    bool ScreenshotSaved() const { return screenshotSaved_; }

    CardPicker* Picker() const { return picker_; }
    CapturePanel* Capture(int channel) const { return panels_[static_cast<std::size_t>(channel)]; }
    InspectPage* Inspect() const { return inspect_; }
    InjectPage* Inject() const { return inject_; }
    CommandPage* Commands() const { return commands_; }
    StatusPage* Status() const { return status_; }
    RegisterPage* Registers() const { return registers_; }
    LogPane* Log() const { return log_; }
    PCIeDataManager& Manager() { return manager_; }

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    // The library's card-lost callback, on this window's thread from its event loop.
    static void OnCardLost(const char* devicePath, void* context);
    void ShowCardLost(const QString& path);
    void BuildActions();
    void RestoreSettings();
    // Empty when the open card gives frames; otherwise why not, on every Start and Play.
    void ShowNoFramesReason(const QString& reason);
    // Moves and shrinks the window into the screen it is on.
    void KeepOnScreen();
    void SaveSettings();
    bool SaveShot(const std::string& file, const QImage& image);

    const ViewerOptions options_;
    PCIeDataManager manager_;
    PCIeDataManager riffaManager_;
    LogPane* log_;
    StudioContext context_;
    CardPicker* picker_;
    QLabel* banner_;
    QWidget* pictures_;
    std::array<CapturePanel*, 4> panels_ = {};
    QComboBox* channelBox_;
    QTabWidget* tabs_;
    InspectPage* inspect_;
    InjectPage* inject_;
    CommandPage* commands_;
    StatusPage* status_;
    RegisterPage* registers_;
    int current_ = 0;
    bool cardOpen_ = false;
    bool outputChosen_ = false;
    bool overlayShown_ = true;  // by --output, the folder chooser or the kept setting
    bool shutDown_ = false;
    bool screenshotSaved_ = true;
};

}  // namespace kvpcie::viewer
