// The proxy against a scripted server on the host platform: exact request
// bytes, decoding, and every kind of bad answer.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "capture_sink.h"
#include "eka/exception.h"
#include "eka/text.h"
#include "support.h"
#include "update/registry/ipc/proxy.h"

namespace {

using namespace update::registry::ipc;
using registry_test::Bytes;
using registry_test::BytesOf;
using registry_test::ScriptedReply;

constexpr const char* kChannel = "scripted_registry";
constexpr const char* kEndpoint = "UpdateRegistry.UpdateRegistry";
constexpr std::uint16_t kRiid = 1;  // the registry endpoint is the second one

template <typename Res>
Res Answer(Method method, std::uint32_t sizeWord)
{
    return registry_test::WithHeader<Res>(kRiid, method, sizeWord);
}

nv_IUpdateRegistry_Open_res OpenAnswer(std::uint32_t handleField, std::uint32_t result)
{
    auto response = Answer<nv_IUpdateRegistry_Open_res>(Method::Open, 0x00800030);
    response.handle = {handleField, 0, 0};
    response.result = static_cast<std::int32_t>(result);
    return response;
}

nv_IUpdateRegistry_SessionInfo Record(std::uint8_t type, std::uint32_t state, std::uint32_t offset, std::uint32_t size,
                                      std::uint8_t idFill = 0)
{
    nv_IUpdateRegistry_SessionInfo record{};
    record.type = type;
    record.state = state;
    std::memset(record.id, idFill, sizeof(record.id));
    record.path = {offset, size};
    return record;
}

// An answer without arena bytes.
template <typename Res>
ScriptedReply Plain(const Res& response)
{
    return {BytesOf(response), {}, false};
}

// A GetSessions answer with `records` at the arena's start, then `text`.
ScriptedReply SessionsAnswer(const std::vector<nv_IUpdateRegistry_SessionInfo>& records, const std::string& text,
                             nk_arena_desc sequence, std::uint32_t result = 0, std::size_t arenaSize = 0)
{
    auto response = Answer<nv_IUpdateRegistry_GetSessions_res>(Method::GetSessions, 0x28);
    response.sessions = sequence;
    response.result = static_cast<std::int32_t>(result);
    Bytes arena;
    for (const auto& r : records) {
        const Bytes b = BytesOf(r);
        arena.insert(arena.end(), b.begin(), b.end());
    }
    arena.insert(arena.end(), text.begin(), text.end());
    arena.resize(std::max(arena.size(), arenaSize));
    return {BytesOf(response), arena, false};
}

ScriptedReply InfoAnswer(const nv_IUpdateRegistry_SessionInfo& record, const std::string& text,
                         std::uint32_t result = 0, std::size_t arenaSize = 0)
{
    auto response = Answer<nv_IUpdateRegistry_GetInfo_res>(Method::GetInfo, 0x40);
    response.info = record;
    response.result = static_cast<std::int32_t>(result);
    Bytes arena(text.begin(), text.end());
    arena.resize(std::max(arena.size(), arenaSize));
    return {BytesOf(response), arena, false};
}

// Header bytes as the wire has them, then the body.
Bytes Message(std::uint8_t mid, std::uint32_t sizeWord, const Bytes& body)
{
    Bytes m{kRiid, 0, mid, 0};
    for (int i = 0; i < 4; ++i)
        m.push_back(static_cast<std::uint8_t>(sizeWord >> (8 * i)));
    m.resize(24, 0);
    m.insert(m.end(), body.begin(), body.end());
    return m;
}

const Bytes kHandle42Desc{0x42, 0, 0, 0, 1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0};

class ProxyScriptedTest : public registry_test::InRuntimeDir<logger_test::RootCaptureTest> {
protected:
    void SetUp() override
    {
        RootCaptureTest::SetUp();
        m_server = std::make_unique<registry_test::ScriptedServer>(kChannel,
                                                                   std::vector<std::string>{"Other.Other", kEndpoint});
        m_proxy = CreateProxy(kChannel, kEndpoint);
        m_sink->Take();
    }

    // The one line the failed call logged.
    void ExpectLogged(const std::string& text)
    {
        const auto records = m_sink->Take();
        ASSERT_EQ(records.size(), 1u) << text;
        EXPECT_EQ(records[0].level, spdlog::level::err);
        EXPECT_EQ(records[0].text, text);
    }

