// Pieces shared by the two halves of the client library, and the reply
// decoding, which the fuzz target also reaches directly.
#pragma once

#include <cstddef>
#include <cstdint>

#include <nos/types.h>
#include <signature_verifier/signature_verifier_idl.h>

namespace signature_verifier::client {

// Local status values of the library (errno-style, fixed whatever the host's
// errno numbering).
inline constexpr int kStatusOk = 0;
inline constexpr int kStatusInvalidArgument = 22;
inline constexpr int kStatusOutOfMemory = 12;
inline constexpr int kStatusNoConnection = 13;
inline constexpr int kStatusHashFailed = 14;

// Writes one line at level 1 when the current level is above 0; the text is
// formatted only then.
void LogFault(const char* format, ...) __attribute__((format(printf, 1, 2)));

// LogFault, then gives back `status`.
int Fault(int status, const char* format, ...) __attribute__((format(printf, 2, 3)));

// How the answer of one request is named in the log: the library function
// and the interface method, e.g. "signature_verifier_check_buffer" and
// "nv_SignatureVerifier_CheckBuffer".
struct RequestNames {
    const char* function;
    const char* method;
};

// Turns the transport's return value and the reply into the status of a
// request, logging any failure:
//  - a non-zero return is given back as it is; when bit 14 of its magnitude
//    is set it is an encoded completion code, logged as "invalid completion
//    code" with bits 15 to 30 of the magnitude, else as "invalid result";
//  - a reply without the error bit gives 0;
//  - an error reply with completion code c gives -((c << 15) | 0x4000),
//    computed in 32 bits, and logs c cut to 16 bits.
int DecodeReply(Retcode callResult, const nv_SignatureVerifier_res& reply, const RequestNames& names);

}  // namespace signature_verifier::client
