// The layouts of all records, and their dumpers. Headings and names that look wrong are what readers of the log know.
#include <qzfi/dump.h>

#include <cstring>

#include "log/qzfilogmsg2_dump.h"

namespace {

using qzfi::Block;
using qzfi::Layout;
using qzfi::nest;

/// The name of an object id, which is not terminated: nothing past its length is read.
void write_object_name(Block &block, const qfi_objid_t &id) {
    const auto *name = static_cast<const char *>(id.vid_name);
    if (id.vid_length <= 0)
        return block.doubly_prefixed("vid_name", name);
    if (name == nullptr)
        return block.line("vid_name", name);
    const auto length = static_cast<std::size_t>(id.vid_length);
    if (strnlen(name, length) + 2 < length)
        return block.length_mismatch(name, id.vid_length);
    if (qzfi_printable(name, length) != 0)
        return block.bounded("vid_name", name, id.vid_length);
    block.hex_dump("vid_name", name, static_cast<uint32_t>(id.vid_length));
}

void write_object_type(Block &block, uint32_t type) {
    if (type == QFI_OID_INTERN)
        return block.line("vid_type", "QFI_OID_INTERN");
    if (type == QFI_OID_ALLOC)
        return block.line("vid_type", "QFI_OID_ALLOC");
    block.line("vid_type", static_cast<int32_t>(type));
}

void write_objid(Block &block, const qfi_objid_t &id) {
    block.line("vid_length", id.vid_length);
    write_object_name(block, id);
    write_object_type(block, id.vid_type);
}
constexpr Layout<qfi_objid_t> objid_layout{"qfi_objid_t", "qfi_objid", write_objid};

void write_io_req(Block &block, const qfi_io_req_t &request) {
    block.line("io_offset", request.io_offset);
    block.line("io_reqlen", request.io_reqlen);
    block.line("io_bufp", request.io_bufp);
    block.line("io_bytes_trans", request.io_bytes_trans);
    block.line("io_bytes_req", request.io_bytes_req);
    block.line("io_error", request.io_error);
}
constexpr Layout<qfi_io_req_t> io_req_layout{"qfi_io_req_t", "qfi_io_req", write_io_req};

void write_fim(Block &block, const qfi_fim &fim) {
    block.line("fim id", fim.fim_id);
    block.line("consistency", fim.consistency);
    block.line("type", fim.type);
    block.line("sync_type", fim.sync_type);
    block.line("technology", fim.technology);
    block.line("access_type", fim.access_type);
    block.line("restore_type", fim.restore_type);
    block.line("vendor_defined_fimtype", fim.vendor_defined_fimtype);
    block.line("vendor_fim_version", fim.vendor_fim_version);
    block.line("config_params", fim.config_params);
    block.line("provider_id", fim.provider_id);
}
constexpr Layout<qfi_fim> fim_layout{"qfi_fim", "qfi_fim", write_fim};

void write_fim_list(Block &block, const qfi_fim_list &list) {
    nest(block, fim_layout, &list.fim, block.at_lines(1, "qfi_fim"));
    block.line("next", list.next);
}
constexpr Layout<qfi_fim_list> fim_list_layout{"qfi_fim_list", "qfi_fim_list", write_fim_list};

void write_provider(Block &block, const qfi_provider &provider) {
    block.line("provider id", provider.provider_id);
    block.line("hlevel", provider.hlevel);
    block.line("type", provider.type);
}
constexpr Layout<qfi_provider> provider_layout{"qfi_provider", "qfi_provider", write_provider};

void write_provider_list(Block &block, const qfi_provider_list &list) {
    nest(block, provider_layout, &list.provider, block.at_lines(1, "qfi_provider"));
    block.line("next", list.next);
}
constexpr Layout<qfi_provider_list> provider_list_layout{"qfi_provider_list", "qfi_provider_list", write_provider_list};

void write_attr(Block &block, const qfi_attr &attributes) {
    block.line("att_blksize", attributes.att_blksize);
    block.line("att_totalblks", attributes.att_totalblks);
    block.line("att_blksused", attributes.att_blksused);
    block.line("att_copytype", attributes.att_copytype);
    block.line("att_persistent", attributes.att_persistent);
    block.line("att_writeability", attributes.att_writeability);
    block.line("att_multiples", attributes.att_multiples);
}
constexpr Layout<qfi_attr> attr_layout{"qfi_attr", "qfi_attr", write_attr};

void write_qs_combo(Block &block, const qfi_qs_combo &combo) {
    block.line("qsc_next", combo.qsc_next);
    // The class is left out, as readers of the log expect.
    block.line("qsc_qslist", combo.qsc_qslist);
    block.line("qsc_libpriv", combo.qsc_libpriv);
}
constexpr Layout<qfi_qs_combo> qs_combo_layout{"qfi_qs_combo", "qfi_qs_combo", write_qs_combo};

void write_readystat(Block &block, const qfi_ss_readystat &status) {
    block.line("ssr_nodelist", status.ssr_nodelist);
    block.line("ssr_nnodes", status.ssr_nnodes);
}
constexpr Layout<qfi_ss_readystat> readystat_layout{"qfi_ss_readystat", nullptr, write_readystat};

void write_configstat(Block &block, const qfi_ss_configstat &status) {
    block.line("ssc_nodelist", status.ssc_nodelist);
    block.line("ssc_nnodes", status.ssc_nnodes);
}
constexpr Layout<qfi_ss_configstat> configstat_layout{"qfi_ss_configstat", nullptr, write_configstat};

void write_namestat(Block &block, const qfi_ss_namestat &status) {
    block.line("ssn_nodelist", status.ssn_nodelist);
    block.line("ssn_nnodes", status.ssn_nnodes);
}
constexpr Layout<qfi_ss_namestat> namestat_layout{"qfi_ss_namestat", nullptr, write_namestat};

void write_splitstat(Block &block, const qfi_splitstat &status) {
    block.line("vss_flags", status.vss_flags);
    nest(block, namestat_layout, &status.name, block.below_lines("qfi_ss_namestat"));
    nest(block, configstat_layout, &status.config, block.below_lines("qfi_ss_configstat"));
    nest(block, readystat_layout, &status.ready, block.below_lines("qfi_ss_readystat"));
    block.line("qfi_splitstat", status.qfi_splitstat);
}
constexpr Layout<qfi_splitstat> splitstat_layout{"qfi_splitstat", "qfi_splitstat", write_splitstat};

void write_group(Block &block, const qfi_group &group) {
    block.line("fig_grouphead", group.fig_grouphead);
    block.line("fig_next", group.fig_next);
    block.line("fig_nextidx", group.fig_nextidx);
}
constexpr Layout<qfi_group> group_layout{"qfi_group", "qfi_groups", write_group};

void write_groups(Block &block, const qfi_groups &groups) {
    block.line("qsp_next", static_cast<int32_t>(groups.qsp_next));
    nest(block, group_layout, groups.group, block.below_lines("qfi_group"));
}
constexpr Layout<qfi_groups> groups_layout{"qfi_quiesce", "qfi_groups", write_groups};

void write_qsplit(Block &block, const qfi_quiesce &step) {
    block.line("qsp_next", step.qsp_next);
    block.line("qsp_quiesce", step.qsp_quiesce);
    block.line("qsp_split", step.qsp_split);
}
constexpr Layout<qfi_quiesce> qsplit_layout{"qfi_quiesce", "qfi_resource", write_qsplit};

void write_time(Block &block, const qfi_time_t &time) {
    block.line("qzfi_sec", time.qzfi_sec);
    block.line("qzfi_nsec", time.qzfi_nsec);
}
constexpr Layout<qfi_time_t> time_layout{"qfi_time_t", "qfi_time", write_time};

void write_resource_disp(Block &block, const qfi_resource_disp_t &resource) {
    nest(block, objid_layout, resource.objid, block.at_lines(block.newline()));
    block.line("disp_type", qzfiget_qfi_disposition(resource.disp_type));
}
constexpr Layout<qfi_resource_disp_t> resource_disp_layout{"qfi_resource_disp_t", "qfi_resource_disp_t",
                                                           write_resource_disp};

void write_group_node(Block &block, const qfi_group_node &group) {
    block.line("group node uid", group.uid);
    nest(block, objid_layout, group.objid, block.at_lines(0));
    for (const qfi_nodeid *member = group.members; member != nullptr; member = member->next) {
        block.line("group node uid", member->uid);
        nest(block, objid_layout, member->objid, block.below_lines());
    }
    block.line("uniqueness", group.uniqueness);
    block.line("stability", group.stability);
    block.line("hlevel", group.hlevel);
    block.line("size", group.size);
    block.line("provider_id", group.provider_id);
}
constexpr Layout<qfi_group_node> group_node_layout{"qfi_group_node", "qfi_group_node", write_group_node};

void write_group_node_list(Block &block, const qfi_group_node_list &list) {
    nest(block, group_node_layout, &list.group_node, block.at_lines(1));
    block.line("next", list.next);
}
constexpr Layout<qfi_group_node_list> group_node_list_layout{"qfi_group_node_list", "qfi_group_node_list",
                                                             write_group_node_list};

void write_node(Block &block, const qfi_node &node) {
    block.line("uid", node.uid);
    nest(block, objid_layout, node.objid, block.at_lines(0));
    block.line("uniqueness", node.uniqueness);
    block.line("stability", node.stability);
    block.line("hlevel", node.hlevel);
    block.line("size", node.size);
    block.line("provider_id", node.provider_id);
}
constexpr Layout<qfi_node> node_layout{"qfi_node", "qfi_node", write_node};

void write_node_list(Block &block, const qfi_node_list &list) {
    nest(block, node_layout, &list.node, block.at_lines(1, "qfi_node"));
    block.line("next", list.next);
}
constexpr Layout<qfi_node_list> node_list_layout{"qfi_node_list", "qfi_node_list", write_node_list};

void write_assoc(Block &block, const qfi_assoc &association) {
    nest(block, node_layout, &association.first, block.at_lines(1, "qfi_node"));
    nest(block, node_layout, &association.second, block.at_lines(1, "qfi_node"));
    block.line("fim id", association.fim_id);
    block.line("assoc_state", association.assoc_state);
    block.line("last_op_ts", association.last_op_ts);
}
constexpr Layout<qfi_assoc> assoc_layout{"qfi_assoc", "qfi_assoc", write_assoc};

void write_assoc_list(Block &block, const qfi_assoc_list &list) {
    nest(block, assoc_layout, &list.assoc, block.at_lines(1, "qfi_assoc"));
    block.line("next", list.next);
}
constexpr Layout<qfi_assoc_list> assoc_list_layout{"qfi_assoc_list", "qfi_assoc_list", write_assoc_list};

void write_resource(Block &block, const qfi_resource &resource) {
    nest(block, objid_layout, resource.first, block.at_lines(block.newline()));
    nest(block, objid_layout, resource.second, block.at_lines(block.newline()));
    block.line("disp_type", qzfiget_qfi_disposition(resource.disp_type));
}
constexpr Layout<qfi_resource> resource_layout{"qfi_resource", "qfi_resource", write_resource};

void write_domain(Block &block, const qfi_domain &domain) {
    block.line("fid_nodetype", domain.fid_nodetype);
    block.line("fid_flags", domain.fid_flags);
    nest(block, objid_layout, domain.objid, block.below_lines());
    nest(block, resource_layout, domain.resource_list, block.below_lines("resource list"));
    block.line("fid_parent", domain.fid_parent);
    block.line("fid_siblings", domain.fid_siblings);
    block.line("fid_children", domain.fid_children);
    block.line("fid_altnode", domain.fid_altnode);
    block.line("fid_rootnode", domain.fid_rootnode);
    block.line("fid_instances", domain.fid_instances);
    block.line("qsp_quiesce", domain.qsp_quiesce);
    nest(block, qsplit_layout, domain.qsplit, block.below_lines("qsplit"));
    nest(block, groups_layout, domain.groups, block.below_lines("groups"));
    nest(block, splitstat_layout, domain.splitstat, block.below_lines("splitstat"));
    nest(block, objid_layout, domain.second_objid, block.below_lines());
    nest(block, time_layout, domain.time, block.below_lines("qfi_time"));
    block.doubly_prefixed("fid_plugin", domain.fid_plugin);
    block.doubly_prefixed("fid_libpriv", domain.fid_libpriv);
    block.doubly_prefixed("fid_pgnpriv", domain.fid_pgnpriv);
}
constexpr Layout<qfi_domain> domain_layout{"qfi_domain", "qfi_domain", write_domain};

void write_domain_tree_list(Block &block, const qfi_domain_tree_list_t &list) {
    nest(block, domain_layout, list.domain, block.at_lines(1, "qfi_domain"));
    block.line("next", list.next);
}
constexpr Layout<qfi_domain_tree_list_t> domain_tree_list_layout{"qfi_domain_tree_list", "qfi_domain_tree_list_t",
                                                                 write_domain_tree_list};

} // namespace

