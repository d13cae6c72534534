// Parsing kvpcie-simd's options.
#include "SimdOptions.h"

#include "sim/DecimalText.h"

namespace kvpcie::simd {

const char kSimdUsage[] =
    "usage: kvpcie-simd --mount DIR [--cards N] [--foreground]\n"
    "Serves simulated XDMA cards as the Linux XDMA driver's device files under DIR/dev\n"
    "(xdma0_user, _control, _c2h_0, _h2c_0, _events_0 ... _events_15) and their PCI entries\n"
    "under DIR/sys/bus/pci, through FUSE. Point the library at them with KVPCIE_LINUX_ROOT=DIR.\n"
    "  --mount DIR     the directory to mount on (it must exist)\n"
    "  --cards N       simulated cards, 1 to 4 (default 1)\n"
    "  --foreground    stay in the foreground instead of detaching\n"
    "SIGINT or SIGTERM unmounts DIR and ends the program.\n";

bool ParseSimdOptions(const std::vector<std::string>& arguments, SimdOptions& options,
                      std::string& error) {
    options = SimdOptions{};
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        const bool hasValue = i + 1 < arguments.size();
        if (argument == "-h" || argument == "--help") {
            options.help = true;
            return true;
        }
        if (argument == "--foreground" || argument == "-f") {
            options.foreground = true;
        } else if (argument == "--mount") {
            if (!hasValue || arguments[i + 1].empty()) {
                error = "--mount needs a directory";
                return false;
            }
            options.mountDir = arguments[++i];
        } else if (argument == "--cards") {
            const std::optional<int> cards =
                hasValue ? sim::ParseDecimal(arguments[i + 1], 1, kMaxCards) : std::nullopt;
            if (!cards || *cards < 1) {
                error = "--cards takes a number from 1 to 4";
                return false;
            }
            options.cards = *cards;
            ++i;
        } else {
            error = "unknown argument \"" + argument + "\"";
            return false;
        }
    }
    if (options.mountDir.empty()) {
        error = "--mount DIR is required";
        return false;
    }
    return true;
}

}  // namespace kvpcie::simd
