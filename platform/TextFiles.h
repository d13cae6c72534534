// What a line feed costs on disk when written to a text-mode C stream: Windows writes CR LF.
#pragma once

namespace kvpcie::platform {

#ifdef _WIN32
inline constexpr long kTextLineFeedBytes = 2;
#else
inline constexpr long kTextLineFeedBytes = 1;
#endif

}  // namespace kvpcie::platform
