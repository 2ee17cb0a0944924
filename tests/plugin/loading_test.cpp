// Loading plugins one after another, with real libraries.
#include <algorithm>
#include <cstddef>
#include <set>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "plugin_fixture.h"

namespace {

using Start = uint32_t (*)(qfi_plugin *);

class PluginLoading : public Plugins {
protected:
    ~PluginLoading() override {
        for (qfi_plugin *each = list; each != nullptr; each = each->libpriv->next)
            if (each->fifth != nullptr)
                qzfi_dlclose(each->fifth);
    }

    void install(const std::string &mock, const std::string &file) const {
        fs::copy_file(MOCK_DIRECTORY "/mock_plugin_" + mock + ".so", directory + file);
    }

    /// An initialisation routine as the API implementation library has it; a refused library is closed again.
    static uint32_t start(qfi_plugin *plugin) {
        note(plugin);
        void *const handle = qzfi_dlopen_pgn(plugin->library_path);
        if (handle == nullptr)
            return 1;
        const auto entry = reinterpret_cast<Start>(qzfi_dlsym(handle, "mock_plugin_start"));
        const uint32_t status = entry != nullptr ? entry(plugin) : 1;
        if (status == 0 || status == 29 || status == 30)
            plugin->fifth = handle;
        else
            qzfi_dlclose(handle);
        return status;
    }

    static void expect_not_initialized(const std::string &file) {
        expect_raised("MSG_QFI_UTIL_E0049", 2, "%s: couldn't initialize %s\n",
                      "qzfi_newpgn: couldn't initialize " + file + "\n", {"qzfi_newpgn"});
    }

    static void expect_not_readable(const std::string &file) {
        expect_raised("MSG_QFI_UTIL_E0045", 2, "%s: plugin %s not readable\n",
                      "qzfi_newpgn: plugin " + file + " not readable\n", {"qzfi_newpgn"});
    }

