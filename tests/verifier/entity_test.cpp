// The entity's body in this process: its wiring on a scripted transport, and
// the start-ups that fail.
#include <gtest/gtest.h>

#include <filesystem>
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

class VerifierEntityTest : public RuntimeDirTest {
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

TEST_F(VerifierEntityTest, Run_ServesEndpointsInOrderAndGoesOnAfterEagain)
{
    // A session whose folder is empty: each verifier names the file it
    // looked for first.
    peers->session.path = runtime.Path();
    const std::string dir = runtime.Path().string();
    ScriptedTransport transport({Deliver(Verify(0, 7)), Fail(NK_EAGAIN), Deliver(Verify(1, 7), NK_EAGAIN),
                                 Deliver(Verify(2, 7))});
    const auto fake = [this] { return peers; };
    EXPECT_EQ(update::verifier::entity::Run({fake, fake, ScriptedTransport::Ops()}), 0);

    std::vector<std::uint32_t> results;
    for (const auto& reply : transport.replies)
        results.push_back(reinterpret_cast<const nv_IVerifier_Verify_res*>(reply.message.data())->result);
    EXPECT_EQ(results, (std::vector<std::uint32_t>{0x80000046, 0x80000046, 0x80000001}));
    const std::string handle = std::to_string(transport.channel);
    const std::string tail = ": 0x80000046 (Invalid argument) ; detailed: exception during: Verify";
    EXPECT_EQ(Lines(), (std::vector<LogLine>{
                           kStarted,
                           {"NkNosTransport initialized with handle " + handle, kInfo},
                           {": update archive file doesn't exist " + dir + "/update_vantor3.tar.gz" + tail, kError},
                           {": AppList file doesn't exist " + dir + "/appcollectioninfo.nos.vantor.json" + tail,
                            kError},
                           {"IpcThread with handle=" + handle + " stopped with error code -5", kError}}));
}

TEST_F(VerifierEntityTest, Run_StartFailuresTable)
{
    using Peers = update::verifier::entity::Peers;
    const auto fake = [this] { return peers; };
    struct Row {
        const char* name;
        decltype(Peers::makeRegistry) makeRegistry;
        decltype(Peers::makeChecker) makeChecker;
        std::vector<LogLine> lines;
    };
    const Row rows[] = {
        {"nobody serves the registry",
         [] { return reg::CreateProxy("update_registry", "UpdateRegistry.UpdateRegistry"); }, fake,
         {{"update_registry UpdateRegistry.UpdateRegistry", kInfo},
          {": invalid handle: 0x80000071 (Invalid result) ; detailed: exception during: main", kError},
          kFailed}},
        {"no registry client, no checker: the registry first", [] { return nullptr; }, [] { return nullptr; },
         {{": empty registry: 0x80000046 (Invalid argument) ; detailed: exception during: main", kError}, kFailed}},
        {"no checker", fake, [] { return nullptr; },
         {{": empty verifier: 0x80000046 (Invalid argument) ; detailed: exception during: main", kError}, kFailed}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        log.Clear();
        EXPECT_EQ(update::verifier::entity::Run({row.makeRegistry, row.makeChecker}), 1);
        EXPECT_EQ(Lines(), row.lines);
    }
}

}  // namespace
}  // namespace verifier_test
