/*
 * A program at a fixed address, which refers to the library's data directly: the linker gives it copies, and the
 * library must use those as well.
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>

#include <qzfi.h>

#include "check.h"

static void on_report(qfi_handler *self, const char *text, const char *localized, uint32_t severity) {
    (void)self;
    (void)text;
    (void)localized;
    (void)severity;
}

static void numbers_are_shared_both_ways(void) {
    CHECK(qzfi_debug == 1);
    CHECK(qzfi_debug_level == 0);
    set_qzfi_debuglevel(QFI_TRACE_INFO | QFI_TRACE_TRC_LOW);
    CHECK(qzfi_debug_level == 0x900);
    qzfi_debug_level = QFI_TRACE_WARN;
    CHECK(get_qzfi_debuglevel() == QFI_TRACE_WARN);
}

static void tables_have_their_contents(void) {
    CHECK_TEXT(spc[0], "");
    CHECK_TEXT(spc[1], "  ");
    CHECK(strlen(spc[19]) == 38 && strspn(spc[19], " ") == 38);
    CHECK(size_uemsgs == 28);
    CHECK_TEXT(u_emsgs[5].id, "MSG_QFI_UTIL_E0005");
    CHECK_TEXT(u_emsgs[28].text, "IsValid tree failed");
    CHECK_TEXT(qzfi_getlocmsg(28, 0, u_emsgs, &vfcmsg), "IsValid tree failed");
}

static void lists_are_the_librarys(void) {
    CHECK(err_info_list == NULL);
    const int32_t status = 11;
    CHECK(fi_create_error_info("MSG_QFI_UTIL_E0058", 0, NULL, &status, NULL, 1, "one") == QFI_STATUS_OK);
    CHECK(err_info_list != NULL);
    CHECK(err_info_list->errors->status == 11);
    CHECK_TEXT(err_info_list->errors->arguments[0], "one");
    CHECK(fi_del_all_errors() == QFI_STATUS_OK);
    CHECK(err_info_list == NULL);

    qfi_error_store *store = NULL;
    CHECK(qzfi_store_err(&store, 7, "module", 1) == QFI_STATUS_OK);
    CHECK(store != NULL && err_mod_list == store);
    CHECK(fi_del_all_err_lists() == QFI_STATUS_OK);
    CHECK(err_mod_list == NULL && msg_info_list == NULL);
}

/* A vain fi_del_error returns with the mutex held, so the caller's mutex must be the one that it took. */
static void mutex_is_the_librarys(void) {
    void *nothing = NULL;
    void **handle = &nothing;
    CHECK(fi_del_error(&handle) == 1);
    CHECK(pthread_mutex_trylock(&err_mutex) == EBUSY);
    CHECK(pthread_mutex_unlock(&err_mutex) == 0);
}

static void handler_and_hook_are_the_librarys(const char *library) {
    qfi_handler handler = {.error = on_report};
    CHECK(qzfiapi_start(&handler, QFI_API_VERSION) == QFI_STATUS_OK);
    CHECK(util_ehandler == &handler);
    setenv("QFI_API_LIB", library, 1);
    qfi_domain *tree = NULL;
    CHECK(qzfiapi_gentree(NULL, 1, NULL, &tree) == QFI_STATUS_OK);
    CHECK(fi_get_pgn_f == NULL);
    CHECK(pthread_mutex_trylock(&mutex) == 0 && pthread_mutex_unlock(&mutex) == 0);
    CHECK(pthread_cond_signal(&cv) == 0);
    CHECK(qzfiapi_shutdown() == QFI_STATUS_OK);
    CHECK(util_ehandler == NULL);
}

int main(int argc, char **argv) {
    CHECK(argc == 2);
    numbers_are_shared_both_ways();
    tables_have_their_contents();
    lists_are_the_librarys();
    mutex_is_the_librarys();
    handler_and_hook_are_the_librarys(argv[1]);
    puts("one copy of everything");
    return 0;
}
