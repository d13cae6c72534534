// The process's record root.
#include <KvPCIeInjectSdk/KvPCIeRecording.h>

#include "ApplicationDir.h"

#include <QDir>

#include <mutex>

namespace KvPCIe {
namespace {

std::mutex rootLock;
QString chosenRoot;  // empty: the default below the program

}  // namespace

void SetRecordRoot(const QString& folder) {
    const QString root =
        folder.isEmpty() ? QString() : QDir::cleanPath(QDir(folder).absolutePath());
    std::lock_guard<std::mutex> lock(rootLock);
    chosenRoot = root;
}

QString RecordRoot() {
    {
        std::lock_guard<std::mutex> lock(rootLock);
        if (!chosenRoot.isEmpty()) {
            return chosenRoot;
        }
    }
    return kvpcie::ApplicationDir() + "/VideoRecord";
}

}  // namespace KvPCIe
