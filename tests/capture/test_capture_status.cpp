// Status blocks through the facade, from the card's mailbox to the host's event loop. Registers
// only, so that it also runs on the driver model.
#include "../support/TestCard.h"
#include "CaptureTestSupport.h"

#include "../support/Application.h"
#include "../support/TempDir.h"

#include <QCoreApplication>

#include <cstdlib>

namespace kvpcie::testing {
namespace {

struct StatusSink {
    std::vector<QByteArray> blocks;
    static void OnStatus(int channel, const QByteArray& data, void* context) {
        auto* sink = static_cast<StatusSink*>(context);
        sink->blocks.push_back(QByteArray::number(channel) + ":" + data);
    }
};

class StatusChannel : public ::testing::Test {
protected:
    void SetUp() override {
        Application();
        ASSERT_TRUE(PrepareTestCard());
        ASSERT_TRUE(manager.OpenCard(path.data()));
    }
    void TearDown() override { manager.CloseCard(); }

    // Stages `size` bytes 0, 1, 2, ... + `seed` and posts them as one block.
    void Post(int channel, int size, int seed = 0) {
        for (int k = 0; k < size; k += 4) {
            std::uint32_t word = 0;
            for (int b = 0; b < 4; ++b) {
                word |= static_cast<std::uint32_t>((k + b + seed) & 0xFF) << (8 * b);
            }
            ASSERT_EQ(
                manager.WriteReg(ControlBlock(channel) + kCtlStaging + k, static_cast<int>(word)),
                4);
        }
        ASSERT_EQ(manager.WriteReg(ControlBlock(channel) + kCtlPostStatus, size), 4);
    }
    static QByteArray Block(int channel, int size, int seed = 0) {
        QByteArray bytes = QByteArray::number(channel) + ":";
        for (int k = 0; k < size; ++k) {
            bytes.append(static_cast<char>((k + seed) & 0xFF));
        }
        return bytes;
    }
    bool MailboxEmpty(int channel) {
        return manager.ReadReg(CaptureBlock(channel) + 0x28) == 0;
    }
    // Runs the event loop until `count` blocks have arrived.
    bool Deliver(StatusSink& sink, std::size_t count) {
        return WaitFor([&] {
            QCoreApplication::processEvents();
            return sink.blocks.size() >= count;
        });
    }

    std::string path = TestCardPath();
    PCIeDataManager manager;
};

TEST_F(StatusChannel, BlocksOfFourFiveAndMaximalLengthArriveWhole) {
    StatusSink sink;
    manager.SetSystemStatusCallback(1, &StatusSink::OnStatus, &sink, true);
    const int sizes[] = {4, 5, 1024};
    for (std::size_t k = 0; k < 3; ++k) {
        Post(1, sizes[k], static_cast<int>(k));
        ASSERT_TRUE(Deliver(sink, k + 1));
        EXPECT_EQ(sink.blocks[k], Block(1, sizes[k], static_cast<int>(k)));
    }
}

TEST_F(StatusChannel, ABlockThatWouldOverflowTheBufferIsDroppedWhole) {
    StatusSink sink;
    manager.SetSystemStatusCallback(0, &StatusSink::OnStatus, &sink, true);
    // Both blocks are collected before the event loop runs the delivery tick.
    Post(0, 1000, 1);
    Post(0, 1000, 2);
    ASSERT_TRUE(WaitFor([&] { return MailboxEmpty(0); }));
    ASSERT_TRUE(Deliver(sink, 1));
    Post(0, 8, 3);
    ASSERT_TRUE(Deliver(sink, 2));
    EXPECT_EQ(sink.blocks[0], Block(0, 1000, 1));
    EXPECT_EQ(sink.blocks[1], Block(0, 8, 3));
}

TEST_F(StatusChannel, ASwitchedOffChannelLeavesItsBlocksInTheMailbox) {
    StatusSink sink;
    manager.SetSystemStatusCallback(2, &StatusSink::OnStatus, &sink, true);
    manager.SetSystemStatusCallback(2, nullptr, nullptr, false);
    manager.SetSystemStatusCallback(3, &StatusSink::OnStatus, &sink, true);
    Post(2, 16);
    Post(3, 4);
    ASSERT_TRUE(Deliver(sink, 1));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    QCoreApplication::processEvents();
    EXPECT_EQ(sink.blocks, std::vector<QByteArray>{Block(3, 4)});
    EXPECT_FALSE(MailboxEmpty(2)) << "channel 2's block was neither read nor cleared";
}

}  // namespace
}  // namespace kvpcie::testing
