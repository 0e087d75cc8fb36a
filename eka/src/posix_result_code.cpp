#include "eka/posix/result_code.h"

namespace eka::posix {
namespace {

// The platform's libc numbers errno values as NetBSD does; the host's may
// differ, so the values are spelled out rather than taken from <errno.h>.
enum PlatformErrno : unsigned int {
    kEPERM = 1,
    kENOENT = 2,
    kEIO = 5,
    kENOEXEC = 8,
    kEBADF = 9,
    kENOMEM = 12,
    kEACCES = 13,
    kEBUSY = 16,
    kEEXIST = 17,
    kENOTDIR = 20,
    kEINVAL = 22,
    kETXTBSY = 26,
    kEFBIG = 27,
    kENOSPC = 28,
    kELOOP = 62,
    kENAMETOOLONG = 63,
    kEOVERFLOW = 84,
};

}  // namespace

// ELOOP gives "Invalid state" and EOVERFLOW "Buffer too small": both are
// intended, and callers rely on them.
result_t ResultCodeFromSystemError(unsigned int error) noexcept
{
    switch (error) {
    case 0:
        return result::NoError;
    case kEPERM:
    case kEACCES:
        return result::AccessDenied;
    case kENOENT:
        return result::FileNotFound;
    case kEIO:
        return result::MediaError;
    case kENOEXEC:
        return result::SystemImageBadFormat;
    case kEBADF:
        return result::InvalidHandle;
    case kENOMEM:
        return result::OutOfMemory;
    case kEBUSY:
    case kETXTBSY:
        return result::Locked;
    case kEEXIST:
        return result::AlreadyExists;
    case kENOTDIR:
        return result::PathNotFound;
    case kEINVAL:
        return result::InvalidArgument;
    case kEFBIG:
        return result::FileIsTooBig;
    case kENOSPC:
        return result::OutOfSpace;
    case kELOOP:
        return result::InvalidState;
    case kENAMETOOLONG:
        return result::InvalidSize;
    case kEOVERFLOW:
        return result::BufferTooSmall;
    default:
        break;
    }
    if (error > 0xFFFFu)
        return result::UnspecifiedPlatformError;
    return MakeFailure(facility::Posix, error);
}

}  // namespace eka::posix
