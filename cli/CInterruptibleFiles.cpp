#include "CInterruptibleFiles.h"

#include "Errors.h"
#include "platform.h"

namespace tessel::cli {

void CInterruptibleFiles::stop() {
    m_isStopped = true;
    m_onOpen = {};
}

P<IIOStream> CInterruptibleFiles::openFile(const CURI& uri, IIOStream::Access access) {
    if (!m_isStopped && isInterrupted()) {
        stop();
        throw CInterrupted();
    }
    P<IIOStream> stream = m_files->openFile(uri, access);
    if (m_onOpen)
        m_onOpen();
    return stream;
}

} // namespace tessel::cli
