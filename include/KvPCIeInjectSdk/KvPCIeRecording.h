/// \file
/// Where recordings go. Takes are written to ROOT/Capture<channel + 1>/yyyyMMdd_hhmmss/,
/// and the root is the "VideoRecord" folder beside the program until a host chooses another.
#pragma once

#include <KvPCIeInjectSdk/KvPCIeInjectSdkGlobal.h>

#include <QString>

namespace KvPCIe {

/// Sets the folder below which every card of the process records; "" restores the default.
/// A relative folder is taken from the current folder now, so that a later change of the
/// current folder does not move the takes. Applies from the next StartRecord; a take that
/// runs stays where it is. The folder is created when a take starts, not before. From any
/// thread.
KVPCIE_EXPORT void SetRecordRoot(const QString& folder);
/// The folder that the next take of channel c goes below (+ "/Capture" + (c + 1)), absolute.
KVPCIE_EXPORT QString RecordRoot();

}  // namespace KvPCIe
