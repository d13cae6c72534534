// The directory below which the library keeps its logs and recordings.
#pragma once

#include <QString>

namespace kvpcie {

// QCoreApplication::applicationDirPath(); the current directory when the host has no
// application object yet (Qt would answer with an empty path, which puts "/Log" at the root).
QString ApplicationDir();

}  // namespace kvpcie
