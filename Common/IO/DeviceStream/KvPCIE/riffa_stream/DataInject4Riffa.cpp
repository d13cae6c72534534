// The RIFFA inject engine: its two logs, for the engine's life.
#include "DataInject4Riffa.h"

namespace kvpcie::riffa {

DataInject4Riffa::DataInject4Riffa(RiffaDevice* device) : QObject(nullptr), device_(device) {
    logAllChannel_ = std::make_unique<LogFile>("Inject_AllChannel");
    logAllChannel_->StartLog();
    logReadFile_ = std::make_unique<LogFile>("InjectReadFile");
    logReadFile_->StartLog();
}

DataInject4Riffa::~DataInject4Riffa() {
    logAllChannel_->StopLog();
    logAllChannel_.reset();
    logReadFile_->StopLog();
}

}  // namespace kvpcie::riffa
