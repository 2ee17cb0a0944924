/*
 * The provider kit: what a provider plugin of the default API implementation library exports.
 *
 * A provider is a shared library in the plugin directory whose name begins with "qzfi_provider_". It exports one
 * function, `qfi_provider_entry`, which gives its operation table. The library that loads it gives it directory
 * descriptors and names, never paths to be followed, and takes care of everything around the instant: stores, ids,
 * catalogs, commands, restores that replace atomically. A provider knows how to make one image of one directory tree,
 * how to copy one out, and how to remove one.
 *
 * Plain C11; no exception may leave an operation. Every operation may be called from any thread, several at once on
 * different jobs. Statuses are those of <qzfi/status.h> and of <qzfi_fi.h>; a failure is described with `fail` of the
 * job's host before the operation returns, so that the caller is told the object and the cause.
 */
#ifndef QZFI_PROVIDER_H
#define QZFI_PROVIDER_H

#include <qzfi.h>
#include <qzfi/fi_types.h>

QZFI_BEGIN_DECLS

/** File name prefix of provider plugins. */
#define QFI_PROVIDER_PREFIX "qzfi_provider_"
/** Their directory below the root. */
#define QFI_PROVIDER_SUBDIR "/lib/qzfi/plugins/"
/** The variable that names another directory, with a "/" at its end. */
#define QFI_PROVIDER_ENV "QFI_DIR"
/** Name of the exported entry: `const qfi_provider_ops *qfi_provider_entry(void)`. */
#define QFI_PROVIDER_ENTRY "qfi_provider_entry"

/** What kind of thing an entry of a tree is. */
typedef enum qfi_entry_type {
    QFI_ENTRY_FILE = 1,
    QFI_ENTRY_DIRECTORY = 2,
    QFI_ENTRY_SYMLINK = 3,
    QFI_ENTRY_BLOCK = 4,
    QFI_ENTRY_CHARACTER = 5,
    QFI_ENTRY_FIFO = 6,
    QFI_ENTRY_SOCKET = 7
} qfi_entry_type;

/** One entry of a tree, as it was frozen. */
typedef struct qfi_entry {
    const char *path;      /**< below the object, without a leading "/"; "" is the object itself; any bytes but NUL */
    uint32_t type;         /**< a `qfi_entry_type` */
    uint32_t mode;         /**< permission bits */
    uint32_t uid;          /**< owner */
    uint32_t gid;          /**< owning group */
    uint64_t size;         /**< bytes of a file, length of a link's target, else 0 */
    int64_t mtime_ns;      /**< nanoseconds since 1 January 1970 */
    uint64_t device;       /**< of device nodes, else 0 */
    uint64_t inode;        /**< tells hard links of one file apart from other files; 0 when there is one link only */
    const char *target;    /**< a symbolic link's target, else null */
    const uint8_t *digest; /**< XXH3, 128 bits, big-endian, of a file's data; null when not asked for */
} qfi_entry;

/** What a remark in an image's report says. */
typedef enum qfi_remark_kind {
    QFI_REMARK_TORN = 1,       /**< the file changed while it was read, again and again */
    QFI_REMARK_VANISHED = 2,   /**< listed, but gone when it was read */
    QFI_REMARK_ATTRIBUTE = 3,  /**< an attribute could not be kept; `detail` names it */
    QFI_REMARK_SKIPPED = 4,    /**< not included, on purpose: a socket, another file system, a nested subvolume */
    QFI_REMARK_UNREADABLE = 5, /**< could not be read; the image does not hold it */
    QFI_REMARK_WARNING = 6     /**< anything else that the user should know */
} qfi_remark_kind;

/** A remark on one object or entry. */
typedef struct qfi_remark {
    uint32_t kind;      /**< a `qfi_remark_kind` */
    const char *path;   /**< below the object, as in `qfi_entry` */
    const char *detail; /**< English, a few words; never null */
    int32_t error;      /**< errno, or 0 */
} qfi_remark;

/** What the caller of an operation offers the provider. Its functions may be called from any thread, at any time. */
typedef struct qfi_provider_host {
    uint32_t size; /**< of this record, in bytes */
    void *context; /**< first argument of every function */
    /** Takes an entry of the image for the manifest. Not 0: stop (QFI_STATUS_NO_MEMORY or an own status). */
    int32_t (*entry)(void *context, const qfi_entry *entry);
    /** Takes a remark for the image's report. */
    void (*remark)(void *context, const qfi_remark *remark);
    /** Tells progress; returns not 0 when the operation is to stop with QFI_FI_CANCELLED. */
    int32_t (*progress)(void *context, uint64_t entries, uint64_t bytes);
    /** Says what failed: the operation ("openat2"), the object below the job's, errno. Last call wins. */
    void (*fail)(void *context, const char *operation, const char *object, int32_t error);
} qfi_provider_host;

