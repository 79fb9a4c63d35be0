#include <gtest/gtest.h>
#include <orvo/core.h>

#include <string>

#include "test_helpers.h"

namespace {

using platform_test::TempDir;
using platform_test::WriteFile;

class KeyValueTest : public ::testing::Test {
protected:
    int Get(const std::string& key, int size = 64) {
        std::string buffer(static_cast<std::size_t>(size), 'X');
        int result = OLIBCFileGetKeyValue(file_.c_str(), key.c_str(), &buffer[0], size, 0);
        value_ = buffer.c_str();
        return result;
    }
    int Check(const std::string& key, const std::string& value) {
        return OLIBCFileCheckKeyValue(file_.c_str(), key.c_str(), value.c_str(), 0);
    }

    TempDir dir_;
    std::string file_ = dir_ / "info.conf";
    std::string value_;
};

TEST_F(KeyValueTest, QuotedUnquotedCommentsAndLastOccurrence) {
    WriteFile(file_,
              "# farlink_enable_failover=\"commented\"\n"
              "\n"
              "quoted=\"true\"\n"
              "plain=yes\n"
              "  spaced  =  \" padded \"  \r\n"
              "empty=\"\"\n"
              "twice=first\n"
              "twice=\"second\"\n"
              "no_equals_line\n"
              "prefix_key=\"other\"\n"
              "last=\"no newline\"");
    EXPECT_EQ(Get("quoted"), 1);
    EXPECT_EQ(value_, "true");
    EXPECT_EQ(Get("plain"), 1);
    EXPECT_EQ(value_, "yes");
    EXPECT_EQ(Get("spaced"), 1);
    EXPECT_EQ(value_, " padded ");
    EXPECT_EQ(Get("empty"), 1);
    EXPECT_EQ(value_, "");
    EXPECT_EQ(Get("twice"), 1);
    EXPECT_EQ(value_, "second");
    EXPECT_EQ(Get("last"), 1);
    EXPECT_EQ(value_, "no newline");
    EXPECT_EQ(Get("farlink_enable_failover"), 0);
    EXPECT_EQ(value_, "") << "the buffer is terminated when the key is absent";
    EXPECT_EQ(Get("key"), 0) << "a key only matches whole";

    EXPECT_EQ(Check("quoted", "true"), 1);
    EXPECT_EQ(Check("spaced", "padded"), 0);
    EXPECT_EQ(Check("farlink_enable_failover", "true"), 0);
    EXPECT_EQ(OLIBCFileCheckKeyValue(file_.c_str(), "quoted", nullptr, 0), -1);
}

TEST_F(KeyValueTest, UnreadableFilesAndBadArguments) {
    std::string missing = dir_ / "missing";
    char buffer[16] = "untouched";
    EXPECT_EQ(OLIBCFileGetKeyValue(missing.c_str(), "k", buffer, sizeof buffer, 0), -1);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(OLIBCFileGetKeyValue(dir_.Path().c_str(), "k", buffer, sizeof buffer, 0), -1)
        << "a directory is not a readable file";
    EXPECT_EQ(OLIBCFileCheckKeyValue(missing.c_str(), "k", "v", 0), -1);

    WriteFile(file_, "k=v\n");
    EXPECT_EQ(OLIBCFileGetKeyValue(file_.c_str(), "k", buffer, 0, 0), -1);
    EXPECT_EQ(OLIBCFileGetKeyValue(file_.c_str(), "k", nullptr, 16, 0), -1);
    EXPECT_EQ(OLIBCFileGetKeyValue(file_.c_str(), "", buffer, sizeof buffer, 0), -1);
    EXPECT_EQ(OLIBCFileGetKeyValue(file_.c_str(), nullptr, buffer, sizeof buffer, 0), -1);
    EXPECT_EQ(OLIBCFileGetKeyValue(nullptr, "k", buffer, sizeof buffer, 0), -1);
}

TEST_F(KeyValueTest, LongValuesAreTruncatedAndTerminated) {
    WriteFile(file_, "long=\"" + std::string(100, 'a') + "\"\nfit=abc\n");
    EXPECT_EQ(Get("long", 8), 1);
    EXPECT_EQ(value_, "aaaaaaa");
    EXPECT_EQ(Get("fit", 4), 1);
    EXPECT_EQ(value_, "abc");
    EXPECT_EQ(Get("fit", 1), 1);
    EXPECT_EQ(value_, "");
}

TEST_F(KeyValueTest, HugeLinesAndBinaryGarbage) {
    std::string garbage(1 << 20, '\0');
    for (std::size_t i = 0; i < garbage.size(); ++i) {
        garbage[i] = static_cast<char>(i * 7919 % 251);
    }
    WriteFile(file_, garbage + "\nkey=\"after\"\n" + std::string("nul=a\0b\n", 8) +
                         std::string(3 << 20, 'x'));
    EXPECT_EQ(Get("key"), 1);
    EXPECT_EQ(value_, "after");
    EXPECT_EQ(Get("nul"), 1);
    EXPECT_EQ(value_, "a");
    EXPECT_EQ(Get("missing"), 0);
}

}  // namespace
