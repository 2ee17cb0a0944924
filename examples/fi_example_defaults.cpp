// The front end refuses a library that lacks any entry. Here is one of each that answers "not supported"; being weak,
// it gives way to a real one.
#include <qzfi.h>

#define NOT_SUPPORTED(name, ...)                                                                                       \
    QZFI_API int32_t qzfi_##name(__VA_ARGS__);                                                                         \
    [[gnu::weak]] int32_t qzfi_##name(__VA_ARGS__) {                                                                   \
        return QFI_STATUS_NOT_SUPPORTED;                                                                               \
    }

extern "C" {
#define QZFI_OWN(slot, name)
#define QZFI_OPERATION(slot, name, ...) NOT_SUPPORTED(name, QZFI_KINDS(__VA_ARGS__))
#define QZFI_TREE QZFI_OPERATION
#define QZFI_ALIAS(slot, name, ...)
#define QZFI_SPARE(slot, name) NOT_SUPPORTED(name, void *)
#include <qzfi/operations.def>
}
