// Records of storage nodes: node ids, nodes, groups and associations.
#include "util/qzfiutil_records.h"

namespace {

void release_objid(qfi_objid_t *&objid) noexcept {
    // A shared id is the interning table's, whoever put it into a record.
    if (objid != nullptr && (objid->vid_type & QFI_OID_INTERN) == 0) {
        std::free(const_cast<void *>(objid->vid_name));
        std::free(objid);
    }
    objid = nullptr;
}

template <class Record>
void release_identity(Record &record) noexcept {
    qzfi::release_text(record.uid);
    release_objid(record.objid);
}

/// Copies the properties, when they are given.
template <class Record>
void take_properties(Record &record, const qfi_node_props *properties) noexcept {
    if (properties == nullptr)
        return;
    record.uniqueness = properties->uniqueness;
    record.stability = properties->stability;
    record.hlevel = properties->hlevel;
    record.size = properties->size;
}

void copy_node(qzfi::Copier &copier, qfi_node &node, const qfi_nodeid &source, const qfi_node_props *properties,
               const char *provider_id) noexcept {
    copier.identity(node, source);
    take_properties(node, properties);
    copier.text(node.provider_id, provider_id);
}

void copy_members(qzfi::Copier &copier, qfi_group_node &group, const qfi_nodeid &members) noexcept {
    copier.record(group.members);
    if (copier.is_failed())
        return;
    copier.identity(*group.members, members);
    // A group keeps its first member only, and callers rely on that; a further one that cannot be copied still fails.
    for (const qfi_nodeid *member = members.next; member != nullptr && !copier.is_failed(); member = member->next) {
        qfi_nodeid unattached{};
        copier.identity(unattached, *member);
        release_identity(unattached);
    }
}

bool is_complete(const qfi_nodeid *source) noexcept {
    return source != nullptr && source->uid != nullptr && source->objid != nullptr;
}

} // namespace

uint32_t qzfi_build_nodeid_node(const qfi_nodeid *source, qfi_nodeid *destination) {
    if (destination == nullptr || !is_complete(source))
        return QFI_STATUS_INVALID_ARGUMENT;
    qzfi::Copier copier;
    qfi_nodeid built{nullptr, nullptr, destination->next};
    copier.identity(built, *source);
    return qzfi::deliver(copier, built, destination, qzfi_free_nodeid_node);
}

uint32_t qzfi_free_nodeid_node(qfi_nodeid *record) {
    if (record != nullptr)
        release_identity(*record);
    return QFI_STATUS_OK;
}

uint32_t qzfi_build_group_node(qfi_group_node *record, const qfi_nodeid *source, const qfi_nodeid *members,
                               const qfi_node_props *properties, const char *provider_id, uint64_t value) {
    // Unlike the other builders this one empties the caller's record also when an argument is missing.
    if (qzfi::has_null({record, members, provider_id}) || !is_complete(source)) {
        qzfi_free_group_node(record);
        return QFI_STATUS_INVALID_ARGUMENT;
    }
    qzfi::Copier copier;
    qfi_group_node built{};
    copier.identity(built, *source);
    take_properties(built, properties);
    copy_members(copier, built, *members);
    copier.text(built.provider_id, provider_id);
    built.value = value;
    return qzfi::deliver(copier, built, record, qzfi_free_group_node);
}

uint32_t qzfi_free_group_node(qfi_group_node *record) {
    if (record == nullptr)
        return QFI_STATUS_OK;
    release_identity(*record);
    while (record->members != nullptr) {
        qfi_nodeid *const member = record->members;
        record->members = member->next;
        release_identity(*member);
        qzfi::free_zeroed(member);
    }
    qzfi::release_text(record->provider_id);
    return QFI_STATUS_OK;
}

uint32_t qzfi_build_node(qfi_node *record, const qfi_nodeid *source, const qfi_node_props *properties,
                         const char *provider_id) {
    if (qzfi::has_null({record, provider_id}) || !is_complete(source))
        return QFI_STATUS_INVALID_ARGUMENT;
    qzfi::Copier copier;
    qfi_node built = *record; // without properties its numbers stay
    copy_node(copier, built, *source, properties, provider_id);
    return qzfi::deliver(copier, built, record, qzfi_free_node);
}

uint32_t qzfi_free_node(qfi_node *record) {
    if (record == nullptr)
        return QFI_STATUS_OK;
    release_identity(*record);
    qzfi::release_text(record->provider_id);
    return QFI_STATUS_OK;
}

uint32_t qzfi_build_assoc_node(qfi_assoc *record, const qfi_nodeid *first, const qfi_nodeid *second,
                               const qfi_node_props *properties, const char *provider_id, const char *fim_id,
                               uint32_t assoc_state, uint64_t last_op_ts) {
    if (qzfi::has_null({record, provider_id, fim_id}) || !is_complete(first) || !is_complete(second))
        return QFI_STATUS_INVALID_ARGUMENT;
    qzfi::Copier copier;
    qfi_assoc built = *record; // without properties the numbers of its nodes stay
    copy_node(copier, built.first, *first, properties, provider_id);
    copy_node(copier, built.second, *second, properties, provider_id);
    copier.text(built.fim_id, fim_id);
    built.assoc_state = assoc_state;
    built.last_op_ts = last_op_ts;
    return qzfi::deliver(copier, built, record, qzfi_free_assoc_node);
}

uint32_t qzfi_free_assoc_node(qfi_assoc *record) {
    if (record == nullptr)
        return QFI_STATUS_OK;
    qzfi_free_node(&record->first);
    qzfi_free_node(&record->second);
    qzfi::release_text(record->fim_id);
    return QFI_STATUS_OK;
}
