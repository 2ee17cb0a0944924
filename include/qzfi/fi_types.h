/*
 * The types of the default API implementation library. Records that callers fill in begin with their size, so that
 * later members can be told to be missing: QFI_INIT sets it.
 */
#ifndef QZFI_FI_TYPES_H
#define QZFI_FI_TYPES_H

#include <string.h>

#include <qzfi/export.h>
#include <qzfi/frontend.h>
#include <qzfi/objectid.h>
#include <qzfi/paths.h>
#include <qzfi/records.h>

QZFI_BEGIN_DECLS

/** Zero-fills a record and sets its `size`: `qfi_freeze_options options; QFI_INIT(options);` */
#define QFI_INIT(record) (memset(&(record), 0, sizeof(record)), (void)((record).size = (uint32_t)sizeof(record)))

/** Own statuses of libfi.so. `qzfiapi_errmsg` gives their texts, message ids "MSG_QFI_E1024" and so on. */
enum qfi_fi_status {
    QFI_FI_NO_SUCH_IMAGE = 1024,    /**< no known store has it */
    QFI_FI_NO_SUCH_OBJECT = 1025,   /**< a path that does not exist, or is no directory */
    QFI_FI_NO_METHOD = 1026,        /**< no method can freeze the object, or not the one that was asked for */
    QFI_FI_WRONG_STATE = 1027,      /**< the tree's life is not there yet, or past it */
    QFI_FI_STORE = 1028,            /**< a store cannot be used: missing, not writable, of another version */
    QFI_FI_NO_SPACE = 1029,         /**< the file system is full, or would be */
    QFI_FI_PRE_COMMAND = 1030,      /**< the pre command failed; nothing was frozen */
    QFI_FI_POST_COMMAND = 1031,     /**< the post command failed; the images are there */
    QFI_FI_DAMAGED = 1032,          /**< an image is not what its manifest says */
    QFI_FI_BAD_FIID = 1033,         /**< an id document that is not valid */
    QFI_FI_BUSY = 1034,             /**< another operation, of whatever process, works on the same */
    QFI_FI_CANCELLED = 1035,        /**< the progress callback said so */
    QFI_FI_EXISTS = 1036,           /**< what would be made is there already */
    QFI_FI_CATALOG = 1037,          /**< the store's catalog could not be read or written */
    QFI_FI_UNSAFE = 1038,           /**< a path leaves its place: a symbolic link or a mount in the way */
    QFI_FI_READ = 1039,             /**< reading failed; the record says what, where and why */
    QFI_FI_WRITE = 1040,            /**< writing failed; the record says what, where and why */
    QFI_FI_NO_RIGHT = 1041,         /**< not permitted to this user */
    QFI_FI_NO_SUCH_PROVIDER = 1042, /**< not loaded */
    QFI_FI_LAST = 1042
};

/** `qfi_provider.type` in the list of providers. */
enum qfi_provider_type {
    QFI_PROVIDER_LOADED = 1, /**< texts: its description, the name of its method */
    QFI_PROVIDER_REFUSED = 2 /**< `provider_id` is the plugin's file name; texts: why it was refused */
};

/** Types of domain tree nodes (`fid_nodetype`). */
enum qfi_node_type {
    QFI_NODE_ROOT = 1,       /**< the root of a tree; no object */
    QFI_NODE_FILESYSTEM = 2, /**< a file system, by its mount point */
    QFI_NODE_OBJECT = 3,     /**< a directory to be frozen */
    QFI_NODE_IMAGE = 4       /**< the frozen image of an object: an alternate node */
};

/** States of a tree, in the order of its life; docs/contract.md has the diagram. */
enum qfi_tree_state {
    QFI_TREE_NEW = 1,
    QFI_TREE_ANALYZED = 2,
    QFI_TREE_SELECTED = 3,
    QFI_TREE_PREPARED = 4,
    QFI_TREE_QUIESCED = 5,
    QFI_TREE_SPLIT = 6,
    QFI_TREE_FROZEN = 7, /**< unquiesced, or built from a stored image */
    QFI_TREE_REMOVED = 8
};

