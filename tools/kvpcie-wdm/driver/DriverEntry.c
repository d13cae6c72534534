/* kvpcie-wdm: the Windows driver model's entry, Plug and Play, and the dispatch of requests to
   the card devices and their files. */
#include "ModelDriver.h"

#include <initguid.h>

DEFINE_GUID(MODEL_XDMA_CLASS, 0x74C7E4A9, 0x6D5D, 0x4A70, 0xBC, 0x0D, 0x20, 0x69, 0x1D, 0xFF, 0x9E,
            0x9D);
DEFINE_GUID(MODEL_RIFFA_CLASS, 0x40D49FB9, 0x6085, 0x4E1D, 0x87, 0x53, 0x82, 0x2B, 0xE9, 0x44, 0xD7,
            0xBB);

DRIVER_INITIALIZE DriverEntry;

void *ModelRequestBuffer(PIRP irp) {
    if (irp->MdlAddress != NULL) {
        return MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
    }
    return irp->AssociatedIrp.SystemBuffer != NULL ? irp->AssociatedIrp.SystemBuffer
                                                   : irp->UserBuffer;
}

NTSTATUS ModelComplete(PIRP irp, NTSTATUS status, ULONG_PTR information) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

static void ModelCloseHandleFile(PIO_STACK_LOCATION stack) {
    if (stack->FileObject != NULL && stack->FileObject->FsContext != NULL) {
        ModelCloseOpenFile(stack->FileObject->FsContext);
        stack->FileObject->FsContext = NULL;
    }
}

/* The instance number in "\??\ROOT#<device>#0001#{class}": the card that the device serves. */
static int CardNumberOf(const UNICODE_STRING *link) {
    const USHORT length = link->Length / sizeof(WCHAR);
    USHORT index;
    int hashes = 0;
    int number = 0;

    for (index = 0; index < length; ++index) {
        const WCHAR c = link->Buffer[index];
        if (c == L'#') {
            if (++hashes == 3) {
                break;
            }
        } else if (hashes == 2 && c >= L'0' && c <= L'9') {
            number = number * 10 + (c - L'0');
        }
    }
    return number < 100 ? number : 0;
}

/* The installer gives RIFFA devices a hardware ID that names them. */
static BOOLEAN IsRiffaDevice(PDEVICE_OBJECT physical) {
    WCHAR ids[128];
    ULONG length = 0;
    ULONG index;

    RtlZeroMemory(ids, sizeof ids);
    if (!NT_SUCCESS(IoGetDeviceProperty(physical, DevicePropertyHardwareID,
                                        sizeof ids - sizeof(WCHAR), ids, &length))) {
        return FALSE;
    }
    for (index = 0; index + 5 <= sizeof ids / sizeof(WCHAR) - 1; ++index) {
        if ((ids[index] | 0x20) == L'r' && (ids[index + 1] | 0x20) == L'i' &&
            (ids[index + 2] | 0x20) == L'f' && (ids[index + 3] | 0x20) == L'f' &&
            (ids[index + 4] | 0x20) == L'a') {
            return TRUE;
        }
    }
    return FALSE;
}

static NTSTATUS AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT physical) {
    PDEVICE_OBJECT self;
    ModelCard *card;
    NTSTATUS status;
    const BOOLEAN riffa = IsRiffaDevice(physical);

    status = IoCreateDevice(driver, sizeof(ModelCard), NULL, FILE_DEVICE_UNKNOWN,
                            FILE_DEVICE_SECURE_OPEN, FALSE, &self);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    card = self->DeviceExtension;
    RtlZeroMemory(card, sizeof *card);
    card->kind = riffa ? ModelRiffaCard : ModelXdmaCard;
    card->self = self;
    status = IoRegisterDeviceInterface(physical, riffa ? &MODEL_RIFFA_CLASS : &MODEL_XDMA_CLASS,
                                       NULL, &card->interfaceLink);
    if (!NT_SUCCESS(status)) {
        IoDeleteDevice(self);
        return status;
    }
    card->card = CardNumberOf(&card->interfaceLink);
    card->lower = IoAttachDeviceToDeviceStack(self, physical);
    if (card->lower == NULL) {
        RtlFreeUnicodeString(&card->interfaceLink);
        IoDeleteDevice(self);
        return STATUS_NO_SUCH_DEVICE;
    }
    self->Flags &= ~DO_DEVICE_INITIALIZING;
    return STATUS_SUCCESS;
}

static NTSTATUS PassDown(ModelCard *card, PIRP irp) {
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(card->lower, irp);
}

/* A RIFFA device is its interface alone: requests go to the device itself. */
static NTSTATUS StartCard(PDRIVER_OBJECT driver, ModelCard *card) {
    NTSTATUS status;

    if (card->kind == ModelXdmaCard) {
        return ModelStartXdmaFiles(driver, card);
    }
    status = IoSetDeviceInterfaceState(&card->interfaceLink, TRUE);
    card->started = NT_SUCCESS(status);
    return status;
}

