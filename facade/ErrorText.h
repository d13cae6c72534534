// The reason for the last failed call into a PCIeDataManager, kept per calling thread (as
// errno is): WriteControlCmd may be called from any thread, and one thread's failure must not
// overwrite the reason another thread is about to read.
#pragma once

#include <cstdint>
#include <string>

namespace kvpcie {

// Empties the calling thread's reason; every public operation starts with it.
void ClearErrorText();
// Sets the calling thread's reason, printf-style; cut at 255 characters.
void SetErrorText(const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;
// The calling thread's reason; "" after a success. Valid until the thread's next call.
const char* ErrorText();
// 25165824 -> "25,165,824": the way byte counts are written in the reasons.
std::string GroupedDigits(std::uint64_t value);

}  // namespace kvpcie
