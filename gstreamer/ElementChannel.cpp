// The card and channel properties of an element, and claiming the channel for it.
#include "ElementChannel.h"

namespace kvpcie::gst {

void InstallCardProperties(GObjectClass* klass, const char* channelBlurb) {
    g_object_class_install_property(
        klass, kPropDevice,
        g_param_spec_string("device", "Device",
                            "Card path as listed (\"sim:xdma0\"); none: the first XDMA card",
                            nullptr, kReadAtStart));
    g_object_class_install_property(
        klass, kPropChannel,
        g_param_spec_uint("channel", "Channel", channelBlurb, 0, 3, 0, kReadAtStart));
}

bool ElementChannel::SetProperty(guint id, const GValue* value) {
    switch (id) {
        case kPropDevice: {
            const gchar* device = g_value_get_string(value);
            device_ = device != nullptr ? device : "";
            return true;
        }
        case kPropChannel:
            channel_ = g_value_get_uint(value);
            return true;
        default:
            return false;
    }
}

bool ElementChannel::GetProperty(guint id, GValue* value) const {
    switch (id) {
        case kPropDevice:
            g_value_set_string(value, device_.empty() ? nullptr : device_.c_str());
            return true;
        case kPropChannel:
            g_value_set_uint(value, channel_);
            return true;
        default:
            return false;
    }
}

bool ElementChannel::Open(GstElement* element, std::function<void()> onLost) {
    GST_OBJECT_LOCK(element);
    const std::string device = device_;
    const guint channel = channel_;
    GST_OBJECT_UNLOCK(element);
    const bool capture = direction_ == SharedCard::Direction::Capture;
    std::string why;
    std::unique_ptr<SharedCard> card = SharedCard::Acquire(device, why);
    if (!card) {
        if (capture) {
            GST_ELEMENT_ERROR(element, RESOURCE, OPEN_READ, ("%s", why.c_str()), (nullptr));
        } else {
            GST_ELEMENT_ERROR(element, RESOURCE, OPEN_WRITE, ("%s", why.c_str()), (nullptr));
        }
        return false;
    }
    if (!card->Claim(direction_, channel)) {
        GST_ELEMENT_ERROR(element, RESOURCE, BUSY,
                          ("%s channel %u of %s is taken by another element",
                           capture ? "capture" : "inject", channel, card->Path().c_str()),
                          (nullptr));
        return false;
    }
    if (onLost) {
        card->SetLostCallback(std::move(onLost));
    }
    std::lock_guard<std::mutex> lock(lock_);
    card_ = std::move(card);
    openChannel_ = channel;
    return true;
}

void ElementChannel::Close() {
    std::unique_ptr<SharedCard> card;
    {
        std::lock_guard<std::mutex> lock(lock_);
        card = std::move(card_);
    }
    if (card) {
        card->Unclaim(direction_, openChannel_);
    }
}

}  // namespace kvpcie::gst
