/* kvpcie-wdm: event-file reads, which wait for the card's user event: answered with the byte 1
   when it comes, with 0 after 3 s, and at once when cancelled. */
#include "ModelDriver.h"

/* The model is asked in slices, so that a cancelled read or a stopping queue leaves its
   thread within one slice; a read gives up after this many. */
#define MODEL_EVENT_SLICE_MS 100
#define MODEL_EVENT_SLICES 30

static VOID CancelEventRead(PDEVICE_OBJECT device, PIRP irp) {
    ModelEventQueue *queue = irp->Tail.Overlay.DriverContext[1];
    KIRQL irql;

    (void)device;
    IoReleaseCancelSpinLock(irp->CancelIrql);
    KeAcquireSpinLock(&queue->lock, &irql);
    RemoveEntryList(&irp->Tail.Overlay.ListEntry);
    KeReleaseSpinLock(&queue->lock, irql);
    ModelComplete(irp, STATUS_CANCELLED, 0);
}

/* Hands what one slice found to the oldest read: an event, a failure, or its last slice
   answer it; otherwise it waits on. An event that no read can take is kept for the next. */
static void Deliver(ModelEventQueue *queue, NTSTATUS status, UCHAR raised) {
    PIRP answered = NULL;
    KIRQL irql;

    KeAcquireSpinLock(&queue->lock, &irql);
    if (!IsListEmpty(&queue->reads)) {
        PIRP oldest = CONTAINING_RECORD(queue->reads.Flink, IRP, Tail.Overlay.ListEntry);
        const ULONG_PTR slices = (ULONG_PTR)oldest->Tail.Overlay.DriverContext[0] + 1;
        oldest->Tail.Overlay.DriverContext[0] = (PVOID)slices;
        if (!NT_SUCCESS(status) || raised || slices >= MODEL_EVENT_SLICES) {
            if (IoSetCancelRoutine(oldest, NULL) != NULL) {
                RemoveEntryList(&oldest->Tail.Overlay.ListEntry);
                answered = oldest;
            } else if (NT_SUCCESS(status) && raised) {
                queue->latched = TRUE;  /* its cancel routine is about to end it */
            }
        }
    } else if (NT_SUCCESS(status) && raised) {
        queue->latched = TRUE;
    }
    KeReleaseSpinLock(&queue->lock, irql);
    if (answered == NULL) {
        return;
    }
    if (!NT_SUCCESS(status)) {
        ModelComplete(answered, status, 0);
        return;
    }
    *(UCHAR *)ModelRequestBuffer(answered) = raised;
    ModelComplete(answered, STATUS_SUCCESS, 1);
}

/* One slice for the oldest read; FALSE when no read waits (or the queue stops). */
static BOOLEAN ServeOneSlice(ModelEventQueue *queue) {
    NTSTATUS status = STATUS_SUCCESS;
    UCHAR raised = 0;
    BOOLEAN latched;
    BOOLEAN idle;
    KIRQL irql;

    KeAcquireSpinLock(&queue->lock, &irql);
    idle = queue->stopping || IsListEmpty(&queue->reads);
    latched = !idle && queue->latched;
    if (latched) {
        queue->latched = FALSE;
    }
    KeReleaseSpinLock(&queue->lock, irql);
    if (idle) {
        /* Not held between runs: the model counts an open node as the card in use. */
        if (queue->node != NULL) {
            ZwClose(queue->node);
            queue->node = NULL;
        }
        return FALSE;
    }
    if (latched) {
        raised = 1;
    } else {
        ULONG moved = 0;
        if (queue->node == NULL) {
            status = ModelOpenXdmaNode(ModelEventFile, queue->card, queue->event, &queue->node);
        }
        if (NT_SUCCESS(status)) {
            /* The model waits at most the read's offset, in ms. */
            status = ModelReadNode(queue->node, &raised, 1, MODEL_EVENT_SLICE_MS, &moved);
            if (NT_SUCCESS(status) && moved != 1) {
                status = STATUS_UNEXPECTED_IO_ERROR;
            }
        }
        if (!NT_SUCCESS(status) && queue->node != NULL) {
            ZwClose(queue->node);  /* the card may come back: open afresh next time */
            queue->node = NULL;
        }
    }
    Deliver(queue, status, raised == 1);
    return TRUE;
}

