// The window's log: what it did and every refusal, with the time.
#pragma once

#include <QPlainTextEdit>

namespace kvpcie::viewer {

class LogPane : public QPlainTextEdit {
    Q_OBJECT

public:
    explicit LogPane(QWidget* parent = nullptr);
    void Add(const QString& line);
    // The text of every line, oldest first.
    QStringList Lines() const;
};

}  // namespace kvpcie::viewer
