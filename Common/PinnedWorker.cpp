// Engine worker threads.
#include "PinnedWorker.h"

#include "platform/ThreadAffinity.h"

namespace kvpcie {

PinnedWorker::~PinnedWorker() {
    Stop();
}

void PinnedWorker::Start(CpuCoreSource* cores, std::function<void()> body, const char* name) {
    Stop();
    running_.store(true, std::memory_order_release);
    thread_ = std::thread([body = std::move(body), name] {
        platform::NameThisThread(name);
        platform::UsePreciseSleeps();  // the workers poll every millisecond or two
        body();
    });
    cores_ = cores;
    if (cores_ != nullptr) {
        core_ = cores_->TakeCore();
        platform::PinThreadToCore(thread_, core_);
    }
}

void PinnedWorker::Stop() {
    if (!running_.load(std::memory_order_acquire)) {
        return;
    }
    if (cores_ != nullptr) {
        cores_->ReturnCore(core_);
        cores_ = nullptr;
    }
    running_.store(false, std::memory_order_release);
    if (thread_.joinable()) {
        thread_.join();
    }
}

}  // namespace kvpcie
