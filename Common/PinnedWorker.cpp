// Engine worker threads.
#include "PinnedWorker.h"

#include "platform/ThreadAffinity.h"

namespace kvpcie {
namespace {

// The worker whose body runs on this thread: read without touching the std::thread, which the
// owner may be joining at that moment.
thread_local const PinnedWorker* currentWorker = nullptr;

}  // namespace

PinnedWorker::~PinnedWorker() {
    Stop();
}

void PinnedWorker::Start(CpuCoreSource* cores, std::function<void()> body, const char* name) {
    if (OnWorker()) {
        // Stopped by itself and started again before its body returned: it goes on.
        if (running_.load(std::memory_order_acquire)) {
            return;
        }
        TakeCore(cores);
        // Flag first, then the look at joining_ (both sequentially consistent, as the joiner's
        // two stores in the opposite order): either the joiner sees the flag set when it
        // clears it, or this sees the join.
        running_.store(true);
        if (joining_.load()) {
            running_.store(false);
            ReturnCore();
        }
        return;
    }
    std::lock_guard<std::mutex> owner(ownerLock_);
    StopAndJoin();
    // The core is taken before the thread exists, so that a stop it asks for gives it back.
    TakeCore(cores);
    unsigned core = 0;
    bool pin = false;
    {
        std::lock_guard<std::mutex> lock(coreLock_);
        pin = cores_ != nullptr;
        core = core_;
    }
    running_.store(true, std::memory_order_release);
    thread_ = std::thread([this, body = std::move(body), name] {
        currentWorker = this;
        platform::NameThisThread(name);
        platform::UsePreciseSleeps();  // the workers poll every millisecond or two
        body();
        currentWorker = nullptr;
    });
    if (pin) {
        platform::PinThreadToCore(thread_, core);
    }
}

void PinnedWorker::Stop() {
    if (OnWorker()) {
        if (running_.exchange(false, std::memory_order_acq_rel)) {
            ReturnCore();
        }
        return;
    }
    std::lock_guard<std::mutex> owner(ownerLock_);
    StopAndJoin();
}

void PinnedWorker::StopAndJoin() {
    joining_.store(true);
    running_.store(false);
    ReturnCore();
    if (thread_.joinable()) {
        thread_.join();
    }
    joining_.store(false);
}

bool PinnedWorker::OnWorker() const {
    return currentWorker == this;
}

bool PinnedWorker::HeldCore(unsigned& core) {
    std::lock_guard<std::mutex> lock(coreLock_);
    core = core_;
    return cores_ != nullptr;
}

void PinnedWorker::TakeCore(CpuCoreSource* cores) {
    std::lock_guard<std::mutex> lock(coreLock_);
    // One core at most: a joiner clears the flag before it gives the core back, so a worker
    // that restarts itself in between still holds its old one, which goes back first.
    if (cores_ != nullptr) {
        cores_->ReturnCore(core_);
    }
    cores_ = cores;
    if (cores_ != nullptr) {
        core_ = cores_->TakeCore();
        if (OnWorker()) {
            platform::PinThisThreadToCore(core_);
        }
    }
}

void PinnedWorker::ReturnCore() {
    std::lock_guard<std::mutex> lock(coreLock_);
    if (cores_ != nullptr) {
        cores_->ReturnCore(core_);
        cores_ = nullptr;
    }
}

}  // namespace kvpcie
