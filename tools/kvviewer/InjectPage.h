// The inject panel: a moving pattern or a raw recording played into a channel at a chosen
// frame rate, once or looped, with the channel's inject statistics.
#pragma once

#include "InjectFeeder.h"
#include "StudioContext.h"

#include <QWidget>

#include <array>

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QSpinBox;

namespace kvpcie::viewer {

class InjectPage : public QWidget {
    Q_OBJECT

public:
    explicit InjectPage(StudioContext& context, QWidget* parent = nullptr);

    void SetChannel(int channel);
    int Channel() const { return channel_; }
    // What the controls say now.
    InjectSource ChosenSource() const;
    void ChooseSource(const InjectSource& source);
    // Plays the chosen source into the current channel; false when refused (logged).
    bool Play();
    void StopChannel(int channel);
    void StopAll();
    bool IsPlaying(int channel) const;
    // The run tag in the channel's test frames (the moving pattern).
    std::uint32_t RunTag(int channel) const;
    QString StatisticsText() const;
    // As CapturePanel::SetNoFramesReason: Play is disabled, with the reason as its tip.
    void SetNoFramesReason(const QString& reason);
    bool CanPlay() const;

private:
    void Refresh();
    // The last refusal of the channel's start, on a line of its own; empty when none.
    QString Problem() const;
    // The card's own counts of the channel on a card that keeps them; empty on another.
    QString CardCounts();
    void SyncControls();
    void OnBrowse();

    StudioContext& context_;
    int channel_ = 0;
    std::array<InjectFeeder*, 4> feeders_{};
    QComboBox* sourceBox_;
    QLineEdit* fileEdit_;
    QPushButton* browseButton_;
    QComboBox* typeBox_;
    QSpinBox* widthBox_;
    QSpinBox* heightBox_;
    QSpinBox* rateBox_;
    QCheckBox* loopBox_;
    QPushButton* playButton_;
    QPushButton* stopButton_;
    QLabel* statistics_;
    QString noFramesReason_;
};

}  // namespace kvpcie::viewer
