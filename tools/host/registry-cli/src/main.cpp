// registry-cli: a command-line client of the update registry, built on the
// registry proxy, one call per run.
//
// Exit status: 0 the call succeeded; 1 it failed (the code is printed as
// "0x%08x (message)"); 2 bad command line.

#include <cstdio>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "eka/exception.h"
#include "eka/result_code.h"
#include "nos/logger/nos_logger.h"
#include "command_line.h"
#include "session_text.h"
#include "update/registry/ipc/proxy.h"

namespace {

using json = nlohmann::ordered_json;
using update::registry::ipc::IRegistry;
using update::registry::ipc::SessionInfo;

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

constexpr const char* kUsage = R"(Usage: registry-cli [OPTIONS] COMMAND [ARGS]

Calls the update registry over the host platform (runtime directory:
NOS_RUNTIME_DIR) through the registry client.

Commands:
  open TYPE           open a session; prints its handle
                      TYPE: product (0) or applist (1)
  close H             close session H
  list                print every session as a JSON list
  handle ID           print the handle of the session with id ID
                      (xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx)
  set-state H STATE   set the state of session H; STATE is a number 0 to 10
                      or its name: created downloading downloaded verifying
                      verified verification-failed installing installed
                      installation-failed cancelled finished
  info H              print session H as JSON: type, state, id, path

H is a handle in decimal or 0x-hexadecimal, at most 0xFFFFFF (16777215): the
registry's messages carry 24 bits of it, so a larger one is refused.

Options:
  --connection NAME   the registry's channel (default "update_registry")
  --endpoint NAME     its endpoint (default "UpdateRegistry.UpdateRegistry")
  -h, --help          this text
  --version           the version

Exit status: 0 success; 1 the call failed, its code printed on standard
error as 0x%08x with its message; 2 bad command line.
)";

using update_registry::UsageError;

json SessionJson(const SessionInfo& s)
{
    return {{"type", static_cast<unsigned int>(s.type)},
            {"state", static_cast<unsigned int>(s.state)},
            {"id", update_registry::GuidToText(s.id)},
            {"path", s.path.string()}};
}

void Print(const json& value)
{
    // A path need not be UTF-8; it is printed with replacement characters.
    std::puts(value.dump(2, ' ', false, json::error_handler_t::replace).c_str());
}

template <typename T>
T Parse(const std::optional<T>& parsed, std::string_view what, std::string_view text)
{
    if (!parsed)
        throw UsageError("bad " + std::string(what) + " '" + std::string(text) + "'");
    return *parsed;
}

// The registry's messages carry 24 bits of a handle: a larger one would name
// another session.
unsigned int HandleArg(const std::string& text)
{
    return update_registry::HandleOperand(text, 0xFFFFFF, "0xFFFFFF: a registry message carries 24 bits of a handle");
}

// A command parses its arguments first (UsageError), before anything is
// connected, and gives the call to make.
using Call = std::function<int(IRegistry&)>;

struct CommandSpec {
    std::size_t arguments;
    std::function<Call(const std::vector<std::string>&)> bind;
};

// A call that answers a handle, printed when the call succeeded.
template <typename Ask>
Call HandleCall(Ask ask)
{
    return [ask](IRegistry& r) {
        unsigned int handle = 0;
        const int rc = ask(r, handle);
        if (!eka::Failed(rc))
            std::printf("%u\n", handle);
        return rc;
    };
}

