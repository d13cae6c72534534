// The status panel: the status blocks that the card posts for a channel as they arrive, their
// count and bytes, the last one in hex, and everything received saved to a file.
#pragma once

#include "StudioContext.h"

#include <QByteArray>
#include <QWidget>

#include <array>
#include <cstdint>

class QCheckBox;
class QLabel;
class QPlainTextEdit;
class QPushButton;

namespace kvpcie::viewer {

class StatusPage : public QWidget {
    Q_OBJECT

public:
    explicit StatusPage(StudioContext& context, QWidget* parent = nullptr);
    ~StatusPage() override;

    void SetChannel(int channel);
    // Switches the channel's status blocks on or off; false (logged) when refused.
    bool Listen(int channel, bool on);
    bool IsListening(int channel) const;
    std::uint64_t Blocks(int channel) const;
    std::uint64_t Bytes(int channel) const;
    QByteArray LastBlock(int channel) const;
    bool SaveTo(int channel, const QString& file);
    // Every channel off; before the card closes.
    void StopAll();

private:
    struct Received {
        bool listening = false;
        std::uint64_t blocks = 0;
        std::uint64_t bytes = 0;
        QByteArray last;
        QByteArray kept;  // for Save, the newest kMaxKept bytes
    };
    static void OnStatus(int channel, const QByteArray& data, void* context);
    void Show();

    StudioContext& context_;
    int channel_ = 0;
    std::array<Received, 4> received_{};
    QCheckBox* listenBox_;
    QLabel* counts_;
    QPlainTextEdit* lastBlock_;
    QPushButton* saveButton_;
};

}  // namespace kvpcie::viewer
