// Range-checked conversions between the registry's enumerations and their
// wire values. Values that arrive from the registry are checked here and
// nowhere else.
#pragma once

#include "update/registry/ipc/registry_types.h"

namespace update::registry::ipc {

// Each throws eka::CheckFailedException ("invalid update state: <n>" or
// "invalid package type: <n>", n in decimal) for a value out of range.
UpdateState ToUpdateState(unsigned int value);
unsigned int FromUpdateState(UpdateState state);
PackageType ToPackageType(unsigned char value);
unsigned char FromPackageType(PackageType type);

}  // namespace update::registry::ipc
