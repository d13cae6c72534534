// Bad input through the public API, a test per row: a clear result, and the library still works.
#include "../capture/CaptureTestSupport.h"
#include "../support/Application.h"
#include "../support/Environment.h"
#include "../support/TempDir.h"

#include <QCoreApplication>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>

namespace kvpcie::testing {
namespace {

constexpr int kWidth = 64;
constexpr int kHeight = 32;
constexpr std::size_t kFrameBytes = kWidth * kHeight * 2;  // Y16

struct Row {
    const char* name;
    std::function<void(PCIeDataManager&)> run;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

// A StartCapture or StartInject request that must be refused before anything reaches the card.
struct FrameRequest {
    const char* name;
    unsigned channel;
    int rate;  // inject only
    int width;
    int height;
    ePixelType type;
    bool nullData;
    const char* reason;  // what LastErrorText says
};

constexpr FrameRequest kRefusedCaptures[] = {
    {"CaptureOnChannel4", 4, 0, kWidth, kHeight, Y16, false, "channel 4 is outside 0 to 3"},
    {"CaptureOnChannelUintMax", UINT_MAX, 0, kWidth, kHeight, Y16, false,
     "channel 4294967295 is outside 0 to 3"},
    {"CaptureIntoNullBuffer", 0, 0, kWidth, kHeight, Y16, true, "frameBuffer is null"},
    {"CaptureWidthZero", 0, 0, 0, kHeight, Y16, false, "width 0 is outside 1 to 65535"},
    {"CaptureWidth65536", 0, 0, 65536, 1, Y8, false, "width 65536 is outside 1 to 65535"},
    {"CaptureHeightNegative", 0, 0, kWidth, -5, Y16, false, "height -5 is outside 1 to 65535"},
    {"CaptureHeight65536", 0, 0, 1, 65536, Y8, false, "height 65536 is outside 1 to 65535"},
    {"CaptureUnknownPixelType", 0, 0, kWidth, kHeight, static_cast<ePixelType>(99), false,
     "pixel type 99 is outside UYVY422 (0) to PIXEL32 (5)"},
    {"CaptureNegativePixelType", 0, 0, kWidth, kHeight, static_cast<ePixelType>(-1), false,
     "pixel type -1 is outside"},
    {"CaptureFrameOver20MiB", 0, 0, 4096, 2561, Y16, false,
     "frame of 20,979,712 bytes exceeds the 20 MiB card buffer"},
    {"CaptureSizeOverflowingInt", 0, 0, 65535, 65535, PIXEL32, false,
     "frame of 17,179,344,900 bytes exceeds the 20 MiB card buffer"},
};

constexpr FrameRequest kRefusedInjects[] = {
    {"InjectOnChannel4", 4, 25, kWidth, kHeight, Y16, false, "channel 4 is outside 0 to 3"},
    {"InjectOnChannelUintMax", UINT_MAX, 25, kWidth, kHeight, Y16, false,
     "channel 4294967295 is outside 0 to 3"},
    {"InjectNullFrame", 0, 25, kWidth, kHeight, Y16, true, "frameData is null"},
    // A host that could not size a frame for a bad format learns what is wrong with the format.
    {"InjectNullFrameOfABadFormat", 0, 25, 4096, 2561, Y16, true,
     "frame of 20,979,712 bytes exceeds the 20 MiB card buffer"},
    {"InjectFrameRateZero", 0, 0, kWidth, kHeight, Y16, false, "frame rate 0 is below 1"},
    {"InjectFrameRateNegative", 0, -25, kWidth, kHeight, Y16, false, "frame rate -25 is below 1"},
    {"InjectPixel32", 0, 25, kWidth, kHeight, PIXEL32, false, "pixel type 5 cannot be injected"},
    {"InjectUnknownPixelType", 0, 25, kWidth, kHeight, static_cast<ePixelType>(99), false,
     "pixel type 99 cannot be injected"},
    {"InjectWidthZero", 0, 25, 0, kHeight, Y16, false, "width 0 is outside 1 to 65535"},
    {"InjectWidth65536", 0, 25, 65536, 1, Y8, false, "width 65536 is outside 1 to 65535"},
    {"InjectHeight65536", 0, 25, 1, 65536, Y8, false, "height 65536 is outside 1 to 65535"},
    {"InjectFrameOver20MiB", 0, 25, 4096, 2561, Y16, false,
     "frame of 20,979,712 bytes exceeds the 20 MiB card buffer"},
};

char* DataFor(const FrameRequest& request) {
    static std::vector<char> frame(kFrameBytes);
    return request.nullData ? nullptr : frame.data();
}

// Nothing of a refused request reaches the card, and no channel starts.
void ExpectCardUntouched(PCIeDataManager& manager) {
    EXPECT_TRUE(KvPCIeSim::TakeAccessLog(0).empty());
    for (int c = 0; c < 4; ++c) {
        EXPECT_FALSE(manager.IsStartCapture(c));
        EXPECT_FALSE(manager.IsStartInject(c));
    }
}

Row CaptureRefused(const FrameRequest& request) {
    return {request.name, [request](PCIeDataManager& m) {
                eErrorCode error = ERR_NONE;
                EXPECT_FALSE(m.StartCapture(request.channel, false, request.width, request.height,
                                            request.type, error, &FrameSink::OnFrame, nullptr,
                                            DataFor(request)));
                EXPECT_EQ(error, ERR_NO_CARD);
                ExpectReason(m, request.reason);
                ExpectCardUntouched(m);
                // The check a host makes before it sizes its buffer says the same, of the format.
                const bool onlyTheBuffer = std::strstr(request.reason, "is null") != nullptr;
                EXPECT_EQ(m.IsCaptureFormatAcceptable(request.channel, request.width,
                                                      request.height, request.type),
                          onlyTheBuffer);
                if (!onlyTheBuffer) {
                    ExpectReason(m, request.reason);
                }
                ExpectCardUntouched(m);
            }};
}

Row InjectRefused(const FrameRequest& request) {
    return {
        request.name, [request](PCIeDataManager& m) {
            eErrorCode error = ERR_QUEUE_FULL;
            EXPECT_FALSE(m.StartInject(request.channel, request.rate, request.width, request.height,
                                       request.type, 0, DataFor(request), error));
            EXPECT_EQ(error, ERR_NO_CARD);
            ExpectReason(m, request.reason);
            ExpectCardUntouched(m);
            const bool onlyTheFrame = std::strstr(request.reason, "is null") != nullptr;
            EXPECT_EQ(m.IsInjectFormatAcceptable(request.channel, request.rate, request.width,
                                                 request.height, request.type),
                      onlyTheFrame);
            if (!onlyTheFrame) {
                ExpectReason(m, request.reason);
            }
            ExpectCardUntouched(m);
        }};
}

std::vector<Row> MakeRows() {
    std::vector<Row> rows;
    for (const FrameRequest& request : kRefusedCaptures) {
        rows.push_back(CaptureRefused(request));
    }
    for (const FrameRequest& request : kRefusedInjects) {
        rows.push_back(InjectRefused(request));
    }
    const std::vector<Row> others = {
        {"CaptureWithNullCallbackRecordsOnly",
         [](PCIeDataManager& m) {
             // Accepted: a channel may be captured only to be recorded.
             std::vector<char> buffer(kFrameBytes);
             eErrorCode error = ERR_NO_CARD;
             EXPECT_TRUE(m.StartCapture(0, false, kWidth, kHeight, Y16, error,
                                        static_cast<CaptureFrameCallback>(nullptr), nullptr,
                                        buffer.data()));
             EXPECT_EQ(error, ERR_NONE);
             EXPECT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 0, 3));
             KvCaptureStatistics stats;
             EXPECT_TRUE(WaitFor([&] {
                 return m.GetCaptureStatistics(0, stats) && stats.framesDelivered == 3;
             }));
             m.StopCapture(0);
         }},
        {"ChannelOutsideOnEveryOtherCaptureCall",
         [](PCIeDataManager& m) {
             for (int channel : {-1, 4, INT_MIN, INT_MAX}) {
                 m.StopCapture(channel);
                 ExpectReason(m, ("channel " + std::to_string(channel) + " is outside").c_str());
                 EXPECT_FALSE(m.IsStartCapture(channel));
                 EXPECT_FALSE(m.StartRecord(channel));
                 m.StopRecord(channel);
                 m.ImgSnapShot(channel);
                 m.SetSystemStatusCallback(channel, nullptr, nullptr, true);
                 EXPECT_EQ(m.GetCaptureDelayStatus(channel), nullptr);
                 m.SetImgDisplayDelayTest(channel, true);
                 m.SetCaptureFullScreenWgt(channel, nullptr);
             }
         }},
        {"RecordOfAStoppedChannel",
         [](PCIeDataManager& m) {
             EXPECT_FALSE(m.StartRecord(2));
             ExpectReason(m, "channel 2 is not capturing");
         }},
        {"NullStatusCallbackSwitchedOn",
         [](PCIeDataManager& m) {
             // Taken as switched off: the card's block waits in its mailbox for a callback.
             m.SetSystemStatusCallback(1, nullptr, nullptr, true);
             EXPECT_EQ(m.WriteReg(ControlBlock(1) + kCtlStaging, 0x01020304), 4);
             EXPECT_EQ(m.WriteReg(ControlBlock(1) + kCtlPostStatus, 4), 4);
             const auto mailboxEmpty = [] {
                 QCoreApplication::processEvents();
                 std::uint32_t control = 1;
                 KvPCIeSim::PeekRegister(0, CaptureBlock(1) + 0x28, control);
                 return control == 0;
             };
             EXPECT_FALSE(WaitFor(mailboxEmpty, std::chrono::milliseconds(100)));
             std::vector<QByteArray> blocks;
             m.SetSystemStatusCallback(
                 1,
                 [](int, const QByteArray& data, void* context) {
                     static_cast<std::vector<QByteArray>*>(context)->push_back(data);
                 },
                 &blocks, true);
             EXPECT_TRUE(WaitFor([&] { return mailboxEmpty() && blocks.size() == 1; }));
             m.SetSystemStatusCallback(1, nullptr, nullptr, false);
         }},
        {"NullWidgetsForFullScreen",
         [](PCIeDataManager& m) {
             m.SetCaptureFullScreenWgt(0, nullptr);
             m.SetInjectFullScreenWgt(0, nullptr);
         }},
        {"InjectFrameOver20MiBOnlyWithItsParameterLine",
         [](PCIeDataManager& m) {
             // 4096 x 2560 Y16 fills a card buffer; the parameter line is one line too many.
             m.UpdateParamSimulate(0, true, tagThermalImgParams{});
             eErrorCode error = ERR_NO_CARD;
             std::vector<char> frame(4096 * 2561 * 2);
             EXPECT_FALSE(m.StartInject(0, 25, 4096, 2560, Y16, 0, frame.data(), error));
             EXPECT_EQ(error, ERR_NONE);
             ExpectReason(m, "channel 0 cannot start: the frame with its parameter line");
             ExpectCardUntouched(m);
             m.StopInject(0);
         }},
        {"ChannelOutsideOnEveryOtherInjectCall",
         [](PCIeDataManager& m) {
             for (int channel : {-1, 4, INT_MIN, INT_MAX}) {
                 m.StopInject(channel);
                 ExpectReason(m, ("channel " + std::to_string(channel) + " is outside").c_str());
                 EXPECT_FALSE(m.IsStartInject(channel));
                 EXPECT_EQ(m.GetInjectDelayStatus(channel), nullptr);
                 m.SetInjectFullScreenWgt(channel, nullptr);
                 m.UpdateParamSimulate(channel, true, tagThermalImgParams{});
             }
         }},

