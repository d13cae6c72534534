// Fuzzes the kvpcie tool's command line. The first byte picks the parser, modulo 5:
//   0 ParseNumber (the second byte picks the bounds), 1 ParseChannels, 2 ParseHexBytes,
//   3 ParsePixelType, 4 Arguments (the words separated by NUL bytes).
// A UsageError is the tool's refusal; any other exception is a fault.
#include "Arguments.h"
#include "FuzzCheck.h"
#include "PixelTypeNames.h"

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace kvpcie::cli;

// Runs `parse`, turning the tool's refusal into nullopt.
template <typename Parse>
auto Try(Parse parse) -> std::optional<decltype(parse())> {
    try {
        return parse();
    } catch (const UsageError&) {
        return std::nullopt;
    } catch (...) {
        std::fprintf(stderr, "an exception other than UsageError escaped the parser\n");
        __builtin_trap();
    }
}

std::vector<std::string> Split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (std::size_t end; (end = text.find(separator, start)) != std::string::npos;
         start = end + 1) {
        parts.push_back(text.substr(start, end - start));
    }
    parts.push_back(text.substr(start));
    return parts;
}

bool IsDecimal(char c) {
    return c >= '0' && c <= '9';
}

bool IsHex(char c) {
    return IsDecimal(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

std::string Hex(std::uint64_t value) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

constexpr std::uint64_t kBounds[16] = {0,         1,         3,          9,         10,
                                       15,        16,        255,        256,       65535,
                                       65536,     INT32_MAX, UINT32_MAX, INT64_MAX, UINT64_MAX - 1,
                                       UINT64_MAX};

void FuzzNumber(std::uint8_t bounds, const std::string& text) {
    const std::uint64_t low = kBounds[bounds >> 4];
    const std::uint64_t high = kBounds[bounds & 15];
    const auto parse = [&](const std::string& t) {
        return Try([&] { return ParseNumber(t, "number", low, high); });
    };
    const std::optional<std::uint64_t> value = parse(text);

    // The value read by from_chars instead of the parser's loop.
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const std::string digits = text.substr(hex ? 2 : 0);
    bool wellFormed = !digits.empty();
    for (char c : digits) {
        wellFormed = wellFormed && (hex ? IsHex(c) : IsDecimal(c));
    }
    std::uint64_t expected = 0;
    const char* end = digits.data() + digits.size();
    const bool fits =
        wellFormed &&
        std::from_chars(digits.data(), end, expected, hex ? 16 : 10).ec == std::errc();
    const bool inRange = fits && expected >= low && expected <= high;

    if (value) {
        FUZZ_CHECK(inRange && *value == expected);
        FUZZ_CHECK(*value >= low && *value <= high);
        FUZZ_CHECK(parse(std::to_string(*value)) == value);
        FUZZ_CHECK(parse(Hex(*value)) == value);
    } else if (digits.size() <= 20) {
        // Longer texts are refused before their value is read, even zero-padded ones.
        FUZZ_CHECK(!inRange);
    }
}

void FuzzChannels(const std::string& text) {
    const auto channels = Try([&] { return ParseChannels(text); });

    // Each part on its own through ParseNumber, and no channel twice.
    const std::vector<std::string> parts = Split(text, ',');
    std::vector<int> expected;
    for (const std::string& part : parts) {
        const auto channel = Try([&] { return ParseNumber(part, "channel", 0, 3); });
        if (!channel) {
            break;
        }
        expected.push_back(static_cast<int>(*channel));
    }
    const std::set<int> distinct(expected.begin(), expected.end());
    const bool valid = expected.size() == parts.size() && distinct.size() == expected.size();
    FUZZ_CHECK(channels.has_value() == valid);
    if (!channels) {
        return;
    }
    FUZZ_CHECK(*channels == expected);
    FUZZ_CHECK(!channels->empty() && channels->size() <= 4);
    std::string rendered;
    for (int channel : *channels) {
        FUZZ_CHECK(channel >= 0 && channel <= 3);
        rendered += (rendered.empty() ? "" : ",") + std::to_string(channel);
    }
    FUZZ_CHECK(Try([&] { return ParseChannels(rendered); }) == channels);
}

void FuzzHexBytes(const std::string& text) {
    const auto bytes = Try([&] { return ParseHexBytes(text); });

    std::string digits;
    bool onlyHexAndSeparators = true;
    for (char c : text) {
        if (IsHex(c)) {
            digits.push_back(c);
        } else if (c != ' ' && c != ':') {
            onlyHexAndSeparators = false;
        }
    }
    const bool valid = onlyHexAndSeparators && !digits.empty() && digits.size() % 2 == 0;
    FUZZ_CHECK(bytes.has_value() == valid);
    if (!bytes) {
        return;
    }
    FUZZ_CHECK(!bytes->empty() && bytes->size() <= text.size() / 2);
    FUZZ_CHECK(bytes->size() * 2 == digits.size());
    std::string packed;
    std::string spaced;
    for (std::size_t i = 0; i < bytes->size(); ++i) {
        unsigned expected = 0;
        std::from_chars(digits.data() + 2 * i, digits.data() + 2 * i + 2, expected, 16);
        FUZZ_CHECK((*bytes)[i] == expected);
        char pair[3];
        std::snprintf(pair, sizeof pair, "%02x", static_cast<unsigned>((*bytes)[i]));
        packed += pair;
        spaced += (i == 0 ? "" : " ") + std::string(pair);
    }
    FUZZ_CHECK(Try([&] { return ParseHexBytes(packed); }) == bytes);
    FUZZ_CHECK(Try([&] { return ParseHexBytes(spaced); }) == bytes);
}

void FuzzPixelType(const std::string& text) {
    const auto type = Try([&] { return ParsePixelType(text); });
    const bool known = text == "UYVY422" || text == "Y8" || text == "Y16" || text == "Y16&Y8" ||
                       text == "Y16_Y8" || text == "BGR24";
    FUZZ_CHECK(type.has_value() == known);
    if (!type) {
        return;
    }
    FUZZ_CHECK(text == kvpcie::tools::PixelTypeName(*type) ||
               (text == "Y16_Y8" && *type == Y16_Y8));
    FUZZ_CHECK(Try([&] { return ParsePixelType(kvpcie::tools::PixelTypeName(*type)); }) == type);
}

void FuzzArguments(const std::string& text) {
    const std::set<std::string> valued = {"--channels", "--width"};
    const std::vector<std::string> words = Split(text, '\0');
    const auto arguments = Try([&] { return Arguments(words, valued); });

    // A plain model: "-o" and the valued options take the next word, and the last one given wins.
    std::vector<std::string> plain;
    std::map<std::string, std::string> options;
    bool missingValue = false;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        const bool option = (word.size() > 2 && word.compare(0, 2, "--") == 0) || word == "-o";
        if (!option) {
            plain.push_back(word);
        } else if (valued.count(word) == 0 && word != "-o") {
            options[word] = "";
        } else if (i + 1 < words.size()) {
            options[word] = words[++i];
        } else {
            missingValue = true;
        }
    }
    FUZZ_CHECK(arguments.has_value() == !missingValue);
    if (!arguments) {
        return;
    }
    FUZZ_CHECK(arguments->Words() == plain);
    std::set<std::string> given;
    for (const auto& [option, value] : options) {
        FUZZ_CHECK(arguments->Has(option));
        FUZZ_CHECK(arguments->Value(option) == value);
        given.insert(option);
    }
    for (const std::string& word : plain) {
        FUZZ_CHECK(!arguments->Has(word));
    }
    FUZZ_CHECK(Try([&] { return (arguments->AllowOnly(given), true); }).has_value());
    FUZZ_CHECK(Try([&] { return (arguments->AllowOnly({}), true); }).has_value() ==
               options.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const char* rest = reinterpret_cast<const char*>(data + 1);
    const std::string text(rest, size - 1);
    switch (data[0] % 5) {
        case 0:
            if (size >= 2) {
                FuzzNumber(data[1], std::string(rest + 1, size - 2));
            }
            break;
        case 1:
            FuzzChannels(text);
            break;
        case 2:
            FuzzHexBytes(text);
            break;
        case 3:
            FuzzPixelType(text);
            break;
        default:
            FuzzArguments(text);
            break;
    }
    return 0;
}
