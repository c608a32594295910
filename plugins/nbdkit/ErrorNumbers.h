#pragma once

#include <exception>

namespace tessel::nbdkit {

/// The errno by which a client is told of an error: ENOSPC, EPERM, ENOMEM, or EIO for all that the protocol
/// has no number of its own for. Causes count.
int errorNumberOf(const std::exception& error) noexcept;

} // namespace tessel::nbdkit