static void StopCard(ModelCard *card) {
    if (card->kind == ModelXdmaCard) {
        ModelStopXdmaFiles(card);
        return;
    }
    if (card->started) {
        IoSetDeviceInterfaceState(&card->interfaceLink, FALSE);
        card->started = FALSE;
    }
    ModelCloseCardFiles(card->card, TRUE);
}

static NTSTATUS PlugAndPlay(PDEVICE_OBJECT device, ModelCard *card, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status;

    switch (stack->MinorFunction) {
        case IRP_MN_START_DEVICE:
            /* The card folder is read again: it may have moved since the driver loaded. Without
               one (before the installer has written it) every open fails, naming the path. */
            ModelReadCardFolder();
            status = StartCard(device->DriverObject, card);
            if (!NT_SUCCESS(status)) {
                return ModelComplete(irp, status, 0);
            }
            irp->IoStatus.Status = STATUS_SUCCESS;
            return PassDown(card, irp);
        case IRP_MN_SURPRISE_REMOVAL:
            StopCard(card);
            irp->IoStatus.Status = STATUS_SUCCESS;
            return PassDown(card, irp);
        case IRP_MN_REMOVE_DEVICE: {
            PDEVICE_OBJECT lower = card->lower;
            StopCard(card);
            RtlFreeUnicodeString(&card->interfaceLink);
            irp->IoStatus.Status = STATUS_SUCCESS;
            status = PassDown(card, irp);
            IoDetachDevice(lower);
            IoDeleteDevice(device);
            return status;
        }
        case IRP_MN_QUERY_REMOVE_DEVICE:
        case IRP_MN_CANCEL_REMOVE_DEVICE:
        case IRP_MN_QUERY_STOP_DEVICE:
        case IRP_MN_CANCEL_STOP_DEVICE:
        case IRP_MN_STOP_DEVICE:
            irp->IoStatus.Status = STATUS_SUCCESS;
            return PassDown(card, irp);
        default:
            return PassDown(card, irp);
    }
}

static NTSTATUS CardRequest(PDEVICE_OBJECT device, ModelCard *card, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);

    switch (stack->MajorFunction) {
        case IRP_MJ_PNP:
            return PlugAndPlay(device, card, irp);
        case IRP_MJ_POWER:
            PoStartNextPowerIrp(irp);
            IoSkipCurrentIrpStackLocation(irp);
            return PoCallDriver(card->lower, irp);
        default:
            break;
    }
    if (card->kind != ModelRiffaCard) {
        /* Only an XDMA card's files are opened. */
        return ModelComplete(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    }
    switch (stack->MajorFunction) {
        case IRP_MJ_CREATE:
            return ModelCreateRiffaFile(card, irp);
        case IRP_MJ_CLOSE:
            ModelCloseHandleFile(stack);
            return ModelComplete(irp, STATUS_SUCCESS, 0);
        case IRP_MJ_CLEANUP:
            return ModelComplete(irp, STATUS_SUCCESS, 0);
        case IRP_MJ_DEVICE_CONTROL:
            return ModelRiffaRequest(device, irp);
        default:
            return ModelComplete(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    }
}

static NTSTATUS FileRequest(ModelFileDevice *file, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);

    switch (stack->MajorFunction) {
        case IRP_MJ_CREATE:
            return ModelCreateXdmaFile(file, irp);
        case IRP_MJ_CLOSE:
            ModelCloseHandleFile(stack);
            return ModelComplete(irp, STATUS_SUCCESS, 0);
        case IRP_MJ_CLEANUP:
            return ModelComplete(irp, STATUS_SUCCESS, 0);
        case IRP_MJ_READ:
            return ModelTransferXdmaFile(file, irp, FALSE);
        case IRP_MJ_WRITE:
            return ModelTransferXdmaFile(file, irp, TRUE);
        default:
            return ModelComplete(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    }
}

static NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp) {
    const ModelNodeKind kind = *(const ModelNodeKind *)device->DeviceExtension;

    if (kind == ModelXdmaCard || kind == ModelRiffaCard) {
        return CardRequest(device, device->DeviceExtension, irp);
    }
    return FileRequest(device->DeviceExtension, irp);
}

static VOID Unload(PDRIVER_OBJECT driver) {
    (void)driver;
    ModelForgetRegistryPath();
}

NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath) {
    int major;
    NTSTATUS status = ModelRememberRegistryPath(registryPath);

    if (!NT_SUCCESS(status)) {
        return status;
    }
    ModelInitOpenFiles();
    for (major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; ++major) {
        driver->MajorFunction[major] = Dispatch;
    }
    driver->DriverExtension->AddDevice = AddDevice;
    driver->DriverUnload = Unload;
    return STATUS_SUCCESS;
}
