#include "CLogRecorder.h"
#include "CMemoryLimit.h"
#include "lum/CMemoryFileSystem.h"
#include "lum/CSecretText.h"
#include "lum/TextFunctions.h"
#include "sigil/CCipher_AES256CBC.h"
#include "tessel/CVMDKDescriptorAccessor.h"
#include "tessel/CVMDKDisk.h"
#include "tessel/CVMDKDiskChecker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>

namespace tessel::test {
namespace {

using namespace lum;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr int64 MiB = 1048576;
constexpr unsigned int noParent = 0xFFFFFFFF;
constexpr auto forReading = IIOStream::Access_Read;
constexpr auto forWriting = IIOStream::Access_ReadWrite;

const char* const passwordText = "correct horse battery staple, and a tail of some length";
const char* const wrongText = "another password that nobody may read in a message";

std::string bytesOf(const TCryptBuffer<unsigned char>& buffer) {
    return std::string(reinterpret_cast<const char*>(buffer.getData()),
                       static_cast<std::size_t>(buffer.getUsed()));
}

std::string hexOf(const std::string& bytes) {
    const auto* const data = reinterpret_cast<const unsigned char*>(bytes.data());
    return hexEncode(TBuffer<unsigned char>(data, static_cast<int64>(bytes.size())), false).toUTF8();
}

class CCountingReport : public CBase, public IVMDKCheckReport {
public:
    void addFinding(const UVMDKCheckFinding& finding) override { messages.push_back(finding.message); }
    void onProgress(int64) override {}

    TArray<String> messages;
};

/// An encrypted disk with an encrypted child.
class SecretsTest : public ::testing::Test {
protected:
    SecretsTest() {
        for (const bool isChild : {false, true}) {
            const P<CVMDKDisk> disk =
                CVMDKDisk::create(m_files.get(), isChild ? m_child : m_parent, 8 * MiB, m_password, true, 6,
                                  -1, isChild ? "parent.vmdk" : "", isChild ? m_parentID : noParent, false);
            const std::string data(100000, isChild ? 'c' : 'p');
            disk->seek(isChild ? 4 * MiB : 0);
            disk->write(data.data(), static_cast<int>(data.size()));
            disk->flushChanges();
            m_parentID = disk->getDescriptor()->getContentID();
            addKeys(*disk->getDescriptor());
        }
    }

    /// What a disk's keys are, found without the code that opens disks.
    void addKeys(const CVMDKDescriptor& descriptor) {
        TCryptBuffer<unsigned char> derived;
        CVMDKDisk::deriveEncryptKey(derived, 32, m_password,
                                    descriptor.getLumEncryptionKeyDerivationAlgorithm(),
                                    descriptor.getLumEncryptionKeyDerivationSalt());
        TCryptBuffer<unsigned char> key;
        const TBuffer<unsigned char> wrapped = descriptor.getLumEncryptedEncryptionKey();
        sigil::CCipher_AES256CBC().decrypt(wrapped.getData(), static_cast<int>(wrapped.getUsed()), derived,
                                           descriptor.getLumEncryptionIV(), key, false);
        m_keys.push_back(bytesOf(derived));
        m_keys.push_back(bytesOf(key));
    }

    std::vector<std::string> secretBytes() const {
        std::vector<std::string> secrets = m_keys;
        secrets.emplace_back(passwordText);
        secrets.emplace_back(reinterpret_cast<const char*>(m_password.getText()),
                             static_cast<std::size_t>(m_password.getLength()) * sizeof(wchar_t));
        // A piece, as a buffer that grew would leave one.
        secrets.emplace_back(std::string(passwordText).substr(0, 16));
        return secrets;
    }

    P<CVMDKDisk> open(const CURI& uri, IIOStream::Access access, const String& password) {
        return new CVMDKDisk(m_files.get(), uri, access, password, 6, nullptr, nullptr);
    }

    void patch(const CURI& uri, int64 position, const std::string& bytes) {
        const P<IIOStream> stream = m_files->openFile(uri, forWriting);
        stream->seek(position);
        stream->write(bytes.data(), static_cast<int>(bytes.size()), nullptr);
    }

