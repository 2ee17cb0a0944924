// The lists under many threads, and in a child forked from a process with many threads.
#include "lists.h"

#include <atomic>
#include <cstdio>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "err/qzfierrhandling.h"
#include "support/fault.h"

using namespace lists;

namespace {

class ErrorThreads : public Fixture {};
class ForkedChild : public Fixture {};

/// Returns once a thread of this process waits in the kernel for the mutex.
void await_waiter(pid_t thread, const pthread_mutex_t &mutex) {
    const std::string path = "/proc/self/task/" + std::to_string(thread) + "/syscall";
    for (;;) {
        FILE *const stream = std::fopen(path.c_str(), "r");
        ASSERT_NE(stream, nullptr);
        long number = -1;
        unsigned long word = 0;
        const int fields = std::fscanf(stream, "%ld %lx", &number, &word);
        std::fclose(stream);
        if (fields == 2 && number == SYS_futex && word == reinterpret_cast<unsigned long>(&mutex))
            return;
        std::this_thread::yield();
    }
}

/// Deletes the errors of a worker while it raises one more: the worker has found its node, but waits for err_mutex.
template <class Raise>
void delete_the_node_between_search_and_lock(Worker &worker, Raise raise) {
    Plugin::publish();
    static int datum;
    pid_t thread = 0;
    worker.run([&] {
        thread = gettid();
        raise_error("old", nullptr, Plugin::reference, &datum);
    });
    Plugin::during_release = [&] {
        worker.start(raise);
        await_waiter(thread, err_mutex);
    };
    EXPECT_EQ(fi_del_all_errors(), 0u);
    worker.wait();
    EXPECT_EQ(Plugin::error_releases, 1);
}

TEST_F(ErrorThreads, a_node_deleted_between_search_and_lock_is_made_anew) {
    Worker worker;
    uint32_t status = 99;
    delete_the_node_between_search_and_lock(worker, [&] { status = raise_error("new"); });
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(nodes_of(err_info_list).size(), 1u);
    EXPECT_EQ(ids_of(err_info_list), (std::vector<std::string>{"new"}));
    EXPECT_EQ(pthread_equal(err_info_list->thread, pthread_self()), 0);
}

TEST_F(ErrorThreads, a_node_deleted_between_search_and_lock_that_cannot_be_made_anew_drops_the_record) {
    Worker worker;
    uint32_t status = 99;
    delete_the_node_between_search_and_lock(worker, [&] {
        fault::Armed armed(fault::Call::allocation, 2); // the record, then the node
        status = fi_create_error_info("new", 0, nullptr, nullptr, nullptr, 0);
    });
    EXPECT_EQ(status, QFI_STATUS_NULL_RESULT);
    EXPECT_EQ(err_info_list, nullptr);
    EXPECT_FALSE(is_locked(err_mutex));
}

TEST_F(ErrorThreads, every_error_raised_by_many_threads_is_in_its_threads_node) {
    constexpr int thread_count = 4, rounds = 500;
    std::vector<std::unique_ptr<Worker>> workers;
    for (int index = 0; index < thread_count; ++index)
        workers.push_back(std::make_unique<Worker>());
    for (auto &worker : workers)
        worker->start([] {
            for (int round = 0; round < rounds; ++round) {
                EXPECT_EQ(raise_error(std::to_string(round).c_str()), 0u);
                qfi_error_info *out = nullptr;
                EXPECT_EQ(does_last_error_exist(&out), 1u);
                EXPECT_EQ(out->message_id, std::to_string(round));
                EXPECT_EQ(does_last_error_exist(&out), 0u);
            }
        });
    for (auto &worker : workers)
        worker->wait();
    const std::vector<qfi_error_thread *> nodes = nodes_of(err_info_list);
    ASSERT_EQ(nodes.size(), static_cast<std::size_t>(thread_count));
    for (const qfi_error_thread *node : nodes) {
        const std::vector<std::string> ids = ids_of(node);
        ASSERT_EQ(ids.size(), static_cast<std::size_t>(rounds));
        for (int round = 0; round < rounds; ++round)
            EXPECT_EQ(ids[static_cast<std::size_t>(round)], std::to_string(round));
    }
}

TEST_F(ErrorThreads, lists_stay_whole_while_threads_raise_fetch_and_delete) {
    constexpr int rounds = 400;
    static qfi_error_store *store;
    store = nullptr;
    std::atomic<int> handed_out{0};
    const auto raiser = [&](const char *session) {
        for (int round = 0; round < rounds; ++round) {
            EXPECT_EQ(raise_error("A", session), 0u);
            qfi_error_info *out = nullptr;
            handed_out += static_cast<int>(does_last_error_exist(&out));
            EXPECT_EQ(does_last_error_exist(&out), 0u);
            enter_message(session);
        }
    };
    const auto storer = [] {
        for (uint64_t round = 0; round < rounds; ++round) {
            EXPECT_EQ(qzfi_store_err(&store, round, "m", round % 3), 0u);
            uint64_t value = 0;
            EXPECT_LE(qzfi_get_last_err(store, round % 3, &value), 1u);
        }
    };
    const auto deleter = [&] {
        for (int round = 0; round < rounds; ++round) {
            fi_del_session_errors("s");
            fi_del_session_err_msgs("t");
            if (round % 8 == 0) {
                fi_del_all_errors();
                fi_del_all_err_msgs();
            }
            void **handle = nullptr; // a record without a handle
            if (fi_del_error(&handle) == 1)
                pthread_mutex_unlock(&err_mutex);
        }
    };
    {
        std::thread threads[] = {std::thread(raiser, "s"), std::thread(raiser, "t"), std::thread(raiser, nullptr),
                                 std::thread(deleter),     std::thread(deleter),     std::thread(storer),
                                 std::thread(storer)};
        for (std::thread &thread : threads)
            thread.join();
    }
    EXPECT_LE(handed_out, 3 * rounds);
    for (const qfi_error_thread *node : nodes_of(err_info_list))
        EXPECT_FALSE(ids_of(node).empty());
    EXPECT_LE(nodes_of(msg_info_list).size(), 3u * rounds);
    EXPECT_EQ(nodes_of(err_mod_list), std::vector<qfi_error_store *>{store});
    std::size_t stored = 0;
    for (const qfi_error_key *key : nodes_of(store->keys))
        stored += nodes_of(key->values).size();
    EXPECT_EQ(stored, 2u * rounds);
}

// Every thread finds the handle null and waits for hl_err_mutex with a store of its own; one of them wins.
TEST_F(ErrorThreads, first_values_of_one_handle_make_one_store) {
    qfi_error_store *store = nullptr;
    Worker workers[3];
    pthread_mutex_lock(&hl_err_mutex);
    for (Worker &worker : workers) {
        pid_t thread = 0;
        worker.run([&] { thread = gettid(); });
        worker.start([&store] { EXPECT_EQ(qzfi_store_err(&store, 5, "m", 1), 0u); });
        await_waiter(thread, hl_err_mutex);
    }
    pthread_mutex_unlock(&hl_err_mutex);
    for (Worker &worker : workers)
        worker.wait();
    EXPECT_EQ(nodes_of(err_mod_list), std::vector<qfi_error_store *>{store});
    std::vector<uint64_t> values;
    for (const qfi_error_value *item : nodes_of(store->keys->values))
        values.push_back(item->value);
    EXPECT_EQ(values, (std::vector<uint64_t>{5, 5, 5}));
}

/// What a child does after the reset; 0 when all went well, else the number of the step that failed.
int use_lists_in_child() {
    if (err_info_list != nullptr || msg_info_list != nullptr || err_mod_list != nullptr)
        return 1;
    qfi_error_info *out = nullptr;
    if (does_last_error_exist(&out) != 0)
        return 2;
    if (raise_error("child") != 0)
        return 3;
    if (does_last_error_exist(&out) != 1 || std::strcmp(out->message_id, "child") != 0)
        return 4;
    enter_message("s");
    if (fi_del_session_err_msgs("s") != 0 || msg_info_list != nullptr)
        return 5;
    if (fi_del_all_errors() != 0 || err_info_list != nullptr)
        return 6;
    qfi_error_store *store = nullptr;
    uint64_t value = 0;
    if (qzfi_store_err(&store, 5, "m", 1) != 0 || qzfi_get_last_err(store, 1, &value) != 1 || value != 5)
        return 7;
    fi_del_all_err_lists();
    return err_mod_list == nullptr ? 0 : 8;
}

/// The exit code of a child that resets the lists and uses them, -1 when it died.
int run_child() {
    const pid_t child = fork();
    if (child == 0) {
        alarm(60); // a lock that stayed held must not hang the test
        qzfi::reset_error_locks_after_fork();
        _exit(use_lists_in_child());
    }
    int state = 0;
    EXPECT_EQ(waitpid(child, &state, 0), child);
    return WIFEXITED(state) ? WEXITSTATUS(state) : -1;
}

TEST_F(ForkedChild, has_its_own_lists_and_free_locks_whatever_other_threads_held) {
    Worker holder;
    raise_error("parent");
    enter_message();
    qfi_error_store *store = nullptr;
    qzfi_store_err(&store, 5, "m", 1);
    holder.run([&] {
        pthread_mutex_lock(&err_mutex);
        pthread_mutex_lock(&hl_err_mutex);
        pthread_mutex_lock(&store->mutex);
    });
    EXPECT_EQ(run_child(), 0);
    holder.run([&] {
        pthread_mutex_unlock(&store->mutex);
        pthread_mutex_unlock(&hl_err_mutex);
        pthread_mutex_unlock(&err_mutex);
    });
    EXPECT_EQ(ids_of(err_info_list), (std::vector<std::string>{"parent"})); // the parent's are untouched
    EXPECT_EQ(nodes_of(msg_info_list).size(), 1u);
    EXPECT_EQ(err_mod_list, store);
}

TEST_F(ForkedChild, works_when_forked_amid_searches_and_changes) {
    std::atomic<bool> is_done{false};
    Worker busy[2];
    for (Worker &worker : busy)
        worker.start([&] {
            while (!is_done) {
                raise_error("A");
                qfi_error_info *out = nullptr;
                for (int look = 0; look < 20; ++look)
                    does_last_error_exist(&out);
                fi_del_all_errors();
            }
        });
    for (int round = 0; round < 100 && !HasFailure(); ++round)
        EXPECT_EQ(run_child(), 0);
    is_done = true;
    for (Worker &worker : busy)
        worker.wait();
}

} // namespace
