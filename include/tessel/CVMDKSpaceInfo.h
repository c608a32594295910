#pragma once

#include "lum/CBase.h"
#include "tessel/types.h"

namespace tessel {

/// How the bytes of extent files are used. All sizes are bytes.
class TESSEL_EXPORT CVMDKSpaceInfo : public CBase {
public:
    /// Virtual bytes of all written grains.
    int64 getPayloadSize() const noexcept { return m_payloadSize; }
    /// Sets the virtual bytes of all written grains.
    void setPayloadSize(int64 size) noexcept { m_payloadSize = size; }
    /// Bytes that the written grains' slots take in the file.
    int64 getPayloadSizeInFile() const noexcept { return m_payloadSizeInFile; }
    /// Sets the bytes of the slots.
    void setPayloadSizeInFile(int64 size) noexcept { m_payloadSizeInFile = size; }
    /// Bytes before the grains: header, descriptor, directories and tables.
    int64 getHeaderSize() const noexcept { return m_headerSize; }
    /// Sets the bytes before the grains.
    void setHeaderSize(int64 size) noexcept { m_headerSize = size; }
    /// What is neither: slots that were given up, and the trail of compressed extents.
    int64 getDeadSpaceSize() const noexcept { return m_deadSpaceSize; }
    /// Sets the bytes that are neither.
    void setDeadSpaceSize(int64 size) noexcept { m_deadSpaceSize = size; }

    /// Adds another's sizes, each to its own.
    void addSpaceInfo(const CVMDKSpaceInfo& other) noexcept;

private:
    int64 m_payloadSize = 0;
    int64 m_payloadSizeInFile = 0;
    int64 m_headerSize = 0;
    int64 m_deadSpaceSize = 0;
};

} // namespace tessel
