// The process's card thread: a Qt thread that runs the control calls of the front-ends' cards
// and the Qt event loop their status timers need, in a process that may have no QCoreApplication.
#include <KvPCIeInjectSdk/KvPCIeSharedCard.h>

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QEvent>
#include <QEventLoop>
#include <QThread>
#include <QtCore/private/qthread_p.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>

namespace KvPCIe {
namespace {

// Without a QCoreApplication in the process, Qt drops every event sent to an object of a thread
// that requires one, timers included: the library's status timer would never fire. Qt's own
// threads that serve without an application (the D-Bus connection's) are QDaemonThreads, which
// do not require one.
class ServiceThread : public QDaemonThread {
public:
    explicit ServiceThread(std::function<void()> body) : body_(std::move(body)) {}

protected:
    void run() override { body_(); }

private:
    std::function<void()> body_;
};

thread_local bool onCardThread = false;

QEvent::Type WakeEventType() {
    static const auto type = static_cast<QEvent::Type>(QEvent::registerEventType());
    return type;
}

// On Windows, wakes the loop with a posted event rather than the dispatcher's wakeUp: Windows'
// dispatcher sends no wake while it counts one as pending, and counts the last one consumed only
// when its next processEvents begins, so a wake in between was lost and the thread slept through
// a task or its own stop (a close under Wine waited for ever). A posted event is delivered by
// that next processEvents whatever the count, and interrupting then keeps it from waiting.
// Elsewhere the dispatcher's wakeUp is latched (an eventfd or a pipe) and costs no allocation.
class LoopWaker : public QObject {
public:
    bool event(QEvent* event) override;
};

class CardThreadState {
public:
    void Hold();
    void Release();
    void Run(const std::function<void()>& task);
    void Post(std::function<void()> task);

private:
    void Loop();
    void RunPendingTasks();
    void WakeLoop();

    std::mutex holdLock_;  // serialises Hold and Release: thread start and stop
    int holders_ = 0;
    QThread* thread_ = nullptr;  // under holdLock_; may be a thread retiring on its own

    std::mutex taskLock_;
    std::condition_variable taskDone_;
    std::deque<std::function<void()>> tasks_;
    std::uint64_t tasksQueued_ = 0;
    std::uint64_t tasksRun_ = 0;
    bool stopping_ = false;
    bool looping_ = false;  // the loop has its dispatcher and takes tasks
    LoopWaker* waker_ = nullptr;  // under taskLock_, while the loop runs
    QAbstractEventDispatcher* dispatcher_ = nullptr;  // the loop's, under taskLock_ likewise
    std::atomic<bool> wakePosted_{false};

    friend class LoopWaker;
};

CardThreadState& State() {
    // Never destroyed: front-ends may still let go of it from their threads while the process's
    // static objects go.
    static auto* const state = new CardThreadState;
    return *state;
}

bool LoopWaker::event(QEvent* event) {
    if (event->type() != WakeEventType()) {
        return QObject::event(event);
    }
    // Cleared before the tasks are looked at: a task queued from now on posts a new wake.
    State().wakePosted_.store(false);
    QAbstractEventDispatcher::instance()->interrupt();
    return true;
}

void CardThreadState::Hold() {
    std::lock_guard<std::mutex> hold(holdLock_);
    if (holders_++ > 0) {
        return;
    }
    if (thread_ != nullptr) {
        {
            // The last holder let go on the card thread itself; while its loop still runs, the
            // thread simply stays.
            std::lock_guard<std::mutex> lock(taskLock_);
            if (looping_) {
                stopping_ = false;
                return;
            }
        }
        thread_->wait();
        delete thread_;
        thread_ = nullptr;
    }
    {
        std::lock_guard<std::mutex> lock(taskLock_);
        stopping_ = false;
        looping_ = false;
    }
    // A QThread, not a std::thread: Qt gives a QThread an event dispatcher of its own whether
    // or not the process has a QCoreApplication, and the library's timers need one.
    thread_ = new ServiceThread([this] { Loop(); });
    thread_->setObjectName(QStringLiteral("kvpcie-card"));
    thread_->start();
    std::unique_lock<std::mutex> lock(taskLock_);
    taskDone_.wait(lock, [this] { return looping_; });
}

void CardThreadState::Release() {
    std::lock_guard<std::mutex> hold(holdLock_);
    if (holders_ == 0 || --holders_ > 0) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(taskLock_);
        stopping_ = true;
    }
    WakeLoop();
    if (onCardThread) {
        // A thread cannot wait for its own end: it leaves its loop once the running task or
        // callback returns, and the next Hold reaps it.
        return;
    }
    thread_->wait();
    delete thread_;
    thread_ = nullptr;
}

void CardThreadState::Run(const std::function<void()>& task) {
    if (onCardThread) {
        task();
        return;
    }
    std::unique_lock<std::mutex> lock(taskLock_);
    tasks_.emplace_back([&task] { task(); });
    const std::uint64_t ticket = ++tasksQueued_;
    lock.unlock();
    WakeLoop();
    lock.lock();
    taskDone_.wait(lock, [&] { return tasksRun_ >= ticket; });
}

void CardThreadState::Post(std::function<void()> task) {
    {
        std::lock_guard<std::mutex> lock(taskLock_);
        tasks_.push_back(std::move(task));
        ++tasksQueued_;
    }
    WakeLoop();
}

void CardThreadState::WakeLoop() {
    std::lock_guard<std::mutex> lock(taskLock_);
    if (waker_ == nullptr) {
        return;
    }
#ifdef Q_OS_WIN
    if (!wakePosted_.exchange(true)) {
        QCoreApplication::postEvent(waker_, new QEvent(WakeEventType()));
    }
#else
    dispatcher_->wakeUp();
#endif
}

void CardThreadState::Loop() {
    onCardThread = true;
    QAbstractEventDispatcher* dispatcher = QAbstractEventDispatcher::instance();
    LoopWaker waker;
    {
        std::lock_guard<std::mutex> lock(taskLock_);
        waker_ = &waker;
        dispatcher_ = dispatcher;
        wakePosted_.store(false);  // a wake left from an earlier loop went with its waker
        looping_ = true;
    }
    taskDone_.notify_all();
    for (;;) {
        RunPendingTasks();
        {
            std::lock_guard<std::mutex> lock(taskLock_);
            if (stopping_ && tasks_.empty()) {
                waker_ = nullptr;
                dispatcher_ = nullptr;
                looping_ = false;
                break;
            }
        }
        dispatcher->processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
    }
    // Objects the tasks left for deletion go with the thread; no timer fires any more.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

void CardThreadState::RunPendingTasks() {
    std::unique_lock<std::mutex> lock(taskLock_);
    while (!tasks_.empty()) {
        std::function<void()> task = std::move(tasks_.front());
        tasks_.pop_front();
        lock.unlock();
        task();
        lock.lock();
        ++tasksRun_;
        taskDone_.notify_all();
    }
}

}  // namespace

void CardThread::Hold() {
    State().Hold();
}

void CardThread::Release() {
    State().Release();
}

void CardThread::Run(const std::function<void()>& task) {
    State().Run(task);
}

void CardThread::Post(std::function<void()> task) {
    State().Post(std::move(task));
}

bool CardThread::IsCurrent() {
    return onCardThread;
}

}  // namespace KvPCIe
