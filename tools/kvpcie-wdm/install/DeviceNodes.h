/* kvpcie-wdm: adding, removing and finding the driver model's root-enumerated devices with
   SetupAPI, for the installer and for the restart stand-in. */
#pragma once

#include <windows.h>

#define MODEL_XDMA_HARDWARE_ID L"root\\kvpcie_model_xdma"
/* The instance IDs carry the Xilinx vendor ID, as a card's PCI instance ID does, so that the
   library's restart picks the model's cards. */
#define MODEL_XDMA_INSTANCE_PREFIX L"ROOT\\KVPCIE_MODEL_VEN_10EE\\"
#define MODEL_RIFFA_HARDWARE_ID L"root\\kvpcie_model_riffa"
#define MODEL_RIFFA_INSTANCE_PREFIX L"ROOT\\KVPCIE_MODEL_RIFFA\\"
#define MODEL_SERVICE_PARAMETERS L"SYSTEM\\CurrentControlSet\\Services\\kvpcie_model\\Parameters"

/* "ROOT\KVPCIE_MODEL_VEN_10EE\000<card>" and "ROOT\KVPCIE_MODEL_RIFFA\000<card>". */
void ModelXdmaInstanceId(int card, WCHAR *instanceId, DWORD chars);
void ModelRiffaInstanceId(int card, WCHAR *instanceId, DWORD chars);

/* Registers the device (nothing when it is there already) with its hardware ID. */
BOOL ModelAddDevice(const WCHAR *instanceId, const WCHAR *hardwareId);
/* TRUE when the device is registered (present or not). */
BOOL ModelDeviceExists(const WCHAR *instanceId);
/* Removes it, as Device Manager's uninstall does; TRUE when it is gone. */
BOOL ModelRemoveDevice(const WCHAR *instanceId);
/* Installs the INF's driver on every device of the hardware ID. */
BOOL ModelInstallDriver(const WCHAR *hardwareId, const WCHAR *infPath);
/* Waits up to `milliseconds` until `count` XDMA interfaces (and, when `riffaCount` is not
   negative, that many RIFFA interfaces) are present; FALSE when they are not. */
BOOL ModelWaitForInterfaces(int count, int riffaCount, DWORD milliseconds);
/* Prints every present XDMA interface path, then every RIFFA one, one per line. */
void ModelPrintInterfaces(void);
