#include <stdio.h>
#include <string.h>

#include <qzfi.h>

int main(void) {
    const char *text = NULL;
    const uint32_t status = qzfiapi_errmsg(QFI_STATUS_NO_MEMORY, &text);
    if (status != QFI_STATUS_OK || strcmp(text, "Insufficient Memory") != 0) {
        fprintf(stderr, "status %u, text %s\n", status, text != NULL ? text : "(null)");
        return 1;
    }
    puts(text);
    return 0;
}
