// Feeds one inject channel from the window's thread: a moving test pattern or a raw recording,
// at a chosen frame rate, looped or played once.
#pragma once

#include "RawFrameFile.h"
#include "StudioContext.h"

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <QObject>
#include <QString>
#include <QTimer>

#include <cstdint>
#include <vector>

namespace kvpcie::viewer {

struct InjectSource {
    QString rawFile;  // empty: the moving pattern
    int width = 640;
    int height = 512;
    ePixelType pixelType = Y16;
    int frameRate = 25;
    bool loop = true;
};

class InjectFeeder : public QObject {
    Q_OBJECT

public:
    InjectFeeder(StudioContext& context, int channel, QObject* parent = nullptr);
    ~InjectFeeder() override { Stop(); }

    // False, logged, when the source or the card refused.
    bool Start(const InjectSource& source);
    // Stops the channel; frames still queued are dropped.
    void Stop();
    bool IsRunning() const { return running_; }
    const InjectSource& Source() const { return source_; }
    std::uint64_t FramesOffered() const { return offered_; }
    std::uint32_t RunTag() const { return run_; }
    // Why the last Start was refused; empty after one that started.
    QString Problem() const { return problem_; }

signals:
    void stopped(int channel);

private:
    void Feed();
    bool NextFrame();
    void FinishWhenPlayed();

    StudioContext& context_;
    const int channel_;
    QTimer timer_;
    InjectSource source_;
    tools::RawFrameFile raw_;
    std::vector<char> frame_;
    QString problem_;
    std::uint32_t run_ = 0;
    std::uint32_t number_ = 0;
    std::uint64_t offered_ = 0;
    bool running_ = false;
    bool lastQueued_ = false;  // played once: every frame of the recording is queued
    int periodsAfterLast_ = 0;
};

}  // namespace kvpcie::viewer
