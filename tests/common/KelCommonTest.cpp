#include <KEL/KELLogger.h>
#include <KelCommon/Guid.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <random>
#include <regex>
#include <string>
#include <thread>

#include "support/Interleaving.h"

using KelCommon::Guid;

// Random GUIDs, written out by hand, and those texts with one character
// deleted, inserted or replaced. The model of a valid text: 8-4-4-4-12
// hexadecimal digits in either case, optionally in braces.
TEST(Guid, GeneratedTextsParseExactlyWhenTheyAreWellFormed) {
    const std::regex form("\\{?[0-9A-Fa-f]{8}(-[0-9A-Fa-f]{4}){3}-[0-9A-Fa-f]{12}\\}?");
    auto cased = [](std::string t, int (*to)(int)) {
        std::transform(t.begin(), t.end(), t.begin(), [&](unsigned char c) { return static_cast<char>(to(c)); });
        return t;
    };
    std::mt19937 rng(17);
    for (int round = 0; round < 500; ++round) {
        std::array<std::uint8_t, Guid::kSize> bytes{};
        std::string text;
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = static_cast<std::uint8_t>(rng() % (round < 8 ? 2 : 256));  // a few near the null GUID
            text += std::string(i == 4 || i == 6 || i == 8 || i == 10 ? "-" : "") + "0123456789ABCDEF"[bytes[i] >> 4] +
                    "0123456789ABCDEF"[bytes[i] & 15];
        }
        const Guid guid(bytes);
        EXPECT_EQ(guid.ToString(), text);
        EXPECT_EQ(guid.IsNull(), std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t b) { return b == 0; }));
        EXPECT_EQ(Guid::FromHexString("{" + text + "}"), guid);

        const std::string whole = round % 2 == 0 ? text : "{" + cased(text, std::tolower) + "}";
        const std::size_t at = rng() % whole.size();
        const std::string c(1, "0123456789abcdefABCDEFgG-{} "[rng() % 28]);
        const auto how = rng() % 3;  // delete, insert or replace
        const std::string mutated = whole.substr(0, at) + (how == 0 ? "" : c) + whole.substr(at + (how == 1 ? 0 : 1));
        const bool valid = std::regex_match(mutated, form) && (mutated.front() == '{') == (mutated.back() == '}');
        EXPECT_EQ(Guid::TryParse(mutated).has_value(), valid) << mutated;
        try {
            std::string bare = cased(mutated, std::toupper);
            std::erase_if(bare, [](char ch) { return ch == '{' || ch == '}'; });
            EXPECT_EQ(Guid::FromHexString(mutated).ToString(), bare);
            EXPECT_TRUE(valid) << "accepted " << mutated;
        } catch (const KelCommon::GuidParseError& e) {
            EXPECT_FALSE(valid) << "refused " << mutated;
            EXPECT_NE(std::string(e.what()).find("not a GUID: '" + mutated + "'"), std::string::npos) << e.what();
        }
    }
}

TEST(Logger, RemovingASinkWaitsForACallUnderWayOnAnotherThread) {
    auto logger = KEL::GetKELLoggerInstance().lock();
    ASSERT_TRUE(logger);
    kel_test::Gate gate;
    std::atomic<bool> returned{false};
    const int handle = logger->AddSink([&](const KelCommon::LogRecord& record) {
        if (record.tag == "SinkRace") {
            gate.Pass();
            returned = true;
        }
    });
    kel_test::Completion writer([&] { logger->LogMessage(6, "SinkRace", "held in the sink"); });
    gate.WaitEntered(1);
    kel_test::Completion remover([&] { logger->RemoveSink(handle); });
    // Whatever the sink uses may be destroyed once RemoveSink returns.
    EXPECT_TRUE(remover.Held());
    gate.Open();
    remover.Wait();
    EXPECT_TRUE(returned.load());
    writer.Wait();
}
