#include <array>
#include <cstring>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "eka/exception.h"
#include "eka/text.h"
#include "update/registry/ipc/enum_converters.h"
#include "update/registry/ipc/session_converters.h"

namespace {

using namespace update::registry::ipc;

constexpr const char* kEnumFile = "shared/updater_pdk/registry_api/src/enum_converters";
constexpr const char* kStringFromArena = "nos_ipc::StringFromArena(): Failed to acquire string from arena";

struct Thrown {
    std::string description;
    std::string file;
    int line = 0;
};

Thrown CheckFailure(const std::function<void()>& call)
{
    try {
        call();
    } catch (const eka::CheckFailedException& e) {
        return {eka::text::Utf16ToUtf8(e.description()), e.file() != nullptr ? e.file() : "", e.line()};
    }
    ADD_FAILURE() << "no eka::CheckFailedException";
    return {};
}

eka::guid_t Guid(std::uint8_t first)
{
    eka::guid_t id;
    for (std::size_t i = 0; i < id.bytes.size(); ++i)
        id.bytes[i] = static_cast<std::uint8_t>(first + i);
    return id;
}

TEST(EnumConverters, ToAndFrom_EveryValidValueRoundTrips)
{
    for (unsigned int v = 0; v < 11; ++v) {
        EXPECT_EQ(static_cast<unsigned int>(ToUpdateState(v)), v);
        EXPECT_EQ(FromUpdateState(static_cast<UpdateState>(v)), v);
    }
    EXPECT_EQ(ToPackageType(0), PackageType::Product);
    EXPECT_EQ(ToPackageType(1), PackageType::AppList);
    EXPECT_EQ(FromPackageType(PackageType::Product), 0);
    EXPECT_EQ(FromPackageType(PackageType::AppList), 1);
}

TEST(EnumConverters, ToAndFrom_OutOfRangeThrowsWithValueFileAndLine)
{
    struct Case {
        const char* name;
        std::function<void()> call;
        std::string description;
        int line;
    };
    const Case cases[] = {
        {"ToUpdateState 11", [] { ToUpdateState(11); }, "invalid update state: 11", 28},
        {"ToUpdateState max", [] { ToUpdateState(0xFFFFFFFFu); }, "invalid update state: 4294967295", 28},
        {"FromUpdateState 11", [] { FromUpdateState(static_cast<UpdateState>(11)); }, "invalid update state: 11", 47},
        {"ToPackageType 2", [] { ToPackageType(2); }, "invalid package type: 2", 58},
        {"ToPackageType 255", [] { ToPackageType(255); }, "invalid package type: 255", 58},
        {"ToPackageType 'A'", [] { ToPackageType('A'); }, "invalid package type: 65", 58},
        {"FromPackageType 2", [] { FromPackageType(static_cast<PackageType>(2)); }, "invalid package type: 2", 68},
        {"FromPackageType big", [] { FromPackageType(static_cast<PackageType>(0x100)); }, "invalid package type: 256",
         68},
    };
    for (const Case& c : cases) {
        const Thrown t = CheckFailure(c.call);
        EXPECT_EQ(t.description, c.description) << c.name;
        EXPECT_EQ(t.file, kEnumFile) << c.name;
        EXPECT_EQ(t.line, c.line) << c.name;
    }
}

// An arena over a local buffer, filled from its start.
struct Arena {
    explicit Arena(std::size_t capacity) : buffer(capacity) { nk_arena_init(&arena, buffer.data(), buffer.size()); }
    std::vector<std::uint8_t> buffer;
    nk_arena arena{};
};

nv_IUpdateRegistry_SessionInfo Wire(std::uint8_t type, std::uint32_t state, std::uint32_t offset, std::uint32_t size)
{
    nv_IUpdateRegistry_SessionInfo wire{};
    wire.type = type;
    wire.state = state;
    wire.path = {offset, size};
    return wire;
}

TEST(SessionConverters, FromThenTo_RoundTripsSeveralRecordsInOneArena)
{
    const SessionInfo sessions[] = {
        {PackageType::AppList, UpdateState::Verified, Guid(1), "pkg/applist"},
        {PackageType::Product, UpdateState::Finished, Guid(100), "/var/update/\xD0\xBF\xD0\xB0\xD0\xBA"},
        {PackageType::Product, UpdateState::Created, eka::guid_t{}, ""},
    };
    Arena a(64);
    std::vector<nv_IUpdateRegistry_SessionInfo> wires;
    for (const SessionInfo& s : sessions)
        wires.push_back(FromSessionInfo(s, a.arena));

    EXPECT_EQ(wires[0].type, 1);
    EXPECT_EQ(wires[0].state, 4u);
    EXPECT_EQ(0, std::memcmp(wires[0].id, Guid(1).bytes.data(), 16));
    EXPECT_EQ(wires[0].path.offset, 0u);
    EXPECT_EQ(wires[0].path.size, 11u);
    EXPECT_EQ(wires[1].path.offset, 11u);
    EXPECT_EQ(wires[1].path.size, 18u);
    // The empty path takes no room and points at the fill mark.
    EXPECT_EQ(wires[2].path.offset, 29u);
    EXPECT_EQ(wires[2].path.size, 0u);
    EXPECT_EQ(nk_arena_used(&a.arena), 29u);
    EXPECT_EQ(std::string(a.buffer.begin(), a.buffer.begin() + 11), "pkg/applist");  // no NUL after the text
    EXPECT_EQ(a.buffer[11], '/');

    for (std::size_t i = 0; i < wires.size(); ++i)
        EXPECT_EQ(ToSessionInfo(wires[i], a.arena), sessions[i]) << i;
    EXPECT_TRUE(ToSessionInfo(wires[2], a.arena).path.empty());
}

TEST(SessionConverters, ToSessionInfo_PathBounds)
{
    Arena a(16);
    std::memcpy(a.buffer.data(), "0123456789abcdef", 16);
    struct Case {
        const char* name;
        std::uint32_t offset;
        std::uint32_t size;
        bool accepted;
    };
    const Case cases[] = {
        {"whole arena", 0, 16, true},
        {"ends exactly at the end", 10, 6, true},
        {"empty at the end", 16, 0, true},
        {"one byte over", 10, 7, false},
        {"empty past the end", 17, 0, false},
        {"offset wraps", 0xFFFFFFFFu, 2, false},
        {"size wraps", 1, 0xFFFFFFFFu, false},
    };
    for (const Case& c : cases) {
        const nv_IUpdateRegistry_SessionInfo wire = Wire(1, 2, c.offset, c.size);
        if (c.accepted) {
            EXPECT_EQ(ToSessionInfo(wire, a.arena).path.string(), std::string(a.buffer.begin() + c.offset,
                                                                              a.buffer.begin() + c.offset + c.size))
                << c.name;
            continue;
        }
        try {
            ToSessionInfo(wire, a.arena);
            ADD_FAILURE() << c.name << ": accepted";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), kStringFromArena) << c.name;
        }
    }
}

