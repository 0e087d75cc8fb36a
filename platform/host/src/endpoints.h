// Endpoint tables: which riid each endpoint name of a channel has.
#ifndef NOS_HOST_ENDPOINTS_H
#define NOS_HOST_ENDPOINTS_H

#include <nos/types.h>

#include <string>
#include <string_view>
#include <vector>

namespace nos_host {

// The table ServiceLocatorRegister publishes for `channel`: the one set by
// NosHostSetEndpoints in this process, else the built-in one of a fixed
// channel name, else an empty one. Endpoint i has riid i.
std::vector<std::string> EndpointsOf(const std::string& channel);
Retcode SetEndpoints(const std::string& channel, std::vector<std::string> names);

// File text: one line "<riid> <name>" per endpoint, riid in decimal.
std::string FormatEndpointTable(const std::vector<std::string>& names);
// INVALID_RIID when the name is not in the text or the text is malformed.
uint32_t LookUpEndpoint(std::string_view table, std::string_view name);

std::string EndpointTablePath(const std::string& runtimeDir, const std::string& channel);
std::string ChannelSocketPath(const std::string& runtimeDir, const std::string& channel);

}  // namespace nos_host

#endif
