#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include "fake_platform.h"
#include "vantor_logger/nvlog_record.h"
#include "vantor_logger/nvlog_sink.h"

namespace {

namespace nvlog = nos::logger::nvlog;
using logger_test::FakePlatform;

std::uint64_t Le(const std::vector<std::uint8_t>& bytes, std::size_t offset, std::size_t size)
{
    return nvlog::LoadLe(bytes.data() + offset, size);
}

TEST(NvlogRecordTest, EncodeRecord_Layout)
{
    std::array<std::uint8_t, nvlog::kRecordSize> record;
    record.fill(0xAA);
    nvlog::EncodeRecord(record, 0x0102030405060708, "line\n");
    const std::uint8_t expectedHead[] = {
        0, 0, 0, 0, 0, 0, 0, 0,              // reserved
        8, 7, 6, 5, 4, 3, 2, 1,              // time, little-endian
        0, 0, 0, 0,                          // 0
        100, 0, 0, 0,                        // 100
        'l', 'i', 'n', 'e', '\n', 0,         // text and its NUL
    };
    EXPECT_EQ(std::memcmp(record.data(), expectedHead, sizeof(expectedHead)), 0);
    for (std::size_t i = sizeof(expectedHead); i < record.size(); ++i)
        ASSERT_EQ(record[i], 0) << "byte " << i;
}

TEST(NvlogRecordTest, EncodeRecord_NegativeTimeIsZero)
{
    std::array<std::uint8_t, nvlog::kRecordSize> record;
    nvlog::EncodeRecord(record, -5, "");
    EXPECT_EQ(nvlog::LoadLe(record.data() + nvlog::kTimeOffset, 8), 0u);
    EXPECT_EQ(record[nvlog::kTextOffset], 0);
}

TEST(NvlogRecordTest, EncodeRecord_CutAt4095)
{
    struct Case {
        std::size_t length;
        std::size_t kept;
    };
    for (const Case c : {Case{4094, 4094}, Case{4095, 4095}, Case{4096, 4095}, Case{10000, 4095}}) {
        std::array<std::uint8_t, nvlog::kRecordSize> record;
        const std::string text(c.length, 'x');
        nvlog::EncodeRecord(record, 1, text);
        const std::string_view kept(reinterpret_cast<const char*>(record.data() + nvlog::kTextOffset), c.kept);
        EXPECT_EQ(kept, std::string(c.kept, 'x')) << c.length;
        EXPECT_EQ(record[nvlog::kTextOffset + c.kept], 0) << c.length;
        EXPECT_EQ(record[4119], 0) << c.length;
    }
}

class NvlogSinkTest : public ::testing::Test {
protected:
    void SetUp() override { FakePlatform::Get().Reset(); }

    std::shared_ptr<spdlog::logger> MakeLogger()
    {
        auto context = nos::logger::NvlogStorageContextRAII::Connect();
        EXPECT_NE(context, nullptr);
        auto logger = std::make_shared<spdlog::logger>("verifier", std::make_shared<nos::logger::NvlogSink>(context));
        logger->set_level(spdlog::level::trace);
        return logger;
    }

    static spdlog::source_loc Main() { return {"entities/updater_pdk/verifier/src/main", 48, "main"}; }

    static std::string Prefix(const char* level)
    {
        return "[verifier][" + std::string(level) + "][main:48][" + std::to_string(getpid()) + ":" +
               std::to_string(gettid()) + "] ";
    }
};

TEST_F(NvlogSinkTest, SinkIt_SendsRecordByteByByte)
{
    auto logger = MakeLogger();
    const auto before = std::chrono::system_clock::now();
    logger->log(Main(), spdlog::level::info, "{}", "Entity started");
    const auto after = std::chrono::system_clock::now();

    const auto calls = FakePlatform::Get().TakeCalls();
    ASSERT_EQ(calls.size(), 1u);
    const logger_test::TransportCall& call = calls[0];
    EXPECT_EQ(call.handle, logger_test::kStorageHandle);

    // Request: header with riid 7, method 0, size 32; descriptor (0, 4120).
    ASSERT_EQ(call.request.size(), 32u);
    EXPECT_EQ(Le(call.request, 0, 2), 7u);
    EXPECT_EQ(Le(call.request, 2, 2), 0u);
    EXPECT_EQ(call.requestSizeWord, 32u);
    EXPECT_EQ(Le(call.request, 24, 4), 0u);
    EXPECT_EQ(Le(call.request, 28, 4), 4120u);
    EXPECT_EQ(call.responseSizeWord, 32u);
    EXPECT_TRUE(call.responseArenaNull);

    // Arena: the whole record, filled to its end.
    ASSERT_EQ(call.arena.size(), 4120u);
    EXPECT_EQ(call.arenaCapacity, 4120u);
    const auto seconds = [](auto t) {
        return std::chrono::duration_cast<std::chrono::seconds>(t.time_since_epoch()).count();
    };
    const auto time = static_cast<std::int64_t>(Le(call.arena, 8, 8));
    EXPECT_GE(time, seconds(before));
    EXPECT_LE(time, seconds(after));
    EXPECT_EQ(Le(call.arena, 16, 4), 0u);
    EXPECT_EQ(Le(call.arena, 20, 4), 100u);
    const std::string expected = Prefix("info") + "Entity started\n";
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(call.arena.data() + 24)), expected);
    for (std::size_t i = 24 + expected.size(); i < 4120; ++i)
        ASSERT_EQ(call.arena[i], 0) << "byte " << i;
}

