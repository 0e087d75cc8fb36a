// Fuzz target: the decoding of the registry's answers, ToSessionInfo (the
// GetInfo record) and SessionsFromArena (the GetSessions sequence), over
// arbitrary records and arenas.
//
// Input: mode (1 byte), then for ToSessionInfo (bit 0 clear) a 32-byte wire
// record, for SessionsFromArena (bit 0 set) an 8-byte sequence descriptor;
// the rest is the arena. Bits 1-2 shape the arena: 0 filled to its end,
// 1 nothing filled (current = start), 2 no buffer at all, 3 end before start.
//
// Checks every outcome against the rules of the wire record: which exception
// (type before state before path bounds) with its exact text and source
// line, the decoded fields, that a decoded record re-encodes with
// FromSessionInfo and decodes back equal, that a refused sequence leaves the
// caller's vector as it was, and that a failing record leaves exactly the
// records before it appended.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "eka/exception.h"
#include "eka/text.h"
#include "fuzz_support.h"
#include "update/registry/ipc/proxy.h"
#include "update/registry/ipc/session_converters.h"

namespace {

using update::registry::ipc::SessionInfo;

constexpr const char* kArenaFailure = "nos_ipc::StringFromArena(): Failed to acquire string from arena";

struct Arena {
    std::vector<std::uint8_t> bytes;
    nk_arena arena{};

    Arena(std::vector<std::uint8_t> content, unsigned shape) : bytes(std::move(content))
    {
        std::uint8_t* begin = bytes.empty() ? nullptr : bytes.data();
        nk_arena_init(&arena, begin, bytes.size());
        arena.current = arena.end;
        if (shape == 1)
            arena.current = arena.start;
        if (shape == 2)
            nk_arena_init(&arena, nullptr, 0);
        if (shape == 3 && begin != nullptr) {
            arena.start = begin + bytes.size();
            arena.current = arena.start;
            arena.end = begin;
        }
    }

