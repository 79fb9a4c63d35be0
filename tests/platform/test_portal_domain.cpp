#include <gtest/gtest.h>
#include <orvo/core.h>
#include <orvo/paths.h>

#include "test_helpers.h"

namespace {

using platform_test::WriteFile;

class PortalDomainTest : public platform_test::PrivateRootTest {
protected:
    int Get(int size = 64) {
        std::string buffer(static_cast<std::size_t>(size), 'X');
        int result = OLIBRelaydGetPortalDomain(&buffer[0], size);
        domain_ = buffer.c_str();
        return result;
    }
    std::string domain_;
};

TEST_F(PortalDomainTest, ReadsAndTruncates) {
    WriteFile(
        ORVO::Paths::kRelaydConf,
        R"({"server_control": {"host": "cnc.farlink.test", "portal_domain": "farlink.test"}})");
    EXPECT_EQ(Get(), 0);
    EXPECT_EQ(domain_, "farlink.test");
    EXPECT_EQ(Get(5), 0);
    EXPECT_EQ(domain_, "farl");
    EXPECT_EQ(OLIBRelaydGetPortalDomain(nullptr, 10), -1);
}

TEST_F(PortalDomainTest, UnusableConfigurations) {
    EXPECT_EQ(Get(), -1) << "no file";
    EXPECT_EQ(domain_, "");
    for (const std::string& text :
         {std::string("not json"), std::string("[1, 2]"), std::string(R"({"server_control": 3})"),
          std::string(R"({"server_control": {}})"),
          std::string(R"({"server_control": {"portal_domain": 42}})"),
          std::string(100000, '[') + std::string(100000, ']')}) {
        WriteFile(ORVO::Paths::kRelaydConf, text);
        EXPECT_EQ(Get(), -1) << text.substr(0, 60);
        EXPECT_EQ(domain_, "");
    }
}

}  // namespace
