#include <gtest/gtest.h>
#include <qzfi.h>
extern "C" unsigned sleep(unsigned seconds);
extern "C" unsigned sleep(unsigned) { return 0; }
TEST(ContextLife, smoke) {
    EXPECT_EQ(qzfi_create_context(), 0u);
    EXPECT_EQ(qzfi_close_context(), 0);
}
