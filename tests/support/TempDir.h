// A scratch directory for a test, removed afterwards; optionally the current directory meanwhile.
#pragma once

#include <QDir>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace kvpcie::testing {

class ScratchDir {
public:
    explicit ScratchDir(bool enter = false) : previous_(QDir::currentPath()), enter_(enter) {
        EXPECT_TRUE(dir_.isValid());
        if (enter_) {
            QDir::setCurrent(dir_.path());
        }
    }
    ~ScratchDir() {
        if (enter_) {
            QDir::setCurrent(previous_);
        }
    }
    QString path() const { return dir_.path(); }

private:
    QTemporaryDir dir_;
    QString previous_;
    bool enter_;
};

}  // namespace kvpcie::testing
