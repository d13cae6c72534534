// The viewer's window: four capture channels in a 2 x 2 grid on the first XDMA card.
#pragma once

#include "ChannelPanel.h"
#include "ViewerOptions.h"

#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <QImage>
#include <QWidget>

#include <array>

class QLabel;

namespace kvpcie::viewer {

class ViewerWindow : public QWidget {
    Q_OBJECT

public:
    explicit ViewerWindow(const ViewerOptions& options, QWidget* parent = nullptr);
    ~ViewerWindow() override;

    // Starts the chosen channels; false when one did not start.
    bool StartChosenChannels();
    // The window as on screen, the pictures of the channels included.
    QImage Screenshot();
    // Stops every channel and closes the card. Safe to call again.
    void Shutdown();
    // False when a screenshot was asked for and could not be saved.
    bool ScreenshotSaved() const { return screenshotSaved_; }

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    bool OpenChosenCard(QString& cardName);

    const ViewerOptions options_;
    PCIeDataManager manager_;
    std::array<ChannelPanel*, 4> panels_ = {};
    QLabel* banner_;
    bool cardOpen_ = false;
    bool shutDown_ = false;
    bool screenshotSaved_ = true;
};

}  // namespace kvpcie::viewer
