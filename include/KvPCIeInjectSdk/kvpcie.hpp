/** \file
 * C++11 over the C interface, header only: a card that closes itself, exceptions that carry the
 * library's text, frame callbacks as std::function and pulled frames as a method. Everything
 * goes through kvpcie.h, so a program built with another compiler than the library's (MSVC
 * against the mingw DLL) gets C++ without depending on the ABI of the library's C++ classes.
 *
 *     kvpcie::card card;                                  // the first card listed
 *     card.start_capture(0, true, 640, 512, KVPCIE_Y16, [](const kvpcie_frame& frame) {
 *         // frame.data holds frame.bytes bytes, valid during the call
 *     });
 *     card.start_record(0);                               // raw files below record_root()
 */
#ifndef KVPCIE_HPP
#define KVPCIE_HPP

#include <KvPCIeInjectSdk/kvpcie.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace kvpcie {

/** A call of the library that failed: its status and the library's own words for why. */
class error : public std::runtime_error {
public:
    error(kvpcie_status status, const std::string& text)
        : std::runtime_error(text), status_(status) {}
    /** KVPCIE_ERROR, KVPCIE_BAD_ARGUMENT, ... */
    kvpcie_status status() const { return status_; }

private:
    kvpcie_status status_;
};

/** Throws kvpcie::error with the calling thread's text unless `status` is KVPCIE_OK. */
inline void check(kvpcie_status status) {
    if (status != KVPCIE_OK) {
        throw error(status, kvpcie_last_error());
    }
}

namespace detail {
/** What a text call of the C interface writes, in a buffer that grows until the text fits (the
   call refuses a short one with KVPCIE_BAD_ARGUMENT). */
template <typename Call>
std::string read_text(Call call) {
    std::vector<char> text(256);
    for (;;) {
        const kvpcie_status status = call(&text[0], text.size());
        if (status == KVPCIE_OK) {
            return std::string(&text[0]);
        }
        if (status != KVPCIE_BAD_ARGUMENT || text.size() >= 65536) {
            check(status);
        }
        text.resize(text.size() * 2);
    }
}
}  // namespace detail

/** The root below which every card's recordings go from the next take on ("" restores the
   default; a relative folder is taken from the current folder now). */
inline void set_record_root(const std::string& folder) {
    check(kvpcie_set_record_root(folder.c_str()));
}
/** The root of the recordings now, as an absolute folder. */
inline std::string record_root() {
    return detail::read_text(
        [](char* text, size_t capacity) { return kvpcie_record_root(text, capacity); });
}

/** The XDMA card paths the library lists. */
inline std::vector<std::string> list_cards() {
    std::vector<std::string> paths;
    kvpcie_list* list = kvpcie_list_xdma();
    if (list == nullptr) {
        throw error(KVPCIE_ERROR, kvpcie_last_error());
    }
    for (int32_t i = 0; i < kvpcie_list_count(list); ++i) {
        paths.push_back(kvpcie_list_path(list, i));
    }
    kvpcie_list_free(list);
    return paths;
}

/** One open XDMA card; closed when the object goes (which returns once no callback of it runs).
   Movable, not copyable. */
class card {
public:
    /** Called on the card's polling thread for each frame; an exception it throws is dropped
       (it cannot cross into the library's thread). */
    typedef std::function<void(const kvpcie_frame&)> frame_handler;

    /** The card at `path` (from list_cards; "" for the first one listed). */
    explicit card(const std::string& path = std::string())
        : handle_(kvpcie_open(path.c_str())), slots_(new slot[KVPCIE_CHANNELS]) {
        if (handle_ == nullptr) {
            throw error(KVPCIE_NO_CARD, kvpcie_last_error());
        }
    }
    ~card() { close(); }
    card(card&& other) noexcept : handle_(other.handle_), slots_(std::move(other.slots_)) {
        other.handle_ = nullptr;
    }
    card& operator=(card&& other) noexcept {
        if (this != &other) {
            close();
            handle_ = other.handle_;
            slots_ = std::move(other.slots_);
            other.handle_ = nullptr;
        }
        return *this;
    }
    card(const card&) = delete;
    card& operator=(const card&) = delete;

    /** Stops what the card object started and lets the card go; done by the destructor too. */
    void close() {
        if (handle_ != nullptr) {
            kvpcie_close(handle_);
            handle_ = nullptr;
        }
    }
    /** The C handle, for the calls this class does not wrap. */
    kvpcie_card* handle() const { return handle_; }
    std::string path() const { return kvpcie_card_path(handle_); }

    uint32_t read_reg(uint32_t address) {
        uint32_t value = 0;
        check(kvpcie_read_reg(handle_, address, &value));
        return value;
    }
    void write_reg(uint32_t address, uint32_t value) {
        check(kvpcie_write_reg(handle_, address, value));
    }

