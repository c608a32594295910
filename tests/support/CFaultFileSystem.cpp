#include "CFaultFileSystem.h"

#include "CForwardingStream.h"
#include "lum/CFileSystemError.h"
#include "lum/CIOError.h"
#include "lum/CInvalidArgError.h"
#include "lum/Numbers.h"

#include <algorithm>
#include <mutex>
#include <optional>

using namespace lum;

namespace tessel::test {

namespace {

CProps makeProps(const CURI& uri) {
    return CProps().add("uri", uri.toString(true));
}

[[noreturn]] void throwFileSystemError(FaultRule::Kind kind, CFileSystemError::Problem refusal,
                                       const char* tried, const CProps& props) {
    throw CFileSystemError(kind == FaultRule::FullDisk ? CFileSystemError::Problem_NoSpace : refusal,
                           CError(String(tried) + ": Injected fault", String(), -1, props));
}

CIOError makeIOError(FaultRule::Kind kind, CIOError::Code refusal, const char* tried, const CProps& props) {
    return CIOError(kind == FaultRule::FullDisk ? CIOError::Code_NoSpace : refusal,
                    String(tried) + ": Injected fault", props);
}

} // namespace

/// The rules and what they have counted, shared with the streams, which may live longer.
class CFaultFileSystem::CRules {
public:
    void add(const FaultRule& rule) {
        const std::lock_guard guard(m_mutex);
        m_rules.push_back({rule, 0});
    }
    void clear() {
        const std::lock_guard guard(m_mutex);
        m_rules.clear();
    }
    int getHits() const {
        const std::lock_guard guard(m_mutex);
        return m_hits;
    }
    int getOperations() const {
        const std::lock_guard guard(m_mutex);
        return m_operations;
    }

    /// How the operation is to fail; nothing when it is not. Every rule that fits counts it.
    std::optional<FaultRule::Kind> judge(FaultRule::Operation operation, const CURI& uri, int64 start = 0,
                                         int64 end = INT64_MAX) {
        const String name = uri.getName();
        const std::lock_guard guard(m_mutex);
        ++m_operations;
        std::optional<FaultRule::Kind> verdict;
        for (auto& [rule, count] : m_rules) {
            if ((rule.operation != FaultRule::Any && rule.operation != operation) ||
                !name.EndsWith(rule.fileSuffix) || start >= rule.rangeEnd || rule.rangeStart >= end)
                continue;
            ++count;
            if (!verdict && (count == rule.nth || (rule.always && count > rule.nth)))
                verdict = rule.kind;
        }
        if (verdict)
            ++m_hits;
        return verdict;
    }

private:
    struct CountingRule {
        FaultRule rule;
        int count;
    };

    mutable std::mutex m_mutex;
    TArray<CountingRule> m_rules;
    int m_hits = 0;
    int m_operations = 0;
};

class CFaultFileSystem::CStream : public CForwardingStream {
public:
    CStream(IIOStream* below, const CURI& uri, std::shared_ptr<CRules> rules)
        : CForwardingStream(below), m_uri(uri), m_rules(std::move(rules)) {}

    void read(void* buffer, int count) override {
        judgeRead(buffer, count);
        getBelow().read(buffer, count);
    }
    int readLax(void* buffer, int count) override {
        judgeRead(buffer, count);
        return getBelow().readLax(buffer, count);
    }
    int readAvailable(void* buffer, int count) override {
        judgeRead(buffer, count);
        return getBelow().readAvailable(buffer, count);
    }

    void write(const void* data, int size, IWriteBarrier* barrier = nullptr) override {
        if (const auto kind = judgeTransfer(FaultRule::Write, size)) {
            const int64 position = getPosition();
            if (*kind == FaultRule::Short && size > 1)
                getBelow().write(data, size / 2, barrier);
            if (*kind == FaultRule::Torn)
                writeEverySecondSector(position, static_cast<const unsigned char*>(data), size);
            getBelow().seek(position);
            CIOError error =
                makeIOError(*kind, CIOError::Code_WriteFailed, "Cannot write to file",
                            makeProps(m_uri).add("position", position).add("bytesToWrite", size));
            if (!m_writeFailure)
                m_writeFailure = error;
            throw error;
        }
        getBelow().write(data, size, barrier);
    }

    void flush() override {
        const auto kind = m_rules->judge(FaultRule::Flush, m_uri);
        const std::optional<CIOError> failure = std::exchange(m_writeFailure, std::nullopt);
        if (kind)
            throw makeIOError(*kind, CIOError::Code_WriteFailed, "Cannot flush file", makeProps(m_uri));
        getBelow().flush();
        if (failure)
            throw *failure;
    }

