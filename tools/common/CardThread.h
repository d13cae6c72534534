// The thread on which the front-ends (the GStreamer plugin, the Python module) make every
// control call of the library (open, start, stop, close, each injected frame) and which runs the
// Qt event loop the library needs on the thread that opened a card: its status timer fires
// there. Their host programs (gst-launch-1.0, python3) have no Qt application object; this
// thread runs without one, as Qt's own service threads do, and pumps its Qt event dispatcher.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>

class QAbstractEventDispatcher;
class QThread;

namespace kvpcie::tools {

class CardThread {
public:
    // The process's card thread. It runs while someone holds it (Hold/Release); no thread is
    // left running once every element has closed its card.
    static CardThread& Instance();

    void Hold();
    void Release();

    // Runs `task` on the card thread and returns once it has run. On the card thread itself the
    // task runs at once. Only between Hold and Release.
    void Run(const std::function<void()>& task);

    CardThread(const CardThread&) = delete;
    CardThread& operator=(const CardThread&) = delete;

private:
    CardThread() = default;
    void Loop();
    void RunPendingTasks();
    void WakeLoop();

    std::mutex holdLock_;  // serialises Hold and Release: thread start and stop
    int holders_ = 0;
    std::atomic<QThread*> thread_{nullptr};

    std::mutex taskLock_;
    std::condition_variable taskDone_;
    std::deque<const std::function<void()>*> tasks_;
    std::uint64_t tasksQueued_ = 0;
    std::uint64_t tasksRun_ = 0;
    bool stopping_ = false;
    bool looping_ = false;         // the loop has its dispatcher and takes tasks
    QAbstractEventDispatcher* dispatcher_ = nullptr;
};

}  // namespace kvpcie::tools
