// The card and channel of one element, source or sink: its `device` and `channel` properties,
// and from its start to its stop the shared card, opened or joined, with the channel claimed.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeSharedCard.h>

#include <gst/gst.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace kvpcie::gst {

using KvPCIe::SharedCard;

// Property ids the elements share; their own follow from kFirstElementProperty.
enum CardProperty : guint { kPropDevice = 1, kPropChannel, kFirstElementProperty };

// Flags of the properties read at the element's start.
constexpr GParamFlags kReadAtStart =
    GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);

void InstallCardProperties(GObjectClass* klass, const char* channelBlurb);

class ElementChannel {
public:
    explicit ElementChannel(SharedCard::Direction direction) : direction_(direction) {}

    // The device and channel properties, under the element's object lock; false for other ids.
    bool SetProperty(guint id, const GValue* value);
    bool GetProperty(guint id, GValue* value) const;

    // Opens or joins the card and claims the channel; false, with an element error posted, when
    // either failed.
    // `onLost`, when given, is called once on the card thread if the card is found gone.
    bool Open(GstElement* element, std::function<void()> onLost = {});
    void Close();

    bool IsOpen() const { return card_ != nullptr; }
    // Between Open and Close.
    SharedCard& Card() { return *card_; }
    guint Channel() const { return openChannel_; }

    // Calls `read(manager, channel)` while the card is open; safe against a Close on another
    // thread, for the calls that the library takes from any thread.
    template <typename Read>
    void ReadWhileOpen(Read read) {
        std::lock_guard<std::mutex> lock(lock_);
        if (card_) {
            read(card_->AnyThreadManager(), static_cast<int>(openChannel_));
        }
    }

private:
    const SharedCard::Direction direction_;
    std::string device_;  // properties
    guint channel_ = 0;
    std::mutex lock_;  // guards card_ against ReadWhileOpen
    std::unique_ptr<SharedCard> card_;
    guint openChannel_ = 0;
};

}  // namespace kvpcie::gst
