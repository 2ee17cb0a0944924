// Records to dump: every member differs from all others, numbers are at their limits where a conversion could cut them,
// and pointers that are printed are fixed addresses.
#pragma once

#include <cstdint>
#include <limits>

#include <qzfi/dump.h>

namespace dump_support {

template <class T>
T *address(std::uintptr_t value) {
    return reinterpret_cast<T *>(value);
}

/// A text as the records hold it; nobody writes through it.
inline char *text(const char *constant) {
    return const_cast<char *>(constant);
}

constexpr uint64_t most64 = std::numeric_limits<uint64_t>::max();
constexpr uint32_t most32 = std::numeric_limits<uint32_t>::max();
constexpr int32_t least32 = std::numeric_limits<int32_t>::min();

/// The samples, linked where dumpers follow links.
struct Samples {
    qfi_objid_t path_id{"/dev/sda1", 9, QFI_OID_INTERN};
    qfi_objid_t text_id{"second id", 9, QFI_OID_ALLOC};
    qfi_objid_t binary_id{"\x01\x02 binary id \xff\xfe, two lines", 26, QFI_OID_INTERN | QFI_OID_ALLOC};

    qfi_io_req_t io_req{
        address<void>(0xbad1), address<void>(0xbad2), most64, most64 - 1, address<void>(0x1000), 3, 4, least32};
    qfi_fim fim{text("snapshot"), most32,          2, 3, 4, most64, 6, text("copy on write"), text("1.0"),
                text("a=b"),      text("provider")};
    qfi_fim_list fim_list{fim, address<qfi_fim_list>(0x1000)};
    qfi_provider provider{text("provider"), most64, 2, {0xbad, 0xbad, 0xbad, 0xbad}, address<char *>(0xbad)};
    qfi_provider_list provider_list{provider, address<qfi_provider_list>(0x1000)};
    qfi_attr attr{most64, most64 - 1, most64 - 2, least32, -5, 6, 7};
    qfi_qs_combo qs_combo{address<qfi_qs_combo>(0x1000), QFI_ATOMIC_FS, address<qfi_quiesce>(0x2000),
                          address<void>(0x3000)};
    qfi_ss_readystat readystat{address<void>(0x1000), least32};
    qfi_ss_configstat configstat{address<void>(0x2000), -2};
    qfi_ss_namestat namestat{address<void>(0x3000), 3};
    qfi_splitstat splitstat{least32, namestat, configstat, readystat, address<void>(0x4000)};
    qfi_group group{address<void>(0x1000), address<qfi_group>(0x2000), least32};
    qfi_groups groups{0xbad80000000, &group}; // its low 32 bits are printed, with their sign
    qfi_quiesce qsplit{address<qfi_quiesce>(0x1000), address<void>(0x2000), address<void>(0x3000)};
    qfi_time_t time{most64, most32};
    qfi_resource_disp_t resource_disp{&path_id, QFI_DISP_REATTACH};
    qfi_resource resource{&path_id, &text_id, QFI_DISP_PROMOTE};

    qfi_nodeid third_member{text("third member"), nullptr, nullptr};
    qfi_nodeid second_member{nullptr, &text_id, &third_member};
    qfi_nodeid first_member{text("first member"), &path_id, &second_member};
    qfi_group_node group_node{text("group"), &binary_id, &first_member, most32, 2, most64, 4, text("provider"), 0xbad};
    qfi_group_node_list group_node_list{group_node, address<qfi_group_node_list>(0x1000)};
    qfi_node node{text("node"), &path_id, most32, 2, most64, 4, text("provider")};
    qfi_node other_node{text("mirror"), &text_id, 5, most32 - 1, 7, most64 - 1, text("other provider")};
    qfi_node_list node_list{node, address<qfi_node_list>(0x1000)};
    qfi_assoc assoc{node, other_node, text("mirror method"), most32, most64};
    qfi_assoc_list assoc_list{assoc, address<qfi_assoc_list>(0x1000)};

    qfi_domain domain{
        least32,
        -2,
        &path_id,
        &resource,
        address<qfi_domain>(0x1000),
        address<qfi_domain>(0x2000),
        address<qfi_domain>(0x3000),
        address<qfi_domain>(0x4000),
        address<qfi_domain>(0x5000),
        address<qfi_domain>(0x6000),
        address<void>(0x7000),
        &qsplit,
        &groups,
        &splitstat,
        &text_id,
        &time,
        address<qfi_plugin>(0x8000),
        address<void>(0x9000),
        address<void>(0xa000),
    };
    qfi_domain_tree_list_t domain_tree_list{&domain, address<qfi_domain_tree_list_t>(0x1000)};
};

} // namespace dump_support
