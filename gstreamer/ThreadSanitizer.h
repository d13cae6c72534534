// What ThreadSanitizer cannot see by itself: a buffer comes back out of a GStreamer pool only
// after its last holder let it go, an order that GLib keeps with atomics of its own, built
// without the sanitizer. Where the holder says so (__tsan_release on the buffer, as the plugin's
// suite does), this makes the order visible. Nothing in other builds.
#pragma once

#include <gst/gst.h>

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* address);
#endif

namespace kvpcie::gst {

inline void TakenFromPool(GstBuffer* buffer) {
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(buffer);
#else
    (void)buffer;
#endif
}

}  // namespace kvpcie::gst
