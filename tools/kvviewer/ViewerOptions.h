// What the kvviewer command line asks for.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <array>
#include <string>
#include <vector>

namespace kvpcie::viewer {

struct ViewerOptions {
    bool simulated = false;
    int card = 0;  // index in the card picker's listing
    bool cardGiven = false;
    bool cardTiming = false;
    // Small enough that four channels fit a screen at full size.
    int width = 640;
    int height = 512;
    ePixelType pixelType = Y16;
    bool formatGiven = false;  // the format kept from the last session is not used then
    std::array<bool, 4> channels = {true, true, true, true};
    bool autostart = false;
    std::string screenshot;        // the four pictures; empty: none
    std::string windowScreenshot;  // the whole window; empty: none
    bool noSettings = false;       // neither read nor write the kept settings
    bool demo = false;             // the simulated card's tour: a live channel and a loopback
    std::string tab;               // the channel panel shown first: inspect, inject, ...
    std::string output;            // recordings and snapshots; empty: the folder kept, or the
                                   // library's default
    int quitAfterMs = -1;    // negative: run until closed
};

struct ParsedOptions {
    ViewerOptions options;
    bool help = false;
    std::string error;  // empty when the command line was understood
};

// `args` without the program name. Both "--width 640" and "--width=640" are understood.
ParsedOptions ParseViewerOptions(const std::vector<std::string>& args);

extern const char* const kUsage;

}  // namespace kvpcie::viewer
