// The command line of kvpcie: words and options, and strict parsing of the numbers in them.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeTypes.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kvpcie::cli {

// A usage error: the message goes to standard error on one line, and the exit code is 2.
struct UsageError {
    std::string message;
};

// "--name value" options, "--flag" switches and the plain words, in order. Which options take a
// value is told up front, so a value is never mistaken for a word.
class Arguments {
public:
    Arguments(std::vector<std::string> words, const std::set<std::string>& valued);

    const std::vector<std::string>& Words() const { return words_; }
    bool Has(const std::string& option) const;
    std::optional<std::string> Value(const std::string& option) const;
    // Options given that are not in `known`: a usage error names the first.
    void AllowOnly(const std::set<std::string>& known) const;

private:
    std::vector<std::string> words_;
    std::map<std::string, std::string> options_;
};

// Decimal, or hexadecimal with 0x. A usage error names `what` when the text is not a number or
// not within [low, high].
std::uint64_t ParseNumber(const std::string& text, const char* what, std::uint64_t low,
                          std::uint64_t high);
// Seconds, whole or decimal ("2", "0.5", ".25"), from 0.001 to `high`; a usage error says why
// not.
double ParseSeconds(const std::string& text, double high);
// The pixel type by name: UYVY422, Y8, Y16, Y16&Y8 (or Y16_Y8), BGR24.
ePixelType ParsePixelType(const std::string& text);
// "0,2,3": distinct channels 0 to 3.
std::vector<int> ParseChannels(const std::string& text);
// Hex bytes, spaces allowed between them: "01 02 0a" or "01020a".
std::vector<unsigned char> ParseHexBytes(const std::string& text);

}  // namespace kvpcie::cli
