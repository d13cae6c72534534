// kvpcie.hpp from C++11 with warnings as errors, on the simulated card: callbacks as
// std::function, pulled frames, a full queue as false, recording texts of any length, and
// failures as exceptions with the library's text. Plain checks: a test framework would want a newer C++.
#include <KvPCIeInjectSdk/kvpcie.hpp>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <utility>

namespace {

int failures = 0;

#define CHECK(condition)                                                      \
    do {                                                                      \
        if (!(condition)) {                                                   \
            ++failures;                                                       \
            std::fprintf(stderr, "FAIL line %d: %s\n", __LINE__, #condition); \
        }                                                                     \
    } while (0)

const int kWidth = 64;
const int kHeight = 32;

uint32_t Control(int channel, uint32_t offset) {
    return 0x1F1000u + static_cast<uint32_t>(channel) * 0x1000u + offset;
}

bool IsPattern(const unsigned char* frame, size_t bytes, int channel) {
    uint32_t number = 0;
    std::memcpy(&number, frame, sizeof number);
    if (frame[4] != channel) {
        return false;
    }
    for (size_t k = 8; k < bytes; ++k) {
        if (frame[k] != static_cast<unsigned char>((k + number) % 256)) {
            return false;
        }
    }
    return true;
}

void CallbacksAndPullsGiveTheCardsPattern() {
    kvpcie::card card;
    CHECK(card.path() == kvpcie::list_cards().front());
    card.write_reg(Control(0, 0x04), 200);
    card.write_reg(Control(1, 0x04), 200);
    std::atomic<int> frames(0);
    std::atomic<int> wrong(0);
    card.start_capture(0, false, kWidth, kHeight, KVPCIE_Y8, [&](const kvpcie_frame& frame) {
        if (!IsPattern(static_cast<const unsigned char*>(frame.data),
                       static_cast<size_t>(frame.bytes), 0)) {
            ++wrong;
        }
        ++frames;
    });
    card.start_pull(1, false, kWidth, kHeight, KVPCIE_Y8, 4);
    std::vector<unsigned char> pulled;
    kvpcie_pulled_frame record;
    for (int i = 0; i < 5; ++i) {
        CHECK(card.pull(1, pulled, record, 2000));
        CHECK(pulled.size() == static_cast<size_t>(kWidth * kHeight));
        CHECK(IsPattern(pulled.data(), pulled.size(), 1));
    }
    // The card object moves; its callbacks go on into the same handler.
    kvpcie::card moved(std::move(card));
    const int before = frames.load();
    for (int waited = 0; waited < 200 && frames.load() < before + 5; ++waited) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    CHECK(frames.load() >= before + 5);
    moved.stop_capture(0);
    CHECK(wrong.load() == 0);
    CHECK(moved.capture_statistics(0).frames_delivered == static_cast<uint64_t>(frames.load()));
    moved.stop_capture(1);
    bool stopped = false;
    try {
        while (moved.pull(1, pulled, record, 1000)) {
        }
    } catch (const kvpcie::error& e) {
        stopped = e.status() == KVPCIE_STOPPED;
    }
    CHECK(stopped);
}

void AFullQueueIsFalseAndFailuresThrowWithTheirText() {
    kvpcie::card card("sim:xdma0");
    kvpcie_inject_format format = kvpcie_inject_format();
    format.frame_rate = 1;  // the queue fills at once
    format.width = kWidth;
    format.height = kHeight;
    format.pixel_type = KVPCIE_Y8;
    std::vector<unsigned char> frame(static_cast<size_t>(kWidth * kHeight), 0x5A);
    int queued = 0;
    while (queued < 40 && card.inject(2, format, frame.data())) {
        ++queued;
    }
    CHECK(queued > 0 && queued < 40);
    CHECK(card.inject_statistics(2).frames_queued == static_cast<uint64_t>(queued));
    card.stop_inject(2);

    bool named = false;
    try {
        card.start_capture(7, true, kWidth, kHeight, KVPCIE_Y8, nullptr);
    } catch (const kvpcie::error& e) {
        named = e.status() == KVPCIE_BAD_ARGUMENT && std::strstr(e.what(), "7") != nullptr;
    }
    CHECK(named);
    bool refused = false;
    try {
        kvpcie::card missing("sim:no-such-card");
    } catch (const kvpcie::error& e) {
        refused = e.status() == KVPCIE_NO_CARD && std::strlen(e.what()) > 0;
    }
    CHECK(refused);
}

// Texts longer than the wrapper's first buffer come back whole; refusals throw.
void RecordingCallsReadTextsOfAnyLengthAndThrowWhenRefused() {
    const std::string root = "hpp-records/" + std::string(300, 'r');
    kvpcie::set_record_root(root);  // nothing is made before a take starts
    const std::string read = kvpcie::record_root();
    CHECK(read.size() > root.size() &&
          read.compare(read.size() - root.size(), root.size(), root) == 0);
    kvpcie::set_record_root("");
    CHECK(kvpcie::record_root() != read);

    kvpcie::card card("sim:xdma0");
    CHECK(card.record_take_folder(1).empty());
    bool notCapturing = false;
    try {
        card.start_record(1);
    } catch (const kvpcie::error& e) {
        notCapturing = e.status() == KVPCIE_ERROR;
    }
    CHECK(notCapturing);
    bool named = false;
    try {
        card.record_take_folder(9);
    } catch (const kvpcie::error& e) {
        named = e.status() == KVPCIE_BAD_ARGUMENT && std::strstr(e.what(), "9") != nullptr;
    }
    CHECK(named);
}

}  // namespace

int main() {
    kvpcie::check(kvpcie_sim_configure("xdma:1,riffa:1"));
    CallbacksAndPullsGiveTheCardsPattern();
    AFullQueueIsFalseAndFailuresThrowWithTheirText();
    RecordingCallsReadTextsOfAnyLengthAndThrowWhenRefused();
    kvpcie_sim_configure("");
    std::printf("%s: %d failure(s)\n", failures == 0 ? "PASS" : "FAIL", failures);
    return failures == 0 ? 0 : 1;
}
