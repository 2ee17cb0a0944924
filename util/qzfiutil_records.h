// How records are filled with deep copies, and what they own is released.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <initializer_list>

#include <qzfi/records.h>
#include <qzfi/status.h>

#include "common/qzfitext.h"
#include "err/qzfierrhandling.h"

namespace qzfi {

inline bool has_null(std::initializer_list<const void *> arguments) noexcept {
    for (const void *const argument : arguments)
        if (argument == nullptr)
            return true;
    return false;
}

/// Releases a text and clears its field.
inline void release_text(char *&field) noexcept {
    std::free(field);
    field = nullptr;
}

/// Fills the fields of a record one after another. A field is null when its copy failed or an earlier one had, so that
/// the record can be freed at any time.
class Copier {
public:
    uint32_t status() const noexcept { return status_; }
    bool is_failed() const noexcept { return status_ != QFI_STATUS_OK; }

    void text(char *&field, const char *source) noexcept {
        field = nullptr;
        if (requires_all({source}))
            keep(field = duplicate(source).release());
    }

    void optional_text(char *&field, const char *source) noexcept {
        field = nullptr;
        if (source != nullptr)
            text(field, source);
    }

    /// Copies uid and object id, with which node ids, nodes and groups begin alike.
    template <class Record>
    void identity(Record &record, const qfi_nodeid &source) noexcept {
        record.objid = nullptr;
        text(record.uid, source.uid);
        if (requires_all({source.objid}))
            keep(record.objid = qzfi_get_objid(source.objid->vid_name, source.objid->vid_length, 0));
    }

    /// A zero-filled record.
    template <class Record>
    void record(Record *&field) noexcept {
        field = nullptr;
        if (!is_failed())
            keep(field = allocate_zeroed<Record>());
    }

private:
    /// False when nothing is to be copied any more.
    bool requires_all(std::initializer_list<const void *> sources) noexcept {
        if (!is_failed() && has_null(sources))
            status_ = QFI_STATUS_INVALID_ARGUMENT;
        return !is_failed();
    }

    void keep(const void *copy) noexcept {
        if (copy == nullptr)
            status_ = QFI_STATUS_NO_MEMORY;
    }

    uint32_t status_ = QFI_STATUS_OK;
};

/// Hands a record over to the caller, released when a copy failed.
///
/// Records are built aside first: the arguments may lie in the very record that is being filled.
template <class Record>
uint32_t deliver(const Copier &copier, Record &built, Record *record, uint32_t (*release)(Record *)) noexcept {
    if (copier.is_failed())
        release(&built);
    *record = built;
    return copier.status();
}

} // namespace qzfi
