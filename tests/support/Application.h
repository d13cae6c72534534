// The process's one application object, for suites that need a Qt event loop.
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
