#include "ErrorNumbers.h"

#include "lum/CFileSystemError.h"
#include "lum/CIOError.h"
#include "tessel/types.h"

#include <cerrno>
#include <new>

namespace tessel::nbdkit {

namespace {

int numberOf(const CError& error) noexcept {
    if (const auto* const io = dynamic_cast<const CIOError*>(&error))
        return io->getCode() == CIOError::Code_NoSpace ? ENOSPC : EIO;
    const auto* const file = dynamic_cast<const CFileSystemError*>(&error);
    if (!file)
        return EIO;
    switch (file->getProblem()) {
    case CFileSystemError::Problem_NoSpace:
        return ENOSPC;
    case CFileSystemError::Problem_AccessDenied:
    case CFileSystemError::Problem_ReadOnlyMedium:
        return EPERM;
    default:
        return EIO;
    }
}

} // namespace

int errorNumberOf(const std::exception& error) noexcept {
    if (dynamic_cast<const std::bad_alloc*>(&error))
        return ENOMEM;
    for (const auto* it = dynamic_cast<const CError*>(&error); it; it = it->getCause()) {
        const int number = numberOf(*it);
        if (number != EIO)
            return number;
    }
    return EIO;
}

} // namespace tessel::nbdkit
