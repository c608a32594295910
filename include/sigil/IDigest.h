#pragma once

#include "lum/IBase.h"
#include "lum/export.h"

namespace sigil {

/// A digest in the making: feed bytes, finish, take the result.
class TESSEL_EXPORT IDigest : public virtual lum::IBase {
public:
    /// Adds bytes. Throws: lum::CError after finish().
    virtual void update(const void* data, int size) = 0;
    /// Ends the message; a second call does nothing.
    virtual void finish() = 0;
    /// Size of the result in bytes.
    virtual int getSizeBytes() const = 0;
    /// The result. Throws: lum::CError before finish().
    virtual const unsigned char* getBytes() const = 0;
};

} // namespace sigil
