/*
 * The entries that the example API implementation library serves itself. It knows one volume on one disk.
 */
#include <stddef.h>

#include <qzfi.h>

enum { EXAMPLE_STATUS_NO_SUCH_OBJECT = QFI_STATUS_API_FIRST };

static const char *const message = "The example knows one object: ask for count 1";

static qfi_objid_t disk_id = {"disk_7", 6, 0};
static qfi_objid_t volume_id = {"volume_1", 8, 0};
static qfi_domain disk;
static qfi_domain volume;

QZFI_API int32_t qzfi_start(void *reserved1, int32_t reserved2, qfi_handler *handler, int32_t reserved3);
QZFI_API int32_t qzfi_shutdown(void);
QZFI_API uint32_t qzfi_errmsg(uint32_t status, const char **text);
QZFI_API int32_t qzfi_gentree(void *objects, int32_t count, void *options, void *tree);

/* Called once by the front end, with the host's handler record. */
int32_t qzfi_start(void *reserved1, int32_t reserved2, qfi_handler *handler, int32_t reserved3) {
    (void)reserved1;
    (void)reserved2;
    (void)handler;
    (void)reserved3;
    disk = (qfi_domain){.objid = &disk_id, .fid_parent = &volume, .fid_rootnode = &volume};
    volume = (qfi_domain){.objid = &volume_id, .fid_children = &disk, .fid_rootnode = &volume};
    return QFI_STATUS_OK;
}

int32_t qzfi_shutdown(void) {
    return QFI_STATUS_OK;
}

/* Serves the codes from 1024 on. */
uint32_t qzfi_errmsg(uint32_t status, const char **text) {
    if ((status & ~QFI_STATUS_LOCALIZED) != EXAMPLE_STATUS_NO_SUCH_OBJECT)
        return QFI_STATUS_INVALID_ARGUMENT;
    *text = message;
    return QFI_STATUS_OK;
}

int32_t qzfi_gentree(void *objects, int32_t count, void *options, void *tree) {
    (void)objects;
    (void)options;
    if (count != 1)
        return EXAMPLE_STATUS_NO_SUCH_OBJECT;
    *(qfi_domain **)tree = &volume;
    return QFI_STATUS_OK;
}
