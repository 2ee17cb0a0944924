// The API implementation library of the benchmark. Its entries do nothing, but for "qzfi_make", which does about as
// little as an operation can: it looks at a short name.
#include <cstdint>

#include <qzfi/frontend.h>

extern "C" {

QZFI_API int32_t qzfi_start(void *, int32_t, qfi_handler *, int32_t);
int32_t qzfi_start(void *, int32_t, qfi_handler *, int32_t) {
    return 0;
}

QZFI_API int32_t qzfi_shutdown();
int32_t qzfi_shutdown() {
    return 0;
}

QZFI_API uint32_t qzfi_errmsg(uint32_t, const char **);
uint32_t qzfi_errmsg(uint32_t, const char **) {
    return 3;
}

QZFI_API int32_t qzfi_make(void *name, void *, void *);
int32_t qzfi_make(void *name, void *, void *) {
    uint32_t sum = 0;
    for (const char *each = static_cast<const char *>(name); *each != '\0'; ++each)
        sum = sum * 31 + static_cast<unsigned char>(*each);
    return static_cast<int32_t>(sum & 0x7f);
}

#define qzfi_make qzfi_unused // every other entry
#define QZFI_OWN(slot, name)
#define QZFI_ALIAS(slot, name, ...)
#define QZFI_OPERATION(slot, name, ...)                                                                                \
    QZFI_API int32_t qzfi_##name(QZFI_KINDS(__VA_ARGS__));                                                             \
    int32_t qzfi_##name(QZFI_KINDS(__VA_ARGS__)) {                                                                     \
        return 0;                                                                                                      \
    }
#define QZFI_TREE QZFI_OPERATION
#define QZFI_SPARE(slot, name) QZFI_OPERATION(slot, name, ptr)
#include <qzfi/operations.def>
}
