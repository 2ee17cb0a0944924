/*
 * Freezes a folder: freeze FOLDER METHOD ROOT, for example freeze /home btrfs /usr/lumen. ROOT is the installation
 * root, below which libfi.so and its providers are found. Prints the image's id and where it can be read, a line each.
 */
#include <stdio.h>

#include <qzfi_fi.h>

static void print_errors(void) {
    qfi_error_info *error = NULL;
    while (qfi_op_get_last_error(&error) == QFI_STATUS_OK && error != NULL) {
        char *text = NULL;
        if (qfi_op_get_locale_message(error, &text, NULL) == QFI_STATUS_OK)
            fprintf(stderr, "%s", text); /* it ends its line itself */
        qfi_op_del_locale_message(text);
    }
}

static int32_t freeze(const char *folder, const char *method) {
    const qfi_object object = {folder, NULL};
    qfi_domain *tree = NULL;
    int32_t status = qfi_op_gentree(&object, 1, NULL, &tree);
    if (status != QFI_STATUS_OK)
        return status;
    qfi_freeze_options options;
    QFI_INIT(options);
    options.fim_id = method;
    char *id = NULL, *path = NULL;
    status = qfi_op_make(tree, &options, NULL);
    const qfi_domain *const filesystem = tree->fid_children;
    if (status == QFI_STATUS_OK)
        status = qfi_op_getattr(filesystem, "image", NULL, &id);
    if (status == QFI_STATUS_OK)
        status = qfi_op_access(filesystem->fid_children, NULL, &path);
    if (status == QFI_STATUS_OK)
        printf("%s\n%s\n", id, path);
    qfi_op_free_buffer(id);
    qfi_op_free_buffer(path);
    qfi_op_detach(tree, NULL, 0, NULL); /* the image stays */
    return status;
}

int main(int argc, char **argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: %s FOLDER METHOD ROOT\n", argv[0]);
        return 2;
    }
    qfi_handler handler = {0};
    if (qzfiapi_set_init_env(argv[3], "freeze") != QFI_STATUS_OK ||
        qzfiapi_start(&handler, QFI_API_VERSION) != QFI_STATUS_OK)
        return 1;
    const int32_t status = freeze(argv[1], argv[2]);
    print_errors();
    qzfiapi_shutdown();
    fi_del_all_errors();
    return status == QFI_STATUS_OK ? 0 : 1;
}
