// ApplistVerifier against fakes of the registry and the signature checker.
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes.h"
#include "nos/logger/nos_logger.h"
#include "update/verifier/applist_verifier.h"
#include "verifier_steps.h"

namespace verifier_test {
namespace {

using ::testing::_;
using ::testing::DoAll;
using ::testing::Return;
using ::testing::SetArgReferee;
using update::verifier::ApplistVerifier;

constexpr const char* kFile = "entities/updater_pdk/verifier/src/verifiers/applist_verifier";
const std::string kList = "appcollectioninfo.nos.vantor.json";
const std::string kSign = "appcollectioninfo.nos.vantor.json.sign";

constexpr int kNotFound = static_cast<int>(0x8000004Cu);
constexpr int kInvalidArgument = static_cast<int>(0x80000046u);
constexpr int kUnspecified = static_cast<int>(0x8000004Bu);
constexpr int kInvalidSignature = -49152;  // completion code 1 of the entity
constexpr int kUntrustedSigner = -81920;   // completion code 2

class ApplistVerifierTest : public VerifierTest {
protected:
    ApplistVerifier verifier{registry, checker};
};

TEST_F(ApplistVerifierTest, Verify_FailureTable)
{
    const auto session = [this](unsigned int handle, int result = 0) {
        return [this, handle, result](const PackageDir& d) { ExpectSession(d, handle, result); };
    };
    const std::vector<FailureRow> rows = {
        {"invalid handle never reaches the registry", 0xFFFFFFFFu, [](const PackageDir&) {}, "ResultCodeException",
         kInvalidArgument, "0x80000046 (Invalid argument)", kFile, 38,
         [](const PackageDir&) { return std::string("invalid handle"); }},
        {"registry lookup failed: its code passes through", 7, session(7, kNotFound), "CheckResultFailedException",
         kNotFound, "0x8000004c (Not found)", kFile, 41,
         [](const PackageDir&) { return std::string("Expression failedfailed get info from session registry"); }},
        {"list missing, signature present", 7,
         [&](const PackageDir& d) {
             d.Touch(kSign);
             session(7)(d);
         },
         "ResultCodeException", kInvalidArgument, "0x80000046 (Invalid argument)", kFile, 48,
         [](const PackageDir& d) { return "AppList file doesn't exist " + d.Text(kList); }},
        {"neither file present: the list is reported", 7, session(7), "ResultCodeException", kInvalidArgument,
         "0x80000046 (Invalid argument)", kFile, 48,
         [](const PackageDir& d) { return "AppList file doesn't exist " + d.Text(kList); }},
        {"signature missing", 7,
         [&](const PackageDir& d) {
             d.Touch(kList);
             session(7)(d);
         },
         "ResultCodeException", kInvalidArgument, "0x80000046 (Invalid argument)", kFile, 49,
         [](const PackageDir& d) { return "AppList signature file doesn't exist " + d.Text(kSign); }},
        {"signature check failed: the checker's code passes through", 7,
         [&](const PackageDir& d) {
             d.Touch(kList);
             d.Touch(kSign);
             session(7)(d);
             EXPECT_CALL(*checker, Verify(d / kList, d / kSign)).WillOnce(Return(kInvalidSignature));
         },
         "CheckResultFailedException", kInvalidSignature, "0xffff4000 (Unknown result code)", kFile, 51,
         [](const PackageDir& d) {
             return "Expression failedFailed to verify AppList file " + d.Text(kList) + " with signature file " +
                    d.Text(kSign);
         }},
        {"empty package folder: the layout's own failure", 7,
         [&](const PackageDir&) {
             EXPECT_CALL(*registry, GetInfo(7u, _)).WillOnce(Return(0));  // a default record: no folder
         },
         "ResultCodeException", static_cast<int>(0x80000071u), "0x80000071 (Invalid result)",
         "shared/update/common/src/common", 54, [](const PackageDir&) { return std::string("empty package folder"); }},
    };
    RunFailureTable(
        rows, [this](unsigned int handle) { update::verifier::detail::VerifyAppListOrThrow(*registry, *checker, handle); },
        verifier);
}

TEST_F(ApplistVerifierTest, Verify_CheckerThrows)
{
    struct Row {
        const char* name;
        std::function<std::int32_t()> action;
        int code;
        std::string line;
    };
    const std::vector<Row> rows = {
        {"standard exception", []() -> std::int32_t { throw std::runtime_error("checker broke"); },
         static_cast<int>(0x8000004Bu), ": checker broke ; detailed: exception during Verify"},
        {"object of another type", []() -> std::int32_t { throw 42; }, static_cast<int>(0x80000072u),
         ": detailed: Unknown exception type during Verify"},
    };
    dir.Touch(kList);
    dir.Touch(kSign);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ExpectSession(3);
        EXPECT_CALL(*checker, Verify(_, _)).WillOnce(row.action);
        EXPECT_EQ(verifier.Verify(3), row.code);
        const auto log = TakeLog();
        ASSERT_EQ(log.size(), 1u);
        EXPECT_EQ(log[0].level, spdlog::level::err);
        EXPECT_EQ(log[0].text, row.line);
        VerifyFakes();
    }
}

TEST_F(ApplistVerifierTest, Verify_SuccessLogsOneInfoLine)
{
    dir.Touch(kList);
    dir.Touch(kSign);
    ExpectSession(5);
    EXPECT_CALL(*checker, Verify(dir / kList, dir / kSign)).WillOnce(Return(0));

    EXPECT_EQ(verifier.Verify(5), 0);

    const auto log = TakeLog();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].level, spdlog::level::info);
    EXPECT_EQ(log[0].file, kFile);
    EXPECT_EQ(log[0].line, 54);
    EXPECT_EQ(log[0].function, "Verify");
    EXPECT_EQ(log[0].text, "AppList file " + (dir / kList).generic_string() + " verification with signature file " +
                               (dir / kSign).generic_string() + " was succeeded");
}

