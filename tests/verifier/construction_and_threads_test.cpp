// What both verifiers share: their constructor checks, and concurrent calls
// on one object.
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes.h"
#include "update/verifier/applist_verifier.h"
#include "update/verifier/product_verifier.h"

namespace verifier_test {
namespace {

using ::testing::_;
using ::testing::DoAll;
using ::testing::Invoke;
using ::testing::NiceMock;
using ::testing::Return;
using update::verifier::ApplistVerifier;
using update::verifier::ProductVerifier;
using RegistryPtr = std::shared_ptr<update::registry::ipc::IRegistry>;
using CheckerPtr = std::shared_ptr<signature_verifier::wrapper::ISignatureVerifier>;

using VerifiersTest = VerifierTest;

TEST_F(VerifiersTest, Constructor_EmptyOwners)
{
    struct Row {
        const char* name;
        std::function<void(RegistryPtr, CheckerPtr)> make;
        bool withRegistry;
        bool withChecker;
        const char* file;
        int line;
        const char* description;
    };
    const auto applist = [](RegistryPtr r, CheckerPtr c) { ApplistVerifier v(std::move(r), std::move(c)); };
    const auto product = [](RegistryPtr r, CheckerPtr c) { ProductVerifier v(std::move(r), std::move(c)); };
    constexpr const char* kApplist = "entities/updater_pdk/verifier/src/verifiers/applist_verifier";
    constexpr const char* kProduct = "entities/updater_pdk/verifier/src/verifiers/product_verifier";
    const std::vector<Row> rows = {
        {"applist, no registry", applist, false, true, kApplist, 31, "empty registry"},
        {"applist, no checker", applist, true, false, kApplist, 32, "empty verifier"},
        {"applist, neither: the registry first", applist, false, false, kApplist, 31, "empty registry"},
        {"product, no registry", product, false, true, kProduct, 32, "empty registry"},
        {"product, no checker", product, true, false, kProduct, 33, "empty verifier"},
        {"product, neither: the registry first", product, false, false, kProduct, 32, "empty registry"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const Thrown thrown = CaptureThrow([&] {
            row.make(row.withRegistry ? registry : nullptr, row.withChecker ? checker : nullptr);
        });
        EXPECT_EQ(thrown.what, "ResultCodeException");
        EXPECT_EQ(thrown.code, static_cast<int>(0x80000046u));
        EXPECT_EQ(thrown.file, row.file);
        EXPECT_EQ(thrown.line, row.line);
        EXPECT_EQ(thrown.description, row.description);
    }
}

// The registry's GetInfo and the checker's GetHash and VerifyHash report
// failure only by their result: an exception from one of them is a broken
// contract that ends the process rather than becoming a code.
TEST_F(VerifiersTest, Verify_PeerExceptionEndsTheProcess)
{
    const auto broken = [] () -> int { throw std::runtime_error("peer broke"); };
    struct Row {
        const char* name;
        std::function<void(MockRegistry&, MockChecker&)> arrange;
        bool product;
    };
    const std::vector<Row> rows = {
        {"applist, GetInfo", [&](MockRegistry& r, MockChecker&) { ON_CALL(r, GetInfo(_, _)).WillByDefault(broken); },
         false},
        {"product, GetInfo", [&](MockRegistry& r, MockChecker&) { ON_CALL(r, GetInfo(_, _)).WillByDefault(broken); },
         true},
        {"product, GetHash", [&](MockRegistry&, MockChecker& c) { ON_CALL(c, GetHash(_, _)).WillByDefault(broken); },
         true},
        {"product, VerifyHash",
         [&](MockRegistry&, MockChecker& c) { ON_CALL(c, VerifyHash(_, _)).WillByDefault(broken); }, true},
    };
    dir.Touch("update_vantor3.tar.gz");
    dir.Touch("update_vantor3.sign");
    dir.Touch("appcollectioninfo.nos.vantor.json");
    dir.Touch("appcollectioninfo.nos.vantor.json.sign");
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        auto fakeRegistry = std::make_shared<NiceMock<MockRegistry>>();
        auto fakeChecker = std::make_shared<NiceMock<MockChecker>>();
        ON_CALL(*fakeRegistry, GetInfo(_, _))
            .WillByDefault(DoAll(::testing::SetArgReferee<1>(dir.Session()), Return(0)));
        row.arrange(*fakeRegistry, *fakeChecker);
        if (row.product) {
            const ProductVerifier verifier(fakeRegistry, fakeChecker);
            EXPECT_DEATH((void)verifier.Verify(1), "peer broke");
        } else {
            const ApplistVerifier verifier(fakeRegistry, fakeChecker);
            EXPECT_DEATH((void)verifier.Verify(1), "peer broke");
        }
    }
}

// Several threads on one object of each verifier: every call gets the answer
// of its own session, and every outcome is logged once.
TEST_F(VerifiersTest, Verify_ConcurrentCallsOnOneObject)
{
    constexpr unsigned int kGood = 1;     // both packages signed
    constexpr unsigned int kMissing = 2;  // unknown to the registry
    constexpr unsigned int kForged = 3;   // the archive's hash does not match its signature
    const PackageDir good;
    const PackageDir forged;
    for (const PackageDir* d : {&good, &forged}) {
        for (const char* name : {"appcollectioninfo.nos.vantor.json", "appcollectioninfo.nos.vantor.json.sign",
                                 "update_vantor3.tar.gz", "update_vantor3.sign"})
            d->Touch(name);
    }

    auto fakeRegistry = std::make_shared<NiceMock<MockRegistry>>();
    ON_CALL(*fakeRegistry, GetInfo(_, _)).WillByDefault(Invoke([&](unsigned int handle, SessionInfo& info) {
        if (handle == kMissing)
            return static_cast<int>(0x8000004Cu);
        info = (handle == kGood ? good : forged).Session();
        return 0;
    }));
    // The "hash" of an archive is its folder's name; a signature holds when it
    // lies in the folder the hash names.
    auto fakeChecker = std::make_shared<NiceMock<MockChecker>>();
    ON_CALL(*fakeChecker, Verify(_, _)).WillByDefault(Return(0));
    ON_CALL(*fakeChecker, GetHash(_, _))
        .WillByDefault(Invoke([](const std::filesystem::path& file, std::vector<std::uint8_t>& hash) {
            const std::string folder = file.parent_path().filename().string();
            hash.assign(folder.begin(), folder.end());
            return 0;
        }));
    ON_CALL(*fakeChecker, VerifyHash(_, _))
        .WillByDefault(Invoke([&](const std::vector<std::uint8_t>& hash, const std::filesystem::path& signature) {
            const std::string folder(hash.begin(), hash.end());
            return signature.parent_path() == good.path() && folder == good.path().filename() ? 0 : -49152;
        }));

    const ApplistVerifier applist(fakeRegistry, fakeChecker);
    const ProductVerifier product(fakeRegistry, fakeChecker);
    constexpr int kThreads = 4;
    constexpr int kRounds = 50;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                wrong += applist.Verify(kGood) != 0;
                wrong += applist.Verify(kMissing) != static_cast<int>(0x8000004Cu);
                wrong += product.Verify(kGood) != 0;
                wrong += product.Verify(kForged) != -49152;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();

    EXPECT_EQ(wrong.load(), 0);
    int infos = 0;
    int errors = 0;
    for (const auto& record : TakeLog()) {
        infos += record.level == spdlog::level::info;
        errors += record.level == spdlog::level::err;
    }
    EXPECT_EQ(infos, 2 * kThreads * kRounds);
    EXPECT_EQ(errors, 2 * kThreads * kRounds);
}

}  // namespace
}  // namespace verifier_test
