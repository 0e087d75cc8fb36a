#include "update/registry/ipc/enum_converters.h"

#include <type_traits>

#include "eka/exception.h"
#include "eka/throw.h"

namespace update::registry::ipc {
namespace {
// The file and line of each failure are part of what the log shows, so
// they are fixed values rather than wherever the throw happens to sit.
constexpr const char* kFile = "shared/updater_pdk/registry_api/src/enum_converters";
constexpr int kToUpdateStateLine = 28;
constexpr int kFromUpdateStateLine = 47;
constexpr int kToPackageTypeLine = 58;
constexpr int kFromPackageTypeLine = 68;

constexpr const char16_t* kInvalidState = u"invalid update state: ";
constexpr const char16_t* kInvalidType = u"invalid package type: ";

template <typename Enum>
auto Raw(Enum value) noexcept
{
    return static_cast<std::underlying_type_t<Enum>>(value);
}
}  // namespace

UpdateState ToUpdateState(unsigned int value)
{
    if (value >= kUpdateStateCount)
        eka::Throw(kFile, kToUpdateStateLine, eka::CheckFailedException(kInvalidState) << value);
    return static_cast<UpdateState>(value);
}

unsigned int FromUpdateState(UpdateState state)
{
    if (Raw(state) >= kUpdateStateCount)
        eka::Throw(kFile, kFromUpdateStateLine, eka::CheckFailedException(kInvalidState) << Raw(state));
    return Raw(state);
}

PackageType ToPackageType(unsigned char value)
{
    if (value >= kPackageTypeCount)
        eka::Throw(kFile, kToPackageTypeLine, eka::CheckFailedException(kInvalidType) << value);
    return static_cast<PackageType>(value);
}

unsigned char FromPackageType(PackageType type)
{
    if (Raw(type) >= kPackageTypeCount)
        eka::Throw(kFile, kFromPackageTypeLine, eka::CheckFailedException(kInvalidType) << Raw(type));
    return Raw(type) == 1 ? 1 : 0;
}

}  // namespace update::registry::ipc