/** How consistent an image is: `qfi_fim.consistency`. Said of the whole image, honestly. */
typedef enum qfi_consistency {
    QFI_CONSISTENCY_NONE = 0,
    QFI_CONSISTENCY_FUZZY = 1,    /**< files may be of different moments, and a file that changed may be torn */
    QFI_CONSISTENCY_PER_FILE = 2, /**< each file is of one moment */
    QFI_CONSISTENCY_ATOMIC = 3    /**< all of one file system is of one moment */
} qfi_consistency;

/** `qfi_fim.technology`. */
typedef enum qfi_technology {
    QFI_TECHNOLOGY_SNAPSHOT = 1, /**< of the file system itself */
    QFI_TECHNOLOGY_CLONE = 2,    /**< files that share their data */
    QFI_TECHNOLOGY_COPY = 3      /**< copied files; within one Btrfs or XFS they may share blocks */
} qfi_technology;

/** What `qfi_qs_combo.qsc_libpriv` points at, in the combinations of this library; lives as long as they do. */
typedef struct qfi_combo_info {
    const qfi_domain *node;  /**< the file system */
    const char *fim_id;      /**< the method */
    const char *provider_id; /**< who offers it */
    const char *store;       /**< the store that would be used */
    uint32_t consistency;    /**< a `qfi_consistency`; NONE when it cannot freeze the file system */
    uint64_t cost_bytes;     /**< bytes that the image needs beyond shared data; an estimate */
    uint64_t cost_ms;        /**< milliseconds that the split takes; an estimate */
    const char *reason;      /**< why it cannot, English; null when it can */
} qfi_combo_info;

/** Options of a tree. */
typedef struct qfi_tree_options {
    uint32_t size;  /**< set by `QFI_INIT` */
    uint32_t flags; /**< 0 */
} qfi_tree_options;

/** Options of the freezing of a tree. */
typedef struct qfi_freeze_options {
    uint32_t size;            /**< set by `QFI_INIT` */
    uint32_t workers;         /**< threads that copy; 0 for 2 */
    const char *fim_id;       /**< the method; null: the best; read by `qfi_op_make` only */
    const char *store;        /**< the store; null: the method's default; read by `qfi_op_make` only */
    const char *label;        /**< a text for people, or null */
    const char *pre_command;  /**< run by the shell before the instant, or null; failing, nothing is frozen */
    const char *post_command; /**< run by the shell afterwards, whatever happened, or null */
    uint32_t digest;          /**< not 0: the manifest holds a digest of every file's data */
    uint32_t nested;          /**< not 0: nested subvolumes are included */
} qfi_freeze_options;

/** An id document: XML that validates against the schema of `qzfi_get_fiidschemapath`. Released by `qfi_op_free_fiid`.
 */
typedef struct qfi_fiid {
    char *document;  /**< terminated */
    uint64_t length; /**< bytes, without the terminator */
} qfi_fiid;

/** One line of a report. */
typedef struct qfi_report_item {
    uint32_t kind;      /**< a `qfi_remark_kind` of <qzfi_provider.h> */
    int32_t error;      /**< errno, or 0 */
    const char *object; /**< the object's path */
    const char *path;   /**< below the object; "" for itself */
    const char *detail; /**< English */
} qfi_report_item;

/** What an operation has to say. One block of memory, released by `qfi_op_free_report`. */
typedef struct qfi_report {
    uint64_t entries;             /**< files, directories and so on that were seen */
    uint64_t bytes;               /**< their data */
    uint64_t changed;             /**< entries that were made, changed or removed */
    uint64_t shown;               /**< number of `items` */
    uint64_t count;               /**< number of remarks, those not shown included; at most 10,000 are shown */
    const qfi_report_item *items; /**< the remarks shown */
} qfi_report;

