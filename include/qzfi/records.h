/*
 * The framework's records, and their builders and frees.
 *
 * A record builder fills a record of the caller's with deep copies; a list builder makes a list node, the record
 * followed by `next`, which it leaves null, or gives null when an argument is refused or memory is short. A record free
 * releases what the record owns, a list free also the node, zero-filled; none follows `next`, and all return 0 and
 * accept null unless said otherwise. What a builder made is released by the matching free alone. Thread-safe on
 * different records.
 *
 * A record need not be initialised before it is built, unless said otherwise, and one that is built again loses what it
 * owned. Statuses of the record builders are 0; 3 for an argument that is missing, or a source without uid or object id
 * (the record is as it was), and 5 when memory is short (the record owns nothing, and its numbers are undefined), both
 * unless said otherwise. Object ids are private copies; one that `qzfi_get_objid` refuses, for example of no bytes,
 * counts as one that memory was short for. Freed records own nothing, so freeing one again is harmless.
 */
#ifndef QZFI_RECORDS_H
#define QZFI_RECORDS_H

#include <qzfi/export.h>
#include <qzfi/objectid.h>
#include <qzfi/plugin.h>

QZFI_BEGIN_DECLS

/** What happens to a resource's frozen image. 5 is not used. */
enum qfi_disposition {
    QFI_DISP_NONE = 0,
    QFI_DISP_REMOVE = 1,
    QFI_DISP_REATTACH = 2,
    QFI_DISP_PROMOTE = 3,
    QFI_DISP_CONVERT = 4,
    QFI_DISP_MAX = 6
};

/** A resource of a domain tree node: two object ids and what happens to it. */
typedef struct qfi_resource {
    qfi_objid_t *first;  /**< the resource */
    qfi_objid_t *second; /**< its counterpart */
    int32_t disp_type;   /**< a `qfi_disposition` */
} qfi_resource;

/** A step of the quiesce list. */
typedef struct qfi_quiesce {
    struct qfi_quiesce *qsp_next; /**< the next step */
    void *qsp_quiesce;            /**< the provider's */
    void *qsp_split;              /**< the provider's */
} qfi_quiesce;

/** A group of domain tree nodes. */
typedef struct qfi_group {
    void *fig_grouphead;        /**< the group's head */
    struct qfi_group *fig_next; /**< the next group */
    int32_t fig_nextidx;        /**< index in the next group */
} qfi_group;

/** The groups that a node belongs to. */
typedef struct qfi_groups {
    uint64_t qsp_next; /**< printed as a number */
    qfi_group *group;  /**< the group */
} qfi_groups;

/** Readiness of a node list. */
typedef struct qfi_ss_readystat {
    void *ssr_nodelist; /**< the nodes */
    int32_t ssr_nnodes; /**< their number */
} qfi_ss_readystat;

/** Configuration status of a node list. */
typedef struct qfi_ss_configstat {
    void *ssc_nodelist; /**< the nodes */
    int32_t ssc_nnodes; /**< their number */
} qfi_ss_configstat;

/** Naming status of a node list. */
typedef struct qfi_ss_namestat {
    void *ssn_nodelist; /**< the nodes */
    int32_t ssn_nnodes; /**< their number */
} qfi_ss_namestat;

/** Status of a split. */
typedef struct qfi_splitstat {
    int32_t vss_flags;        /**< flags of the provider */
    qfi_ss_namestat name;     /**< naming */
    qfi_ss_configstat config; /**< configuration */
    qfi_ss_readystat ready;   /**< readiness */
    void *qfi_splitstat;      /**< the provider's */
} qfi_splitstat;

/** A time of the framework. */
typedef struct qfi_time {
    uint64_t qzfi_sec;  /**< seconds since 1 January 1900 */
    uint32_t qzfi_nsec; /**< nanoseconds */
} qfi_time_t;

