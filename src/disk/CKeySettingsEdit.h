#pragma once

#include "tessel/CVMDKDescriptor.h"
#include "tessel/CVMDKDescriptorAccessor.h"

#include <string>

namespace tessel {

/// The settings by which a password opens a disk, as they stand in a descriptor.
struct UKeySettings {
    String derivation;
    TBuffer<unsigned char> salt;
    TBuffer<unsigned char> wrappedKey;
};

/// Exchanges these settings where they stand, so that wherever the power goes a descriptor is left that holds
/// the old ones or the new ones: a mixture would open by no password. A medium writes a sector of 512 bytes
/// as a whole or not at all, and several in any order.
///
/// Where the new values fit the place of the old ones, within one sector, that sector is written. Else a copy
/// of the old settings is put behind the text, within one sector, where it counts for nothing; then the old
/// lines are made comments, which lets the copy count; then the copy is exchanged; then the comments are
/// wiped.
class CKeySettingsEdit {
public:
    /// `area` is that of the descriptor, which begins at a sector; `settings` are the new ones.
    /// Throws: CError when the area has no room for the copy, or the settings are not found in it.
    CKeySettingsEdit(const TBuffer<unsigned char>& area, const UKeySettings& settings);

    /// Writes what changes, sector by sector. `position` is that of the area in the file.
    /// Throws: the stream's errors; either the old or the new settings count then.
    void write(IIOStream& stream, int64 position) const;

private:
    void plan(const UKeySettings& settings);
    void planCopy(const TArray<std::string>& lines);
    void verify(const UKeySettings& settings) const;

    /// The area as it is, and after each step.
    TArray<std::string> m_steps;
};

} // namespace tessel
