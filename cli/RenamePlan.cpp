#include "RenamePlan.h"

#include "Confinement.h"
#include "Disks.h"
#include "Errors.h"
#include "Names.h"
#include "lum/LittleEndian.h"
#include "platform.h"
#include "tessel/CVMDKSparseExtentHeader.h"
#include "tessel/VMDKEmptyExtentFile.h"
#include "tessel/VMDKFileReference.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <set>

namespace tessel::cli {

namespace fs = std::filesystem;

namespace {

constexpr const char* existsAlready = "The file exists already";

/// The same name with all links on the way followed, but for the last.
fs::path withRealFolder(const fs::path& path) {
    std::error_code error;
    const fs::path folder = followLinks(path.parent_path(), error);
    return error ? path : folder / path.filename();
}

class CPlanner {
public:
    CPlanner(IFileSystem* files, std::string name, std::string newName)
        : m_files(files), m_name(std::move(name)), m_newName(std::move(newName)) {}

    URenamePlan make() {
        m_plan.oldPath = withRealFolder(pathFromURI(uriFromName(m_name).toNormalized()));
        m_plan.newPath = withRealFolder(pathFromURI(uriFromName(m_newName).toNormalized()));
        if (isLink(m_plan.oldPath))
            throw CFailure(m_name, "It is a link; name the file that it leads to");
        m_plan.oldFiles = confine(m_files, m_name);
        m_plan.main = about(m_name, [&] { return readMainFile(m_plan.oldFiles.get(), uriFromName(m_name)); });
        verifyTarget();
        m_plan.newFiles = confine(m_files, m_newName);
        about(m_name, [&] { m_plan.descriptor = new CVMDKDescriptor(*m_plan.main.descriptor); });
        about(m_newName, [&] { renameExtents(); });
        about(m_name, [&] { moveParentReference(); });
        m_plan.isNewMainThere = findNewMain();
        const TArray<P<CVMDKExtentInfo>> extents = m_plan.main.getExtents();
        for (std::size_t i = 0; i < extents.size(); ++i)
            if (i > 0 || !m_plan.main.isEmbedded)
                addMove(*extents[i], i);
        return std::move(m_plan);
    }

private:
    fs::path oldFolder() const { return m_plan.oldPath.parent_path(); }
    fs::path newFolder() const { return m_plan.newPath.parent_path(); }
    std::string oldMainName() const { return nameFromPath(m_plan.oldPath.filename()); }
    std::string newMainName() const { return nameFromPath(m_plan.newPath.filename()); }

    void verifyTarget() const {
        std::error_code ignored;
        if (!m_plan.newPath.has_filename() || fs::is_directory(m_plan.newPath, ignored))
            throw CFailure(m_newName, "It is a folder; name the file that the disk shall be");
        if (!fs::is_directory(newFolder(), ignored))
            throw CFailure(m_newName, "There is no such folder: " + nameFromPath(newFolder()));
        if (uriFromPath(m_plan.newPath).toNormalized() !=
            vmdkFileReferenceToURI(uriFromPath(m_plan.newPath).getParent(), toReference(newMainName())))
            throw CFailure(m_newName, "A disk cannot have this name: its files would be read as others");
        for (const auto& extent : m_plan.main.getExtents())
            if (extent->getType() != "SPARSE")
                throw CFailure(m_name, "VMDK disk has an unsupported extent type: '" +
                                           extent->getType().toUTF8Lossy() + "'.");
    }

    static String toReference(const std::string& name) { return String::fromUTF8(name); }

    void renameExtents() {
        std::size_t index = 0;
        m_plan.descriptor->renameExtents([&](const CVMDKExtentInfo& extent) {
            if (extent.getSizeSectors() == 0)
                return extent.getFilename();
            const std::size_t i = index++;
            const bool isMain = i == 0 && m_plan.main.isEmbedded;
            return toReference(isMain ? newMainName() : makeExtentName(newMainName(), fileNameOf(extent), i));
        });
    }

    std::string fileNameOf(const CVMDKExtentInfo& extent) const {
        return m_plan.main.findExtent(extent).getName().toUTF8();
    }

    void moveParentReference() {
        CVMDKDescriptor& descriptor = *m_plan.descriptor;
        String reference;
        if (descriptor.getParentContentID() == noContentID || !descriptor.tryGetParentFileNameHint(reference))
            return;
        // As the user writes the names: links on the way to a folder are not followed when it is read.
        const auto lookUpFrom = [&](const std::string& name) {
            return vmdkFileReferenceToURI(uriFromName(name).toNormalized().getParent(), reference);
        };
        const CURI parent = lookUpFrom(m_name);
        if (lookUpFrom(m_newName) == parent)
            return;
        const std::string parentName = nameFromPath(pathFromURI(parent));
        descriptor.setParentFileNameHint(makeParentReference(m_newName, parentName));
        if (!m_plan.main.isEmbedded)
            return;
        m_plan.between = new CVMDKDescriptor(*m_plan.main.descriptor);
        m_plan.between->setParentFileNameHint(makeAbsoluteParentReference(m_name, parentName));
    }

