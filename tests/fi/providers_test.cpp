// Plugins that crash, refuse or are not what they should be: each is refused with its reason, and the others stay.
#include <filesystem>

#include "host.h"

namespace {

class Providers : public Host {
protected:
    // A plugin directory with these plugins, under names that the loader meets in any order.
    void use(const std::vector<std::string> &names) {
        stop();
        std::filesystem::create_directories(path("plugins"));
        for (const std::string &name : names) {
            const std::string file = "qzfi_provider_" + name + ".so";
            std::filesystem::create_symlink(std::string(BAD_PLUGIN_DIRECTORY "/") + file, path("plugins/" + file));
        }
        setenv("QFI_DIR", (path("plugins") + "/").c_str(), 1);
        start();
    }
    // What the host is told while the providers are loaded: the messages of refusals.
    std::vector<std::string> refusals() {
        std::vector<std::string> texts;
        EXPECT_EQ(qfi_op_set_fim_name("nothing"), 1026);
        pthread_mutex_lock(&err_mutex);
        for (const qfi_error_thread *thread = err_info_list; thread != nullptr; thread = nullptr) {
            const qfi_error_info *error = thread->errors;
            do {
                if (std::string(error->message_id) == "MSG_QFI_E2026")
                    texts.push_back(std::string(error->arguments[2]) + ": " + error->arguments[3]);
                error = error->next;
            } while (error != thread->errors);
        }
        pthread_mutex_unlock(&err_mutex);
        return texts;
    }
};

struct Flaw {
    const char *name;
    const char *reason;
};

class Flawed : public Providers, public testing::WithParamInterface<Flaw> {};

TEST_P(Flawed, is_refused_with_the_reason_and_the_host_lives) {
    use({"good", GetParam().name});
    EXPECT_EQ(refusals(),
              std::vector<std::string>{std::string("qzfi_provider_") + GetParam().name + ".so: " + GetParam().reason});
    EXPECT_EQ(qfi_op_set_fim_name("good"), 0) << "the others stay";
    EXPECT_EQ(qfi_op_set_fim_name(GetParam().name), 1026);
}

INSTANTIATE_TEST_SUITE_P(Each, Flawed,
                         testing::Values(Flaw{"crash_entry", "crashed while loading (signal 11)"},
                                         Flaw{"crash_start", "crashed while starting (signal 11)"},
                                         Flaw{"crash_stop", "crashed while stopping (signal 11)"},
                                         Flaw{"exit_start", "crashed while starting (exit code 7)"},
                                         Flaw{"refuse_start", "its start failed with 42"},
                                         Flaw{"small", "its table is too small (16 of 144 bytes)"},
                                         Flaw{"newer", "it was built for a newer API"},
                                         Flaw{"crash_older", "crashed while starting (signal 11)"},
                                         Flaw{"no_table", "its entry gave no table"},
                                         Flaw{"no_name", "its table has no proper names"}),
                         [](const testing::TestParamInfo<Flaw> &each) { return std::string(each.param.name); });

TEST_F(Providers, of_two_with_one_name_one_is_loaded) {
    use({"good", "taken"});
    const std::vector<std::string> all = refusals();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].substr(all[0].find(": ")), ": a provider or method of its name is loaded already (good)");
    EXPECT_EQ(refusals(), all) << "a refused plugin is not tried again";
}

TEST_F(Providers, a_file_that_is_no_library_is_refused) {
    use({"good"});
    write_file(path("plugins/qzfi_provider_text.so"), "no library");
    EXPECT_EQ(refusals(), std::vector<std::string>{"qzfi_provider_text.so: " + path("plugins/qzfi_provider_text.so") +
                                                   ": file too short"});
}

TEST_F(Providers, a_library_without_the_entry_is_refused) {
    use({"good"});
    std::filesystem::create_symlink(FI_LIBRARY, path("plugins/qzfi_provider_other.so"));
    EXPECT_EQ(refusals(), std::vector<std::string>{"qzfi_provider_other.so: it has no qfi_provider_entry"});
}

TEST_F(Providers, without_plugins_nothing_can_be_frozen) {
    use({});
    qfi_domain *const tree = tree_of({make_object("object")});
    EXPECT_EQ(qfi_op_make(tree, nullptr, nullptr), 1026);
    const std::string root = qzfi_pn(tree->fid_children->objid);
    EXPECT_EQ(last_error(), "qzfi_make: no method can freeze " + root + ": no provider is loaded");
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Providers, that_were_refused_are_named_where_no_other_can_freeze) {
    use({"good", "refuse_start"});
    qfi_domain *const tree = tree_of({make_object("object")});
    const std::string root = qzfi_pn(tree->fid_children->objid);
    const std::string reasons = "good: the provider does not offer it; qzfi_provider_refuse_start.so is refused: its "
                                "start failed with 42";
    EXPECT_EQ(qfi_op_select(tree, nullptr, nullptr, nullptr), 1026);
    EXPECT_EQ(last_error(), "qzfi_select: no method can freeze " + root + ": " + reasons);
    EXPECT_EQ(qfi_op_make(tree, nullptr, nullptr), 1026);
    EXPECT_EQ(last_error(), "qzfi_make: no method can freeze " + root + ": " + reasons);
    EXPECT_EQ(qfi_op_pre_prepare(tree), 1026);
    EXPECT_EQ(last_error(), "qzfi_pre_prepare: no method can freeze the tree: " + root + ": " + reasons);
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

TEST_F(Providers, one_that_does_not_offer_an_operation_is_not_chosen) {
    use({"good"});
    qfi_domain *const tree = tree_of({make_object("object")});
    EXPECT_EQ(qfi_op_select(tree, nullptr, "good", nullptr), 1026);
    const std::string root = qzfi_pn(tree->fid_children->objid);
    EXPECT_EQ(last_error(), "qzfi_select: method good cannot freeze " + root + ": the provider does not offer it");
    qfi_op_detach(tree, nullptr, 0, nullptr);
}

} // namespace
