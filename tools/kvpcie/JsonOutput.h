// --json: a command's figures as one JSON document on standard output, and nothing else there.
#pragma once

#include <QJsonObject>

namespace kvpcie::cli {

// While on, whatever is printed on standard output (progress lines, the library's own
// diagnostics) goes to standard error instead, so that the document stands alone.
class JsonOutput {
public:
    explicit JsonOutput(bool on);
    // Gives standard output back.
    ~JsonOutput();
    JsonOutput(const JsonOutput&) = delete;
    JsonOutput& operator=(const JsonOutput&) = delete;

    bool On() const { return savedStdout_ >= 0; }
    // Gives standard output back and writes the document on it, indented, with a line feed.
    void Print(const QJsonObject& document);

private:
    void Restore();

    int savedStdout_ = -1;
};

}  // namespace kvpcie::cli
