// The model of one device under the RIFFA driver: the driver's send, receive, list and reset
// requests, the card's register logic behind channel 0, and the log of what the host asked.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeSimulation.h>

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace kvpcie::sim {

// How the device ended one driver request; the OS layer turns it into its own outcome.
struct RiffaAnswer {
    enum class Kind {
        Completed,  // `count` as the driver gives it
        Refused,    // a malformed request: the driver's invalid-parameter failure
        Removed,    // the device is gone
        TimedOut,   // the card never answered: the driver ends the request as aborted
    };
    Kind kind = Kind::Refused;
    std::uint32_t count = 0;
};

// Shared by the registry and by every open handle, so a handle outlives the device's removal
// safely and then fails. All members are thread-safe.
class SimRiffaDevice {
public:
    explicit SimRiffaDevice(int number) : number_(number) {}
    SimRiffaDevice(const SimRiffaDevice&) = delete;
    SimRiffaDevice& operator=(const SimRiffaDevice&) = delete;

    int Number() const { return number_; }

    // --- the host's side: one request as it reaches the driver ---
    RiffaAnswer Control(std::uint32_t code, const void* input, std::uint32_t inputBytes,
                        void* output, std::uint32_t outputBytes);

    // --- the control side ---
    void SetRemoved();
    void SetNeverAnswers(bool never);
    std::vector<KvPCIeSim::RiffaRequest> TakeRequestLog();
    std::uint32_t PeekRegister(std::uint32_t address) const;
    void PokeRegister(std::uint32_t address, std::uint32_t value);

private:
    static constexpr std::size_t kRequestLogCapacity = 4096;
    static constexpr std::size_t kReplyBytes = 16;
    using Reply = std::array<std::uint8_t, kReplyBytes>;

    RiffaAnswer SendLocked(const KvPCIeSim::RiffaRequest& request, const std::uint8_t* data,
                           std::uint32_t dataBytes);
    RiffaAnswer ReceiveLocked(const KvPCIeSim::RiffaRequest& request, std::uint8_t* output,
                              std::uint32_t outputBytes);
    RiffaAnswer ListLocked(std::int32_t index, std::uint8_t* output, std::uint32_t outputBytes);
    void RegisterRequestLocked(const std::uint8_t* words, std::int32_t offset);
    std::uint32_t RegisterValueLocked(std::uint32_t address) const;
    void StoreRegisterLocked(std::uint32_t address, std::uint32_t value);
    void LogLocked(KvPCIeSim::RiffaRequest request);

    const int number_;
    mutable std::mutex mutex_;
    bool removed_ = false;
    bool neverAnswers_ = false;
    std::unordered_map<std::uint32_t, std::uint32_t> registers_;
    std::map<std::int32_t, std::deque<Reply>> replies_;  // by channel
    std::deque<KvPCIeSim::RiffaRequest> requestLog_;
};

}  // namespace kvpcie::sim
