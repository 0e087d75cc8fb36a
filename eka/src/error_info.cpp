#include "eka/error_info.h"

#include <algorithm>

namespace eka::error_info {

void Record::Set(const PropInfo<int>& property)
{
    const auto typeId = Key<int>::type_id;
    auto it = std::find_if(m_entries.begin(), m_entries.end(),
                           [&](const Entry& e) { return e.name == property.key.name && e.typeId == typeId; });
    if (it != m_entries.end())
        it->value = property.value;
    else
        m_entries.push_back(Entry{property.key.name, typeId, property.value});
}

std::optional<int> Record::Get(Key<int> key) const
{
    const auto typeId = Key<int>::type_id;
    auto it = std::find_if(m_entries.begin(), m_entries.end(),
                           [&](const Entry& e) { return e.name == key.name && e.typeId == typeId; });
    if (it == m_entries.end())
        return std::nullopt;
    return it->value;
}

}  // namespace eka::error_info
