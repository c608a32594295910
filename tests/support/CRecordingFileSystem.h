#pragma once

#include "CRecordingStream.h"
#include "lum/IFileSystem.h"

namespace tessel::test {

/// Hands every call on to the file system below, and writes down which files were opened and deleted.
/// Its streams are CRecordingStreams, which it keeps, so that what was asked of them can be looked at.
class CRecordingFileSystem : public lum::CBase, public lum::IFileSystem {
public:
    struct Opening {
        lum::CURI uri;
        lum::IIOStream::Access access;

        friend bool operator==(const Opening&, const Opening&) = default;
    };

    explicit CRecordingFileSystem(lum::IFileSystem* below) : m_below(below) {}

    /// Which files were opened so far, failed attempts included; it is forgotten by this.
    lum::TArray<Opening> takeOpenings() { return std::exchange(m_openings, {}); }
    /// Which files were to be deleted so far; it is forgotten by this.
    lum::TArray<lum::CURI> takeDeletions() { return std::exchange(m_deletions, {}); }
    /// The stream that was opened last.
    CRecordingStream& getLastStream() const { return *m_lastStream; }

    lum::P<lum::IIOStream> openFile(const lum::CURI& uri, lum::IIOStream::Access access) override {
        m_openings.push_back({uri, access});
        m_lastStream = new CRecordingStream(m_below->openFile(uri, access).get());
        return m_lastStream;
    }
    bool fileExists(const lum::CURI& uri) override { return m_below->fileExists(uri); }
    void deleteFile(const lum::CURI& uri, bool ignoreMissing) override {
        m_deletions.push_back(uri);
        m_below->deleteFile(uri, ignoreMissing);
    }
    bool isFileOfStream(const lum::CURI& uri, lum::IIOStream& stream) override {
        return m_below->isFileOfStream(uri, dynamic_cast<CRecordingStream&>(stream).getBelow());
    }

private:
    lum::P<lum::IFileSystem> m_below;
    lum::TArray<Opening> m_openings;
    lum::TArray<lum::CURI> m_deletions;
    lum::P<CRecordingStream> m_lastStream;
};

inline void PrintTo(const CRecordingFileSystem::Opening& opening, std::ostream* out) {
    *out << opening.uri.toString(true).toUTF8Lossy() << " with access " << opening.access;
}

} // namespace tessel::test