    /// False when there is none. Throws: CFailure when the new name is something else's.
    bool findNewMain() const {
        if (m_plan.staysInPlace() || !somethingExists(m_plan.newPath))
            return false;
        bool isOurs = false;
        if (m_plan.main.isEmbedded) {
            isOurs = areNamesOfOneFile(m_plan.oldPath, m_plan.newPath);
        } else if (!isLink(m_plan.newPath)) {
            try {
                P<CVMDKDescriptor> wanted(new CVMDKDescriptor(*m_plan.descriptor));
                wanted->setEncodingUTF8();
                const UMainFile found = readMainFile(m_plan.newFiles.get(), uriFromPath(m_plan.newPath));
                isOurs = !found.isEmbedded && found.descriptor->toString() == wanted->toString();
            } catch (const CError&) { // NOLINT(bugprone-empty-catch): something else
            }
        }
        if (!isOurs)
            throw CFailure(m_newName, existsAlready);
        return true;
    }

    std::string findOwner(const fs::path& extent) const {
        std::vector<fs::path> own = {m_plan.oldPath};
        if (m_plan.isNewMainThere)
            own.push_back(m_plan.newPath);
        return findOtherOwner(m_plan.oldFiles.get(), extent, own);
    }

    /// What a descriptor names may be anything.
    void verifyIsExtent(const fs::path& path, std::size_t index) const {
        std::array<unsigned char, 4> bytes{};
        std::error_code ignored;
        bool isExtent = false;
        if (fs::is_regular_file(path, ignored)) {
            std::ifstream file(path, std::ios::binary);
            file.read(reinterpret_cast<char*>(bytes.data()), bytes.size());
            const auto magic = loadLittleEndian<uint32>(bytes.data());
            const bool mayBeHalfMade = index > 0 && m_plan.descriptor->getLumCreateExtentFilesOnDemand();
            isExtent = file && (magic == CVMDKSparseExtentHeader::magicNumber ||
                                magic == CVMDKSparseExtentHeader::magicNumberEncrypted);
            isExtent = isExtent || (mayBeHalfMade && about(m_name, [&] {
                                        return isHalfMadeVMDKSparseExtentFile(m_files, uriFromPath(path));
                                    }));
        }
        if (!isExtent)
            throw CFailure(m_name, "It names something that is no extent of a disk: " + nameFromPath(path));
    }

    void addMove(const CVMDKExtentInfo& extent, std::size_t index) {
        const CURI uri = m_plan.main.findExtent(extent);
        if (!isAllowedFor(m_name, uri))
            throw CFailure(m_name, "It has a file outside its folder, which --allow DIR lets it name: " +
                                       showPaths(uri.toString(true)));
        const std::string extentName = fileNameOf(extent);
        const fs::path recorded = withRealFolder(pathFromURI(uri));
        const fs::path named = oldFolder() / pathFromName(makeExtentName(oldMainName(), extentName, index));
        const fs::path target = newFolder() / pathFromName(makeExtentName(newMainName(), extentName, index));
        const bool isRecordedThere = somethingExists(recorded);
        const bool isNamedThere = named != recorded && somethingExists(named);
        if (isRecordedThere && isNamedThere && !areNamesOfOneFile(recorded, named))
            throw CFailure(m_name,
                           "It cannot be told which is a file of this disk: " + nameFromPath(recorded) +
                               ", which it names, or " + nameFromPath(named) + ", which is named after it");
        if (isRecordedThere && recorded != named && recorded != target) {
            const std::string owner = findOwner(recorded);
            if (!owner.empty())
                throw CFailure(m_name, "It names a file that is another disk's: " + nameFromPath(recorded) +
                                           " (disk: " + owner + ")");
        }
        if (!m_targets.insert(target).second)
            throw CFailure(m_name, "Two of its files would have the name " + nameFromPath(target));
        URenamePlan::UMove move{isNamedThere ? named : recorded, target, named, {}};
        if (!isRecordedThere && !isNamedThere) {
            const bool mayBeMissing = index > 0 && m_plan.descriptor->getLumCreateExtentFilesOnDemand();
            const bool wasMoved =
                m_plan.isNewMainThere ||
                (!mayBeMissing && extent.getFilename() == toReference(nameFromPath(target.filename())));
            if (wasMoved && somethingExists(target))
                move.from = target;
            else if (!mayBeMissing)
                throw CFailure(m_name, "A file of the disk is missing: " + nameFromPath(recorded));
            else if (somethingExists(target))
                throw CFailure(nameFromPath(target), existsAlready);
            else
                return;
        }
        if (move.from != target && somethingExists(target)) {
            if (!areNamesOfOneFile(move.from, target))
                throw CFailure(nameFromPath(target), existsAlready);
            move.obsolete.push_back(move.from);
            move.from = target;
        }
        if (move.from != target && isLink(move.from))
            throw CFailure(nameFromPath(move.from), "It is a link, which is given no other name");
        verifyIsExtent(move.from, index);
        for (const fs::path& other : {recorded, named})
            if (other != target && other != move.from && somethingExists(other) &&
                std::find(move.obsolete.begin(), move.obsolete.end(), other) == move.obsolete.end())
                move.obsolete.push_back(other);
        m_plan.moves.push_back(std::move(move));
    }

    IFileSystem* m_files;
    std::string m_name;
    std::string m_newName;
    URenamePlan m_plan;
    std::set<fs::path> m_targets;
};

} // namespace

URenamePlan makeRenamePlan(IFileSystem* files, const std::string& name, const std::string& newName) {
    return CPlanner(files, name, newName).make();
}

} // namespace tessel::cli
