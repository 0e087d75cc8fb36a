// The error-information record of an exception: a small bag of typed
// properties, each under a named key.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace eka::error_info {

// Type identifier of the values a property may hold.
template <typename T>
struct PropertyType;

template <>
struct PropertyType<int> {
    static constexpr std::uint32_t id = 0x2B193A6Fu;
};

// A property key: its name (static text, kept by reference) and the type
// of its value.
template <typename T>
struct Key {
    using value_type = T;
    static constexpr std::uint32_t type_id = PropertyType<T>::id;
    std::string_view name;
};

// The result code of a thrown result-code exception.
inline constexpr Key<int> Result{"eka.result"};
// The system's own codes behind a failure; defined in the same key space.
inline constexpr Key<int> OsResult{"os.result"};
inline constexpr Key<int> OsModuleResult{"os.module_result"};

// One typed property to store in a record.
template <typename T>
struct PropInfo {
    Key<T> key;
    T value;
};

template <typename T>
PropInfo<T> Make(Key<T> key, T value)
{
    return PropInfo<T>{key, value};
}

class Record {
public:
    // Stores the value under the key, replacing an earlier one.
    void Set(const PropInfo<int>& property);
    // The value under the key, if one of that type is stored.
    std::optional<int> Get(Key<int> key) const;
    bool empty() const noexcept { return m_entries.empty(); }

private:
    struct Entry {
        std::string_view name;  // keys name static text
        std::uint32_t typeId;
        int value;
    };
    std::vector<Entry> m_entries;
};

}  // namespace eka::error_info
