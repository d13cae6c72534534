// Where pinned worker threads get their CPU cores from: the facade's core table.
#pragma once

namespace kvpcie {

class CpuCoreSource {
public:
    // The core for a new worker thread, now marked used.
    virtual unsigned TakeCore() = 0;
    virtual void ReturnCore(unsigned core) = 0;

protected:
    ~CpuCoreSource() = default;
};

}  // namespace kvpcie