#define DUMPER(name, Record, layout)                                                                                   \
    int32_t name(const Record *record, uint32_t indent, int32_t newline, const char *label) {                          \
        return qzfi::dump(layout, record, {indent, newline, label});                                                   \
    }
// The statuses of a split come by value: there is no null one.
#define STATUS_DUMPER(name, Record, layout)                                                                            \
    int32_t name(Record record, uint32_t indent, int32_t newline, const char *label) {                                 \
        return qzfi::dump(layout, &record, {indent, newline, label});                                                  \
    }

DUMPER(qzfiprt_qfi_io_req, qfi_io_req_t, io_req_layout)
DUMPER(qzfiprt_qfi_fim, qfi_fim, fim_layout)
DUMPER(qzfiprt_qfi_fim_list, qfi_fim_list, fim_list_layout)
DUMPER(qzfiprt_qfi_provider, qfi_provider, provider_layout)
DUMPER(qzfiprt_qfi_provider_list, qfi_provider_list, provider_list_layout)
DUMPER(qzfiprt_qfi_attr, qfi_attr, attr_layout)
DUMPER(qzfiprt_qfi_qs_combo, qfi_qs_combo, qs_combo_layout)
STATUS_DUMPER(qzfiprt_qfi_ss_readystat, qfi_ss_readystat, readystat_layout)
STATUS_DUMPER(qzfiprt_qfi_ss_configstat, qfi_ss_configstat, configstat_layout)
STATUS_DUMPER(qzfiprt_qfi_ss_namestat, qfi_ss_namestat, namestat_layout)
DUMPER(qzfiprt_qfi_splitstat, qfi_splitstat, splitstat_layout)
DUMPER(qzfiprt_qfi_group, qfi_group, group_layout)
DUMPER(qzfiprt_qfi_groups, qfi_groups, groups_layout)
DUMPER(qzfiprt_qfi_qsplit, qfi_quiesce, qsplit_layout)
DUMPER(qzfiprt_qfi_time, qfi_time_t, time_layout)
DUMPER(qzfiprt_qfi_objid, qfi_objid_t, objid_layout)
DUMPER(qzfiprt_qfi_resource_disp, qfi_resource_disp_t, resource_disp_layout)
DUMPER(qzfiprt_qfi_group_node, qfi_group_node, group_node_layout)
DUMPER(qzfiprt_qfi_group_node_list, qfi_group_node_list, group_node_list_layout)
DUMPER(qzfiprt_qfi_node, qfi_node, node_layout)
DUMPER(qzfiprt_qfi_node_list, qfi_node_list, node_list_layout)
DUMPER(qzfiprt_qfi_assoc, qfi_assoc, assoc_layout)
DUMPER(qzfiprt_qfi_assoc_list, qfi_assoc_list, assoc_list_layout)
DUMPER(qzfiprt_qfi_resource, qfi_resource, resource_layout)
DUMPER(qzfiprt_qfi_domain, qfi_domain, domain_layout)
DUMPER(qzfiprt_qfi_domain_tree_list, qfi_domain_tree_list_t, domain_tree_list_layout)
