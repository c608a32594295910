#pragma once

#include "lum/IFileSystem.h"
#include "tessel/CVMDKDescriptor.h"

namespace tessel {

class CVMDKSparseExtentFile;

/// Gives an open disk a new content ID, once, before its first change reaches a file, so that children
/// can tell that their parent was changed. Shared by all extent files of the disk.
class TESSEL_EXPORT CVMDKContentIDUpdater : public CBase {
public:
    /// `descriptor` is the disk's descriptor in memory; file system and descriptor are kept.
    CVMDKContentIDUpdater(IFileSystem* fileSystem, const CURI& mainFileURI, CVMDKDescriptor* descriptor);

    /// While disabled, nothing is written. A content ID that has been changed is not changed again.
    void setContentIDUpdatesEnabled(bool enabled) noexcept { m_updatesEnabled = enabled; }

    /// Called by an extent file before it changes anything. Writes through the extent's own stream when
    /// its file is the main file, else opens the main file, which must exist.
    /// Throws: what opening and storing throw; the next change then tries again, and the descriptor in
    /// memory keeps the old content ID.
    void onDiskAboutToChange(CVMDKSparseExtentFile& extentFile);

private:
    P<IFileSystem> m_fileSystem;
    CURI m_mainFileURI;
    P<CVMDKDescriptor> m_descriptor;
    bool m_contentIDChanged = false;
    bool m_updatesEnabled = true;
};

} // namespace tessel
