#include "fakes.h"

#include <stdlib.h>

#include <fstream>
#include <stdexcept>
#include <system_error>

#include "eka/exception.h"
#include "eka/text.h"

namespace verifier_test {

PackageDir::PackageDir()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "verifier-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::system_error(errno, std::generic_category(), "mkdtemp");
    m_path = pattern;
}

PackageDir::~PackageDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

void PackageDir::Touch(const std::string& name) const
{
    std::ofstream out(m_path / name, std::ios::binary);
    out << "content of " << name;
    if (!out)
        throw std::runtime_error("cannot write " + (m_path / name).string());
}

void PackageDir::MakeDirectory(const std::string& name) const { std::filesystem::create_directory(m_path / name); }

SessionInfo PackageDir::Session() const
{
    SessionInfo info;
    info.type = update::registry::ipc::PackageType::AppList;
    info.path = m_path;
    return info;
}

Thrown CaptureThrow(const std::function<void()>& body)
{
    try {
        body();
    } catch (const eka::Exception& e) {
        const auto* coded = dynamic_cast<const eka::ResultCodeException*>(&e);
        return Thrown{e.what(), coded != nullptr ? coded->result() : 0, e.file() != nullptr ? e.file() : "",
                      e.line(), eka::text::Utf16ToUtf8(e.description())};
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}

void VerifierTest::ExpectSession(const PackageDir& folder, unsigned int handle, int result)
{
    EXPECT_CALL(*registry, GetInfo(handle, ::testing::_))
        .WillOnce(::testing::DoAll(::testing::SetArgReferee<1>(folder.Session()), ::testing::Return(result)));
}

void VerifierTest::VerifyFakes()
{
    EXPECT_TRUE(::testing::Mock::VerifyAndClearExpectations(registry.get()));
    EXPECT_TRUE(::testing::Mock::VerifyAndClearExpectations(checker.get()));
}

void VerifierTest::RunFailureTable(const std::vector<FailureRow>& rows, const std::function<void(unsigned int)>& body,
                                   const update::verifier::ipc::IVerifier& verifier)
{
    for (const FailureRow& row : rows) {
        SCOPED_TRACE(row.name);
        const PackageDir folder;
        const std::string description = row.description(folder);

        row.arrange(folder);
        const Thrown thrown = CaptureThrow([&] { body(row.handle); });
        EXPECT_EQ(thrown.what, row.what);
        EXPECT_EQ(thrown.code, row.code);
        EXPECT_EQ(thrown.file, row.file);
        EXPECT_EQ(thrown.line, row.line);
        EXPECT_EQ(thrown.description, description);
        EXPECT_TRUE(TakeLog().empty()) << "a failure is logged only by ManageException";
        VerifyFakes();

        row.arrange(folder);
        EXPECT_EQ(verifier.Verify(row.handle), row.code);
        const auto log = TakeLog();
        ASSERT_EQ(log.size(), 1u);
        EXPECT_EQ(log[0].level, spdlog::level::err);
        EXPECT_EQ(log[0].file, kManageExceptionFile);
        EXPECT_EQ(log[0].text, FailureLine(description + ": " + row.codeText));
        VerifyFakes();
    }
}

std::string FailureLine(const std::string& fullDescription)
{
    return ": " + fullDescription + " ; detailed: exception during: Verify";
}

}  // namespace verifier_test
