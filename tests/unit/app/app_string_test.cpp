// Includes the functions' source, so that the compiler sees the sizes of their arguments, as with
// link-time optimization.
#include "app/src/app_string.cpp"

#include <gtest/gtest.h>

namespace {

TEST(AppString, LiteralWhoseSizeTheCompilerKnowsIsCopied) {
    char name[32] = "before";
    app_text_copy(name, sizeof name, "lda");
    EXPECT_STREQ(name, "lda");
    app_text_append(name, sizeof name, "-agent");
    EXPECT_STREQ(name, "lda-agent");
}

TEST(AppString, TextIsCutToItsField) {
    char name[4] = "";
    app_text_copy(name, sizeof name, "a longer text");
    EXPECT_STREQ(name, "a l");
    app_text_append(name, sizeof name, "more");
    EXPECT_STREQ(name, "a l");
}

}  // namespace
