// Another password for an encrypted disk: the same key is wrapped anew, nothing else changes, and at no
// moment is there a disk that neither password opens.

#include "CPowerCutFileSystem.h"
#include "DiskTest.h"
#include "sigil/CCipher_AES256CBC.h"

using namespace tessel;
using namespace tessel::test;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

const char* const oldPassword = "old password";
const char* const newPassword = "a new one";

enum Opens { neither, byOld, byNew, byBoth };

class CVMDKDiskPasswordTest : public DiskTest {
protected:
    bool opensWith(const char* password) {
        try {
            const P<CVMDKDisk> disk = open(forReading, "disk.vmdk", password);
            EXPECT_EQ(readAt(*disk, 100000, 300), m_data);
            return true;
        } catch (const CError& error) {
            EXPECT_EQ(error.getMessage(), "Specified VMDK encryption password is not correct.");
            return false;
        }
    }
    Opens whichOpens() {
        return static_cast<Opens>((opensWith(oldPassword) ? byOld : neither) +
                                  (opensWith(newPassword) ? byNew : neither));
    }
    void createWithData(DiskOptions options) {
        options.password = oldPassword;
        const P<CVMDKDisk> disk = create(options);
        writeAt(*disk, 100000, m_data);
        disk->flushChanges();
    }
    void changePassword(const char* from = oldPassword, const char* to = newPassword) {
        open(forWriting, "disk.vmdk", from)->changePassword(to);
    }
    String valueOf(const char* setting) {
        return CVMDKDescriptor(*openDescriptor()->getDescriptor()).getValue(setting);
    }
    P<CVMDKDescriptorAccessor> openDescriptor() {
        const P<IIOStream> stream = m_memory->openFile(uri("disk.vmdk"), forReading);
        return new CVMDKDescriptorAccessor(stream.get(), forReading);
    }
    /// A file with zeros in place of its descriptor.
    std::string withoutDescriptor(const String& name) {
        std::string file = getFile(name);
        if (name == "disk.vmdk") {
            const P<CVMDKDescriptorAccessor> accessor = openDescriptor();
            const auto position = static_cast<std::size_t>(accessor->getDescriptorAreaPosition());
            const auto size = static_cast<std::size_t>(accessor->getDescriptorAreaSize());
            file.replace(position, size, size, '\0');
        }
        return file;
    }
    std::map<std::string, std::string> filesWithoutDescriptor() {
        std::map<std::string, std::string> files;
        for (const std::string& name : listFiles())
            files[name] = withoutDescriptor(String::fromUTF8(name));
        return files;
    }
    /// What a password must fit, and the rest of the disk.
    std::string settingsOf() {
        std::string text;
        for (const char* const name : {"lumEncAlg", "lumEncIV", "lumEncKeyDerivAlg", "lumEncKeyDerivSalt",
                                       "lumEncEncKey", "lumEncKeyHashAlg", "lumEncKeyHash"})
            text += valueOf(name).toUTF8() + "\n";
        return text;
    }
    std::string extentsOf() {
        TArray<P<CVMDKExtentInfo>> extents;
        openDescriptor()->getDescriptor()->getExtentEntries(extents);
        std::string text;
        for (const auto& extent : extents)
            text += extent->toString().toUTF8() + "\n";
        return text;
    }
    /// Changes the password and lets the power go behind every event and in many ways: the settings are those
    /// of one of the passwords, as a whole. Deriving keys takes its time, so that not every disk is opened.
    void cutEverywhere() {
        const std::string before = settingsOf();
        const std::string extents = extentsOf();
        const P<CMemoryFileSystem> whole = m_memory;
        const P<CPowerCutFileSystem> record(new CPowerCutFileSystem(m_memory.get()));
        m_files = record;
        {
            const P<CVMDKDisk> disk = open(forWriting, "disk.vmdk", oldPassword);
            record->start();
            disk->changePassword(newPassword);
        }
        const std::size_t end = record->getEventCount();
        const std::string after = settingsOf();
        EXPECT_NE(before, after);
        EXPECT_GT(end, 1U);
        bool wasOld = false;
        std::string opened;
        for (std::size_t count = 0; count <= end; ++count)
            for (unsigned variant = 0; variant < 8; ++variant) {
                SCOPED_TRACE(::testing::Message() << "after event " << count << ", variant " << variant);
                const auto keep = [&](const CPowerCutFileSystem::Event&, std::size_t, int64) {
                    return variant == 1 ? false : m_random() % 2 == 0;
                };
                m_memory = record->replay(count, variant == 0 ? CPowerCutFileSystem::Keep() : keep);
                m_files = m_memory;
                const std::string settings = settingsOf();
                EXPECT_EQ(extentsOf(), extents);
                EXPECT_TRUE(settings == before || settings == after) << settings;
                wasOld = wasOld || settings == before;
                if (settings != opened) {
                    EXPECT_EQ(whichOpens(), settings == before ? byOld : byNew);
                }
                opened = settings;
                if (count == end) {
                    EXPECT_EQ(settings, after);
                }
            }
        EXPECT_TRUE(wasOld);
        m_memory = whole;
        m_files = m_memory;
    }

