#pragma once

#include "lum/CURI.h"
#include "tessel/types.h"

namespace tessel {

/// Something that CVMDKDiskChecker found.
struct UVMDKCheckFinding {
    /// How grave a finding is.
    enum Severity {
        Severity_Information, ///< worth knowing; nothing is lost and nothing is wrong
        Severity_Unchecked,   ///< what stands here could not be looked at
        Severity_Damage,      ///< the disk is not as it must be
    };

    /// What a finding is about; see getVMDKCheckKindName().
    enum Kind {
        Kind_MainFileUnused,       ///< a main file whose embedded descriptor names another first extent
        Kind_ExtentMissing,        ///< an extent's file is not there
        Kind_ExtentMismatch,       ///< an extent does not fit the disk: its size, kind or key
        Kind_HeaderInvalid,        ///< a header that cannot be used
        Kind_TrailDiffers,         ///< a footer or trail that differs from the header
        Kind_WriteInterrupted,     ///< grains behind the last flush: a writer ended without one
        Kind_SlotSizesMissing,     ///< a compressed extent whose slot size directory cannot be found
        Kind_DirectoriesDiffer,    ///< only one of the two grain directories has the table
        Kind_TablePositionInvalid, ///< a directory's entry that names no place of a table
        Kind_TablesDiffer,         ///< the two copies of a grain table
        Kind_EntryBehindEnd,       ///< a slot that does not lie in the file as a whole
        Kind_EntryInMetadata,      ///< a slot that reaches into what is no grain
        Kind_EntryMisaligned,      ///< a slot of a plain extent that begins between two
        Kind_SlotShared,           ///< a slot that another grain has as well
        Kind_SlotsOverlap,         ///< a slot that reaches into another
        Kind_SlotSizeInvalid,      ///< a slot size that cannot be that of the grain table's slot
        Kind_SlotSizeWithoutSlot,  ///< a slot size where the grain table has no slot
        Kind_RecordOfOtherGrain,   ///< a record whose sector number is another grain's
        Kind_RecordTooLong,        ///< a stored size that does not fit the slot
        Kind_RecordDamaged,        ///< data that do not inflate
        Kind_RecordSizeWrong,      ///< data that inflate to fewer or more bytes than a grain
        Kind_DeadSpace,            ///< places in the file that nothing uses any more
        Kind_ParentMissing,        ///< a parent that is not there or is no disk
        Kind_ParentChainInvalid,   ///< a chain of parents that comes back to itself or is too deep
        Kind_ContentIDMismatch,    ///< a parent that is not what its child was made from
        Kind_Unreadable,           ///< bytes that the system refuses to read
        Kind_NotSupported,         ///< a variant of the format that the library does not open
    };

    /// What was found.
    Kind kind = Kind_HeaderInvalid;
    /// How grave it is.
    Severity severity = Severity_Damage;
    /// The file that the finding is about.
    CURI uri;
    /// Index of the extent in the disk, extents of no size left out; -1 for what belongs to none.
    int64 extentIndex = -1;
    /// Index of the grain table in the extent, or -1.
    int64 tableIndex = -1;
    /// Index of the grain in the extent, or -1. Where it is a table's finding: the first grain concerned.
    int64 grainIndex = -1;
    /// Byte of the file, or -1: where the slot begins, where the entry of the table or directory stands,
    /// where the trail differs.
    int64 position = -1;
    /// Byte of the disk where the grain begins, or -1.
    int64 diskPosition = -1;
    /// True when the grain table in use is damaged, or out of reach, and the redundant one is whole.
    bool isRepairable = false;
    /// For people: what is wrong, with the numbers concerned, as a part of a sentence. The names of other
    /// files in it are URIs as errors have them. Its wording may change.
    String message;
};

/// The kind's name for programs, "entryBehindEnd" for example. Stable.
TESSEL_EXPORT const char* getVMDKCheckKindName(UVMDKCheckFinding::Kind kind) noexcept;

} // namespace tessel
