// The register panel.
#include "RegisterPage.h"

#include <QFormLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QTableWidget>
#include <QTimer>
#include <QVBoxLayout>

#include <limits>

namespace kvpcie::viewer {
namespace {
constexpr int kWatchRefreshMs = 250;

QString Hex(unsigned value) {
    return QStringLiteral("0x") + QStringLiteral("%1").arg(value, 8, 16, QLatin1Char('0')).toUpper();
}
}  // namespace

RegisterPage::RegisterPage(StudioContext& context, QWidget* parent)
    : QWidget(parent),
      context_(context),
      registers_(&context.manager),
      addressEdit_(new QLineEdit(this)),
      valueEdit_(new QLineEdit(this)),
      readButton_(new QPushButton(tr("Read"), this)),
      writeButton_(new QPushButton(tr("Write..."), this)),
      watchButton_(new QPushButton(tr("Watch"), this)),
      unwatchButton_(new QPushButton(tr("Unwatch"), this)),
      result_(new QLabel(this)),
      watches_(new QTableWidget(0, 2, this)) {
    confirm_ = [this](const QString& question) {
        return QMessageBox::question(this, tr("Write a register"), question) == QMessageBox::Yes;
    };
    addressEdit_->setPlaceholderText(QStringLiteral("0x1F1000"));
    valueEdit_->setPlaceholderText(QStringLiteral("0x00000001"));
    watches_->setHorizontalHeaderLabels({tr("register"), tr("value")});
    watches_->horizontalHeader()->setStretchLastSection(true);
    watches_->verticalHeader()->hide();
    watches_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    auto* form = new QFormLayout;
    form->addRow(tr("Address"), addressEdit_);
    form->addRow(tr("Value"), valueEdit_);
    auto* buttons = new QHBoxLayout;
    for (QPushButton* button : {readButton_, writeButton_, watchButton_, unwatchButton_}) {
        buttons->addWidget(button);
    }
    buttons->addStretch(1);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addLayout(buttons);
    layout->addWidget(result_);
    layout->addWidget(watches_, 1);

    const auto address = [this] {
        const auto parsed = ParseNumber(addressEdit_->text());
        if (!parsed) {
            result_->setText(tr("the address is not a 32-bit number"));
        }
        return parsed;
    };
    connect(readButton_, &QPushButton::clicked, this, [this, address] {
        if (const auto a = address()) {
            Read(*a);
        }
    });
    connect(writeButton_, &QPushButton::clicked, this, [this, address] {
        const auto a = address();
        const auto value = ParseNumber(valueEdit_->text());
        if (a && !value) {
            result_->setText(tr("the value is not a 32-bit number"));
        } else if (a) {
            Write(*a, *value);
        }
    });
    connect(watchButton_, &QPushButton::clicked, this, [this, address] {
        if (const auto a = address()) {
            Watch(*a);
        }
    });
    connect(unwatchButton_, &QPushButton::clicked, this, [this, address] {
        if (const auto a = address()) {
            Unwatch(*a);
        }
    });
    auto* timer = new QTimer(this);
    connect(timer, &QTimer::timeout, this, &RegisterPage::RefreshWatches);
    timer->start(kWatchRefreshMs);
}

std::optional<unsigned> RegisterPage::ParseNumber(const QString& text) {
    QString digits = text.trimmed();
    int base = 10;
    if (digits.startsWith(QStringLiteral("0x"), Qt::CaseInsensitive)) {
        digits = digits.mid(2);
        base = 16;
    } else if (digits.endsWith(QLatin1Char('h'), Qt::CaseInsensitive)) {
        digits.chop(1);
        base = 16;
    }
    bool ok = false;
    const qulonglong value = digits.toULongLong(&ok, base);
    if (!ok || digits.isEmpty() || digits.startsWith(QLatin1Char('-')) ||
        digits.startsWith(QLatin1Char('+')) || value > std::numeric_limits<unsigned>::max()) {
        return std::nullopt;
    }
    return static_cast<unsigned>(value);
}

std::optional<unsigned> RegisterPage::Read(unsigned address) {
    const unsigned value = registers_->ReadReg(address);
    if (*registers_->LastErrorText() != '\0') {
        result_->setText(context_.Refused(tr("read register %1").arg(Hex(address))));
        return std::nullopt;
    }
    result_->setText(tr("%1 = %2 (%3)").arg(Hex(address)).arg(Hex(value)).arg(value));
    context_.Did(tr("register %1 reads %2").arg(Hex(address)).arg(Hex(value)));
    return value;
}

bool RegisterPage::Write(unsigned address, unsigned value) {
    if (!confirm_(tr("Write %1 to register %2?").arg(Hex(value)).arg(Hex(address)))) {
        result_->setText(tr("not written"));
        return false;
    }
    const int result = registers_->WriteReg(address, static_cast<int>(value));
    if (*registers_->LastErrorText() != '\0') {
        result_->setText(context_.Refused(tr("write register %1").arg(Hex(address))));
        return false;
    }
    result_->setText(tr("%1 written to %2 (%3)").arg(Hex(value)).arg(Hex(address)).arg(result));
    context_.Did(tr("register %1 written with %2").arg(Hex(address)).arg(Hex(value)));
    return true;
}

int RegisterPage::WatchRow(unsigned address) const {
    for (int row = 0; row < watches_->rowCount(); ++row) {
        if (watches_->item(row, 0)->data(Qt::UserRole).toUInt() == address) {
            return row;
        }
    }
    return -1;
}

void RegisterPage::Watch(unsigned address) {
    if (WatchRow(address) >= 0) {
        return;
    }
    const int row = watches_->rowCount();
    watches_->insertRow(row);
    auto* name = new QTableWidgetItem(Hex(address));
    name->setData(Qt::UserRole, address);
    watches_->setItem(row, 0, name);
    watches_->setItem(row, 1, new QTableWidgetItem);
    context_.Did(tr("watching register %1").arg(Hex(address)));
    RefreshWatches();
}

void RegisterPage::Unwatch(unsigned address) {
    const int row = WatchRow(address);
    if (row >= 0) {
        watches_->removeRow(row);
    }
}

QString RegisterPage::WatchedText(unsigned address) const {
    const int row = WatchRow(address);
    return row < 0 ? QString() : watches_->item(row, 1)->text();
}

void RegisterPage::RefreshWatches() {
    for (int row = 0; row < watches_->rowCount(); ++row) {
        const unsigned address = watches_->item(row, 0)->data(Qt::UserRole).toUInt();
        const unsigned value = registers_->ReadReg(address);
        const bool read = *registers_->LastErrorText() == '\0';
        watches_->item(row, 1)->setText(read ? Hex(value) : tr("not read"));
    }
}

}  // namespace kvpcie::viewer
