// What the tests of the records build from, and how they look at what was built.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <qzfi/records.h>

namespace samples {

/// The id of a node, all of it the test's own.
class Id {
public:
    qfi_nodeid record{};

    explicit Id(const char *uid, const std::string &bytes = std::string("\0by\xfftes", 7)) : uid_(uid), bytes_(bytes) {
        objid_ = {bytes_.data(), static_cast<int32_t>(bytes_.size()), 0};
        record = {uid_.data(), &objid_, nullptr};
    }
    Id(const Id &) = delete;
    Id &operator=(const Id &) = delete;

private:
    std::string uid_;
    std::string bytes_;
    qfi_objid_t objid_{};
};

/// A record of which every byte is set, as memory that was never initialised may be.
template <class Record>
Record dirty() {
    Record record;
    std::memset(static_cast<void *>(&record), 0xff, sizeof record);
    return record;
}

template <class Record>
bool is_dirty(const Record &record) {
    const Record expected = dirty<Record>();
    return std::memcmp(&record, &expected, sizeof record) == 0;
}

inline const qfi_node_props properties{0xfffffff1u, 0xfffffff2u, 0xfffffffffffffff3u, 0xfffffffffffffff4u};

/// `copy` is an equal text in memory of its own.
inline void expect_copied(const char *copy, const char *source) {
    EXPECT_STREQ(copy, source);
    EXPECT_NE(copy, source);
}

/// The record begins with equal uid and object id, in memory of its own.
template <class Record>
void expect_identity(const Record &record, const qfi_nodeid &source) {
    expect_copied(record.uid, source.uid);
    ASSERT_NE(record.objid, nullptr);
    EXPECT_NE(record.objid, source.objid);
    EXPECT_NE(record.objid->vid_name, source.objid->vid_name);
    EXPECT_EQ(record.objid->vid_type, static_cast<uint32_t>(QFI_OID_ALLOC));
    ASSERT_EQ(record.objid->vid_length, source.objid->vid_length);
    EXPECT_EQ(
        std::memcmp(record.objid->vid_name, source.objid->vid_name, static_cast<std::size_t>(source.objid->vid_length)),
        0);
}

template <class Record>
void expect_properties(const Record &record, const qfi_node_props &expected) {
    EXPECT_EQ(record.uniqueness, expected.uniqueness);
    EXPECT_EQ(record.stability, expected.stability);
    EXPECT_EQ(record.hlevel, expected.hlevel);
    EXPECT_EQ(record.size, expected.size);
}

inline bool owns_nothing(const qfi_fim &record) {
    return !record.fim_id && !record.vendor_defined_fimtype && !record.vendor_fim_version && !record.config_params &&
           !record.provider_id;
}
inline bool owns_nothing(const qfi_enclosure &record) {
    return !record.enclosure_id && !record.name && !record.vendor && !record.product && !record.provider_id;
}
inline bool owns_nothing(const qfi_host &record) {
    return !record.name && !record.texts && !record.provider_id;
}
inline bool owns_nothing(const qfi_nodeid &record) {
    return !record.uid && !record.objid;
}
inline bool owns_nothing(const qfi_node &record) {
    return !record.uid && !record.objid && !record.provider_id;
}
inline bool owns_nothing(const qfi_group_node &record) {
    return !record.uid && !record.objid && !record.provider_id && !record.members;
}
inline bool owns_nothing(const qfi_assoc &record) {
    return owns_nothing(record.first) && owns_nothing(record.second) && !record.fim_id;
}

/// Frees a built record, which owns nothing then, so that freeing it again is harmless.
template <class Record>
void expect_freed(Record &record, uint32_t (*release)(Record *)) {
    EXPECT_EQ(release(&record), 0u);
    EXPECT_TRUE(owns_nothing(record));
    EXPECT_EQ(release(&record), 0u);
}

/// What a frozen-image method is built from.
struct FimSource {
    std::string type = "type", version = "version";
    qfi_fim record{};

    FimSource() {
        record.fim_id = record.config_params = record.provider_id = nullptr; // not read
        record.consistency = 0xfffffff1u;
        record.type = 0xfffffff2u;
        record.sync_type = 0xfffffff3u;
        record.technology = 0xfffffff4u;
        record.access_type = 0xfffffffffffffff5u;
        record.restore_type = 0xfffffffffffffff6u;
        record.vendor_defined_fimtype = type.data();
        record.vendor_fim_version = version.data();
    }
};

} // namespace samples
