/* kvpcie-model-install: installs the Windows driver model into a Wine prefix (or removes it),
   pointing it at the folder that kvpcie-simd serves. */
#include "DeviceNodes.h"

#include <stdio.h>
#include <wchar.h>

static const WCHAR usage[] =
    L"usage: kvpcie-model-install install INF CARD_FOLDER [CARDS]\n"
    L"       kvpcie-model-install remove [CARDS]\n"
    L"CARD_FOLDER is the Linux folder that kvpcie-simd serves (or a link to it); CARDS 1 to 4.\n";

static BOOL SetText(HKEY root, const WCHAR *key, const WCHAR *name, const WCHAR *text) {
    return RegSetKeyValueW(root, key, name, REG_SZ, text,
                           (DWORD)((wcslen(text) + 1) * sizeof(WCHAR))) == ERROR_SUCCESS;
}

/* "/work/card" as the driver opens it: "\??\Z:\work\card". */
static void NtPathOfLinuxFolder(const WCHAR *folder, WCHAR *path, size_t chars) {
    size_t at;
    swprintf(path, chars, L"\\??\\Z:%ls", folder);
    for (at = 0; path[at] != L'\0'; ++at) {
        if (path[at] == L'/') {
            path[at] = L'\\';
        }
    }
}

/* Card `card`'s XDMA function (even `index`) or RIFFA device (odd). */
static void InstanceOf(int index, WCHAR *instanceId, const WCHAR **hardwareId) {
    if (index % 2 == 0) {
        ModelXdmaInstanceId(index / 2, instanceId, 100);
        *hardwareId = MODEL_XDMA_HARDWARE_ID;
    } else {
        ModelRiffaInstanceId(index / 2, instanceId, 100);
        *hardwareId = MODEL_RIFFA_HARDWARE_ID;
    }
}

static BOOL InstallDrivers(const WCHAR *infPath) {
    return ModelInstallDriver(MODEL_XDMA_HARDWARE_ID, infPath) &&
           ModelInstallDriver(MODEL_RIFFA_HARDWARE_ID, infPath);
}

static int Install(const WCHAR *inf, const WCHAR *folder, int cards) {
    WCHAR infPath[MAX_PATH];
    WCHAR cardFolder[600];
    int card;

    if (GetFullPathNameW(inf, MAX_PATH, infPath, NULL) == 0 ||
        GetFileAttributesW(infPath) == INVALID_FILE_ATTRIBUTES) {
        fwprintf(stderr, L"kvpcie-model-install: no INF at %ls\n", inf);
        return 1;
    }
    for (card = 0; card < 2 * cards; ++card) {
        WCHAR instanceId[100];
        const WCHAR *hardwareId;
        InstanceOf(card, instanceId, &hardwareId);
        if (!ModelAddDevice(instanceId, hardwareId)) {
            fwprintf(stderr, L"kvpcie-model-install: cannot add %ls (error %lu)\n", instanceId,
                     GetLastError());
            return 1;
        }
    }
    if (!InstallDrivers(infPath)) {
        fwprintf(stderr, L"kvpcie-model-install: cannot install %ls (error %lu)\n", infPath,
                 GetLastError());
        return 1;
    }
    /* Into the service's key, which the INF's installation made: the driver reads them at every
       start, so the cards are started once more. */
    NtPathOfLinuxFolder(folder, cardFolder, 600);
    if (!SetText(HKEY_LOCAL_MACHINE, MODEL_SERVICE_PARAMETERS, L"CardFolder", cardFolder) ||
        !SetText(HKEY_LOCAL_MACHINE, MODEL_SERVICE_PARAMETERS, L"InfPath", infPath)) {
        fwprintf(stderr, L"kvpcie-model-install: cannot write the driver's parameters\n");
        return 1;
    }
    for (card = 0; card < 2 * cards; ++card) {
        WCHAR instanceId[100];
        const WCHAR *hardwareId;
        InstanceOf(card, instanceId, &hardwareId);
        if (!ModelRemoveDevice(instanceId) || !ModelAddDevice(instanceId, hardwareId)) {
            fwprintf(stderr, L"kvpcie-model-install: cannot restart %ls\n", instanceId);
            return 1;
        }
    }
    if (!InstallDrivers(infPath) || !ModelWaitForInterfaces(cards, cards, 10000)) {
        fwprintf(stderr, L"kvpcie-model-install: the cards' interfaces did not appear\n");
        return 1;
    }
    ModelPrintInterfaces();
    return 0;
}

static int Remove(int cards) {
    int card;
    int status = 0;
    for (card = 0; card < 2 * cards; ++card) {
        WCHAR instanceId[100];
        const WCHAR *hardwareId;
        InstanceOf(card, instanceId, &hardwareId);
        if (!ModelRemoveDevice(instanceId)) {
            fwprintf(stderr, L"kvpcie-model-install: %ls was not there\n", instanceId);
            status = 1;
        }
    }
    return status;
}

int wmain(int argc, WCHAR **argv) {
    const int cardsArgument = argc > 1 && wcscmp(argv[1], L"install") == 0 ? 4 : 2;
    const int cards = argc > cardsArgument ? _wtoi(argv[cardsArgument]) : 1;

    if (cards < 1 || cards > 4) {
        fputws(usage, stderr);
        return 2;
    }
    if (argc >= 4 && wcscmp(argv[1], L"install") == 0) {
        return Install(argv[2], argv[3], cards);
    }
    if (argc >= 2 && wcscmp(argv[1], L"remove") == 0) {
        return Remove(cards);
    }
    fputws(usage, stderr);
    return 2;
}
