/*
 * A host that has functions of its own under nearly every name of the library, and whose symbols come first in the
 * search order. The library must not notice, down to the catalogs that its messages come from.
 *
 * Its argument is the path of an API implementation library; the message bundles are installed.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <qzfi.h>

#include "check.h"
#include "interposers.h"

static char reports[8][512];
static uint32_t severities[8];
static int report_count;

static void on_report(qfi_handler *self, const char *text, const char *localized, uint32_t severity) {
    (void)self;
    CHECK(report_count < 8);
    if (severity == 4) {
        CHECK(localized == NULL);
    } else {
        CHECK(localized != NULL && strncmp(localized, "fi: ", 4) == 0);
        CHECK_TEXT(localized + 4, text);
    }
    snprintf(reports[report_count], sizeof reports[0], "%s", text);
    severities[report_count++] = severity;
}

/* Without this, the host's functions might simply never be in the way. */
static void check_that_the_host_comes_first(void) {
    CHECK(interposer_count > 50);
    for (int i = 0; i < interposer_count; i++) {
        void *found = dlsym(RTLD_DEFAULT, interposers[i].name);
        if (found != interposers[i].function)
            fprintf(stderr, "%s is not the host's\n", interposers[i].name);
        CHECK(found == interposers[i].function);
    }
}

static void failed_binding_reaches_handler_and_list(void) {
    const char *const path = "/nonexistent/libfi.so";
    setenv("QFI_API_LIB", path, 1);
    qfi_domain *tree = NULL;
    CHECK(qzfiapi_gentree(NULL, 1, NULL, &tree) == QFI_STATUS_NOT_STARTED);

    CHECK(report_count == 1);
    CHECK(severities[0] == 3);
    CHECK_TEXT(reports[0], "modstart: /nonexistent/libfi.so not loaded:\n"
                           "/nonexistent/libfi.so: cannot open shared object file: No such file or directory\n");

    CHECK(err_info_list != NULL);
    CHECK(pthread_equal(err_info_list->thread, pthread_self()));
    const qfi_error_info *error = err_info_list->errors;
    CHECK(error != NULL && error->next == error);
    CHECK_TEXT(error->message_id, "MSG_QFI_UTIL_E0060");
    CHECK(error->status == -1);
    CHECK(error->count == 3);
    CHECK_TEXT(error->arguments[0], "%s: %s not loaded:\n%s\n");
    CHECK_TEXT(error->arguments[1], "modstart");
    CHECK_TEXT(error->arguments[2], path);
}

static void bound_call_traces_the_tree(const char *library) {
    setenv("QFI_API_LIB", library, 1);
    report_count = 0;
    qfi_domain *tree = NULL;
    CHECK(qzfiapi_gentree(NULL, 1, NULL, &tree) == QFI_STATUS_OK);
    CHECK(tree != NULL);
    CHECK(report_count == 2);
    CHECK_TEXT(reports[0], "  volume_1");
    CHECK_TEXT(reports[1], "    disk_7");
}

static void newer_application_is_refused(qfi_handler *handler) {
    report_count = 0;
    CHECK(qzfiapi_start(handler, QFI_VERSION(7, 0, 0, 1)) == QFI_STATUS_VERSION);
    CHECK(report_count == 1);
    CHECK_TEXT(reports[0], "compare_with_lib_version: Application version 7.0.0.1 newer than API version 7.0.0.0\n");
    CHECK_TEXT(err_info_list->errors->prev->message_id, "MSG_QFI_E0326");
}

int main(int argc, char **argv) {
    CHECK(argc == 2);
    check_that_the_host_comes_first();
    setenv("ICU_DATA", "/nonexistent", 1);
    CHECK(qzfiapi_set_init_env("/nonexistent/root", "interposition test") == QFI_STATUS_OK);

    qfi_locale_request language = {.tag = "en_US"};
    qfi_handler handler = {.error = on_report, .locale = &language};
    CHECK(qzfiapi_start(&handler, QFI_API_VERSION) == QFI_STATUS_OK);
    failed_binding_reaches_handler_and_list();
    bound_call_traces_the_tree(argv[1]);
    const char *text = NULL;
    CHECK(qzfiapi_errmsg(QFI_STATUS_NO_MEMORY, &text) == QFI_STATUS_OK);
    CHECK_TEXT(text, "Insufficient Memory");
    CHECK(qzfiapi_shutdown() == QFI_STATUS_OK);
    newer_application_is_refused(&handler);

    for (int i = 0; i < interposer_count; i++)
        if (*interposers[i].calls != 0)
            fprintf(stderr, "the library called the host's %s\n", interposers[i].name);
    CHECK(interposed_calls() == 0);
    puts("the library kept to itself");
    return 0;
}
