// The on-disk layout of an update package, the contract between whoever
// stores a package and whoever checks it:
//
//   /update_storage/<package folder>/appcollectioninfo.nos.vantor.json
//   /update_storage/<package folder>/appcollectioninfo.nos.vantor.json.sign
//   /update_storage/<package folder>/update_vantor3.tar.gz
//   /update_storage/<package folder>/update_vantor3.sign
//
// The archive's signature is NOT the archive name with ".sign" appended,
// while the list's signature is; both rules are required as they are.
#pragma once

#include <filesystem>
#include <string>

#include "eka/guid.h"
#include "update/registry/ipc/registry_types.h"

namespace update {

// Each returns a new string; nothing is cached.
std::string GetAppListFileName();
std::string GetAppListSignatureName();
std::string GetUpdateArchiveName();
std::string GetUpdateSignatureName();

// The session's package directory: "/update_storage" joined with the
// session's package folder. The folder is taken as it is: an absolute folder
// replaces the storage root, and ".." is not resolved. An empty folder throws
// eka::ResultCodeException 0x80000071 "empty package folder".
std::filesystem::path GetPackagePath(const registry::ipc::SessionInfo& info);

// A random (version 4, RFC 4122 variant) identifier from "/dev/urandom".
// Throws boost::uuids::entropy_error, whose what() is "open /dev/urandom"
// when the device cannot be opened and "get_random_bytes" when it cannot be
// read, and whose errcode() is the system error number.
eka::guid_t GenerateUuid();

}  // namespace update
