// The extension module kvpcie._kvpcie, which the kvpcie package re-exports.
#include "Card.h"
#include "CaptureStream.h"
#include "FrameLayout.h"
#include "SimModule.h"

#include <KvPCIeInjectSdk/KvPCIeRecording.h>
#include <KvPCIeInjectSdk/PCIeDataManager.h>

#include <pybind11/stl.h>

namespace py = pybind11;
using kvpcie::python::Card;
using kvpcie::python::CaptureStream;

namespace {

py::list ListRiffa() {
    fpga_info_list list{};
    py::list devices;
    bool listed = false;
    {
        py::gil_scoped_release release;
        listed = KvPCIe::SharedCard::ListRiffa(list);
    }
    if (!listed && list.fpgaCount <= 0) {
        return devices;
    }
    for (int i = 0; i < list.fpgaCount && i < 5; ++i) {
        py::dict device;
        device["id"] = list.id[i];
        device["channels"] = list.channelCount[i];
        device["name"] = std::string(list.name[i], strnlen(list.name[i], sizeof list.name[i]));
        device["vendor_id"] = list.vendorId[i];
        device["device_id"] = list.deviceId[i];
        devices.append(device);
    }
    return devices;
}

// At the interpreter's exit, before its threads go: every card still open is closed, so that no
// capture or card thread runs on into the process's end.
void CloseAll() {
    auto& cores = kvpcie::python::OpenCores();
    while (!cores.empty()) {
        (*cores.begin())->Close();
    }
}

}  // namespace

