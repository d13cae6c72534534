// Standard output set aside for the JSON document.
#include "JsonOutput.h"

#include <QJsonDocument>

#include <cstdio>

#ifdef _WIN32
#include <io.h>
#define KVPCIE_DUP _dup
#define KVPCIE_DUP2 _dup2
#define KVPCIE_CLOSE _close
#else
#include <unistd.h>
#define KVPCIE_DUP dup
#define KVPCIE_DUP2 dup2
#define KVPCIE_CLOSE close
#endif

namespace kvpcie::cli {

JsonOutput::JsonOutput(bool on) {
    if (!on) {
        return;
    }
    std::fflush(stdout);
    savedStdout_ = KVPCIE_DUP(1);
    if (savedStdout_ >= 0) {
        KVPCIE_DUP2(2, 1);
    }
}

JsonOutput::~JsonOutput() {
    Restore();
}

void JsonOutput::Restore() {
    if (savedStdout_ < 0) {
        return;
    }
    std::fflush(stdout);
    KVPCIE_DUP2(savedStdout_, 1);
    KVPCIE_CLOSE(savedStdout_);
    savedStdout_ = -1;
}

void JsonOutput::Print(const QJsonObject& document) {
    Restore();
    const QByteArray text = QJsonDocument(document).toJson(QJsonDocument::Indented);
    std::fwrite(text.constData(), 1, static_cast<std::size_t>(text.size()), stdout);
    std::fflush(stdout);
}

}  // namespace kvpcie::cli
