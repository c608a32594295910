#pragma once

#include "lum/CBase.h"
#include "lum/IFileSystem.h"

namespace lum {

/// The files of this computer, named by "file" URIs (RFC 8089) or by relative references, which start
/// at the current folder. Block devices count as files where paths name them. Safe to use from several
/// threads.
///
/// Besides what IFileSystem promises, every call fails with what uriToNativePath fails with: for another
/// scheme, a host, and names that this system cannot have.
///
/// A flush that failed leaves its stream unable to flush: the system may have dropped the data and tells
/// so only once.
class TESSEL_EXPORT CNativeFileSystem : public CBase, public IFileSystem {
public:
    /// With `waitForMedium` false, flush() hands the data to the system and does not wait until the
    /// medium has it: faster, and nothing is lost unless the whole machine stops.
    explicit CNativeFileSystem(bool waitForMedium = true);

    P<IIOStream> openFile(const CURI& uri, IIOStream::Access access) override;
    bool fileExists(const CURI& uri) override;
    void deleteFile(const CURI& uri, bool ignoreMissing) override;
    bool isFileOfStream(const CURI& uri, IIOStream& stream) override;
    CURI followLinks(const CURI& uri) override;

private:
    bool m_waitForMedium;
};

} // namespace lum
