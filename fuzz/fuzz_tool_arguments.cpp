// Fuzzes the kvpcie tool's command line. The first byte picks the parser, modulo 4:
//   0 ParseNumber (the second byte picks the bounds), 1 ParseChannels, 2 ParseHexBytes,
//   3 Arguments (the words separated by NUL bytes).
// A UsageError is the tool's refusal; any other exception is a fault.
#include "Arguments.h"
#include "FuzzCheck.h"

#include <cstdint>
#include <cstdio>
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

void FuzzNumber(std::uint8_t bounds, const std::string& text) {
    constexpr std::uint64_t kBounds[][2] = {{0, 0},          {0, 3},     {1, 65535},
                                            {0, 0x7FFFFFFF}, {1, 10000}, {0, UINT64_MAX}};
    const std::uint64_t* range = kBounds[bounds % (sizeof kBounds / sizeof kBounds[0])];
    const std::uint64_t low = range[0];
    const std::uint64_t high = range[1];
    const auto value = Try([&] { return ParseNumber(text, "n", low, high); });
    if (!value) {
        return;
    }
    FUZZ_CHECK(*value >= low && *value <= high);
    char hex[32];
    std::snprintf(hex, sizeof hex, "0x%llx", static_cast<unsigned long long>(*value));
    FUZZ_CHECK(Try([&] { return ParseNumber(std::to_string(*value), "n", low, high); }) == value);
    FUZZ_CHECK(Try([&] { return ParseNumber(hex, "n", low, high); }) == value);
}

void FuzzChannels(const std::string& text) {
    const auto channels = Try([&] { return ParseChannels(text); });
    if (!channels) {
        return;
    }
    FUZZ_CHECK(!channels->empty() && channels->size() <= 4);
    FUZZ_CHECK(std::set<int>(channels->begin(), channels->end()).size() == channels->size());
    std::string spelled;
    for (int channel : *channels) {
        FUZZ_CHECK(channel >= 0 && channel <= 3);
        spelled += (spelled.empty() ? "" : ",") + std::to_string(channel);
    }
    FUZZ_CHECK(Try([&] { return ParseChannels(spelled); }) == channels);
}

void FuzzHexBytes(const std::string& text) {
    const auto bytes = Try([&] { return ParseHexBytes(text); });
    if (!bytes) {
        return;
    }
    FUZZ_CHECK(bytes->size() * 2 <= text.size());
    std::string spaced;
    for (unsigned char byte : *bytes) {
        char pair[4];
        std::snprintf(pair, sizeof pair, "%02x ", byte);
        spaced += pair;
    }
    FUZZ_CHECK(Try([&] { return ParseHexBytes(spaced); }) == bytes);
}

void FuzzArguments(const std::string& text) {
    std::vector<std::string> words(1);
    for (char c : text) {
        if (c == '\0') {
            words.emplace_back();
        } else {
            words.back().push_back(c);
        }
    }
    const auto arguments = Try([&] { return Arguments(words, {"--channels", "--width"}); });
    if (!arguments) {
        return;
    }
    // The plain words are the input's words in order, options and their values left out.
    std::size_t next = 0;
    for (const std::string& word : arguments->Words()) {
        FUZZ_CHECK(!(word.size() > 2 && word.compare(0, 2, "--") == 0) && word != "-o");
        while (next < words.size() && words[next] != word) {
            ++next;
        }
        FUZZ_CHECK(next < words.size());
        ++next;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    switch (data[0] % 4) {
        case 0:
            FuzzNumber(data[1], text.substr(1));
            break;
        case 1:
            FuzzChannels(text);
            break;
        case 2:
            FuzzHexBytes(text);
            break;
        default:
            FuzzArguments(text);
            break;
    }
    return 0;
}