/** Names an image and where it is. */
typedef struct qfi_image_ref {
    uint32_t size;     /**< set by `QFI_INIT` */
    char image_id[48]; /**< the image */
    char store[4096];  /**< the store's path */
} qfi_image_ref;

/** One stored image. */
typedef struct qfi_image {
    const char *image_id;       /**< its id */
    const char *set_id;         /**< of all images that were made together */
    const char *label;          /**< or "" */
    const char *fim_id;         /**< the method that made it */
    const char *provider_id;    /**< whose method that is */
    const char *store;          /**< the store's path */
    const char *host;           /**< name of the host that made it */
    uint32_t consistency;       /**< a `qfi_consistency` */
    uint32_t state;             /**< 1 complete; 2 being removed; 3 damaged: its files are missing */
    qfi_time_t time;            /**< of the instant */
    uint64_t duration_ns;       /**< of the split */
    uint64_t entries;           /**< 0: not counted */
    uint64_t bytes;             /**< of file data; 0: not counted */
    uint64_t remarks;           /**< in its report */
    uint32_t has_digests;       /**< 1: its manifest holds digests */
    uint32_t backed_up;         /**< 0 never; 1 a backup succeeded; 2 the last one failed */
    uint32_t object_count;      /**< number of `objects` and of `paths` */
    const char *const *objects; /**< paths of the originals */
    const char *const *paths;   /**< paths of their frozen images */
} qfi_image;

/** A list of images; each node is one block of memory. */
typedef struct qfi_image_list {
    qfi_image image;             /**< the image */
    struct qfi_image_list *next; /**< the next node, or null */
} qfi_image_list;

/** A component request: which objects' information goes where. */
typedef struct qfi_component_request {
    uint32_t size;                    /**< set by `QFI_INIT` */
    const qfi_domain *tree;           /**< the tree asked about */
    struct qfi_component_info *infos; /**< as many as `qfi_op_get_component_info` is told */
} qfi_component_request;

/** One object of a tree. */
typedef struct qfi_component_info {
    const char *object;   /**< the original's path */
    const char *image;    /**< the image's path, or null */
    const char *provider; /**< or null */
    int32_t status;       /**< set by `qfi_op_set_comp_status`, 0 before */
} qfi_component_info;

/** How to restore or to resynchronise. */
typedef struct qfi_restore_options {
    uint32_t size;    /**< set by `QFI_INIT` */
    uint32_t workers; /**< 0 for 2 */
    const char *to;   /**< restore into this new directory instead of the original places; or null */
    const char *only; /**< only what lies there: at a path below the one object, or at an original's whole path, which
                         tells the object of several; or null */
    uint32_t digest;  /**< resync: not 0 compares file data too, not only size and times */
    uint32_t dry_run; /**< not 0: only the report; nothing is changed: of a new place, all that would be made there */
} qfi_restore_options;

/** What an operation on a tree does, or did. */
typedef struct qfi_operation_status {
    uint32_t size;          /**< set by `QFI_INIT` */
    int32_t running;        /**< 1 while one runs */
    int32_t status;         /**< of the last one */
    int32_t caller_status;  /**< as `qfi_op_set_op_status` noted */
    char operation[32];     /**< its name, as in `qfi_progress` */
    uint64_t entries_done;  /**< so far */
    uint64_t entries_total; /**< 0: not known */
    uint64_t bytes_done;    /**< so far */
    uint64_t bytes_total;   /**< 0: not known */
} qfi_operation_status;

/** A store. */
typedef struct qfi_store_status {
    char *path;                    /**< the store's */
    uint32_t state;                /**< 0 in use; else an own status: why it cannot be used */
    uint64_t images;               /**< complete ones */
    uint64_t debris;               /**< half-made images left by a crash; the next freeze or `repair` removes them */
    uint64_t capacity;             /**< bytes of its file system */
    uint64_t available;            /**< bytes free for this user */
    struct qfi_store_status *next; /**< the next store, or null */
} qfi_store_status;