    Bytes m_data = randomBytes(7, 300);
    std::mt19937 m_random{4711};
};

TEST_F(CVMDKDiskPasswordTest, NewPasswordOpensWhatTheOldOneDid) {
    for (const DiskOptions& options :
         {DiskOptions{}, DiskOptions{.compressed = true}, DiskOptions{.limit = 4 * MiB},
          DiskOptions{.compressed = true, .limit = 6 * MiB}}) {
        createWithData(options);
        const auto files = filesWithoutDescriptor();
        const unsigned int contentID = openDescriptor()->getDescriptor()->getContentID();
        changePassword();
        EXPECT_EQ(whichOpens(), byNew);
        EXPECT_EQ(openDescriptor()->getDescriptor()->getContentID(), contentID);
        // Not a byte outside the descriptor has changed.
        EXPECT_EQ(filesWithoutDescriptor(), files);
        changePassword(newPassword, "third");
        EXPECT_TRUE(opensWith("third"));
        EXPECT_FALSE(opensWith(newPassword));
    }
}

TEST_F(CVMDKDiskPasswordTest, SaltAndIterationsAreThoseOfANewDisk) {
    createWithData({.limit = 4 * MiB});
    editDescriptor([](CVMDKDescriptor& descriptor) {
        descriptor.setValue("lumEncKeyDerivAlg", "pkcs5-pbkdf2-hmac-sha1:1000", false, true);
    });
    // The key as few iterations wrap it, so that the old password opens this disk.
    editDescriptor([](CVMDKDescriptor& descriptor) {
        TBuffer<unsigned char> key;
        TCryptBuffer<unsigned char> derived;
        TCryptBuffer<unsigned char> dataKey;
        const P<sigil::ICipher> cipher(new sigil::CCipher_AES256CBC);
        const TBuffer<unsigned char> salt = descriptor.getLumEncryptionKeyDerivationSalt();
        CVMDKDisk::deriveEncryptKey(derived, 32, oldPassword, "pkcs5-pbkdf2-hmac-sha1:10000", salt);
        cipher->decrypt(descriptor.getLumEncryptedEncryptionKey().getData(), 32, derived,
                        descriptor.getLumEncryptionIV(), dataKey, false);
        CVMDKDisk::deriveEncryptKey(derived, 32, oldPassword, "pkcs5-pbkdf2-hmac-sha1:1000", salt);
        cipher->encrypt(dataKey.getData(), 32, derived, descriptor.getLumEncryptionIV(), key, false);
        descriptor.setLumEncryptedEncryptionKey(key);
    });
    const String salt = valueOf("lumEncKeyDerivSalt");
    cutEverywhere();
    EXPECT_EQ(whichOpens(), byNew);
    EXPECT_EQ(valueOf("lumEncKeyDerivAlg"), "pkcs5-pbkdf2-hmac-sha1:10000");
    EXPECT_EQ(valueOf("lumEncKeyDerivSalt").getLength(), 64);
    EXPECT_NE(valueOf("lumEncKeyDerivSalt"), salt);
}

// The settings are at another place of their sector for each length of the parent's path, and across two
// sectors for some.
TEST_F(CVMDKDiskPasswordTest, OnePasswordOpensTheDiskWhereverThePowerGoes) {
    int moved = 0;
    int tried = 0;
    for (const int64 limit : {int64{-1}, 4 * MiB})
        for (int length = 0; length < 420; length += length < 70 ? 70 : 39) {
            SCOPED_TRACE(::testing::Message() << length << " bytes of path, limit " << limit);
            ++tried;
            createWithData({.limit = limit});
            editDescriptor([&](CVMDKDescriptor& descriptor) {
                if (length > 0)
                    descriptor.setValue("parentFileNameHint",
                                        String::fromUTF8(std::string(static_cast<std::size_t>(length), 'x')),
                                        true, true);
                // Before the settings of the key.
                String key;
                for (const char* const name : {"lumEncKeyDerivAlg", "lumEncKeyDerivSalt", "lumEncEncKey"}) {
                    const String value = descriptor.getValue(name);
                    descriptor.removeValue(name);
                    descriptor.setValue(name, value, false, true);
                }
            });
            const String salt = valueOf("lumEncKeyDerivSalt");
            const String key = valueOf("lumEncEncKey");
            cutEverywhere();
            const std::string text = getFile("disk.vmdk");
            moved += descriptorText().toUTF8().find("\n####") != std::string::npos ? 1 : 0;
            // What the old password opens is nowhere left.
            EXPECT_THAT(text, Not(HasSubstr(key.toUTF8())));
            EXPECT_THAT(text, Not(HasSubstr(salt.toUTF8())));
            EXPECT_EQ(whichOpens(), byNew);
            if (HasFailure())
                return;
        }
    EXPECT_GT(moved, 1);
    EXPECT_LT(moved, tried);
}