        // --- registers and memory
        {"DataIntoOrFromNull",
         [](PCIeDataManager& m) {
             EXPECT_FALSE(m.WriteData(0, 16, nullptr));
             EXPECT_FALSE(m.ReadData(0, 16, nullptr));
             ExpectReason(m, "buffer is null");
         }},
        {"DataAt2GiBOrPastTheEndOfCardMemory",
         [](PCIeDataManager& m) {
             std::vector<unsigned char> buffer(64, 0xAB);
             EXPECT_FALSE(m.WriteData(0x7FFFFFF0u, 64, buffer.data()));
             EXPECT_FALSE(m.ReadData(0x80000000u, 16, buffer.data()));
             ExpectReason(m,
                          "reading 16 bytes at card address 0x80000000 failed: the address is "
                          "at or past 2 GiB");
         }},

        // --- cards and devices
        {"ListIntoNullPaths",
         [](PCIeDataManager& m) { EXPECT_EQ(m.GetDevices(static_cast<char**>(nullptr)), 0); }},
        {"ListIntoNullRiffaList",
         [](PCIeDataManager& m) {
             EXPECT_FALSE(m.GetDevices(static_cast<fpga_info_list*>(nullptr)));
         }},
        {"OpenCardWithNullPathOnlyRenewsTheEngines",
         [](PCIeDataManager& m) {
             EXPECT_TRUE(m.OpenCard(static_cast<char*>(nullptr)));
             EXPECT_EQ(m.ReadReg(KvPCIeSim::kRegIdentity), KvPCIeSim::kIdentityValue);
             m.CloseCard();  // and with no card open, it opens none
             EXPECT_TRUE(m.OpenCard(static_cast<char*>(nullptr)));
             EXPECT_EQ(m.ReadReg(KvPCIeSim::kRegIdentity), 0u);
         }},
        {"OpenCardOfAPathNotListed",
         [](PCIeDataManager& m) {
             char missing[] = "sim:xdma7";
             EXPECT_FALSE(m.OpenCard(missing));
             ExpectReason(m, "no such card: \"sim:xdma7\" is not among the listed XDMA cards");
             EXPECT_EQ(m.ReadReg(KvPCIeSim::kRegIdentity), 0u);  // the old card was closed
             ExpectReason(m, "no XDMA card is open");
         }},
        {"SixthRiffaDeviceStopsTheListing",
         [](PCIeDataManager& m) {
             ASSERT_TRUE(KvPCIeSim::Configure("xdma:1,riffa:6"));
             fpga_info_list list{};
             EXPECT_FALSE(m.GetDevices(&list));
             EXPECT_EQ(list.fpgaCount, 5);
             EXPECT_STREQ(list.name[4], "KvSimRiffa");
         }},
        {"RiffaDeviceIndexNegativeOrNotPresent",
         [](PCIeDataManager& m) {
             EXPECT_FALSE(m.OpenCard(9));
             EXPECT_FALSE(m.OpenCard(-1));
             ExpectReason(m, "RIFFA device index -1 is negative");
         }},
        {"CpuCoreOutsideTheTable",
         [](PCIeDataManager& m) {
             m.ResetUsedCpuCoreIndex(UINT_MAX);
             m.ResetUsedCpuCoreIndex(4096);
             ExpectReason(m, "core 4096 is outside the table");
         }},
    };
    rows.insert(rows.end(), others.begin(), others.end());
    return rows;
}

class BadInput : public ::testing::TestWithParam<Row> {
protected:
    void SetUp() override {
        Application();
        kvpcie::testing::UnsetEnvironment("KVPCIE_SIM");
        ASSERT_TRUE(KvPCIeSim::Configure("xdma:1,riffa:1"));
        ASSERT_TRUE(manager.OpenCard(path));
        KvPCIeSim::TakeAccessLog(0);
    }
    void TearDown() override { manager.CloseCard(); }

