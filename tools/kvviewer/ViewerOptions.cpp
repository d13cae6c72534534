// What the kvviewer command line asks for.
#include "ViewerOptions.h"

#include <algorithm>
#include <iterator>

#include "PixelTypeNames.h"

#include <climits>
#include <cstdint>
#include <optional>
#include <string_view>

namespace kvpcie::viewer {

const char* const kUsage =
    "usage: kvviewer [--sim] [--card N] [--card-timing] [--width W] [--height H] [--type TYPE]\n"
    "                [--channels LIST] [--autostart] [--screenshot FILE]\n"
    "                [--window-screenshot FILE] [--no-settings] [--demo] [--tab NAME]\n"
    "                [--output DIR] [--quit-after MS]\n"
    "\n"
    "The bench's window: capture channels 0-3 of an XDMA card live, with their format chosen at\n"
    "run time, recording and snapshots, a histogram and pixel inspector, and panels to inject,\n"
    "send commands, watch status blocks and read and write registers.\n"
    "  --sim              use the simulated card (as KVPCIE_SIM=1)\n"
    "  --card N           card N of the listing, 0 to 3 (the last one used, or the first)\n"
    "  --card-timing      the card generates the frame timing (25 frames per second)\n"
    "  --width, --height  frame size, 1 to 65535 (the last one used, or 640 x 512)\n"
    "  --type             UYVY422, Y8, Y16 (default), Y16&Y8 or BGR24\n"
    "  --channels         the channels to use, e.g. 0,2 (all); the others stay greyed out\n"
    "  --autostart        start the channels at once\n"
    "  --screenshot FILE  save a picture of the four channels when the window closes\n"
    "  --window-screenshot FILE  save a picture of the whole window when it closes\n"
    "  --no-settings      neither use nor keep the last card, formats and window layout\n"
    "  --demo             on the simulated card (--sim unless a driver model is named):\n"
    "                     channel 0 live, and a moving pattern injected into channel 1 and\n"
    "                     captured back through the card's loopback\n"
    "  --tab NAME         the channel panel shown: inspect, inject, command, status, registers\n"
    "  --output DIR, -o DIR  recordings (DIR/Capture<N>/<take>/) and snapshots go here (the\n"
    "                     folder chosen last, or VideoRecord beside the program)\n"
    "  --quit-after MS    close the window after MS milliseconds\n";

namespace {

std::optional<int> ParseNumber(std::string_view text, int low, int high) {
    if (text.empty() || text.size() > 10) {
        return std::nullopt;
    }
    long long value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + (c - '0');
    }
    if (value < low || value > high) {
        return std::nullopt;
    }
    return static_cast<int>(value);
}

std::optional<std::array<bool, 4>> ParseChannels(std::string_view text) {
    std::array<bool, 4> chosen = {};
    while (true) {
        const std::size_t comma = text.find(',');
        const auto channel = ParseNumber(text.substr(0, comma), 0, 3);
        if (!channel) {
            return std::nullopt;
        }
        chosen[static_cast<std::size_t>(*channel)] = true;
        if (comma == std::string_view::npos) {
            return chosen;
        }
        text.remove_prefix(comma + 1);
    }
}

}  // namespace

ParsedOptions ParseViewerOptions(const std::vector<std::string>& args) {
    ParsedOptions parsed;
    ViewerOptions& options = parsed.options;
    const auto fail = [&parsed](const std::string& message) {
        parsed.error = message;
        return parsed;
    };
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string name = args[i] == "-o" ? std::string("--output") : args[i];
        std::optional<std::string> value;
        if (const std::size_t equals = name.find('='); equals != std::string::npos) {
            value = name.substr(equals + 1);
            name.resize(equals);
        }
        const bool takesValue = name == "--width" || name == "--height" || name == "--type" ||
                                name == "--channels" || name == "--screenshot" ||
                                name == "--window-screenshot" || name == "--tab" ||
                                name == "--quit-after" || name == "--card" || name == "--output";
        if (takesValue && !value) {
            if (i + 1 == args.size()) {
                return fail(name + " needs a value");
            }
            value = args[++i];
        } else if (!takesValue && value) {
            return fail(name + " takes no value");
        }

        if (name == "--help" || name == "-h") {
            parsed.help = true;
        } else if (name == "--sim") {
            options.simulated = true;
        } else if (name == "--card-timing") {
            options.cardTiming = true;
            options.formatGiven = true;
        } else if (name == "--no-settings") {
            options.noSettings = true;
        } else if (name == "--demo") {
            options.demo = true;
        } else if (name == "--tab") {
            static const char* const kTabs[] = {"inspect", "inject", "command", "status",
                                                "registers"};
            if (std::find(std::begin(kTabs), std::end(kTabs), *value) == std::end(kTabs)) {
                return fail("--tab takes inspect, inject, command, status or registers: " +
                            *value);
            }
            options.tab = *value;
        } else if (name == "--autostart") {
            options.autostart = true;
        } else if (name == "--width" || name == "--height") {
            const auto size = ParseNumber(*value, 1, KvMaxFrameSide);
            if (!size) {
                return fail(name + " must be from 1 to 65535: " + *value);
            }
            (name == "--width" ? options.width : options.height) = *size;
            options.formatGiven = true;
        } else if (name == "--type") {
            const auto type = tools::PixelTypeFromName(*value);
            if (!type) {
                return fail("unknown pixel type \"" + *value +
                            "\" (UYVY422, Y8, Y16, Y16&Y8, BGR24)");
            }
            options.pixelType = *type;
            options.formatGiven = true;
        } else if (name == "--channels") {
            const auto channels = ParseChannels(*value);
            if (!channels) {
                return fail("--channels takes channels 0 to 3 separated by commas: " + *value);
            }
            options.channels = *channels;
        } else if (name == "--screenshot") {
            if (value->empty()) {
                return fail("--screenshot needs a file name");
            }
            options.screenshot = *value;
        } else if (name == "--window-screenshot") {
            if (value->empty()) {
                return fail("--window-screenshot needs a file name");
            }
            options.windowScreenshot = *value;
        } else if (name == "--output") {
            if (value->empty()) {
                return fail("--output needs a folder");
            }
            options.output = *value;
        } else if (name == "--card") {
            const auto card = ParseNumber(*value, 0, 3);
            if (!card) {
                return fail("--card takes a card number from 0 to 3: " + *value);
            }
            options.card = *card;
            options.cardGiven = true;
        } else if (name == "--quit-after") {
            const auto ms = ParseNumber(*value, 0, INT_MAX);
            if (!ms) {
                return fail("--quit-after takes milliseconds: " + *value);
            }
            options.quitAfterMs = *ms;
        } else {
            return fail("unknown option " + name);
        }
    }
    if (const std::string problem =
            KvFrameFormatProblem(options.pixelType, options.width, options.height);
        !problem.empty()) {
        return fail(problem);
    }
    return parsed;
}

}  // namespace kvpcie::viewer
