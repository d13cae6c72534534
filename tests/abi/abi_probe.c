/* A small library that shows the ABI check the records of kvpcie.h, built from the header and
   from changed copies of it, so that the check can be seen to pass and fail. */
#include "kvpcie.h"

#define PROBE(record)                                                  \
    KVPCIE_API void KVPCIE_CALL kvpcie_probe_##record(record* value) { \
        (void)value;                                                   \
    }

PROBE(kvpcie_riffa_device)
PROBE(kvpcie_frame)
PROBE(kvpcie_pulled_frame)
PROBE(kvpcie_inject_format)
PROBE(kvpcie_capture_statistics)
PROBE(kvpcie_inject_statistics)
PROBE(kvpcie_delay)

#ifndef PROBE_WITHOUT_FUNCTION
KVPCIE_API int32_t KVPCIE_CALL kvpcie_probe_function(int32_t value) {
    return value;
}
#endif
#ifdef PROBE_WITH_NEW_FUNCTION
KVPCIE_API int32_t KVPCIE_CALL kvpcie_probe_new_function(int32_t value) {
    return value + 1;
}
#endif
