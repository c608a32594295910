#include "disk/CGrainTablesChecker.h"

#include "lum/Numbers.h"

#include <algorithm>
#include <bit>

namespace tessel {

namespace {

static_assert(std::endian::native == std::endian::little, "tables are kept as they are on disk");

constexpr int64 entryBytes = 4;
constexpr int64 slotSizeBytes = 2;
/// Directory entries that are in memory at once.
constexpr int64 windowSize = 16384;

using Finding = UVMDKCheckFinding;

String describeSector(int64 posSectors) {
    return "sector " + toDecimal(posSectors);
}

} // namespace

CGrainTablesChecker::CGrainTablesChecker(CCheckedExtent& extent, CGrainRecordChecker& records, bool quick)
    : m_extent(&extent),
      m_records(&records),
      m_quick(quick),
      m_overheadSectors(extent.getOverheadSectors() <= extent.getFileSectors() ? extent.getOverheadSectors()
                                                                               : 0),
      m_unitSectors(extent.isCompressed() ? 1 : extent.getGrainSizeSectors()),
      m_slotsEnd(m_overheadSectors) {}

bool CGrainTablesChecker::addMetadata(int64 posSectors, int64 sectors) {
    if (m_metadata.containsAny(posSectors, sectors))
        return false;
    m_metadata.add(posSectors, sectors);
    const int64 behind = posSectors + sectors - std::max(posSectors, m_overheadSectors);
    m_metadataBehindOverhead += std::max<int64>(behind, 0);
    return true;
}

int64 CGrainTablesChecker::countDeadSectors(int64 end) const noexcept {
    const int64 used = m_overheadSectors + m_slots.getCount() * m_unitSectors + m_metadataBehindOverhead;
    return m_overheadSectors == 0 ? 0 : std::max<int64>(end - used, 0);
}

// --- Directories ---

int64 CGrainTablesChecker::getTableBytes() const noexcept {
    return m_extent->getEntriesPerTable() * entryBytes;
}

int64 CGrainTablesChecker::getSlotSizeTableBytes() const noexcept {
    return m_extent->getEntriesPerTable() * slotSizeBytes;
}

bool CGrainTablesChecker::tryReadDirectory(int64 posSectors, int64 first, int64 count, Entries& entries) {
    entries.setUsed(count);
    if (posSectors == 0) {
        entries.fill(0);
        return true;
    }
    return m_extent->tryRead(posSectors * vmdkSectorSize + first * entryBytes, entries.getData(),
                             count * entryBytes);
}

/// Calls `visit(tableIndex, positions)` for each table that any directory may name; those whose directory
/// entries cannot be read are left out.
template <class Visit>
void CGrainTablesChecker::visitTables(Visit visit) {
    Entries tables;
    Entries redundantTables;
    Entries slotSizes;
    for (int64 first = 0; first < m_extent->getTableCount(); first += windowSize) {
        const int64 count = std::min(windowSize, m_extent->getTableCount() - first);
        const bool canRead =
            tryReadDirectory(m_extent->getDirectoryPosSectors(), first, count, tables) &&
            tryReadDirectory(m_extent->getRedundantDirectoryPosSectors(), first, count, redundantTables) &&
            tryReadDirectory(m_slotSizeDirectoryPosSectors, first, count, slotSizes);
        const auto isEmpty = [](const Entries& entries) {
            return isZeroMemory(entries.getData(), static_cast<std::size_t>(entries.getUsed() * entryBytes));
        };
        if (canRead && isEmpty(tables) && isEmpty(redundantTables) && isEmpty(slotSizes))
            continue; // as most of a directory that lies in a hole
        for (int64 i = 0; i < (canRead ? count : 1); ++i)
            visit(first + i,
                  canRead ? UPositions{tables[i], redundantTables[i], slotSizes[i]} : UPositions{-1, -1, -1});
    }
}

void CGrainTablesChecker::markTable(int64 tableIndex, int64 posSectors, int64 sizeBytes, CSectorSet& bad) {
    if (posSectors == 0)
        return;
    const int64 sectors = divideRoundingUp(sizeBytes, vmdkSectorSize);
    // Where there are slot sizes, all tables stand in front of the slots.
    const bool isBehindOverhead = m_slotSizeDirectoryPosSectors != 0 && m_overheadSectors != 0 &&
                                  posSectors + sectors > m_overheadSectors;
    if (!m_extent->isInFile(posSectors, sizeBytes) || isBehindOverhead || !addMetadata(posSectors, sectors))
        bad.add(tableIndex, 1);
}

String CGrainTablesChecker::describePosition(int64 posSectors, int64 sizeBytes) const {
    return (m_extent->isInFile(posSectors, sizeBytes)
                ? String("lies where another table, other metadata or slots are")
                : String("does not lie in the file of ") + toDecimal(m_extent->getFileSectors()) +
                      " sectors") +
           " (" + describeSector(posSectors) + ")";
}

void CGrainTablesChecker::check(int64 slotSizeDirectoryPosSectors) {
    m_slotSizeDirectoryPosSectors = slotSizeDirectoryPosSectors;
    visitTables([this](int64 tableIndex, const UPositions& positions) {
        if (positions.table < 0)
            return;
        markTable(tableIndex, positions.table, getTableBytes(), m_badTables);
        markTable(tableIndex, positions.redundantTable, getTableBytes(), m_badRedundantTables);
        markTable(tableIndex, positions.slotSizes, getSlotSizeTableBytes(), m_badSlotSizes);
    });
    visitTables([this](int64 tableIndex, const UPositions& positions) {
        if (positions.table < 0)
            m_extent->add(m_extent->makeUnreadable(
                m_extent->makeTableFinding(Finding::Kind_Unreadable, tableIndex, String()),
                "the grain directory from here on"));
        else if (positions.table != 0 || positions.redundantTable != 0 || positions.slotSizes != 0)
            checkTable(tableIndex, positions);
    });
}

// --- Tables ---

void CGrainTablesChecker::loadCopy(int64 tableIndex, int count, const CSectorSet& bad, UCopy& copy) {
    copy.entries.setUsed(0);
    if (copy.posSectors == 0 || bad.contains(tableIndex))
        return;
    copy.entries.setUsed(count);
    if (m_extent->tryRead(copy.posSectors * vmdkSectorSize, copy.entries.getData(), count * entryBytes))
        return;
    copy.entries.setUsed(0);
    m_extent->add(m_extent->makeUnreadable(
        m_extent->makeTableFinding(Finding::Kind_Unreadable, tableIndex, String()), copy.name));
}

void CGrainTablesChecker::loadSlotSizes(int64 tableIndex, int count, int64 posSectors) {
    m_slotSizes.setUsed(0);
    if (posSectors == 0 || m_badSlotSizes.contains(tableIndex))
        return;
    m_slotSizes.setUsed(count);
    if (m_extent->tryRead(posSectors * vmdkSectorSize, m_slotSizes.getData(), count * slotSizeBytes))
        return;
    m_slotSizes.setUsed(0);
    m_extent->add(m_extent->makeUnreadable(
        m_extent->makeTableFinding(Finding::Kind_Unreadable, tableIndex, String()), "the slot size table"));
}

void CGrainTablesChecker::checkTable(int64 tableIndex, const UPositions& positions) {
    const int64 firstGrain = tableIndex * m_extent->getEntriesPerTable();
    m_extent->getSink().onProgress(m_extent->calcDiskPosition(firstGrain));
    const auto count = static_cast<int>(
        std::min<int64>(m_extent->getEntriesPerTable(), m_extent->getGrainCount() - firstGrain));
    UCopy primary{"the grain table", positions.table, {}};
    UCopy redundant{"the redundant grain table", positions.redundantTable, {}};
    loadCopy(tableIndex, count, m_badTables, primary);
    loadCopy(tableIndex, count, m_badRedundantTables, redundant);
    loadSlotSizes(tableIndex, count, positions.slotSizes);
    checkPositions(tableIndex, positions, redundant);
    if (!primary.entries.isEmpty() && !redundant.entries.isEmpty())
        compareCopies(tableIndex, primary, redundant);
    checkEntries(tableIndex, primary.entries.isEmpty() ? redundant : primary);
}

void CGrainTablesChecker::checkPositions(int64 tableIndex, const UPositions& positions,
                                         const UCopy& redundant) {
    const auto add = [&](Finding::Kind kind, const String& message, int64 directoryPosSectors,
                         bool isRepairable) {
        Finding finding = m_extent->makeTableFinding(kind, tableIndex, message);
        finding.position = directoryPosSectors * vmdkSectorSize + tableIndex * entryBytes;
        finding.isRepairable = isRepairable;
        if (isRepairable)
            finding.message += "; the redundant table is whole, this one can be repaired from it";
        m_extent->add(finding);
    };
    const int64 directory = m_extent->getDirectoryPosSectors();
    const int64 redundantDirectory = m_extent->getRedundantDirectoryPosSectors();
    const bool canRepair = !redundant.entries.isEmpty() && isWhole(redundant.entries);

    if (positions.table == 0 && positions.redundantTable != 0)
        add(Finding::Kind_DirectoriesDiffer,
            "the table is in the redundant grain directory, but not in the grain directory", directory,
            canRepair);
    else if (positions.table == 0)
        add(Finding::Kind_TablePositionInvalid,
            "the table is in no grain directory, but in that of the slot sizes", directory, false);
    else if (m_badTables.contains(tableIndex))
        add(Finding::Kind_TablePositionInvalid,
            "the grain table " + describePosition(positions.table, getTableBytes()), directory, canRepair);

    if (redundantDirectory != 0 && positions.redundantTable == 0 && positions.table != 0)
        add(Finding::Kind_DirectoriesDiffer,
            "the table is in the grain directory, but not in the redundant grain directory",
            redundantDirectory, false);
    else if (m_badRedundantTables.contains(tableIndex))
        add(Finding::Kind_TablePositionInvalid,
            "the redundant grain table " + describePosition(positions.redundantTable, getTableBytes()),
            redundantDirectory, false);

    if (m_slotSizeDirectoryPosSectors == 0)
        return;
    if (positions.slotSizes == 0)
        add(Finding::Kind_TablePositionInvalid, "the table's slot sizes are in no directory",
            m_slotSizeDirectoryPosSectors, false);
    else if (m_badSlotSizes.contains(tableIndex))
        add(Finding::Kind_TablePositionInvalid,
            "the slot size table " + describePosition(positions.slotSizes, getSlotSizeTableBytes()),
            m_slotSizeDirectoryPosSectors, false);
}

/// What the slot size table says of an entry; -1 when there is none.
int64 CGrainTablesChecker::getRecordedSize(int index) const {
    return m_slotSizes.isEmpty() ? -1 : int64{m_slotSizes[index]};
}

bool CGrainTablesChecker::hasTwins(const Entries& entries) const {
    TArray<uint32> sorted;
    for (int64 i = 0; i < entries.getUsed(); ++i)
        if (entries[i] != 0)
            sorted.push_back(entries[i]);
    std::sort(sorted.begin(), sorted.end());
    return std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end();
}

/// Whether a copy could be used as it is.
bool CGrainTablesChecker::isWhole(const Entries& entries) const {
    Finding::Kind kind{};
    String problem;
    for (int i = 0; i < entries.getUsed(); ++i) {
        const int64 slotSectors = m_extent->isCompressed() ? std::max<int64>(getRecordedSize(i), 1)
                                                           : m_extent->getGrainSizeSectors();
        if (entries[i] != 0 && !isPlausible(entries[i], slotSectors, kind, problem))
            return false;
    }
    return !hasTwins(entries);
}

// A slot is never taken back, and the table in use is written first: where it has none and the other one has,
// it has lost it. Where both have one, the records tell whose it is, if they may be looked at.
void CGrainTablesChecker::compareCopies(int64 tableIndex, const UCopy& primary, const UCopy& redundant) {
    const int64 firstGrain = tableIndex * m_extent->getEntriesPerTable();
    const auto isOther = [&](int64 index, int64 posSectors) {
        return posSectors != 0 && m_extent->isCompressed() && !m_quick &&
               !m_records->isRecordOf(posSectors, firstGrain + index);
    };
    const auto isTaken = [&](int64 posSectors) {
        return posSectors != 0 && m_slots.contains(posSectors / m_unitSectors);
    };
    int64 differing = 0;
    int64 first = 0;
    bool isPrimaryBad = false;
    bool isRedundantBad = false;
    for (int64 i = 0; i < primary.entries.getUsed(); ++i) {
        const int64 ours = primary.entries[i];
        const int64 theirs = redundant.entries[i];
        if (ours == theirs)
            continue;
        if (differing++ == 0)
            first = i;
        isPrimaryBad = isPrimaryBad || ours == 0 || isOther(i, ours) || isTaken(ours);
        isRedundantBad = isRedundantBad || theirs == 0 || isOther(i, theirs) || isTaken(theirs);
    }
    if (differing == 0)
        return;
    isPrimaryBad = isPrimaryBad || !isWhole(primary.entries);
    isRedundantBad = isRedundantBad || !isWhole(redundant.entries);

    Finding finding = m_extent->makeGrainFinding(
        Finding::Kind_TablesDiffer, firstGrain + first,
        "the grain table (" + describeSector(primary.posSectors) + ") and the redundant one (" +
            describeSector(redundant.posSectors) + ") differ in " + toDecimal(differing) +
            " entries, first in this grain's: " + toDecimal(primary.entries[first]) + " and " +
            toDecimal(redundant.entries[first]));
    finding.position = primary.posSectors * vmdkSectorSize + first * entryBytes;
    finding.isRepairable = isPrimaryBad && !isRedundantBad;
    if (finding.isRepairable)
        finding.message += "; the redundant one is whole, the other can be repaired from it";
    else if (isPrimaryBad)
        finding.message += "; neither is whole";
    else if (isRedundantBad)
        finding.message += "; only the redundant one is damaged";
    else
        finding.message += "; either could be right";
    m_extent->add(finding);
}

// --- Slots ---

void CGrainTablesChecker::checkEntries(int64 tableIndex, const UCopy& copy) {
    const int64 firstGrain = tableIndex * m_extent->getEntriesPerTable();
    int64 withoutSlot = 0;
    int64 firstWithoutSlot = 0;
    for (int i = 0; i < copy.entries.getUsed(); ++i) {
        if (copy.entries[i] != 0)
            checkSlot(firstGrain + i, copy.entries[i], getRecordedSize(i));
        else if (getRecordedSize(i) > 0 && withoutSlot++ == 0)
            firstWithoutSlot = firstGrain + i;
    }
    if (withoutSlot == 0)
        return;
    Finding finding = m_extent->makeGrainFinding(
        Finding::Kind_SlotSizeWithoutSlot, firstWithoutSlot,
        toDecimal(withoutSlot) +
            " grains, this being the first, have a slot size but no slot: a writer ended before "
            "it had stored the slots, or they were lost");
    finding.severity = Finding::Severity_Information;
    m_extent->add(finding);
}

bool CGrainTablesChecker::isPlausible(int64 posSectors, int64 slotSectors, Finding::Kind& kind,
                                      String& problem) const {
    if (!m_extent->isInFile(posSectors, slotSectors * vmdkSectorSize)) {
        kind = Finding::Kind_EntryBehindEnd;
        problem = "does not lie in the file of " + toDecimal(m_extent->getFileSectors()) + " sectors";
    } else if (posSectors < m_overheadSectors || m_metadata.containsAny(posSectors, slotSectors)) {
        kind = Finding::Kind_EntryInMetadata;
        problem = "lies where metadata is";
    } else if (posSectors % m_unitSectors != 0) {
        kind = Finding::Kind_EntryMisaligned;
        problem =
            "does not begin at a multiple of the grain size of " + toDecimal(m_unitSectors) + " sectors";
    } else {
        return true;
    }
    problem = "the slot " + problem + " (" + describeSector(posSectors) + ", " + toDecimal(slotSectors) +
              " sectors long)";
    return false;
}

void CGrainTablesChecker::checkSlot(int64 grainIndex, int64 posSectors, int64 recordedSize) {
    const auto add = [&](Finding::Kind kind, const String& message) {
        Finding finding = m_extent->makeGrainFinding(kind, grainIndex, message);
        finding.position = posSectors * vmdkSectorSize;
        m_extent->add(finding);
    };
    m_extent->getSink().onGrain();
    int64 slotSectors = m_extent->getGrainSizeSectors();
    if (m_extent->isCompressed()) {
        const bool isKnown = recordedSize >= 1 && recordedSize <= m_records->getLargestRecordSectors();
        if (!isKnown && recordedSize >= 0)
            add(Finding::Kind_SlotSizeInvalid, "the slot size table has " + toDecimal(recordedSize) +
                                                   " sectors for a slot (allowed: 1 to " +
                                                   toDecimal(m_records->getLargestRecordSectors()) + ")");
        // What follows goes by the record itself, where that may be looked at.
        slotSectors = isKnown ? recordedSize : m_quick ? 1 : m_records->measureRecord(posSectors);
    }
    Finding::Kind kind{};
    String problem;
    if (!isPlausible(posSectors, slotSectors, kind, problem)) {
        add(kind, problem);
        return;
    }
    const int64 unit = posSectors / m_unitSectors;
    const int64 units = slotSectors / m_unitSectors;
    if (m_slotStarts.contains(unit))
        add(Finding::Kind_SlotShared, "another grain has the same slot (" + describeSector(posSectors) + ")");
    else if (m_slots.containsAny(unit, units))
        add(Finding::Kind_SlotsOverlap, "the slot reaches into that of another grain (" +
                                            describeSector(posSectors) + ", " + toDecimal(slotSectors) +
                                            " sectors long)");
    m_slots.add(unit, units);
    m_slotStarts.add(unit, 1);
    m_slotsEnd = std::max(m_slotsEnd, posSectors + slotSectors);
    if (m_quick)
        return;
    m_extent->getSink().onProgress(m_extent->calcDiskPosition(grainIndex));
    m_records->check(grainIndex, posSectors, slotSectors);
}

} // namespace tessel