TEST_F(CVMDKDiskPasswordTest, LinesThatDoNotCountNeverDo) {
    createWithData({.limit = 4 * MiB});
    // Behind the extents, where they count for nothing, and what stands behind the text's end.
    std::string file = getFile("disk.vmdk");
    const std::size_t end = file.find('\0');
    const std::string more = "LUMENCENCKEY = \"00\"\nlumenckeyderivsalt=1234\n# no line feed";
    file.replace(end, more.size(), more);
    const std::string rest = "lumEncEncKey=11\nRW 8 SPARSE \"more.vmdk\"\n";
    file.replace(file.size() - rest.size(), rest.size(), rest);
    putFile("disk.vmdk", file);
    editDescriptor([](CVMDKDescriptor& descriptor) { // so that the settings must move
        const String value = descriptor.getValue("lumEncKeyDerivSalt");
        descriptor.removeValue("lumEncKeyDerivSalt");
        descriptor.removeValue("lumenckeyderivsalt");
        descriptor.addGenericLine(String::fromUTF8("#" + std::string(600, '-')), false);
        descriptor.setValue("lumEncKeyDerivSalt", value, false, false);
    });
    file = getFile("disk.vmdk");
    file.replace(file.size() - rest.size(), rest.size(), rest);
    putFile("disk.vmdk", file);
    ASSERT_EQ(whichOpens(), byOld);
    cutEverywhere();
    EXPECT_EQ(whichOpens(), byNew);
    changePassword(newPassword, "third");
    EXPECT_TRUE(opensWith("third"));
}

TEST_F(CVMDKDiskPasswordTest, DescriptorWithoutRoomStaysAsItIs) {
    createWithData({.limit = 4 * MiB});
    editDescriptor([](CVMDKDescriptor& descriptor) {
        const String value = descriptor.getValue("lumEncEncKey");
        descriptor.removeValue("lumEncEncKey");
        descriptor.addGenericLine(String::fromUTF8("#" + std::string(600, '-')), false);
        descriptor.setValue("lumEncEncKey", value, false, false);
    });
    std::string file = getFile("disk.vmdk");
    file.resize(file.find('\0'));
    putFile("disk.vmdk", file);
    EXPECT_THAT([&] { changePassword(); },
                ::testing::Throws<CError>(
                    ::testing::Property(&CError::getMessage, ::testing::Truly([](const String& message) {
                        return message.StartsWith(
                            "Internal error: actual VMDK descriptor size exceeds target size");
                    }))));
    EXPECT_EQ(getFile("disk.vmdk"), file);
    EXPECT_EQ(whichOpens(), byOld);
}

TEST_F(CVMDKDiskPasswordTest, OpenDiskGoesOnWithItsData) {
    createWithData({});
    {
        const P<CVMDKDisk> disk = open(forWriting, "disk.vmdk", oldPassword);
        writeAt(*disk, 5 * MiB, m_data);
        disk->changePassword(newPassword);
        EXPECT_EQ(readAt(*disk, 100000, 300), m_data);
        disk->changeParentRelPath("other.vmdk"); // by the settings in memory
    }
    const P<CVMDKDisk> disk = open(forReading, "disk.vmdk", newPassword);
    EXPECT_EQ(readAt(*disk, 5 * MiB, 300), m_data);
    EXPECT_EQ(readAt(*disk, 100000, 300), m_data);
}

TEST_F(CVMDKDiskPasswordTest, RefusesWhatCannotBe) {
    createWithData({});
    const std::string file = getFile("disk.vmdk");
    EXPECT_INVALID_ARG_ERROR(open(forWriting, "disk.vmdk", oldPassword)->changePassword(""),
                             "CVMDKDisk::changePassword", "The new password is empty.");
    EXPECT_LUM_ERROR(open(forReading, "disk.vmdk", oldPassword)->changePassword("x"), CError, -1,
                     "Internal error: CVMDKDisk::changePassword was called, but the disk was not opened for "
                     "writing.");
    EXPECT_EQ(getFile("disk.vmdk"), file);
    create({}, "open.vmdk");
    EXPECT_LUM_ERROR(open(forWriting, "open.vmdk")->changePassword("x"), CError, -1,
                     "VMDK is not encrypted, so there is no password to be changed.",
                     {{"uri", path("open.vmdk")}});
}

} // namespace
