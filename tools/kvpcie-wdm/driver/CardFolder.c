/* kvpcie-wdm: where the simulated card's files are, and moving bytes through them. */
#include "ModelDriver.h"

/* The service's key, kept from DriverEntry; its Parameters say where the card is. */
static UNICODE_STRING registryPath;
/* "\??\Z:\...": the folder that kvpcie-simd serves, as the installer wrote it. */
static WCHAR cardFolder[512];

NTSTATUS ModelRememberRegistryPath(PCUNICODE_STRING path) {
    registryPath.Length = 0;
    registryPath.MaximumLength = path->Length + sizeof(WCHAR);
    registryPath.Buffer = ExAllocatePoolWithTag(PagedPool, registryPath.MaximumLength,
                                                MODEL_POOL_TAG);
    if (registryPath.Buffer == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyUnicodeString(&registryPath, path);
    return STATUS_SUCCESS;
}

void ModelForgetRegistryPath(void) {
    if (registryPath.Buffer != NULL) {
        ExFreePoolWithTag(registryPath.Buffer, MODEL_POOL_TAG);
        registryPath.Buffer = NULL;
    }
}

/* The service's Parameters key, where the installer writes and the driver publishes. */
static NTSTATUS OpenParameters(ACCESS_MASK access, HANDLE *handle) {
    static const WCHAR suffix[] = L"\\Parameters";
    WCHAR keyName[512];
    UNICODE_STRING key;
    OBJECT_ATTRIBUTES attributes;

    if (registryPath.Buffer == NULL || registryPath.Length + sizeof suffix > sizeof keyName) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    RtlCopyMemory(keyName, registryPath.Buffer, registryPath.Length);
    RtlCopyMemory((UCHAR *)keyName + registryPath.Length, suffix, sizeof suffix);
    RtlInitUnicodeString(&key, keyName);
    InitializeObjectAttributes(&attributes, &key, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL,
                               NULL);
    return ZwOpenKey(handle, access, &attributes);
}

/* "OpenFiles<card>" in the service's Parameters: how many XDMA files of the card are open, for
   the restart stand-in, which refuses to take a card away from under them as Windows does. */
void ModelPublishOpenFiles(int card, ULONG count) {
    WCHAR nameText[16] = L"OpenFiles";
    UNICODE_STRING valueName;
    HANDLE handle;

    if (card < 0 || card > 9 || !NT_SUCCESS(OpenParameters(KEY_SET_VALUE, &handle))) {
        return;
    }
    nameText[9] = (WCHAR)(L'0' + card);
    nameText[10] = L'\0';
    RtlInitUnicodeString(&valueName, nameText);
    ZwSetValueKey(handle, &valueName, 0, REG_DWORD, &count, sizeof count);
    ZwClose(handle);
}

/* Read at every start, so that a card folder written since the driver loaded is followed. */
NTSTATUS ModelReadCardFolder(void) {
    UNICODE_STRING valueName;
    HANDLE handle;
    UCHAR storage[sizeof(KEY_VALUE_PARTIAL_INFORMATION) + sizeof cardFolder];
    KEY_VALUE_PARTIAL_INFORMATION *value = (KEY_VALUE_PARTIAL_INFORMATION *)storage;
    ULONG length = 0;
    NTSTATUS status = OpenParameters(KEY_READ, &handle);

    cardFolder[0] = L'\0';
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RtlInitUnicodeString(&valueName, L"CardFolder");
    status = ZwQueryValueKey(handle, &valueName, KeyValuePartialInformation, value,
                             sizeof storage - sizeof(WCHAR), &length);
    ZwClose(handle);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (value->Type != REG_SZ || value->DataLength < sizeof(WCHAR) ||
        value->DataLength > sizeof cardFolder - sizeof(WCHAR)) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    RtlCopyMemory(cardFolder, value->Data, value->DataLength);
    cardFolder[value->DataLength / sizeof(WCHAR)] = L'\0';
    return STATUS_SUCCESS;
}

/* `relative` below the card folder, e.g. L"dev\\xdma0_user". */
NTSTATUS ModelOpenNode(const WCHAR *relative, ACCESS_MASK access, HANDLE *node) {
    WCHAR path[640];
    UNICODE_STRING name;
    OBJECT_ATTRIBUTES attributes;
    IO_STATUS_BLOCK io;

    *node = NULL;
    if (cardFolder[0] == L'\0') {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    RtlInitEmptyUnicodeString(&name, path, sizeof path);
    if (!NT_SUCCESS(RtlAppendUnicodeToString(&name, cardFolder)) ||
        !NT_SUCCESS(RtlAppendUnicodeToString(&name, L"\\")) ||
        !NT_SUCCESS(RtlAppendUnicodeToString(&name, relative))) {
        return STATUS_NAME_TOO_LONG;
    }
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL,
                               NULL);
    return ZwCreateFile(node, access | SYNCHRONIZE, &attributes, &io, NULL, FILE_ATTRIBUTE_NORMAL,
                        FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN,
                        FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, NULL, 0);
}

NTSTATUS ModelReadNode(HANDLE node, void *buffer, ULONG size, LONGLONG offset, ULONG *moved) {
    IO_STATUS_BLOCK io;
    LARGE_INTEGER position;
    NTSTATUS status;

    position.QuadPart = offset;
    io.Information = 0;
    status = ZwReadFile(node, NULL, NULL, NULL, &io, buffer, size, &position, NULL);
    *moved = NT_SUCCESS(status) ? (ULONG)io.Information : 0;
    return status == STATUS_END_OF_FILE ? STATUS_SUCCESS : status;
}

NTSTATUS ModelWriteNode(HANDLE node, const void *buffer, ULONG size, LONGLONG offset,
                        ULONG *moved) {
    IO_STATUS_BLOCK io;
    LARGE_INTEGER position;
    NTSTATUS status;

    position.QuadPart = offset;
    io.Information = 0;
    status = ZwWriteFile(node, NULL, NULL, NULL, &io, (void *)buffer, size, &position, NULL);
    *moved = NT_SUCCESS(status) ? (ULONG)io.Information : 0;
    return status;
}

NTSTATUS ModelAppendNumber(UNICODE_STRING *text, int number) {
    WCHAR digits[12];
    UNICODE_STRING decimal;
    NTSTATUS status;

    RtlInitEmptyUnicodeString(&decimal, digits, sizeof digits);
    status = RtlIntegerToUnicodeString((ULONG)number, 10, &decimal);
    return NT_SUCCESS(status) ? RtlAppendUnicodeStringToString(text, &decimal) : status;
}
