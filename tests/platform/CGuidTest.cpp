#include "platform/util/CGuid.h"

#include "platform/string/String.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <thread>
#include <vector>

namespace VEQ {
namespace {

TEST(CGuidTest, IsAVersion4GuidInTheRequestedCase)
{
    struct Row {
        bool upperCase;
        const char* pattern;
    };
    for (const Row& row : {Row{true, "[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}"},
                           Row{false, "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"}}) {
        const std::regex format(row.pattern);
        for (int n = 0; n < 200; ++n) {
            const std::string guid = String::UTF16ToUTF8(Utility::CGuid::NewGuid(row.upperCase));
            ASSERT_TRUE(std::regex_match(guid, format)) << guid << (row.upperCase ? " upper" : " lower");
        }
    }
}

TEST(CGuidTest, ManyThreadsNeverDrawTheSameGuid)
{
    constexpr int kThreads = 4;
    constexpr int kEach = 2000;
    std::vector<std::vector<std::wstring>> drawn(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&drawn, t] {
            for (int n = 0; n < kEach; ++n) {
                drawn[t].push_back(Utility::CGuid::NewGuid(true));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    std::set<std::wstring> unique;
    for (const auto& list : drawn) {
        unique.insert(list.begin(), list.end());
    }
    EXPECT_EQ(unique.size(), static_cast<size_t>(kThreads * kEach));
}

}  // namespace
}  // namespace VEQ
