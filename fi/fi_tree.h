// Trees that hosts hold: the domain tree that they see, and what the library knows of it.
#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "fi/fi_fiid.h"
#include "fi/fi_library.h"
#include "fi/fi_mounts.h"
#include "fi/fi_providers.h"
#include "fi/fi_store.h"

namespace qzfi::fi {

struct TreeObject {
    std::string path; // canonical
    qfi_domain *node = nullptr;
    qfi_domain *image_node = nullptr; // null before build_alttree
    ImageObject image;                // filled in by the split, or from the catalog
    std::string restore_to;           // null path: its own place
};

/// One file system of a tree: what is frozen at one instant, as one image.
struct TreeFilesystem {
    Mount mount;
    std::string root; // its topmost directory: the mount point, or, of a nested subvolume, that one's
    qfi_domain *node = nullptr;
    std::vector<TreeObject> objects;
    const Provider *provider = nullptr; // once selected
    std::string store_path;             // once selected
    uint32_t consistency = 0;           // once prepared: what the provider promised,
    uint64_t foretold_entries = 0;      // and how much it will tell of; 0 when not known
    uint64_t foretold_bytes = 0;
    std::shared_ptr<Store> store;    // once prepared, or found
    std::unique_ptr<NewImage> image; // between prepare and the end of split
    ImageRecord record;              // once split, or found
    bool is_frozen = false;
};

/// Options as noted by config, prepare or make.
struct FreezeOptions {
    uint32_t workers = 2;
    std::string label, pre_command, post_command;
    bool digest = false;
    bool nested = false;
};

/// What running a command gave.
struct CommandResult {
    bool was_run = false;    // false: nobody knows whether it was run to its end; `output` says why
    int exit_code = -1;      // as the shell gives it: 128 and more for a signal
    std::string output = {}; // standard and error output, the last 200 bytes of them
    bool succeeded() const noexcept { return was_run && exit_code == 0; }
    /// "exit code 3", or "no exit code".
    std::string how() const;
};

class PostGuard;

/// A tree. Its nodes are in `nodes` and live as long as it; `mutex` is held by the operation that works on it.
struct Tree {
    Tree();
    ~Tree();

    std::mutex mutex;         // one operation at a time
    bool is_detached = false; // an operation that waited for the detaching one finds nothing any more
    const pid_t process;      // that made it: a fork's copy of it is nobody's to work on
    std::string name;         // for messages: its first object, and how many more; fixed once registered
    qfi_domain root{};
    std::deque<qfi_domain> nodes; // stable addresses, as those of the records that hang on nodes
    std::deque<qfi_resource> resources;
    std::deque<qfi_time_t> times;
    std::deque<std::string> texts; // given out until the tree is let go of
    std::vector<TreeFilesystem> filesystems;
    FreezeOptions options;
    int32_t state = QFI_TREE_NEW;          // a qfi_tree_state
    std::string set_id;                    // once prepared, or found
    std::unique_ptr<PostGuard> guard;      // while quiesced: makes sure that the post command runs
    bool has_fallen_back = false;          // a freeze failed: unquiesce has nothing left to do, but
    std::optional<CommandResult> post_run; // tells what became of the post command
    std::vector<JobHost::Remark> remarks;  // of the split
    uint64_t remark_count = 0;
    std::vector<JobHost::Remark> found_remarks; // when it was imported or listed; shown with the images' stored ones

