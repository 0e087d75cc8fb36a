// Both ends of the registry interface: the record's converters, the client
// against a stand-in whose every answer the test writes (request bytes,
// decoded answers, what each failure returns and logs), the dispatcher. Then
// the host programs over the wire: registry-cli's commands, output and exit
// status against a running update-registry, whose state file keeps the
// sessions across a kill.
#include "eka/exception.h"
#include "eka/text.h"
#include "support/fake_peer.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/runtime_dir.h"
#include "update/registry/ipc/dispatcher.h"
#include "update/registry/ipc/proxy.h"
#include "update/registry/ipc/session_converters.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <functional>
#include <numeric>
#include <regex>
#include <stdexcept>

namespace {

using namespace test_support;
using namespace update::registry::ipc;

unsigned int Raw(auto value) { return static_cast<unsigned int>(value); }

// An arena over bytes of its own, empty.
struct Arena {
    explicit Arena(size_t size) : bytes(size) { nk_arena_init(&arena, bytes.data(), bytes.size()); }
    std::vector<std::uint8_t> bytes;
    nk_arena arena{};
};

TEST(ConvertersTest, FromThenToSessionInfo_RecordsSharingOneArena)
{
    eka::guid_t id;
    std::iota(id.bytes.begin(), id.bytes.end(), std::uint8_t{0xA0});
    const SessionInfo sessions[] = {{PackageType::AppList, UpdateState::Verified, id, "pkg/applist"},
                                    {PackageType::Product, UpdateState::Finished, {}, "/var/\xD0\xBF"},
                                    {PackageType::Product, UpdateState::Created, {}, ""}};
    Arena a(18);  // the second path fills it exactly
    std::vector<nv_IUpdateRegistry_SessionInfo> wires;
    for (const auto& s : sessions)
        wires.push_back(FromSessionInfo(s, a.arena));
    EXPECT_EQ(std::make_pair(wires[2].path.offset, wires[2].path.size), std::make_pair(18u, 0u));
    EXPECT_EQ(std::string(a.bytes.begin(), a.bytes.end()), "pkg/applist/var/\xD0\xBF");  // no NULs
    for (size_t i = 0; i < wires.size(); ++i)
        EXPECT_EQ(ToSessionInfo(wires[i], a.arena), sessions[i]) << i;
    Arena shortByOne(10);
    EXPECT_THROW(FromSessionInfo(sessions[0], shortByOne.arena), std::bad_alloc);
    EXPECT_EQ(shortByOne.arena.current, shortByOne.arena.start);
    wires[0].path = {0xFFFFFFFF, 2};
    EXPECT_THROW(ToSessionInfo(wires[0], a.arena), std::runtime_error);
}

Bytes Le32(std::uint32_t v)
{
    return {std::uint8_t(v), std::uint8_t(v >> 8), std::uint8_t(v >> 16), std::uint8_t(v >> 24)};
}

Bytes Cat(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

// A message: header with the riid, the method and the size word, then the body.
Bytes Wire(std::uint8_t method, std::uint32_t sizeWord, const Bytes& body, std::uint8_t riid = 1)
{
    return Cat({{riid, 0, method, 0}, Le32(sizeWord), Bytes(16), body});
}
Bytes HandleOf(std::uint32_t handle) { return Cat({Le32(handle), Le32(1), Le32(0xFFFFFFFF), Le32(0)}); }
Bytes Reply(std::uint8_t method, std::uint32_t result) { return Wire(method, 0x20, Cat({Le32(result), Bytes(4)})); }
Bytes HandleReply(std::uint8_t method, std::uint32_t handle, std::uint32_t result)
{
    return Wire(method, 0x00800030, Cat({Le32(handle), Bytes(12), Le32(result), Bytes(4)}));
}
Bytes Record(std::uint8_t type, std::uint32_t state, std::uint32_t offset, std::uint32_t size)
{
    return Cat({{type, 0, 0, 0}, Le32(state), Bytes(15), {0xAA}, Le32(offset), Le32(size)});
}
Exchanged InfoReply(const Bytes& record, Bytes arena, std::uint32_t result = 0)
{
    return {Wire(5, 0x40, Cat({record, Le32(result), Bytes(4)})), std::move(arena)};
}
Exchanged SessionsReply(std::uint32_t offset, std::uint32_t size, Bytes arena)
{
    return {Wire(2, 0x28, Cat({Le32(offset), Le32(size), Bytes(8)})), std::move(arena)};
}

std::string Describe(const SessionInfo& s)
{
    return std::to_string(Raw(s.type)) + " " + std::to_string(Raw(s.state)) + " " +
           std::to_string(s.id.bytes[15]) + " " + s.path.string();
}

const SessionInfo kOld{PackageType::AppList, UpdateState::Installed, {}, "old"};

class ProxyTest : public RuntimeDirTest {
protected:
    ProxyTest() { log.Clear(); }

    // Calls `method` (`arg`: the package type or state) with the stand-in answering `reply` in `mode`:
    // the request that reached it, the result and what the call left in its outputs.
    std::tuple<std::optional<Bytes>, std::uint32_t, std::string> Exchange(Method method, unsigned int arg,
                                                                          FakeMode mode, Exchanged reply)
    {
        m_reply = std::make_shared<const Exchanged>(std::move(reply));
        peer.SetMode(mode);
        const size_t before = peer.Requests().size();
        unsigned int handle = 5;
        SessionInfo info = kOld;
        std::vector<SessionInfo> sessions(2, kOld);
        eka::guid_t id;
        std::iota(id.bytes.begin(), id.bytes.end(), std::uint8_t{0});
        const int rc = method == Method::Open          ? proxy->Open(static_cast<PackageType>(arg), handle)
                       : method == Method::Close       ? proxy->Close(0x42)
                       : method == Method::GetSessions ? proxy->GetSessions(sessions)
                       : method == Method::GetHandle   ? proxy->GetHandle(id, handle)
                       : method == Method::SetState    ? proxy->SetState(0x42, static_cast<UpdateState>(arg))
                                                       : proxy->GetInfo(0x42, info);
        std::string out = method == Method::Open || method == Method::GetHandle ? std::to_string(handle) : "";
        for (const auto& s : method == Method::GetInfo ? std::vector{info} : sessions)
            out += method == Method::GetInfo || method == Method::GetSessions ? Describe(s) + "|" : "";
        const auto requests = peer.Requests();
        return {requests.size() > before ? std::optional(requests.back().message) : std::nullopt,
                static_cast<std::uint32_t>(rc), out};
    }

    std::atomic<std::shared_ptr<const Exchanged>> m_reply;
    FakePeer peer{"registry_stand_in", {"Other.Other", "UpdateRegistry.UpdateRegistry"},
                  [this](const Exchanged&) { return *m_reply.load(); }};
    LogCapture log;
    RootLoggerCapture capture{log};
    std::unique_ptr<IRegistry> proxy = CreateProxy("registry_stand_in", "UpdateRegistry.UpdateRegistry");
};

TEST_F(ProxyTest, Calls_RequestBytesAndDecodedAnswers)
{
    using enum Method;
    const Bytes paths = Cat({Bytes(4, 0xEE), Record(0, 0, 68, 1), Record(1, 10, 69, 2), {'a', 'b', 'c'}});
    const Bytes handle42 = HandleOf(0x42);
    // The call, its argument, the request sent, the answer, then the result and the outputs.
    const std::tuple<Method, unsigned int, Bytes, Exchanged, std::uint32_t, std::string> cases[] = {
        {Open, 1, Wire(0, 0x20, {1, 0, 0, 0, 0, 0, 0, 0}), {HandleReply(0, 0x12345678, 0), {}}, 0, "3430008"},
        {Open, 0, Wire(0, 0x20, Bytes(8)), {HandleReply(0, 0x00FFFFFF, 0x8000004C), {}}, 0x8000004C, "4294967295"},
        {Close, 0, Wire(1, 0x00800028, handle42), {Reply(1, 1), {}}, 1, ""},
        {GetSessions, 0, Wire(2, 0x18, {}), SessionsReply(4, 64, paths), 0, "0 0 170 a|1 10 170 bc|"},
        {GetSessions, 0, Wire(2, 0x18, {}), SessionsReply(0, 0, {}), 0, ""},
        {GetHandle, 0, Wire(3, 0x28, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}),
         {HandleReply(3, 0x22, 0), {}}, 0, "34"},
        {SetState, 10, Wire(4, 0x00800030, Cat({handle42, Le32(10), Bytes(4)})), {Reply(4, 0), {}}, 0, ""},
        {GetInfo, 0, Wire(5, 0x00800028, handle42),  // a path that ends the offered arena
         InfoReply(Record(1, 4, 4090, 6), Cat({Bytes(4090), {'a', 'b', 'c', 'd', 'e', 'f'}})), 0, "1 4 170 abcdef|"},
        {GetInfo, 0, Wire(5, 0x00800028, handle42), InfoReply(Bytes(32), {}, 0x8000004C), 0x8000004C, "0 0 0 |"},
    };
    for (const auto& [method, arg, request, reply, rc, out] : cases) {
        const auto [sent, gotRc, gotOut] = Exchange(method, arg, FakeMode::Answer, reply);
        EXPECT_EQ(sent, request) << Raw(method);
        EXPECT_EQ(gotRc, rc) << Raw(method);
        EXPECT_EQ(gotOut, out) << Raw(method);
    }
    EXPECT_TRUE(log.Lines().empty());  // the registry's failures are the caller's to report
}

TEST_F(ProxyTest, Calls_FailureGivesCodeAndOneLineOutputsKept)
{
    using enum Method;
    const std::string during = " ; detailed: exception during: ";
    const std::string old = Describe(kOld) + "|";
    // The call, its argument, how the stand-in answers, then the result, the line and the outputs.
    const std::tuple<Method, unsigned int, FakeMode, Exchanged, std::uint32_t, std::string, std::string> cases[] = {
        {Open, 0, FakeMode::Garbage, {HandleReply(0, 7, 0), {}}, 0x80000151, ": short reply: 24" + during + "Open",
         "5"},
        {Open, 0, FakeMode::Answer, {Wire(0, 0x80000020, Cat({Le32(0x80000057), Bytes(4)})), {}}, 0x80000057,
         ": error reply: 0x80000057 (Method not found)" + during + "Open", "5"},
        {Close, 0, FakeMode::Answer, {Wire(1, 0x80000020, Bytes(8)), {}}, 0x80000071,
         ": error reply: 0x80000071 (Invalid result)" + during + "Close", ""},
        {GetInfo, 0, FakeMode::Answer, InfoReply(Record(2, 11, 0, 0), {}), 0x80000151,
         ": invalid package type: 2" + during + "GetInfo", old},
        {GetInfo, 0, FakeMode::Answer, InfoReply(Record(1, 11, 0, 0), {}), 0x80000151,
         ": invalid update state: 11" + during + "GetInfo", old},
        {GetInfo, 0, FakeMode::Answer, InfoReply(Record(1, 1, 4090, 7), Bytes(4096)), 0x8000004B,
         ": nos_ipc::StringFromArena(): Failed to acquire string from arena ; detailed: exception during GetInfo", old},
        {GetSessions, 0, FakeMode::Answer, SessionsReply(0, 33, Bytes(33)), 0x80000151,
         ": cannot get sessions from arena" + during + "GetSessions", old + old},
        {GetSessions, 0, FakeMode::Answer, SessionsReply(8225, 32, Bytes(8256)), 0x80000151,
         ": cannot get sessions from arena" + during + "GetSessions", old + old},
        {GetSessions, 0, FakeMode::Answer, SessionsReply(0, 64, Cat({Record(1, 0, 0, 0), Record(255, 0, 0, 0)})),
         0x80000151, ": invalid package type: 255" + during + "GetSessions", "1 0 170 |"},
        {SetState, 11, FakeMode::Answer, {}, 0x80000151, ": invalid update state: 11" + during + "SetState", ""},
        {Open, 2, FakeMode::Answer, {}, 0x80000151, ": invalid package type: 2" + during + "Open", "5"},
        {Open, 256, FakeMode::Answer, {}, 0x80000151, ": invalid package type: 256" + during + "Open", "5"},
        {Open, 0, FakeMode::Close, {}, 0x80000151, ": transport fail: -32" + during + "Open", "5"},  // stays closed
    };
    for (const auto& [method, arg, mode, reply, rc, line, out] : cases) {
        const auto [sent, gotRc, gotOut] = Exchange(method, arg, mode, reply);
        EXPECT_EQ(sent.has_value(), arg < 2) << line;  // arguments out of range are never sent
        EXPECT_EQ(gotRc, rc) << line;
        EXPECT_EQ(gotOut, out) << line;
        const auto lines = log.Lines();
        EXPECT_EQ(lines, std::vector<LogLine>{LogLine(line, kError, lines.empty() ? "" : lines[0].where)});
        log.Clear();
    }
}

TEST_F(ProxyTest, CreateProxy_AbsentRegistryOrEndpointThrows)
{
    const std::string cases[][3] = {{"no_registry", "UpdateRegistry.UpdateRegistry", "invalid handle"},
                                    {"registry_stand_in", "Update.Other", "invalid riid"}};
    for (const auto& [connection, endpoint, description] : cases) {
        try {
            CreateProxy(connection, endpoint);
            ADD_FAILURE() << "connected to " << connection;
        } catch (const eka::ResultCodeException& e) {
            EXPECT_EQ(eka::text::Utf16ToUtf8(e.full_description()), description + ": 0x80000071 (Invalid result)");
        }
        const auto lines = log.Lines();
        EXPECT_EQ(lines, std::vector<LogLine>{LogLine(connection + " " + endpoint, kInfo, lines[0].where)});
        log.Clear();
    }
}

// What the dispatcher's own refusals need.
class Registry final : public IRegistry {
public:
    int Open(PackageType, unsigned int&) override { return 0; }
    int Close(unsigned int) override { return 0; }
    int GetSessions(std::vector<SessionInfo>& sessions) const override
    {
        sessions.assign(65, {PackageType::Product, UpdateState::Created, {}, std::string(97, 'p')});  // 64 fit
        return 0;
    }
    int GetHandle(const eka::guid_t&, unsigned int&) const override { throw std::runtime_error("disk gone"); }
    int SetState(unsigned int, UpdateState) override { return 0; }
    int GetInfo(unsigned int, SessionInfo& info) const override
    {
        info = {PackageType::AppList, UpdateState::Verifying, {}, std::string(4097, 'p')};
        return 0;
    }
};

TEST(DispatcherTest, DispatchRegistry_RefusalsAnswered)
{
    const auto error = [](std::uint8_t method, std::uint32_t code, std::uint8_t riid = 1) {
        return Wire(method, 0x80000020, Cat({Le32(code), Bytes(4)}), riid);
    };
    const std::tuple<Bytes, int, Bytes> cases[] = {
        {Wire(0, 0x20, {2, 0, 0, 0, 0, 0, 0, 0}), 0, HandleReply(0, 0xFFFFFFFF, 0x80000046)},
        {Wire(4, 0x00800030, Cat({HandleOf(1), Le32(11), Bytes(4)})), 0, Reply(4, 0x80000046)},
        {Wire(3, 0x28, Bytes(16)), 0, HandleReply(3, 0xFFFFFFFF, 0x8000004B)},
        {Wire(5, 0x00800028, HandleOf(1)), 0, Wire(5, 0x40, Cat({Bytes(32), Le32(0x80000044), Bytes(4)}))},
        {Wire(2, 0x18, {}), 0, Wire(2, 0x28, Cat({Bytes(8), Le32(0x80000044), Bytes(4)}))},
        {Wire(1, 0x28, HandleOf(5)), -2, error(1, 0x80000046)},  // no handle flag
        {Wire(6, 0x18, {}), -2, error(6, 0x80000057)},
        {Wire(2, 0x18, {}, 2), -2, error(2, 0x80000046, 2)},
    };
    LogCapture log;
    RootLoggerCapture capture(log);
    Registry registry;
    RegistryComponent component{&registry, 1};
    for (const auto& [in, rc, out] : cases) {
        nv_IUpdateRegistry_req request{};
        std::memcpy(&request, in.data(), in.size());
        nv_IUpdateRegistry_res response;
        std::memset(&response, 0xCC, sizeof response);
        Arena a(kDispatchArenaSize);
        EXPECT_EQ(DispatchRegistry(&component, &request.base_, nullptr, &response.base_, &a.arena), rc) << in[2];
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(&response);
        EXPECT_EQ(Bytes(bytes, bytes + nk_msg_size(&response.base_)), out) << in[2];
        EXPECT_EQ(a.arena.current, a.arena.start) << in[2];
    }
    const LogLine logged{": disk gone ; detailed: exception during GetHandle", kError,
                         "shared/common/utils/manage_exception:32"};
    EXPECT_EQ(log.Lines(), std::vector<LogLine>{logged});
}

// The exit status, standard output and standard error of one run.
std::tuple<int, std::string, std::string> Cli(std::vector<std::string> args)
{
    args.insert(args.begin(), program::kRegistryCli);
    Process cli(args);
    std::string out;
    while (const auto line = cli.ReadLine())
        out += *line + "\n";
    const int status = cli.Wait().value_or(-1);
    return {status, out, cli.Log()};
}

TEST(RegistryCliTest, Commands_OutputAndExitStatus)
{
    RuntimeDir runtime;
    const auto start = [&] {
        auto registry = std::make_unique<Process>(std::vector<std::string>{
            program::kUpdateRegistry, "--storage", runtime.Path() / "s", "--state", runtime.Path() / "state.json"});
        EXPECT_TRUE(registry->WaitServing("update_registry")) << registry->Log();
        return registry;
    };
    auto registry = start();
    const std::string session = "\\{\n  \"type\": 1,\n  \"state\": 5,\n  \"id\": \"([0-9a-f-]{36})\",\n  \"path\": \"" +
                                (runtime.Path() / "s/").string() + "\\1\"\n\\}\n";
    const std::string notFound = "0x8000004c \\(Not found\\)\n";
    const std::string usage = "registry-cli: [^\n]+\nUsage: registry-cli \\[OPTIONS\\] COMMAND \\[ARGS\\]\n[\\s\\S]+";
    // Arguments, then the exit status, standard output and standard error as regular expressions.
    const std::tuple<std::vector<std::string>, int, std::string, std::string> cases[] = {
        {{"open", "applist"}, 0, "1\n", ""},
        {{"open", "0"}, 0, "2\n", ""},
        {{"set-state", "0x1", "verification-failed"}, 0, "", ""},
        {{"close", "2"}, 0, "", ""},
        {{"info", "1"}, 0, session, ""},
        {{"handle", "00000000-0000-0000-0000-000000000000"}, 1, "", notFound},
        {{"close", "7"}, 1, "", notFound},
        {{"info", "0xFFFFFF"}, 1, "", notFound},
        {{"close", "16777217"}, 2, "", usage},  // its low 24 bits would name session 1
        {{"set-state", "1", "11"}, 2, "", usage},
        {{}, 2, "", usage},
        {{"--help"}, 0, "Usage: registry-cli \\[OPTIONS\\] COMMAND \\[ARGS\\]\n[\\s\\S]+", ""},
        {{"--connection", "elsewhere", "list"}, 1, "",
         "registry-cli: cannot reach elsewhere \\(UpdateRegistry.UpdateRegistry\\)\n0x80000071 \\(Invalid result\\)\n"},
    };
    for (const auto& [args, status, out, err] : cases) {
        const auto [ranStatus, ranOut, ranErr] = Cli(args);
        EXPECT_EQ(ranStatus, status) << (args.empty() ? "" : args[0]) << ": " << ranErr;
        EXPECT_TRUE(std::regex_match(ranOut, std::regex(out))) << ranOut;
        EXPECT_TRUE(std::regex_match(ranErr, std::regex(err))) << ranErr;
    }

    const std::string before = std::get<1>(Cli({"list"}));
    EXPECT_NE(before.find("    \"state\": 5,\n"), std::string::npos) << before;
    registry->Signal(SIGKILL);  // every change must be on disk already
    EXPECT_EQ(registry->Wait(), 128 + SIGKILL);
    registry = start();
    EXPECT_EQ(std::get<1>(Cli({"list"})), before);
    EXPECT_EQ(std::get<1>(Cli({"open", "product"})), "3\n");  // a closed handle is not given out again
    EXPECT_EQ(registry->Stop(), 0);
}

}  // namespace
