// Any bytes as ids, each after a byte with its length: equal ids share one record, others do not, and the trees agree.
#include <algorithm>
#include <map>
#include <string>

#include <qzfi/objectid.h>
#include <qzfi/settings.h>

#include "target.h"

namespace {

void check(const std::string &id, const qfi_objid_t *record) {
    const auto length = static_cast<int32_t>(id.size());
    require(record->vid_type == 3 && record->vid_length == length);
    const qfi_objid_t probe{id.data(), length, 0};
    require(qzfi_objidcmp(record, &probe) == 0);
    const auto checksum = static_cast<int32_t>(objsum(id.data(), length));
    require(static_cast<void *>(findis(istbl[length], &probe, checksum)) == record);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    std::map<std::string, const qfi_objid_t *> known;
    for (std::size_t place = 0; place < size;) {
        const std::size_t length = std::min<std::size_t>(data[place], size - place - 1);
        const std::string id(reinterpret_cast<const char *>(data) + place + 1, length);
        place += 1 + length;
        const qfi_objid_t *record = qzfi_get_objid(id.data(), static_cast<int32_t>(length), QFI_OID_INTERN);
        require((record == nullptr) == id.empty());
        if (record == nullptr)
            continue;
        require(known.emplace(id, record).first->second == record);
        check(id, record);
    }
    for (const auto &[id, record] : known)
        require(qzfi_get_objid(id.data(), static_cast<int32_t>(id.size()), QFI_OID_INTERN) == record);
    qzfi_ufini();
    return 0;
}
