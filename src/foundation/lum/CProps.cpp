#include "lum/CProps.h"

namespace lum {

CProps& CProps::add(const String& name, const String& value) {
    m_entries.emplace_back(name, value);
    return *this;
}

String CProps::getValue(const String& name) const {
    for (const Entry& entry : m_entries)
        if (entry.first == name)
            return entry.second;
    return String();
}

} // namespace lum
