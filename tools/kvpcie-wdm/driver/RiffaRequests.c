/* kvpcie-wdm: a RIFFA device's four device-control requests (send, receive, list, reset),
   answered later from a work item, as the RIFFA driver answers them, by the simulated device
   that kvpcie-simd serves at wine\riffaN. */
#include "ModelDriver.h"

#define RIFFA_SEND 0x222402u
#define RIFFA_RECEIVE 0x222406u
#define RIFFA_LIST 0x22240Au
#define RIFFA_RESET 0x22240Eu

/* The model's header words: request code, input bytes, block bytes, 0; answer kind, count,
   block bytes, 0. */
#define RIFFA_HEADER_BYTES 16u
#define RIFFA_LARGEST_INPUT 4096u
#define RIFFA_LARGEST_BLOCK (64u << 20)

enum { RiffaCompleted, RiffaRefused, RiffaRemoved, RiffaTimedOut };

typedef struct RiffaWork {
    PIO_WORKITEM item;
    PIRP irp;
} RiffaWork;

static NTSTATUS ModelOpenRiffaNode(int card, HANDLE *node) {
    WCHAR buffer[32];
    UNICODE_STRING name;

    RtlInitEmptyUnicodeString(&name, buffer, sizeof buffer - sizeof(WCHAR));
    if (!NT_SUCCESS(RtlAppendUnicodeToString(&name, L"wine\\riffa")) ||
        !NT_SUCCESS(ModelAppendNumber(&name, card))) {
        return STATUS_NAME_TOO_LONG;
    }
    buffer[name.Length / sizeof(WCHAR)] = L'\0';
    return ModelOpenNode(buffer, GENERIC_READ | GENERIC_WRITE, node);
}

/* One request through the model: written whole, its answer read back, under the open file's
   lock so that two requests on one handle do not mix. */
static NTSTATUS Forward(ModelOpenFile *file, ULONG code, const void *input, ULONG inputBytes,
                        void *block, ULONG blockBytes, ULONG_PTR *count) {
    const ULONG whole = RIFFA_HEADER_BYTES + inputBytes + blockBytes;
    ULONG *words;
    ULONG moved = 0;
    NTSTATUS status;

    *count = 0;
    if (inputBytes > RIFFA_LARGEST_INPUT || blockBytes > RIFFA_LARGEST_BLOCK ||
        (inputBytes != 0 && input == NULL) || (blockBytes != 0 && block == NULL)) {
        return STATUS_INVALID_PARAMETER;
    }
    words = ExAllocatePoolWithTag(PagedPool, whole, MODEL_POOL_TAG);
    if (words == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    words[0] = code;
    words[1] = inputBytes;
    words[2] = blockBytes;
    words[3] = 0;
    if (inputBytes != 0) {
        RtlCopyMemory((UCHAR *)words + RIFFA_HEADER_BYTES, input, inputBytes);
    }
    if (blockBytes != 0) {
        RtlCopyMemory((UCHAR *)words + RIFFA_HEADER_BYTES + inputBytes, block, blockBytes);
    }
    KeWaitForSingleObject(&file->requestLock, Executive, KernelMode, FALSE, NULL);
    status = file->node == NULL ? STATUS_DEVICE_DOES_NOT_EXIST
                                : ModelWriteNode(file->node, words, whole, 0, &moved);
    if (NT_SUCCESS(status) && moved == whole) {
        status = ModelReadNode(file->node, words, RIFFA_HEADER_BYTES + blockBytes, 0, &moved);
    } else if (NT_SUCCESS(status)) {
        status = STATUS_UNEXPECTED_IO_ERROR;
    }
    KeReleaseMutex(&file->requestLock, FALSE);
    if (NT_SUCCESS(status) && moved < RIFFA_HEADER_BYTES) {
        status = STATUS_UNEXPECTED_IO_ERROR;
    }
    if (NT_SUCCESS(status)) {
        switch (words[0]) {
            case RiffaCompleted:
                if (blockBytes != 0) {
                    RtlCopyMemory(block, (UCHAR *)words + RIFFA_HEADER_BYTES,
                                  moved - RIFFA_HEADER_BYTES);
                }
                *count = words[1];
                break;
            case RiffaRemoved:
                status = STATUS_DEVICE_REMOVED;
                break;
            case RiffaTimedOut:
                status = STATUS_CANCELLED;  /* what the driver's time-out ends a request with */
                break;
            default:
                status = STATUS_INVALID_PARAMETER;
                break;
        }
    }
    ExFreePoolWithTag(words, MODEL_POOL_TAG);
    return status;
}

static VOID AnswerLater(PDEVICE_OBJECT device, PVOID context) {
    RiffaWork *work = context;
    PIRP irp = work->irp;
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    ModelOpenFile *file = stack->FileObject != NULL ? stack->FileObject->FsContext : NULL;
    const ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
    ULONG_PTR count = 0;
    NTSTATUS status;

    (void)device;
    if (file == NULL) {
        status = STATUS_INVALID_HANDLE;
    } else {
        /* Direct out: the data block is the output buffer in both directions. */
        const ULONG blockBytes = stack->Parameters.DeviceIoControl.OutputBufferLength;
        status = Forward(file, code, irp->AssociatedIrp.SystemBuffer,
                         stack->Parameters.DeviceIoControl.InputBufferLength,
                         blockBytes != 0 ? ModelRequestBuffer(irp) : NULL, blockBytes, &count);
    }
    IoFreeWorkItem(work->item);
    ExFreePoolWithTag(work, MODEL_POOL_TAG);
    ModelComplete(irp, status, NT_SUCCESS(status) ? count : 0);
}

NTSTATUS ModelRiffaRequest(PDEVICE_OBJECT device, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    const ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
    RiffaWork *work;

    if (code != RIFFA_SEND && code != RIFFA_RECEIVE && code != RIFFA_LIST && code != RIFFA_RESET) {
        return ModelComplete(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    }
    work = ExAllocatePoolWithTag(NonPagedPool, sizeof *work, MODEL_POOL_TAG);
    if (work == NULL) {
        return ModelComplete(irp, STATUS_INSUFFICIENT_RESOURCES, 0);
    }
    work->item = IoAllocateWorkItem(device);
    if (work->item == NULL) {
        ExFreePoolWithTag(work, MODEL_POOL_TAG);
        return ModelComplete(irp, STATUS_INSUFFICIENT_RESOURCES, 0);
    }
    work->irp = irp;
    IoMarkIrpPending(irp);
    IoQueueWorkItem(work->item, AnswerLater, DelayedWorkQueue, work);
    return STATUS_PENDING;
}

NTSTATUS ModelCreateRiffaFile(ModelCard *card, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    ModelOpenFile *file = ExAllocatePoolWithTag(NonPagedPool, sizeof *file, MODEL_POOL_TAG);
    NTSTATUS status;

    if (file == NULL) {
        return ModelComplete(irp, STATUS_INSUFFICIENT_RESOURCES, 0);
    }
    RtlZeroMemory(file, sizeof *file);
    file->kind = ModelRiffaCard;
    file->card = card->card;
    KeInitializeMutex(&file->requestLock, 0);
    status = ModelOpenRiffaNode(card->card, &file->node);
    if (!NT_SUCCESS(status)) {
        ExFreePoolWithTag(file, MODEL_POOL_TAG);
        return ModelComplete(irp, status, 0);
    }
    ModelKeepOpenFile(file);
    stack->FileObject->FsContext = file;
    return ModelComplete(irp, STATUS_SUCCESS, 0);
}
