#include <gtest/gtest.h>
#include <orvo/core.h>

#include <string>

#include "test_helpers.h"

namespace {

using platform_test::TempDir;
using platform_test::WriteFile;

class KeyValueTest : public ::testing::Test {
protected:
    // The result and the buffer's text, the buffer prefilled with 'X'.
    std::pair<int, std::string> Get(const std::string& key, int size = 64) {
        std::string buffer(static_cast<std::size_t>(size), 'X');
        const int result = OLIBCFileGetKeyValue(file_.c_str(), key.c_str(), &buffer[0], size, 0);
        return {result, buffer.c_str()};
    }

    TempDir dir_;
    std::string file_ = dir_ / "info.conf";
};

TEST_F(KeyValueTest, QuotingCommentsLastOccurrenceAndTruncation) {
    WriteFile(file_,
              "# farlink_enable_failover=\"commented\"\n\nquoted=\"true\"\nplain=yes\n"
              "  spaced  =  \" padded \"  \r\nempty=\"\"\ntwice=first\ntwice=\"second\"\n"
              "no_equals_line\nprefix_key=\"other\"\nlong=\"" +
                  std::string(100, 'a') + "\"\nlast=\"no newline\"");
    const struct {
        const char* key;
        int size;
        std::pair<int, std::string> expected;
    } cases[] = {
        {"plain", 64, {1, "yes"}},
        {"spaced", 64, {1, " padded "}},
        {"twice", 64, {1, "second"}},
        {"last", 64, {1, "no newline"}},
        {"farlink_enable_failover", 64, {0, ""}},  // terminated also when absent
        {"key", 64, {0, ""}},                      // a key only matches whole
        {"long", 8, {1, "aaaaaaa"}},
        {"plain", 4, {1, "yes"}},
        {"plain", 1, {1, ""}},
    };
    for (const auto& c : cases) EXPECT_EQ(Get(c.key, c.size), c.expected) << c.key << c.size;

    EXPECT_EQ(OLIBCFileCheckKeyValue(file_.c_str(), "spaced", "padded", 0), 0);
    EXPECT_EQ(OLIBCFileCheckKeyValue(file_.c_str(), "farlink_enable_failover", "true", 0), 0);
}

TEST_F(KeyValueTest, UnreadableFilesAndBuffers) {
    const std::string missing = dir_ / "missing";
    char buffer[16] = "untouched";
    EXPECT_EQ(OLIBCFileGetKeyValue(missing.c_str(), "k", buffer, sizeof buffer, 0), -1);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(OLIBCFileGetKeyValue(dir_.path().c_str(), "k", buffer, sizeof buffer, 0), -1)
        << "a directory is not a readable file";

    WriteFile(file_, "k=v\n");
    EXPECT_EQ(OLIBCFileGetKeyValue(file_.c_str(), "k", buffer, 0, 0), -1);
    EXPECT_EQ(OLIBCFileGetKeyValue(file_.c_str(), "k", nullptr, 16, 0), -1);
}

TEST_F(KeyValueTest, HugeLinesAndBinaryGarbage) {
    std::string garbage(1 << 20, '\0');
    for (std::size_t i = 0; i < garbage.size(); ++i) garbage[i] = static_cast<char>(i * 7919 % 251);
    WriteFile(file_, garbage + "\nkey=\"after\"\n" + std::string("nul=a\0b\n", 8) +
                         std::string(3 << 20, 'x'));
    EXPECT_EQ(Get("key"), std::make_pair(1, std::string("after")));
    EXPECT_EQ(Get("nul"), std::make_pair(1, std::string("a")));
    EXPECT_EQ(Get("missing"), std::make_pair(0, std::string()));
}

}  // namespace