TEST_F(ApplistVerifierTest, Verify_NonNegativeResultsPass)
{
    // Only a negative result is a failure: "False" from the registry and a
    // positive local status of the checker go through.
    dir.Touch(kList);
    dir.Touch(kSign);
    ExpectSession(5, 1);
    EXPECT_CALL(*checker, Verify(_, _)).WillOnce(Return(22));
    EXPECT_EQ(verifier.Verify(5), 0);
}

TEST_F(ApplistVerifierTest, Verify_LevelAboveInfoLogsNoSuccessButStillFailures)
{
    nos::logger::NOSLogger::RootLogger().SetLogLevel(nos::logger::LogLevel::Warning);
    dir.Touch(kList);
    dir.Touch(kSign);
    ExpectSession(5);
    EXPECT_CALL(*checker, Verify(_, _)).WillOnce(Return(0));
    EXPECT_EQ(verifier.Verify(5), 0);
    EXPECT_TRUE(TakeLog().empty());

    EXPECT_EQ(verifier.Verify(0xFFFFFFFFu), kInvalidArgument);
    EXPECT_EQ(TakeLog().size(), 1u);
}

TEST_F(ApplistVerifierTest, Verify_DirectoryNamedLikeTheListCountsAsPresent)
{
    dir.MakeDirectory(kList);
    dir.Touch(kSign);
    ExpectSession(9);
    EXPECT_CALL(*checker, Verify(dir / kList, dir / kSign)).WillOnce(Return(kUntrustedSigner));
    EXPECT_EQ(verifier.Verify(9), kUntrustedSigner);
}

TEST_F(ApplistVerifierTest, Verify_StatusThatCannotBeRead_FileSystemErrorNotMissing)
{
    // A dangling link is missing. A symbolic-link loop (ELOOP) or a name too
    // long to look up (ENAMETOOLONG) leaves the status unread: the standard
    // exception reaches ManageException with its own text. None reaches the
    // checker.
    const auto fileSystemError = [](const std::filesystem::path& path, std::errc error) {
        const std::filesystem::filesystem_error e("status", path, std::make_error_code(error));
        return ": " + std::string(e.what()) + " ; detailed: exception during Verify";
    };
    const std::filesystem::path tooLong = dir.path() / std::string(5000, 'n');
    struct Row {
        const char* name;
        std::filesystem::path folder;
        std::filesystem::path linkTarget;
        int code;
        std::string line;
    };
    const std::vector<Row> rows = {
        {"dangling link", dir.path(), dir / "nowhere", kInvalidArgument,
         FailureLine("AppList file doesn't exist " + dir.Text(kList) + ": 0x80000046 (Invalid argument)")},
        {"link to itself", dir.path(), dir / kList, kUnspecified,
         fileSystemError(dir / kList, std::errc::too_many_symbolic_link_levels)},
        {"name too long", tooLong, {}, kUnspecified,
         fileSystemError(tooLong / kList, std::errc::filename_too_long)},
    };
    dir.Touch(kSign);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        if (!row.linkTarget.empty()) {
            std::filesystem::remove(dir / kList);
            std::filesystem::create_symlink(row.linkTarget, dir / kList);
        }
        SessionInfo session = dir.Session();
        session.path = row.folder;
        EXPECT_CALL(*registry, GetInfo(4u, _)).WillOnce(DoAll(SetArgReferee<1>(session), Return(0)));
        EXPECT_EQ(verifier.Verify(4), row.code);
        const auto log = TakeLog();
        ASSERT_EQ(log.size(), 1u);
        EXPECT_EQ(log[0].text, row.line);
        VerifyFakes();
    }
}

}  // namespace
}  // namespace verifier_test