static VOID EventThread(PVOID context) {
    ModelEventQueue *queue = context;

    for (;;) {
        KeWaitForSingleObject(&queue->work, Executive, KernelMode, FALSE, NULL);
        while (ServeOneSlice(queue)) {
        }
        if (queue->stopping) {
            break;
        }
    }
    PsTerminateSystemThread(STATUS_SUCCESS);
}

NTSTATUS ModelStartEventQueue(ModelEventQueue *queue, int card, int event) {
    NTSTATUS status;

    KeInitializeSpinLock(&queue->lock);
    InitializeListHead(&queue->reads);
    KeInitializeEvent(&queue->work, SynchronizationEvent, FALSE);
    queue->stopping = FALSE;
    queue->latched = FALSE;
    queue->node = NULL;
    queue->card = card;
    queue->event = event;
    status = PsCreateSystemThread(&queue->thread, THREAD_ALL_ACCESS, NULL, NULL, NULL, EventThread,
                                  queue);
    if (!NT_SUCCESS(status)) {
        queue->thread = NULL;
    }
    return status;
}

void ModelStopEventQueue(ModelEventQueue *queue) {
    LIST_ENTRY ended;
    KIRQL irql;

    if (queue->thread == NULL) {
        return;
    }
    InitializeListHead(&ended);
    KeAcquireSpinLock(&queue->lock, &irql);
    queue->stopping = TRUE;
    while (!IsListEmpty(&queue->reads)) {
        LIST_ENTRY *entry = RemoveHeadList(&queue->reads);
        PIRP read = CONTAINING_RECORD(entry, IRP, Tail.Overlay.ListEntry);
        if (IoSetCancelRoutine(read, NULL) != NULL) {
            InsertTailList(&ended, entry);
        } else {
            InitializeListHead(entry);  /* its cancel routine removes it: keep that harmless */
        }
    }
    KeReleaseSpinLock(&queue->lock, irql);
    while (!IsListEmpty(&ended)) {
        LIST_ENTRY *entry = RemoveHeadList(&ended);
        ModelComplete(CONTAINING_RECORD(entry, IRP, Tail.Overlay.ListEntry),
                      STATUS_DEVICE_DOES_NOT_EXIST, 0);
    }
    KeSetEvent(&queue->work, IO_NO_INCREMENT, FALSE);
    ZwWaitForSingleObject(queue->thread, FALSE, NULL);
    ZwClose(queue->thread);
    queue->thread = NULL;
}

NTSTATUS ModelQueueEventRead(ModelEventQueue *queue, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    KIRQL irql;

    if (stack->Parameters.Read.Length < 1 || ModelRequestBuffer(irp) == NULL) {
        return ModelComplete(irp, STATUS_INVALID_PARAMETER, 0);
    }
    irp->Tail.Overlay.DriverContext[0] = NULL;  /* slices waited */
    irp->Tail.Overlay.DriverContext[1] = queue;
    KeAcquireSpinLock(&queue->lock, &irql);
    if (queue->stopping) {
        KeReleaseSpinLock(&queue->lock, irql);
        return ModelComplete(irp, STATUS_DEVICE_DOES_NOT_EXIST, 0);
    }
    InsertTailList(&queue->reads, &irp->Tail.Overlay.ListEntry);
    IoMarkIrpPending(irp);
    IoSetCancelRoutine(irp, CancelEventRead);
    if (irp->Cancel && IoSetCancelRoutine(irp, NULL) != NULL) {
        RemoveEntryList(&irp->Tail.Overlay.ListEntry);
        KeReleaseSpinLock(&queue->lock, irql);
        ModelComplete(irp, STATUS_CANCELLED, 0);
        return STATUS_PENDING;
    }
    KeReleaseSpinLock(&queue->lock, irql);
    KeSetEvent(&queue->work, IO_NO_INCREMENT, FALSE);
    return STATUS_PENDING;
}
