/*
 * Dumpers: any record of the framework, written to the log as an indented, brace-delimited block.
 *
 * Every dumper takes the record (null is written as such, and so are its null texts and pointers), an index into the
 * indentation table `spc` (the deepest entry serves for any beyond), whether an empty line is begun first (non-zero),
 * and a label or null. It returns the result of flushing the log; 0, with nothing written, when there is no log.
 * Thread-safe as long as nobody changes the record: what one dump writes stays together.
 */
#ifndef QZFI_DUMP_H
#define QZFI_DUMP_H

#include <qzfi/export.h>
#include <qzfi/records.h>

QZFI_BEGIN_DECLS

/** Dumps a transfer; its two reserved members are left out. */
QZFI_API int32_t qzfiprt_qfi_io_req(const qfi_io_req_t *record, uint32_t indent, int32_t newline, const char *label);
/** Dumps a frozen-image method. */
QZFI_API int32_t qzfiprt_qfi_fim(const qfi_fim *record, uint32_t indent, int32_t newline, const char *label);
/** Dumps the first method of a list; the others are not followed. */
QZFI_API int32_t qzfiprt_qfi_fim_list(const qfi_fim_list *record, uint32_t indent, int32_t newline, const char *label);
/** Dumps a provider's name, level and type. */
QZFI_API int32_t qzfiprt_qfi_provider(const qfi_provider *record, uint32_t indent, int32_t newline, const char *label);
/** Dumps the first provider of a list; the others are not followed. */
QZFI_API int32_t qzfiprt_qfi_provider_list(const qfi_provider_list *record, uint32_t indent, int32_t newline,
                                           const char *label);
/** Dumps the attributes of an object. */
QZFI_API int32_t qzfiprt_qfi_attr(const qfi_attr *record, uint32_t indent, int32_t newline, const char *label);
/** Dumps a combination's pointers; its class is left out. */
QZFI_API int32_t qzfiprt_qfi_qs_combo(const qfi_qs_combo *record, uint32_t indent, int32_t newline, const char *label);
/** Dumps readiness, by value. */
QZFI_API int32_t qzfiprt_qfi_ss_readystat(qfi_ss_readystat record, uint32_t indent, int32_t newline, const char *label);
/** Dumps configuration status, by value. */
QZFI_API int32_t qzfiprt_qfi_ss_configstat(qfi_ss_configstat record, uint32_t indent, int32_t newline,
                                           const char *label);
/** Dumps naming status, by value. */
QZFI_API int32_t qzfiprt_qfi_ss_namestat(qfi_ss_namestat record, uint32_t indent, int32_t newline, const char *label);
/** Dumps the status of a split, with its three embedded statuses. */
QZFI_API int32_t qzfiprt_qfi_splitstat(const qfi_splitstat *record, uint32_t indent, int32_t newline,
                                       const char *label);
/** Dumps a group; a null one reads "qfi_groups = NULL". */
QZFI_API int32_t qzfiprt_qfi_group(const qfi_group *record, uint32_t indent, int32_t newline, const char *label);
/** Dumps the groups of a node, under the heading "qfi_quiesce"; `qsp_next` as a signed number of 32 bits. */
QZFI_API int32_t qzfiprt_qfi_groups(const qfi_groups *record, uint32_t indent, int32_t newline, const char *label);
/** Dumps a step of the quiesce list; a null one reads "qfi_resource = NULL". */
QZFI_API int32_t qzfiprt_qfi_qsplit(const qfi_quiesce *record, uint32_t indent, int32_t newline, const char *label);
/** Dumps a time. */
QZFI_API int32_t qzfiprt_qfi_time(const qfi_time_t *record, uint32_t indent, int32_t newline, const char *label);
/**
 * Dumps an object id. Its name is written as text when it is printable, else as a hex dump; as a pointer when the
 * length is below 1; and a name that a null byte ends two or more bytes before its last is only complained about.
 */
QZFI_API int32_t qzfiprt_qfi_objid(const qfi_objid_t *record, uint32_t indent, int32_t newline, const char *label);
/** Dumps what happens to an object, with the object's id. */
QZFI_API int32_t qzfiprt_qfi_resource_disp(const qfi_resource_disp_t *record, uint32_t indent, int32_t newline,
                                           const char *label);
/** Dumps a group of nodes with its object id, and all members with theirs. */
QZFI_API int32_t qzfiprt_qfi_group_node(const qfi_group_node *record, uint32_t indent, int32_t newline,
                                        const char *label);
/** Dumps the first group of a list; the others are not followed. */
QZFI_API int32_t qzfiprt_qfi_group_node_list(const qfi_group_node_list *record, uint32_t indent, int32_t newline,
                                             const char *label);
/** Dumps a storage node with its object id. */
QZFI_API int32_t qzfiprt_qfi_node(const qfi_node *record, uint32_t indent, int32_t newline, const char *label);
/** Dumps the first node of a list; the others are not followed. */
QZFI_API int32_t qzfiprt_qfi_node_list(const qfi_node_list *record, uint32_t indent, int32_t newline,
                                       const char *label);
/** Dumps an association with both its nodes. */
QZFI_API int32_t qzfiprt_qfi_assoc(const qfi_assoc *record, uint32_t indent, int32_t newline, const char *label);
/** Dumps the first association of a list; the others are not followed. */
QZFI_API int32_t qzfiprt_qfi_assoc_list(const qfi_assoc_list *record, uint32_t indent, int32_t newline,
                                        const char *label);
/** Dumps a resource: two object ids and a disposition. */
QZFI_API int32_t qzfiprt_qfi_resource(const qfi_resource *record, uint32_t indent, int32_t newline, const char *label);
/** Dumps a domain tree node with the records that hang on it; other nodes only as pointers. */
QZFI_API int32_t qzfiprt_qfi_domain(const qfi_domain *record, uint32_t indent, int32_t newline, const char *label);
/** Dumps the first tree's root of a list; the others are not followed. */
QZFI_API int32_t qzfiprt_qfi_domain_tree_list(const qfi_domain_tree_list_t *record, uint32_t indent, int32_t newline,
                                              const char *label);

/** The name of a disposition, "Unknown Type" for none. Valid for ever. Thread-safe. */
QZFI_API const char *qzfiget_qfi_disposition(int32_t disposition);
/** The name of a class, "Unknown Type" for none. Valid for ever. Thread-safe. */
QZFI_API const char *qzfiprt_qfi_class(int32_t code);

QZFI_END_DECLS

#endif
