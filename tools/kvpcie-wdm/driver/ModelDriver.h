/* kvpcie-wdm: what the parts of the Windows driver model share. */
#pragma once

#include <ntifs.h>

#define MODEL_POOL_TAG ((ULONG)0x6D70764B) /* "Kvpm" */
#define MODEL_EVENT_FILES 16
#define MODEL_XDMA_FILES (4 + MODEL_EVENT_FILES)

typedef enum ModelNodeKind {
    ModelXdmaCard,  /* the function device of an XDMA card */
    ModelRiffaCard, /* the function device of a RIFFA device */
    ModelUserFile,
    ModelControlFile,
    ModelCardToHostFile,
    ModelHostToCardFile,
    ModelEventFile
} ModelNodeKind;

/* The reads of one event file: answered by a system thread of their own, oldest first. */
typedef struct ModelEventQueue {
    KSPIN_LOCK lock;
    LIST_ENTRY reads;
    KEVENT work;        /* a read came, or the queue stops */
    BOOLEAN stopping;
    BOOLEAN latched;    /* an event taken for a read that was cancelled meanwhile */
    HANDLE thread;
    HANDLE node;        /* the card's event node, open while reads wait */
    int card;
    int event;
} ModelEventQueue;

struct ModelCard;

/* Every device object of the driver starts with its kind. */
typedef struct ModelFileDevice {
    ModelNodeKind kind;
    int card;
    ModelEventQueue *events; /* event files only */
} ModelFileDevice;

typedef struct ModelCard {
    ModelNodeKind kind;
    int card;
    PDEVICE_OBJECT self;
    PDEVICE_OBJECT lower;
    UNICODE_STRING interfaceLink;
    BOOLEAN started;
    HANDLE directory;
    PDEVICE_OBJECT files[MODEL_XDMA_FILES];
    ModelEventQueue events[MODEL_EVENT_FILES];
} ModelCard;

/* What an open handle holds: the model's node it forwards to, closed early when its card goes
   (Wine sends no close for a handle whose device was removed). */
typedef struct ModelOpenFile {
    LIST_ENTRY link;
    ModelNodeKind kind;
    int card;
    HANDLE node;
    KMUTEX requestLock; /* RIFFA: one request and answer at a time through `node` */
} ModelOpenFile;

/* CardFolder.c */
NTSTATUS ModelRememberRegistryPath(PCUNICODE_STRING registryPath);
void ModelForgetRegistryPath(void);
NTSTATUS ModelReadCardFolder(void);
void ModelPublishOpenFiles(int card, ULONG count);
NTSTATUS ModelAppendNumber(UNICODE_STRING *text, int number);
NTSTATUS ModelOpenNode(const WCHAR *relative, ACCESS_MASK access, HANDLE *node);
NTSTATUS ModelReadNode(HANDLE node, void *buffer, ULONG size, LONGLONG offset, ULONG *moved);
NTSTATUS ModelWriteNode(HANDLE node, const void *buffer, ULONG size, LONGLONG offset,
                        ULONG *moved);

/* XdmaFiles.c */
NTSTATUS ModelOpenXdmaNode(ModelNodeKind kind, int card, int event, HANDLE *node);
NTSTATUS ModelStartXdmaFiles(PDRIVER_OBJECT driver, ModelCard *card);
void ModelStopXdmaFiles(ModelCard *card);
NTSTATUS ModelCreateXdmaFile(ModelFileDevice *device, PIRP irp);
NTSTATUS ModelTransferXdmaFile(ModelFileDevice *device, PIRP irp, BOOLEAN write);

/* EventReads.c */
NTSTATUS ModelStartEventQueue(ModelEventQueue *queue, int card, int event);
void ModelStopEventQueue(ModelEventQueue *queue);
NTSTATUS ModelQueueEventRead(ModelEventQueue *queue, PIRP irp);

/* OpenFiles.c */
void ModelInitOpenFiles(void);
void ModelKeepOpenFile(ModelOpenFile *file);
void ModelCloseOpenFile(ModelOpenFile *file);
void ModelCloseCardFiles(int card, BOOLEAN riffa);

/* RiffaRequests.c */
NTSTATUS ModelCreateRiffaFile(ModelCard *card, PIRP irp);
NTSTATUS ModelRiffaRequest(PDEVICE_OBJECT device, PIRP irp);

/* The data of a read, write or device-control request, wherever the I/O manager put it. */
void *ModelRequestBuffer(PIRP irp);
NTSTATUS ModelComplete(PIRP irp, NTSTATUS status, ULONG_PTR information);
