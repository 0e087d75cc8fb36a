#include "endpoints.h"

#include <charconv>
#include <map>
#include <mutex>

namespace nos_host {
namespace {

struct Registry {
    std::mutex mutex;
    std::map<std::string, std::vector<std::string>, std::less<>> tables{
        {"verifier", {"Verifier.product", "Verifier.applist"}},
        {"update_registry", {"UpdateRegistry.UpdateRegistry"}},
        {"nv.SignatureVerifierEntity", {"storage.storage"}},
        {"nv.NvlogStorageEntity", {"nv.NvlogStorage.storage"}},
    };
};

Registry& TheRegistry()
{
    static auto* registry = new Registry;
    return *registry;
}

}  // namespace

std::vector<std::string> EndpointsOf(const std::string& channel)
{
    Registry& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    auto it = registry.tables.find(channel);
    return it == registry.tables.end() ? std::vector<std::string>{} : it->second;
}

Retcode SetEndpoints(const std::string& channel, std::vector<std::string> names)
{
    Registry& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    registry.tables[channel] = std::move(names);
    return NK_EOK;
}

std::string FormatEndpointTable(const std::vector<std::string>& names)
{
    std::string text;
    for (size_t riid = 0; riid < names.size(); ++riid)
        text += std::to_string(riid) + ' ' + names[riid] + '\n';
    return text;
}

uint32_t LookUpEndpoint(std::string_view table, std::string_view name)
{
    while (!table.empty()) {
        const size_t eol = table.find('\n');
        if (eol == std::string_view::npos)
            return INVALID_RIID;  // every line ends with a newline
        const std::string_view line = table.substr(0, eol);
        table.remove_prefix(eol + 1);
        const size_t blank = line.find(' ');
        if (blank == std::string_view::npos)
            return INVALID_RIID;
        uint32_t riid = 0;
        const auto [end, error] = std::from_chars(line.data(), line.data() + blank, riid);
        if (error != std::errc{} || end != line.data() + blank || riid >= INVALID_RIID)
            return INVALID_RIID;
        if (line.substr(blank + 1) == name)
            return riid;
    }
    return INVALID_RIID;
}

std::string EndpointTablePath(const std::string& runtimeDir, const std::string& channel)
{
    return runtimeDir + '/' + channel + ".endpoints";
}

std::string ChannelSocketPath(const std::string& runtimeDir, const std::string& channel)
{
    return runtimeDir + '/' + channel + ".sock";
}

}  // namespace nos_host
