// What ThreadSanitizer cannot see by itself: GStreamer hands a buffer between threads (a pad's
// queue, a buffer pool that gives a buffer out again after its last holder let it go) through
// GLib's futexes and atomics, built without the sanitizer. Where the thread that handed the
// buffer on says so (__tsan_release on it, as the plugin's suite does), this makes the order
// visible. Nothing in other builds.
#pragma once

#include <gst/gst.h>

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* address);
#endif

namespace kvpcie::gst {

inline void ReceivedThroughGStreamer(GstBuffer* buffer) {
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(buffer);
#else
    (void)buffer;
#endif
}

}  // namespace kvpcie::gst