    void editDescriptor(const CURI& uri, const char* name, const String& value) {
        const P<IIOStream> stream = m_files->openFile(uri, forWriting);
        const P<CVMDKDescriptorAccessor> accessor(new CVMDKDescriptorAccessor(stream.get(), forWriting));
        accessor->getDescriptor()->setValue(name, value, false, true);
        accessor->storeDescriptor(true);
    }

    CLogRecorder m_log;
    P<CMemoryFileSystem> m_files{new CMemoryFileSystem};
    CURI m_parent{String("memory:/disks/parent.vmdk")};
    CURI m_child{String("memory:/disks/child.vmdk")};
    String m_password{passwordText};
    String m_wrong{wrongText};
    unsigned int m_parentID = noParent;
    std::vector<std::string> m_keys;
};

} // namespace

TEST(CFreedMemorySearchTest, FindsWhatIsLeftInFreedMemory) {
    const std::string secret(passwordText);
    const CFreedMemorySearch search({secret});
    auto copy = std::make_unique<std::string>(secret);
    const int64 before = search.getFindCount(0);
    copy = nullptr;
    EXPECT_EQ(search.getFindCount(0), before + 1);
}

TEST(CSecretTextTest, IsWipedWhenItGoesOrTakesAnother) {
    const String text(passwordText);
    const std::vector<std::string> secrets = {
        std::string(reinterpret_cast<const char*>(text.getText()), 16 * sizeof(wchar_t))};
    const CFreedMemorySearch search(secrets);
    {
        CSecretText secret(text);
        CSecretText copy(secret);
        EXPECT_EQ(copy.get(), text);
        secret = CSecretText(String("another one, which is as long as the first, or longer still"));
        copy = CSecretText();
        EXPECT_TRUE(copy.isEmpty());
        String plain(text);
        plain.wipe();
        EXPECT_TRUE(plain.isEmpty());
    }
    EXPECT_EQ(search.getFindCount(0), 0);
    { const String unwiped(text); }
    EXPECT_EQ(search.getFindCount(0), 1);
}

TEST(CSecretTextTest, TurnsToUTF8AndBack) {
    const String text(L"a\xE4\x20AC\xFFFD z");
    const TCryptBuffer<unsigned char> bytes = CSecretText::toUTF8(text);
    EXPECT_EQ(bytesOf(bytes), text.toUTF8());
    const std::string utf8 = text.toUTF8() + "\xF0\x9F\x98\x80";
    const TCryptBuffer<char> back(utf8.data(), static_cast<int64>(utf8.size()));
    EXPECT_EQ(CSecretText::fromUTF8(back).get(), String::fromUTF8(utf8));
    EXPECT_EQ(bytesOf(CSecretText::toUTF8(String::fromUTF8(utf8))), utf8);
    const wchar_t surrogate[] = {L'a', static_cast<wchar_t>(0xD800), 0};
    EXPECT_THROW(CSecretText::toUTF8(String(surrogate)), CError);
}

TEST_F(SecretsTest, NothingOfPasswordAndKeysIsLeftInFreedMemory) {
    const std::vector<std::string> secrets = secretBytes();
    std::vector<char> buffer(100000);
    const CFreedMemorySearch search(secrets);
    {
        const P<CVMDKDisk> disk = open(m_child, forWriting, m_password);
        disk->seek(0);
        disk->read(buffer.data(), static_cast<int>(buffer.size()));
        EXPECT_EQ(buffer[50000], 'p') << "this comes from the parent";
        disk->seek(4 * MiB);
        disk->read(buffer.data(), static_cast<int>(buffer.size()));
        EXPECT_EQ(buffer[50000], 'c');
        disk->seek(2 * MiB);
        disk->write(buffer.data(), static_cast<int>(buffer.size()));
        disk->flushChanges();
    }
    {
        CCountingReport report;
        CVMDKDiskChecker(m_files.get(), m_child).check(m_password, false, report);
        EXPECT_THAT(report.messages, IsEmpty());
    }
    EXPECT_THROW(open(m_child, forReading, m_wrong), CError);
    EXPECT_GT(search.getBlockCount(), 100);
    for (std::size_t i = 0; i < secrets.size(); ++i)
        EXPECT_EQ(search.getFindCount(i), 0) << "secret " << i;
}

TEST_F(SecretsTest, NothingOfPasswordAndKeysIsLeftInFreedMemoryWhenADiskIsMade) {
    const CFreedMemorySearch search(secretBytes());
    CVMDKDisk::create(m_files.get(), CURI(String("memory:/disks/new.vmdk")), 8 * MiB, m_password, false, 6,
                      4 * MiB, "", noParent, true);
    for (std::size_t i = m_keys.size(); i < m_keys.size() + 3; ++i)
        EXPECT_EQ(search.getFindCount(i), 0) << "secret " << i;
}

TEST_F(SecretsTest, NoMessageHoldsThem) {
    TArray<String> texts;
    int failures = 0;
    const auto fails = [&](const std::function<void()>& operation) {
        try {
            operation();
            ADD_FAILURE() << "this should fail, as operation " << failures;
        } catch (const CError& error) {
            ++failures;
            texts.push_back(describeError(error));
        }
    };
    char buffer[1000] = {};
    const auto readChild = [&] {
        const P<CVMDKDisk> disk = open(m_child, forReading, m_password);
        disk->seek(1000);
        disk->read(buffer, sizeof buffer);
    };
    fails([&] { open(m_child, forReading, m_wrong); });
    fails([&] { open(m_child, forReading, ""); });
    fails([&] { open(m_child, forReading, m_password)->write(buffer, 1); });
    fails([&] { open(m_child, forReading, m_password)->seek(-1); });
    CCountingReport unused;
    fails([&] { CVMDKDiskChecker(m_files.get(), m_child).check(m_wrong, false, unused); });
    {
        const P<CVMDKDisk> disk = open(m_child, forWriting, m_password);
        fails([&] { open(m_child, forWriting, m_password); });
    }
    {
        // A damaged record in the parent is found through the child, and by the check.
        const P<IIOStream> stream = m_files->openFile(m_parent, forReading);
        const int64 length = stream->getLength();
        patch(m_parent, length - 4 * 512, std::string(512, 'x'));
        patch(m_parent, 128 * 512, std::string(512, 'x'));
    }
    fails(readChild);
    CCountingReport report;
    CVMDKDiskChecker(m_files.get(), m_parent).check(m_password, false, report);
    EXPECT_THAT(report.messages, Not(IsEmpty()));
    texts.insert(texts.end(), report.messages.begin(), report.messages.end());
    editDescriptor(m_parent, "CID", "1234");
    fails(readChild);
    editDescriptor(m_parent, "lumEncKeyHash", "00");
    fails([&] { open(m_parent, forReading, m_password); });
    editDescriptor(m_parent, "lumEncIV", "0011");
    fails([&] { open(m_parent, forReading, m_password); });
    editDescriptor(m_parent, "lumEncKeyDerivAlg", "pkcs5-pbkdf2-hmac-sha1:1");
    fails([&] { open(m_parent, forReading, m_password); });
    editDescriptor(m_parent, "lumEncAlg", "rot13");
    fails([&] { open(m_parent, forReading, m_password); });
    m_files->deleteFile(m_parent, false);
    fails(readChild);

    int logLines = 0;
    for (const CLogRecorder::Entry& entry : m_log.takeEntries()) {
        texts.push_back(entry.message + entry.error + entry.secondText);
        ++logLines;
    }
    EXPECT_GT(logLines, 0);
    for (const String& text : texts) {
        const std::string bytes = text.toUTF8Lossy();
        const std::string lower = text.Lower().toUTF8Lossy();
        EXPECT_THAT(bytes, Not(HasSubstr(passwordText)));
        EXPECT_THAT(bytes, Not(HasSubstr(wrongText)));
        for (const std::string& key : m_keys) {
            EXPECT_THAT(bytes, Not(HasSubstr(key)));
            EXPECT_THAT(lower, Not(HasSubstr(hexOf(key))));
            EXPECT_THAT(lower, Not(HasSubstr(hexOf(key).substr(0, 16))));
        }
    }
}

} // namespace tessel::test
