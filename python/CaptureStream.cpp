// card.capture(...): a ring of NumPy arrays filled by the polling thread and taken by Python.
#include "CaptureStream.h"

#include "Arguments.h"
#include "FrameLayout.h"
#include "Waiting.h"

#include <KvPCIeInjectSdk/KvPCIeStatisticsFields.h>

#include <chrono>
#include <cstring>

namespace py = pybind11;

namespace kvpcie::python {

CaptureStream::CaptureStream(std::shared_ptr<CardCore> core, int channel, int width, int height,
                             ePixelType type, bool cardTiming, bool record)
    : core_(std::move(core)),
      channel_(channel),
      width_(width),
      height_(height),
      type_(type),
      frameBytes_(static_cast<std::size_t>(KvFrameSizeBytes(type, width, height))) {
    CheckChannel(channel);
    if (const std::string problem = KvFrameFormatProblem(type, width, height); !problem.empty()) {
        throw py::value_error("a " + std::to_string(width) + "x" + std::to_string(height) + " " +
                              NameOf(type) + " frame cannot be captured: " + problem);
    }
    const CardLease card = core_->Open();
    if (!card->Claim(KvPCIe::SharedCard::Direction::Capture, static_cast<unsigned>(channel))) {
        throw std::runtime_error("capture channel " + std::to_string(channel) + " of " +
                                 card->Path() + " is already captured");
    }
    frameBuffer_.assign(frameBytes_, 0);
    for (int slot = 0; slot < kRingFrames; ++slot) {
        arrays_[slot] = NewArray();
        data_[slot] = static_cast<char*>(arrays_[slot].mutable_data());
        free_.Push(slot);
    }
    bool started = false;
    std::string why;
    CardCore::RunOn(card, [&](PCIeDataManager& manager) {
        eErrorCode error = ERR_NONE;
        started = manager.StartCapture(static_cast<unsigned>(channel), cardTiming, width, height,
                                       type, error, &CaptureStream::OnFrame, this,
                                       frameBuffer_.data());
        if (!started) {
            why = manager.LastErrorText();
        } else if (record) {
            recording_ = manager.StartRecord(channel);
            if (!recording_) {
                why = manager.LastErrorText();
            }
        }
    });
    // A close of the card in another thread while the channel started: it did not see this
    // stream, so the stream stops itself.
    const bool closedMeanwhile = core_->closing.load();
    if (!started || (record && !recording_) || closedMeanwhile) {
        if (closedMeanwhile) {
            why = "the card was closed";
        }
        CardCore::RunOn(card, [&](PCIeDataManager& manager) {
            if (started) {
                manager.StopCapture(channel);
            }
        });
        card->Unclaim(KvPCIe::SharedCard::Direction::Capture, static_cast<unsigned>(channel));
        throw std::runtime_error("capture channel " + std::to_string(channel) +
                                 " would not start" +
                                 (started && !closedMeanwhile ? " recording" : "") + ": " + why);
    }
    open_ = true;
    core_->streams.insert(this);
}

CaptureStream::~CaptureStream() {
    Close();
    // The stream outlived its Card object: the card goes with it.
    if (core_.use_count() == 1) {
        core_->Close();
    }
}

py::array CaptureStream::NewArray() const {
    return py::array(DtypeOf(type_), ShapeOf(type_, width_, height_));
}

void CaptureStream::OnFrame(int /*channel*/, const char* frame, void* context) {
    auto* self = static_cast<CaptureStream*>(context);
    int slot = -1;
    {
        std::lock_guard<std::mutex> lock(self->lock_);
        if (self->free_.Empty()) {
            self->notTaken_.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        slot = self->free_.Pop();
    }
    std::memcpy(self->data_[slot], frame, self->frameBytes_);
    {
        std::lock_guard<std::mutex> lock(self->lock_);
        self->ready_.Push(slot);
    }
    self->frameReady_.notify_one();
}

void CaptureStream::MarkCardLost() {
    {
        std::lock_guard<std::mutex> lock(lock_);
        lost_ = true;
    }
    frameReady_.notify_all();
}

py::array CaptureStream::Get(std::optional<double> timeout) {
    bool closed = false;
    std::optional<py::array> frame = Take(timeout, closed);
    if (closed) {
        throw std::runtime_error("the capture of channel " + std::to_string(channel_) +
                                 " is closed");
    }
    if (!frame) {
        PyErr_SetString(PyExc_TimeoutError,
                        ("no frame of channel " + std::to_string(channel_) + " within " +
                         std::to_string(*timeout) + " s").c_str());
        throw py::error_already_set();
    }
    return std::move(*frame);
}

std::optional<py::array> CaptureStream::Next() {
    bool closed = false;
    return Take(std::nullopt, closed);
}

std::optional<py::array> CaptureStream::Take(std::optional<double> timeout, bool& closed) {
    if (timeout) {
        CheckTimeout(*timeout);
    }
    const auto deadline = DeadlineAfter(timeout);
    int slot = -1;
    bool lost = false;
    {
        py::gil_scoped_release release;
        std::unique_lock<std::mutex> lock(lock_);
        const auto done = [this] { return closed_ || lost_ || !ready_.Empty(); };
        // Woken now and then so that Ctrl-C reaches a script that waits.
        while (!frameReady_.wait_until(lock, SliceEnd(deadline), done) &&
               (!deadline || WaitClock::now() < *deadline)) {
            lock.unlock();
            RaisePendingSignal();
            lock.lock();
        }
        closed = closed_;
        if (!closed_ && !ready_.Empty()) {
            slot = ready_.Pop();
        }
        lost = lost_ && slot < 0 && !closed_;
    }
    if (lost) {
        throw CardLostError(core_->LostText());
    }
    if (slot < 0) {
        return std::nullopt;
    }
    // The slot is in neither ring now: the polling thread does not touch it.
    py::array frame = std::move(arrays_[slot]);
    arrays_[slot] = NewArray();
    data_[slot] = static_cast<char*>(arrays_[slot].mutable_data());
    {
        std::lock_guard<std::mutex> lock(lock_);
        free_.Push(slot);
    }
    ++taken_;
    return frame;
}

py::dict CaptureStream::Stats() {
    KvCaptureStatistics stats;
    if (const CardLease card = core_->Lease()) {
        card->AnyThreadManager().GetCaptureStatistics(channel_, stats);
    }
    py::dict result;
#define KVPCIE_DICT_ENTRY(member, name, label, text) result[#name] = stats.member;
    KVPCIE_CAPTURE_STATISTICS_FIELDS(KVPCIE_DICT_ENTRY)
#undef KVPCIE_DICT_ENTRY
    result["frames_taken"] = taken_;
    result["frames_not_taken"] = notTaken_.load();
    return result;
}

void CaptureStream::Close() {
    if (!open_) {
        return;
    }
    open_ = false;
    {
        std::lock_guard<std::mutex> lock(lock_);
        closed_ = true;
    }
    frameReady_.notify_all();
    // Out of the card's list at once: a close of the card in another thread no longer waits
    // for this stream, and lets the card go only after this stop, which holds a lease.
    core_->streams.erase(this);
    const bool recording = recording_;
    const CardLease card = core_->Lease();
    if (card) {
        CardCore::RunOn(card, [&](PCIeDataManager& manager) {
            if (recording) {
                manager.StopRecord(channel_);
            }
            manager.StopCapture(channel_);  // no callback runs once it returns
        });
        card->Unclaim(KvPCIe::SharedCard::Direction::Capture, static_cast<unsigned>(channel_));
    }
}

}  // namespace kvpcie::python
