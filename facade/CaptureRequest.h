// The capture requests that the facade refuses before anything reaches the card.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

// False, with the reason as the thread's error text, for a channel outside 0 to 3, a null frame
// buffer, a pixel type outside 0 to 5, a width or height outside 1 to 65535 (the card's 16-bit
// geometry fields), or a frame larger than one 20 MiB card buffer.
bool IsCaptureRequestAcceptable(unsigned channel, int width, int height, ePixelType pixelType,
                                const char* frameBuffer);
// The same without the buffer: the format alone.
bool IsCaptureFormatAcceptable(unsigned channel, int width, int height, ePixelType pixelType);