    std::unique_ptr<registry_test::ScriptedServer> m_server;
    std::unique_ptr<IRegistry> m_proxy;
};

TEST_F(ProxyScriptedTest, Calls_SendExactRequestsAndReadAnswers)
{
    m_server->Push(Plain(OpenAnswer(0x11, 0)));
    auto closed = Answer<nv_IUpdateRegistry_Close_res>(Method::Close, 0x20);
    closed.result = 1;
    m_server->Push(Plain(closed));
    m_server->Push(SessionsAnswer({}, "", {0, 0}));
    auto found = Answer<nv_IUpdateRegistry_GetHandle_res>(Method::GetHandle, 0x00800030);
    found.handle = {0x22, 0, 0};
    m_server->Push(Plain(found));
    auto stateSet = Answer<nv_IUpdateRegistry_SetState_res>(Method::SetState, 0x20);
    m_server->Push(Plain(stateSet));
    m_server->Push(InfoAnswer(Record(1, 4, 0, 3, 0xAA), "p/q"));

    unsigned int handle = 0;
    EXPECT_EQ(m_proxy->Open(PackageType::AppList, handle), 0);
    EXPECT_EQ(handle, 0x11u);
    EXPECT_EQ(m_proxy->Close(0x42), 1);
    std::vector<SessionInfo> sessions(2);
    EXPECT_EQ(m_proxy->GetSessions(sessions), 0);
    EXPECT_TRUE(sessions.empty());
    eka::guid_t id;
    for (std::uint8_t i = 0; i < 16; ++i)
        id.bytes[i] = i;
    EXPECT_EQ(m_proxy->GetHandle(id, handle), 0);
    EXPECT_EQ(handle, 0x22u);
    EXPECT_EQ(m_proxy->SetState(0x42, UpdateState::Verified), 0);
    SessionInfo info;
    EXPECT_EQ(m_proxy->GetInfo(0x42, info), 0);
    eka::guid_t aa;
    aa.bytes.fill(0xAA);
    EXPECT_EQ(info, (SessionInfo{PackageType::AppList, UpdateState::Verified, aa, "p/q"}));

    const std::vector<Bytes> requests = m_server->TakeRequests();
    ASSERT_EQ(requests.size(), 6u);
    EXPECT_EQ(requests[0], Message(0, 0x20, {1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(requests[1], Message(1, 0x00800028, kHandle42Desc));
    EXPECT_EQ(requests[2], Message(2, 0x18, {}));
    EXPECT_EQ(requests[3], Message(3, 0x28, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}));
    Bytes setStateBody = kHandle42Desc;
    setStateBody.insert(setStateBody.end(), {4, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(requests[4], Message(4, 0x00800030, setStateBody));
    EXPECT_EQ(requests[5], Message(5, 0x00800028, kHandle42Desc));
    EXPECT_TRUE(m_sink->Take().empty());
}

TEST_F(ProxyScriptedTest, OpenGetHandle_HandleIsLow24BitsEvenOnFailure)
{
    struct Case {
        std::uint32_t field;
        std::uint32_t result;
        unsigned int handle;
    };
    const Case cases[] = {
        {0x00FFFFFF, 0, 0xFFFFFFFF},
        {0xFFFFFFFF, 0, 0xFFFFFFFF},
        {0x12345678, 0, 0x00345678},
        {0x00000000, 0, 0},
        {0x00000009, 0x8000004C, 9},
    };
    for (const Case& c : cases) {
        m_server->Push(Plain(OpenAnswer(c.field, c.result)));
        auto found = Answer<nv_IUpdateRegistry_GetHandle_res>(Method::GetHandle, 0x00800030);
        found.handle = {c.field, 0, 0};
        found.result = static_cast<std::int32_t>(c.result);
        m_server->Push(Plain(found));
        unsigned int opened = 1;
        unsigned int looked = 1;
        EXPECT_EQ(static_cast<std::uint32_t>(m_proxy->Open(PackageType::Product, opened)), c.result);
        EXPECT_EQ(static_cast<std::uint32_t>(m_proxy->GetHandle(eka::guid_t{}, looked)), c.result);
        EXPECT_EQ(opened, c.handle) << std::hex << c.field;
        EXPECT_EQ(looked, c.handle) << std::hex << c.field;
    }
    EXPECT_TRUE(m_sink->Take().empty());
}

TEST_F(ProxyScriptedTest, GetSessions_DecodesRecordsAtAnyOffset)
{
    // Records at offset 4 (unaligned), paths after them.
    Bytes pad(4, 0xEE);
    auto reply = SessionsAnswer({Record(0, 0, 68, 1, 1), Record(1, 10, 69, 2, 2)}, "abc", {4, 64}, 0);
    reply.arena.insert(reply.arena.begin(), pad.begin(), pad.end());
    m_server->Push(reply);
    std::vector<SessionInfo> sessions;
    ASSERT_EQ(m_proxy->GetSessions(sessions), 0);
    ASSERT_EQ(sessions.size(), 2u);
    EXPECT_EQ(sessions[0].type, PackageType::Product);
    EXPECT_EQ(sessions[0].path, "a");
    EXPECT_EQ(sessions[0].id.bytes[15], 1);
    EXPECT_EQ(sessions[1].type, PackageType::AppList);
    EXPECT_EQ(sessions[1].state, UpdateState::Finished);
    EXPECT_EQ(sessions[1].path, "bc");
}

TEST_F(ProxyScriptedTest, GetSessions_GarbageGivesCodeAndLogLine)
{
    const std::string during = " ; detailed: exception during: GetSessions";
    struct Case {
        const char* name;
        ScriptedReply reply;
        std::uint32_t code;
        std::string line;
        std::size_t left;  // sessions in the vector afterwards
    };
    const Case cases[] = {
        {"size 33", SessionsAnswer({Record(0, 0, 0, 0)}, "x", {0, 33}), 0x80000151,
         ": cannot get sessions from arena" + during, 3},
        {"sequence past the arena", SessionsAnswer({}, "", {8225, 32}, 0, 8256), 0x80000151,
         ": cannot get sessions from arena" + during, 3},
        {"offset wraps", SessionsAnswer({}, "", {0xFFFFFFFF, 32}), 0x80000151,
         ": cannot get sessions from arena" + during, 3},
        {"second type out of range", SessionsAnswer({Record(1, 0, 0, 0), Record(7, 0, 0, 0)}, "", {0, 64}),
         0x80000151, ": invalid package type: 7" + during, 1},
        {"state out of range", SessionsAnswer({Record(1, 11, 0, 0)}, "", {0, 32}), 0x80000151,
         ": invalid update state: 11" + during, 0},
        {"path outside the arena", SessionsAnswer({Record(1, 1, 8200, 57)}, "", {0, 32}, 0, 8256), 0x8000004B,
         ": nos_ipc::StringFromArena(): Failed to acquire string from arena ; detailed: exception during GetSessions",
         0},
        {"arena larger than offered", SessionsAnswer({}, "", {0, 0}, 0, 8257), 0x80000151,
         ": transport fail: -7" + during, 3},
    };
    for (const Case& c : cases) {
        m_server->Push(c.reply);
        std::vector<SessionInfo> sessions(3, SessionInfo{PackageType::AppList, UpdateState::Installed, {}, "old"});
        EXPECT_EQ(static_cast<std::uint32_t>(m_proxy->GetSessions(sessions)), c.code) << c.name;
        EXPECT_EQ(sessions.size(), c.left) << c.name;
        if (c.left == 3) {
            EXPECT_EQ(sessions[0].path, "old") << c.name;
        }
        ExpectLogged(c.line);
    }
    // The largest arena the call offers is accepted.
    m_server->Push(SessionsAnswer({Record(0, 0, 8255, 1)}, "", {0, 32}, 0, 8256));
    std::vector<SessionInfo> sessions;
    EXPECT_EQ(m_proxy->GetSessions(sessions), 0);
    ASSERT_EQ(sessions.size(), 1u);
    EXPECT_EQ(sessions[0].path, std::string(1, '\0'));
}

TEST_F(ProxyScriptedTest, GetInfo_OverwritesInfoBeforeResult)
{
    const SessionInfo old{PackageType::AppList, UpdateState::Installed, {}, "old"};
    m_server->Push(InfoAnswer(Record(0, 0, 0, 0), "", 0x8000004C));
    SessionInfo info = old;
    EXPECT_EQ(static_cast<std::uint32_t>(m_proxy->GetInfo(0x42, info)), 0x8000004Cu);
    EXPECT_EQ(info, SessionInfo{});
    EXPECT_TRUE(m_sink->Take().empty());

    // The whole offered arena: a path that ends on its last byte.
    m_server->Push(InfoAnswer(Record(1, 2, 4090, 6), std::string(4090, '.') + "abcdef"));
    EXPECT_EQ(m_proxy->GetInfo(1, info), 0);
    EXPECT_EQ(info.path, "abcdef");
}

TEST_F(ProxyScriptedTest, GetInfo_GarbageLeavesInfoAlone)
{
    const std::string during = " ; detailed: exception during: GetInfo";
    struct Case {
        const char* name;
        ScriptedReply reply;
        std::uint32_t code;
        std::string line;
    };
    const Case cases[] = {
        {"type 2", InfoAnswer(Record(2, 11, 0, 0), ""), 0x80000151, ": invalid package type: 2" + during},
        {"state 11", InfoAnswer(Record(1, 11, 0, 0), ""), 0x80000151, ": invalid update state: 11" + during},
        {"path one byte over", InfoAnswer(Record(1, 1, 4090, 7), "", 0, 4096), 0x8000004B,
         ": nos_ipc::StringFromArena(): Failed to acquire string from arena ; detailed: exception during GetInfo"},
        {"arena larger than offered", InfoAnswer(Record(1, 1, 0, 0), "", 0, 4097), 0x80000151,
         ": transport fail: -7" + during},
    };
    for (const Case& c : cases) {
        m_server->Push(c.reply);
        const SessionInfo old{PackageType::AppList, UpdateState::Installed, {}, "old"};
        SessionInfo info = old;
        EXPECT_EQ(static_cast<std::uint32_t>(m_proxy->GetInfo(1, info)), c.code) << c.name;
        EXPECT_EQ(info, old) << c.name;
        ExpectLogged(c.line);
    }
}

TEST_F(ProxyScriptedTest, Calls_ErrorAndShortRepliesFail)
{
    auto error = Answer<nv_IUpdateRegistry_Close_res>(Method::Open, 0x80000020);
    error.result = static_cast<std::int32_t>(0x80000057u);
    m_server->Push(Plain(error));
    unsigned int handle = 5;
    EXPECT_EQ(static_cast<std::uint32_t>(m_proxy->Open(PackageType::Product, handle)), 0x80000057u);
    EXPECT_EQ(handle, 5u);
    ExpectLogged(": error reply: 0x80000057 (Method not found) ; detailed: exception during: Open");

    error.result = 0;
    m_server->Push(Plain(error));
    EXPECT_EQ(static_cast<std::uint32_t>(m_proxy->Close(1)), 0x80000071u);
    ExpectLogged(": error reply: 0x80000071 (Invalid result) ; detailed: exception during: Close");

    m_server->Push(Plain(Answer<nv_IUpdateRegistry_Close_res>(Method::SetState, 0x18)));
    EXPECT_EQ(static_cast<std::uint32_t>(m_proxy->SetState(1, UpdateState::Created)), 0x80000151u);
    ExpectLogged(": short reply: 24 ; detailed: exception during: SetState");
}

TEST_F(ProxyScriptedTest, Calls_ClosedConnectionIsTransportFailure)
{
    // Nothing scripted: the server drops the caller without an answer.
    unsigned int handle = 5;
    EXPECT_EQ(static_cast<std::uint32_t>(m_proxy->Open(PackageType::Product, handle)), 0x80000151u);
    EXPECT_EQ(handle, 5u);
    ExpectLogged(": transport fail: -32 ; detailed: exception during: Open");
    // The connection stays broken; the call still answers with a code.
    SessionInfo info;
    EXPECT_EQ(static_cast<std::uint32_t>(m_proxy->GetInfo(1, info)), 0x80000151u);
    ExpectLogged(": transport fail: -32 ; detailed: exception during: GetInfo");
}

TEST_F(ProxyScriptedTest, Calls_OutOfRangeArgumentNeverReachesTransport)
{
    EXPECT_EQ(static_cast<std::uint32_t>(m_proxy->SetState(1, static_cast<UpdateState>(11))), 0x80000151u);
    ExpectLogged(": invalid update state: 11 ; detailed: exception during: SetState");
    unsigned int handle = 5;
    EXPECT_EQ(static_cast<std::uint32_t>(m_proxy->Open(static_cast<PackageType>(2), handle)), 0x80000151u);
    EXPECT_EQ(handle, 5u);
    ExpectLogged(": invalid package type: 2 ; detailed: exception during: Open");
    EXPECT_TRUE(m_server->TakeRequests().empty());
}

TEST_F(ProxyScriptedTest, CreateProxy_AbsentServerOrEndpointThrows)
{
    struct Case {
        const char* connection;
        const char* endpoint;
        std::string description;
        int line;
    };
    const Case cases[] = {
        {"no_such_registry", kEndpoint, "invalid handle", 27},
        {kChannel, "UpdateRegistry.Other", "invalid riid", 30},
    };
    for (const Case& c : cases) {
        try {
            CreateProxy(c.connection, c.endpoint);
            ADD_FAILURE() << c.description << ": built";
        } catch (const eka::ResultCodeException& e) {
            EXPECT_EQ(static_cast<std::uint32_t>(e.result()), 0x80000071u);
            EXPECT_EQ(eka::text::Utf16ToUtf8(e.description()), c.description);
            EXPECT_STREQ(e.file(), "shared/common/utils/proxy_base");
            EXPECT_EQ(e.line(), c.line);
        }
        const auto records = m_sink->Take();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].level, spdlog::level::info);
        EXPECT_EQ(records[0].text, std::string(c.connection) + " " + c.endpoint);
    }
}

}  // namespace
