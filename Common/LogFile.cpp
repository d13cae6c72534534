// Queued, stamped log lines and their writer thread.
#include "LogFile.h"

#include "ApplicationDir.h"

#include "platform/LocalTime.h"
#include "platform/TextFiles.h"

#include <QDir>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <thread>

namespace kvpcie {
namespace {

constexpr int kMessageBufferBytes = 5000;  // so a message keeps at most 4,999 bytes
constexpr int kPathBufferBytes = 256;
// A writer with nothing to do polls every millisecond for a while, so that a busy log costs its
// callers no wake-up call. After that it sleeps until a line arrives: polling for ever would
// cost each idle log a few per cent of a core on a virtual machine. The limit only bounds a
// wait that a missed wake-up could stretch.
constexpr auto kIdlePause = std::chrono::milliseconds(1);
constexpr int kIdlePollsBeforeSleep = 50;
constexpr auto kIdleWaitLimit = std::chrono::milliseconds(100);
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
    // The size is measured once here and then counted line by line: asking the stream before
    // every line would cost the writer a seek and a write call per line.
    fileBytes_ = 0;
    if (file_ != nullptr && std::fseek(file_, 0, SEEK_END) == 0) {
        fileBytes_ = std::max(0L, std::ftell(file_));
    }
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

namespace {

// Writes `value` as `digits` decimal digits, zero-padded.
char* PutDigits(char* at, int value, int digits) {
    for (int i = digits - 1; i >= 0; --i) {
        at[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    return at + digits;
}

// "yyyy_MM_dd_hh_mm_ss_": 20 bytes; the same as "%04d_%02d_..._%02d_" without printf.
constexpr int kStampPrefixBytes = 20;
// How far, in milliseconds, a stamp may be behind the latest one and still be taken for a
// caller that waited for the lock rather than a clock set back.
constexpr long long kStampReorderWindowMs = 1000;
void FormatStampPrefix(const platform::LocalTime& t, char* out) {
    char* at = PutDigits(out, t.year, 4);
    const int fields[] = {t.month, t.day, t.hour, t.minute, t.second};
    for (int field : fields) {
        *at++ = '_';
        at = PutDigits(at, field, 2);
    }
    *at = '_';
}

// Tells the core that this is a wait loop (x86's pause, Arm's yield), so that a sibling
// hardware thread runs.
inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    __asm__ __volatile__("yield");
#endif
}

long long SecondKey(const platform::LocalTime& t) {
    return ((((t.year * 16LL + t.month) * 32 + t.day) * 32 + t.hour) * 64 + t.minute) * 64 +
           t.second;
}

// The lock is held for a few dozen nanoseconds, so a caller that finds it taken first waits
// that long on its own core. A holder that the scheduler preempted holds it for a time slice:
// the caller then steps aside a few times before it sleeps in the kernel, so that the holder
// gets a core; sleeping callers would make every later unlock a wake-up call, and that convoy
// lasts once it forms.
void LockBriefly(std::mutex& lock) {
    for (int attempt = 0; attempt < 64; ++attempt) {
        if (lock.try_lock()) {
            return;
        }
        CpuRelax();
    }
    for (int attempt = 0; attempt < 8; ++attempt) {
        if (lock.try_lock()) {
            return;
        }
        std::this_thread::yield();
    }
    lock.lock();
}

}  // namespace

void LogFile::WriteLog(const char* format, ...) {
    if (format == nullptr) {
        return;
    }
    char formattedMessage[kMessageBufferBytes];
    const char* message = format;
    std::size_t messageLength = std::strlen(format);
    // The engines hand over finished text: without a conversion, printf would only copy it.
    if (std::memchr(format, '%', messageLength) != nullptr) {
        va_list arguments;
        va_start(arguments, format);
        const int formatted =
            std::vsnprintf(formattedMessage, sizeof formattedMessage, format, arguments);
        va_end(arguments);
        if (formatted < 0) {
            return;
        }
        message = formattedMessage;
        messageLength = static_cast<std::size_t>(formatted);
    }
    messageLength = std::min<std::size_t>(messageLength, kMessageBufferBytes - 1);

    // The clock is read and the stamp written before the lock, so that the callers meet only
    // over the append. A caller that took its stamp before another's but gets the lock after
    // it takes that later stamp, so that the queue still holds lines in the order of their
    // stamps (a clock set back by more than a second is believed). "yyyy_MM_dd_hh_mm_ss_zzz:", 24 bytes; the date and time part changes once a
    // second and is formatted then, per thread.
    const platform::LocalTime now = platform::LocalTimeNow();
    const long long second = SecondKey(now);
    thread_local long long prefixSecond = -1;
    thread_local char prefix[kStampPrefixBytes];
    if (second != prefixSecond) {
        FormatStampPrefix(now, prefix);
        prefixSecond = second;
    }
    char stamp[32];
    std::memcpy(stamp, prefix, kStampPrefixBytes);
    PutDigits(stamp + kStampPrefixBytes, now.millisecond, 3);
    stamp[kStampPrefixBytes + 3] = ':';
    const long long stampKey = second * 1000 + now.millisecond;

    LockBriefly(lock_);
    std::lock_guard<std::mutex> guard(lock_, std::adopt_lock);
    if (stampKey < lastStampKey_ && lastStampKey_ - stampKey < kStampReorderWindowMs) {
        std::memcpy(stamp, lastStamp_, kStampBytes);
    } else {
        lastStampKey_ = stampKey;
        std::memcpy(lastStamp_, stamp, kStampBytes);
    }
    const int stampLength = kStampBytes;
    char notice[128];
    int noticeLength = 0;
    if (droppedUnreported_ > 0) {
        noticeLength = std::snprintf(notice, sizeof notice,
                                     "%llu lines were dropped here: the log's queue was full",
                                     static_cast<unsigned long long>(droppedUnreported_));
    }
    const std::size_t lineBytes = static_cast<std::size_t>(stampLength) + messageLength + 1;
    const std::size_t noticeBytes =
        noticeLength > 0 ? static_cast<std::size_t>(stampLength + noticeLength + 1) : 0;
    if (lines_.text.size() + noticeBytes + lineBytes > kQueueLimitBytes) {
        ++droppedUnreported_;
        droppedLines_.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    const auto append = [&](const char* text, std::size_t length) {
        lines_.text.append(stamp, static_cast<std::size_t>(stampLength));
        lines_.text.append(text, length);
        lines_.text.push_back('\n');
        lines_.lengths.push_back(static_cast<std::uint32_t>(stampLength + length + 1));
    };
    if (noticeLength > 0) {
        append(notice, static_cast<std::size_t>(noticeLength));
        droppedUnreported_ = 0;
    }
    append(message, messageLength);
    if (writerIdle_) {
        lineQueued_.notify_one();  // a system call only when the writer sleeps
    }
}

std::size_t LogFile::QueuedBytes() {
    std::lock_guard<std::mutex> guard(lock_);
    return lines_.text.size();
}

void LogFile::StopLog() {
    {
        std::lock_guard<std::mutex> guard(lock_);
        stop_.store(true);
        lineQueued_.notify_one();
    }
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
    Lines batch;  // lines taken from the queue, written from `offset` / `next` on
    std::size_t offset = 0;
    std::size_t next = 0;
    bool unflushed = false;
    int idlePolls = 0;
    while (!stop_.load()) {
        if (next == batch.lengths.size()) {
            batch.text.clear();  // keeps the capacity for the queue to reuse
            batch.lengths.clear();
            offset = 0;
            next = 0;
            std::lock_guard<std::mutex> guard(lock_);
            std::swap(batch, lines_);
        }
        if (batch.lengths.empty()) {
            if (file_ != nullptr && unflushed) {
                std::fflush(file_);  // idle: let a reader of the file see every line so far
                unflushed = false;
            }
            if (idlePolls < kIdlePollsBeforeSleep) {
                ++idlePolls;
                std::this_thread::sleep_for(kIdlePause);
                continue;
            }
            std::unique_lock<std::mutex> guard(lock_);
            writerIdle_ = true;
            lineQueued_.wait_for(guard, kIdleWaitLimit,
                                 [this] { return !lines_.lengths.empty() || stop_.load(); });
            writerIdle_ = false;
            continue;
        }
        idlePolls = 0;
        if (file_ == nullptr) {
            std::this_thread::sleep_for(kNoFilePause);
            continue;
        }
        if (fileBytes_ >= kRotateBytes) {
            Rotate();  // the waiting line goes to the new file in the next pass
            continue;
        }
        // Every line that still starts below the size limit goes out in one call; the line
        // that would start at or past it waits for the rotation above.
        const std::size_t runStart = offset;
        long fileBytes = fileBytes_;
        do {
            const std::uint32_t length = batch.lengths[next];
            fileBytes += static_cast<long>(length);
            if constexpr (platform::kTextLineFeedBytes > 1) {
                // The limit is on the file's size on disk, where each line feed became CR LF.
                const char* line = batch.text.data() + offset;
                fileBytes += (platform::kTextLineFeedBytes - 1) *
                             static_cast<long>(std::count(line, line + length, '\n'));
            }
            offset += length;
            ++next;
        } while (next < batch.lengths.size() && fileBytes < kRotateBytes);
        // A failed write loses its lines, as a log must never hold its callers up.
        std::fwrite(batch.text.data() + runStart, 1, offset - runStart, file_);
        fileBytes_ = fileBytes;
        unflushed = true;
    }
    // Lines taken but not written go back to the front of the queue, for the next StartLog.
    std::lock_guard<std::mutex> guard(lock_);
    batch.text.erase(0, offset);
    batch.text += lines_.text;
    batch.lengths.erase(batch.lengths.begin(), batch.lengths.begin() + static_cast<long>(next));
    batch.lengths.insert(batch.lengths.end(), lines_.lengths.begin(), lines_.lengths.end());
    std::swap(batch, lines_);
}

}  // namespace kvpcie
