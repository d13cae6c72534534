// What the name of a raw recording says about its frames.
#include "RawRecordingName.h"

#include <limits>

namespace kvpcie::tools {
namespace {

constexpr int kMaxSize = 65535;

struct TypeSuffix {
    std::string_view text;
    ePixelType type;
};

constexpr TypeSuffix kSuffixes[] = {
    {"UYVY422.raw", UYVY422}, {"Y8.raw", Y8},       {"Y16.raw", Y16},
    {"Y16&Y8.raw", Y16_Y8},   {"BGR24.raw", BGR24},
};

// Reads the name front to back; any mismatch leaves it failed for good.
class Reader {
public:
    explicit Reader(std::string_view text) : rest_(text) {}

    bool Literal(std::string_view literal) {
        if (!ok_ || rest_.substr(0, literal.size()) != literal) {
            ok_ = false;
            return false;
        }
        rest_.remove_prefix(literal.size());
        return true;
    }

    // A decimal int from `low` to `high` as the recorder writes it: digits only, and no
    // leading zero, so that a name has one spelling.
    int Number(int low, int high) {
        std::size_t digits = 0;
        while (digits < rest_.size() && rest_[digits] >= '0' && rest_[digits] <= '9') {
            ++digits;
        }
        if (!ok_ || digits == 0 || (digits > 1 && rest_[0] == '0')) {
            ok_ = false;
            return 0;
        }
        long long value = 0;
        for (std::size_t i = 0; i < digits; ++i) {
            value = value * 10 + (rest_[i] - '0');
            if (value > high) {
                ok_ = false;  // stops before the sum can overflow
                return 0;
            }
        }
        rest_.remove_prefix(digits);
        if (value < low) {
            ok_ = false;
            return 0;
        }
        return static_cast<int>(value);
    }

    bool Ok() const { return ok_; }
    std::string_view Rest() const { return rest_; }

private:
    std::string_view rest_;
    bool ok_ = true;
};

std::string_view LastPart(std::string_view path) {
    const std::size_t separator = path.find_last_of("/\\");
    return separator == std::string_view::npos ? path : path.substr(separator + 1);
}

}  // namespace

std::optional<RawRecordingInfo> ParseRawRecordingName(std::string_view path) {
    constexpr int kMaxInt = std::numeric_limits<int>::max();
    Reader reader(LastPart(path));
    RawRecordingInfo info;
    info.index = reader.Number(0, kMaxInt);
    reader.Literal("_");
    info.width = reader.Number(1, kMaxSize);
    reader.Literal("x");
    info.height = reader.Number(1, kMaxSize);
    reader.Literal("_ParamLine");
    info.paramLines = reader.Number(0, kMaxInt);
    reader.Literal("_Fps");
    info.frameRate = reader.Number(0, kMaxInt);
    reader.Literal("_");
    if (!reader.Ok()) {
        return std::nullopt;
    }
    for (const TypeSuffix& suffix : kSuffixes) {
        if (reader.Rest() == suffix.text) {
            info.pixelType = suffix.type;
            return info;
        }
    }
    return std::nullopt;
}

}  // namespace kvpcie::tools
