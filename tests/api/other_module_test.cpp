#include "binding_fixture.h"

namespace {

class OtherModule : public Binding {
protected:
    OtherModule() { unsetenv("QFI_OTHER_LIB"); }
    ~OtherModule() override {
        if (module.state == 2)
            qzfi::unbind(module);
    }

    qzfi_entry entries[4] = {
        {"qzfi_start", nullptr}, {"qzfi_shutdown", nullptr}, {"qzfi_errmsg", nullptr}, {nullptr, nullptr}};
    qzfi_module module = {"/lib/libother.so", "QFI_OTHER_LIB", entries, 0, nullptr};
};

TEST_F(OtherModule, is_bound_below_the_root_without_becoming_the_api_library) {
    start();
    fs::create_directories(scratch / "lib");
    fs::copy_file(mock("complete"), scratch / "lib/libother.so");
    EXPECT_EQ(qzfi_enter(&module), 0);
    EXPECT_EQ(module.state, 2);
    ASSERT_NE(module.handle, nullptr);
    for (int slot = 0; slot < 3; ++slot)
        EXPECT_EQ(entries[slot].function, dlsym(module.handle, entries[slot].name));
    EXPECT_EQ(qzfi_lib, nullptr);
    EXPECT_EQ(fimod.state, 0);
    EXPECT_EQ(qzfi_enter(&module), 0);
    EXPECT_EQ(journal(), "load\nstart\n");
}

TEST_F(OtherModule, is_bound_from_its_own_variable) {
    setenv("QFI_OTHER_LIB", mock("complete").c_str(), 1);
    start();
    EXPECT_EQ(qzfi_enter(&module), 0);
    EXPECT_EQ(qzfi_lib, nullptr);
}

TEST_F(OtherModule, without_entries_is_not_bound) {
    setenv("QFI_OTHER_LIB", mock("complete").c_str(), 1);
    start();
    module.entries = nullptr;
    EXPECT_EQ(qzfi_enter(&module), 2);
    EXPECT_EQ(journal(), "");
}

TEST_F(OtherModule, may_be_bound_from_the_start_entry_of_another) {
    static qzfi_module *other;
    static int32_t inner;
    other = &module;
    setenv("QFI_OTHER_LIB", mock("without_get_pgn").c_str(), 1);
    use("complete");
    call_from_start_entry([] { // also called by the other module's start entry, for which its own is in progress
        if (other != nullptr) {
            qzfi_module *const once = other;
            other = nullptr;
            inner = qzfi_enter(once);
        }
    });
    start();
    EXPECT_EQ(call(), 0);
    EXPECT_EQ(inner, 0);
    EXPECT_EQ(module.state, 2);
}

} // namespace
