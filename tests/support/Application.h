// The process's one application object, for suites whose engines need a Qt event loop on the
// test's thread. Made at the first call and kept until the process ends.
#pragma once

#include <QCoreApplication>

namespace kvpcie::testing {

inline QCoreApplication& Application() {
    static int argc = 1;
    static char name[] = "kvpcie_test";
    static char* argv[] = {name, nullptr};
    static QCoreApplication application(argc, argv);
    return application;
}

}  // namespace kvpcie::testing
