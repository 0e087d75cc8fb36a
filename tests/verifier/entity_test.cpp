// The entity's body in this process: its wiring on a scripted transport, and
// the start-ups that fail.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "entity.h"
#include "fake_peers.h"
#include "support/log_capture.h"
#include "support/runtime_dir.h"
#include "support/scripted_transport.h"
#include "update/registry/ipc/proxy.h"
#include "verifier_api/messages.h"

namespace verifier_test {
namespace {

using namespace test_support;

const LogLine kStarted{"Entity started [\x1b[92mOK\x1b[0m]", kInfo, "entities/updater_pdk/verifier/src/main:48"};
const LogLine kFailed{"Entity started [\x1b[91mFAILED\x1b[0m]", kError, "entities/updater_pdk/verifier/src/main:57"};

Bytes Verify(std::uint16_t riid, std::uint32_t handle)
{
    nv_IVerifier_Verify_req request{};
    request.base_.riid = riid;
    nk_msg_set_size(&request.base_, sizeof request);
    request.handle = handle;
    return BytesOf(request);
}

class EntityTest : public RuntimeDirTest {
protected:
    // The lines logged, with the location of those from other files left out.
    std::vector<LogLine> Lines() const
    {
        std::vector<LogLine> lines = log.Lines();
        for (LogLine& line : lines)
            if (!line.where.starts_with("entities/"))
                line.where.clear();
        return lines;
    }

    LogCapture log;
    RootLoggerCapture capture{log};
    std::shared_ptr<FakePeers> peers = std::make_shared<FakePeers>();
};

TEST_F(EntityTest, Run_ServesEndpointsInOrderAndGoesOnAfterEagain)
{
    // A session whose folder is empty: each verifier names the file it
    // looked for first.
    peers->session.path = runtime.Path();
    const std::string dir = runtime.Path().string();
    ScriptedTransport transport({Deliver(Verify(0, 7)), Fail(NK_EAGAIN), Deliver(Verify(1, 7), NK_EAGAIN),
                                 Deliver(Verify(2, 7))});
    update::verifier::entity::Peers wiring;
    wiring.makeRegistry = [this] { return peers; };
    wiring.makeChecker = [this] { return peers; };
    wiring.transport = ScriptedTransport::Ops();

    EXPECT_EQ(update::verifier::entity::Run(wiring), 0);

    ASSERT_EQ(transport.replies.size(), 3u);
    const std::uint32_t results[] = {0x80000046u, 0x80000046u, 0x80000001u};
    for (size_t i = 0; i < 3; ++i) {
        const auto& reply = *reinterpret_cast<const nv_IVerifier_Verify_res*>(transport.replies[i].message.data());
        EXPECT_EQ(reply.base_.size, 0x80000020u);
        EXPECT_EQ(static_cast<std::uint32_t>(reply.result), results[i]);
    }
    const std::string handle = std::to_string(transport.channel);
    const std::string tail = ": 0x80000046 (Invalid argument) ; detailed: exception during: Verify";
    EXPECT_EQ(Lines(),
              (std::vector<LogLine>{kStarted,
                                    {"NkNosTransport initialized with handle " + handle, kInfo},
                                    {": update archive file doesn't exist " + dir + "/update_vantor3.tar.gz" + tail, kError},
                                    {": AppList file doesn't exist " + dir + "/appcollectioninfo.nos.vantor.json" + tail,
                                     kError},
                                    {"IpcThread with handle=" + handle + " stopped with error code -5", kError}}));
}

TEST_F(EntityTest, Run_StartFailuresTable)
{
    using MakeRegistry = std::function<std::shared_ptr<reg::IRegistry>()>;
    using MakeChecker = std::function<std::shared_ptr<signature_verifier::wrapper::ISignatureVerifier>()>;
    const MakeRegistry registry = [this] { return peers; };
    const MakeChecker checker = [this] { return peers; };
    struct Row {
        const char* name;
        MakeRegistry makeRegistry;
        MakeChecker makeChecker;
        std::vector<LogLine> lines;
    };
    const Row rows[] = {
        {"nobody serves the registry", [] { return reg::CreateProxy("update_registry", "UpdateRegistry.UpdateRegistry"); },
         checker,
         {{"update_registry UpdateRegistry.UpdateRegistry", kInfo},
          {": invalid handle: 0x80000071 (Invalid result) ; detailed: exception during: main", kError},
          kFailed}},
        {"no registry client, no checker: the registry first", [] { return nullptr; }, [] { return nullptr; },
         {{": empty registry: 0x80000046 (Invalid argument) ; detailed: exception during: main", kError}, kFailed}},
        {"no checker", registry, [] { return nullptr; },
         {{": empty verifier: 0x80000046 (Invalid argument) ; detailed: exception during: main", kError}, kFailed}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        log.Clear();
        update::verifier::entity::Peers wiring;
        wiring.makeRegistry = row.makeRegistry;
        wiring.makeChecker = row.makeChecker;
        EXPECT_EQ(update::verifier::entity::Run(wiring), 1);
        EXPECT_EQ(Lines(), row.lines);
    }
}

}  // namespace
}  // namespace verifier_test
