#include <algorithm>

#include "binding_fixture.h"
#include "support/fault.h"

namespace {

std::vector<uint32_t> seen_by_hook;

/// Whether nothing was bound or startable before the first test, whichever that is.
const bool begins_unbound =
    fimod.entries == nullptr && fimod.state == 0 && fimod.handle == nullptr && qzfi_lib == nullptr &&
    fi_get_pgn_f == nullptr &&
    std::all_of(std::begin(fiapi), std::end(fiapi), [](const qzfi_entry &entry) { return entry.function == nullptr; });

int open_descriptors() {
    return static_cast<int>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

TEST_F(Binding, the_entry_table_holds_the_published_names_in_slot_order) {
    ASSERT_EQ(std::size(published_entries), 91u);
    ASSERT_EQ(std::size(fiapi), 92u);
    for (std::size_t slot = 0; slot < 91; ++slot)
        EXPECT_STREQ(fiapi[slot].name, published_entries[slot]);
    EXPECT_EQ(fiapi[91].name, nullptr);
}

TEST_F(Binding, the_descriptor_and_the_range_table_stand_as_published) {
    EXPECT_STREQ(fimod.library_path, "/lib/libfi.so");
    EXPECT_STREQ(fimod.env_name, "QFI_API_LIB");
    EXPECT_TRUE(begins_unbound);
    EXPECT_EQ(qzfi_modtbl[0].module, &fimod);
    EXPECT_EQ(qzfi_modtbl[0].lowest, 1024);
    EXPECT_EQ(qzfi_modtbl[0].highest, 2047);
    EXPECT_EQ(qzfi_modtbl[0].errmsg, &fiapi[2].function);
    EXPECT_EQ(qzfi_modtbl[1].module, nullptr);
}

TEST_F(Binding, the_first_call_loads_the_library_below_the_root_and_starts_it) {
    install_default("complete");
    start();
    EXPECT_EQ(journal(), "");

    EXPECT_EQ(call(), 0);

    EXPECT_EQ(journal(), "load\nstart\n");
    EXPECT_EQ(fimod.state, 2);
    EXPECT_NE(fimod.handle, nullptr);
    EXPECT_STREQ(qzfi_lib, default_path().c_str());
    for (std::size_t slot = 0; slot < 91; ++slot)
        EXPECT_EQ(fiapi[slot].function, dlsym(fimod.handle, fiapi[slot].name)) << slot;
    EXPECT_EQ(reinterpret_cast<void *>(fi_get_pgn_f), dlsym(fimod.handle, "fi_get_pgn"));
    EXPECT_NE(fi_get_pgn_f, nullptr);
}

TEST_F(Binding, the_entries_are_set_by_the_first_start_that_succeeds_and_stay) {
    fimod.entries = nullptr;
    ASSERT_EQ(qzfiapi_start(&recorder, QFI_VERSION(8, 0, 0, 0)), 8);
    EXPECT_EQ(fimod.entries, nullptr);
    start();
    EXPECT_EQ(fimod.entries, fiapi);
    ASSERT_EQ(qzfiapi_shutdown(), 0);
    EXPECT_EQ(fimod.entries, fiapi);
}

TEST_F(Binding, the_path_is_below_the_root_in_force_not_one_set_since) {
    install_default("complete");
    start();
    set_root(scratch / "elsewhere");
    EXPECT_EQ(call(), 0);
    EXPECT_STREQ(qzfi_lib, default_path().c_str());
}

TEST_F(Binding, without_a_root_the_path_is_below_the_default_one) {
    qzfiapi_set_init_env(nullptr, nullptr);
    start();
    const fault::Armed no_library_there(fault::Call::dlopen, 1);
    EXPECT_EQ(call(), 2);
    EXPECT_EQ(raised(), std::vector<Raised>{not_loaded("/usr/lumen/lib/libfi.so")});
}

TEST_F(Binding, the_start_entry_gets_null_0_the_handler_and_0) {
    const std::string path = use("complete");
    start();
    ASSERT_EQ(call(), 0);
    const MockApi &api = api_at(path);
    EXPECT_EQ(api.starts, 1);
    EXPECT_EQ(api.start_first, nullptr);
    EXPECT_EQ(api.start_second, 0);
    EXPECT_EQ(api.start_handler, &recorder);
    EXPECT_EQ(api.start_fourth, 0);
}

TEST_F(Binding, the_environment_overrides_the_whole_path) {
    install_default("failing_start");
    const std::string path = use("complete");
    start();
    ASSERT_EQ(call(), 0);
    EXPECT_TRUE(is_loaded(path));
    EXPECT_FALSE(is_loaded(default_path()));
    EXPECT_STREQ(qzfi_lib, path.c_str());
}

TEST_F(Binding, the_path_from_the_environment_is_an_owned_copy) {
    const std::string path = use("complete");
    start();
    ASSERT_EQ(call(), 0);
    EXPECT_NE(qzfi_lib, getenv("QFI_API_LIB"));
    setenv("QFI_API_LIB", "/elsewhere", 1);
    EXPECT_STREQ(qzfi_lib, path.c_str());
    qzfiapi_shutdown();
    EXPECT_STREQ(getenv("QFI_API_LIB"), "/elsewhere");
}

TEST_F(Binding, an_empty_path_from_the_environment_is_used_as_it_stands) {
    install_default("complete");
    setenv("QFI_API_LIB", "", 1); // the loader takes it for the program itself, which has no such entries
    start();
    testing::internal::CaptureStderr();
    EXPECT_EQ(call(), 2);
    EXPECT_EQ(
        testing::internal::GetCapturedStderr().rfind("Unable to load symbol from lib  for QzFI API qzfi_start: ", 0),
        0u);
    EXPECT_EQ(raised(), std::vector<Raised>{not_found()});
    EXPECT_FALSE(is_loaded(default_path()));
}

TEST_F(Binding, ten_threads_at_once_bind_once_and_all_go_through) {
    const std::string path = use("complete");
    call_from_start_entry(wait_for_everybody);
    start();
    std::atomic<int> passed{0};
    in_threads(thread_count, [&](int) {
        arrived += 1;
        passed += call() == 0;
    });
    EXPECT_EQ(passed, thread_count);
    EXPECT_EQ(journal(), "load\nstart\n");
    EXPECT_EQ(api_at(path).starts, 1);
    EXPECT_EQ(api_at(path).calls, thread_count);
}

TEST_F(Binding, threads_through_every_door_bind_once) {
    const std::string path = use("complete");
    call_from_start_entry(wait_for_everybody);
    start();
    std::atomic<int> passed{0};
    in_threads(thread_count, [&](int index) {
        arrived += 1;
        const char *text = nullptr;
        qfi_domain *none = nullptr;
        switch (index % 5) {
        case 0:
            passed += qzfiapi_errmsg(1024, &text) == 0;
            break;
        case 1:
            passed += qzfi_enter(&fimod) == 0;
            break;
        case 2:
            passed += qzfiapi_gentree(nullptr, 0, nullptr, &none) == 0;
            break;
        case 3:
            passed += qzfiapi_build_alttree(nullptr, nullptr, nullptr) == 0;
            break;
        default:
            passed += qzfiapi_set_op_status(nullptr, 1) == 0;
        }
    });
    EXPECT_EQ(passed, thread_count);
    EXPECT_EQ(journal(), "load\nstart\n");
}

TEST_F(Binding, a_missing_library_is_reported_by_every_call) {
    setenv("ICU_DATA", "", 1);
    const std::string path = (scratch / "no such library.so").string();
    setenv("QFI_API_LIB", path.c_str(), 1);
    start();
    const Report report{"modstart: " + path + " not loaded:\n" + path +
                            ": cannot open shared object file: No such file or directory\n",
                        "(null)", 3};
    for (std::size_t calls = 1; calls <= 3; ++calls) {
        EXPECT_EQ(call(), 2);
        EXPECT_EQ(recorder.reports, std::vector<Report>(calls, report));
        EXPECT_EQ(raised(), std::vector<Raised>(calls, not_loaded(path)));
        expect_unbound();
    }
}

TEST_F(Binding, without_the_messages_variable_a_missing_library_is_only_recorded) {
    start();
    EXPECT_EQ(call(), 2);
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_EQ(raised(), std::vector<Raised>{not_loaded(default_path())});
}

TEST_F(Binding, the_last_entry_must_resolve) {
    expect_missing_entry("without_set_fim_name", "qzfi_set_fim_name");
}

TEST_F(Binding, an_early_entry_must_resolve) {
    expect_missing_entry("without_analyze", "qzfi_analyze");
}

TEST_F(Binding, the_message_text_entry_must_resolve) {
    expect_missing_entry("without_errmsg", "qzfi_errmsg");
}

TEST_F(Binding, the_entry_that_no_forwarder_calls_must_resolve) {
    expect_missing_entry("without_del_last_error", "qzfi_del_last_error");
}

TEST_F(Binding, a_half_resolved_library_puts_nothing_into_the_table) {
    for (qzfi_entry &entry : fiapi)
        entry.function = nullptr;
    use("without_set_fim_name");
    start();
    testing::internal::CaptureStderr();
    EXPECT_EQ(call(), 2);
    testing::internal::GetCapturedStderr();
    for (const qzfi_entry &entry : fiapi)
        EXPECT_EQ(entry.function, nullptr) << entry.name;
}

TEST_F(Binding, a_library_that_does_not_start_puts_nothing_into_the_table) {
    for (qzfi_entry &entry : fiapi)
        entry.function = nullptr;
    use("failing_start");
    start();
    EXPECT_EQ(call(), 2);
    for (const qzfi_entry &entry : fiapi)
        EXPECT_EQ(entry.function, nullptr) << entry.name;
}

TEST_F(Binding, a_failing_start_entry_closes_the_library_and_the_next_call_loads_it_again) {
    setenv("ICU_DATA", "", 1);
    const std::string path = use("failing_start");
    start();
    std::string expected;
    for (int calls = 1; calls <= 3; ++calls) {
        EXPECT_EQ(call(), 2);
        expected += "load\nstart\nunload\n";
        EXPECT_EQ(journal(), expected);
        EXPECT_FALSE(is_loaded(path));
        expect_unbound();
    }
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_TRUE(raised().empty());
}

TEST_F(Binding, a_library_without_the_plugin_look_up_binds) {
    use("without_get_pgn");
    start();
    EXPECT_EQ(call(), 0);
    EXPECT_EQ(fimod.state, 2);
    EXPECT_EQ(fi_get_pgn_f, nullptr);
}

TEST_F(Binding, a_library_that_appears_later_is_bound_by_the_next_call) {
    start();
    EXPECT_EQ(call(), 2);
    install_default("complete");
    EXPECT_EQ(call(), 0);
    EXPECT_EQ(journal(), "load\nstart\n");
    EXPECT_EQ(raised().size(), 1u);
}

TEST_F(Binding, every_thread_of_a_failing_binding_records_its_own_failure) {
    start();
    std::atomic<int> good{0};
    in_threads(thread_count, [&](int) {
        const bool refused = call() == 2;
        good += refused && raised() == std::vector<Raised>{not_loaded(default_path())};
    });
    EXPECT_EQ(good, thread_count);
    expect_unbound();
}

TEST_F(Binding, waiters_retry_after_a_failed_start_and_bindings_never_overlap) {
    const std::string path = use("failing_start");
    call_from_start_entry(wait_for_everybody);
    start();
    std::atomic<int> refused{0};
    in_threads(thread_count, [&](int) {
        arrived += 1;
        refused += call() == 2;
    });
    EXPECT_EQ(refused, thread_count);
    std::string expected;
    for (int each = 0; each < thread_count; ++each)
        expected += "load\nstart\nunload\n";
    EXPECT_EQ(journal(), expected);
    EXPECT_FALSE(is_loaded(path));
}

TEST_F(Binding, waiters_of_a_failed_binding_bind_once_the_cause_is_gone) {
    // The first load fails in the start entry, and the hook puts the good library in place for those that wait.
    static fs::path link;
    static std::string good;
    link = scratch / "api.so";
    good = mock("complete");
    fs::create_symlink(mock("failing_start"), link);
    setenv("QFI_API_LIB", link.c_str(), 1);
    call_from_start_entry([] {
        wait_for_everybody();
        fs::remove(link);
        fs::create_symlink(good, link);
    });
    start();
    std::atomic<int> passed{0};
    std::atomic<int> refused{0};
    in_threads(thread_count, [&](int) {
        arrived += 1;
        const int32_t status = call();
        passed += status == 0;
        refused += status == 2;
    });
    EXPECT_EQ(refused, 1);
    EXPECT_EQ(passed, thread_count - 1);
    EXPECT_EQ(journal(), "load\nstart\nunload\nload\nstart\n");
}

TEST_F(Binding, a_start_entry_that_calls_back_gets_2_instead_of_waiting_for_itself) {
    use("complete");
    seen_by_hook.clear();
    call_from_start_entry([] {
        const char *text = nullptr;
        seen_by_hook.push_back(static_cast<uint32_t>(call()));
        seen_by_hook.push_back(
            static_cast<uint32_t>(qzfiapi_refresh_tree(nullptr, 0, 0, nullptr, 0, nullptr, nullptr, 0)));
        seen_by_hook.push_back(qzfiapi_errmsg(1024, &text));
        seen_by_hook.push_back(qzfiapi_errmsg(5, &text));
    });
    start();
    EXPECT_EQ(call(), 0);
    EXPECT_EQ(seen_by_hook, (std::vector<uint32_t>{2, 2, 2, 0}));
    EXPECT_EQ(journal(), "load\nstart\n");
    EXPECT_TRUE(recorder.reports.empty());
}

TEST_F(Binding, a_handler_that_calls_back_gets_2_while_a_failure_is_reported) {
    setenv("ICU_DATA", "", 1);
    int32_t inner = 0;
    recorder.hook = [&](const std::string &) { inner = call(); };
    start();
    EXPECT_EQ(call(), 2);
    EXPECT_EQ(inner, 2);
    EXPECT_EQ(recorder.reports.size(), 1u);
    EXPECT_EQ(raised(), std::vector<Raised>{not_loaded(default_path())});
}

TEST_F(Binding, before_start_nothing_is_attempted) {
    setenv("ICU_DATA", "", 1);
    use("complete");
    const char *text = nullptr;
    EXPECT_EQ(call(), 2);
    EXPECT_EQ(qzfiapi_gentree(nullptr, 0, nullptr, nullptr), 2);
    EXPECT_EQ(qzfiapi_refresh_tree(nullptr, 0, 0, nullptr, 0, nullptr, nullptr, 0), 2);
    EXPECT_EQ(qzfiapi_errmsg(1024, &text), 2u);
    EXPECT_EQ(journal(), "");
    EXPECT_TRUE(raised().empty());
}

TEST_F(Binding, after_a_refused_start_nothing_is_attempted) {
    use("complete");
    ASSERT_EQ(qzfiapi_start(&recorder, QFI_VERSION(8, 0, 0, 0)), 8);
    EXPECT_EQ(call(), 2);
    EXPECT_EQ(journal(), "");
}

TEST_F(Binding, after_shutdown_nothing_is_attempted) {
    setenv("ICU_DATA", "", 1);
    use("complete");
    start();
    ASSERT_EQ(call(), 0);
    ASSERT_EQ(qzfiapi_shutdown(), 0);
    const std::string before = journal();
    const char *text = nullptr;
    EXPECT_EQ(call(), 2);
    EXPECT_EQ(qzfi_enter(&fimod), 2);
    EXPECT_EQ(qzfiapi_errmsg(2047, &text), 2u);
    EXPECT_EQ(journal(), before);
    EXPECT_TRUE(raised().empty());
    EXPECT_TRUE(recorder.reports.empty());
}

TEST_F(Binding, shutdown_stops_and_closes_the_library) {
    const std::string path = use("complete");
    start();
    ASSERT_EQ(call(), 0);
    EXPECT_EQ(qzfiapi_shutdown(), 0);
    EXPECT_EQ(journal(), "load\nstart\nshutdown\nunload\n");
    EXPECT_FALSE(is_loaded(path));
    EXPECT_EQ(fimod.entries, fiapi);
    expect_unbound();
}

TEST_F(Binding, shutdown_of_an_unbound_library_calls_nothing) {
    use("failing_start");
    start();
    ASSERT_EQ(call(), 2);
    EXPECT_EQ(qzfiapi_shutdown(), 0);
    EXPECT_EQ(journal(), "load\nstart\nunload\n");
}

TEST_F(Binding, start_bind_shutdown_repeats_without_leaving_anything) {
    const std::string path = use("complete");
    unsetenv("MOCK_JOURNAL");
    const auto cycle = [&] {
        start();
        ASSERT_EQ(call(), 0);
        ASSERT_EQ(api_at(path).starts, 1);
        ASSERT_EQ(qzfiapi_shutdown(), 0);
        ASSERT_FALSE(is_loaded(path));
    };
    cycle();
    const int descriptors = open_descriptors();
    for (int repeat = 0; repeat < 1000 && !HasFatalFailure(); ++repeat)
        cycle();
    EXPECT_EQ(open_descriptors(), descriptors);
}

} // namespace
