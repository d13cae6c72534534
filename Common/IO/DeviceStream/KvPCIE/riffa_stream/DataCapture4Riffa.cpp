// The RIFFA capture engine: its log, for the engine's life.
#include "DataCapture4Riffa.h"

namespace kvpcie::riffa {

DataCapture4Riffa::DataCapture4Riffa(RiffaDevice* device) : QObject(nullptr), device_(device) {
    log_ = std::make_unique<LogFile>("Capture_AllChannel");
    log_->StartLog();
}

DataCapture4Riffa::~DataCapture4Riffa() {
    if (log_) {
        log_->StopLog();
    }
}

void DataCapture4Riffa::StopCapture(int /*channel*/) {}

void DataCapture4Riffa::OnSlotCaptureCmdDataTimeOut() {}

}  // namespace kvpcie::riffa
