#include "CPiece.h"

namespace tessel::cli {

void CPiece::begin(int64 position, int64 size, bool isData) {
    m_position = position;
    m_size = size;
    m_isData = isData;
    m_stored.clear();
    m_prepared.clear();
    m_spare = m_records;
    m_error = nullptr;
}

void CPiece::setZeros(int64 position, int64 sizeBytes) {
    begin(position, sizeBytes, false);
}

void CPiece::beginData(int64 position) {
    begin(position, 0, true);
}

unsigned char* CPiece::getBytes() {
    if (!m_bytes)
        m_bytes.reset(new unsigned char[static_cast<std::size_t>(m_capacity)]); // not zeroed for nothing
    return m_bytes.get();
}

P<TBuffer<unsigned char>> CPiece::takeRecord() {
    if (m_spare.empty()) {
        m_records.emplace_back(new TBuffer<unsigned char>);
        return m_records.back();
    }
    P<TBuffer<unsigned char>> record = m_spare.back();
    m_spare.pop_back();
    return record;
}

TBuffer<unsigned char>& CPiece::addStored(int offset) {
    m_stored.push_back({offset, takeRecord()});
    return *m_stored.back().record;
}

P<TBuffer<unsigned char>> CPiece::addPrepared(int offset) {
    m_prepared.push_back({offset, takeRecord()});
    return m_prepared.back().record;
}

} // namespace tessel::cli