PYBIND11_MODULE(_kvpcie, m) {
    py::register_exception<kvpcie::python::CardLostError>(
        m, "CardLostError", PyExc_RuntimeError);
    m.doc() = "KvPCIeInjectSdk for Python: capture frames from FPGA PCI Express frame cards as "
              "NumPy arrays, inject NumPy frames, send commands, receive status blocks, read and "
              "write registers and card memory.";
    m.attr("__version__") = KvPCIeInjectSdkVersionString();

    m.def(
        "list_cards",
        [] {
            py::gil_scoped_release release;
            return KvPCIe::SharedCard::ListCards();
        },
        "The XDMA card paths, as Card() takes them: ['sim:xdma0'] with KVPCIE_SIM=1 and no "
        "card in the machine.");
    m.def("list_riffa", &ListRiffa,
          "The RIFFA devices: one dict each with id, channels, name, vendor_id and device_id.");
    m.def(
        "set_record_root",
        [](const std::string& folder) { KvPCIe::SetRecordRoot(QString::fromStdString(folder)); },
        py::arg("folder"),
        "Recordings of every card go below `folder` (<folder>/Capture<channel + 1>/<take>/) "
        "from the next take; '' brings back the default, VideoRecord of the current folder.");
    m.def(
        "record_root", [] { return KvPCIe::RecordRoot().toStdString(); },
        "The folder that recordings go below, absolute.");
    m.def("_close_all", &CloseAll,
          "Closes every card still open; runs at the interpreter's exit.");

    py::class_<CaptureStream>(m, "CaptureStream",
                              "Frames of one capture channel, from Card.capture(). Frames wait "
                              "in a ring of 8; a frame that finds the ring full because they "
                              "were not taken in time is counted in stats['frames_not_taken'].")
        .def("get", &CaptureStream::Get, py::arg("timeout") = 1.0,
             "The oldest frame not yet taken, a new NumPy array of the stream's shape; "
             "TimeoutError when none comes within `timeout` seconds (None or inf: wait without "
             "limit), RuntimeError when the stream is closed, also while it waits.")
        .def_property_readonly("stats", &CaptureStream::Stats,
                               "The channel's statistics (the library's counts, snake_case) "
                               "with frames_taken and frames_not_taken of this stream.")
        .def("close", &CaptureStream::Close, "Stops the channel; frames not taken are dropped.")
        .def_property_readonly(
            "closed", [](const CaptureStream& s) { return !s.IsOpen(); },
            "True once the stream was closed (or its card).")
        .def_property_readonly("channel", &CaptureStream::channel, "The capture channel, 0 to 3.")
        .def_property_readonly("width", &CaptureStream::width, "Frame width in pixels.")
        .def_property_readonly("height", &CaptureStream::height, "Frame height in lines.")
        .def_property_readonly(
            "pixel_type",
            [](const CaptureStream& s) { return kvpcie::python::NameOf(s.pixelType()); },
            "The pixel type's name: UYVY422, Y8, Y16, Y16_Y8, BGR24 or PIXEL32.")
        .def("__enter__", [](CaptureStream& s) -> CaptureStream& { return s; },
             py::return_value_policy::reference, "The stream itself.")
        .def("__exit__", [](CaptureStream& s, const py::args&) { s.Close(); },
             "Closes the stream.")
        .def("__iter__", [](CaptureStream& s) -> CaptureStream& { return s; },
             py::return_value_policy::reference, "The stream itself: `for frame in stream`.")
        .def("__next__",
             [](CaptureStream& s) {
                 std::optional<py::array> frame = s.Next();
                 if (!frame) {
                     throw py::stop_iteration();
                 }
                 return std::move(*frame);
             },
             "The next frame, waiting without limit; iteration ends when the stream is closed, "
             "also by another thread while it waits.");

    py::class_<Card>(m, "Card",
                     "One card: Card() opens the first listed card, Card('sim:xdma0') a named "
                     "one. A context manager; close() stops what it started. Cards of one "
                     "path in a process share one open card.")
        .def(py::init<const std::optional<std::string>&>(), py::arg("path") = py::none())
        .def("close", &Card::Close,
             "Stops this card's captures, injections and status callbacks and lets the card "
             "go.")
        .def_property_readonly(
            "closed", [](const Card& c) { return !c.IsOpen(); }, "True once close() was called.")
        .def_property_readonly("path", &Card::Path, "The card's path, as list_cards() gives it.")
        .def(
            "__enter__", [](Card& c) -> Card& { return c; }, py::return_value_policy::reference,
            "The card itself.")
        .def(
            "__exit__", [](Card& c, const py::args&) { c.Close(); }, "Closes the card.")
        .def("read_reg", &Card::ReadReg, py::arg("address"), "A 32-bit register of the card.")
        .def("write_reg", &Card::WriteReg, py::arg("address"), py::arg("value"),
             "Writes a 32-bit register; RuntimeError when the write failed.")
        .def("read_mem", &Card::ReadMem, py::arg("address"), py::arg("size"),
             "`size` bytes of card memory at `address`, by DMA.")
        .def("write_mem", &Card::WriteMem, py::arg("address"), py::arg("data"),
             "Writes bytes or a contiguous NumPy array to card memory at `address`, by DMA.")
        .def("capture", &Card::Capture, py::arg("channel"), py::arg("width"), py::arg("height"),
             py::arg("pixel_type") = "Y8", py::arg("card_timing") = true, py::arg("record") = false,
             "Starts capturing `channel` (0 to 3) and returns its CaptureStream. Frames are "
             "(h, w) uint8 for Y8, (h, w) uint16 for Y16, (h, w, 2) uint8 for UYVY422, "
             "(h, w, 3) uint8 for BGR24 and Y16_Y8, (h, w, 4) uint8 for PIXEL32. card_timing: "
             "the card times the frames at 25 per second. record: the library also records "
             "them into a take folder below record_root()/Capture<channel + 1>/.")
        .def("inject", &Card::Inject, py::arg("channel"), py::arg("frame"),
             py::arg("frame_rate") = 25, py::arg("timeout") = 1.0,
             py::arg("pixel_type") = py::none(),
             "Queues one frame for playout on `channel`; its shape and dtype give width, height "
             "and pixel type (pixel_type='Y16_Y8' for a (h, w, 3) frame of that type). The first "
             "frame starts the channel at frame_rate, and later frames keep its format. Waits "
             "while 15 frames wait; TimeoutError after `timeout` seconds.")
        .def("stop_inject", &Card::StopInject, py::arg("channel"), py::arg("drain") = true,
             "Stops the channel; with drain, after the queued frames have been played.")
        .def("inject_stats", &Card::InjectStats, py::arg("channel"),
             "The inject channel's statistics (the library's counts, snake_case).")
        .def("send_command", &Card::SendCommand, py::arg("channel"), py::arg("data"),
             "Sends a command (1 to 1024 bytes) to the channel's mailbox; True when it reached "
             "the card within 40 ms.")
        .def("on_status", &Card::OnStatus, py::arg("channel"), py::arg("callback"),
             "callback(data: bytes) for each status block the card posts for the channel, run "
             "with the GIL on a thread of the module; None switches it off.")
        .def("on_lost", &Card::OnLost, py::arg("callback"),
             "callback(path: str) once, when the card is found gone (removed, or its driver "
             "ended), on a thread of the module; at once if it already is. None switches it "
             "off. A stream's get() then raises CardLostError once its frames are taken.")
        .def_property_readonly("lost", &Card::Lost, "True once the card was found gone.");

    py::module_ sim = m.def_submodule("sim");
    kvpcie::python::BindSim(sim);
}
