// The status panel.
#include "StatusPage.h"

#include <QCheckBox>
#include <QFile>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>

namespace kvpcie::viewer {
namespace {
// What Save can write: the newest bytes of the channel, so that hours of blocks stay bounded.
constexpr int kMaxKept = 4 << 20;
}  // namespace

StatusPage::StatusPage(StudioContext& context, QWidget* parent)
    : QWidget(parent),
      context_(context),
      listenBox_(new QCheckBox(tr("receive the channel's status blocks"), this)),
      counts_(new QLabel(this)),
      lastBlock_(new QPlainTextEdit(this)),
      saveButton_(new QPushButton(tr("Save to file..."), this)) {
    lastBlock_->setReadOnly(true);
    lastBlock_->setPlaceholderText(tr("the last block, in hex"));
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(listenBox_);
    layout->addWidget(counts_);
    layout->addWidget(lastBlock_, 1);
    auto* row = new QHBoxLayout;
    row->addWidget(saveButton_);
    row->addStretch(1);
    layout->addLayout(row);
    connect(listenBox_, &QCheckBox::toggled, this, [this](bool on) { Listen(channel_, on); });
    connect(saveButton_, &QPushButton::clicked, this, [this] {
        const QString file = QFileDialog::getSaveFileName(this, tr("Save status blocks"),
                                                          QStringLiteral("status.bin"));
        if (!file.isEmpty()) {
            SaveTo(channel_, file);
        }
    });
    Show();
}

StatusPage::~StatusPage() {
    StopAll();
}

void StatusPage::SetChannel(int channel) {
    channel_ = channel;
    Show();
}

bool StatusPage::Listen(int channel, bool on) {
    if (channel < 0 || channel >= 4) {
        return false;
    }
    Received& received = received_[static_cast<std::size_t>(channel)];
    context_.manager.SetSystemStatusCallback(channel, on ? &StatusPage::OnStatus : nullptr, this,
                                             on);
    const QString failure = QString::fromLocal8Bit(context_.manager.LastErrorText());
    if (!failure.isEmpty()) {
        context_.Refused(tr("status channel %1").arg(channel));
        received.listening = false;
        Show();
        return false;
    }
    received.listening = on;
    context_.Did(on ? tr("status channel %1: receiving").arg(channel)
                    : tr("status channel %1: off").arg(channel));
    Show();
    return true;
}

bool StatusPage::IsListening(int channel) const {
    return channel >= 0 && channel < 4 && received_[static_cast<std::size_t>(channel)].listening;
}

std::uint64_t StatusPage::Blocks(int channel) const {
    return channel >= 0 && channel < 4 ? received_[static_cast<std::size_t>(channel)].blocks : 0;
}

std::uint64_t StatusPage::Bytes(int channel) const {
    return channel >= 0 && channel < 4 ? received_[static_cast<std::size_t>(channel)].bytes : 0;
}

QByteArray StatusPage::LastBlock(int channel) const {
    return channel >= 0 && channel < 4 ? received_[static_cast<std::size_t>(channel)].last
                                       : QByteArray();
}

bool StatusPage::SaveTo(int channel, const QString& file) {
    if (channel < 0 || channel >= 4) {
        return false;
    }
    QFile out(file);
    const QByteArray& kept = received_[static_cast<std::size_t>(channel)].kept;
    if (!out.open(QIODevice::WriteOnly) || out.write(kept) != kept.size()) {
        context_.Did(tr("status channel %1: %2 could not be written").arg(channel).arg(file));
        return false;
    }
    context_.Did(tr("status channel %1: %2 bytes saved to %3").arg(channel).arg(kept.size()).arg(file));
    return true;
}

void StatusPage::StopAll() {
    for (int channel = 0; channel < 4; ++channel) {
        if (received_[static_cast<std::size_t>(channel)].listening) {
            context_.manager.SetSystemStatusCallback(channel, nullptr, nullptr, false);
            received_[static_cast<std::size_t>(channel)].listening = false;
        }
    }
}

// On the window's thread: the card was opened there, and its status timer fires there.
void StatusPage::OnStatus(int channel, const QByteArray& data, void* context) {
    auto* page = static_cast<StatusPage*>(context);
    if (channel < 0 || channel >= 4) {
        return;
    }
    Received& received = page->received_[static_cast<std::size_t>(channel)];
    ++received.blocks;
    received.bytes += static_cast<std::uint64_t>(data.size());
    received.last = data;
    received.kept.append(data);
    if (received.kept.size() > kMaxKept) {
        received.kept.remove(0, received.kept.size() - kMaxKept);
    }
    if (channel == page->channel_) {
        page->Show();
    }
}

void StatusPage::Show() {
    const Received& received = received_[static_cast<std::size_t>(channel_)];
    const QSignalBlocker blocker(listenBox_);
    listenBox_->setChecked(received.listening);
    counts_->setText(tr("status channel %1: %2 blocks, %3 bytes")
                         .arg(channel_)
                         .arg(received.blocks)
                         .arg(received.bytes));
    lastBlock_->setPlainText(QString::fromLatin1(received.last.toHex(' ')));
    saveButton_->setEnabled(!received.kept.isEmpty());
}

}  // namespace kvpcie::viewer