    // The library still works: the card opens, its registers answer, a frame is captured and
    // one is injected.
    void ExpectStillWorking() {
        ASSERT_TRUE(KvPCIeSim::Configure("xdma:1,riffa:1"));
        ASSERT_TRUE(manager.OpenCard(path));
        EXPECT_EQ(manager.ReadReg(KvPCIeSim::kRegIdentity), KvPCIeSim::kIdentityValue);
        FrameSink sink(kFrameBytes);
        eErrorCode error = ERR_NO_CARD;
        ASSERT_TRUE(manager.WriteReg(ControlBlock(3) + KvPCIeSim::kCtlExternalFrameRate, 0) == 4);
        ASSERT_TRUE(manager.StartCapture(3, false, kWidth, kHeight, Y16, error, &FrameSink::OnFrame,
                                         &sink, sink.buffer.data()));
        ASSERT_TRUE(KvPCIeSim::ProduceCaptureFrames(0, 3, 1));
        EXPECT_TRUE(WaitFor([&] { return sink.delivered == 1; }));
        manager.StopCapture(3);
        EXPECT_EQ(sink.badFrames, 0);
        std::vector<char> frame(kFrameBytes, 1);
        EXPECT_TRUE(manager.StartInject(3, 25, kWidth, kHeight, Y16, 0, frame.data(), error));
        EXPECT_EQ(error, ERR_NONE);
        manager.StopInject(3);
    }

    ScratchDir scratch{true};
    char path[16] = "sim:xdma0";
    PCIeDataManager manager;
};

TEST_P(BadInput, IsRefusedAndLeavesTheLibraryWorking) {
    GetParam().run(manager);
    ExpectStillWorking();
}

INSTANTIATE_TEST_SUITE_P(Rows, BadInput, ::testing::ValuesIn(MakeRows()),
                         [](const ::testing::TestParamInfo<Row>& info) {
                             return std::string(info.param.name);
                         });

}  // namespace
}  // namespace kvpcie::testing
