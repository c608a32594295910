#pragma once

namespace tessel {

/// So many bytes of a file's beginning tell what it is.
constexpr int diskSignatureSize = 512;

/// Whether the first bytes of a file are those of a VMDK: a sparse extent or a text descriptor.
bool beginsLikeVMDK(const unsigned char* bytes, int count);

/// Whether a file that begins so is neither a sparse extent nor text, which a descriptor is: a raw image,
/// say.
bool isSurelyNoVMDK(const unsigned char* bytes, int count);

} // namespace tessel
