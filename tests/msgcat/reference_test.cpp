// Counted references, and the process's one manager.
#include <atomic>
#include <memory>
#include <sys/wait.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "msgcat/qzfimsgcatalogmgr.h"

namespace {

using namespace qzfi_pdk_4_4;

/// Tells what happens to it: "+2" is an increment to 2, "-1" a decrement to 1, "~1" its destruction at count 1.
class Pointee : public CFiRefCount {
public:
    Pointee(std::string &story, std::string name) : story_(story), name_(std::move(name)) {}
    ~Pointee() override { tell('~', CFiRefCount::getCount()); }
    int32_t increment() override { return tell('+', CFiRefCount::increment()); }
    int32_t decrement() override { return tell('-', CFiRefCount::decrement()); }

private:
    int32_t tell(char event, int32_t count) {
        story_ += name_ + event + std::to_string(count) + " ";
        return count;
    }

    std::string &story_;
    std::string name_;
};

using Reference = CFiSmartPtr<Pointee, CFiNullAllocator<Pointee>>;

static_assert(sizeof(Reference) == sizeof(Pointee *));
static_assert(std::is_empty_v<CFiNullAllocator<Pointee>> &&
              std::is_empty_v<CFiContextSingletonAllocator<CFiMessageCatalogManager>>);
static_assert(std::is_base_of_v<CFiRefCount, CFiMessage> && std::is_base_of_v<CFiRefCount, CFiMessageCatalog>);

TEST(RefCount, counts_from_zero_and_each_change_gives_the_new_count) {
    CFiRefCount count;
    EXPECT_EQ(count.getCount(), 0);
    EXPECT_EQ(count.increment(), 1);
    EXPECT_EQ(count.increment(), 2);
    EXPECT_EQ(count.decrement(), 1);
    EXPECT_EQ(count.decrement(), 0);
    EXPECT_EQ(count.decrement(), -1);
    EXPECT_EQ(count.getCount(), -1);
}

TEST(SmartPtr, the_last_reference_destroys_the_object_while_its_count_is_one) {
    std::string story;
    {
        Reference first{new Pointee{story, ""}};
        EXPECT_EQ(story, "+1 ");
        {
            const Reference second{first};
            EXPECT_EQ(story, "+1 +2 ");
            EXPECT_EQ(second.get(), first.get());
        }
        EXPECT_EQ(story, "+1 +2 -1 ");
    }
    EXPECT_EQ(story, "+1 +2 -1 -0 +1 ~1 ");
}

TEST(SmartPtr, a_released_reference_is_empty_and_releases_nothing_more) {
    std::string story;
    Reference reference{new Pointee{story, ""}};
    reference.release();
    EXPECT_EQ(story, "+1 -0 +1 ~1 ");
    EXPECT_FALSE(reference);
    EXPECT_EQ(reference.get(), nullptr);
    reference.release();
    const Reference copy{reference};
    EXPECT_FALSE(copy);
    EXPECT_EQ(story, "+1 -0 +1 ~1 ");
}

TEST(SmartPtr, assigning_releases_the_old_object_and_takes_a_reference_to_the_new_one) {
    std::string story;
    Reference left{new Pointee{story, "a"}};
    const Reference right{new Pointee{story, "b"}};
    story.clear();
    left = right;
    // The new one is counted first, which only its count during the other's destruction shows.
    EXPECT_EQ(story, "b+2 a-0 a+1 a~1 ");
    EXPECT_EQ(left.get(), right.get());
    EXPECT_EQ(left->getCount(), 2);
}

TEST(SmartPtr, assigning_an_empty_reference_releases) {
    std::string story;
    Reference reference{new Pointee{story, ""}};
    reference = Reference{};
    EXPECT_EQ(story, "+1 -0 +1 ~1 ");
    EXPECT_FALSE(reference);
}

TEST(SmartPtr, assigning_a_reference_to_itself_keeps_the_object) {
    std::string story;
    Reference reference{new Pointee{story, ""}};
    const Reference &same = reference;
    reference = same;
    EXPECT_EQ(reference->getCount(), 1);
    EXPECT_EQ(story.find('~'), std::string::npos);
}

TEST(SmartPtr, assigning_another_reference_to_the_same_object_keeps_it_and_its_count) {
    std::string story;
    Reference left{new Pointee{story, ""}};
    const Reference right{left};
    left = right;
    EXPECT_EQ(left->getCount(), 2);
    EXPECT_EQ(story.find('~'), std::string::npos);
}

/// Owns a reference of its own kind.
struct Link : CFiRefCount {
    CFiSmartPtr<Link, CFiNullAllocator<Link>> next;
};

TEST(SmartPtr, assigning_a_reference_that_the_old_object_owns_keeps_the_new_one) {
    CFiSmartPtr<Link, CFiNullAllocator<Link>> head{new Link};
    head->next = CFiSmartPtr<Link, CFiNullAllocator<Link>>{new Link};
    Link *const second = head->next.get();
    head = head->next;
    EXPECT_EQ(head.get(), second);
    EXPECT_EQ(head->getCount(), 1);
}

/// An object whose lock can be refused: its mutex notices that its holder asks again.
class Lockable : public CFiRefCount {
public:
    Lockable() {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
        pthread_mutex_destroy(&mutex().lock());
        pthread_mutex_init(&mutex().lock(), &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
};

TEST(SmartPtr, a_lock_that_cannot_be_taken_leaves_the_count_alone) {
    const auto object = std::make_unique<Lockable>();
    using LockableReference = CFiSmartPtr<Lockable, CFiNullAllocator<Lockable>>;
    object->increment(); // ours, so that no reference is the last
    LockableReference counted{object.get()};
    EXPECT_EQ(object->getCount(), 2);
    ASSERT_EQ(object->mutex().acquire(), 0);
    LockableReference uncounted{object.get()};
    EXPECT_EQ(object->getCount(), 2);
    EXPECT_EQ(uncounted.get(), object.get());
    counted.release();
    uncounted.release();
    EXPECT_EQ(object->getCount(), 2);
    EXPECT_FALSE(counted);
    EXPECT_FALSE(uncounted);
    ASSERT_EQ(object->mutex().release(), 0);
}

TEST(SmartPtr, threads_that_copy_and_release_at_once_destroy_the_object_once) {
    struct Counted : CFiRefCount {
        explicit Counted(std::atomic<int> &counter) : destroyed(counter) {}
        ~Counted() override { ++destroyed; }
        std::atomic<int> &destroyed;
    };
    using CountedReference = CFiSmartPtr<Counted, CFiNullAllocator<Counted>>;
    std::atomic<int> destroyed{0};
    {
        CountedReference shared{new Counted{destroyed}};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([own = CountedReference{shared}]() mutable {
                for (int round = 0; round < 1000; ++round) {
                    CountedReference copy{own};
                    own = copy;
                }
            });
        shared.release();
        for (std::thread &thread : threads)
            thread.join();
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(Singleton, every_thread_gets_the_same_manager_and_a_reference_of_its_own) {
    std::vector<CFiMessageCatalogManagerSingleton::Reference> references(4);
    std::vector<std::thread> threads;
    for (auto &reference : references)
        threads.emplace_back([&reference] { reference = CFiMessageCatalogManagerSingleton::instance(true); });
    for (std::thread &thread : threads)
        thread.join();
    for (const auto &reference : references)
        EXPECT_EQ(reference.get(), references[0].get());
    const auto one_more = CFiMessageCatalogManagerSingleton::instance(false);
    EXPECT_EQ(one_more.get(), references[0].get());
    EXPECT_EQ(one_more->getCount(), 6); // these five and the one that is kept
}

TEST(Singleton, the_kept_reference_alone_remains_when_the_callers_are_released) {
    CFiMessageCatalogManager *const manager = CFiMessageCatalogManagerSingleton::instance().get();
    EXPECT_EQ(manager->getCount(), 1);
    EXPECT_EQ(CFiMessageCatalogManagerSingleton::instance()->getCount(), 2);
}

/// A catalog that tells of its end through a pipe.
class LastWords : public CFiMessageCatalog {
public:
    explicit LastWords(int pipe_end) : pipe_end_(pipe_end) {}
    ~LastWords() override {
        const char word = getCount() == 1 ? '1' : '?';
        if (write(pipe_end_, &word, 1) != 1)
            abort();
    }
    ACE_String_Base<char> getMessage(const std::string &, const char *) const override { return {}; }

private:
    int pipe_end_;
};

class LastWordsFactory : public CFiMessageCatalogFactory {
public:
    explicit LastWordsFactory(int pipe_end) : CFiMessageCatalogFactory("en", "fi"), pipe_end_(pipe_end) {}
    CFiMessageCatalogPtr allocateCatalog(const char *) override {
        return CFiMessageCatalogPtr{new LastWords{pipe_end_}};
    }
    CFiMessagePtr allocateMessage(qfi_msg_info *) override { return {}; }

private:
    int pipe_end_;
};

TEST(Singleton, process_exit_destroys_the_manager_with_its_catalogs) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        close(ends[0]);
        LastWordsFactory factory{ends[1]};
        CFiMessageCatalogManagerSingleton::instance()->registerFactory(&factory);
        exit(0); // NOLINT: leaves through the destructors of statics, not of `factory`
    }
    close(ends[1]);
    std::string words;
    char word = 0;
    while (read(ends[0], &word, 1) == 1)
        words += word;
    close(ends[0]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(words, "1");
    EXPECT_EQ(status, 0);
}

} // namespace
