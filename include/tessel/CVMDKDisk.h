#pragma once

#include "lum/CLockFile.h"
#include "lum/IFileSystem.h"
#include "sigil/ICipher.h"
#include "tessel/CVMDKContentIDUpdater.h"
#include "tessel/CVMDKDescriptor.h"
#include "tessel/CVMDKDescriptorAccessor.h"
#include "tessel/CVMDKGrainTableCache.h"
#include "tessel/IVMDKDataProvider.h"
#include "tessel/IVMDKExtentFile.h"
#include "tessel/UVMDKGrainRun.h"
#include "tessel/UVMDKStoredRun.h"

namespace tessel {

/// A virtual disk: a main file, which holds the descriptor, and the extent files that it names, as one
/// row of bytes.
///
///   P<IFileSystem> files(new CNativeFileSystem);
///   P<CVMDKDisk> disk(
///       new CVMDKDisk(files.get(), uri, IIOStream::Access_ReadWrite, password, -1, nullptr, nullptr));
///   disk->seek(position);
///   disk->write(buffer, size);
///   disk->flushChanges(); // durable now, or an error
///   disk = nullptr;       // flushes what is left and releases the lock
///
/// One extent file is open at a time. A lock file beside the main file keeps writers apart from all
/// others. The disk is used by one thread at a time, together with the disks that share its grain table
/// cache. The destructor flushes but can only report a failure (onExceptionInDestructorIgnored): whoever
/// must know calls flushChanges() first.
class TESSEL_EXPORT CVMDKDisk : public CBase {
public:
    /// Key of the extent map: a range of sectors of the disk. Overlapping ranges are equivalent, so that
    /// {s, 1} finds the extent that holds sector s.
    struct CExtentKey {
        /// First sector, counted in the disk.
        int64 startSector;
        /// How many sectors.
        int64 sizeSectors;

        /// True when the first range ends before the second begins.
        friend bool operator<(const CExtentKey& a, const CExtentKey& b) noexcept {
            return a.startSector + a.sizeSectors <= b.startSector;
        }
    };
    /// What is known of an extent before it is opened.
    struct CExtentValue {
        /// The extent's file.
        CURI uri;
        /// Index, within the disk, of the extent's first grain.
        int64 startGrainIndex;
    };

    /// Opens a disk. `access` 1 reads, 3 reads and writes. `password` is only used by encrypted disks and
    /// serves the whole chain of parents. `compressionLevel`: -1 to 9, see CVMDKCompressor. `grainTableCache`
    /// may be null (the disk makes its own) or shared with other disks. `parentDisk` may be null (a parent
    /// that the descriptor names is opened when it is first needed); one that is given is taken as it is,
    /// its content ID unchecked, and its position moves.
    /// Throws: CFileSystemError when the main file is missing or locked; CIOError 5 ("uri") for a disk of
    /// an unsupported kind, without extents, or with numbers that cannot be; CError ("uri") when the
    /// password is missing or wrong; what descriptor and first extent throw.
    CVMDKDisk(IFileSystem* fileSystem, const CURI& mainFileURI, IIOStream::Access access,
              const String& password, int compressionLevel, CVMDKGrainTableCache* grainTableCache,
              CVMDKDisk* parentDisk);
    ~CVMDKDisk() override;

    /// Opens a disk like the constructor, and one that was renamed or copied by hand as what it is now: where
    /// the main file holds the descriptor, and that names one extent, the main file is this extent, whatever
    /// name stands there, and the file of that name is not touched. So are parents opened. The log is not
    /// told; isRenamed() is. Throws: as the constructor.
    static P<CVMDKDisk> openRenamed(IFileSystem* fileSystem, const CURI& mainFileURI,
                                    IIOStream::Access access, const String& password, int compressionLevel,
                                    CVMDKGrainTableCache* grainTableCache, CVMDKDisk* parentDisk);

