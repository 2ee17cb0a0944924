/*
 * Object ids, their interning, and a general hash table.
 *
 * Equal ids that are interned share one record for the life of the start, so that they can be compared by address.
 * Interning and looking up are thread-safe; a hash table is not.
 */
#ifndef QZFI_OBJECTID_H
#define QZFI_OBJECTID_H

#include <qzfi/export.h>

QZFI_BEGIN_DECLS

/** Bits of `qfi_objid_t.vid_type`. */
enum qfi_objid_type {
    QFI_OID_INTERN = 1, /**< the record lives in the interning table and is shared */
    QFI_OID_ALLOC = 2   /**< `vid_name` is a heap copy owned by the record */
};

/** An object id: any bytes. Interned records carry both type bits, private copies `QFI_OID_ALLOC`, probes none. */
typedef struct qfi_objid {
    const void *vid_name; /**< the bytes, not terminated */
    int32_t vid_length;   /**< their number */
    uint32_t vid_type;    /**< bits of `qfi_objid_type` */
} qfi_objid_t;

/** Ids of this length and longer are never interned. */
#define QFI_OID_TABLE_LENGTHS 3072

/** A node of the interning table. */
typedef struct qzfi_isnode {
    qfi_objid_t id;            /**< first, so that a node is its id */
    int32_t checksum;          /**< `objsum` of the bytes */
    struct qzfi_isnode *left;  /**< nodes of smaller checksums */
    struct qzfi_isnode *right; /**< nodes of larger checksums */
    struct qzfi_isnode *next;  /**< further nodes of the same checksum and length */
} qzfi_isnode;

/**
 * The interning table: by length, a binary search tree ordered by checksum (signed). Index 0 is never used. While
 * `mutex` is held the trees may be walked, and nodes, whole and from malloc, be entered with `insertis` or as the root
 * of an empty tree: `qzfi_get_objid` finds them too. It reads roots without the lock, so a root is stored atomically
 * where other threads may be interning. Nodes never change but for their links. Emptied by shutdown.
 */
extern QZFI_API qzfi_isnode *istbl[QFI_OID_TABLE_LENGTHS];

/**
 * Makes an object id.
 *
 * @param bytes the id's bytes, copied
 * @param length their number
 * @param flags with `QFI_OID_INTERN` the shared record of these bytes, which the library owns and which lives until
 *        shutdown; without it a new record, whose `vid_name` and itself the caller releases with `free`
 * @return the record; null for null bytes, a length below 1, an id of `QFI_OID_TABLE_LENGTHS` bytes or more that is to
 *         be interned, or when memory is short (nothing is entered then)
 * Thread-safe, also before start and after shutdown. Looking up an interned id takes no lock; one that is not interned
 * yet takes `mutex`, so it must not be asked for by a thread that holds it.
 */
QZFI_API qfi_objid_t *qzfi_get_objid(const void *bytes, int32_t length, uint32_t flags);

/**
 * Compares two ids.
 * @return 0 equal; 1 different length, or greater; all bits set when smaller. Two ids whose type is `QFI_OID_INTERN`
 *         alone are compared by the address of their bytes: 0 or 1.
 */
QZFI_API uint32_t qzfi_objidcmp(const qfi_objid_t *a, const qfi_objid_t *b);

/** The sum of the bytes taken as signed; 0 for a length below 1. */
QZFI_API uint32_t objsum(const void *bytes, int32_t length);

/**
 * Enters a node, whose links are null, at or below a tree's node: behind the tree node of the same checksum, else as a
 * new leaf. @return `added`. The caller holds `mutex` when the tree is of `istbl`.
 */
QZFI_API qzfi_isnode *insertis(qzfi_isnode *node, qzfi_isnode *added);
/** Finds an id below a tree's node. @return the node, or null. The caller holds `mutex` when the tree is of `istbl`. */
QZFI_API qzfi_isnode *findis(qzfi_isnode *root, const qfi_objid_t *probe, int32_t checksum);
/** Frees a tree with its chains, and the bytes of nodes with `QFI_OID_ALLOC`. Trees of `istbl` are shutdown's to free.
 */
QZFI_API void freeis(qzfi_isnode *root);

/** An entry of a hash table. Keys and values are texts. */
typedef struct qzfi_hash_entry {
    char *key;                    /**< owned */
    uint64_t key_length;          /**< as given at insertion */
    char *value;                  /**< owned, or null */
    uint64_t value_length;        /**< as given at insertion */
    struct qzfi_hash_entry *next; /**< the next entry of the bucket */
} qzfi_hash_entry;

/** A hash table. */
typedef struct qzfi_hash_table {
    uint32_t count;            /**< number of buckets */
    qzfi_hash_entry **buckets; /**< their first entries */
} qzfi_hash_table;

/** The bucket of a key, or `UINT32_MAX` for a null or empty key or no buckets. */
QZFI_API uint32_t qzfi_hash(const char *key, uint64_t length, uint32_t buckets);

/** Makes an empty table. @return 0; 3 null `out` or count 0; 5 out of memory. Ended by `qzfi_deinit_hash_table`. */
QZFI_API uint32_t qzfi_init_hash_table(qzfi_hash_table **out, uint32_t count);

/**
 * Enters a copy of key and value (both end at their first NUL byte, if any); an earlier entry of the key is shadowed.
 * A key with a NUL byte lies in the bucket of its text padded with NUL bytes to `key_length`.
 * @param value may be null
 * @return 0; 3 null table or key or length 0; 5 out of memory
 */
QZFI_API uint32_t qzfi_insert_hash(qzfi_hash_table *table, const char *key, uint64_t key_length, const char *value,
                                   uint64_t value_length);

/**
 * Finds the latest entry of a key, all of whose `key_length` bytes are read.
 * @param value receives the table's own text, valid until the entry is deleted
 * @return 0; 3 a null pointer or length 0; 16 no such key (nothing is stored)
 */
QZFI_API uint32_t qzfi_find_hash(qzfi_hash_table *table, const char *key, uint64_t key_length, char **value,
                                 uint64_t *value_length);

/**
 * Takes the latest entry of a key out and uncovers an earlier one. Frees the entry but not its key and value: whoever
 * needs their memory back keeps both pointers before and frees them.
 * @return 0; 3 null table or key or length 0; 16 no such key
 */
QZFI_API uint32_t qzfi_delete_hash(qzfi_hash_table *table, const char *key, uint64_t key_length);

/**
 * Frees a table with the entries of its first `count` buckets.
 * @param count the number of buckets to empty, as the caller says it: 0 frees no entry, more than there are all
 * @return 0; 3 null table
 */
QZFI_API uint32_t qzfi_deinit_hash_table(qzfi_hash_table *table, uint32_t count);

QZFI_END_DECLS

#endif