    // Read by get_status without `mutex`.
    std::mutex status_mutex;
    qfi_operation_status status{};
    std::optional<Progress> running;
    uint64_t operation_number = 0;
};

/// A tree in the hands of an operation: found by the root node that the host gave, locked, its status kept. The node
/// may be any of the tree's. Throws Failure with status 3 for a pointer that is no live tree's of this process.
///
/// Who works on a tree already, or is called by somebody who may (HostCall), waits for no tree: QFI_FI_BUSY when it is
/// not free at once. So nobody waits for a tree while he holds up another one, but for TreePair.
class TreeLock {
public:
    enum class Purpose { work, look }; // get_status tells of work only
    TreeLock(const qfi_domain *node, const char *operation, Purpose purpose = Purpose::work);
    /// One that was found already; `may_wait` is `may_wait_for_trees`.
    TreeLock(std::shared_ptr<Tree> tree, const char *operation, Purpose purpose, bool may_wait);
    ~TreeLock();
    TreeLock(const TreeLock &) = delete;
    TreeLock &operator=(const TreeLock &) = delete;
    Tree *operator->() const noexcept { return tree_.get(); }
    Tree &operator*() const noexcept { return *tree_; }
    /// Throws unless the state is at least `lowest` and at most `highest` (QFI_FI_WRONG_STATE, with both named).
    void require_state(int32_t lowest, int32_t highest) const;
    /// Progress of the operation, shown by get_status too.
    Progress &progress();

private:
    std::shared_ptr<Tree> tree_;
    const char *operation_;
    Purpose purpose_;
    std::unique_lock<std::mutex> lock_;
    std::optional<Progress> progress_;
};

/// Two trees in the hands of one operation: one that it works on, one that it looks at. Everybody takes the same one
/// of two first, so that none waits for the other's second.
class TreePair {
public:
    /// `second` may be null, or of the same tree.
    TreePair(const qfi_domain *first, const qfi_domain *second, const char *operation);
    TreeLock &first() noexcept { return *first_; }
    /// Null when there is none, the first when it is the same.
    TreeLock *second() noexcept { return is_same_ ? &*first_ : second_ ? &*second_ : nullptr; }

private:
    std::optional<TreeLock> first_, second_;
    bool is_same_ = false;
};

/// Tells get_status how the work ended that this thread's last TreeLock did; entries do, when all is said.
void note_end(int32_t status) noexcept;
/// The status record of a tree, without waiting for the operation on it.
qfi_operation_status status_of_tree(const qfi_domain *node, const char *operation);
void set_caller_status(const qfi_domain *node, int32_t status, const char *operation);

/// "new", "analyzed", ... for messages.
const char *state_name(int32_t state) noexcept;
/// "prepared", or "prepared to split" for a range.
std::string state_range(int32_t lowest, int32_t highest);

/// The register of live trees, by each of their nodes.
qfi_domain *register_tree(std::shared_ptr<Tree> tree);
void unregister_tree(const qfi_domain *root) noexcept;
bool is_live(const qfi_domain *node);
/// Those of this process: what a fork copied is left alone, for its images in the making, its commands and its catalogs
/// are the other process's.
std::vector<std::shared_ptr<Tree>> live_trees();

/// Makes the nodes of a tree from its file systems and objects; with images, also the alternate nodes. A tree that is
/// registered is registered with its new nodes.
void build_nodes(Tree &tree);
void build_image_nodes(Tree &tree);

/// One image in a store.
struct FoundImage {
    std::shared_ptr<Store> store;
    ImageRecord record;
    /// Whether an id is its own or that of its set.
    bool is_named(std::string_view id) const { return record.id == id || record.set_id == id; }
    std::string object_path(std::size_t index) const;
};
/// The tree of images of one set, at least one, without another look into the stores.
std::shared_ptr<Tree> tree_of_records(std::vector<FoundImage> images);
/// The tree of a stored image, or of a set of which all images are found; null store searches the known ones. Throws
/// QFI_FI_NO_SUCH_IMAGE.
std::shared_ptr<Tree> tree_of_image(const std::string &id, const char *store, const char *operation);
/// The tree of the images that a document names: from `store`, else from the known stores, else from where the document
/// says. Throws QFI_FI_NO_SUCH_IMAGE.
std::shared_ptr<Tree> tree_of_document(const Fiid &fiid, const char *store, const char *operation);

/// The path under which an object's image can be read.
std::string image_object_path(const TreeFilesystem &filesystem, std::size_t object);

/// Where a node of a tree belongs: null for the root; `object` is -1 for a file system.
struct NodePlace {
    TreeFilesystem *filesystem = nullptr;
    int object = -1;
    bool is_image = false;
};
NodePlace place_of(Tree &tree, const qfi_domain *node) noexcept;

/// A new tree of objects (`gentree`), not registered yet.
std::shared_ptr<Tree> tree_of_objects(const qfi_object *objects, int32_t count, const char *operation);
/// Opens an object's directory, following no link.
Descriptor open_object(const TreeObject &object, const char *operation);

/// The store that a method uses for a file system when none is named.
std::string default_store(const TreeFilesystem &filesystem, const Provider &provider);

/// One combination, with what the provider said of each object put together.
struct Estimate {
    const Provider *provider;
    std::string store;
    int32_t combo_class;
    uint32_t consistency;
    uint64_t cost_bytes, cost_ms;
    std::string reason;              // empty when it can
    bool same_instant;               // of all objects
    uint64_t entries = 0, bytes = 0; // that the split will tell of; 0 when not known of each object
    bool can() const noexcept { return reason.empty(); }
};
Estimate estimate(const Tree &tree, const TreeFilesystem &filesystem, const Provider &provider, const char *store,
                  const char *operation);
/// All for one file system: the best first, those that cannot last.
std::vector<Estimate> estimates(const Tree &tree, const TreeFilesystem &filesystem, const char *store,
                                const char *operation);
/// Why none of them can, and why providers were refused that might.
std::string reasons_of(const std::vector<Estimate> &all);
/// What `set_fim_name` noted; empty for none.
std::string preferred_method();
void prefer_method(const char *fim_id);

/// The steps of a freeze, each called with the tree locked by its operation; `make` calls them in a row. A step that
/// fails leaves nothing behind: after a failed quiesce or split the images in the making are gone, the post command was
/// run, and the tree is to be prepared again.
void select_best(Tree &tree, const char *fim_id, const char *store, const char *operation);
/// The best for those file systems for which none was chosen.
void select_missing(Tree &tree, const char *operation);
void select(Tree &tree, TreeFilesystem &filesystem, const Provider &provider, const char *store, const char *operation);
/// The tree is selected once each of its file systems is.
void note_selected(Tree &tree) noexcept;
void note_options(Tree &tree, const qfi_freeze_options *options, const char *operation);
void prepare(Tree &tree, const char *operation);
void quiesce(Tree &tree, const char *operation);
void split(Tree &tree, Progress &progress, const char *operation);
void unquiesce(Tree &tree, const char *operation);
std::string fiid_document(const Tree &tree, const char *operation);
/// Undoes what prepare, quiesce and a failed split left: the half-made images go, the post command runs. Gives the end
/// of a command that failed, for the caller to tell; it is the tree's.
const CommandResult *abandon(Tree &tree, const char *operation) noexcept;
/// Raises and throws that the post command failed.
[[noreturn]] void fail_post_command(const Tree &tree, const char *operation, const CommandResult &failed);
/// Tells it to the host only, if it failed (not null): another failure stays the last error.
void tell_failed_post_command(const Tree &tree, const char *operation, const CommandResult *failed) noexcept;
/// Removes the images of a frozen tree from their stores: none while one of them cannot go.
void remove_images(Tree &tree, const char *operation);
/// Removes one image, claimed by the caller, through its provider.
void remove_image(Store &store, std::optional<Claim> claim, const ImageRecord &record, const char *operation);

/// Runs a command through the context process.
CommandResult run_command(const std::string &command);
/// Gives the context process back; at shutdown.
void close_context() noexcept;

/// Runs the post command: when told to, or, if this process ends before, by itself. A shell waits for it in a session
/// of its own, for a word or the end of a FIFO that this process holds open, so that the command is run once in either
/// case.
class PostGuard {
public:
    /// Throws Failure when it cannot be made sure.
    PostGuard(const std::string &command, const char *operation);
    ~PostGuard(); ///< a command that was not run yet is run, without anybody waiting for it
    PostGuard(const PostGuard &) = delete;
    PostGuard &operator=(const PostGuard &) = delete;
    /// Runs the command and waits for its end.
    CommandResult run();
    const std::string &command() const noexcept;
    /// The lock under which the pre command runs: the post command waits for it.
    std::string lock() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// A copy from malloc, for what is given out.
char *give_text(std::string_view text);
/// An instant as the framework counts it, of nanoseconds since 1 January 1970.
qfi_time_t time_of(int64_t time_ns) noexcept;
/// The interned object id of a text, its terminator included, so that it prints.
qfi_objid_t *text_id(const std::string &text);

} // namespace qzfi::fi
