#include "tessel/CVMDKContentIDUpdater.h"

#include "tessel/CVMDKDescriptorAccessor.h"
#include "tessel/CVMDKSparseExtentFile.h" // the one look upwards: the extent that is about to change lends its stream
#include "tessel/VMDKFileReference.h"

namespace tessel {

CVMDKContentIDUpdater::CVMDKContentIDUpdater(IFileSystem* fileSystem, const CURI& mainFileURI,
                                             CVMDKDescriptor* descriptor)
    : m_fileSystem(fileSystem), m_mainFileURI(mainFileURI.toNormalized()), m_descriptor(descriptor) {}

void CVMDKContentIDUpdater::onDiskAboutToChange(CVMDKSparseExtentFile& extentFile) {
    if (m_contentIDChanged || !m_updatesEnabled)
        return;
    const bool isMainFile = extentFile.getURI().toNormalized() == m_mainFileURI;
    const P<IIOStream> stream = isMainFile ? extentFile.getStream()
                                           : openExistingVMDKFileStream(m_fileSystem.get(), m_mainFileURI,
                                                                        IIOStream::Access_ReadWrite);
    const P<CVMDKDescriptorAccessor> accessor(
        new CVMDKDescriptorAccessor(stream.get(), IIOStream::Access_ReadWrite));
    const unsigned int newID = accessor->changeContentID();
    accessor->storeDescriptor(true);
    m_descriptor->setContentID(newID);
    m_contentIDChanged = true;
}

} // namespace tessel
