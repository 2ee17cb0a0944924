/*
 * A host's first calls: start, a call that cannot be served and what is known about it then, a call that is served,
 * and shutdown. Its argument is the path of an API implementation library.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <qzfi.h>

/* Where the catalogs have no text, a message's id in angle brackets stands for it, behind the name of a catalog if one
   was found. */
static bool is_translation(const char *localized) {
    if (localized == NULL)
        return false;
    if (strncmp(localized, "fi: ", 4) == 0)
        localized += 4;
    return strncmp(localized, "<MSG_QFI_", 9) != 0;
}

static void on_report(qfi_handler *self, const char *text, const char *localized, uint32_t severity) {
    (void)self;
    printf("  handler, severity %u: %s\n", (unsigned)severity, text);
    if (is_translation(localized))
        printf("    localised: %s\n", localized);
}

static const char *text_of(int32_t status) {
    const char *text = NULL;
    return qzfiapi_errmsg((uint32_t)status, &text) == QFI_STATUS_OK ? text : "(no text)";
}

static void ask_for_tree(int32_t count) {
    qfi_domain *tree = NULL;
    const int32_t status = qzfiapi_gentree(NULL, count, NULL, &tree);
    printf("  status %d: %s\n", status, text_of(status));
}

static void show_last_error(void) {
    qfi_error_info *error = NULL;
    if (does_last_error_exist(&error) != 1) {
        puts("  no error record");
        return;
    }
    printf("  error record %s of this thread: routine %s, library %s\n", error->message_id, error->arguments[1],
           error->arguments[2]);
}

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s API_IMPLEMENTATION_LIBRARY\n", argv[0]);
        return 2;
    }
    /* Reports reach the handler only where message catalogs are set up. */
    setenv("ICU_DATA", "/nonexistent", 0);

    qfi_handler handler = {.error = on_report};
    const int32_t status = qzfiapi_start(&handler, QFI_API_VERSION);
    printf("start: %s\n", text_of(status));
    if (status != QFI_STATUS_OK)
        return 1;

    puts("a tree, while the API implementation library cannot be loaded:");
    setenv("QFI_API_LIB", "/nonexistent/libfi.so", 1);
    ask_for_tree(1);
    show_last_error();

    puts("a tree, after it was installed:");
    setenv("QFI_API_LIB", argv[1], 1);
    ask_for_tree(1);

    puts("trees that it does not know:");
    ask_for_tree(2);

    printf("shutdown: %s\n", text_of(qzfiapi_shutdown()));
    fi_del_all_errors();
    return 0;
}
