// The command panel.
#include "CommandPage.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
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

bool CommandPage::ParseHex(const QString& text, QByteArray& bytes) {
    QString digits = text;
    digits.remove(QLatin1Char(' ')).remove(QLatin1Char(',')).remove(QLatin1Char('\t'));
    if (digits.startsWith(QStringLiteral("0x"), Qt::CaseInsensitive)) {
        digits = digits.mid(2);
    }
    if (digits.isEmpty() || digits.size() % 2 != 0) {
        return false;
    }
    for (const QChar c : digits) {
        if (!c.isDigit() && !(c.toLower() >= QLatin1Char('a') && c.toLower() <= QLatin1Char('f'))) {
            return false;
        }
    }
    bytes = QByteArray::fromHex(digits.toLatin1());
    return true;
}

bool CommandPage::Send(const QString& hex) {
    QByteArray command;
    if (!ParseHex(hex, command)) {
        result_->setText(tr("not hex bytes: %1").arg(hex));
        context_.Did(tr("command channel %1: \"%2\" is not hex bytes").arg(channel_).arg(hex));
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