    CVMDKDisk(const CVMDKDisk&) = delete;
    CVMDKDisk& operator=(const CVMDKDisk&) = delete;

    /// Makes a new, empty disk and opens it for reading and writing; an older one of the same name is
    /// replaced. `sizeBytes` is rounded up to whole grains of 64 KiB, at least 8 MiB. `password` empty: not
    /// encrypted. `compressed`: "streamOptimized". `maxFileSizeBytes`: the largest size that an extent file
    /// may reach, -1 for a single file. `parentRelPath` and `parentContentID`: of the parent, or "" and
    /// 0xFFFFFFFF. `createExtentFilesOnDemand`: extent files after the first are made on first write.
    /// Throws: CInvalidArgError, before any file is touched, for arguments that cannot be; CError "Internal
    /// error…" when the limit leaves no room for grains, or the descriptor would not fit; CFileSystemError
    /// when the disk is in use; what writing throws, files already written then staying.
    static P<CVMDKDisk> create(IFileSystem* fileSystem, const CURI& mainFileURI, int64 sizeBytes,
                               const String& password, bool compressed, int compressionLevel,
                               int64 maxFileSizeBytes, const String& parentRelPath,
                               unsigned int parentContentID, bool createExtentFilesOnDemand);

    /// Derives a key of `keySizeBytes` from a password: "pkcs5-pbkdf2-hmac-sha1:" and the number of
    /// iterations (RFC 8018).
    /// Throws: CInvalidArgError for an unknown algorithm, a salt below 8 bytes, or iterations below 1000 or
    /// above 2^31 − 1.
    static void deriveEncryptKey(TCryptBuffer<unsigned char>& key, int keySizeBytes, const String& password,
                                 const String& derivationAlgorithm, const TBuffer<unsigned char>& salt);

    /// Size of the disk in bytes.
    int64 getSizeBytes() const noexcept { return m_sizeBytes; }
    /// Bytes of a grain of this disk.
    int64 getGrainSizeBytes() const noexcept { return m_grainSizeBytes; }
    /// Sectors of a grain of the disks that this library makes. Not of this disk.
    static int getGrainSizeSectors() noexcept { return 128; }
    /// The usual limit on the size of an extent file of a split disk: 2 GiB.
    static int64 getDefaultFileSizeLimit() noexcept { return 2147483648; }
    /// The size that create() gives a disk of at least `minSizeBytes`.
    static int64 getVirtualDiskSizeBytesFromMinSizeBytes(int64 minSizeBytes) noexcept;
    /// The main file, in normal form.
    CURI getMainFileURI() const { return m_mainFileURI; }
    /// The file of the first extent; the main file where the descriptor is embedded.
    CURI getFirstExtentFileURI() const { return m_firstExtentFileURI; }
    /// True when the main file was taken for the extent although the descriptor in it names another one.
    bool isRenamed() const noexcept { return m_isRenamed; }
    /// Empty for a disk without parent.
    CURI getParentDiskMainURI() const { return m_parentDiskMainURI; }
    /// Whether grains are stored compressed.
    bool getCompressed() const noexcept { return m_compressed; }
    /// Whether grains are stored encrypted.
    bool getEncrypted() const noexcept { return static_cast<bool>(m_cipher); }
    /// Where the next transfer begins, in bytes.
    int64 getPosition() const noexcept { return m_position; }
    /// The disk's own descriptor, not a copy; changes reach the file by storeDescriptor().
    P<CVMDKDescriptor> getDescriptor() const { return m_descriptor; }
    /// The cache that holds the tables of this disk, and of others that share it.
    P<CVMDKGrainTableCache> getGrainTableCache() const { return m_grainTableCache; }
    /// The extents, in the disk's order.
    const TMap<CExtentKey, CExtentValue>& getExtentMap() const noexcept { return m_extentMap; }
    /// While disabled, changes leave the content ID as it is.
    void setContentIDUpdatesEnabled(bool enabled);
    /// While disabled, grain tables stay in memory without bound and are written by flushChanges() only.
    /// Enabling it flushes the open extent. Throws: what writing throws; nothing has changed then.
    void setAutomaticGrainTableFlushingEnabled(bool enabled);

