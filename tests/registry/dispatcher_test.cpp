#include <array>
#include <cstring>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capture_sink.h"
#include "support.h"
#include "update/registry/ipc/dispatcher.h"

namespace {

using namespace update::registry::ipc;
using registry_test::Bytes;
using registry_test::BytesOf;
using ::testing::_;
using ::testing::DoAll;
using ::testing::Return;
using ::testing::SetArgReferee;

class MockRegistry : public IRegistry {
public:
    MOCK_METHOD(int, Open, (PackageType, unsigned int&), (override));
    MOCK_METHOD(int, Close, (unsigned int), (override));
    MOCK_METHOD(int, GetSessions, (std::vector<SessionInfo>&), (const, override));
    MOCK_METHOD(int, GetHandle, (const eka::guid_t&, unsigned int&), (const, override));
    MOCK_METHOD(int, SetState, (unsigned int, UpdateState), (override));
    MOCK_METHOD(int, GetInfo, (unsigned int, SessionInfo&), (const, override));
};

constexpr std::uint16_t kRiid = 3;

template <typename Req>
Req Request(Method method, std::uint32_t sizeWord)
{
    return registry_test::WithHeader<Req>(kRiid, method, sizeWord);
}

nk_handle_desc HandleDesc(std::uint32_t handle) { return {handle, 1, 0xFFFFFFFFu}; }

class DispatcherTest : public logger_test::RootCaptureTest {
protected:
    template <typename Req>
    int Dispatch(const Req& request)
    {
        std::memset(&m_response, 0xCC, sizeof(m_response));
        nk_arena_init(&m_arena, m_arenaBuffer.data(), m_arenaBuffer.size());
        return DispatchRegistry(&m_component, &request.base_, nullptr, &m_response.base_, &m_arena);
    }

    Bytes Response(std::size_t size) const
    {
        const auto* p = reinterpret_cast<const std::uint8_t*>(&m_response);
        return Bytes(p, p + size);
    }

    void ExpectErrorReply(std::uint16_t riid, std::uint16_t mid, std::uint32_t code) const
    {
        EXPECT_EQ(m_response.base_.riid, riid);
        EXPECT_EQ(m_response.base_.mid, mid);
        EXPECT_EQ(m_response.base_.size, 0x80000020u);
        EXPECT_EQ(static_cast<std::uint32_t>(m_response.close.result), code);
        const Bytes rest = Response(sizeof(m_response));
        EXPECT_EQ(Bytes(rest.begin() + 28, rest.end()), Bytes(36, 0));
    }

