/* The framework's records. */
#ifndef QZFI_RECORDS_H
#define QZFI_RECORDS_H

#include <qzfi/export.h>
#include <qzfi/plugin.h>

QZFI_BEGIN_DECLS

/** Bits of `qfi_objid_t.vid_type`. */
enum qfi_objid_type {
    QFI_OID_INTERN = 1, /**< the record lives in the interning table and is shared */
    QFI_OID_ALLOC = 2   /**< `vid_name` is a heap copy owned by the record */
};

/** An object id: any bytes. */
typedef struct qfi_objid {
    const void *vid_name; /**< the bytes, not terminated */
    int32_t vid_length;   /**< their number */
    uint32_t vid_type;    /**< bits of `qfi_objid_type` */
} qfi_objid_t;

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

QZFI_END_DECLS

#endif