    /** Captures `channel` into a buffer of the card object's own and hands each frame to
       `handler` (see frame_handler). A started channel is started again. */
    void start_capture(int32_t channel, bool card_timing, int32_t width, int32_t height,
                       int32_t pixel_type, frame_handler handler) {
        const uint64_t bytes = kvpcie_frame_bytes(pixel_type, width, height);
        slot* target = slot_of(channel);
        // The old run's callback may still use the old buffer and handler: stop it first.
        check(kvpcie_stop_capture(handle_, channel));
        target->buffer.assign(static_cast<size_t>(bytes), 0);
        target->handler = std::move(handler);
        check(kvpcie_start_capture(handle_, channel, card_timing ? 1 : 0, width, height, pixel_type,
                                   target->buffer.empty() ? nullptr : &target->buffer[0],
                                   &card::deliver, target));
    }
    /** Returns once no callback of the channel runs or will run. */
    void stop_capture(int32_t channel) { check(kvpcie_stop_capture(handle_, channel)); }

    /** Captures `channel` for pull(): the library keeps its newest `depth` (1 to 64) frames. */
    void start_pull(int32_t channel, bool card_timing, int32_t width, int32_t height,
                    int32_t pixel_type, int32_t depth) {
        slot* target = slot_of(channel);
        check(kvpcie_start_pull(handle_, channel, card_timing ? 1 : 0, width, height, pixel_type,
                                depth));
        target->pulled_bytes = static_cast<size_t>(kvpcie_frame_bytes(pixel_type, width, height));
    }
    /** The oldest waiting frame of a pulled channel into `frame` (resized to fit), with its
       record; waits up to `timeout_ms` (-1: no limit). False when none came in time; an error
       with KVPCIE_STOPPED once the channel stopped and nothing waits. */
    bool pull(int32_t channel, std::vector<unsigned char>& frame, kvpcie_pulled_frame& record,
              int32_t timeout_ms) {
        record = kvpcie_pulled_frame();
        record.size = sizeof record;
        // The frame size of the channel's start_pull (a channel pulled through the C handle
        // directly: what `frame` holds already).
        const size_t bytes = slot_of(channel)->pulled_bytes;
        if (frame.size() < bytes || frame.empty()) {
            frame.resize(bytes > 0 ? bytes : 1);
        }
        const kvpcie_status status =
            kvpcie_pull(handle_, channel, &frame[0], frame.size(), &record, timeout_ms);
        if (status == KVPCIE_TIMEOUT) {
            return false;
        }
        check(status);
        frame.resize(static_cast<size_t>(record.bytes));
        return true;
    }

    /** Queues one frame (copied) for `channel`; false when 15 frames wait (offer it again
       later). The first frame of a run programs the channel with `format`. */
    bool inject(int32_t channel, const kvpcie_inject_format& format, const void* frame) {
        kvpcie_inject_format sized = format;
        sized.size = sizeof sized;
        const kvpcie_status status = kvpcie_inject_with_format(handle_, channel, &sized, frame);
        if (status == KVPCIE_QUEUE_FULL) {
            return false;
        }
        check(status);
        return true;
    }
    void stop_inject(int32_t channel) { check(kvpcie_stop_inject(handle_, channel)); }

    /** Records the capturing `channel` raw, each take in a folder of its own below
       record_root(). */
    void start_record(int32_t channel) { check(kvpcie_start_record(handle_, channel)); }
    void stop_record(int32_t channel) { check(kvpcie_stop_record(handle_, channel)); }
    /** The folder of the channel's current take, or of its last one ("" before any). Not
       inside a frame handler. */
    std::string record_take_folder(int32_t channel) {
        slot_of(channel);  // a bad channel is named, not taken for a short buffer
        kvpcie_card* const handle = handle_;
        return detail::read_text([handle, channel](char* text, size_t capacity) {
            return kvpcie_record_take_folder(handle, channel, text, capacity);
        });
    }

    kvpcie_capture_statistics capture_statistics(int32_t channel) {
        kvpcie_capture_statistics statistics = kvpcie_capture_statistics();
        statistics.size = sizeof statistics;
        check(kvpcie_capture_statistics_get(handle_, channel, &statistics));
        return statistics;
    }
    kvpcie_inject_statistics inject_statistics(int32_t channel) {
        kvpcie_inject_statistics statistics = kvpcie_inject_statistics();
        statistics.size = sizeof statistics;
        check(kvpcie_inject_statistics_get(handle_, channel, &statistics));
        return statistics;
    }

private:
    struct slot {
        std::vector<unsigned char> buffer;
        frame_handler handler;
        size_t pulled_bytes = 0;
    };

    slot* slot_of(int32_t channel) {
        if (channel < 0 || channel >= KVPCIE_CHANNELS) {
            throw error(KVPCIE_BAD_ARGUMENT,
                        "channel " + std::to_string(channel) + " is outside 0 to 3");
        }
        return &slots_[static_cast<size_t>(channel)];
    }

    static void KVPCIE_CALL deliver(const kvpcie_frame* frame, void* context) {
        slot* target = static_cast<slot*>(context);
        try {
            if (target->handler) {
                target->handler(*frame);
            }
        } catch (...) {
            // Nothing may unwind into the library's polling thread.
        }
    }

    kvpcie_card* handle_;
    std::unique_ptr<slot[]> slots_;  // stays where it is when the card object moves
};

}  // namespace kvpcie

#endif /* KVPCIE_HPP */