    MockRegistry m_registry;
    RegistryComponent m_component{&m_registry, kRiid};
    nv_IUpdateRegistry_res m_response{};
    std::array<std::uint8_t, kDispatchArenaSize> m_arenaBuffer{};
    nk_arena m_arena{};
};

TEST_F(DispatcherTest, Open_AnswersHandleDescriptorAndResult)
{
    auto request = Request<nv_IUpdateRegistry_Open_req>(Method::Open, 0x20);
    request.type = 1;
    EXPECT_CALL(m_registry, Open(PackageType::AppList, _)).WillOnce(DoAll(SetArgReferee<1>(7u), Return(0)));
    EXPECT_EQ(Dispatch(request), 0);
    const Bytes expected{3, 0, 0, 0, 0x30, 0, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                         7, 0, 0, 0, 0,    0, 0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(Response(48), expected);
    EXPECT_EQ(nk_arena_used(&m_arena), 0u);
}

TEST_F(DispatcherTest, HandleMethods_TakeLow24BitsOfTheHandle)
{
    auto close = Request<nv_IUpdateRegistry_Close_req>(Method::Close, 0x00800028);
    close.handle = HandleDesc(0x12000005);
    EXPECT_CALL(m_registry, Close(5u)).WillOnce(Return(static_cast<int>(0x8000004Cu)));
    EXPECT_EQ(Dispatch(close), 0);
    EXPECT_EQ(m_response.base_.size, 0x20u);
    EXPECT_EQ(static_cast<std::uint32_t>(m_response.close.result), 0x8000004Cu);

    auto setState = Request<nv_IUpdateRegistry_SetState_req>(Method::SetState, 0x00800030);
    setState.handle = HandleDesc(0x00FFFFFF);
    setState.state = 10;
    EXPECT_CALL(m_registry, SetState(0xFFFFFFFFu, UpdateState::Finished)).WillOnce(Return(0));
    EXPECT_EQ(Dispatch(setState), 0);
    EXPECT_EQ(m_response.base_.size, 0x20u);
    EXPECT_EQ(m_response.setState.result, 0);
}

TEST_F(DispatcherTest, GetInfo_RecordInArenaEvenOnFailure)
{
    auto request = Request<nv_IUpdateRegistry_GetInfo_req>(Method::GetInfo, 0x00800028);
    request.handle = HandleDesc(9);
    SessionInfo info{PackageType::AppList, UpdateState::Verifying, {}, "/s/abc"};
    info.id.bytes[0] = 0xAB;
    EXPECT_CALL(m_registry, GetInfo(9u, _)).WillOnce(DoAll(SetArgReferee<1>(info), Return(0)));
    EXPECT_EQ(Dispatch(request), 0);
    EXPECT_EQ(m_response.base_.size, 0x40u);
    EXPECT_EQ(m_response.getInfo.result, 0);
    EXPECT_EQ(m_response.getInfo.info.type, 1);
    EXPECT_EQ(m_response.getInfo.info.state, 3u);
    EXPECT_EQ(m_response.getInfo.info.id[0], 0xAB);
    EXPECT_EQ(m_response.getInfo.info.path.offset, 0u);
    EXPECT_EQ(m_response.getInfo.info.path.size, 6u);
    EXPECT_EQ(std::string(m_arena.start, m_arena.current), "/s/abc");

    EXPECT_CALL(m_registry, GetInfo(9u, _)).WillOnce(Return(static_cast<int>(0x8000004Cu)));
    EXPECT_EQ(Dispatch(request), 0);
    EXPECT_EQ(static_cast<std::uint32_t>(m_response.getInfo.result), 0x8000004Cu);
    EXPECT_EQ(BytesOf(m_response.getInfo.info), Bytes(32, 0));
    EXPECT_EQ(nk_arena_used(&m_arena), 0u);
}

TEST_F(DispatcherTest, GetInfo_PathLongerThanCallersArenaIsBufferTooSmall)
{
    auto request = Request<nv_IUpdateRegistry_GetInfo_req>(Method::GetInfo, 0x00800028);
    const SessionInfo info{PackageType::Product, UpdateState::Created, {}, std::string(kGetInfoArenaSize + 1, 'p')};
    EXPECT_CALL(m_registry, GetInfo).WillOnce(DoAll(SetArgReferee<1>(info), Return(0)));
    EXPECT_EQ(Dispatch(request), 0);
    EXPECT_EQ(static_cast<std::uint32_t>(m_response.getInfo.result), 0x80000044u);
    EXPECT_EQ(nk_arena_used(&m_arena), 0u);
}

TEST_F(DispatcherTest, GetSessions_RecordsThenPathsAndOverflow)
{
    const auto request = Request<nv_IUpdateRegistry_GetSessions_req>(Method::GetSessions, 0x18);
    const std::vector<SessionInfo> two{{PackageType::Product, UpdateState::Created, {}, "a"},
                                       {PackageType::AppList, UpdateState::Finished, {}, "bc"}};
    EXPECT_CALL(m_registry, GetSessions).WillOnce(DoAll(SetArgReferee<0>(two), Return(0)));
    EXPECT_EQ(Dispatch(request), 0);
    EXPECT_EQ(m_response.base_.size, 0x28u);
    EXPECT_EQ(m_response.getSessions.sessions.offset, 0u);
    EXPECT_EQ(m_response.getSessions.sessions.size, 64u);
    ASSERT_EQ(nk_arena_used(&m_arena), 67u);
    nv_IUpdateRegistry_SessionInfo second;
    std::memcpy(&second, m_arena.start + 32, 32);
    EXPECT_EQ(second.type, 1);
    EXPECT_EQ(second.state, 10u);
    EXPECT_EQ(second.path.offset, 65u);
    EXPECT_EQ(second.path.size, 2u);
    EXPECT_EQ(std::string(m_arena.start + 64, m_arena.start + 67), "abc");

    // 8,256 bytes hold 64 records with 97-byte paths, not 65.
    const std::vector<SessionInfo> many(65, {PackageType::Product, UpdateState::Created, {}, std::string(97, 'x')});
    EXPECT_CALL(m_registry, GetSessions).WillOnce(DoAll(SetArgReferee<0>(many), Return(0)));
    EXPECT_EQ(Dispatch(request), 0);
    EXPECT_EQ(static_cast<std::uint32_t>(m_response.getSessions.result), 0x80000044u);
    EXPECT_EQ(m_response.getSessions.sessions.size, 0u);
    EXPECT_EQ(nk_arena_used(&m_arena), 0u);
}

TEST_F(DispatcherTest, Dispatch_MalformedRequestsGetErrorReply)
{
    auto wrongSize = Request<nv_IUpdateRegistry_Close_req>(Method::Close, 0x28);  // handle flag missing
    EXPECT_EQ(Dispatch(wrongSize), -2);
    ExpectErrorReply(kRiid, 1, 0x80000046u);

    auto shortOpen = Request<nv_IUpdateRegistry_Open_req>(Method::Open, 0x18);
    EXPECT_EQ(Dispatch(shortOpen), -2);
    ExpectErrorReply(kRiid, 0, 0x80000046u);

    auto unknownMethod = Request<nv_IUpdateRegistry_Close_req>(static_cast<Method>(6), 0x00800028);
    EXPECT_EQ(Dispatch(unknownMethod), -2);
    ExpectErrorReply(kRiid, 6, 0x80000057u);

    auto otherRiid = Request<nv_IUpdateRegistry_Close_req>(Method::Close, 0x00800028);
    otherRiid.base_.riid = 4;
    EXPECT_EQ(Dispatch(otherRiid), -2);
    ExpectErrorReply(4, 1, 0x80000046u);
}

TEST_F(DispatcherTest, Dispatch_RegistryExceptionBecomesLoggedResult)
{
    auto request = Request<nv_IUpdateRegistry_Close_req>(Method::Close, 0x00800028);
    EXPECT_CALL(m_registry, Close).WillOnce([](unsigned int) -> int { throw std::runtime_error("disk gone"); });
    EXPECT_EQ(Dispatch(request), 0);
    EXPECT_EQ(static_cast<std::uint32_t>(m_response.close.result), 0x8000004Bu);
    const auto records = m_sink->Take();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, ": disk gone ; detailed: exception during Close");
}

}  // namespace
