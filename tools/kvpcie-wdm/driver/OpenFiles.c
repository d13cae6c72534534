/* kvpcie-wdm: every open handle's node, so that a card's removal lets go of them all. */
#include "ModelDriver.h"

static KMUTEX lock;
static LIST_ENTRY openFiles;

/* The XDMA files of `card` that still reach the model; under the lock. */
static void PublishOpenFiles(int card) {
    LIST_ENTRY *entry;
    ULONG count = 0;

    for (entry = openFiles.Flink; entry != &openFiles; entry = entry->Flink) {
        ModelOpenFile *file = CONTAINING_RECORD(entry, ModelOpenFile, link);
        if (file->card == card && file->kind != ModelRiffaCard && file->node != NULL) {
            ++count;
        }
    }
    ModelPublishOpenFiles(card, count);
}

void ModelInitOpenFiles(void) {
    KeInitializeMutex(&lock, 0);
    InitializeListHead(&openFiles);
}

void ModelKeepOpenFile(ModelOpenFile *file) {
    KeWaitForSingleObject(&lock, Executive, KernelMode, FALSE, NULL);
    InsertTailList(&openFiles, &file->link);
    PublishOpenFiles(file->card);
    KeReleaseMutex(&lock, FALSE);
}

void ModelCloseOpenFile(ModelOpenFile *file) {
    KeWaitForSingleObject(&lock, Executive, KernelMode, FALSE, NULL);
    RemoveEntryList(&file->link);
    PublishOpenFiles(file->card);
    KeReleaseMutex(&lock, FALSE);
    if (file->node != NULL) {
        ZwClose(file->node);
    }
    ExFreePoolWithTag(file, MODEL_POOL_TAG);
}

/* The handles stay, failing; the model sees its card's files closed, so that a later restart of
   the card is not refused as if a process still held them. */
void ModelCloseCardFiles(int card, BOOLEAN riffa) {
    LIST_ENTRY *entry;

    KeWaitForSingleObject(&lock, Executive, KernelMode, FALSE, NULL);
    for (entry = openFiles.Flink; entry != &openFiles; entry = entry->Flink) {
        ModelOpenFile *file = CONTAINING_RECORD(entry, ModelOpenFile, link);
        if (file->card == card && (file->kind == ModelRiffaCard) == riffa && file->node != NULL) {
            ZwClose(file->node);
            file->node = NULL;
        }
    }
    PublishOpenFiles(card);
    KeReleaseMutex(&lock, FALSE);
}