/** A node of a domain tree: a storage object, what it lies on, and its frozen image. */
typedef struct qfi_domain {
    int32_t fid_nodetype;             /**< the API implementation library's */
    int32_t fid_flags;                /**< the API implementation library's */
    qfi_objid_t *objid;               /**< the object */
    qfi_resource *resource_list;      /**< its resources */
    struct qfi_domain *fid_parent;    /**< null at the root */
    struct qfi_domain *fid_siblings;  /**< the next sibling */
    struct qfi_domain *fid_children;  /**< the first child */
    struct qfi_domain *fid_altnode;   /**< the node's frozen image */
    struct qfi_domain *fid_rootnode;  /**< the root of the tree */
    struct qfi_domain *fid_instances; /**< further instances */
    void *qsp_quiesce;                /**< the provider's */
    qfi_quiesce *qsplit;              /**< quiesce list */
    qfi_groups *groups;               /**< groups */
    qfi_splitstat *splitstat;         /**< status of the split */
    qfi_objid_t *second_objid;        /**< a second object id */
    qfi_time_t *time;                 /**< when the image was made */
    qfi_plugin *fid_plugin;           /**< the plugin in charge */
    void *fid_libpriv;                /**< the API implementation library's */
    void *fid_pgnpriv;                /**< the plugin's */
} qfi_domain;

/** A list of domain trees. */
typedef struct qfi_domain_tree_list {
    qfi_domain *domain;                /**< the root of the tree */
    struct qfi_domain_tree_list *next; /**< the next tree */
} qfi_domain_tree_list_t;

/** What a quiesce and split combination can do. */
typedef enum qfi_class {
    QFI_CLASS_NONE = 0,
    QFI_SERIAL_DEV = 1, /**< device by device */
    QFI_SERIAL_FS = 2,  /**< file system by file system */
    QFI_ATOMIC_DEV = 3, /**< all devices at one instant */
    QFI_ATOMIC_FS = 4,  /**< all file systems at one instant */
    QFI_CLASS_NOTSUP = 5
} qfi_class;

/** A combination of quiesce and split steps that freezes an object. */
typedef struct qfi_qs_combo {
    struct qfi_qs_combo *qsc_next; /**< the next combination */
    int32_t qsc_class;             /**< a `qfi_class` */
    qfi_quiesce *qsc_qslist;       /**< its steps */
    void *qsc_libpriv;             /**< the API implementation library's */
} qfi_qs_combo;

/** A transfer. */
typedef struct qfi_io_req {
    void *reserved1;         /**< the API implementation library's */
    void *reserved2;         /**< the API implementation library's */
    uint64_t io_offset;      /**< bytes from the start of the object */
    uint64_t io_reqlen;      /**< bytes asked for */
    void *io_bufp;           /**< where they go to or come from */
    uint64_t io_bytes_trans; /**< bytes transferred */
    uint64_t io_bytes_req;   /**< bytes required */
    int32_t io_error;        /**< errno of the transfer, 0 for none */
} qfi_io_req_t;

/** Attributes of an object. */
typedef struct qfi_attr {
    uint64_t att_blksize;     /**< bytes of a block */
    uint64_t att_totalblks;   /**< blocks in all */
    uint64_t att_blksused;    /**< blocks in use */
    int32_t att_copytype;     /**< the provider's */
    int32_t att_persistent;   /**< the provider's */
    int32_t att_writeability; /**< the provider's */
    int32_t att_multiples;    /**< the provider's */
} qfi_attr;

/** What happens to one object. */
typedef struct qfi_resource_disp {
    qfi_objid_t *objid; /**< the object */
    int32_t disp_type;  /**< a `qfi_disposition` */
} qfi_resource_disp_t;

/** A frozen-image method. */
typedef struct qfi_fim {
    char *fim_id;                 /**< its name */
    uint32_t consistency;         /**< the provider's */
    uint32_t type;                /**< the provider's */
    uint32_t sync_type;           /**< the provider's */
    uint32_t technology;          /**< the provider's */
    uint64_t access_type;         /**< the provider's */
    uint64_t restore_type;        /**< the provider's */
    char *vendor_defined_fimtype; /**< or null */
    char *vendor_fim_version;     /**< or null */
    char *config_params;          /**< or null */
    char *provider_id;            /**< the provider that offers it */
} qfi_fim;

