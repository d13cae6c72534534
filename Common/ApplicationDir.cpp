// Where the application lives.
#include "ApplicationDir.h"

#include <QCoreApplication>
#include <QDir>

namespace kvpcie {

QString ApplicationDir() {
    if (QCoreApplication::instance() != nullptr) {
        return QCoreApplication::applicationDirPath();
    }
    return QDir::currentPath();
}

}  // namespace kvpcie
