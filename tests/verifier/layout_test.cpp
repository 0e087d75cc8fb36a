// Where a session's package lies and what its files are called.
#include <gtest/gtest.h>

#include <string>

#include "update/common.h"

namespace verifier_test {
namespace {

TEST(PackageLayoutTest, GetPackagePath_FilesOfOnePackage)
{
    struct Row {
        const char* folder;
        const char* directory;
    };
    const Row rows[] = {
        {"abc", "/update_storage/abc"},
        {"a/b/", "/update_storage/a/b/"},
        {"../x", "/update_storage/../x"},  // not resolved: the registry owns the folder names
        {"/tmp/x", "/tmp/x"},              // an absolute folder replaces the root
    };
    for (const Row& row : rows) {
        update::registry::ipc::SessionInfo info;
        info.path = row.folder;
        EXPECT_EQ(update::GetPackagePath(info).native(), row.directory) << row.folder;
    }
    const std::filesystem::path dir = "/update_storage/abc";
    EXPECT_EQ(dir / update::GetAppListFileName(), "/update_storage/abc/appcollectioninfo.nos.vantor.json");
    EXPECT_EQ(dir / update::GetAppListSignatureName(), "/update_storage/abc/appcollectioninfo.nos.vantor.json.sign");
    EXPECT_EQ(dir / update::GetUpdateArchiveName(), "/update_storage/abc/update_vantor3.tar.gz");
    EXPECT_EQ(dir / update::GetUpdateSignatureName(), "/update_storage/abc/update_vantor3.sign");
}

TEST(PackageLayoutTest, GenerateUuid_RandomVersion4)
{
    const eka::guid_t first = update::GenerateUuid();
    const eka::guid_t second = update::GenerateUuid();
    EXPECT_NE(first.bytes, second.bytes);
    for (const eka::guid_t& id : {first, second}) {
        EXPECT_EQ(id.bytes[6] & 0xF0, 0x40);
        EXPECT_EQ(id.bytes[8] & 0xC0, 0x80);
    }
}

}  // namespace
}  // namespace verifier_test