/** A list of frozen-image methods. */
typedef struct qfi_fim_list {
    qfi_fim fim;               /**< the element */
    struct qfi_fim_list *next; /**< the next one */
} qfi_fim_list;

/** An enclosure that holds storage. The meaning of its members belongs to the provider. */
typedef struct qfi_enclosure {
    char *enclosure_id; /**< first text */
    char *name;         /**< second text */
    char *vendor;       /**< third text */
    char *product;      /**< fourth text */
    char *provider_id;  /**< fifth text */
    uint64_t capacity;  /**< first number */
    uint64_t available; /**< second number */
    uint32_t state;     /**< third number */
} qfi_enclosure;

/** A list of enclosures. */
typedef struct qfi_enclosure_list {
    qfi_enclosure enclosure;         /**< the element */
    struct qfi_enclosure_list *next; /**< the next one */
} qfi_enclosure_list;

/** A host. */
typedef struct qfi_host {
    char *name;        /**< its name */
    char **texts;      /**< `count` owned texts */
    int32_t count;     /**< their number */
    char *provider_id; /**< the second text; its meaning belongs to the provider */
} qfi_host;

/** A list of hosts. */
typedef struct qfi_host_list {
    qfi_host host;              /**< the element */
    struct qfi_host_list *next; /**< the next one */
} qfi_host_list;

/** The id of a node. */
typedef struct qfi_nodeid {
    char *uid;               /**< unique name */
    qfi_objid_t *objid;      /**< private copy of the object id */
    struct qfi_nodeid *next; /**< the next member of a group */
} qfi_nodeid;

/** Properties of a node, given to the builders. */
typedef struct qfi_node_props {
    uint32_t uniqueness; /**< the provider's */
    uint32_t stability;  /**< the provider's */
    uint64_t hlevel;     /**< level in the storage stack */
    uint64_t size;       /**< bytes */
} qfi_node_props;

/** A group of nodes. */
typedef struct qfi_group_node {
    char *uid;           /**< unique name */
    qfi_objid_t *objid;  /**< private copy of the object id */
    qfi_nodeid *members; /**< the members; a built group holds one */
    uint32_t uniqueness; /**< the provider's */
    uint32_t stability;  /**< the provider's */
    uint64_t hlevel;     /**< level in the storage stack */
    uint64_t size;       /**< bytes */
    char *provider_id;   /**< the provider that names it */
    uint64_t value;      /**< the caller's, stored as given */
} qfi_group_node;

/** A list of group nodes. */
typedef struct qfi_group_node_list {
    qfi_group_node group_node;        /**< the element */
    struct qfi_group_node_list *next; /**< the next one */
} qfi_group_node_list;

/** A storage node. */
typedef struct qfi_node {
    char *uid;           /**< unique name */
    qfi_objid_t *objid;  /**< private copy of the object id */
    uint32_t uniqueness; /**< the provider's */
    uint32_t stability;  /**< the provider's */
    uint64_t hlevel;     /**< level in the storage stack */
    uint64_t size;       /**< bytes */
    char *provider_id;   /**< the provider that names it */
} qfi_node;

/** A list of nodes. */
typedef struct qfi_node_list {
    qfi_node node;              /**< the element */
    struct qfi_node_list *next; /**< the next one */
} qfi_node_list;

/** An association of two nodes through a frozen-image method. */
typedef struct qfi_assoc {
    qfi_node first;       /**< for example the original */
    qfi_node second;      /**< for example its mirror */
    char *fim_id;         /**< the method */
    uint32_t assoc_state; /**< the provider's */
    uint64_t last_op_ts;  /**< time of the last operation */
} qfi_assoc;

