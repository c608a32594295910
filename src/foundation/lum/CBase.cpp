#include "lum/CBase.h"

#include <new>

namespace lum {

void CBase::addRef() const noexcept {
    m_refCount.fetch_add(1, std::memory_order_relaxed);
}

void CBase::release() const noexcept {
    // What any holder did to the object happens before its destruction, in whichever thread that is.
    if (m_refCount.fetch_sub(1, std::memory_order_acq_rel) == 1)
        deleteThis();
}

void CBase::checkCastAllowed(const std::type_info&) const {}

void* CBase::operator new(std::size_t size) {
    return ::operator new(size);
}

void CBase::operator delete(void* memory) noexcept {
    ::operator delete(memory);
}

void CBase::deleteThis() const noexcept {
    delete this;
}

} // namespace lum
