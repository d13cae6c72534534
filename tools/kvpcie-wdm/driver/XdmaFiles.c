/* kvpcie-wdm: an XDMA card's device files ("user", "control", "c2h_0", "h2c_0", "event_N"),
   each a named device object, forwarded to the files that kvpcie-simd serves. */
#include "ModelDriver.h"

/* The largest piece moved through the model in one call. */
#define MODEL_DMA_PIECE 0x800000u

static const struct {
    const WCHAR *name;
    ModelNodeKind kind;
} fixedFiles[4] = {{L"user", ModelUserFile},
                   {L"control", ModelControlFile},
                   {L"c2h_0", ModelCardToHostFile},
                   {L"h2c_0", ModelHostToCardFile}};

/* Each start makes a new directory, so that objects that a removal left behind (handles still
   open on them) never clash with the new ones' names. */
static LONG generation;

static NTSTATUS AppendFileName(UNICODE_STRING *name, int index) {
    if (index < 4) {
        return RtlAppendUnicodeToString(name, fixedFiles[index].name);
    }
    {
        const NTSTATUS status = RtlAppendUnicodeToString(name, L"event_");
        return NT_SUCCESS(status) ? ModelAppendNumber(name, index - 4) : status;
    }
}

/* The model's node below the card folder that a file of `kind` forwards to. */
static NTSTATUS ModelNodeName(UNICODE_STRING *name, ModelNodeKind kind, int card, int event) {
    static const WCHAR *suffixes[] = {L"_user", L"_control", L"_c2h_0", L"_h2c_0"};
    NTSTATUS status = RtlAppendUnicodeToString(
        name, kind == ModelEventFile ? L"wine\\xdma" : L"dev\\xdma");
    if (NT_SUCCESS(status)) {
        status = ModelAppendNumber(name, card);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (kind == ModelEventFile) {
        status = RtlAppendUnicodeToString(name, L"_event_");
        return NT_SUCCESS(status) ? ModelAppendNumber(name, event) : status;
    }
    return RtlAppendUnicodeToString(name, suffixes[kind - ModelUserFile]);
}

NTSTATUS ModelOpenXdmaNode(ModelNodeKind kind, int card, int event, HANDLE *node) {
    WCHAR buffer[64];
    UNICODE_STRING name;
    ACCESS_MASK access = GENERIC_READ | GENERIC_WRITE;
    NTSTATUS status;

    RtlInitEmptyUnicodeString(&name, buffer, sizeof buffer - sizeof(WCHAR));
    status = ModelNodeName(&name, kind, card, event);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    buffer[name.Length / sizeof(WCHAR)] = L'\0';
    if (kind == ModelCardToHostFile || kind == ModelEventFile) {
        access = GENERIC_READ;
    } else if (kind == ModelHostToCardFile) {
        access = GENERIC_WRITE;
    }
    return ModelOpenNode(buffer, access, node);
}

/* As a removal and rescan restart a card on Linux; refused by the model while another process
   holds the card's files, and then the card simply goes on. */
static void RestartModelCard(int card) {
    WCHAR buffer[48];
    UNICODE_STRING name;
    HANDLE node;
    ULONG moved;

    RtlInitEmptyUnicodeString(&name, buffer, sizeof buffer - sizeof(WCHAR));
    if (!NT_SUCCESS(RtlAppendUnicodeToString(&name, L"wine\\xdma")) ||
        !NT_SUCCESS(ModelAppendNumber(&name, card)) ||
        !NT_SUCCESS(RtlAppendUnicodeToString(&name, L"_restart"))) {
        return;
    }
    buffer[name.Length / sizeof(WCHAR)] = L'\0';
    if (NT_SUCCESS(ModelOpenNode(buffer, GENERIC_WRITE, &node))) {
        ModelWriteNode(node, "1", 1, 0, &moved);
        ZwClose(node);
    }
}

NTSTATUS ModelStartXdmaFiles(PDRIVER_OBJECT driver, ModelCard *card) {
    WCHAR directoryBuffer[64];
    UNICODE_STRING directoryName;
    OBJECT_ATTRIBUTES attributes;
    NTSTATUS status;
    int index;

    RtlInitEmptyUnicodeString(&directoryName, directoryBuffer, sizeof directoryBuffer);
    status = RtlAppendUnicodeToString(&directoryName, L"\\Device\\KvPcieXdma");
    if (NT_SUCCESS(status)) {
        status = ModelAppendNumber(&directoryName, card->card);
    }
    if (NT_SUCCESS(status)) {
        status = RtlAppendUnicodeToString(&directoryName, L"_");
    }
    if (NT_SUCCESS(status)) {
        status = ModelAppendNumber(&directoryName, (int)InterlockedIncrement(&generation));
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RestartModelCard(card->card);

    InitializeObjectAttributes(&attributes, &directoryName,
                               OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
    status = ZwCreateDirectoryObject(&card->directory, DIRECTORY_ALL_ACCESS, &attributes);
    if (!NT_SUCCESS(status)) {
        card->directory = NULL;
        return status;
    }
    for (index = 0; index < MODEL_XDMA_FILES; ++index) {
        WCHAR fileBuffer[96];
        UNICODE_STRING fileName;
        PDEVICE_OBJECT device;
        ModelFileDevice *file;

        RtlInitEmptyUnicodeString(&fileName, fileBuffer, sizeof fileBuffer);
        status = RtlAppendUnicodeStringToString(&fileName, &directoryName);
        if (NT_SUCCESS(status)) {
            status = RtlAppendUnicodeToString(&fileName, L"\\");
        }
        if (NT_SUCCESS(status)) {
            status = AppendFileName(&fileName, index);
        }
        if (NT_SUCCESS(status)) {
            status = IoCreateDevice(driver, sizeof(ModelFileDevice), &fileName,
                                    FILE_DEVICE_UNKNOWN, FILE_DEVICE_SECURE_OPEN, FALSE, &device);
        }
        if (!NT_SUCCESS(status)) {
            ModelStopXdmaFiles(card);
            return status;
        }
        file = device->DeviceExtension;
        file->kind = index < 4 ? fixedFiles[index].kind : ModelEventFile;
        file->card = card->card;
        file->events = index < 4 ? NULL : &card->events[index - 4];
        device->Flags |= DO_BUFFERED_IO;
        device->Flags &= ~DO_DEVICE_INITIALIZING;
        card->files[index] = device;
    }
    for (index = 0; index < MODEL_EVENT_FILES; ++index) {
        status = ModelStartEventQueue(&card->events[index], card->card, index);
        if (!NT_SUCCESS(status)) {
            ModelStopXdmaFiles(card);
            return status;
        }
    }
    /* Wine opens no name below an interface's device: its link goes to the directory of files
       instead, so that "<interface path>\user" reaches the device named "user". */
    status = IoSetDeviceInterfaceState(&card->interfaceLink, TRUE);
    if (NT_SUCCESS(status)) {
        IoDeleteSymbolicLink(&card->interfaceLink);
        status = IoCreateSymbolicLink(&card->interfaceLink, &directoryName);
    }
    if (!NT_SUCCESS(status)) {
        ModelStopXdmaFiles(card);
        return status;
    }
    card->started = TRUE;
    return STATUS_SUCCESS;
}

void ModelStopXdmaFiles(ModelCard *card) {
    int index;

    if (card->started) {
        IoSetDeviceInterfaceState(&card->interfaceLink, FALSE);
        card->started = FALSE;
    }
    for (index = 0; index < MODEL_EVENT_FILES; ++index) {
        ModelStopEventQueue(&card->events[index]);
    }
    for (index = 0; index < MODEL_XDMA_FILES; ++index) {
        if (card->files[index] != NULL) {
            IoDeleteDevice(card->files[index]);
            card->files[index] = NULL;
        }
    }
    if (card->directory != NULL) {
        ZwClose(card->directory);
        card->directory = NULL;
    }
    ModelCloseCardFiles(card->card, FALSE);
}

NTSTATUS ModelCreateXdmaFile(ModelFileDevice *device, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    ModelOpenFile *file;
    NTSTATUS status;

    file = ExAllocatePoolWithTag(NonPagedPool, sizeof *file, MODEL_POOL_TAG);
    if (file == NULL) {
        return ModelComplete(irp, STATUS_INSUFFICIENT_RESOURCES, 0);
    }
    RtlZeroMemory(file, sizeof *file);
    file->kind = device->kind;
    file->card = device->card;
    /* The model refuses the open when its card is off the bus, as the driver then has none. */
    status = ModelOpenXdmaNode(device->kind, device->card,
                               device->events != NULL ? device->events->event : 0, &file->node);
    if (!NT_SUCCESS(status)) {
        ExFreePoolWithTag(file, MODEL_POOL_TAG);
        return ModelComplete(irp, status, 0);
    }
    ModelKeepOpenFile(file);
    stack->FileObject->FsContext = file;
    return ModelComplete(irp, STATUS_SUCCESS, 0);
}

/* Register files move one aligned 32-bit word per call of the model; DMA files move pieces. */
static NTSTATUS Move(ModelOpenFile *file, UCHAR *buffer, ULONG length, LONGLONG offset,
                     BOOLEAN write, ULONG *done) {
    const BOOLEAN words = file->kind == ModelUserFile || file->kind == ModelControlFile;
    NTSTATUS status = STATUS_SUCCESS;

    *done = 0;
    if (words && (length % 4 != 0 || offset % 4 != 0)) {
        return STATUS_INVALID_PARAMETER;
    }
    while (*done < length) {
        const ULONG left = length - *done;
        const ULONG piece = words ? 4 : (left < MODEL_DMA_PIECE ? left : MODEL_DMA_PIECE);
        ULONG moved = 0;

        if (file->node == NULL) {
            return STATUS_DEVICE_DOES_NOT_EXIST;  /* its card was removed meanwhile */
        }
        status = write ? ModelWriteNode(file->node, buffer + *done, piece, offset + *done, &moved)
                       : ModelReadNode(file->node, buffer + *done, piece, offset + *done, &moved);
        if (!NT_SUCCESS(status) || moved == 0) {
            break;  /* past the end of the space, nothing more moves */
        }
        *done += moved;
    }
    return status;
}

NTSTATUS ModelTransferXdmaFile(ModelFileDevice *device, PIRP irp, BOOLEAN write) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    ModelOpenFile *file = stack->FileObject != NULL ? stack->FileObject->FsContext : NULL;
    const ULONG length = write ? stack->Parameters.Write.Length : stack->Parameters.Read.Length;
    const LONGLONG offset = write ? stack->Parameters.Write.ByteOffset.QuadPart
                                  : stack->Parameters.Read.ByteOffset.QuadPart;
    UCHAR *buffer = ModelRequestBuffer(irp);
    ULONG done = 0;
    NTSTATUS status;

    if (file == NULL || (length != 0 && buffer == NULL) || offset < 0) {
        return ModelComplete(irp, STATUS_INVALID_PARAMETER, 0);
    }
    if (device->kind == ModelEventFile) {
        return write ? ModelComplete(irp, STATUS_INVALID_DEVICE_REQUEST, 0)
                     : ModelQueueEventRead(device->events, irp);
    }
    if ((write && device->kind == ModelCardToHostFile) ||
        (!write && device->kind == ModelHostToCardFile)) {
        return ModelComplete(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    }
    status = Move(file, buffer, length, offset, write, &done);
    return ModelComplete(irp, status, NT_SUCCESS(status) ? done : 0);
}