/** A list of associations. */
typedef struct qfi_assoc_list {
    qfi_assoc assoc;             /**< the element */
    struct qfi_assoc_list *next; /**< the next one */
} qfi_assoc_list;

/** A provider. */
typedef struct qfi_provider {
    char *provider_id; /**< its name */
    uint64_t hlevel;   /**< level in the storage stack */
    uint64_t type;     /**< the provider's */
    uint16_t four[4];  /**< the provider's, 0 when not given */
    char **texts;      /**< owned, ended by null; or null */
} qfi_provider;

/** A list of providers. */
typedef struct qfi_provider_list {
    qfi_provider provider;          /**< the element */
    struct qfi_provider_list *next; /**< the next one */
} qfi_provider_list;

/*
 * Frozen-image methods.
 */

/**
 * Builds a frozen-image method.
 * @param properties read for its six numbers and its two vendor texts, each of which may be null
 * @param config_params may be null
 */
QZFI_API uint32_t qzfi_build_fim_node(qfi_fim *record, const char *fim_id, const qfi_fim *properties,
                                      const char *config_params, const char *provider_id);
/** Builds a list node of it. */
QZFI_API qfi_fim_list *qzfi_build_fim_list_node(const char *fim_id, const qfi_fim *properties,
                                                const char *config_params, const char *provider_id);
/** Releases what the record owns. */
QZFI_API uint32_t qzfi_free_fim_node(qfi_fim *record);
/** Releases the list node and what its record owns. */
QZFI_API uint32_t qzfi_free_fim_list_node(qfi_fim_list *node);

/*
 * Enclosures.
 */

/**
 * Builds an enclosure. After status 5 the record keeps the texts that were copied: the caller frees it.
 */
QZFI_API uint32_t qzfi_build_enclosure_node(qfi_enclosure *record, const char *enclosure_id, const char *name,
                                            const char *vendor, const char *product, const char *provider_id,
                                            uint64_t capacity, uint64_t available, uint32_t state);
/** Builds a list node of it. */
QZFI_API qfi_enclosure_list *qzfi_build_enclosure_list_node(const char *enclosure_id, const char *name,
                                                            const char *vendor, const char *product,
                                                            const char *provider_id, uint64_t capacity,
                                                            uint64_t available, uint32_t state);
/** Releases what the record owns. */
QZFI_API uint32_t qzfi_free_enclosure_node(qfi_enclosure *record);
/** Releases the list node and what its record owns. */
QZFI_API uint32_t qzfi_free_enclosure_list_node(qfi_enclosure_list *node);

/*
 * Hosts.
 */

/**
 * Builds a host.
 * @param texts `count` texts, not null; a null text stays null
 * @param count stored as given; none are copied when it is below 1
 * @return 0 also when the array or some of its texts could not be copied: these texts are null then; without the array
 *         `texts` is null and `count` 0
 */
QZFI_API uint32_t qzfi_build_host_node(qfi_host *record, const char *name, char *const *texts, int32_t count,
                                       const char *second);
/**
 * Builds a list node of it; null also for a count of 0. There is no list free: the caller frees the node's host with
 * `qzfi_free_host_node`, then the node with `free`.
 */
QZFI_API qfi_host_list *qzfi_build_host_list_node(const char *name, char *const *texts, int32_t count,
                                                  const char *second);
/** @return 0; 3 for null */
QZFI_API uint32_t qzfi_free_host_node(qfi_host *record);

/*
 * Nodes, groups of nodes, and associations of nodes.
 */

/** Builds a node id; its `next` stays as it is. */
QZFI_API uint32_t qzfi_build_nodeid_node(const qfi_nodeid *source, qfi_nodeid *destination);
/** Does not free the id itself, nor follow its `next`. */
QZFI_API uint32_t qzfi_free_nodeid_node(qfi_nodeid *record);

/**
 * Builds a group.
 * @param record zero-filled or built before: it is freed also when an argument is missing
 * @param source its uid and object id
 * @param members a chain, each a uid and an object id. All are checked and copied; the group keeps the first only
 * @param properties null leaves them 0
 * @param value stored as given
 */
