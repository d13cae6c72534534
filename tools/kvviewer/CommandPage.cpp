// The command panel.
#include "CommandPage.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QRegularExpression>
#include <QSizePolicy>
#include <QTimer>
#include <QVBoxLayout>

namespace kvpcie::viewer {
namespace {
constexpr int kRefreshMs = 500;
constexpr int kHistoryLength = 50;
}  // namespace

CommandPage::CommandPage(StudioContext& context, QWidget* parent)
    : QWidget(parent),
      context_(context),
      bytesEdit_(new QLineEdit(this)),
      sendButton_(new QPushButton(tr("Send"), this)),
      history_(new QListWidget(this)),
      result_(new QLabel(this)),
      statistics_(new QLabel(this)) {
    bytesEdit_->setPlaceholderText(tr("hex bytes, e.g. 55 aa 01 00"));
    // A long answer wraps or is cut; it never widens the window.
    result_->setWordWrap(true);
    result_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    statistics_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    history_->setToolTip(tr("double-click a command to send it again"));
    auto* row = new QHBoxLayout;
    row->addWidget(bytesEdit_, 1);
    row->addWidget(sendButton_);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(row);
    layout->addWidget(result_);
    layout->addWidget(history_, 1);
    layout->addWidget(statistics_);
    connect(sendButton_, &QPushButton::clicked, this, [this] { Send(bytesEdit_->text()); });
    connect(bytesEdit_, &QLineEdit::returnPressed, this, [this] { Send(bytesEdit_->text()); });
    connect(history_, &QListWidget::itemDoubleClicked, this,
            [this](QListWidgetItem* item) { Send(item->text()); });
    auto* timer = new QTimer(this);
    connect(timer, &QTimer::timeout, this, &CommandPage::Refresh);
    timer->start(kRefreshMs);
    Refresh();
}

void CommandPage::SetChannel(int channel) {
    channel_ = channel;
    Refresh();
}

QString CommandPage::ParseHex(const QString& text, QByteArray& bytes) {
    static const QRegularExpression separators(QStringLiteral("[\\s,]+"));
    static const QRegularExpression hexDigits(QStringLiteral("^[0-9A-Fa-f]+$"));
    QStringList items = text.split(separators, Qt::SkipEmptyParts);
    if (items.isEmpty()) {
        return tr("no bytes");
    }
    if (items.front().startsWith(QStringLiteral("0x"), Qt::CaseInsensitive)) {
        items.front().remove(0, 2);
    }
    QString digits;
    for (int k = 0; k < items.size(); ++k) {
        if (!items[k].isEmpty() && !hexDigits.match(items[k]).hasMatch()) {
            return tr("item %1, \"%2\", is not hex").arg(k + 1).arg(Shortened(items[k]));
        }
        digits += items[k];
    }
    if (digits.isEmpty() || digits.size() % 2 != 0) {
        return digits.size() == 1 ? tr("1 hex digit: a byte takes two")
                                  : tr("%1 hex digits: a byte takes two").arg(digits.size());
    }
    bytes = QByteArray::fromHex(digits.toLatin1());
    return {};
}

QString CommandPage::Shortened(const QString& text) {
    constexpr int kShown = 40;
    return text.size() <= kShown ? text : text.left(kShown) + QStringLiteral("...");
}

bool CommandPage::Send(const QString& hex) {
    QByteArray command;
    const QString problem = ParseHex(hex, command);
    if (!problem.isEmpty()) {
        result_->setText(tr("not hex bytes: %1").arg(problem));
        context_.Did(tr("command channel %1: \"%2\" is not hex bytes: %3")
                         .arg(channel_)
                         .arg(Shortened(hex))
                         .arg(problem));
        return false;
    }
    const QString spelled = QString::fromLatin1(command.toHex(' '));
    const bool sent = context_.manager.WriteControlCmd(channel_, command);
    if (sent) {
        result_->setText(tr("sent %1 bytes").arg(command.size()));
        context_.Did(tr("command channel %1: sent %2").arg(channel_).arg(spelled));
    } else {
        result_->setText(context_.Refused(tr("command channel %1: %2").arg(channel_).arg(spelled)));
    }
    const auto same = history_->findItems(spelled, Qt::MatchExactly);
    for (QListWidgetItem* item : same) {
        delete history_->takeItem(history_->row(item));
    }
    history_->insertItem(0, spelled);
    while (history_->count() > kHistoryLength) {
        delete history_->takeItem(history_->count() - 1);
    }
    Refresh();
    return sent;
}

QStringList CommandPage::History() const {
    QStringList lines;
    for (int row = 0; row < history_->count(); ++row) {
        lines << history_->item(row)->text();
    }
    return lines;
}

QString CommandPage::StatisticsText() const {
    return statistics_->text();
}

void CommandPage::Refresh() {
    KvInjectStatistics stats;
    if (!context_.manager.GetInjectStatistics(channel_, stats)) {
        statistics_->setText(tr("command channel %1: no card open").arg(channel_));
        return;
    }
    statistics_->setText(tr("command channel %1: sent %2   not sent in time %3   replaced %4")
                             .arg(channel_)
                             .arg(stats.commandsSent)
                             .arg(stats.commandsNotSentInTime)
                             .arg(stats.commandsReplaced));
}

}  // namespace kvpcie::viewer
