#include "msgcat/qzfiicuerrormgr.h"

// No catalog is built in yet, so no message has a localised text.
char *fi_get_icuMsg(const char *, const char *, va_list, int) {
    return nullptr;
}