QZFI_API uint32_t qzfi_build_group_node(qfi_group_node *record, const qfi_nodeid *source, const qfi_nodeid *members,
                                        const qfi_node_props *properties, const char *provider_id, uint64_t value);
/** Builds a list node of it. */
QZFI_API qfi_group_node_list *qzfi_build_group_nodelist_node(const qfi_nodeid *source, const qfi_nodeid *members,
                                                             const qfi_node_props *properties, const char *provider_id,
                                                             uint64_t value);
/** Frees all members, however many there are; they are zero-filled first. */
QZFI_API uint32_t qzfi_free_group_node(qfi_group_node *record);
/** Releases the list node and what its record owns. */
QZFI_API uint32_t qzfi_free_group_nodelist_node(qfi_group_node_list *node);

/**
 * Builds a storage node.
 * @param properties null leaves the record's own as they are
 */
QZFI_API uint32_t qzfi_build_node(qfi_node *record, const qfi_nodeid *source, const qfi_node_props *properties,
                                  const char *provider_id);
/** Builds a list node of it; without properties they are 0. */
QZFI_API qfi_node_list *qzfi_build_nodelist_node(const qfi_nodeid *source, const qfi_node_props *properties,
                                                 const char *provider_id);
/** Releases what the record owns. */
QZFI_API uint32_t qzfi_free_node(qfi_node *record);
/** Releases the list node and what its record owns. */
QZFI_API uint32_t qzfi_free_nodelist_node(qfi_node_list *node);

/**
 * Builds an association.
 * @param properties of both nodes; null leaves the nodes' own as they are
 * @param provider_id of both nodes
 */
QZFI_API uint32_t qzfi_build_assoc_node(qfi_assoc *record, const qfi_nodeid *first, const qfi_nodeid *second,
                                        const qfi_node_props *properties, const char *provider_id, const char *fim_id,
                                        uint32_t assoc_state, uint64_t last_op_ts);
/** Builds a list node of it; without properties they are 0. Mind the order of the last two arguments. */
QZFI_API qfi_assoc_list *qzfi_build_assoc_list_node(const qfi_nodeid *first, const qfi_nodeid *second,
                                                    const qfi_node_props *properties, const char *provider_id,
                                                    const char *fim_id, uint64_t last_op_ts, uint32_t assoc_state);
/** Releases what the record owns. */
QZFI_API uint32_t qzfi_free_assoc_node(qfi_assoc *record);
/** Releases the list node and what its record owns. */
QZFI_API uint32_t qzfi_free_assoc_list_node(qfi_assoc_list *node);

/*
 * Providers.
 */

/**
 * Builds a list node of a provider.
 * @param four four values, or null for zeros
 * @param texts ended by null, copied with `QZFI_COPYARRAY`; or null
 * @return null for a null `provider_id`, or when the node, `provider_id` or the array could not be copied; when only a
 *         text of the array could not be, the node, whose texts end there
 */
QZFI_API qfi_provider_list *qzfi_build_providerlist_node(const char *provider_id, uint64_t hlevel, uint64_t type,
                                                         const uint16_t *four, char *const *texts);
/** Releases the list node and what its record owns. */
QZFI_API uint32_t qzfi_free_providerlist_node(qfi_provider_list *node);

/**
 * Merges two lists, each ordered by descending `hlevel`, into one such list, by relinking their nodes. Of nodes of
 * equal level those of `b` go first.
 * @return its first node; the other list when one is null
 */
QZFI_API qfi_provider_list *qzfi_merge_provider_lists(qfi_provider_list *a, qfi_provider_list *b);

/**
 * Copies an array of texts that is ended by null. The caller releases the texts and the array with `free`.
 * @return the copy; null for null, or when the array could not be copied. When a text could not be, the copy ends there
 */
QZFI_API char **QZFI_COPYARRAY(char *const *texts);

QZFI_END_DECLS

#endif