    /// Makes all changes durable. Does nothing for a disk opened for reading.
    /// Throws: what writing throws; what could not be written is tried again by the next call.
    void flushChanges();

    /// Throws: CIOError 7 ("mainFileURI", "diskSize") outside 0 to the size, both included.
    void seek(int64 position);
    /// Reads exactly `size` bytes. Throws: CIOError 4 ("mainFileURI", "position", "bytesToRead") past the
    /// end; what extents throw, the position then telling how far it came: to the start or to where the
    /// extent that failed begins.
    void read(void* buffer, int size);
    /// Throws: CIOError 3 ("mainFileURI", "position", "bytesToWrite") past the end; CError without write
    /// access; what extents throw, the position as after read().
    void write(const void* buffer, int size);

    // Whole grains in prepared form, at a grain's start; the position moves to the next grain.

    /// Throws: CIOError 3 past the end; CIOError 11 off a grain boundary; CError for a grain that crosses
    /// an extent's end.
    void readPreparedGrainData(TBuffer<unsigned char>& data);
    /// Throws: the same; CError without write access; CInvalidArgError for data that are no grain of this
    /// disk's kind.
    void writePreparedGrainData(const TBuffer<unsigned char>& data);
    /// A new preparer for grains of this disk's size and kind.
    P<CVMDKDataPreparer> createDataPreparer() const;

    /// Whether the grain at the position was written, here or in a parent.
    bool isGrainWritten();
    /// Whether it was written here.
    bool isGrainWrittenAndIndependentOfParent();
    /// The run of bytes from `position` on that come from one place: this disk, a parent, or nowhere. It
    /// ends with the grain table at the latest, so that asking for run after run walks a disk of any size
    /// in little memory. Neither position is moved nor data read.
    /// Throws: CIOError 7 as seek, also at the end; what extents and parents throw.
    UVMDKGrainRun findGrainRun(int64 position);
    /// As findGrainRun, and where the run is stored. It ends where its place in the file does, and looks at
    /// no more than `mostBytes` (at least 1). Throws: as findGrainRun; CIOError 5 for a slot that cannot be.
    UVMDKStoredRun findStoredRun(int64 position, int64 mostBytes = INT64_MAX);
    /// Copies the parent's data of a grain that this disk does not hold, zeros too. `grainIndex` counts in
    /// the disk; the position is then at the next grain. Returns the bytes stored in prepared form, the
    /// grain size when there was nothing to copy, 0 without a parent. Leaves the content ID as it is.
    /// Throws: CError without write access; CIOError 7 for an index outside; what extents and parent throw.
    int64 makeGrainIndependentOfParent(int64 grainIndex);

    /// Flushes, opens every extent in turn and adds up how the files' bytes are used; every grain table
    /// passes through the cache. The position stays, except after an error.
    P<CVMDKSpaceInfo> gatherSpaceInfo();

    /// Writes the descriptor back into its area. Throws: CError without write access, or when the text has
    /// outgrown the area; what writing throws.
    void storeDescriptor();
    /// Changes where the parent is looked for, from the next time the disk is opened on. When it cannot be
    /// stored, the old path stands again. Throws: as storeDescriptor.
    void changeParentRelPath(const String& relPath);
    /// Names another parent and its content ID, both at once; otherwise as changeParentRelPath. Whether
    /// the new parent holds the same data is for the caller to know.
    void changeParent(const String& relPath, unsigned int contentID);
    /// Takes the parent out of the descriptor, both settings at once; otherwise as changeParentRelPath.
    /// Whatever only the parent holds reads as zeros from the next open on.
    void removeParent();