TEST(SessionConverters, ToSessionInfo_NullArenaRefusedEvenForEmptyPath)
{
    nk_arena empty{};
    EXPECT_THROW(ToSessionInfo(Wire(0, 0, 0, 0), empty), std::runtime_error);
}

TEST(SessionConverters, ToSessionInfo_TypeCheckedBeforeStateBeforePath)
{
    Arena a(4);
    EXPECT_EQ(CheckFailure([&] { ToSessionInfo(Wire(2, 11, 100, 100), a.arena); }).description,
              "invalid package type: 2");
    EXPECT_EQ(CheckFailure([&] { ToSessionInfo(Wire(1, 11, 100, 100), a.arena); }).description,
              "invalid update state: 11");
}

TEST(SessionConverters, FromSessionInfo_ArenaBounds)
{
    const SessionInfo info{PackageType::AppList, UpdateState::Downloaded, Guid(7), "abcd"};

    Arena exact(4);
    const nv_IUpdateRegistry_SessionInfo wire = FromSessionInfo(info, exact.arena);
    EXPECT_EQ(wire.path.offset, 0u);
    EXPECT_EQ(wire.path.size, 4u);
    EXPECT_EQ(exact.arena.current, exact.arena.end);

    Arena shortByOne(3);
    EXPECT_THROW(FromSessionInfo(info, shortByOne.arena), std::bad_alloc);
    EXPECT_EQ(shortByOne.arena.current, shortByOne.arena.start);
    EXPECT_EQ(shortByOne.buffer, std::vector<std::uint8_t>(3, 0));

    Arena inconsistent(8);
    inconsistent.arena.start += 2;  // fill mark before the start
    EXPECT_THROW(FromSessionInfo(info, inconsistent.arena), std::bad_alloc);

    // An empty path needs no room at all, even in a full arena.
    Arena full(2);
    full.arena.current = full.arena.end;
    const nv_IUpdateRegistry_SessionInfo empty =
        FromSessionInfo({PackageType::Product, UpdateState::Created, {}, ""}, full.arena);
    EXPECT_EQ(empty.path.offset, 2u);
    EXPECT_EQ(empty.path.size, 0u);
}

TEST(SessionConverters, FromSessionInfo_BadEnumLeavesArenaAlone)
{
    Arena a(16);
    SessionInfo badType{static_cast<PackageType>(2), UpdateState::Created, {}, "x"};
    EXPECT_EQ(CheckFailure([&] { FromSessionInfo(badType, a.arena); }).line, 68);
    SessionInfo badState{PackageType::Product, static_cast<UpdateState>(11), {}, "x"};
    EXPECT_EQ(CheckFailure([&] { FromSessionInfo(badState, a.arena); }).line, 47);
    EXPECT_EQ(a.arena.current, a.arena.start);
}

}  // namespace
