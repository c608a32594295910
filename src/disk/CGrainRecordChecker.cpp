#include "disk/CGrainRecordChecker.h"

#include "grain/GrainRecord.h"
#include "lum/CError.h"
#include "lum/Numbers.h"
#include "sigil/CCipher_AES256CBC.h"
#include "tessel/CVMDKGrain.h"

#include <algorithm>

namespace tessel {

namespace {

constexpr int64 headSize = CVMDKDataPreparer::recordHeadSize;
/// Plain grains are read in pieces of this size.
constexpr int64 pieceBytes = 1048576;

using Finding = UVMDKCheckFinding;

} // namespace

CGrainRecordChecker::CGrainRecordChecker(CCheckedExtent& extent, bool isEncrypted, const UDiskKeys* keys)
    : m_extent(&extent),
      m_keys(keys),
      m_blockBytes(isEncrypted ? sigil::CCipher_AES256CBC().getBlockSizeBytes() : 1),
      m_compressor(-1) {
    const int64 plainSectors =
        CVMDKDataPreparer(extent.getGrainSizeSectors(), true, -1).getWorstCaseGrainSizeSectors();
    m_largestRecordSectors = divideRoundingUp(
        headSize + calcPayloadBytes(plainSectors * vmdkSectorSize - headSize), vmdkSectorSize);
}

uint64 CGrainRecordChecker::calcRecordPosition(int64 grainIndex) const noexcept {
    return static_cast<uint64>(m_extent->getStartGrainIndex() + grainIndex) *
           static_cast<uint64>(m_extent->getGrainSizeSectors());
}

int64 CGrainRecordChecker::calcPayloadBytes(int64 compressedSize) const noexcept {
    return roundUp(compressedSize, m_blockBytes);
}

int64 CGrainRecordChecker::calcRecordSectors(int64 compressedSize) const noexcept {
    return divideRoundingUp(headSize + calcPayloadBytes(compressedSize), vmdkSectorSize);
}

/// What a grain must inflate to: all of it, but for one that reaches beyond the end of the extent.
int64 CGrainRecordChecker::calcLeastGrainBytes(int64 grainIndex) const noexcept {
    const int64 start = grainIndex * m_extent->getGrainSizeSectors();
    int64 end = m_extent->getCapacitySectors();
    if (m_extent->getLine().sizeSectors > start)
        end = std::min(end, m_extent->getLine().sizeSectors);
    return std::min(m_extent->getGrainSizeSectors(), end - start) * vmdkSectorSize;
}

bool CGrainRecordChecker::tryReadHead(int64 posSectors, UHead& head) {
    unsigned char bytes[headSize];
    if (!m_extent->isInFile(posSectors, headSize) ||
        !m_extent->tryRead(posSectors * vmdkSectorSize, bytes, headSize))
        return false;
    const UGrainRecordHead loaded = loadGrainRecordHead(bytes);
    head = {loaded.positionSectors, int64{loaded.compressedSize}};
    return true;
}

bool CGrainRecordChecker::isRecordOf(int64 posSectors, int64 grainIndex) {
    UHead head{};
    return tryReadHead(posSectors, head) && head.posSectors == calcRecordPosition(grainIndex) &&
           head.compressedSize > 0 && head.compressedSize <= 2 * m_extent->getGrainSizeBytes();
}

int64 CGrainRecordChecker::measureRecord(int64 posSectors) {
    UHead head{};
    if (!tryReadHead(posSectors, head) || head.compressedSize > 2 * m_extent->getGrainSizeBytes())
        return 1;
    return calcRecordSectors(head.compressedSize);
}

bool CGrainRecordChecker::isAnyRecord(int64 posSectors) {
    UHead head{};
    if (!tryReadHead(posSectors, head))
        return false;
    const auto grainSize = static_cast<uint64>(m_extent->getGrainSizeSectors());
    const uint64 first = calcRecordPosition(0);
    return head.compressedSize > 0 && head.compressedSize <= 2 * m_extent->getGrainSizeBytes() &&
           head.posSectors >= first && (head.posSectors - first) % grainSize == 0 &&
           (head.posSectors - first) / grainSize < static_cast<uint64>(m_extent->getGrainCount());
}

UVMDKCheckFinding CGrainRecordChecker::makeFinding(Finding::Kind kind, int64 grainIndex, int64 posSectors,
                                                   const String& message) const {
    Finding finding = m_extent->makeGrainFinding(kind, grainIndex, message);
    finding.position = posSectors * vmdkSectorSize;
    return finding;
}

void CGrainRecordChecker::check(int64 grainIndex, int64 posSectors, int64 slotSectors) {
    if (m_extent->isCompressed())
        checkRecord(grainIndex, posSectors, slotSectors);
    else
        checkPlain(grainIndex, posSectors);
}

// Any bytes are a plain grain. What is left to find is that they cannot be read.
void CGrainRecordChecker::checkPlain(int64 grainIndex, int64 posSectors) {
    const int64 end = posSectors * vmdkSectorSize + m_extent->getGrainSizeBytes();
    for (int64 at = posSectors * vmdkSectorSize; at < end; at += pieceBytes) {
        m_grain.setUsed(std::min(pieceBytes, end - at));
        if (m_extent->tryRead(at, m_grain.getData(), m_grain.getUsed()))
            continue;
        m_extent->add(m_extent->makeUnreadable(
            makeFinding(Finding::Kind_Unreadable, grainIndex, posSectors, String()), "the grain"));
        return;
    }
}

void CGrainRecordChecker::checkRecord(int64 grainIndex, int64 posSectors, int64 slotSectors) {
    UHead head{};
    if (!tryReadHead(posSectors, head)) {
        m_extent->add(m_extent->makeUnreadable(
            makeFinding(Finding::Kind_Unreadable, grainIndex, posSectors, String()), "the grain"));
        return;
    }
    if (head.posSectors != calcRecordPosition(grainIndex)) {
        m_extent->add(makeFinding(Finding::Kind_RecordOfOtherGrain, grainIndex, posSectors,
                                  "the record in the slot is that of sector " + toDecimal(head.posSectors) +
                                      " of the disk, not " + toDecimal(calcRecordPosition(grainIndex))));
        return;
    }
    if (head.compressedSize > 2 * m_extent->getGrainSizeBytes() ||
        calcRecordSectors(head.compressedSize) > slotSectors) {
        m_extent->add(makeFinding(Finding::Kind_RecordTooLong, grainIndex, posSectors,
                                  "a record of " + toDecimal(head.compressedSize) +
                                      " compressed bytes does not fit the slot of " + toDecimal(slotSectors) +
                                      " sectors"));
        return;
    }
    checkData(grainIndex, posSectors, head.compressedSize);
}

void CGrainRecordChecker::checkData(int64 grainIndex, int64 posSectors, int64 compressedSize) {
    m_record.setUsed(calcPayloadBytes(compressedSize));
    if (!m_extent->tryRead(posSectors * vmdkSectorSize + headSize, m_record.getData(), m_record.getUsed())) {
        m_extent->add(m_extent->makeUnreadable(
            makeFinding(Finding::Kind_Unreadable, grainIndex, posSectors, String()), "the grain"));
        return;
    }
    TBuffer<unsigned char>& data = m_keys ? m_decrypted : m_record;
    if (m_keys) {
        m_decrypted.setUsed(0);
        CVMDKGrain::makeGrainEncryptIV(m_iv, m_keys->iv, m_extent->getStartGrainIndex() + grainIndex);
        m_keys->cipher->decrypt(m_record.getData(), static_cast<int>(m_record.getUsed()), m_keys->dataKey,
                                m_iv, m_decrypted, true);
    }
    m_grain.setUsed(m_extent->getGrainSizeBytes());
    const int64 least = calcLeastGrainBytes(grainIndex);
    const auto tell = [&](Finding::Kind kind, const String& message) {
        m_extent->add(makeFinding(kind, grainIndex, posSectors, message));
    };
    int64 size = 0;
    String problem;
    bool isTooLarge = false;
    try {
        size = m_compressor.decompressSingleStep(data.getData(), static_cast<int>(compressedSize),
                                                 m_grain.getData(), static_cast<int>(m_grain.getUsed()));
    } catch (const CError& error) {
        problem = error.getMessage();
        isTooLarge = !error.getProps().getValue("maximum").isEmpty();
    }
    if (isTooLarge)
        tell(Finding::Kind_RecordSizeWrong, "the data inflate to more than a grain of " +
                                                toDecimal(m_extent->getGrainSizeBytes()) + " bytes");
    else if (!problem.isEmpty())
        tell(Finding::Kind_RecordDamaged, "the data do not inflate: " + problem);
    else if (size < least)
        tell(Finding::Kind_RecordSizeWrong,
             "the data inflate to " + toDecimal(size) + " bytes only, not " + toDecimal(least));
}

} // namespace tessel
