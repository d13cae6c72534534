// Parsing kvpcie's command line.
#include "Arguments.h"

#include "PixelTypeNames.h"

#include <cctype>

namespace kvpcie::cli {

Arguments::Arguments(std::vector<std::string> words, const std::set<std::string>& valued) {
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word.size() > 2 && word.compare(0, 2, "--") == 0) {
            if (valued.count(word) != 0) {
                if (i + 1 >= words.size()) {
                    throw UsageError{word + " needs a value"};
                }
                options_[word] = words[++i];
            } else {
                options_[word] = "";
            }
        } else if (word == "-o" || (word.size() == 2 && word[0] == '-' && valued.count(word))) {
            if (i + 1 >= words.size()) {
                throw UsageError{word == "-o" ? "-o needs a file name" : word + " needs a value"};
            }
            options_[word] = words[++i];
        } else {
            words_.push_back(word);
        }
    }
}

bool Arguments::Has(const std::string& option) const {
    return options_.count(option) != 0;
}

std::optional<std::string> Arguments::Value(const std::string& option) const {
    const auto found = options_.find(option);
    if (found == options_.end()) {
        return std::nullopt;
    }
    return found->second;
}

void Arguments::AllowOnly(const std::set<std::string>& known) const {
    for (const auto& [option, value] : options_) {
        if (known.count(option) == 0) {
            throw UsageError{"unknown option " + option};
        }
    }
}

double ParseSeconds(const std::string& text, double high) {
    // Digits with at most one point among them: nothing else (no sign, exponent or spaces).
    std::size_t digits = 0;
    std::size_t points = 0;
    for (const char c : text) {
        if (std::isdigit(static_cast<unsigned char>(c))) {
            ++digits;
        } else if (c == '.') {
            ++points;
        } else {
            digits = 0;
            break;
        }
    }
    if (digits == 0 || points > 1 || text.size() > 20) {
        throw UsageError{"seconds is not a number: \"" + text + "\""};
    }
    // By hand, so that no locale's decimal comma and no Qt reach this parser.
    double value = 0.0;
    double scale = 1.0;
    bool fraction = false;
    for (const char c : text) {
        if (c == '.') {
            fraction = true;
        } else if (fraction) {
            scale /= 10.0;
            value += (c - '0') * scale;
        } else {
            value = value * 10.0 + (c - '0');
        }
    }
    if (value < 0.001 || value > high) {
        throw UsageError{"seconds must be from 0.001 to " +
                         std::to_string(static_cast<long long>(high)) + ": " + text};
    }
    return value;
}

std::uint64_t ParseNumber(const std::string& text, const char* what, std::uint64_t low,
                          std::uint64_t high) {
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const std::size_t first = hex ? 2 : 0;
    const unsigned base = hex ? 16 : 10;
    if (text.size() == first || text.size() - first > 20) {
        throw UsageError{std::string(what) + " is not a number: \"" + text + "\""};
    }
    std::uint64_t value = 0;
    for (std::size_t i = first; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        unsigned digit = 0;
        if (std::isdigit(c)) {
            digit = c - '0';
        } else if (hex && std::isxdigit(c)) {
            digit = static_cast<unsigned>(std::tolower(c) - 'a' + 10);
        } else {
            throw UsageError{std::string(what) + " is not a number: \"" + text + "\""};
        }
        if (value > (UINT64_MAX - digit) / base) {
            throw UsageError{std::string(what) + " is too large: " + text};
        }
        value = value * base + digit;
    }
    if (value < low || value > high) {
        throw UsageError{std::string(what) + " must be from " + std::to_string(low) + " to " +
                         std::to_string(high) + ": " + text};
    }
    return value;
}

ePixelType ParsePixelType(const std::string& text) {
    if (const auto type = tools::PixelTypeFromName(text)) {
        return *type;
    }
    throw UsageError{"unknown pixel type \"" + text + "\" (UYVY422, Y8, Y16, Y16&Y8, BGR24)"};
}

std::vector<int> ParseChannels(const std::string& text) {
    std::vector<int> channels;
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t comma = text.find(',', start);
        const std::string part =
            text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        const int channel = static_cast<int>(ParseNumber(part, "channel", 0, 3));
        for (int seen : channels) {
            if (seen == channel) {
                throw UsageError{"channel " + part + " given twice"};
            }
        }
        channels.push_back(channel);
        if (comma == std::string::npos) {
            break;
        }
        start = comma + 1;
    }
    return channels;
}

std::vector<unsigned char> ParseHexBytes(const std::string& text) {
    std::string digits;
    for (char c : text) {
        if (c == ' ' || c == ':') {
            continue;
        }
        if (!std::isxdigit(static_cast<unsigned char>(c))) {
            throw UsageError{"not a hex byte string: \"" + text + "\""};
        }
        digits.push_back(c);
    }
    if (digits.empty() || digits.size() % 2 != 0) {
        throw UsageError{"hex bytes come in pairs of digits: \"" + text + "\""};
    }
    std::vector<unsigned char> bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(
            ParseNumber("0x" + digits.substr(i, 2), "hex byte", 0, 255)));
    }
    return bytes;
}

}  // namespace kvpcie::cli
