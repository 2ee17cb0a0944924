/* freeze FOLDER METHOD ROOT, for example freeze /home btrfs /usr/lumen: freezes a folder with the installation in ROOT.
 * Prints the image's id and where it can be read, a line each. */
#include <stdio.h>

#include <qzfi_fi.h>

static void print_last_error(void) {
    qfi_error_info *error = NULL;
    char *text = NULL;
    if (qfi_op_get_last_error(&error) == 0 && qfi_op_get_locale_message(error, &text, NULL) == 0)
        fprintf(stderr, "%s", text); /* it ends its line itself */
    qfi_op_del_locale_message(text);
}

int main(int argc, char **argv) {
    qfi_handler handler = {0};
    if (argc != 4 || qzfiapi_set_init_env(argv[3], "freeze") != 0 || qzfiapi_start(&handler, QFI_API_VERSION) != 0)
        return fprintf(stderr, "usage: %s FOLDER METHOD ROOT\n", argv[0]), 2;
    const qfi_object object = {argv[1], NULL};
    qfi_freeze_options options;
    QFI_INIT(options);
    options.fim_id = argv[2];
    qfi_domain *tree = NULL;
    char *id = NULL, *path = NULL;
    const int is_frozen = qfi_op_gentree(&object, 1, NULL, &tree) == 0 && qfi_op_make(tree, &options, NULL) == 0 &&
                          qfi_op_getattr(tree->fid_children, "image", NULL, &id) == 0 &&
                          qfi_op_access(tree->fid_children->fid_children, NULL, &path) == 0;
    if (is_frozen)
        printf("%s\n%s\n", id, path);
    else
        print_last_error();
    qfi_op_free_buffer(id);
    qfi_op_free_buffer(path);
    if (tree != NULL)
        qfi_op_detach(tree, NULL, 0, NULL); /* the image stays */
    qzfiapi_shutdown();
    return is_frozen ? 0 : 1;
}
