#pragma once

#include "lum/TextFunctions.h"

#include <utility>

namespace lum {

/// Named text values in the order in which they were added. They travel with an error; numbers are
/// decimal text, and "uri" comes first wherever a file is involved.
class TESSEL_EXPORT CProps {
public:
    /// Name and value.
    using Entry = std::pair<String, String>;

    /// Adds a value at the end, also where the name is there already. Returns this object.
    CProps& add(const String& name, const String& value);
    /// The same for Latin-1 text.
    CProps& add(const String& name, const char* value) { return add(name, String(value)); }
    /// The same for a number, as decimal text.
    template <std::integral T>
    requires(!std::same_as<T, bool>) CProps& add(const String& name, T value) {
        return add(name, toDecimal(value));
    }

    /// All values, in the order in which they were added.
    const TArray<Entry>& getEntries() const noexcept { return m_entries; }
    /// True without any value.
    bool isEmpty() const noexcept { return m_entries.empty(); }
    /// The value of the first entry with this name; empty when there is none.
    String getValue(const String& name) const;

    /// Equal when names, values and their order are.
    friend bool operator==(const CProps&, const CProps&) = default;

private:
    TArray<Entry> m_entries;
};

} // namespace lum
