#pragma once

#include "lum/CError.h"

namespace lum {

/// A failure of input or output, or data that are not what they must be. The numbers are stable.
class TESSEL_EXPORT CIOError : public CError {
public:
    /// What getCode() gives.
    enum Code {
        Code_ReadFailed = 1,          ///< the system refused to read
        Code_WriteFailed = 2,         ///< the system refused to write, flush or change a length
        Code_WriteBeyondEnd = 3,      ///< write, or prepared-grain access, beyond a disk's or extent's size
        Code_UnexpectedEnd = 4,       ///< unexpected end of data; read beyond a disk's size
        Code_BadFormat = 5,           ///< corrupt, unsupported or incompatible data on disk
        Code_UnsupportedVersion = 6,  ///< unsupported version of a header
        Code_BadSeek = 7,             ///< bad seek position
        Code_NoSpace = 8,             ///< the medium is full, or a limit on a file's size was met
        Code_Closed = 10,             ///< stream used after close
        Code_NotOnGrainBoundary = 11, ///< prepared-grain access off a grain boundary
        Code_LengthNotSettable = 13,  ///< the length of this stream cannot be set
    };

    /// `cause` is copied and may be null.
    explicit CIOError(Code code, const String& message = String(), const CProps& props = CProps(),
                      const CError* cause = nullptr);
    ~CIOError() override;

    const char* getClassName() const noexcept override;
    std::unique_ptr<CError> clone() const override;
    [[noreturn]] void rethrow() const override;
};

} // namespace lum
