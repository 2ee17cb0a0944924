// What a host is told of a freeze in advance: how much there is to do, where that is known.
#include <dlfcn.h>
#include <filesystem>
#include <mutex>

#include <qzfi_provider.h>

#include "host.h"

namespace {

class Totals : public Host {
protected:
    struct Watcher : qfi_progress_handler {
        Watcher() : qfi_progress_handler{} {
            size = sizeof(qfi_progress_handler);
            progress = [](qfi_progress_handler *self, const qfi_progress *told) {
                auto *const me = static_cast<Watcher *>(self);
                const std::lock_guard lock(me->mutex);
                me->last = *told;
                return 0;
            };
        }
        std::mutex mutex;
        qfi_progress last{};
    };

    void SetUp() override {
        Host::SetUp();
        stop();
        handler_.reserved1 = &watcher_;
        start();
    }
    void TearDown() override {
        Host::TearDown();
        handler_.reserved1 = nullptr;
    }
    /// Freezes into a store of the test's; what the host was told at the end.
    qfi_progress frozen(const std::vector<std::string> &objects, const char *method, bool digest = false) {
        qfi_domain *const tree = tree_of(objects);
        auto options = sized_record<qfi_freeze_options>();
        const std::string store = path("store");
        options.fim_id = method;
        options.store = store.c_str();
        options.digest = digest;
        EXPECT_EQ(qfi_op_make(tree, &options, nullptr), 0) << last_error();
        EXPECT_EQ(qfi_op_detach(tree, nullptr, 0, nullptr), 0);
        return watcher_.last;
    }

    void load_earlier_provider() {
        stop();
        std::filesystem::create_directories(path("plugins"));
        std::filesystem::create_symlink(EARLIER_PLUGIN, path("plugins/qzfi_provider_earlier.so"));
        setenv("QFI_DIR", (path("plugins") + "/").c_str(), 1);
        start();
    }

    Watcher watcher_;
};

TEST_F(Totals, of_one_object_are_what_is_done_in_the_end) {
    const qfi_progress end = frozen({make_object("one")}, "copy");
    EXPECT_EQ(end.entries_total, 5u) << "the object, a folder, two files and a link";
    EXPECT_EQ(end.entries_done, end.entries_total);
    EXPECT_EQ(end.bytes_total, std::string("content of one").size() + std::string("inner").size());
    EXPECT_EQ(end.bytes_done, end.bytes_total);
}

TEST_F(Totals, of_several_objects_add_up) {
    const qfi_progress end = frozen({make_object("one"), make_object("two")}, "copy", true);
    EXPECT_EQ(end.entries_total, 10u);
    EXPECT_EQ(end.entries_done, end.entries_total);
    EXPECT_GT(end.bytes_total, 0u);
    EXPECT_EQ(end.bytes_done, end.bytes_total);
}

TEST_F(Totals, bytes_that_are_not_known_of_every_object_are_not_told) {
    std::filesystem::create_directory(path("empty")); // no bytes: as good as not known
    const qfi_progress end = frozen({make_object("one"), path("empty")}, "copy");
    EXPECT_EQ(end.entries_total, 6u);
    EXPECT_EQ(end.bytes_total, 0u);
    EXPECT_GT(end.bytes_done, 0u);
}

TEST_F(Totals, a_provider_of_an_earlier_kit_works_and_leaves_them_unknown) {
    load_earlier_provider();
    const qfi_progress end = frozen({make_object("one"), make_object("two")}, "earlier");
    EXPECT_EQ(end.entries_done, 2u);
    EXPECT_EQ(end.entries_total, 0u);
    EXPECT_EQ(end.bytes_total, 0u);
    EXPECT_EQ(names_in(path("store") + "/images").size(), 1u);
}

// A machine's file systems may hold millions of files, or be far away: to list them, none is counted.
TEST_F(Totals, are_not_asked_for_to_list_file_systems) {
    load_earlier_provider();
    qfi_node_list *nodes = nullptr;
    EXPECT_EQ(qfi_op_enumerate_nodes(nullptr, nullptr, 0, &nodes), 0) << last_error();
    EXPECT_NE(nodes, nullptr);
    qfi_op_free_node_list(nodes);
    void *const plugin = dlopen(path("plugins/qzfi_provider_earlier.so").c_str(), RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(plugin, nullptr) << "it is loaded by now";
    const auto probed_with = reinterpret_cast<uint32_t (*)()>(dlsym(plugin, "earlier_probed_with"));
    ASSERT_NE(probed_with, nullptr) << dlerror();
    EXPECT_EQ(probed_with(), uint32_t{QFI_JOB_GLANCE});
    frozen({make_object("one")}, "earlier");
    EXPECT_EQ(probed_with() & QFI_JOB_GLANCE, 0u);
    dlclose(plugin);
}

} // namespace