TEST_F(NvlogSinkTest, SinkIt_LevelNamesAndControlCharacters)
{
    auto logger = MakeLogger();
    logger->log(Main(), spdlog::level::warn, "{}", "a\x1b[92mOK\x1b[0m\tb");
    logger->log(Main(), spdlog::level::critical, "{}", "c");
    const auto calls = FakePlatform::Get().TakeCalls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(calls[0].arena.data() + 24)),
              Prefix("warning") + "a\x1b[92mOK\x1b[0m\tb\n");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(calls[1].arena.data() + 24)), Prefix("critical") + "c\n");
}

TEST_F(NvlogSinkTest, SinkIt_CutsLineAt4095Bytes)
{
    auto logger = MakeLogger();
    const std::size_t prefix = Prefix("info").size();
    // Formatted lengths (line end included) of 4095 and 4096 bytes.
    const std::string fits(4095 - prefix - 1, 'a');
    const std::string over(4096 - prefix - 1, 'b');
    logger->log(Main(), spdlog::level::info, "{}", fits);
    logger->log(Main(), spdlog::level::info, "{}", over);
    const auto calls = FakePlatform::Get().TakeCalls();
    ASSERT_EQ(calls.size(), 2u);

    const std::string whole = Prefix("info") + fits + "\n";
    ASSERT_EQ(whole.size(), 4095u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(calls[0].arena.data() + 24)), whole);
    EXPECT_EQ(calls[0].arena[4119], 0);

    const std::string cut = (Prefix("info") + over).substr(0, 4095);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(calls[1].arena.data() + 24)), cut);
    EXPECT_EQ(calls[1].arena[4118], 'b');
    EXPECT_EQ(calls[1].arena[4119], 0);
}

TEST_F(NvlogSinkTest, SinkIt_SendFailureIsDropped)
{
    auto logger = MakeLogger();
    FakePlatform::Get().callResult = NK_EPIPE;
    EXPECT_NO_THROW(logger->log(Main(), spdlog::level::info, "{}", "lost"));
    EXPECT_EQ(FakePlatform::Get().TakeCalls().size(), 1u);
}

TEST_F(NvlogSinkTest, SinkIt_ThreadsNeverInterleaveInsideRecord)
{
    auto logger = MakeLogger();
    constexpr int kThreads = 4;
    constexpr int kRecords = 50;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&logger, t] {
            const std::string text(300, static_cast<char>('a' + t));
            for (int i = 0; i < kRecords; ++i)
                logger->log(Main(), spdlog::level::info, "{}", text);
        });
    }
    for (auto& thread : threads)
        thread.join();
    const auto calls = FakePlatform::Get().TakeCalls();
    ASSERT_EQ(calls.size(), static_cast<std::size_t>(kThreads * kRecords));
    for (const auto& call : calls) {
        const std::string line(reinterpret_cast<const char*>(call.arena.data() + 24));
        const std::string tail = line.substr(line.find("] ", line.find(":48]")) + 2);
        ASSERT_EQ(tail.size(), 301u);
        EXPECT_EQ(tail, std::string(300, tail[0]) + "\n");
    }
}

TEST_F(NvlogSinkTest, Connect_AbsentStorageGivesNull)
{
    FakePlatform& p = FakePlatform::Get();
    p.channelPresent = false;
    EXPECT_EQ(nos::logger::NvlogStorageContextRAII::Connect(), nullptr);
    p.channelPresent = true;
    p.endpointPresent = false;
    EXPECT_EQ(nos::logger::NvlogStorageContextRAII::Connect(), nullptr);
    EXPECT_EQ(p.closes, 1);  // the channel without the endpoint is let go
    p.endpointPresent = true;
    auto context = nos::logger::NvlogStorageContextRAII::Connect();
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(context->riid(), 7u);
}

}  // namespace
