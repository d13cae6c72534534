// kvpcie.Card: one card opened (or joined, when this process has it open already), its
// registers and memory, capture streams, injection, commands and status blocks.
#pragma once

#include "CaptureStream.h"
#include "CardCore.h"

#include <pybind11/numpy.h>

#include <memory>
#include <optional>
#include <string>

namespace kvpcie::python {

class Card {
public:
    // The first listed card when `path` is empty; RuntimeError when it does not open.
    explicit Card(const std::optional<std::string>& path);
    ~Card();

    void Close();
    bool IsOpen() const { return core_->IsOpen(); }
    std::string Path();

    std::uint32_t ReadReg(std::int64_t address);
    void WriteReg(std::int64_t address, std::int64_t value);
    pybind11::bytes ReadMem(std::int64_t address, std::int64_t size);
    void WriteMem(std::int64_t address, const pybind11::buffer& data);

    std::unique_ptr<CaptureStream> Capture(int channel, int width, int height,
                                           const std::string& pixelType, bool cardTiming,
                                           bool record);
    void Inject(int channel, const pybind11::array& frame, int frameRate, double timeout,
                const std::optional<std::string>& pixelType);
    void StopInject(int channel, bool drain);
    pybind11::dict InjectStats(int channel);
    bool SendCommand(int channel, const pybind11::bytes& data);
    void OnStatus(int channel, const pybind11::object& callback);
    // callback(path) once the card is found gone, on the card thread; None: off.
    void OnLost(const pybind11::object& callback);
    bool Lost() const;

private:
    std::shared_ptr<CardCore> core_;
};

}  // namespace kvpcie::python
