// The run that copies a tree, into a new directory or over an existing one.
#pragma once

#include <unordered_map>

#include "providers/engine/engine_attributes.h"
#include "providers/engine/engine_data.h"
#include "providers/engine/engine_links.h"

namespace qzfi::engine {

/// An open pair of files on the way from the source to the target.
struct FileCopy {
    Descriptor from, to;
    Stat stat{};
    uint32_t flags = 0;
    bool with_extended = false;
    bool is_claimed = false;  // in the run's links
    bool is_existing = false; // update: a name that is replaced by renaming
    Known known{};
    Directory *directory = nullptr;
    char name[256];
    char made_as[256];
    uint8_t digest[16];
    bool has_digest = false;
};

/// A large file that several threads copy.
struct SharedCopy {
    FileCopy file;
    std::atomic<uint32_t> references{1};
    std::atomic<uint32_t> left{0};
    std::atomic<bool> is_torn{false}, is_failed{false};
};
struct FileRange {
    SharedCopy *copy;
    uint64_t start, end;
};

inline constexpr char put_there_meanwhile[] = "another entry came there meanwhile, or differs in case only: it is kept";
/// Whether an open link, FIFO or device node is what the source has.
bool is_same_special(int descriptor, const Stat &present, const Stat &wanted, const char *link_target);

class Copier : public Run {
public:
    Copier(const Options &options, const qfi_provider_host &host, bool updates);
    ~Copier() override;
    void run(int source, int target, const char *name);

protected:
    void entry(Worker &worker, Directory &directory, const char *name, uint8_t type, uint64_t inode) override;
    bool enter(Worker &worker, Directory &parent, Directory &child) override;
    void leave(Worker &worker, Directory &directory) override;
    void end_entries(Worker &worker) override;
    void copy_range(Worker &worker, FileRange *range) override;
    void drop_range(FileRange *range) noexcept override;

    /// Called of a directory of the target that was there.
    virtual void remove_extra(Worker &worker, Directory &directory);
    virtual bool claim_target(const Stat &target, const Stat &source, bool &was_ours);

private:
    enum class Outcome { done, other_type };

    bool lies_apart(Worker &worker, Directory *root, int target, const char *name);
    bool is_within(int directory, const Stat &outer) const;
    Directory *open_root(Worker &worker, int source, int target, const char *name);
    bool make_directory(Worker &worker, int parent, Directory *above, const char *name, Directory &child);

    Outcome file(Worker &worker, Directory &directory, const char *name);
    bool create(Worker &worker, FileCopy &copy);
    bool may_wait(const FileCopy &copy) const noexcept;
    Outcome copy_opened(Worker &worker, FileCopy &copy);
    bool share(Worker &worker, FileCopy &copy);
    void move(Worker &worker, FileCopy &copy, bool was_torn);
    bool take_data(Worker &worker, FileCopy &copy, bool was_torn);
    void finish(Worker &worker, FileCopy &copy);
    void give_up(Worker &worker, FileCopy &copy);
    void settle(Worker &worker, FileCopy &copy, bool is_made, uint64_t target_inode);
    void resume(Worker &worker, Links::Waiting *waiting, uint8_t type);
    void end_shared(Worker &worker, SharedCopy &shared);
    bool moved_well(Worker &worker, FileCopy &copy, const Moved &moved);

    bool link_listed(Worker &worker, Directory &directory, const char *name, uint64_t inode);
    bool link(Worker &worker, Directory &directory, const char *name, const Stat &stat, const Links::Linked &to);
    Outcome special(Worker &worker, Directory &directory, const char *name, uint16_t &mode);
    bool make_special(Worker &worker, Directory &directory, const char *name, const Stat &stat,
                      const char *link_target);
    bool make_special_in(Worker &worker, Directory &directory, int where, const char *name, const Stat &stat,
                         const char *link_target);
    bool make_special_apart(Worker &worker, Directory &directory, const char *name, const Stat &stat);
    bool put_new(Worker &worker, Directory &directory, int from, const char *name);
    void keep_late_flags();

    // Bringing up to date: engine_update.cpp
    bool is_file_up_to_date(Worker &worker, FileCopy &copy, bool &is_done);
    bool may_be_mended(const Stat &present, const Stat &source) const noexcept;
    bool is_special_up_to_date(Worker &worker, Directory &directory, const char *name, const Stat &stat,
                               const char *link_target, bool &is_done);
    bool open_existing(Worker &worker, int parent, Directory *above, const char *name, Directory &child,
                       bool &is_there);
    bool remove_target(Worker &worker, Directory &directory, const char *name);
    bool put_in_place(Worker &worker, Directory &directory, const char *made_as, const char *name);
    void temporary_name(char (&out)[256]);

    const bool updates_;
    Links links_;
    Means means_;
    Stat made_root_{};
    uint32_t made_uid_ = 0, made_gid_ = 0; // of what this process makes in the target
    uint32_t umask_ = 0;
    std::size_t most_waiting_;                   // files of a worker
    std::vector<std::vector<FileCopy>> waiting_; // by worker; all of one directory
    bool lists_inodes_ = false;                  // a listing's inodes are those of the files
    bool shares_files_ = true;                   // several threads write one file faster than one
    bool shares_blocks_ = false;                 // it may, and then the kernel copies a file at once
    bool takes_turns_ = false;                   // clones go faster one after the other
    std::atomic<bool> gives_owners_{true};       // until one cannot be given: no right, or none are kept there
    std::mutex turn_mutex_;

    struct LateFlags {
        Directory *directory; // referenced
        Bytes name;
        uint32_t flags;
    };
    std::mutex late_mutex_;
    std::vector<LateFlags> late_;

    struct TargetHash {
        std::size_t operator()(const std::pair<uint64_t, uint64_t> &key) const noexcept {
            return key.second * 0x9e3779b97f4a7c15 ^ key.first;
        }
    };
    std::mutex targets_mutex_;
    std::unordered_map<std::pair<uint64_t, uint64_t>, std::pair<uint64_t, uint64_t>, TargetHash> targets_;
    const uint64_t run_; // random: who else works in the tree may have this process's number elsewhere
    std::atomic<uint64_t> temporary_{0};
};

/// Whether a name is of those that an update gives to files before it puts them in place.
bool is_temporary_name(const char *name) noexcept;

} // namespace qzfi::engine
