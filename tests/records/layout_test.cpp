// Where the members of the records lie: separately built pieces depend on it.
#include <cstddef>

#include <gtest/gtest.h>
#include <qzfi/records.h>

namespace {

#define AT(record, member, offset) static_assert(offsetof(record, member) == (offset))

AT(qfi_fim, fim_id, 0);
AT(qfi_fim, consistency, 8);
AT(qfi_fim, type, 12);
AT(qfi_fim, sync_type, 16);
AT(qfi_fim, technology, 20);
AT(qfi_fim, access_type, 24);
AT(qfi_fim, restore_type, 32);
AT(qfi_fim, vendor_defined_fimtype, 40);
AT(qfi_fim, vendor_fim_version, 48);
AT(qfi_fim, config_params, 56);
AT(qfi_fim, provider_id, 64);
AT(qfi_fim_list, fim, 0);
AT(qfi_fim_list, next, 72);
static_assert(sizeof(qfi_fim_list) == 80);

AT(qfi_enclosure, enclosure_id, 0);
AT(qfi_enclosure, name, 8);
AT(qfi_enclosure, vendor, 16);
AT(qfi_enclosure, product, 24);
AT(qfi_enclosure, provider_id, 32);
AT(qfi_enclosure, capacity, 40);
AT(qfi_enclosure, available, 48);
AT(qfi_enclosure, state, 56);
AT(qfi_enclosure_list, enclosure, 0);
AT(qfi_enclosure_list, next, 64);
static_assert(sizeof(qfi_enclosure_list) == 72);

AT(qfi_host, name, 0);
AT(qfi_host, texts, 8);
AT(qfi_host, count, 16);
AT(qfi_host, provider_id, 24);
AT(qfi_host_list, host, 0);
AT(qfi_host_list, next, 32);
static_assert(sizeof(qfi_host_list) == 40);

AT(qfi_nodeid, uid, 0);
AT(qfi_nodeid, objid, 8);
AT(qfi_nodeid, next, 16);
static_assert(sizeof(qfi_nodeid) == 24);

AT(qfi_node_props, uniqueness, 0);
AT(qfi_node_props, stability, 4);
AT(qfi_node_props, hlevel, 8);
AT(qfi_node_props, size, 16);
static_assert(sizeof(qfi_node_props) == 24);

// A group begins like the id of a node, down to the link, which leads to its members.
AT(qfi_group_node, uid, offsetof(qfi_nodeid, uid));
AT(qfi_group_node, objid, offsetof(qfi_nodeid, objid));
AT(qfi_group_node, members, offsetof(qfi_nodeid, next));
AT(qfi_group_node, uniqueness, 24);
AT(qfi_group_node, stability, 28);
AT(qfi_group_node, hlevel, 32);
AT(qfi_group_node, size, 40);
AT(qfi_group_node, provider_id, 48);
AT(qfi_group_node, value, 56);
AT(qfi_group_node_list, group_node, 0);
AT(qfi_group_node_list, next, 64);
static_assert(sizeof(qfi_group_node_list) == 72);

AT(qfi_node, uid, offsetof(qfi_nodeid, uid));
AT(qfi_node, objid, offsetof(qfi_nodeid, objid));
AT(qfi_node, uniqueness, 16);
AT(qfi_node, stability, 20);
AT(qfi_node, hlevel, 24);
AT(qfi_node, size, 32);
AT(qfi_node, provider_id, 40);
AT(qfi_node_list, node, 0);
AT(qfi_node_list, next, 48);
static_assert(sizeof(qfi_node_list) == 56);

AT(qfi_assoc, first, 0);
AT(qfi_assoc, second, 48);
AT(qfi_assoc, fim_id, 96);
AT(qfi_assoc, assoc_state, 104);
AT(qfi_assoc, last_op_ts, 112);
AT(qfi_assoc_list, assoc, 0);
AT(qfi_assoc_list, next, 120);
static_assert(sizeof(qfi_assoc_list) == 128);

AT(qfi_provider, provider_id, 0);
AT(qfi_provider, hlevel, 8);
AT(qfi_provider, type, 16);
AT(qfi_provider, four, 24);
AT(qfi_provider, texts, 32);
AT(qfi_provider_list, provider, 0);
AT(qfi_provider_list, next, 40);
static_assert(sizeof(qfi_provider_list) == 48);

// Members that are printed stand in the order in which they are.
AT(qfi_io_req, reserved1, 0);
AT(qfi_io_req, reserved2, 8);
AT(qfi_io_req, io_offset, 16);
AT(qfi_io_req, io_reqlen, 24);
AT(qfi_io_req, io_bufp, 32);
AT(qfi_io_req, io_bytes_trans, 40);
AT(qfi_io_req, io_bytes_req, 48);
AT(qfi_io_req, io_error, 56);
static_assert(sizeof(qfi_io_req) == 64);

AT(qfi_attr, att_blksize, 0);
AT(qfi_attr, att_totalblks, 8);
AT(qfi_attr, att_blksused, 16);
AT(qfi_attr, att_copytype, 24);
AT(qfi_attr, att_persistent, 28);
AT(qfi_attr, att_writeability, 32);
AT(qfi_attr, att_multiples, 36);
static_assert(sizeof(qfi_attr) == 40);

AT(qfi_qs_combo, qsc_next, 0);
AT(qfi_qs_combo, qsc_class, 8);
AT(qfi_qs_combo, qsc_qslist, 16);
AT(qfi_qs_combo, qsc_libpriv, 24);
static_assert(sizeof(qfi_qs_combo) == 32);

AT(qfi_ss_readystat, ssr_nodelist, 0);
AT(qfi_ss_readystat, ssr_nnodes, 8);
static_assert(sizeof(qfi_ss_readystat) == 16);

AT(qfi_ss_configstat, ssc_nodelist, 0);
AT(qfi_ss_configstat, ssc_nnodes, 8);
static_assert(sizeof(qfi_ss_configstat) == 16);

AT(qfi_ss_namestat, ssn_nodelist, 0);
AT(qfi_ss_namestat, ssn_nnodes, 8);
static_assert(sizeof(qfi_ss_namestat) == 16);

AT(qfi_splitstat, vss_flags, 0);
AT(qfi_splitstat, name, 8);
AT(qfi_splitstat, config, 24);
AT(qfi_splitstat, ready, 40);
AT(qfi_splitstat, qfi_splitstat, 56);
static_assert(sizeof(qfi_splitstat) == 64);

AT(qfi_group, fig_grouphead, 0);
AT(qfi_group, fig_next, 8);
AT(qfi_group, fig_nextidx, 16);
static_assert(sizeof(qfi_group) == 24);

AT(qfi_groups, qsp_next, 0);
AT(qfi_groups, group, 8);
static_assert(sizeof(qfi_groups) == 16);

AT(qfi_quiesce, qsp_next, 0);
AT(qfi_quiesce, qsp_quiesce, 8);
AT(qfi_quiesce, qsp_split, 16);
static_assert(sizeof(qfi_quiesce) == 24);

AT(qfi_time, qzfi_sec, 0);
AT(qfi_time, qzfi_nsec, 8);
static_assert(sizeof(qfi_time) == 16);

AT(qfi_resource_disp, objid, 0);
AT(qfi_resource_disp, disp_type, 8);
static_assert(sizeof(qfi_resource_disp) == 16);

AT(qfi_resource, first, 0);
AT(qfi_resource, second, 8);
AT(qfi_resource, disp_type, 16);
static_assert(sizeof(qfi_resource) == 24);

AT(qfi_domain, fid_nodetype, 0);
AT(qfi_domain, fid_flags, 4);
AT(qfi_domain, objid, 8);
AT(qfi_domain, resource_list, 16);
AT(qfi_domain, fid_parent, 24);
AT(qfi_domain, fid_siblings, 32);
AT(qfi_domain, fid_children, 40);
AT(qfi_domain, fid_altnode, 48);
AT(qfi_domain, fid_rootnode, 56);
AT(qfi_domain, fid_instances, 64);
AT(qfi_domain, qsp_quiesce, 72);
AT(qfi_domain, qsplit, 80);
AT(qfi_domain, groups, 88);
AT(qfi_domain, splitstat, 96);
AT(qfi_domain, second_objid, 104);
AT(qfi_domain, time, 112);
AT(qfi_domain, fid_plugin, 120);
AT(qfi_domain, fid_libpriv, 128);
AT(qfi_domain, fid_pgnpriv, 136);
static_assert(sizeof(qfi_domain) == 144);

AT(qfi_domain_tree_list, domain, 0);
AT(qfi_domain_tree_list, next, 8);
static_assert(sizeof(qfi_domain_tree_list) == 16);

} // namespace
