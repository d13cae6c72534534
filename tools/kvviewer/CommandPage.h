// The command panel: control commands as hex bytes to a channel's mailbox, with a history and
// the channel's sent / not sent in time counts.
#pragma once

#include "StudioContext.h"

#include <QByteArray>
#include <QWidget>

class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;

namespace kvpcie::viewer {

class CommandPage : public QWidget {
    Q_OBJECT

public:
    explicit CommandPage(StudioContext& context, QWidget* parent = nullptr);
    void SetChannel(int channel);
    // Sends the bytes written as hex ("01 02 0a", "01020A"); false when they are not hex or the
    // card did not take them in time (both logged).
    bool Send(const QString& hex);
    QStringList History() const;
    QString StatisticsText() const;

    // "01 02 0a" -> bytes: hex digits in items apart by spaces or commas, two per byte, "0x"
    // allowed before the first. Empty when they are, otherwise what is wrong, naming the item.
    static QString ParseHex(const QString& text, QByteArray& bytes);

private:
    void Refresh();
    // At most 40 characters of what the user typed, for the messages.
    static QString Shortened(const QString& text);

    StudioContext& context_;
    int channel_ = 0;
    QLineEdit* bytesEdit_;
    QPushButton* sendButton_;
    QListWidget* history_;
    QLabel* result_;
    QLabel* statistics_;
};

}  // namespace kvpcie::viewer
