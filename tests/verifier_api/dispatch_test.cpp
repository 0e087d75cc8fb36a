#include <climits>
#include <cstdint>
#include <memory>

#include <gtest/gtest.h>

#include "fake_verifier.h"
#include "verifier_api/component.h"
#include "verifier_api/stub_factory.h"
#include "wire.h"

namespace {

using namespace verifier_api_test;
using update::verifier::ipc::CreateStub;

// Both endpoints wired to their own fake, as the entity wires them.
struct Wiring {
    explicit Wiring(int productResult = 0, int applistResult = 0)
        : product(std::make_shared<FakeVerifier>(productResult)),
          applist(std::make_shared<FakeVerifier>(applistResult)), productStub(CreateStub(product)),
          applistStub(CreateStub(applist)), productEndpoint{&productStub}, applistEndpoint{&applistStub},
          component{&productEndpoint, &applistEndpoint}
    {
    }
    Wiring(const Wiring&) = delete;
    Wiring& operator=(const Wiring&) = delete;

    std::shared_ptr<FakeVerifier> product;
    std::shared_ptr<FakeVerifier> applist;
    nv_IVerifier productStub;
    nv_IVerifier applistStub;
    nv_Verifier_endpoint productEndpoint;
    nv_Verifier_endpoint applistEndpoint;
    nv_Verifier_component component;
};

struct Exchange {
    int rc;
    Bytes32 reply;
};

Exchange Dispatch(nv_Verifier_component& component, const nv_Verifier_component_req& req)
{
    nv_Verifier_component_res res;
    std::memset(&res, kNoise, sizeof res);
    nk_arena reqArena{};
    nk_arena resArena{};
    const int rc = nv_Verifier_component_dispatch(&component, &req.base_, &reqArena, &res.base_, &resArena);
    return {rc, BytesOf(res)};
}

TEST(DispatchTest, Dispatch_RoutesAndRepliesInLayout)
{
    struct HandleCase {
        std::uint32_t word;
        unsigned int handle;
    };
    const HandleCase handles[] = {
        {0x00000005u, 5u},           {0xAB000005u, 5u},          {0xFF000005u, 5u},
        {0x00FFFFFFu, 0xFFFFFFFFu},  {0xFFFFFFFFu, 0xFFFFFFFFu}, {0x12FFFFFEu, 0x00FFFFFEu},
        {0x00000000u, 0u},           {0x7F000000u, 0u},
    };
    const int results[] = {0, 1, INT_MAX, -1, static_cast<int>(0x80000046u), static_cast<int>(0x80010102u), INT_MIN};

    for (const std::uint16_t riid : {std::uint16_t{0}, std::uint16_t{1}}) {
        for (const HandleCase& h : handles) {
            for (const int result : results) {
                SCOPED_TRACE(testing::Message() << "riid " << riid << ", handle word 0x" << std::hex << h.word
                                                << ", result 0x" << static_cast<std::uint32_t>(result));
                Wiring wiring(riid == 0 ? result : 0, riid == 1 ? result : 0);
                const Exchange exchange = Dispatch(wiring.component, MakeRequest(riid, 0, h.word));

                EXPECT_EQ(exchange.rc, 0);
                const FakeVerifier& chosen = riid == 0 ? *wiring.product : *wiring.applist;
                const FakeVerifier& other = riid == 0 ? *wiring.applist : *wiring.product;
                EXPECT_EQ(chosen.handles(), std::vector<unsigned int>{h.handle});
                EXPECT_TRUE(other.handles().empty());

                Bytes32 expected{};
                PutLe16(expected, 0, riid);
                PutLe16(expected, 2, 0);
                if (result < 0) {
                    PutLe32(expected, 4, 0x80000020u);
                    PutLe32(expected, 24, static_cast<std::uint32_t>(result));
                } else {
                    PutLe32(expected, 4, 0x18u);
                }
                EXPECT_EQ(exchange.reply, expected);
            }
        }
    }
}

TEST(DispatchTest, Dispatch_UnknownIndexesGiveMinusTwo)
{
    struct Case {
        const char* name;
        std::uint16_t riid;
        std::uint16_t mid;
        bool idsWritten;
    };
    const Case cases[] = {
        {"interface 2", 2, 0, false},
        {"interface 0xFFFF", 0xFFFF, 0, false},
        {"interface 2 with a bad method", 2, 7, false},
        {"product, method 1", 0, 1, true},
        {"applist, method 3", 1, 3, true},
        {"applist, method 0xFFFF", 1, 0xFFFF, true},
    };
    for (const Case& c : cases) {
        Wiring wiring;
        const Exchange exchange = Dispatch(wiring.component, MakeRequest(c.riid, c.mid, 5));
        EXPECT_EQ(exchange.rc, -2) << c.name;
        Bytes32 expected = NoiseBytes();
        if (c.idsWritten) {
            PutLe16(expected, 0, c.riid);
            PutLe16(expected, 2, c.mid);
        }
        EXPECT_EQ(exchange.reply, expected) << c.name;
        EXPECT_TRUE(wiring.product->handles().empty()) << c.name;
        EXPECT_TRUE(wiring.applist->handles().empty()) << c.name;
    }
}

TEST(DispatchTest, Dispatch_UnwiredEndpointIsUnknownInterface)
{
    Wiring wiring;
    nv_IVerifier noOps{};
    nv_Verifier_endpoint noOpsEndpoint{&noOps};
    nv_Verifier_endpoint emptyEndpoint{};

    struct Case {
        const char* name;
        nv_Verifier_component component;
        std::uint16_t riid;
    };
    const Case cases[] = {
        {"no product endpoint", {nullptr, &wiring.applistEndpoint}, 0},
        {"no applist endpoint", {&wiring.productEndpoint, nullptr}, 1},
        {"endpoint without object", {&emptyEndpoint, &wiring.applistEndpoint}, 0},
        {"object without operations", {&wiring.productEndpoint, &noOpsEndpoint}, 1},
    };
    for (Case c : cases) {
        const Exchange exchange = Dispatch(c.component, MakeRequest(c.riid, 0, 5));
        EXPECT_EQ(exchange.rc, -2) << c.name;
        EXPECT_EQ(exchange.reply, NoiseBytes()) << c.name;
    }
    EXPECT_TRUE(wiring.product->handles().empty());
    EXPECT_TRUE(wiring.applist->handles().empty());
}

TEST(DispatchTest, Dispatch_NullArgumentsRefused)
{
    Wiring wiring;
    const nv_Verifier_component_req req = MakeRequest(0, 0, 5);
    nv_Verifier_component_res res;
    std::memset(&res, kNoise, sizeof res);
    EXPECT_EQ(nv_Verifier_component_dispatch(nullptr, &req.base_, nullptr, &res.base_, nullptr), NK_EINVAL);
    EXPECT_EQ(nv_Verifier_component_dispatch(&wiring.component, nullptr, nullptr, &res.base_, nullptr), NK_EINVAL);
    EXPECT_EQ(nv_Verifier_component_dispatch(&wiring.component, &req.base_, nullptr, nullptr, nullptr), NK_EINVAL);
    EXPECT_EQ(BytesOf(res), NoiseBytes());
    EXPECT_TRUE(wiring.product->handles().empty());
}

TEST(DispatchDeathTest, Dispatch_VerifierThrowingEndsProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    nv_IVerifier stub = CreateStub(std::make_shared<ThrowingVerifier>());
    nv_Verifier_endpoint endpoint{&stub};
    nv_Verifier_component component{&endpoint, &endpoint};
    const nv_Verifier_component_req req = MakeRequest(1, 0, 5);
    EXPECT_DEATH(Dispatch(component, req), "");
}

}  // namespace