    // Whether [offset, offset + size) lies inside the arena, by the arena
    // rules: a buffer, end not before start, the bytes within capacity.
    bool Holds(std::uint32_t offset, std::uint32_t size) const
    {
        if (arena.start == nullptr || arena.end < arena.start)
            return false;
        const std::uint64_t capacity = static_cast<std::uint64_t>(arena.end - arena.start);
        return std::uint64_t{offset} + size <= capacity;
    }
};

// What a record must decode to, or how it must fail.
enum class Fault { None, Type, State, Path };

Fault ExpectedFault(const nv_IUpdateRegistry_SessionInfo& wire, const Arena& arena)
{
    if (wire.type > 1)
        return Fault::Type;
    if (wire.state > 10)
        return Fault::State;
    if (!arena.Holds(wire.path.offset, wire.path.size))
        return Fault::Path;
    return Fault::None;
}

void CheckDecoded(const SessionInfo& info, const nv_IUpdateRegistry_SessionInfo& wire, const Arena& arena)
{
    FUZZ_CHECK(static_cast<std::uint32_t>(info.type) == wire.type);
    FUZZ_CHECK(static_cast<std::uint32_t>(info.state) == wire.state);
    FUZZ_CHECK(std::memcmp(info.id.bytes.data(), wire.id, sizeof wire.id) == 0);
    const auto* text = reinterpret_cast<const char*>(arena.arena.start) + wire.path.offset;
    FUZZ_CHECK(info.path.native() == std::string(text, wire.path.size));
}

void CheckFault(Fault fault, const std::exception& error, const nv_IUpdateRegistry_SessionInfo& wire)
{
    FUZZ_CHECK(fault != Fault::None);
    if (fault == Fault::Path) {
        FUZZ_CHECK(dynamic_cast<const eka::Exception*>(&error) == nullptr);
        FUZZ_CHECK(std::string(error.what()) == kArenaFailure);
        return;
    }
    const auto* check = dynamic_cast<const eka::CheckFailedException*>(&error);
    FUZZ_CHECK(check != nullptr);
    const std::string description = eka::text::Utf16ToUtf8(check->description());
    FUZZ_CHECK(std::string(check->file()) == "shared/updater_pdk/registry_api/src/enum_converters");
    if (fault == Fault::Type) {
        FUZZ_CHECK(description == "invalid package type: " + std::to_string(wire.type));
        FUZZ_CHECK(check->line() == 58);
    } else {
        FUZZ_CHECK(description == "invalid update state: " + std::to_string(wire.state));
        FUZZ_CHECK(check->line() == 28);
    }
}

// A decoded record written back into an arena of its own decodes equal.
void CheckReencodes(const SessionInfo& info, const nv_IUpdateRegistry_SessionInfo& wire)
{
    std::vector<std::uint8_t> buffer(info.path.native().size() + 1);
    nk_arena arena{};
    nk_arena_init(&arena, buffer.data(), buffer.size());
    const nv_IUpdateRegistry_SessionInfo again = update::registry::ipc::FromSessionInfo(info, arena);
    FUZZ_CHECK(again.type == wire.type && again.state == wire.state);
    FUZZ_CHECK(std::memcmp(again.id, wire.id, sizeof wire.id) == 0);
    FUZZ_CHECK(again.path.offset == 0 && again.path.size == wire.path.size);
    FUZZ_CHECK(update::registry::ipc::ToSessionInfo(again, arena) == info);
}

nv_IUpdateRegistry_SessionInfo RecordFrom(const std::uint8_t* bytes)
{
    nv_IUpdateRegistry_SessionInfo wire;
    std::memcpy(&wire, bytes, sizeof wire);
    return wire;
}

void FuzzOneRecord(fuzz::Reader& in, unsigned shape)
{
    const std::vector<std::uint8_t> raw = in.Bytes(sizeof(nv_IUpdateRegistry_SessionInfo));
    const nv_IUpdateRegistry_SessionInfo wire = RecordFrom(raw.data());
    Arena arena(in.Rest(), shape);
    const nk_arena before = arena.arena;
    const Fault fault = ExpectedFault(wire, arena);
    try {
        const SessionInfo info = update::registry::ipc::ToSessionInfo(wire, arena.arena);
        FUZZ_CHECK(fault == Fault::None);
        CheckDecoded(info, wire, arena);
        CheckReencodes(info, wire);
    } catch (const std::exception& error) {
        CheckFault(fault, error, wire);
    }
    FUZZ_CHECK(std::memcmp(&before, &arena.arena, sizeof before) == 0);
}

void FuzzSequence(fuzz::Reader& in, unsigned shape)
{
    nk_arena_desc sequence{};
    sequence.offset = in.U32();
    sequence.size = in.U32();
    Arena arena(in.Rest(), shape);

    SessionInfo sentinel;
    sentinel.path = "earlier/answer";
    sentinel.state = update::registry::ipc::UpdateState::Finished;
    std::vector<SessionInfo> sessions{sentinel};

    const bool located = arena.Holds(sequence.offset, sequence.size) && sequence.size % 32 == 0;
    const std::size_t count = located ? sequence.size / 32 : 0;
    std::size_t firstBad = count;
    Fault fault = Fault::None;
    std::vector<nv_IUpdateRegistry_SessionInfo> records;
    for (std::size_t i = 0; i < count; ++i) {
        records.push_back(RecordFrom(arena.arena.start + sequence.offset + i * 32));
        fault = ExpectedFault(records.back(), arena);
        if (fault != Fault::None) {
            firstBad = i;
            break;
        }
    }

    try {
        update::registry::ipc::SessionsFromArena(sequence, arena.arena, sessions);
        FUZZ_CHECK(located && fault == Fault::None);
    } catch (const eka::CheckFailedException& error) {
        if (!located) {
            FUZZ_CHECK(eka::text::Utf16ToUtf8(error.description()) == "cannot get sessions from arena");
            FUZZ_CHECK(std::string(error.file()) == "shared/updater_pdk/registry_api/src/proxy");
            FUZZ_CHECK(error.line() == 74);
            FUZZ_CHECK(sessions.size() == 1 && sessions[0] == sentinel);
            return;
        }
        CheckFault(fault, error, records[firstBad]);
    } catch (const std::exception& error) {
        FUZZ_CHECK(located);
        CheckFault(fault, error, records[firstBad]);
    }
    FUZZ_CHECK(sessions.size() == firstBad);
    for (std::size_t i = 0; i < sessions.size(); ++i)
        CheckDecoded(sessions[i], records[i], arena);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Reader in(data, size);
    const std::uint8_t mode = in.Byte();
    const unsigned shape = (mode >> 1) & 0x03u;
    if ((mode & 0x01) == 0)
        FuzzOneRecord(in, shape);
    else
        FuzzSequence(in, shape);
    return 0;
}
