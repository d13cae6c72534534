// Engine worker threads.
#include "PinnedWorker.h"

#include "platform/ThreadAffinity.h"

namespace kvpcie {

PinnedWorker::~PinnedWorker() {
    Stop();
}

void PinnedWorker::Start(CpuCoreSource* cores, std::function<void()> body, const char* name) {
    if (OnWorker()) {
        // Stopped by itself and started again before its body returned: it goes on.
        if (!running_.load(std::memory_order_acquire)) {
            cores_ = cores;
            if (cores_ != nullptr) {
                core_ = cores_->TakeCore();
                platform::PinThreadToCore(thread_, core_);
            }
            running_.store(true, std::memory_order_release);
        }
        return;
    }
    Stop();
    // The core is taken before the thread exists, so that a stop it asks for gives it back.
    cores_ = cores;
    if (cores_ != nullptr) {
        core_ = cores_->TakeCore();
    }
    running_.store(true, std::memory_order_release);
    thread_ = std::thread([body = std::move(body), name] {
        platform::NameThisThread(name);
        platform::UsePreciseSleeps();  // the workers poll every millisecond or two
        body();
    });
    if (cores_ != nullptr) {
        platform::PinThreadToCore(thread_, core_);
    }
}

void PinnedWorker::Stop() {
    if (running_.exchange(false, std::memory_order_acq_rel)) {
        ReturnCore();
    }
    if (thread_.joinable() && !OnWorker()) {
        thread_.join();
    }
}

bool PinnedWorker::OnWorker() const {
    return thread_.joinable() && thread_.get_id() == std::this_thread::get_id();
}

void PinnedWorker::ReturnCore() {
    if (cores_ != nullptr) {
        cores_->ReturnCore(core_);
        cores_ = nullptr;
    }
}

}  // namespace kvpcie
