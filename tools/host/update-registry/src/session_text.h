// Text forms of session values, shared by the host registry's state file
// and registry-cli.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "eka/guid.h"
#include "update/registry/ipc/registry_types.h"

namespace update_registry {

// "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx", lower case, the bytes in order.
std::string GuidToText(const eka::guid_t& id);
// Exactly that form (either case); nothing else.
std::optional<eka::guid_t> GuidFromText(std::string_view text);

// "product", "applist"; and their wire values "0", "1".
std::optional<update::registry::ipc::PackageType> PackageTypeFromText(std::string_view text);
// State names ("created" ... "finished") or their wire values "0" to "10".
std::optional<update::registry::ipc::UpdateState> UpdateStateFromText(std::string_view text);
const char* PackageTypeName(update::registry::ipc::PackageType type);
const char* UpdateStateName(update::registry::ipc::UpdateState state);

// A session handle in decimal or 0x-hexadecimal: any number that fits 64
// bits, so that a caller can tell a number too large from no number.
std::optional<std::uint64_t> HandleFromText(std::string_view text);

}  // namespace update_registry
