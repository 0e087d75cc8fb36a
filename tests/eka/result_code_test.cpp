#include <cstdint>
#include <string_view>

#include <gtest/gtest.h>

#include "eka/posix/result_code.h"
#include "eka/result_code.h"

namespace {

struct CodeCase {
    std::uint32_t code;
    std::string_view message;
};

constexpr std::string_view kUnknown = "Unknown result code";

class ResultCodeMessageTest : public ::testing::TestWithParam<CodeCase> {};

TEST_P(ResultCodeMessageTest, ResultCodeMessage_GivesTableText)
{
    const CodeCase& c = GetParam();
    EXPECT_EQ(eka::result_code_message(static_cast<eka::result_t>(c.code)), c.message) << std::hex << c.code;
}

constexpr CodeCase kFramework[] = {
    {0x00000000u, "No error"},
    {0x00000001u, "False"},
    {0x80000001u, "Interface not supported"},
    {0x80000040u, "Unexpected"},
    {0x80000041u, "Out of memory"},
    {0x80000042u, "Not supported"},
    {0x80000043u, "Not implemented"},
    {0x80000044u, "Buffer too small"},
    {0x80000045u, "Access denied"},
    {0x80000046u, "Invalid argument"},
    {0x80000047u, "Bad cast"},
    {0x8000004Au, "Not matched"},
    {0x8000004Bu, "Unspecified error"},
    {0x8000004Cu, "Not found"},
    {0x8000004Du, "Found"},
    {0x8000004Fu, "Locked"},
    {0x80000050u, "Not locked"},
    {0x80000051u, "Operation cancelled"},
    {0x80000057u, "Method not found"},
    {0x80000058u, "Stack is empty"},
    {0x80000059u, "Media error"},
    {0x8000005Au, "Invalid signature"},
    {0x8000005Bu, "Invalid version"},
    {0x8000005Cu, "Invalid size"},
    {0x8000005Du, "Invalid type"},
    {0x8000005Eu, "Out of range"},
    {0x80000062u, "Out of space"},
    {0x80000063u, "Not ready"},
    {0x80000064u, "Less than"},
    {0x80000065u, "More than"},
    {0x80000066u, "Prohibited"},
    {0x80000067u, "Already done"},
    {0x80000068u, "Need reboot"},
    {0x80000069u, "Bases corrupted"},
    {0x8000006Au, "Invalid state"},
    {0x8000006Bu, "Not initialized"},
    {0x8000006Cu, "Insufficient resources"},
    {0x80000071u, "Invalid result"},
    {0x80000072u, "Unknown exception"},
    {0x80000076u, "Meta information not found"},
    {0x80000077u, "Numerical type overflow"},
    {0x80000078u, "File is too big"},
    {0x80000079u, "Trace level ok"},
    {0x8000007Au, "Trace level prohibited"},
    {0x80000100u, "Class not found"},
    {0x80000101u, "Settings are required"},
    {0x80000102u, "Unexpected settings"},
    {0x80000103u, "Wrong settings type"},
    {0x80000104u, "Wrong settings revision"},
    {0x80000105u, "Settings not found"},
    {0x80000106u, "Object is untrusted"},
    {0x80000150u, "No current exception"},
    {0x80000151u, "Exception has no result code"},
    {0x80000152u, "Exception with successful result code"},
    {0x80000180u, "Property not found"},
    {0x80000221u, "Operation timeout"},
    {0x80000300u, "Invalid symbol"},
    {0x80000301u, "Non dec symbol"},
    {0x80000302u, "Non hex symbol"},
    {0x80000303u, "Non base64 symbol"},
    {0x80000310u, "Syntax error"},
    {0x80000311u, "GUID syntax error"},
    {0x80000312u, "OID syntax error"},
    {0x80000313u, "DateTime syntax error"},
};
INSTANTIATE_TEST_SUITE_P(Framework, ResultCodeMessageTest, ::testing::ValuesIn(kFramework));

constexpr CodeCase kPlatform[] = {
    {0x80010100u, "Unspecified platform error"},
    {0x80010101u, "Invalid handle"},
    {0x80010102u, "File not found"},
    {0x80010103u, "Path not found"},
    {0x80010104u, "Sharing violation"},
    {0x80010105u, "Already exists"},
    {0x80010106u, "Wait abandoned"},
    {0x80010107u, "Symbol not found"},
    {0x80010108u, "Sxs is incorrect"},
    {0x80010109u, "Invalid path name"},
    {0x8001010Au, kUnknown},
    {0x8001010Bu, kUnknown},
    {0x8001010Cu, kUnknown},
    {0x8001010Du, kUnknown},
    {0x8001010Eu, kUnknown},
    {0x8001010Fu, kUnknown},
    {0x80010110u, "Cannot open an anonymous level security token"},
    {0x80010111u, "Password is invalid"},
    {0x80010112u, "Module not found"},
    {0x80010113u, "System image bad signature"},
    {0x80010114u, "Cloud file request aborted"},
    {0x80010115u, "Memory mapping failed"},
    {0x80010116u, "Network error"},
    {0x80010117u, "System image bad format"},
    {0x80010118u, kUnknown},
};
INSTANTIATE_TEST_SUITE_P(Platform, ResultCodeMessageTest, ::testing::ValuesIn(kPlatform));

// Neighbours of real codes, other facilities and non-failure twins.
constexpr CodeCase kUnassigned[] = {
    {0x80000000u, kUnknown}, {0x80000048u, kUnknown}, {0x80000181u, kUnknown}, {0x80000314u, kUnknown},
    {0x00000002u, kUnknown}, {0x00000071u, kUnknown}, {0x00010101u, kUnknown}, {0x80060023u, kUnknown},
    {0x80020100u, kUnknown}, {0xFFFFFFFFu, kUnknown}, {0x7FFFFFFFu, kUnknown},
};
INSTANTIATE_TEST_SUITE_P(Unassigned, ResultCodeMessageTest, ::testing::ValuesIn(kUnassigned));

TEST(ResultCodeTest, FormatResultCode_ZeroFilledLowerCaseHex)
{
    EXPECT_EQ(eka::FormatResultCode(eka::result::InvalidResult), "0x80000071 (Invalid result)");
    EXPECT_EQ(eka::FormatResultCode(0), "0x00000000 (No error)");
    EXPECT_EQ(eka::FormatResultCode(static_cast<eka::result_t>(0x8001010Au)), "0x8001010a (Unknown result code)");
}

TEST(ResultCodeTest, FacilityOf_NamesFacilityBits)
{
    EXPECT_EQ(eka::FacilityOf(eka::result::InvalidHandle), eka::facility::Platform);
    EXPECT_EQ(eka::FacilityOf(eka::result::InvalidResult), eka::facility::Framework);
    EXPECT_EQ(eka::FacilityOf(eka::MakeFailure(eka::facility::Posix, 35)), eka::facility::Posix);
    EXPECT_EQ(static_cast<std::uint32_t>(eka::MakeFailure(eka::facility::Posix, 35)), 0x80060023u);
    EXPECT_TRUE(eka::Failed(eka::result::UnknownException));
    EXPECT_FALSE(eka::Failed(eka::result::False));
}

struct ErrnoCase {
    unsigned int error;
    std::uint32_t code;
};

class ResultCodeFromSystemErrorTest : public ::testing::TestWithParam<ErrnoCase> {};

TEST_P(ResultCodeFromSystemErrorTest, ResultCodeFromSystemError_MapsErrno)
{
    const ErrnoCase& c = GetParam();
    EXPECT_EQ(static_cast<std::uint32_t>(eka::posix::ResultCodeFromSystemError(c.error)), c.code)
        << "errno " << c.error;
}

constexpr ErrnoCase kErrno[] = {
    {0, 0x00000000u},      {1, 0x80000045u},      {13, 0x80000045u},     {2, 0x80010102u},
    {5, 0x80000059u},      {8, 0x80010117u},      {9, 0x80010101u},      {12, 0x80000041u},
    {16, 0x8000004Fu},     {26, 0x8000004Fu},     {17, 0x80010105u},     {20, 0x80010103u},
    {22, 0x80000046u},     {27, 0x80000078u},     {28, 0x80000062u},     {62, 0x8000006Au},
    {63, 0x8000005Cu},     {84, 0x80000044u},
    // Not in the mapping: kept in the POSIX facility, or the catch-all when too wide.
    {3, 0x80060003u},      {35, 0x80060023u},     {40, 0x80060028u},     {0xFFFFu, 0x8006FFFFu},
    {0x10000u, 0x80010100u}, {70000, 0x80010100u}, {0xFFFFFFFFu, 0x80010100u},
};
INSTANTIATE_TEST_SUITE_P(Errno, ResultCodeFromSystemErrorTest, ::testing::ValuesIn(kErrno));

}  // namespace
