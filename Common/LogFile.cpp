// Queued, stamped log lines and their writer thread.
#include "LogFile.h"

#include "ApplicationDir.h"

#include "platform/LocalTime.h"

#include <QDir>

#include <chrono>
#include <cstdarg>
#include <thread>

namespace kvpcie {
namespace {

constexpr int kMessageBufferBytes = 5000;  // so a message keeps at most 4,999 bytes
constexpr int kPathBufferBytes = 256;
constexpr auto kIdlePause = std::chrono::milliseconds(1);
// Lines wait but no file could be opened: check back now and then instead of spinning a core.
constexpr auto kNoFilePause = std::chrono::milliseconds(10);

QString LogDirectory(const QString& logName) {
    const QString directory = ApplicationDir() + "/Log/" + logName;
    if (!QDir(directory).exists()) {
        QDir().mkpath(directory);
    }
    return directory;
}

}  // namespace

LogFile::LogFile(const QString& logName)
    : logName_(logName), logDirectory_(LogDirectory(logName)) {}

LogFile::~LogFile() {
    StopLog();
}

void LogFile::OpenFile() {
    const platform::LocalTime now = platform::LocalTimeNow();
    // The second is padded to three digits in file names.
    std::snprintf(fileStamp_, sizeof fileStamp_, "%04d_%02d_%02d_%02d_%02d_%03d", now.year,
                  now.month, now.day, now.hour, now.minute, now.second);
    char path[kPathBufferBytes];
    const int length = std::snprintf(path, sizeof path, "./Log/%s/%s_%d.txt",
                                     logName_.toStdString().c_str(), fileStamp_, fileIndex_);
    // A path that does not fit is not opened rather than opened cut short.
    file_ = length > 0 && length < kPathBufferBytes ? std::fopen(path, "a+") : nullptr;
}

void LogFile::StartLog() {
    if (writer_ != nullptr) {
        return;
    }
    stop_.store(false);
    OpenFile();
    writer_ = std::make_unique<Thread>(this, &LogFile::ThreadFun_WriteLogFile);
    writer_->Start();
}

void LogFile::WriteLog(const char* format, ...) {
    if (format == nullptr) {
        return;
    }
    char message[kMessageBufferBytes];
    va_list arguments;
    va_start(arguments, format);
    const int formatted = std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    if (formatted < 0) {
        return;
    }
    const std::size_t messageLength =
        std::min<std::size_t>(static_cast<std::size_t>(formatted), sizeof message - 1);

    std::lock_guard<std::mutex> guard(lock_);
    // Stamped under the lock, so the queue holds lines in the order of their stamps.
    const platform::LocalTime now = platform::LocalTimeNow();
    char stamp[64];
    const int stampLength =
        std::snprintf(stamp, sizeof stamp, "%04d_%02d_%02d_%02d_%02d_%02d_%03d:", now.year,
                      now.month, now.day, now.hour, now.minute, now.second, now.millisecond);
    std::string& line = lines_.emplace_back();
    line.reserve(static_cast<std::size_t>(stampLength) + messageLength + 1);
    line.append(stamp, static_cast<std::size_t>(stampLength));
    line.append(message, messageLength);
    line.push_back('\n');
}

void LogFile::StopLog() {
    stop_.store(true);
    if (writer_ != nullptr) {
        writer_->Join();
        writer_.reset();
    }
    if (file_ != nullptr) {
        std::fclose(file_);
        file_ = nullptr;
    }
}

void LogFile::ThreadFun_WriteLogFile(void* owner) {
    static_cast<LogFile*>(owner)->WriteLoop();
}

void LogFile::Rotate() {
    ++fileIndex_;
    std::fclose(file_);
    OpenFile();
}

void LogFile::WriteLoop() {
    bool unflushed = false;
    while (!stop_.load()) {
        bool empty;
        {
            std::lock_guard<std::mutex> guard(lock_);
            empty = lines_.empty();
        }
        if (empty) {
            if (file_ != nullptr && unflushed) {
                std::fflush(file_);  // idle: let a reader of the file see every line so far
                unflushed = false;
            }
            std::this_thread::sleep_for(kIdlePause);
            continue;
        }
        if (file_ == nullptr) {
            std::this_thread::sleep_for(kNoFilePause);
            continue;
        }
        std::fseek(file_, 0, SEEK_END);
        const long size = std::ftell(file_);  // -1 on failure counts as below the limit
        std::fseek(file_, 0, SEEK_CUR);
        if (size >= kRotateBytes) {
            Rotate();  // the waiting line goes to the new file in a later pass
            continue;
        }
        std::string line;
        {
            std::lock_guard<std::mutex> guard(lock_);
            line = std::move(lines_.front());
            lines_.pop_front();
        }
        std::fwrite(line.data(), 1, line.size(), file_);
        unflushed = true;
    }
}

}  // namespace kvpcie
