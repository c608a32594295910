#pragma once

#include "lum/CBase.h"
#include "lum/IFileSystem.h"
#include "tessel/CVMDKDescriptor.h"
#include "tessel/IVMDKCheckReport.h"

namespace tessel {

/// Looks for damage in a disk, without changing or repairing anything: what the headers, both copies of the
/// directories and tables, the slots and the compressed records say must fit together and into the files.
///
///   P<CVMDKDiskChecker> checker(new CVMDKDiskChecker(files.get(), uri));
///   checker->check(password, false, report);   // report.addFinding(...) for each
///   if (checker->getDamageCount() > 0) ...
///
/// The tables are read from the files, piece by piece, and never through a cache. Of memory it takes at most
/// one grain with its record, a few tables, and for the extent at hand one bit for each sector of the file
/// that slots and metadata take up (of plain extents: for each grain), and as much again for where slots
/// begin. Only files are opened that the descriptor, or that of a parent, names; of parents only the
/// descriptor, to compare content IDs.
///
/// The disk is locked like one that is open for reading, unless setLocks() says otherwise. One thread at a
/// time.
class TESSEL_EXPORT CVMDKDiskChecker : public CBase {
public:
    /// The file system is kept; nothing is opened yet.
    CVMDKDiskChecker(IFileSystem* fileSystem, const CURI& mainFileURI);
    ~CVMDKDiskChecker() override;

    /// Whether a main file that was renamed or copied by hand is checked as what it is now, as
    /// CVMDKDisk::openRenamed() opens it, and no finding made of it. As a rule it is not.
    void setTakesRenamed(bool takesRenamed) noexcept { m_takesRenamed = takesRenamed; }

    /// Whether the disk is locked meanwhile, as a rule it is. Not for whoever has it open for writing, with
    /// nothing written yet, and so keeps others out himself.
    void setLocks(bool locks) noexcept { m_locks = locks; }

    /// Checks the disk and tells `report` of each finding. `quick`: only the metadata; otherwise every grain
    /// is read too, and what is compressed inflated. `password` is needed only for looking at compressed
    /// grains of an encrypted disk; one that is given is tried, except when `quick`. Throws: what opening the
    /// disk throws when it cannot be looked at at all (its main file is missing, locked or no disk, its kind
    /// is not supported, the password is missing or wrong), before any finding; what `report` throws.
    /// Everything else is a finding.
    void check(const String& password, bool quick, IVMDKCheckReport& report);

    // What the last check came across; all 0 before the first, and after one that threw.

    /// How many findings were damage.
    int64 getDamageCount() const noexcept { return m_damageCount; }
    /// How many findings were only worth knowing.
    int64 getInformationCount() const noexcept { return m_informationCount; }
    /// How many findings say that something could not be looked at.
    int64 getUncheckedCount() const noexcept { return m_uncheckedCount; }
    /// Extents whose files are there.
    int64 getExtentCount() const noexcept { return m_extentCount; }
    /// Grains that have a slot.
    int64 getGrainCount() const noexcept { return m_grainCount; }

private:
    P<IFileSystem> m_fileSystem;
    CURI m_mainFileURI;
    bool m_takesRenamed = false;
    bool m_locks = true;
    int64 m_damageCount = 0;
    int64 m_informationCount = 0;
    int64 m_uncheckedCount = 0;
    int64 m_extentCount = 0;
    int64 m_grainCount = 0;
};

} // namespace tessel
