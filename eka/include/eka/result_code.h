// Result codes of the framework and platform facilities, with their messages.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace eka {

// A 32-bit result code. Bit 31 marks a failure, bits 16 to 30 name the
// facility, bits 0 to 15 the code within it. Values are often written as
// unsigned hexadecimal literals; they convert to this type unchanged.
using result_t = std::int32_t;

namespace facility {
inline constexpr std::uint32_t Framework = 0;
inline constexpr std::uint32_t Platform = 1;
// Carries a POSIX errno value in the low 16 bits.
inline constexpr std::uint32_t Posix = 6;
}  // namespace facility

constexpr bool Failed(result_t code) noexcept { return code < 0; }

constexpr result_t MakeFailure(std::uint32_t facilityId, std::uint32_t code) noexcept
{
    return static_cast<result_t>(0x80000000u | ((facilityId & 0x7FFFu) << 16) | (code & 0xFFFFu));
}

// Every code that has a message: X(name, value, message).
// clang-format off
#define EKA_RESULT_CODES(X) \
    X(NoError, 0x00000000u, "No error") \
    X(False, 0x00000001u, "False") \
    X(InterfaceNotSupported, 0x80000001u, "Interface not supported") \
    X(Unexpected, 0x80000040u, "Unexpected") \
    X(OutOfMemory, 0x80000041u, "Out of memory") \
    X(NotSupported, 0x80000042u, "Not supported") \
    X(NotImplemented, 0x80000043u, "Not implemented") \
    X(BufferTooSmall, 0x80000044u, "Buffer too small") \
    X(AccessDenied, 0x80000045u, "Access denied") \
    X(InvalidArgument, 0x80000046u, "Invalid argument") \
    X(BadCast, 0x80000047u, "Bad cast") \
    X(NotMatched, 0x8000004Au, "Not matched") \
    X(UnspecifiedError, 0x8000004Bu, "Unspecified error") \
    X(NotFound, 0x8000004Cu, "Not found") \
    X(Found, 0x8000004Du, "Found") \
    X(Locked, 0x8000004Fu, "Locked") \
    X(NotLocked, 0x80000050u, "Not locked") \
    X(OperationCancelled, 0x80000051u, "Operation cancelled") \
    X(MethodNotFound, 0x80000057u, "Method not found") \
    X(StackIsEmpty, 0x80000058u, "Stack is empty") \
    X(MediaError, 0x80000059u, "Media error") \
    X(InvalidSignature, 0x8000005Au, "Invalid signature") \
    X(InvalidVersion, 0x8000005Bu, "Invalid version") \
    X(InvalidSize, 0x8000005Cu, "Invalid size") \
    X(InvalidType, 0x8000005Du, "Invalid type") \
    X(OutOfRange, 0x8000005Eu, "Out of range") \
    X(OutOfSpace, 0x80000062u, "Out of space") \
    X(NotReady, 0x80000063u, "Not ready") \
    X(LessThan, 0x80000064u, "Less than") \
    X(MoreThan, 0x80000065u, "More than") \
    X(Prohibited, 0x80000066u, "Prohibited") \
    X(AlreadyDone, 0x80000067u, "Already done") \
    X(NeedReboot, 0x80000068u, "Need reboot") \
    X(BasesCorrupted, 0x80000069u, "Bases corrupted") \
    X(InvalidState, 0x8000006Au, "Invalid state") \
    X(NotInitialized, 0x8000006Bu, "Not initialized") \
    X(InsufficientResources, 0x8000006Cu, "Insufficient resources") \
    X(InvalidResult, 0x80000071u, "Invalid result") \
    X(UnknownException, 0x80000072u, "Unknown exception") \
    X(MetaInformationNotFound, 0x80000076u, "Meta information not found") \
    X(NumericalTypeOverflow, 0x80000077u, "Numerical type overflow") \
    X(FileIsTooBig, 0x80000078u, "File is too big") \
    X(TraceLevelOk, 0x80000079u, "Trace level ok") \
    X(TraceLevelProhibited, 0x8000007Au, "Trace level prohibited") \
    X(ClassNotFound, 0x80000100u, "Class not found") \
    X(SettingsAreRequired, 0x80000101u, "Settings are required") \
    X(UnexpectedSettings, 0x80000102u, "Unexpected settings") \
    X(WrongSettingsType, 0x80000103u, "Wrong settings type") \
    X(WrongSettingsRevision, 0x80000104u, "Wrong settings revision") \
    X(SettingsNotFound, 0x80000105u, "Settings not found") \
    X(ObjectIsUntrusted, 0x80000106u, "Object is untrusted") \
    X(NoCurrentException, 0x80000150u, "No current exception") \
    X(ExceptionHasNoResultCode, 0x80000151u, "Exception has no result code") \
    X(ExceptionWithSuccessfulResultCode, 0x80000152u, "Exception with successful result code") \
    X(PropertyNotFound, 0x80000180u, "Property not found") \
    X(OperationTimeout, 0x80000221u, "Operation timeout") \
    X(InvalidSymbol, 0x80000300u, "Invalid symbol") \
    X(NonDecSymbol, 0x80000301u, "Non dec symbol") \
    X(NonHexSymbol, 0x80000302u, "Non hex symbol") \
    X(NonBase64Symbol, 0x80000303u, "Non base64 symbol") \
    X(SyntaxError, 0x80000310u, "Syntax error") \
    X(GuidSyntaxError, 0x80000311u, "GUID syntax error") \
    X(OidSyntaxError, 0x80000312u, "OID syntax error") \
    X(DateTimeSyntaxError, 0x80000313u, "DateTime syntax error") \
    X(UnspecifiedPlatformError, 0x80010100u, "Unspecified platform error") \
    X(InvalidHandle, 0x80010101u, "Invalid handle") \
    X(FileNotFound, 0x80010102u, "File not found") \
    X(PathNotFound, 0x80010103u, "Path not found") \
    X(SharingViolation, 0x80010104u, "Sharing violation") \
    X(AlreadyExists, 0x80010105u, "Already exists") \
    X(WaitAbandoned, 0x80010106u, "Wait abandoned") \
    X(SymbolNotFound, 0x80010107u, "Symbol not found") \
    X(SxsIsIncorrect, 0x80010108u, "Sxs is incorrect") \
    X(InvalidPathName, 0x80010109u, "Invalid path name") \
    X(CannotOpenAnonymousToken, 0x80010110u, "Cannot open an anonymous level security token") \
    X(PasswordIsInvalid, 0x80010111u, "Password is invalid") \
    X(ModuleNotFound, 0x80010112u, "Module not found") \
    X(SystemImageBadSignature, 0x80010113u, "System image bad signature") \
    X(CloudFileRequestAborted, 0x80010114u, "Cloud file request aborted") \
    X(MemoryMappingFailed, 0x80010115u, "Memory mapping failed") \
    X(NetworkError, 0x80010116u, "Network error") \
    X(SystemImageBadFormat, 0x80010117u, "System image bad format")

// clang-format on

namespace result {
#define EKA_DECLARE_RESULT_CODE(name, value, message) inline constexpr result_t name = static_cast<result_t>(value);
EKA_RESULT_CODES(EKA_DECLARE_RESULT_CODE)
#undef EKA_DECLARE_RESULT_CODE
}  // namespace result

// Message of a code, as static text. Codes without a message, in any
// facility, give "Unknown result code". Never fails.
std::string_view result_code_message(result_t code) noexcept;

// "0x" and the code as 8 lower-case hexadecimal digits, then " (", the
// code's message and ")": "0x80000071 (Invalid result)".
std::string FormatResultCode(result_t code);

}  // namespace eka
