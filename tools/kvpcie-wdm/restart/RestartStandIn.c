/* kvpcie-wdm: a test-only cfgmgr32.dll for the driver model's Wine prefix. Wine 8 ends a
   process that calls CM_Disable_DevNode or CM_Enable_DevNode; these stand-ins remove the
   model's device and add it again (what Wine does support), so that the library's own restart
   runs unchanged. CM_Get_Device_IDW is Wine's own. */
/* Defines the configuration manager's calls here rather than importing them. */
#define _CFGMGR32_
#include "../install/DeviceNodes.h"

#include <cfgmgr32.h>
#include <stdio.h>
#include <stdlib.h>
#include <wchar.h>

typedef CONFIGRET(WINAPI *GetDeviceIdCall)(DEVINST, PWSTR, ULONG, ULONG);

/* Each disabled device's instance ID, until it is enabled again; the library restarts one
   device at a time. */
static struct {
    DEVINST node;
    WCHAR instanceId[200];
} disabled[8];

static GetDeviceIdCall WineGetDeviceId(void) {
    static GetDeviceIdCall call;
    if (call == NULL) {
        HMODULE setupapi = LoadLibraryW(L"setupapi.dll");
        if (setupapi != NULL) {
            call = (GetDeviceIdCall)(void (*)(void))GetProcAddress(setupapi, "CM_Get_Device_IDW");
        }
    }
    return call;
}

CONFIGRET WINAPI CM_Get_Device_IDW(DEVINST node, PWSTR buffer, ULONG chars, ULONG flags) {
    const GetDeviceIdCall call = WineGetDeviceId();
    return call != NULL ? call(node, buffer, chars, flags) : CR_FAILURE;
}

static BOOL IsModelCard(const WCHAR *instanceId) {
    return _wcsnicmp(instanceId, MODEL_XDMA_INSTANCE_PREFIX,
                     wcslen(MODEL_XDMA_INSTANCE_PREFIX)) == 0;
}

/* Windows vetoes taking a device away while handles to it are open; the model driver counts
   each card's open files in its Parameters ("OpenFiles<card>"). */
static BOOL IsInUse(const WCHAR *instanceId) {
    const WCHAR *number = instanceId + wcslen(MODEL_XDMA_INSTANCE_PREFIX);
    WCHAR name[16];
    DWORD openFiles = 0;
    DWORD bytes = sizeof openFiles;

    swprintf(name, 16, L"OpenFiles%d", _wtoi(number));
    return RegGetValueW(HKEY_LOCAL_MACHINE, MODEL_SERVICE_PARAMETERS, name, RRF_RT_REG_DWORD,
                        NULL, &openFiles, &bytes) == ERROR_SUCCESS &&
           openFiles > 0;
}

CONFIGRET WINAPI CM_Disable_DevNode(DEVINST node, ULONG flags) {
    WCHAR instanceId[200];
    int slot;

    (void)flags;
    if (CM_Get_Device_IDW(node, instanceId, 200, 0) != CR_SUCCESS) {
        return CR_NO_SUCH_DEVINST;
    }
    if (!IsModelCard(instanceId)) {
        return CR_NOT_DISABLEABLE;  /* only the model's cards can be taken away and brought back */
    }
    if (IsInUse(instanceId)) {
        return CR_REMOVE_VETOED;
    }
    for (slot = 0; slot < 8 && disabled[slot].instanceId[0] != L'\0'; ++slot) {
    }
    if (slot == 8 || !ModelRemoveDevice(instanceId)) {
        return CR_FAILURE;
    }
    disabled[slot].node = node;
    wcsncpy(disabled[slot].instanceId, instanceId, 199);
    return CR_SUCCESS;
}

CONFIGRET WINAPI CM_Enable_DevNode(DEVINST node, ULONG flags) {
    WCHAR infPath[MAX_PATH];
    DWORD bytes = sizeof infPath;
    int slot;
    int present = 0;
    BOOL added;

    (void)flags;
    for (slot = 0; slot < 8 && disabled[slot].node != node; ++slot) {
    }
    if (slot == 8 || disabled[slot].instanceId[0] == L'\0') {
        return CR_SUCCESS;  /* never disabled here: it is running */
    }
    if (RegGetValueW(HKEY_LOCAL_MACHINE, MODEL_SERVICE_PARAMETERS, L"InfPath", RRF_RT_REG_SZ, NULL,
                     infPath, &bytes) != ERROR_SUCCESS) {
        return CR_FAILURE;
    }
    added = ModelAddDevice(disabled[slot].instanceId, MODEL_XDMA_HARDWARE_ID) &&
            ModelInstallDriver(MODEL_XDMA_HARDWARE_ID, infPath);
    disabled[slot].instanceId[0] = L'\0';
    if (!added) {
        return CR_FAILURE;
    }
    /* Back once its interface is: every model card that was present before. */
    for (slot = 0; slot < 4; ++slot) {
        WCHAR instanceId[100];
        ModelXdmaInstanceId(slot, instanceId, 100);
        present += ModelDeviceExists(instanceId) ? 1 : 0;
    }
    return ModelWaitForInterfaces(present, -1, 5000) ? CR_SUCCESS : CR_FAILURE;
}
