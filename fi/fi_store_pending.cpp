// Images of a set whose maker was killed between its commits.
#include "fi/fi_store_folders.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fi/fi_fiid.h"

namespace qzfi::fi {

std::string store_identity(int directory) {
    struct statx status {};
    if (statx(directory, "", AT_EMPTY_PATH, STATX_INO | STATX_BTIME, &status) != 0)
        return {};
    std::string identity = std::to_string(status.stx_ino);
    if ((status.stx_mask & STATX_BTIME) != 0)
        identity += "." + std::to_string(status.stx_btime.tv_sec) + "." + std::to_string(status.stx_btime.tv_nsec);
    return identity;
}

// Each as "IDENTITY PATH" and a zero byte, for paths hold any other.
void write_stores(int image, const std::vector<std::shared_ptr<Store>> &stores, const std::string &path,
                  const char *operation) {
    std::string content;
    for (const std::shared_ptr<Store> &store : stores)
        content += store->state().identity + " " + store->path() + '\0';
    const Descriptor file(openat(image, lock_name, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file)
        fail_call(operation, "open", path, errno, false);
    write_to(file.get(), content, path, operation);
}

std::map<std::string, std::string> read_stores(int image, const std::string &path, const char *operation) {
    constexpr std::size_t longest = std::size_t{16} << 20;
    const Descriptor file(openat(image, lock_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file)
        fail_call(operation, "open", path, errno, true);
    const std::string content = read_file(file.get(), path, longest, operation);
    std::map<std::string, std::string> stores;
    for (std::size_t start = 0, end; (end = content.find('\0', start)) != std::string::npos; start = end + 1) {
        const std::string line = content.substr(start, end - start);
        if (const std::size_t blank = line.find(' '); blank != std::string::npos)
            stores[line.substr(blank + 1)] = line.substr(0, blank);
    }
    return stores;
}

std::string read_document(int image, const std::string &path, const char *operation) {
    constexpr std::size_t longest = std::size_t{64} << 20;
    const Descriptor file(openat(image, "fiid.xml", O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file)
        fail_call(operation, "open", path, errno, true);
    return read_file(file.get(), path, longest, operation);
}

namespace {

enum class Fate { whole, incomplete, unknown };

// Another store of a set, as it is at this moment: nothing there is locked, or removed in turn. One that only has the
// path of the set's, as when another disk is mounted there, says nothing.
Descriptor open_sisters(const std::string &store, const std::map<std::string, std::string> &identities,
                        const char *operation) {
    Descriptor directory(open(store.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!directory)
        fail_call(operation, "open", store, errno, true);
    const auto known = identities.find(store);
    if (known != identities.end() && known->second != store_identity(directory.get()))
        fail(message::store_unusable, QFI_FI_STORE, operation, {store, "it is another one than that of the set"});
    return directory;
}

struct Sisters {
    Fiid set;
    std::map<std::string, std::string> identities; // of the stores
};

Sisters sisters_of(const Store::State &store, const Claim &claim, const char *operation) {
    const std::string path = store.path + "/images/" + claim.name + "/fiid.xml";
    return {read_fiid(read_document(claim.directory.get(), path, operation), operation),
            read_stores(claim.directory.get(), path, operation)};
}

bool is_whole(const Store::State &store, const Sisters &sisters, const char *operation) {
    for (const FiidImage &image : sisters.set.images) {
        if (image.store == store.path) {
            if (!store.catalog->has(image.record.id, operation))
                return false;
            continue;
        }
        const Descriptor directory = open_sisters(image.store, sisters.identities, operation);
        if (!Catalog(directory.get(), image.store, false, false, operation).has(image.record.id, operation))
            return false;
    }
    return true;
}

void note_whole(const FiidImage &image, const Sisters &sisters, const char *operation) {
    const Descriptor directory = open_sisters(image.store, sisters.identities, operation);
    struct stat status {};
    if (fstat(directory.get(), &status) != 0 || is_others(status, directory.get()))
        fail(message::no_right, QFI_FI_NO_RIGHT, operation, {"write to store", image.store});
    Catalog catalog(directory.get(), image.store, true, false, operation);
    catalog.note_whole(image.record.id, operation);
}

// Before one of them can be seen, and so removed, after which the rest would look incomplete. One that is not there any
// more was seen.
void note_whole(const Store::State &store, const Sisters &sisters, const char *operation) {
    for (const FiidImage &image : sisters.set.images)
        if (image.store == store.path)
            store.catalog->note_whole(image.record.id, operation);
        else
            note_whole(image, sisters, operation);
}

// A store that cannot be looked into or written to, such as one that is not mounted, leaves the fate open.
Fate fate_of(const Store::State &store, const Claim &claim, const std::string &id, const char *operation) {
    try {
        const Hush hush;
        const Sisters sisters = sisters_of(store, claim, operation);
        if (!store.catalog->is_whole(id, operation) && !is_whole(store, sisters, operation))
            return Fate::incomplete;
        note_whole(store, sisters, operation);
        return Fate::whole;
    } catch (const Failure &failure) {
        if (failure.status == QFI_STATUS_NO_MEMORY)
            throw;
        return Fate::unknown;
    }
}

// The maker holds the lock until its set is settled.
std::optional<Claim> claim_pending(const Store::State &store, const std::string &id, const char *operation) {
    const FileLock lock = lock_store(store, operation);
    std::optional<Claim> claim;
    const Claimed claimed = claim_folder(store, id, claim, operation);
    const std::vector<std::string> pending = store.catalog->pending(operation);
    const bool is_pending = std::find(pending.begin(), pending.end(), id) != pending.end();
    if (claimed == Claimed::missing && is_pending)
        store.catalog->erase(id, operation);
    return is_pending ? std::move(claim) : std::nullopt;
}

void end_one(const Store::State &store, Claim claim, const std::string &id, const RemoveTree &remove_tree,
             EndedPending &ended, const char *operation) {
    switch (fate_of(store, claim, id, operation)) {
    case Fate::whole:
        return store.catalog->settle(id, operation);
    case Fate::unknown:
        return ended.waiting.push_back(id);
    case Fate::incomplete:
        // Somebody else may have found it whole, settled it, and removed what was missing here.
        if (!erase_record(
                store, claim, [&] { return store.catalog->erase_incomplete(id, operation); }, operation))
            return;
        remove_folder(store, std::move(claim), id, remove_tree, operation);
        ++ended.removed;
    }
}

} // namespace

EndedPending end_pending(const Store::State &store, const RemoveTree &remove_tree, const char *operation) {
    EndedPending ended;
    for (const std::string &id : store.catalog->pending(operation)) {
        try {
            if (std::optional<Claim> claim = claim_pending(store, id, operation))
                end_one(store, std::move(*claim), id, remove_tree, ended, operation);
        } catch (const Failure &) {
            ended.failure = std::current_exception();
        }
    }
    return ended;
}

} // namespace qzfi::fi
