#pragma once

#include "FaultRule.h"
#include "lum/CBase.h"
#include "lum/IFileSystem.h"

#include <memory>

namespace tessel::test {

/// A file system over another one that fails where its rules say so, as a real one does: a write that
/// failed is told once more by the next flush of its stream. Without rules it changes nothing. Safe to
/// use from several threads.
class CFaultFileSystem : public lum::CBase, public lum::IFileSystem {
public:
    explicit CFaultFileSystem(lum::IFileSystem* below);
    ~CFaultFileSystem() override;

    void addRule(const FaultRule& rule);
    void clearRules();
    /// How many operations were made to fail since the object was made.
    int getHits() const;
    /// How many operations there were that a rule can speak of. With {.nth = n} for growing n, a test
    /// fails every one of them in turn until this stays below n.
    int getOperations() const;

    lum::P<lum::IIOStream> openFile(const lum::CURI& uri, lum::IIOStream::Access access) override;
    bool fileExists(const lum::CURI& uri) override;
    void deleteFile(const lum::CURI& uri, bool ignoreMissing) override;
    bool isFileOfStream(const lum::CURI& uri, lum::IIOStream& stream) override;

private:
    class CRules;
    class CStream;

    lum::P<lum::IFileSystem> m_below;
    std::shared_ptr<CRules> m_rules;
};

} // namespace tessel::test
