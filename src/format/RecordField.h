#pragma once

namespace tessel {

/// One field of an on-disk record: where it begins and how wide it is, in bytes.
struct URecordField {
    int offset;
    int width;

    constexpr int end() const noexcept { return offset + width; }
};

/// True when each field begins where the one before it ends, from byte 0 to `size`.
template <class... Fields>
constexpr bool fieldsCover(int size, Fields... fields) noexcept {
    int end = 0;
    bool touching = true;
    ((touching = touching && fields.offset == end, end = fields.end()), ...);
    return touching && end == size;
}

} // namespace tessel
