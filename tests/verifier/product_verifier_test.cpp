// ProductVerifier against fakes of the registry and the signature checker.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes.h"
#include "nos/logger/nos_logger.h"
#include "update/verifier/product_verifier.h"
#include "verifier_steps.h"

namespace verifier_test {
namespace {

using ::testing::_;
using ::testing::DoAll;
using ::testing::IsEmpty;
using ::testing::Return;
using ::testing::SetArgReferee;
using update::verifier::ProductVerifier;

constexpr const char* kFile = "entities/updater_pdk/verifier/src/verifiers/product_verifier";
const std::string kArchive = "update_vantor3.tar.gz";
const std::string kSign = "update_vantor3.sign";

constexpr int kNotFound = static_cast<int>(0x8000004Cu);
constexpr int kInvalidArgument = static_cast<int>(0x80000046u);
constexpr int kMediaError = static_cast<int>(0x80000059u);
constexpr int kInvalidSignature = -49152;  // completion code 1 of the entity

const std::vector<std::uint8_t> kHash(32, 0xA5);

class ProductVerifierTest : public VerifierTest {
protected:
    ProductVerifier verifier{registry, checker};
};

TEST_F(ProductVerifierTest, Verify_FailureTable)
{
    const auto session = [this](unsigned int handle, int result = 0) {
        return [this, handle, result](const PackageDir& d) { ExpectSession(d, handle, result); };
    };
    const auto bothFiles = [&](const PackageDir& d) {
        d.Touch(kArchive);
        d.Touch(kSign);
        session(7)(d);
    };
    const std::vector<FailureRow> rows = {
        {"invalid handle never reaches the registry", 0xFFFFFFFFu, [](const PackageDir&) {}, "ResultCodeException",
         kInvalidArgument, "0x80000046 (Invalid argument)", kFile, 40,
         [](const PackageDir&) { return std::string("invalid handle"); }},
        {"registry lookup failed: its code passes through", 7, session(7, kNotFound), "CheckResultFailedException",
         kNotFound, "0x8000004c (Not found)", kFile, 43,
         [](const PackageDir&) { return std::string("Expression failedfailed get info from session registry"); }},
        {"archive missing, signature present", 7,
         [&](const PackageDir& d) {
             d.Touch(kSign);
             session(7)(d);
         },
         "ResultCodeException", kInvalidArgument, "0x80000046 (Invalid argument)", kFile, 49,
         [](const PackageDir& d) { return "update archive file doesn't exist " + d.Text(kArchive); }},
        {"neither file present: the archive is reported", 7, session(7), "ResultCodeException", kInvalidArgument,
         "0x80000046 (Invalid argument)", kFile, 49,
         [](const PackageDir& d) { return "update archive file doesn't exist " + d.Text(kArchive); }},
        {"signature missing", 7,
         [&](const PackageDir& d) {
             d.Touch(kArchive);
             session(7)(d);
         },
         "ResultCodeException", kInvalidArgument, "0x80000046 (Invalid argument)", kFile, 50,
         [](const PackageDir& d) { return "update signature file doesn't exist " + d.Text(kSign); }},
        {"hashing failed: VerifyHash is never called", 7,
         [&](const PackageDir& d) {
             bothFiles(d);
             EXPECT_CALL(*checker, GetHash(d / kArchive, _)).WillOnce(Return(kMediaError));
         },
         "CheckResultFailedException", kMediaError, "0x80000059 (Media error)", kFile, 53,
         [](const PackageDir&) { return std::string("Expression failedfailed get update file hash"); }},
        {"signature check failed: the checker's code passes through", 7,
         [&](const PackageDir& d) {
             bothFiles(d);
             EXPECT_CALL(*checker, GetHash(d / kArchive, _)).WillOnce(DoAll(SetArgReferee<1>(kHash), Return(0)));
             EXPECT_CALL(*checker, VerifyHash(kHash, d / kSign)).WillOnce(Return(kInvalidSignature));
         },
         "CheckResultFailedException", kInvalidSignature, "0xffff4000 (Unknown result code)", kFile, 54,
         [](const PackageDir& d) {
             return "Expression failedFailed to verify update file " + d.Text(kArchive) + " with signature file " +
                    d.Text(kSign);
         }},
    };
    RunFailureTable(
        rows, [this](unsigned int handle) { update::verifier::detail::VerifyProductOrThrow(*registry, *checker, handle); },
        verifier);
}

TEST_F(ProductVerifierTest, Verify_SuccessHashesThenVerifiesAndLogsOneInfoLine)
{
    dir.Touch(kArchive);
    dir.Touch(kSign);
    ExpectSession(5);
    {
        ::testing::InSequence order;
        // The hash vector starts empty; what GetHash fills is what VerifyHash gets.
        EXPECT_CALL(*checker, GetHash(dir / kArchive, IsEmpty())).WillOnce(DoAll(SetArgReferee<1>(kHash), Return(0)));
        EXPECT_CALL(*checker, VerifyHash(kHash, dir / kSign)).WillOnce(Return(0));
    }

    EXPECT_EQ(verifier.Verify(5), 0);

    const auto log = TakeLog();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].level, spdlog::level::info);
    EXPECT_EQ(log[0].file, kFile);
    EXPECT_EQ(log[0].line, 57);
    EXPECT_EQ(log[0].function, "Verify");
    EXPECT_EQ(log[0].text, "Update file " + (dir / kArchive).generic_string() +
                               " verification with signature file " + (dir / kSign).generic_string() +
                               " was succeeded");
}

TEST_F(ProductVerifierTest, Verify_LevelAboveInfoLogsNothingOnSuccess)
{
    nos::logger::NOSLogger::RootLogger().SetLogLevel(nos::logger::LogLevel::Warning);
    dir.Touch(kArchive);
    dir.Touch(kSign);
    ExpectSession(5);
    EXPECT_CALL(*checker, GetHash(_, _)).WillOnce(Return(0));
    EXPECT_CALL(*checker, VerifyHash(_, _)).WillOnce(Return(0));
    EXPECT_EQ(verifier.Verify(5), 0);
    EXPECT_TRUE(TakeLog().empty());
}

TEST_F(ProductVerifierTest, Verify_DirectoryNamedLikeTheArchiveCountsAsPresent)
{
    dir.MakeDirectory(kArchive);
    dir.Touch(kSign);
    ExpectSession(9);
    EXPECT_CALL(*checker, GetHash(dir / kArchive, _)).WillOnce(Return(kMediaError));
    EXPECT_EQ(verifier.Verify(9), kMediaError);
}

}  // namespace
}  // namespace verifier_test
