// Fakes of the verifiers' two peers, a package folder on disk, and the
// capture of what a failing or passing check throws and logs.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signature_verifier/update_verifier.h>

#include "capture_sink.h"
#include "update/registry/ipc/registry.h"
#include "verifier_api/verifier.h"

namespace verifier_test {

using update::registry::ipc::SessionInfo;

class MockRegistry : public update::registry::ipc::IRegistry {
public:
    MOCK_METHOD(int, Open, (update::registry::ipc::PackageType, unsigned int&), (override));
    MOCK_METHOD(int, Close, (unsigned int), (override));
    MOCK_METHOD(int, GetSessions, (std::vector<SessionInfo>&), (const, override));
    MOCK_METHOD(int, GetHandle, (const eka::guid_t&, unsigned int&), (const, override));
    MOCK_METHOD(int, SetState, (unsigned int, update::registry::ipc::UpdateState), (override));
    MOCK_METHOD(int, GetInfo, (unsigned int, SessionInfo&), (const, override));
};

class MockChecker : public signature_verifier::wrapper::ISignatureVerifier {
public:
    MOCK_METHOD(std::int32_t, GetHash, (const std::filesystem::path&, std::vector<std::uint8_t>&), (override));
    MOCK_METHOD(std::int32_t, VerifyHash, (const std::vector<std::uint8_t>&, const std::filesystem::path&),
                (override));
    MOCK_METHOD(std::int32_t, Verify, (const std::filesystem::path&, const std::filesystem::path&), (override));
};

// A fresh package folder under the system's temporary directory, removed
// with its content at the end. Its path is absolute, so a session whose
// folder it is has it as its package directory.
class PackageDir {
public:
    PackageDir();
    ~PackageDir();
    PackageDir(const PackageDir&) = delete;
    PackageDir& operator=(const PackageDir&) = delete;

    const std::filesystem::path& path() const noexcept { return m_path; }
    std::filesystem::path operator/(const std::string& name) const { return m_path / name; }
    // The text of path() / name, as the verifiers print it.
    std::string Text(const std::string& name) const { return (m_path / name).string(); }

    void Touch(const std::string& name) const;
    void MakeDirectory(const std::string& name) const;

    SessionInfo Session() const;

private:
    std::filesystem::path m_path;
};

// What a check threw: the class (its what()), code, source and description.
struct Thrown {
    std::string what;
    std::int32_t code = 0;
    std::string file;
    int line = 0;
    std::string description;
};

// Runs `body`, which must throw an eka exception, and describes it.
Thrown CaptureThrow(const std::function<void()>& body);

// One row of a verifier's failure table. `arrange` makes the files in a
// fresh package folder and sets the fakes' expectations for one call.
struct FailureRow {
    std::string name;
    unsigned int handle;
    std::function<void(const PackageDir&)> arrange;
    std::string what;      // the exception's class, as its what() names it
    std::int32_t code;     // the code thrown and returned
    std::string codeText;  // the code as the log line prints it
    std::string file;
    int line;
    std::function<std::string(const PackageDir&)> description;
};

// The fixture: a fresh package folder, strict fakes, and the root logger
// captured at trace level.
class VerifierTest : public logger_test::RootCaptureTest {
protected:
    // GetInfo(handle) answers, once, the session whose folder is `folder`,
    // with `result`.
    void ExpectSession(const PackageDir& folder, unsigned int handle, int result = 0);
    void ExpectSession(unsigned int handle, int result = 0) { ExpectSession(dir, handle, result); }

    // Checks that every expectation of the fakes was met, and forgets them.
    void VerifyFakes();

    // For each row: the throwing body (given the handle) throws exactly the
    // row's exception and logs nothing; then `verifier` returns the row's
    // code and logs exactly the one line of ManageException.
    void RunFailureTable(const std::vector<FailureRow>& rows, const std::function<void(unsigned int)>& body,
                         const update::verifier::ipc::IVerifier& verifier);

    // The records logged since the last call.
    std::vector<logger_test::Record> TakeLog() { return m_sink->Take(); }

    PackageDir dir;
    std::shared_ptr<::testing::StrictMock<MockRegistry>> registry =
        std::make_shared<::testing::StrictMock<MockRegistry>>();
    std::shared_ptr<::testing::StrictMock<MockChecker>> checker =
        std::make_shared<::testing::StrictMock<MockChecker>>();
};

inline constexpr const char* kManageExceptionFile = "shared/common/utils/manage_exception";

// The one error line that ManageException logs for a failed Verify whose
// exception describes itself as `fullDescription`.
std::string FailureLine(const std::string& fullDescription);

}  // namespace verifier_test