    std::set<std::string> listed() const {
        std::set<std::string> result;
        for (const qfi_plugin *each = list; each != nullptr; each = each->libpriv->next)
            result.insert(each->vp_prefix);
        return result;
    }
};

TEST(PluginLayout, descriptors_are_laid_out_as_separately_built_plugins_see_them) {
    EXPECT_EQ(offsetof(qfi_plugin, first), 0u);
    EXPECT_EQ(offsetof(qfi_plugin, value), 8u);
    EXPECT_EQ(offsetof(qfi_plugin, library_path), 16u);
    EXPECT_EQ(offsetof(qfi_plugin, vp_prefix), 24u);
    EXPECT_EQ(offsetof(qfi_plugin, fifth), 32u);
    EXPECT_EQ(offsetof(qfi_plugin, sixth), 40u);
    EXPECT_EQ(offsetof(qfi_plugin, libpriv), 48u);
    EXPECT_EQ(sizeof(qfi_plugin), 56u);

    EXPECT_EQ(offsetof(qfi_libpriv, reserved0), 0u);
    EXPECT_EQ(offsetof(qfi_libpriv, mark), 8u);
    EXPECT_EQ(offsetof(qfi_libpriv, next), 16u);
    EXPECT_EQ(offsetof(qfi_libpriv, prev), 24u);
    EXPECT_EQ(offsetof(qfi_libpriv, reserved1), 32u);
    EXPECT_EQ(offsetof(qfi_libpriv, reserved2), 40u);
    EXPECT_EQ(sizeof(qfi_libpriv), 48u);

    EXPECT_EQ(offsetof(qfi_plugin_ops, error_mark), 0u);
    EXPECT_EQ(offsetof(qfi_plugin_ops, free_error), 8u);
    EXPECT_EQ(offsetof(qfi_plugin_ops, message_mark), 16u);
    EXPECT_EQ(offsetof(qfi_plugin_ops, free_message), 24u);
}

TEST_F(PluginLoading, an_accepted_plugin_is_described_marked_and_at_the_head_of_the_list) {
    install("accepting", "libalpha.so.4");
    qfi_plugin *const plugin = load(start, 0xfedcba9876543210u);
    ASSERT_NE(plugin, nullptr);
    EXPECT_EQ(list, plugin);
    EXPECT_NE(plugin->first, nullptr);
    EXPECT_EQ(static_cast<qfi_plugin_ops *>(plugin->first)->error_mark, nullptr);
    EXPECT_EQ(plugin->value, 0xfedcba9876543210u);
    EXPECT_EQ(plugin->library_path, directory + "libalpha.so.4");
    EXPECT_STREQ(plugin->vp_prefix, "alpha");
    EXPECT_EQ(plugin->sixth, nullptr);
    EXPECT_EQ(plugin->libpriv->reserved0, nullptr);
    EXPECT_EQ(plugin->libpriv->mark, 0x9ce6d53fu);
    EXPECT_EQ(plugin->libpriv->next, nullptr);
    EXPECT_EQ(plugin->libpriv->prev, nullptr);
    EXPECT_EQ(plugin->libpriv->reserved1, nullptr);
    EXPECT_EQ(plugin->libpriv->reserved2, nullptr);
    expect_silence();
}

TEST_F(PluginLoading, the_initialisation_routine_sees_a_whole_descriptor_that_is_on_no_list_yet) {
    make_files({"libalpha.so"});
    static qfi_plugin *const *head;
    head = &list;
    const qfi_plugin *const plugin = load(
        [](qfi_plugin *seen) -> uint32_t {
            EXPECT_EQ(*head, nullptr);
            EXPECT_EQ(seen->first, nullptr);
            EXPECT_EQ(seen->value, 5u);
            EXPECT_STREQ(seen->vp_prefix, "alpha");
            EXPECT_EQ(seen->fifth, nullptr);
            EXPECT_EQ(seen->sixth, nullptr);
            EXPECT_EQ(seen->libpriv->mark, 0u);
            EXPECT_EQ(seen->libpriv->next, nullptr);
            EXPECT_EQ(seen->libpriv->prev, nullptr);
            return note(seen);
        },
        5);
    ASSERT_NE(plugin, nullptr);
    EXPECT_EQ(offered, Names{"libalpha.so"});
}

TEST_F(PluginLoading, without_an_initialisation_routine_every_plugin_is_accepted_and_marked) {
    make_files({"libalpha.so"});
    const qfi_plugin *const plugin = load(nullptr);
    ASSERT_NE(plugin, nullptr);
    EXPECT_EQ(plugin->first, nullptr);
    EXPECT_EQ(plugin->libpriv->mark, QFI_PLUGIN_ACCEPTED);
    expect_silence();
}

TEST_F(PluginLoading, codes_29_and_30_accept_without_the_mark) {
    for (const char *mock : {"reserved", "limited"}) {
        install(mock, std::string("lib") + mock + ".so");
        const qfi_plugin *const plugin = load(start);
        ASSERT_NE(plugin, nullptr);
        EXPECT_EQ(list, plugin);
        EXPECT_STREQ(plugin->vp_prefix, mock);
        EXPECT_EQ(plugin->libpriv->mark, 0u);
    }
    expect_silence();
}

TEST_F(PluginLoading, code_12_refuses_silently) {
    install("incompatible", "libalpha.so");
    EXPECT_EQ(load(start), nullptr);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(offered, Names{"libalpha.so"});
    expect_silence();
}

TEST_F(PluginLoading, any_other_code_refuses_with_a_message) {
    install("failing", "libalpha.so");
    EXPECT_EQ(load(start), nullptr);
    EXPECT_EQ(list, nullptr);
    expect_not_initialized("libalpha.so");
    for (const uint32_t other : {1u, 11u, 13u, 28u, 31u, 0x80000000u, 0xffffffffu}) {
        forget();
        fi_del_all_errors();
        code = other;
        EXPECT_EQ(load(), nullptr) << other;
        expect_not_initialized("libalpha.so");
    }
}

TEST_F(PluginLoading, a_file_that_is_no_library_is_refused_by_its_initialisation) {
    make_files({"libalpha.so"});
    EXPECT_EQ(load(start), nullptr);
    expect_not_initialized("libalpha.so");
}

TEST_F(PluginLoading, a_refused_plugin_is_not_remembered) {
    install("incompatible", "libalpha.so.1");
    install("incompatible", "libalpha.so.2");
    Names order = real_order();
    std::erase_if(order, [](const std::string &name) { return name.front() == '.'; });
    EXPECT_EQ(load(start), nullptr);
    EXPECT_EQ(offered, Names(2, order.back()));
    EXPECT_EQ(load(start), nullptr);
    EXPECT_EQ(offered, Names(4, order.back()));
    expect_silence();
}

TEST_F(PluginLoading, after_a_refused_plugin_the_next_one_is_tried) {
    install("failing", "libalpha.so");
    install("accepting", "libbeta.so");
    show_entries({{"libalpha.so", "libbeta.so"}});
    ASSERT_NE(load(start), nullptr);
    EXPECT_EQ(listed(), std::set<std::string>{"beta"});
    expect_not_initialized("libalpha.so");
}

TEST_F(PluginLoading, one_call_loads_one_plugin_and_the_list_is_doubly_linked) {
    const std::set<std::string> all{"alpha", "beta", "gamma"};
    for (const std::string &name : all) {
        install("accepting", "lib" + name + ".so.1");
        install("accepting", "lib" + name + ".so.2");
    }
    qfi_plugin *loaded[3];
    for (qfi_plugin *&plugin : loaded) {
        plugin = load(start);
        ASSERT_NE(plugin, nullptr);
        EXPECT_EQ(list, plugin);
    }
    EXPECT_EQ(loaded[2]->libpriv->prev, nullptr);
    EXPECT_EQ(loaded[2]->libpriv->next, loaded[1]);
    EXPECT_EQ(loaded[1]->libpriv->prev, loaded[2]);
    EXPECT_EQ(loaded[1]->libpriv->next, loaded[0]);
    EXPECT_EQ(loaded[0]->libpriv->prev, loaded[1]);
    EXPECT_EQ(loaded[0]->libpriv->next, nullptr);
    EXPECT_EQ(listed(), all);
    EXPECT_EQ(offered.size(), 3u);
    EXPECT_EQ(load(start), nullptr);
    EXPECT_EQ(list, loaded[2]);
    expect_silence();
}

TEST_F(PluginLoading, with_all_plugins_on_the_list_the_initialisation_routine_is_not_called) {
    make_files({"libalpha.so", "libalpha.so.1", "libalpha.so.1a", "libalpha.conf"});
    show_entries({{"libalpha.so", "libalpha.so.1", "libalpha.conf"}, {"libalpha.so", "libalpha.so.1"}});
    ASSERT_NE(load(), nullptr);
    show_entries({});
    forget();
    EXPECT_EQ(load(), nullptr);
    EXPECT_EQ(offered, Names{});
    expect_silence(); // not even a choice is made
}

TEST_F(PluginLoading, an_empty_directory_holds_no_plugin) {
    EXPECT_EQ(load(), nullptr);
    EXPECT_EQ(list, nullptr);
    expect_silence();
}

TEST_F(PluginLoading, libraries_of_other_builds_are_never_loaded_and_never_mentioned) {
    for (const char *file : {"libalphaSTD.so", "libalphaST.so", "libalphaD.so", "libbetaD.so.2"})
        install("accepting", file);
    EXPECT_EQ(load(start), nullptr);
    EXPECT_EQ(offered, Names{});
    expect_silence();
}

TEST_F(PluginLoading, a_chosen_file_of_another_build_hides_the_plugins_other_files) {
    install("accepting", "libalpha.so");
    install("accepting", "oldD.libalpha.so");
    show_entries({{"libalpha.so", "oldD.libalpha.so"}});
    EXPECT_EQ(load(start), nullptr);
    EXPECT_EQ(offered, Names{});
    expect_silence();
    show_entries({{"oldD.libalpha.so", "libalpha.so"}});
    EXPECT_NE(load(start), nullptr);
    EXPECT_EQ(offered, Names{"libalpha.so"});
}

TEST_F(PluginLoading, a_directory_named_like_another_build_is_passed_over_whole) {
    const std::string other = root + "/CD.1/";
    fs::create_directory(other);
    fs::copy_file(MOCK_DIRECTORY "/mock_plugin_accepting.so", other + "libalpha.so");
    setenv(variable, other.c_str(), 1);
    EXPECT_EQ(load(start), nullptr);
    EXPECT_EQ(offered, Names{});
    expect_silence();
}

TEST_F(PluginLoading, the_variables_directory_goes_before_the_root) {
    const std::string other = root + "/other/";
    fs::create_directory(other);
    fs::copy_file(MOCK_DIRECTORY "/mock_plugin_accepting.so", other + "libalpha.so");
    setenv(variable, other.c_str(), 1);
    ASSERT_NE(qzfi_newpgn(nullptr, variable, "lib", &list, start, 0, nullptr), nullptr);
    EXPECT_EQ(list->library_path, other + "libalpha.so");
    EXPECT_EQ(getenv(variable), other); // still the environment's
    expect_silence();
}

TEST_F(PluginLoading, the_initialisation_routine_may_change_the_variable) {
    make_files({"libalpha.so", "libbeta.so"});
    std::string assignment = std::string(variable) + "=" + directory;
    static char *environment_text;
    environment_text = assignment.data();
    ASSERT_EQ(putenv(environment_text), 0);
    code = 12;
    EXPECT_EQ(load([](qfi_plugin *plugin) {
                  setenv(variable, "/nowhere/", 1);
                  std::fill_n(environment_text, strlen(environment_text), '#');
                  return note(plugin);
              }),
              nullptr);
    std::sort(offered.begin(), offered.end());
    EXPECT_EQ(offered, (Names{"libalpha.so", "libbeta.so"}));
    expect_silence();
}

TEST_F(PluginLoading, a_directory_without_a_slash_at_its_end_runs_into_the_file_name) {
    install("accepting", "libalpha.so");
    EXPECT_EQ(qzfi_newpgn("plugins", variable, "lib", &list, start, 0, root.c_str()), nullptr);
    EXPECT_EQ(offered, Names{});
    expect_not_readable("libalpha.so");
}

TEST_F(PluginLoading, a_library_that_is_not_there_any_more_is_not_readable) {
    fs::create_symlink("/nowhere/libalpha.so", directory + "libalpha.so");
    EXPECT_EQ(load(start), nullptr);
    EXPECT_EQ(offered, Names{});
    expect_not_readable("libalpha.so");
}

TEST_F(PluginLoading, a_missing_directory_is_raised) {
    EXPECT_EQ(qzfi_newpgn("none/", variable, "lib", &list, start, 0, root.c_str()), nullptr);
    expect_opendir_failure("qzfi_pgndir", root + "/none/", ENOENT);
}

TEST_F(PluginLoading, null_arguments_give_null_silently) {
    make_files({"libalpha.so"});
    EXPECT_EQ(qzfi_newpgn("plugins/", variable, "lib", nullptr, note, 0, root.c_str()), nullptr);
    EXPECT_EQ(qzfi_newpgn("plugins/", variable, nullptr, &list, note, 0, root.c_str()), nullptr);
    EXPECT_EQ(qzfi_newpgn(nullptr, variable, "lib", &list, note, 0, root.c_str()), nullptr);
    EXPECT_EQ(qzfi_newpgn("plugins/", variable, "lib", &list, note, 0, nullptr), nullptr);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(offered, Names{});
    expect_silence();
    EXPECT_NE(qzfi_newpgn("plugins/", nullptr, "lib", &list, note, 0, root.c_str()), nullptr);
}

TEST_F(PluginLoading, the_initialisation_routine_may_load_plugins_of_another_list) {
    for (const char *name : {"libalpha.so", "libbeta.so", "libgamma.so"})
        install("accepting", name);
    static qfi_plugin *other_list;
    static const std::string *root_here;
    other_list = nullptr;
    root_here = &root;
    const auto load_others = [](qfi_plugin *plugin) {
        while (qzfi_newpgn("plugins/", variable, "lib", &other_list, nullptr, 0, root_here->c_str()) != nullptr) {
        }
        return start(plugin);
    };
    while (load(load_others) != nullptr) {
    }
    const std::set<std::string> all{"alpha", "beta", "gamma"};
    EXPECT_EQ(listed(), all);
    EXPECT_EQ(offered.size(), 3u);
    std::set<std::string> others;
    for (const qfi_plugin *each = other_list; each != nullptr; each = each->libpriv->next)
        others.insert(each->vp_prefix);
    EXPECT_EQ(others, all);
    free_list(other_list);
    expect_silence();
}

TEST_F(PluginLoading, threads_may_load_the_same_plugins_onto_lists_of_their_own) {
    // Held open all the while: a thread sanitizer does not see the lock under which the loader frees what another
    // thread's loading made.
    std::vector<void *> held;
    for (int index = 0; index < 5; ++index) {
        const std::string file = "lib" + std::to_string(index) + ".so." + std::to_string(index);
        install("accepting", file);
        held.push_back(qzfi_dlopen_pgn((directory + file).c_str()));
        ASSERT_NE(held.back(), nullptr) << qzfi_dlerror();
    }
    make_files({"libbad.so.1a"});
    unsetenv("ICU_DATA"); // the handler of this fixture is for one thread
    const auto run = [this](uint64_t value) {
        qfi_plugin *own = nullptr;
        int count = 0;
        const auto load_and_close = [](qfi_plugin *plugin) -> uint32_t {
            void *const handle = qzfi_dlopen_pgn(plugin->library_path);
            const auto entry = reinterpret_cast<Start>(qzfi_dlsym(handle, "mock_plugin_start"));
            const uint32_t status = entry(plugin);
            qzfi_dlclose(handle);
            return status;
        };
        while (const qfi_plugin *const plugin =
                   qzfi_newpgn("plugins/", variable, "lib", &own, load_and_close, value, root.c_str())) {
            EXPECT_EQ(plugin->value, value);
            ++count;
        }
        EXPECT_EQ(count, 5);
        free_list(own);
        const std::vector<Raised> errors = raised();
        EXPECT_FALSE(errors.empty());
        for (const Raised &each : errors)
            EXPECT_EQ(each.id, "MSG_QFI_UTIL_E0042");
    };
    std::vector<std::thread> threads;
    for (uint64_t value = 1; value <= 4; ++value)
        threads.emplace_back(run, value);
    for (std::thread &each : threads)
        each.join();
    for (void *const each : held)
        EXPECT_EQ(qzfi_dlclose(each), 0);
}

} // namespace
