#pragma once

#include "lum/TextFunctions.h"

#include <utility>

namespace lum {

/// Named text values in the order in which they were added. They travel with an error; numbers are
/// decimal text, and "uri" comes first wherever a file is involved.
class TESSEL_EXPORT CProps {
public:
    using Entry = std::pair<String, String>;

    CProps& add(const String& name, const String& value);
    CProps& add(const String& name, const char* value) { return add(name, String(value)); }
    template <std::integral T>
    requires(!std::same_as<T, bool>) CProps& add(const String& name, T value) {
        return add(name, toDecimal(value));
    }

    const TArray<Entry>& getEntries() const noexcept { return m_entries; }
    bool isEmpty() const noexcept { return m_entries.empty(); }
    /// The value of the first entry with this name; empty when there is none.
    String getValue(const String& name) const;

    friend bool operator==(const CProps&, const CProps&) = default;

private:
    TArray<Entry> m_entries;
};

} // namespace lum