/** What became of an entry between two trees. */
typedef enum qfi_change {
    QFI_CHANGE_ADDED = 1,
    QFI_CHANGE_REMOVED = 2,
    QFI_CHANGE_CONTENT = 3, /**< size, time or data */
    QFI_CHANGE_TYPE = 4,
    QFI_CHANGE_ATTRIBUTE = 5, /**< owner or mode only */
    QFI_CHANGE_NONE = 6       /**< in a backup set without base: everything */
} qfi_change;

/** One difference. */
typedef struct qfi_diff_entry {
    uint32_t change;    /**< a `qfi_change` */
    uint32_t type;      /**< a `qfi_entry_type` of <qzfi_provider.h>; the new one */
    uint64_t old_size;  /**< bytes before */
    uint64_t new_size;  /**< bytes now */
    const char *object; /**< the object's path */
    const char *path;   /**< below the object */
} qfi_diff_entry;

/** Differences, ordered by object, then bytewise by path. One block of memory. */
typedef struct qfi_diff {
    uint64_t count;                /**< number of `entries` */
    const qfi_diff_entry *entries; /**< the differences */
} qfi_diff;

/** How to compare. */
typedef struct qfi_diff_options {
    uint32_t size;   /**< set by `QFI_INIT` */
    uint32_t digest; /**< not 0: compares data where sizes and times agree */
} qfi_diff_options;

/** How imports behave. */
typedef struct qfi_import_options {
    uint32_t size;        /**< set by `QFI_INIT` */
    uint32_t verify;      /**< not 0: digests are checked while importing, where the manifest has them */
    uint32_t keep_source; /**< not 0: the exported folder stays */
} qfi_import_options;

/** Bits of `qfi_op_detach`. */
enum qfi_detach_flags {
    QFI_DETACH_REMOVE = 1 /**< removes the images too */
};

/** Commands of `qfi_op_objctl`. */
#define QFI_OBJCTL_VERIFY                                                                                              \
    "verify"                       /**< tree: compares its images with their manifests; status 1032 when they differ   \
                                    */
#define QFI_OBJCTL_REPAIR "repair" /**< store, or null for all known ones: removes debris, reports what is damaged */
#define QFI_OBJCTL_REPORT "report" /**< tree: gives the report that was made with the images */
/** store: becomes a known one, such as after it moved; it must be there */
#define QFI_OBJCTL_REMEMBER "remember"
#define QFI_OBJCTL_FORGET "forget" /**< store: no longer a known one; its images stay where they are */

/** How far an operation is. */
typedef struct qfi_progress {
    const char *operation;  /**< as in `qfi_operation_status`: "make", "split", "restore", "objctl"... */
    const char *object;     /**< the path of the tree's first object, or of what is imported */
    uint64_t entries_done;  /**< so far */
    uint64_t entries_total; /**< 0: not known */
    uint64_t bytes_done;    /**< so far */
    uint64_t bytes_total;   /**< 0: not known */
} qfi_progress;

/** See the record below. */
typedef struct qfi_progress_handler qfi_progress_handler;
/**
 * Receives progress. A host that wants it lets `reserved1` of its handler record point at one before `qzfiapi_start`;
 * it must outlive the matching shutdown. Called from any thread, about ten times a second and at the end.
 *
 * It may call operations. They wait for no tree: one that an operation works on, such as the one that called the
 * handler, is busy (1034); but `qfi_op_get_status` tells of it. What another thread does with such a tree comes after
 * the handler's return: a handler that waits for that thread waits for ever. The same holds for the error handler.
 */
struct qfi_progress_handler {
    uint32_t size; /**< set by `QFI_INIT` */
    /** Returns not 0 to cancel the operation, which then gives 1035 and leaves nothing half-made. */
    int32_t (*progress)(qfi_progress_handler *self, const qfi_progress *progress);
};

QZFI_END_DECLS

#endif
