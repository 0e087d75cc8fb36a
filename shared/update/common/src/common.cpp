// The random device is read through Boost.Uuid's /dev/urandom provider, not
// getrandom(2), so that its failures carry the device's own texts. Every
// translation unit of the program that includes the Boost.Uuid random
// generator must agree on the provider; this is the only one that does.
#define BOOST_UUID_RANDOM_PROVIDER_FORCE_POSIX
#define BOOST_UUID_RANDOM_PROVIDER_POSIX_IMPL_READ ::update::detail::ReadRandomDevice

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace update::detail {
namespace {
// A device that reports end of file would make the provider's read loop spin
// for ever; it is a failed read instead.
ssize_t ReadRandomDevice(int fd, void* buffer, std::size_t size)
{
    const ssize_t got = ::read(fd, buffer, size);
    if (got == 0 && size != 0) {
        errno = EIO;
        return -1;
    }
    return got;
}
}  // namespace
}  // namespace update::detail

#include "update/common.h"

#include <algorithm>
#include <boost/uuid/entropy_error.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid.hpp>

#include "eka/result_code.h"
#include "eka/throw.h"

namespace update {
namespace {
constexpr const char* kAppListFileName = "appcollectioninfo.nos.vantor.json";
constexpr const char* kSignatureSuffix = ".sign";
constexpr const char* kUpdatePrefix = "update_";
constexpr const char* kProductName = "vantor3";
constexpr const char* kArchiveSuffix = ".tar.gz";

constexpr const char* kStorageRoot = "/update_storage";

constexpr const char* kFile = "shared/update/common/src/common";
constexpr int kEmptyFolderLine = 54;
}  // namespace

std::string GetAppListFileName()
{
    return kAppListFileName;
}

std::string GetAppListSignatureName()
{
    return std::string(kAppListFileName) + kSignatureSuffix;
}

std::string GetUpdateArchiveName()
{
    return std::string(kUpdatePrefix) + kProductName + kArchiveSuffix;
}

std::string GetUpdateSignatureName()
{
    return std::string(kUpdatePrefix) + kProductName + kSignatureSuffix;
}

std::filesystem::path GetPackagePath(const registry::ipc::SessionInfo& info)
{
    if (info.path.native().empty())
        eka::Throw<eka::ResultCodeException>(kFile, kEmptyFolderLine, eka::result::InvalidResult,
                                             u"empty package folder");
    std::filesystem::path packagePath(kStorageRoot);
    packagePath /= info.path;
    return packagePath;
}

eka::guid_t GenerateUuid()
{
    // Opening the device happens here and fails with "open /dev/urandom".
    boost::uuids::random_generator generator;
    boost::uuids::uuid value;
    try {
        value = generator();
    } catch (const boost::uuids::entropy_error& e) {
        // The provider names a failed read after the system call; callers
        // know it by the operation that failed.
        throw boost::uuids::entropy_error(e.errcode(), "get_random_bytes");
    }
    eka::guid_t id;
    std::copy(value.begin(), value.end(), id.bytes.begin());
    return id;
}

}  // namespace update