const std::map<std::string_view, CommandSpec>& Commands()
{
    using Args = std::vector<std::string>;
    static const std::map<std::string_view, CommandSpec> commands{
        {"open",
         {1,
          [](const Args& a) -> Call {
              const auto type = Parse(update_registry::PackageTypeFromText(a[0]), "package type", a[0]);
              return HandleCall([type](IRegistry& r, unsigned int& handle) { return r.Open(type, handle); });
          }}},
        {"close",
         {1,
          [](const Args& a) -> Call {
              const unsigned int handle = HandleArg(a[0]);
              return [handle](IRegistry& r) { return r.Close(handle); };
          }}},
        {"list",
         {0,
          [](const Args&) -> Call {
              return [](IRegistry& r) {
                  std::vector<SessionInfo> sessions;
                  const int rc = r.GetSessions(sessions);
                  if (!eka::Failed(rc)) {
                      json list = json::array();
                      for (const SessionInfo& s : sessions)
                          list.push_back(SessionJson(s));
                      Print(list);
                  }
                  return rc;
              };
          }}},
        {"handle",
         {1,
          [](const Args& a) -> Call {
              const eka::guid_t id = Parse(update_registry::GuidFromText(a[0]), "id", a[0]);
              return HandleCall([id](IRegistry& r, unsigned int& handle) { return r.GetHandle(id, handle); });
          }}},
        {"set-state",
         {2,
          [](const Args& a) -> Call {
              const unsigned int handle = HandleArg(a[0]);
              const auto state = Parse(update_registry::UpdateStateFromText(a[1]), "state", a[1]);
              return [handle, state](IRegistry& r) { return r.SetState(handle, state); };
          }}},
        {"info",
         {1,
          [](const Args& a) -> Call {
              const unsigned int handle = HandleArg(a[0]);
              return [handle](IRegistry& r) {
                  SessionInfo info;
                  const int rc = r.GetInfo(handle, info);
                  if (!eka::Failed(rc))
                      Print(SessionJson(info));
                  return rc;
              };
          }}},
    };
    return commands;
}

void PrintCode(int code)
{
    const std::string_view message = eka::result_code_message(code);
    std::fprintf(stderr, "0x%08x (%.*s)\n", static_cast<unsigned int>(code), static_cast<int>(message.size()),
                 message.data());
}

struct Invocation {
    std::string connection = "update_registry";
    std::string endpoint = "UpdateRegistry.UpdateRegistry";
    Call call;
    bool help = false;
};

Invocation ParseCommandLine(int argc, char** argv)
{
    Invocation invocation;
    update_registry::ArgumentReader args(argc, argv);
    while (args.AtOption()) {
        const std::string arg = args.Next();
        if (arg == "-h" || arg == "--help")
            invocation.help = true;
        else if (arg == "--connection")
            invocation.connection = args.Value(arg);
        else if (arg == "--endpoint")
            invocation.endpoint = args.Value(arg);
        else
            throw UsageError("unknown option '" + arg + "'");
    }
    if (invocation.help)
        return invocation;
    if (args.Done())
        throw UsageError("no command");
    const std::string name = args.Next();
    const auto found = Commands().find(name);
    if (found == Commands().end())
        throw UsageError("unknown command '" + name + "'");
    const std::vector<std::string> arguments = args.Rest();
    if (arguments.size() != found->second.arguments)
        throw UsageError(name + " takes " + std::to_string(found->second.arguments) + " argument(s)");
    invocation.call = found->second.bind(arguments);
    return invocation;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::string_view(argv[1]) == "--version") {
        std::puts("registry-cli " VERIFIER_VERSION);
        return 0;
    }
    try {
        const Invocation invocation = ParseCommandLine(argc, argv);
        if (invocation.help) {
            std::fputs(kUsage, stdout);
            return kExitOk;
        }
        // Failures of the calls are logged by the client at error level.
        nos::logger::NOSLogger::Setup("registry-cli", nos::logger::LogLevel::Warning, nullptr);
        std::unique_ptr<IRegistry> registry;
        try {
            registry = update::registry::ipc::CreateProxy(invocation.connection, invocation.endpoint);
        } catch (const eka::ResultCodeException& e) {
            std::fprintf(stderr, "registry-cli: cannot reach %s (%s)\n", invocation.connection.c_str(),
                         invocation.endpoint.c_str());
            PrintCode(e.result());
            return kExitFailed;
        }
        const int rc = invocation.call(*registry);
        if (!eka::Failed(rc))
            return kExitOk;
        PrintCode(rc);
        return kExitFailed;
    } catch (const UsageError& e) {
        std::fprintf(stderr, "registry-cli: %s\n%s", e.what(), kUsage);
        return kExitUsage;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "registry-cli: %s\n", e.what());
        return kExitFailed;
    }
}
