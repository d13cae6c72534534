// The viewer's window.
#include "ViewerWindow.h"

#include <KvPCIeInjectSdk/GLWidget.h>

#include <QCloseEvent>
#include <QGridLayout>
#include <QLabel>
#include <QPainter>
#include <QVBoxLayout>

#include <cstdio>
#include <cstdlib>

namespace kvpcie::viewer {

ViewerWindow::ViewerWindow(const ViewerOptions& options, QWidget* parent)
    : QWidget(parent), options_(options), manager_(XDMA_MM), banner_(new QLabel(this)) {
    CaptureFormat format;
    format.width = options.width;
    format.height = options.height;
    format.pixelType = options.pixelType;
    format.cardTiming = options.cardTiming;

    auto* grid = new QGridLayout;
    grid->setSpacing(4);
    for (int channel = 0; channel < 4; ++channel) {
        auto* panel = new ChannelPanel(manager_, channel, format, this);
        panel->setEnabled(options.channels[static_cast<std::size_t>(channel)]);
        grid->addWidget(panel, channel / 2, channel % 2);
        panels_[static_cast<std::size_t>(channel)] = panel;
    }
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(4, 4, 4, 4);
    layout->addWidget(banner_);
    layout->addLayout(grid, 1);

    QString cardName;
    cardOpen_ = OpenChosenCard(cardName);
    if (cardOpen_) {
        banner_->hide();
        setWindowTitle(tr("kvviewer - %1").arg(cardName));
    } else {
        banner_->setText(tr("No XDMA card could be opened (use --sim for the simulated card)."));
        setWindowTitle(tr("kvviewer - no card"));
        std::fprintf(stderr, "kvviewer: %s\n", qPrintable(banner_->text()));
    }
}

ViewerWindow::~ViewerWindow() {
    Shutdown();
}

bool ViewerWindow::OpenChosenCard(QString& cardName) {
    char* paths[4] = {};
    const int count = manager_.GetDevices(paths);
    const int chosen = options_.card;
    const bool opened = chosen < count && manager_.OpenCard(paths[chosen]);
    if (opened) {
        cardName = QString::fromLocal8Bit(paths[chosen]);
    }
    for (char* path : paths) {
        std::free(path);  // GetDevices hands the buffers over
    }
    return opened;
}

bool ViewerWindow::StartChosenChannels() {
    bool allStarted = true;
    for (ChannelPanel* panel : panels_) {
        if (panel->isEnabled() && !panel->Start()) {
            allStarted = false;
        }
    }
    return allStarted;
}

QImage ViewerWindow::Screenshot() {
    QImage shot = grab().toImage().convertToFormat(QImage::Format_RGB32);
    // A window grab may leave the OpenGL areas black, so their own framebuffers go over them.
    QPainter painter(&shot);
    for (ChannelPanel* panel : panels_) {
        GLWidget* display = panel->Display();
        const QRect area(display->mapTo(this, QPoint(0, 0)), display->size());
        painter.drawImage(area, display->grabFramebuffer());
    }
    return shot;
}

void ViewerWindow::Shutdown() {
    if (shutDown_) {
        return;
    }
    shutDown_ = true;
    for (ChannelPanel* panel : panels_) {
        if (panel->IsRunning()) {
            panel->Stop();
            std::printf("kvviewer: channel %d: %llu frames\n", panel->Channel(),
                        static_cast<unsigned long long>(panel->Frames()));
        }
    }
    std::fflush(stdout);
    // The engines' threads end here, before the widgets they fed go away.
    manager_.CloseCard();
}

void ViewerWindow::closeEvent(QCloseEvent* event) {
    if (!options_.screenshot.empty() && !shutDown_) {
        const QString file = QString::fromStdString(options_.screenshot);
        screenshotSaved_ = Screenshot().save(file);
        if (!screenshotSaved_) {
            std::fprintf(stderr, "kvviewer: could not save the screenshot %s\n", qPrintable(file));
        }
    }
    Shutdown();
    event->accept();
}

}  // namespace kvpcie::viewer
