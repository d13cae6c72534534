// kvpcie.Card's calls: registers, memory, capture, inject, commands and status callbacks.
#include "Card.h"

#include "Arguments.h"
#include "FrameLayout.h"
#include "InjectDrain.h"
#include "Waiting.h"

#include <KvPCIeInjectSdk/KvPCIeStatisticsFields.h>

#include <QByteArray>

#include <chrono>
#include <cstdio>
#include <thread>

namespace py = pybind11;

namespace kvpcie::python {
namespace {

std::string Hex(std::uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%llX", static_cast<unsigned long long>(value));
    return text;
}

std::uint32_t CheckAddress(std::int64_t address) {
    if (address < 0 || address > 0xFFFFFFFFLL) {
        throw py::value_error("address " + std::to_string(address) +
                              " is outside 0 to 0xFFFFFFFF");
    }
    return static_cast<std::uint32_t>(address);
}

bool InterpreterIsFinalizing() {
#if PY_VERSION_HEX >= 0x030D0000
    return Py_IsFinalizing() != 0;
#else
    return _Py_IsFinalizing() != 0;
#endif
}

// On the card thread, from its event loop.
void StatusReceived(int /*channel*/, const QByteArray& data, void* context) {
    auto* target = static_cast<StatusTarget*>(context);
    if (InterpreterIsFinalizing()) {
        return;
    }
    py::gil_scoped_acquire gil;
    // A reference of its own: the callback may close the card or switch itself off, which
    // drops the target's.
    const py::object callback = target->callback;
    if (!callback) {
        return;
    }
    try {
        callback(py::bytes(data.constData(), static_cast<std::size_t>(data.size())));
    } catch (py::error_already_set& error) {
        error.discard_as_unraisable("kvpcie status callback");
    }
}

}  // namespace

Card::Card(const std::optional<std::string>& path) : core_(std::make_shared<CardCore>()) {
    std::string why;
    {
        py::gil_scoped_release release;
        core_->card = KvPCIe::SharedCard::Acquire(path.value_or(""), why);
    }
    if (!core_->card) {
        throw std::runtime_error(why);
    }
    // On the card thread. The core is held weakly, and let go of with the GIL held: the last
    // reference may be this one, and the core holds Python objects.
    core_->card->SetLostCallback([weak = std::weak_ptr<CardCore>(core_)] {
        if (InterpreterIsFinalizing()) {
            return;
        }
        py::gil_scoped_acquire gil;
        if (const std::shared_ptr<CardCore> core = weak.lock()) {
            core->TellLost();
        }
    });
    OpenCores().insert(core_.get());
}

Card::~Card() {
    // Streams still running keep the card open until they go.
    if (core_.use_count() == 1) {
        core_->Close();
    }
}

void Card::Close() {
    core_->Close();
}

std::string Card::Path() {
    return core_->Open()->Path();
}

std::uint32_t Card::ReadReg(std::int64_t address) {
    const std::uint32_t checked = CheckAddress(address);
    std::uint32_t value = 0;
    core_->Run([&](PCIeDataManager& manager) { value = manager.ReadReg(checked); });
    return value;
}

void Card::WriteReg(std::int64_t address, std::int64_t value) {
    const std::uint32_t checked = CheckAddress(address);
    if (value < -0x80000000LL || value > 0xFFFFFFFFLL) {
        throw py::value_error("a register holds 32 bits; " + std::to_string(value) +
                              " does not fit");
    }
    int result = 0;
    core_->Run([&](PCIeDataManager& manager) {
        result = manager.WriteReg(checked, static_cast<int>(static_cast<std::uint32_t>(value)));
    });
    if (result != 4) {
        throw std::runtime_error("writing register " + Hex(checked) + " failed (" +
                                 std::to_string(result) + ")");
    }
}

py::bytes Card::ReadMem(std::int64_t address, std::int64_t size) {
    const std::uint32_t checked = CheckAddress(address);
    if (size < 1 || size > 0x10000000) {
        throw py::value_error("size must be from 1 to 268435456 bytes, not " +
                              std::to_string(size));
    }
    std::string bytes(static_cast<std::size_t>(size), '\0');
    bool read = false;
    core_->Run([&](PCIeDataManager& manager) {
        read = manager.ReadData(checked, static_cast<unsigned>(size),
                                reinterpret_cast<unsigned char*>(bytes.data()));
    });
    if (!read) {
        throw std::runtime_error("reading " + std::to_string(size) + " bytes of card memory at " +
                                 Hex(checked) + " failed");
    }
    return py::bytes(bytes);
}

void Card::WriteMem(std::int64_t address, const py::buffer& data) {
    const std::uint32_t checked = CheckAddress(address);
    const py::buffer_info info = data.request();
    py::ssize_t expectedStride = info.itemsize;
    for (py::ssize_t d = info.ndim - 1; d >= 0; --d) {
        if (info.shape[d] > 1 && info.strides[d] != expectedStride) {
            throw py::value_error("write_mem takes contiguous data (numpy.ascontiguousarray)");
        }
        expectedStride *= info.shape[d];
    }
    const py::ssize_t size = info.size * info.itemsize;
    if (size < 1 || size > 0x10000000) {
        throw py::value_error("write_mem writes 1 to 268435456 bytes, not " +
                              std::to_string(size));
    }
    bool written = false;
    core_->Run([&](PCIeDataManager& manager) {
        written = manager.WriteData(checked, static_cast<unsigned>(size),
                                    static_cast<unsigned char*>(info.ptr));
    });
    if (!written) {
        throw std::runtime_error("writing " + std::to_string(size) + " bytes of card memory at " +
                                 Hex(checked) + " failed");
    }
}

std::unique_ptr<CaptureStream> Card::Capture(int channel, int width, int height,
                                             const std::string& pixelType, bool cardTiming,
                                             bool record) {
    CheckChannel(channel);
    const auto type = PixelTypeByName(pixelType);
    if (!type) {
        throw py::value_error("unknown pixel type \"" + pixelType +
                              "\" (UYVY422, Y8, Y16, Y16_Y8, BGR24 or PIXEL32)");
    }
    return std::make_unique<CaptureStream>(core_, channel, width, height, *type, cardTiming,
                                           record);
}

void Card::Inject(int channel, const py::array& frame, int frameRate, double timeout,
                  const std::optional<std::string>& pixelType) {
    CheckChannel(channel);
    if (frameRate < 1) {
        throw py::value_error("frame_rate must be 1 or more, not " + std::to_string(frameRate));
    }
    CheckTimeout(timeout);
    const FrameGeometry geometry = GeometryOf(frame, pixelType);
    if (geometry.type == PIXEL32) {
        throw py::value_error("PIXEL32 frames cannot be injected (the card plays UYVY422, Y8, "
                              "Y16, Y16_Y8 and BGR24)");
    }
    if (const std::string problem =
            KvFrameFormatProblem(geometry.type, geometry.width, geometry.height);
        !problem.empty()) {
        throw py::value_error(problem);
    }
    InjectChannel& playing = core_->inject[channel];
    const CardLease card = core_->Open();
    if (playing.started && (playing.width != geometry.width ||
                            playing.height != geometry.height || playing.type != geometry.type)) {
        throw py::value_error("inject channel " + std::to_string(channel) + " plays " +
                              std::to_string(playing.width) + "x" +
                              std::to_string(playing.height) + " " + NameOf(playing.type) +
                              " frames since its start; stop_inject(" + std::to_string(channel) +
                              ") before another format");
    }
    const bool claimedHere = !playing.started;
    if (claimedHere && !card->Claim(KvPCIe::SharedCard::Direction::Inject,
                                    static_cast<unsigned>(channel))) {
        throw std::runtime_error("inject channel " + std::to_string(channel) + " of " +
                                 card->Path() + " is already in use");
    }
    // The library copies the frame into its queue; a view that is not contiguous is copied first.
    const py::array contiguous = py::array::ensure(frame, py::array::c_style);
    auto* data = static_cast<char*>(const_cast<void*>(contiguous.data()));
    bool queued = false;
    bool full = false;
    bool closed = false;
    std::string why;
    CardCore& core = *core_;
    // The channel becomes this card's once a frame went in; a close meanwhile stopped it.
    const auto settle = [&] {
        --playing.inFlight;
        if (!claimedHere || playing.started) {
            return;
        }
        if ((queued || full) && !core.closing.load()) {
            playing = InjectChannel{true, playing.inFlight, geometry.width, geometry.height,
                                    geometry.type, frameRate};
        } else {
            card->Unclaim(KvPCIe::SharedCard::Direction::Inject, static_cast<unsigned>(channel));
        }
    };
    ++playing.inFlight;
    try {
        py::gil_scoped_release release;
        const auto deadline = DeadlineAfter(timeout);
        SignalPoll pollSignals;
        for (;;) {
            eErrorCode error = ERR_NONE;
            card->Run([&](PCIeDataManager& manager) {
                // On the card thread, in order with a close's stop of the channel: a frame
                // queued before it is counted as dropped there, and none is queued after it.
                if (core.closing.load()) {
                    closed = true;
                    return;
                }
                queued = manager.StartInject(static_cast<unsigned>(channel), frameRate,
                                             geometry.width, geometry.height, geometry.type, 0,
                                             data, error);
                if (!queued && error != ERR_QUEUE_FULL) {
                    why = manager.LastErrorText();
                }
            });
            full = !queued && !closed && error == ERR_QUEUE_FULL;
            if (!full || (deadline && WaitClock::now() >= *deadline)) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            pollSignals();
        }
    } catch (...) {
        settle();
        throw;
    }
    settle();
    if (closed) {
        throw std::runtime_error("inject channel " + std::to_string(channel) +
                                 ": the card was closed before the frame was queued");
    }
    if (full) {
        PyErr_SetString(PyExc_TimeoutError,
                        ("inject channel " + std::to_string(channel) +
                         ": the queue of 15 frames stayed full for " + std::to_string(timeout) +
                         " s")
                            .c_str());
        throw py::error_already_set();
    }
    if (!queued) {
        throw std::runtime_error("inject channel " + std::to_string(channel) +
                                 " refused the frame: " + why);
    }
}

void Card::StopInject(int channel, bool drain) {
    CheckChannel(channel);
    InjectChannel& playing = core_->inject[channel];
    if (!playing.started) {
        return;
    }
    const CardLease card = core_->Open();
    // From here the stop is this call's: a close in another thread leaves the channel to it,
    // and the lease keeps the card open until it has stopped.
    playing.started = false;
    const int frameRate = playing.frameRate;
    CardCore& core = *core_;
    bool closedWhileDraining = false;
    const auto stop = [&] {
        py::gil_scoped_release release;
        card->Run([&](PCIeDataManager& manager) { manager.StopInject(channel); });
        card->Unclaim(KvPCIe::SharedCard::Direction::Inject, static_cast<unsigned>(channel));
    };
    if (drain) {
        try {
            py::gil_scoped_release release;
            SignalPoll pollSignals;  // Ctrl-C: the frames still queued are dropped
            tools::WaitUntilQueuedFramesPlayed(card->AnyThreadManager(), channel, frameRate, [&] {
                if (core.closing.load()) {
                    closedWhileDraining = true;
                    return true;
                }
                pollSignals();
                return false;
            });
        } catch (...) {
            stop();
            throw;
        }
    }
    stop();
    if (closedWhileDraining) {
        throw std::runtime_error("inject channel " + std::to_string(channel) +
                                 ": the card was closed while stop_inject waited for its frames");
    }
}

py::dict Card::InjectStats(int channel) {
    CheckChannel(channel);
    KvInjectStatistics stats;
    core_->Open()->AnyThreadManager().GetInjectStatistics(channel, stats);
    py::dict result;
#define KVPCIE_DICT_ENTRY(member, name, label, text) result[#name] = stats.member;
    KVPCIE_INJECT_STATISTICS_FIELDS(KVPCIE_DICT_ENTRY)
#undef KVPCIE_DICT_ENTRY
    return result;
}

bool Card::SendCommand(int channel, const py::bytes& data) {
    CheckChannel(channel);
    const std::string command = data;
    if (command.empty() || command.size() > 1024) {
        throw py::value_error("a command is 1 to 1024 bytes, not " +
                              std::to_string(command.size()));
    }
    const CardLease card = core_->Open();
    py::gil_scoped_release release;
    return card->AnyThreadManager().WriteControlCmd(
        channel, QByteArray(command.data(), static_cast<int>(command.size())));
}

void Card::OnLost(const py::object& callback) {
    if (!callback.is_none() && !PyCallable_Check(callback.ptr())) {
        throw py::value_error("on_lost takes a callable or None");
    }
    core_->Open();  // RuntimeError once closed
    core_->onLost = callback.is_none() ? py::object() : callback;
    if (!callback.is_none() && core_->lost) {
        callback(core_->card->Path());  // gone before: told at once
    }
}

bool Card::Lost() const {
    return core_->lost.load();
}

void Card::OnStatus(int channel, const py::object& callback) {
    CheckChannel(channel);
    if (!callback.is_none() && !PyCallable_Check(callback.ptr())) {
        throw py::value_error("on_status takes a callable or None");
    }
    StatusTarget& target = core_->status[channel];
    if (callback.is_none()) {
        core_->Run([&](PCIeDataManager& manager) {
            manager.SetSystemStatusCallback(channel, nullptr, nullptr, false);
        });
        target.callback = py::object();
        return;
    }
    target.callback = callback;
    core_->Run([&](PCIeDataManager& manager) {
        manager.SetSystemStatusCallback(channel, StatusReceived, &target, true);
    });
}

}  // namespace kvpcie::python