/** Bits of `qfi_provider_job.flags`, and of a probe's. */
enum qfi_job_flags {
    QFI_JOB_DIGEST = 1,   /**< give a digest with each file entry */
    QFI_JOB_NESTED = 2,   /**< include nested subvolumes */
    QFI_JOB_MANIFEST = 4, /**< give every entry to `host->entry` */
    QFI_JOB_SYNC = 8,     /**< the result must be on stable storage on return */
    QFI_JOB_GLANCE = 16   /**< of a probe: only whether and how; costs may be bounds, and nothing is to be counted */
};

/** A directory that is left out. */
typedef struct qfi_excluded {
    uint64_t device; /**< its file system, as fstat gives it */
    uint64_t inode;  /**< its number there */
    int directory;   /**< it itself, open for nothing more than to be looked up (O_PATH) */
} qfi_excluded;

/** One object to be frozen, copied out or compared. Descriptors stay the caller's. */
typedef struct qfi_provider_job {
    uint32_t size;                 /**< of this record, in bytes */
    const qfi_provider_host *host; /**< never null */
    const char *object;            /**< the object's path, for texts only */
    int source;                    /**< the tree to be read: an open directory */
    int target;                    /**< the directory in which the result is made */
    const char *name;              /**< the entry of `target` to make; it does not exist */
    char *subpath;                 /**< split only, out: see `split`; null before */
    uint32_t flags;                /**< `qfi_job_flags` */
    uint32_t workers;              /**< threads to use, 1 to 64 */
    const qfi_excluded *excluded;  /**< directories left out without remark, wherever they lie: stores; null for none */
    uint32_t excluded_count;       /**< how many */
    uint64_t changed;              /**< resync, out: entries that were made, changed or removed */
    const char *earlier; /**< split only: the entry of `target` that is the image of an earlier object of the same file
                            system; or null */
    uint32_t same_instant; /**< split only, out: 1 for an image of the same instant as `earlier` */
} qfi_provider_job;

/** What a provider says of an object. */
typedef struct qfi_probe {
    uint32_t size;         /**< of this record, in bytes */
    int32_t combo_class;   /**< a `qfi_class`: QFI_ATOMIC_FS, QFI_SERIAL_FS, or QFI_CLASS_NOTSUP */
    uint32_t consistency;  /**< a `qfi_consistency` of <qzfi_fi.h> */
    uint64_t cost_bytes;   /**< bytes that the image needs beyond shared data; an estimate */
    uint64_t cost_ms;      /**< milliseconds that the split takes; an estimate */
    char reason[256];      /**< why it cannot freeze the object, English; empty when it can */
    uint32_t same_instant; /**< 1 when several objects of the file system are frozen at one instant, by `earlier` */
    uint64_t entries;      /**< up to which the split's calls of `progress` will count; 0 when not known, or when it
                              makes none. It becomes the total that hosts are told: no guess, no upper bound */
    uint64_t bytes;        /**< the same of bytes; 0 too where they are no measure of the work that is done */
} qfi_probe;

/**
 * The operation table. The first member is what the error and message lists release a provider's data through.
 * A null operation is one that the provider does not offer: the caller gives status 4 in its name.
 */
typedef struct qfi_provider_ops {
    qfi_plugin_ops release;  /**< zero for a provider that attaches no data to errors */
    uint32_t size;           /**< of this record, in bytes */
    uint64_t version;        /**< the API version that the provider was built for: QFI_API_VERSION */
    const char *provider_id; /**< for example "btrfs"; letters, digits, "-" and "_"; unique */
    const char *fim_id;      /**< the name of its method, usually the same */
    const char *description; /**< one line, English */
    uint64_t hlevel;         /**< preference among those that can: the higher, the better */
    uint32_t consistency;    /**< a `qfi_consistency`: what its images are at best */
    uint32_t technology;     /**< a `qfi_technology` */

    /** Called once after loading; not 0 refuses the plugin. May be null. */
    int32_t (*start)(void);
    /** Called once before unloading. May be null. */
    void (*stop)(void);
    /**
     * Tells whether and how the tree below a directory can be frozen into a store on the file system of `store`
     * (-1: the object's own file system). Returns 0 also when it cannot: the probe says why. It comes zeroed, and may
     * be of an earlier kit: no more of it than its `size` is filled in.
     */
    int32_t (*probe)(int source, int store, const char *object, uint32_t flags, qfi_probe *out);
    /** Makes the image `target/name` of `source`, complete or not at all. For an image of more than the object (the
     * subvolume around it) it sets `job->subpath` to the object's place below `name`, from malloc. With `job->earlier`
     * it may make the image of what that one froze, object and surroundings, and says so in `job->same_instant`. */
    int32_t (*split)(qfi_provider_job *job);
    /** Copies the frozen tree `source` to the new, writable entry `target/name`, for a restore. */
    int32_t (*copy_out)(qfi_provider_job *job);
    /** Makes the existing tree `target/name` equal to the frozen tree `source`, changing only what differs. */
    int32_t (*resync)(qfi_provider_job *job);
    /** Removes the image `target/name`, whatever state it is in, also a half-made one. */
    int32_t (*remove)(qfi_provider_job *job);
} qfi_provider_ops;

QZFI_END_DECLS

#endif
