#include "CardThread.h"

#include <QAbstractEventDispatcher>
#include <QEventLoop>
#include <QThread>
#include <QtCore/private/qthread_p.h>

namespace kvpcie::tools {
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

}  // namespace

CardThread& CardThread::Instance() {
    // Never destroyed: elements may still release it from GStreamer's threads while the
    // process's static objects go.
    static CardThread* const instance = new CardThread;
    return *instance;
}

void CardThread::Hold() {
    std::lock_guard<std::mutex> hold(holdLock_);
    if (holders_++ > 0) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(taskLock_);
        stopping_ = false;
        looping_ = false;
    }
    // A QThread, not a std::thread: Qt gives a QThread an event dispatcher of its own whether
    // or not the process has a QCoreApplication, and the library's timers need one.
    QThread* thread = new ServiceThread([this] { Loop(); });
    thread->setObjectName(QStringLiteral("kvpcie-gst-card"));
    thread_.store(thread);
    thread->start();
    std::unique_lock<std::mutex> lock(taskLock_);
    taskDone_.wait(lock, [this] { return looping_; });
}

void CardThread::Release() {
    std::lock_guard<std::mutex> hold(holdLock_);
    if (holders_ == 0 || --holders_ > 0) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(taskLock_);
        stopping_ = true;
    }
    WakeLoop();
    QThread* thread = thread_.exchange(nullptr);
    thread->wait();
    delete thread;
}

void CardThread::Run(const std::function<void()>& task) {
    if (QThread::currentThread() == thread_.load()) {
        task();
        return;
    }
    std::unique_lock<std::mutex> lock(taskLock_);
    tasks_.push_back(&task);
    const std::uint64_t ticket = ++tasksQueued_;
    lock.unlock();
    WakeLoop();
    lock.lock();
    taskDone_.wait(lock, [&] { return tasksRun_ >= ticket; });
}

void CardThread::WakeLoop() {
    std::lock_guard<std::mutex> lock(taskLock_);
    if (dispatcher_ != nullptr) {
        dispatcher_->wakeUp();  // latched: a wake before the loop waits is not lost
    }
}

void CardThread::Loop() {
    QAbstractEventDispatcher* dispatcher = QAbstractEventDispatcher::instance();
    {
        std::lock_guard<std::mutex> lock(taskLock_);
        dispatcher_ = dispatcher;
        looping_ = true;
    }
    taskDone_.notify_all();
    for (;;) {
        RunPendingTasks();
        {
            std::lock_guard<std::mutex> lock(taskLock_);
            if (stopping_ && tasks_.empty()) {
                dispatcher_ = nullptr;
                break;
            }
        }
        dispatcher->processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
    }
    // Objects the tasks left for deletion go with the thread.
    dispatcher->processEvents(QEventLoop::AllEvents);
}

void CardThread::RunPendingTasks() {
    std::unique_lock<std::mutex> lock(taskLock_);
    while (!tasks_.empty()) {
        const std::function<void()>* task = tasks_.front();
        tasks_.pop_front();
        lock.unlock();
        (*task)();
        lock.lock();
        ++tasksRun_;
        taskDone_.notify_all();
    }
}

}  // namespace kvpcie::tools
