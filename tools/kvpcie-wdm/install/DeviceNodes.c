/* kvpcie-wdm: the driver model's devices through SetupAPI and newdev. */
#include "DeviceNodes.h"

#include <initguid.h>

#include <devguid.h>
#include <newdev.h>
#include <setupapi.h>
#include <stdio.h>
#include <wchar.h>

DEFINE_GUID(MODEL_XDMA_INTERFACE, 0x74C7E4A9, 0x6D5D, 0x4A70, 0xBC, 0x0D, 0x20, 0x69, 0x1D, 0xFF,
            0x9E, 0x9D);
DEFINE_GUID(MODEL_RIFFA_INTERFACE, 0x40D49FB9, 0x6085, 0x4E1D, 0x87, 0x53, 0x82, 0x2B, 0xE9, 0x44,
            0xD7, 0xBB);

void ModelXdmaInstanceId(int card, WCHAR *instanceId, DWORD chars) {
    swprintf(instanceId, chars, L"%ls%04d", MODEL_XDMA_INSTANCE_PREFIX, card);
}

void ModelRiffaInstanceId(int card, WCHAR *instanceId, DWORD chars) {
    swprintf(instanceId, chars, L"%ls%04d", MODEL_RIFFA_INSTANCE_PREFIX, card);
}

BOOL ModelAddDevice(const WCHAR *instanceId, const WCHAR *hardwareId) {
    WCHAR ids[128] = {0};
    SP_DEVINFO_DATA info;
    HDEVINFO set = SetupDiCreateDeviceInfoList(&GUID_DEVCLASS_SYSTEM, NULL);
    BOOL added;

    ZeroMemory(&info, sizeof info);
    info.cbSize = sizeof info;
    if (set == INVALID_HANDLE_VALUE) {
        return FALSE;
    }
    if (SetupDiOpenDeviceInfoW(set, instanceId, NULL, 0, &info)) {
        SetupDiDestroyDeviceInfoList(set);
        return TRUE;
    }
    wcsncpy(ids, hardwareId, 126);  /* a list of one: ends in two zeros */
    added = SetupDiCreateDeviceInfoW(set, instanceId, &GUID_DEVCLASS_SYSTEM, NULL, NULL, 0, &info) &&
            SetupDiSetDeviceRegistryPropertyW(set, &info, SPDRP_HARDWAREID, (const BYTE *)ids,
                                              (DWORD)((wcslen(ids) + 2) * sizeof(WCHAR))) &&
            SetupDiCallClassInstaller(DIF_REGISTERDEVICE, set, &info);
    SetupDiDestroyDeviceInfoList(set);
    return added;
}

BOOL ModelDeviceExists(const WCHAR *instanceId) {
    SP_DEVINFO_DATA info;
    HDEVINFO set = SetupDiCreateDeviceInfoList(NULL, NULL);
    BOOL exists;

    ZeroMemory(&info, sizeof info);
    info.cbSize = sizeof info;
    if (set == INVALID_HANDLE_VALUE) {
        return FALSE;
    }
    exists = SetupDiOpenDeviceInfoW(set, instanceId, NULL, 0, &info);
    SetupDiDestroyDeviceInfoList(set);
    return exists;
}

BOOL ModelRemoveDevice(const WCHAR *instanceId) {
    /* From the set of root devices: through a set of the interface class, Wine would delete
       the interface's key first, and the interface would stay gone until the session ends. */
    HDEVINFO set = SetupDiGetClassDevsW(NULL, L"ROOT", NULL, DIGCF_ALLCLASSES);
    SP_DEVINFO_DATA info;
    BOOL removed = FALSE;
    DWORD index;

    ZeroMemory(&info, sizeof info);
    info.cbSize = sizeof info;
    if (set == INVALID_HANDLE_VALUE) {
        return FALSE;
    }
    for (index = 0; SetupDiEnumDeviceInfo(set, index, &info); ++index) {
        WCHAR id[200];
        if (SetupDiGetDeviceInstanceIdW(set, &info, id, 200, NULL) && _wcsicmp(id, instanceId) == 0) {
            removed = SetupDiCallClassInstaller(DIF_REMOVE, set, &info);
            break;
        }
    }
    SetupDiDestroyDeviceInfoList(set);
    return removed;
}

BOOL ModelInstallDriver(const WCHAR *hardwareId, const WCHAR *infPath) {
    BOOL reboot = FALSE;
    return UpdateDriverForPlugAndPlayDevicesW(NULL, hardwareId, infPath, INSTALLFLAG_FORCE,
                                              &reboot);
}

static int CountInterfaces(const GUID *interfaceClass, BOOL print) {
    HDEVINFO set = SetupDiGetClassDevsW(interfaceClass, NULL, NULL,
                                        DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    SP_DEVICE_INTERFACE_DATA data;
    int count = 0;

    ZeroMemory(&data, sizeof data);
    data.cbSize = sizeof data;
    if (set == INVALID_HANDLE_VALUE) {
        return 0;
    }
    while (SetupDiEnumDeviceInterfaces(set, NULL, interfaceClass, (DWORD)count, &data)) {
        union {
            SP_DEVICE_INTERFACE_DETAIL_DATA_W detail;
            WCHAR storage[300];
        } path;
        path.detail.cbSize = sizeof path.detail;
        if (print && SetupDiGetDeviceInterfaceDetailW(set, &data, &path.detail, sizeof path, NULL,
                                                      NULL)) {
            wprintf(L"%ls\n", path.detail.DevicePath);
        }
        ++count;
    }
    SetupDiDestroyDeviceInfoList(set);
    return count;
}

BOOL ModelWaitForInterfaces(int count, int riffaCount, DWORD milliseconds) {
    const DWORD start = GetTickCount();
    while (CountInterfaces(&MODEL_XDMA_INTERFACE, FALSE) < count ||
           (riffaCount >= 0 && CountInterfaces(&MODEL_RIFFA_INTERFACE, FALSE) < riffaCount)) {
        if (GetTickCount() - start > milliseconds) {
            return FALSE;
        }
        Sleep(10);
    }
    return TRUE;
}

void ModelPrintInterfaces(void) {
    CountInterfaces(&MODEL_XDMA_INTERFACE, TRUE);
    CountInterfaces(&MODEL_RIFFA_INTERFACE, TRUE);
}