    /// Wraps the key of the disk's data for another password, by a new salt and as many iterations as a new
    /// disk gets. No grain is touched. The old password opens the disk until the new one does, wherever the
    /// power goes, and then no more. The passwords of parents stay as they are.
    /// Throws: CInvalidArgError for an empty password; CError without write access, for a disk that is not
    /// encrypted ("uri"), or when the descriptor's area has no room, where some is needed (up to 1 KiB);
    /// what writing throws.
    void changePassword(const String& newPassword);

protected:
    /// An accessor of the main file, through the open extent's stream where that is the main file.
    P<CVMDKDescriptorAccessor> openDescriptorAccessor();
    /// Sees to it that the extent at the position is open and in place, and tells how many of `maxBytes`
    /// it takes.
    void beginIOOp(int64 maxBytes, P<IVMDKExtentFile>& extentFile, int64& opBytes);

private:
    friend class CVMDKParentDiskDataProvider;

    /// Whose word tells where the extent of a main file is that is a whole disk.
    enum class ExtentName { asDescriptor, asMainFile };

    /// `children`: the main files of the disks that this one is a parent of, nearest last.
    CVMDKDisk(IFileSystem* fileSystem, const CURI& mainFileURI, IIOStream::Access access,
              const String& password, int compressionLevel, CVMDKGrainTableCache* grainTableCache,
              CVMDKDisk* parentDisk, const TArray<CURI>& children, ExtentName extentName);

    // Steps of opening. `uriProps`: the main file's URI as it was given, for every error.
    void unlock(const String& password, const CProps& uriProps);
    void buildExtentMap(const CProps& uriProps, bool embedded);
    void probeFirstExtent();
    void openParent(const String& password, CVMDKDisk* parentDisk, const TArray<CURI>& children,
                    const CProps& uriProps);

    [[noreturn]] void throwBadPosition(int64 position) const;
    void verifyHaveWriteAccess(const char* method) const;
    P<IVMDKExtentFile> openExtentFile(const CExtentKey& key, const CExtentValue& value);
    void closeExtentFile();
    void findPlace(UVMDKStoredRun& run);
    template <class Change>
    void changeDescriptor(const char* method, Change change);
    void verifyPreparedTransfer(const char* verb) const;
    P<IVMDKExtentFile> beginPreparedTransfer(const char* method);

    P<IFileSystem> m_fileSystem;
    CURI m_mainFileURI;
    IIOStream::Access m_access;
    ExtentName m_extentName = ExtentName::asDescriptor;
    bool m_isRenamed = false;
    CURI m_firstExtentFileURI;
    int m_compressionLevel;
    P<CVMDKGrainTableCache> m_grainTableCache;
    CURI m_parentDiskMainURI;
    P<IVMDKDataProvider> m_parentDataProvider;
    P<CVMDKDescriptor> m_descriptor;
    TArray<P<CVMDKExtentInfo>> m_extents;
    TMap<CExtentKey, CExtentValue> m_extentMap;
    int64 m_sizeSectors = 0;
    int64 m_sizeBytes = 0;
    int64 m_grainSizeSectors = 0;
    int64 m_grainSizeBytes = 0;
    bool m_compressed = false;
    int64 m_position = 0;
    P<IVMDKExtentFile> m_currentExtentFile;
    CURI m_currentExtentURI;
    int64 m_currentExtentStartBytes = -1;
    int64 m_currentExtentSizeBytes = 0;
    P<CVMDKContentIDUpdater> m_contentIDUpdater;
    bool m_createExtentFilesOnDemand = false;
    P<CLockFile> m_lockFile;
    P<sigil::ICipher> m_cipher;
    TCryptBuffer<unsigned char> m_dataKey;
    TBuffer<unsigned char> m_encryptionIV;
    TBuffer<unsigned char> m_encryptionKeyHash;
};

} // namespace tessel