    void close() override {
        const std::optional<CIOError> failure = std::exchange(m_writeFailure, std::nullopt);
        getBelow().close();
        if (failure)
            throw *failure;
    }

    void setLength(int64 length) override {
        if (const auto kind = m_rules->judge(FaultRule::SetLength, m_uri)) {
            if (*kind == FaultRule::Short)
                getBelow().setLength((getLength() + length) / 2);
            throw makeIOError(*kind, CIOError::Code_WriteFailed, "Cannot change the length of the file",
                              makeProps(m_uri).add("length", length));
        }
        getBelow().setLength(length);
    }

    P<IStreamLock> lockRange(int64 start, int64 length, LockType type) override {
        int64 end = INT64_MAX;
        if (length > 0)
            (void)tryAdd(start, length, end);
        if (const auto kind = m_rules->judge(FaultRule::Lock, m_uri, start, end))
            throwFileSystemError(*kind, CFileSystemError::Problem_Locked, "Cannot lock file",
                                 makeProps(m_uri).add("start", start).add("length", length));
        return getBelow().lockRange(start, length, type);
    }

private:
    std::optional<FaultRule::Kind> judgeTransfer(FaultRule::Operation operation, int count) {
        const int64 position = getPosition();
        int64 end = INT64_MAX;
        (void)tryAdd(position, count, end);
        return m_rules->judge(operation, m_uri, position, end);
    }

    /// Of the sectors that the write touches, those of odd numbers.
    void writeEverySecondSector(int64 position, const unsigned char* data, int size) {
        constexpr int64 sector = 512;
        const int64 end = position + size;
        for (int64 start = position; start < end;) {
            const int64 next = std::min((start / sector + 1) * sector, end);
            if (start / sector % 2 == 1) {
                getBelow().seek(start);
                getBelow().write(data + (start - position), static_cast<int>(next - start), nullptr);
            }
            start = next;
        }
    }

    /// Throws when the read is to fail.
    void judgeRead(void* buffer, int count) {
        if (const auto kind = judgeTransfer(FaultRule::Read, count)) {
            const int64 position = getPosition();
            if (*kind == FaultRule::Short) {
                getBelow().readLax(buffer, count / 2);
                getBelow().seek(position);
            }
            // A disk that is full can be read.
            throw makeIOError(FaultRule::Refused, CIOError::Code_ReadFailed, "Cannot read from file",
                              makeProps(m_uri).add("position", position).add("bytesToRead", count));
        }
    }

    CURI m_uri;
    std::shared_ptr<CRules> m_rules;
    std::optional<CIOError> m_writeFailure;
};

CFaultFileSystem::CFaultFileSystem(IFileSystem* below)
    : m_below(below), m_rules(std::make_shared<CRules>()) {}

CFaultFileSystem::~CFaultFileSystem() = default;

void CFaultFileSystem::addRule(const FaultRule& rule) {
    m_rules->add(rule);
}

void CFaultFileSystem::clearRules() {
    m_rules->clear();
}

int CFaultFileSystem::getHits() const {
    return m_rules->getHits();
}

int CFaultFileSystem::getOperations() const {
    return m_rules->getOperations();
}

P<IIOStream> CFaultFileSystem::openFile(const CURI& uri, IIOStream::Access access) {
    if (const auto kind = m_rules->judge(FaultRule::Open, uri))
        throwFileSystemError(*kind, CFileSystemError::Problem_AccessDenied, "Cannot open file",
                             makeProps(uri));
    const P<IIOStream> stream = m_below->openFile(uri, access);
    return new CStream(stream.get(), uri, m_rules);
}

bool CFaultFileSystem::fileExists(const CURI& uri) {
    return m_below->fileExists(uri);
}

void CFaultFileSystem::deleteFile(const CURI& uri, bool ignoreMissing) {
    if (const auto kind = m_rules->judge(FaultRule::Delete, uri))
        throwFileSystemError(*kind, CFileSystemError::Problem_AccessDenied, "Cannot delete file",
                             makeProps(uri));
    m_below->deleteFile(uri, ignoreMissing);
}

bool CFaultFileSystem::isFileOfStream(const CURI& uri, IIOStream& stream) {
    auto* const own = dynamic_cast<CStream*>(&stream);
    if (!own)
        throw CInvalidArgError("CFaultFileSystem::isFileOfStream",
                               "The stream was not opened by this file system.", makeProps(uri));
    return m_below->isFileOfStream(uri, own->getBelow());
}

} // namespace tessel::test
