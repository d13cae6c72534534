// The inject requests that the facade refuses before anything reaches the card.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

// False, with the reason as the thread's error text, for a null frame and for every format
// that the inject engine cannot start a channel with (parameter line not counted).
bool IsInjectRequestAcceptable(const KvFrameFormat& format, const char* frameData);
// The same for the format alone.
bool IsInjectFormatAcceptable(const KvFrameFormat& format);
