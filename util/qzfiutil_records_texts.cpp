// Records that hold texts: frozen-image methods, enclosures, hosts; and arrays of texts.
#include "util/qzfiutil_records.h"

#include <cstddef>

namespace {

/// Copies as many texts as it can; null when there is no memory for the array.
char **copy_counted(char *const *texts, int32_t count) noexcept {
    const std::size_t number = count > 0 ? static_cast<std::size_t>(count) : 0;
    auto **const copies = static_cast<char **>(std::calloc(number + 1, sizeof(char *)));
    if (copies == nullptr)
        return nullptr;
    for (std::size_t i = 0; i < number; ++i)
        copies[i] = qzfi::duplicate(texts[i]).release();
    return copies;
}

void release_counted(char **&texts, int32_t count) noexcept {
    for (int32_t i = 0; texts != nullptr && i < count; ++i)
        std::free(texts[i]);
    std::free(static_cast<void *>(texts));
    texts = nullptr;
}

} // namespace

char **QZFI_COPYARRAY(char *const *texts) {
    if (texts == nullptr)
        return nullptr;
    std::size_t number = 0;
    while (texts[number] != nullptr)
        ++number;
    auto **const copies = static_cast<char **>(std::calloc(number + 1, sizeof(char *)));
    if (copies == nullptr)
        return nullptr;
    // Ends at a text that could not be copied: whoever frees up to the null entry would lose those behind it.
    for (std::size_t i = 0; i < number; ++i) {
        copies[i] = qzfi::duplicate(texts[i]).release();
        if (copies[i] == nullptr)
            break;
    }
    return copies;
}

uint32_t qzfi_build_fim_node(qfi_fim *record, const char *fim_id, const qfi_fim *properties, const char *config_params,
                             const char *provider_id) {
    if (qzfi::has_null({record, fim_id, properties, provider_id}))
        return QFI_STATUS_INVALID_ARGUMENT;
    qzfi::Copier copier;
    qfi_fim built{};
    copier.text(built.fim_id, fim_id);
    built.consistency = properties->consistency;
    built.type = properties->type;
    built.sync_type = properties->sync_type;
    built.technology = properties->technology;
    built.access_type = properties->access_type;
    built.restore_type = properties->restore_type;
    copier.optional_text(built.vendor_defined_fimtype, properties->vendor_defined_fimtype);
    copier.optional_text(built.vendor_fim_version, properties->vendor_fim_version);
    copier.optional_text(built.config_params, config_params);
    copier.text(built.provider_id, provider_id);
    return qzfi::deliver(copier, built, record, qzfi_free_fim_node);
}

uint32_t qzfi_free_fim_node(qfi_fim *record) {
    if (record == nullptr)
        return QFI_STATUS_OK;
    qzfi::release_text(record->fim_id);
    qzfi::release_text(record->config_params);
    qzfi::release_text(record->provider_id);
    qzfi::release_text(record->vendor_defined_fimtype);
    qzfi::release_text(record->vendor_fim_version);
    return QFI_STATUS_OK;
}

uint32_t qzfi_build_enclosure_node(qfi_enclosure *record, const char *enclosure_id, const char *name,
                                   const char *vendor, const char *product, const char *provider_id, uint64_t capacity,
                                   uint64_t available, uint32_t state) {
    if (qzfi::has_null({record, enclosure_id, name, vendor, product, provider_id}))
        return QFI_STATUS_INVALID_ARGUMENT;
    qzfi::Copier copier;
    qfi_enclosure built{};
    copier.text(built.enclosure_id, enclosure_id);
    copier.text(built.name, name);
    copier.text(built.vendor, vendor);
    copier.text(built.product, product);
    copier.text(built.provider_id, provider_id);
    built.capacity = capacity;
    built.available = available;
    built.state = state;
    // Not released when a copy failed: callers free the record themselves then.
    *record = built;
    return copier.status();
}

uint32_t qzfi_free_enclosure_node(qfi_enclosure *record) {
    if (record == nullptr)
        return QFI_STATUS_OK;
    qzfi::release_text(record->enclosure_id);
    qzfi::release_text(record->name);
    qzfi::release_text(record->vendor);
    qzfi::release_text(record->product);
    qzfi::release_text(record->provider_id);
    return QFI_STATUS_OK;
}

uint32_t qzfi_build_host_node(qfi_host *record, const char *name, char *const *texts, int32_t count,
                              const char *second) {
    if (qzfi::has_null({record, name, static_cast<const void *>(texts), second}))
        return QFI_STATUS_INVALID_ARGUMENT;
    qzfi::Copier copier;
    qfi_host built{};
    copier.text(built.name, name);
    // Texts that could not be copied are no failure: callers take a host for usable by its name and second text.
    built.texts = copy_counted(texts, count);
    built.count = built.texts != nullptr ? count : 0; // readers who trust the count never go through a missing array
    copier.text(built.provider_id, second);
    return qzfi::deliver(copier, built, record, qzfi_free_host_node);
}

uint32_t qzfi_free_host_node(qfi_host *record) {
    if (record == nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    qzfi::release_text(record->name);
    qzfi::release_text(record->provider_id);
    release_counted(record->texts, record->count);
    return QFI_STATUS_OK;
}
