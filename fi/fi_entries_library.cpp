// Entries of the library itself: its life, its texts, errors, buffers and credentials.
#include "fi/fi_entries.h"

#include <algorithm>

#include <qzfi/context.h>
#include <qzfi/errors.h>
#include <qzfi/settings.h>

#include "fi/fi_errors.h"

using namespace qzfi::fi;

int32_t qzfi_start(void *, int32_t, qfi_handler *handler, int32_t) {
    set_host(handler);
    return QFI_STATUS_OK;
}

// No other call is in progress. What hosts left open is given up as if they had let go of it.
int32_t qzfi_shutdown(void) {
    constexpr const char *operation = "qzfi_shutdown";
    const int32_t status = fenced(operation, [&] {
        for (const std::shared_ptr<Tree> &tree : live_trees()) {
            tell_failed_post_command(*tree, operation, abandon(*tree, operation));
            unregister_tree(&tree->root);
        }
        prefer_method(nullptr);
        qzfi_set_import_options(nullptr, nullptr, 0, nullptr);
    });
    unload_providers();
    close_context();
    forget_localized_texts();
    set_host(nullptr);
    return status;
}

uint32_t qzfi_errmsg(uint32_t status, const char **text) {
    constexpr const char *operation = "qzfi_errmsg";
    return static_cast<uint32_t>(fenced(operation, [&] {
        require(text != nullptr, operation, "text is null");
        *text = status_text(status);
        require(*text != nullptr, operation, "there is no such status");
    }));
}

qfi_plugin *fi_get_pgn(uint64_t plugin_ref) {
    return find_plugin(plugin_ref);
}

int32_t qzfi_get_last_error(void *error) {
    constexpr const char *operation = "qzfi_get_last_error";
    return fenced(operation, [&] {
        auto **const out = result_at<qfi_error_info *>(error, operation, "error is null");
        qfi_error_info *last = nullptr;
        if (does_last_error_exist(&last) == 1)
            *out = last;
    });
}

// Hosts reach the get operation by this name; the same here for whoever looks the entry up.
int32_t qzfi_del_last_error(void *error) {
    return qzfi_get_last_error(error);
}

int32_t qzfi_get_locale_message(void *error, void *english, void *localized, void *reserved) {
    constexpr const char *operation = "qzfi_get_locale_message";
    return fenced(operation, [&] {
        require_unused(reserved == nullptr, operation);
        auto **const plain = result_or_null<char *>(english);
        auto **const translated = result_or_null<char *>(localized);
        require(error != nullptr, operation, "error is null");
        require(plain != nullptr || translated != nullptr, operation, "nothing is asked for");
        const auto &record = *static_cast<const qfi_error_info *>(error);
        const std::string translation = translated != nullptr ? localized_message(record) : std::string();
        std::unique_ptr<char, void (*)(void *)> text(plain != nullptr ? give_text(english_message(record)) : nullptr,
                                                     std::free);
        if (!translation.empty())
            *translated = give_text(translation);
        if (plain != nullptr)
            *plain = text.release();
    });
}

int32_t qzfi_del_locale_message(void *text) {
    std::free(text);
    return QFI_STATUS_OK;
}

int32_t qzfi_alloc_buffer(void *size, void *buffer) {
    constexpr const char *operation = "qzfi_alloc_buffer";
    return fenced(operation, [&] {
        auto **const out = result_at<void *>(buffer, operation, "buffer is null");
        // One byte at least, so that every buffer has an address.
        *out = qzfi_alloc_buf(std::max<uint64_t>(reinterpret_cast<uintptr_t>(size), 1));
        if (*out == nullptr)
            throw std::bad_alloc();
    });
}

int32_t qzfi_free_buffer(void *buffer) {
    std::free(buffer);
    return QFI_STATUS_OK;
}

int32_t qzfi_get_credentials(void *reserved, int32_t number1, int32_t number2, void *text) {
    constexpr const char *operation = "qzfi_get_credentials";
    return fenced(operation, [&] {
        auto **const out = result_at<char *>(text, operation, "text is null");
        require_unused(reserved == nullptr && number1 == 0 && number2 == 0, operation);
        if (qzfi_get_credential_blob(out) != QFI_STATUS_OK)
            throw std::bad_alloc();
    });
}

int32_t qzfi_set_credentials(void *reserved, int32_t number1, int32_t number2, void *text) {
    constexpr const char *operation = "qzfi_set_credentials";
    return fenced(operation, [&] {
        require_unused(reserved == nullptr && number1 == 0 && number2 == 0, operation);
        const int32_t status =
            text != nullptr ? qzfi_set_credential_blob(static_cast<const char *>(text)) : qzfi_free_credential_blob();
        if (status != QFI_STATUS_OK)
            throw std::bad_alloc();
    });
}
