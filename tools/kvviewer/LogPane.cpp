// The window's log.
#include "LogPane.h"

#include <QTime>

namespace kvpcie::viewer {
namespace {
// Old lines go, so that a long session does not grow the log without bound.
constexpr int kMaxLines = 5000;
}  // namespace

LogPane::LogPane(QWidget* parent) : QPlainTextEdit(parent) {
    setReadOnly(true);
    setMaximumBlockCount(kMaxLines);
    setPlaceholderText(tr("What the window does, and every refusal with the library's reason"));
}

void LogPane::Add(const QString& line) {
    appendPlainText(QTime::currentTime().toString(QStringLiteral("hh:mm:ss.zzz ")) + line);
}

QStringList LogPane::Lines() const {
    return toPlainText().split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

}  // namespace kvpcie::viewer
