// What the tests of the error and message lists share.
#pragma once

#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>

#include <gtest/gtest.h>

#include <qzfi/errors.h>
#include <qzfi/status.h>

namespace lists {

/// A thread that stays alive between its tasks, so that its id is no other thread's meanwhile.
class Worker {
public:
    Worker() : thread_([this] { serve(); }) {}
    ~Worker() {
        start([this] { is_done_ = true; });
        thread_.join();
    }
    Worker(const Worker &) = delete;
    Worker &operator=(const Worker &) = delete;

    /// Runs a task on the thread and waits for its end.
    void run(std::function<void()> task) {
        start(std::move(task));
        wait();
    }
    /// Runs a task on the thread once the one before has ended.
    void start(std::function<void()> task) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return !task_; });
        task_ = std::move(task);
        changed_.notify_all();
    }
    void wait() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return !task_; });
    }

private:
    void serve() {
        std::unique_lock lock(mutex_);
        while (!is_done_) {
            changed_.wait(lock, [this] { return static_cast<bool>(task_); });
            lock.unlock();
            task_();
            lock.lock();
            task_ = nullptr;
            changed_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::function<void()> task_;
    bool is_done_ = false;
    std::thread thread_; // last: it uses the others
};

/// True when another thread than the caller could not take the mutex now.
inline bool is_locked(pthread_mutex_t &mutex) {
    int result = 0;
    std::thread([&] {
        result = pthread_mutex_trylock(&mutex);
        if (result == 0)
            pthread_mutex_unlock(&mutex);
    }).join();
    return result == EBUSY;
}

/// The nodes of a circular list from the head on; every link is checked both ways.
template <class Node>
std::vector<Node *> nodes_of(Node *head) {
    std::vector<Node *> nodes;
    for (Node *node = head; node != nullptr && (nodes.empty() || node != head); node = node->next) {
        EXPECT_EQ(node->next->prev, node);
        EXPECT_EQ(node->prev->next, node);
        nodes.push_back(node);
    }
    return nodes;
}

/// The ids of a thread node's records, in list order.
inline std::vector<std::string> ids_of(const qfi_error_thread *node) {
    std::vector<std::string> ids;
    for (const qfi_error_info *record : nodes_of(node->errors))
        ids.emplace_back(record->message_id);
    return ids;
}

/// The calling thread's last record.
inline qfi_error_info *last_record() {
    for (qfi_error_thread *node : nodes_of(err_info_list))
        if (pthread_equal(node->thread, pthread_self()) != 0 && node->errors != nullptr)
            return node->errors->prev;
    return nullptr;
}

/// Raises an error with two arguments.
inline uint32_t raise_error(const char *id, const char *session = nullptr, uint64_t plugin_ref = 0,
                            void *plugin_data = nullptr) {
    return fi_create_error_info(id, plugin_ref, plugin_data, nullptr, session, 2, "first", "second");
}

/// Gives a record a handle, as the API implementation library does, and returns it.
inline void **give_handle(qfi_error_info *record) {
    record->handle = static_cast<void **>(std::malloc(sizeof(void *)));
    *record->handle = std::malloc(16);
    return record->handle;
}

/// Enters a message, as the API implementation library does.
inline qfi_msg_info *enter_message(const char *session = nullptr, uint64_t plugin_ref = 0, uint64_t plugin_data = 0) {
    auto *const record = static_cast<qfi_message_info *>(std::calloc(1, sizeof(qfi_message_info)));
    record->info = static_cast<qfi_msg_info *>(std::calloc(1, sizeof(qfi_msg_info)));
    record->info->serialized = "text";
    record->session = session;
    record->plugin_ref = plugin_ref;
    record->plugin_data = plugin_data;
    pthread_mutex_lock(&err_mutex);
    if (msg_info_list == nullptr)
        msg_info_list = record->next = record->prev = record;
    else {
        record->next = msg_info_list;
        record->prev = msg_info_list->prev;
        record->prev->next = msg_info_list->prev = record;
    }
    qfi_msg_info *const info = record->info;
    pthread_mutex_unlock(&err_mutex);
    return info;
}

/// One plugin, published under reference 77; counts the calls of its release operations.
struct Plugin {
    static constexpr uint64_t reference = 77;
    static inline int32_t result = 0;
    static inline int error_releases = 0, message_releases = 0;
    static inline void **error_field = nullptr;
    static inline uint64_t *message_field = nullptr;
    static inline std::function<void()> during_release;
    static inline qfi_plugin_ops operations{};
    static inline qfi_plugin descriptor{};

    static int32_t free_error(void **data) {
        ++error_releases;
        error_field = data;
        if (during_release)
            during_release();
        return result;
    }
    static int32_t free_message(uint64_t *data) {
        ++message_releases;
        message_field = data;
        if (during_release)
            during_release();
        return result;
    }
    static qfi_plugin *look_up(uint64_t asked) { return asked == reference ? &descriptor : nullptr; }

    static void publish() {
        result = 0;
        error_releases = message_releases = 0;
        error_field = nullptr;
        message_field = nullptr;
        during_release = nullptr;
        operations = {&operations, free_error, &operations, free_message};
        descriptor = {};
        descriptor.first = &operations;
        fi_get_pgn_f = look_up;
    }
};

/// Each entry breaks the way to the release operations in one place.
inline const std::function<void()> broken_plugins[] = {
    [] { Plugin::result = 9; },
    [] { Plugin::result = -1; },
    [] { Plugin::operations.free_error = nullptr, Plugin::operations.free_message = nullptr; },
    [] { Plugin::descriptor.first = nullptr; },
    [] { fi_get_pgn_f = [](uint64_t) -> qfi_plugin * { return nullptr; }; },
    [] { fi_get_pgn_f = nullptr; },
};

/// Leaves every list empty and expects every lock free.
class Fixture : public testing::Test {
protected:
    void TearDown() override {
        EXPECT_FALSE(is_locked(err_mutex));
        EXPECT_FALSE(is_locked(hl_err_mutex));
        fi_get_pgn_f = nullptr;
        fi_del_all_errors();
        fi_del_all_err_msgs();
        fi_del_all_err_lists();
        EXPECT_EQ(err_info_list, nullptr);
        EXPECT_EQ(msg_info_list, nullptr);
        EXPECT_EQ(err_mod_list, nullptr);
    }
};

} // namespace lists
