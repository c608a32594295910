// Each kind of damage, in the first and the last extent of each kind of disk.

#include "CheckFixture.h"

#include <set>

namespace tessel::test {

namespace {

/// What a spoiled extent must be told to have.
struct Expected {
    Finding::Kind kind;
    int64 table = -1;
    int64 grain = -1;
    bool isRepairable = false;
    Finding::Severity severity = Finding::Severity_Damage;
};

enum class In { All, Plain, Compressed };

struct Spoil {
    const char* name;
    In in;
    /// False where only the contents of grains tell.
    bool isQuick;
    std::function<Expected(CExtentBytes&)> change;
};

constexpr uint32 farSector = 0x40000000;

const std::vector<Spoil>& spoils() {
    using F = Finding;
    using E = CExtentBytes;
    static const std::vector<Spoil> rows = {
        {"an entry is lost", In::All, true,
         [](E& e) {
             e.put32(e.entry(513), 0);
             return Expected{F::Kind_TablesDiffer, 1, 513, true};
         }},
        {"an entry is garbage", In::All, true,
         [](E& e) {
             e.put32(e.entry(2), farSector);
             return Expected{F::Kind_TablesDiffer, 0, 2, true};
         }},
        {"a garbage entry is named for its grain as well", In::All, true,
         [](E& e) {
             e.put32(e.entry(2), farSector);
             return Expected{F::Kind_EntryBehindEnd, 0, 2};
         }},
        {"an entry is another grain's", In::All, true,
         [](E& e) {
             e.put32(e.entry(514), e.get32(e.entry(0)));
             return Expected{F::Kind_TablesDiffer, 1, 514, true};
         }},
        {"a table is zeros", In::All, true,
         [](E& e) {
             e.bytes.replace(static_cast<std::size_t>(e.entry(0)), 2048, 2048, '\0');
             return Expected{F::Kind_TablesDiffer, 0, 0, true};
         }},
        {"an entry of the redundant table is lost", In::All, true,
         [](E& e) {
             e.put32(e.redundantEntry(5), 0);
             return Expected{F::Kind_TablesDiffer, 0, 5};
         }},
        {"an entry of the redundant table is garbage", In::All, true,
         [](E& e) {
             e.put32(e.redundantEntry(512), 1);
             return Expected{F::Kind_TablesDiffer, 1, 512};
         }},
        {"both copies of an entry are garbage, but not the same", In::All, true,
         [](E& e) {
             e.put32(e.entry(1), farSector);
             e.put32(e.redundantEntry(1), farSector + 128);
             return Expected{F::Kind_TablesDiffer, 0, 1};
         }},
        {"the directory lost a table", In::All, true,
         [](E& e) {
             e.put32(e.directoryEntry(0), 0);
             return Expected{F::Kind_DirectoriesDiffer, 0, -1, true};
         }},
        {"the redundant directory lost a table", In::All, true,
         [](E& e) {
             e.put32(e.redundantDirectoryEntry(1), 0);
             return Expected{F::Kind_DirectoriesDiffer, 1};
         }},
        {"the directory leads behind the end", In::All, true,
         [](E& e) {
             e.put32(e.directoryEntry(1), farSector);
             return Expected{F::Kind_TablePositionInvalid, 1, -1, true};
         }},
        {"the redundant directory leads behind the end", In::All, true,
         [](E& e) {
             e.put32(e.redundantDirectoryEntry(1), farSector);
             return Expected{F::Kind_TablePositionInvalid, 1};
         }},
        {"the directory leads to itself", In::All, true,
         [](E& e) {
             e.put32(e.directoryEntry(0), static_cast<uint32>(e.get64(56)));
             return Expected{F::Kind_TablePositionInvalid, 0, -1, true};
         }},
        {"the directory leads to one table twice", In::All, true,
         [](E& e) {
             e.put32(e.directoryEntry(1), e.get32(e.directoryEntry(0)));
             return Expected{F::Kind_TablePositionInvalid, 1, -1, true};
         }},
        {"a slot is behind the end", In::All, true,
         [](E& e) {
             e.putBothEntries(513, farSector);
             return Expected{F::Kind_EntryBehindEnd, 1, 513};
         }},
        {"a slot begins in the file and ends behind it", In::All, true,
         [](E& e) {
             const auto last = static_cast<uint32>(e.size() / 512 - 1);
             e.putBothEntries(2, last / 128 * 128 == last ? last + 128 : last);
             return Expected{F::Kind_EntryBehindEnd, 0, 2};
         }},
        {"a slot is in the header", In::All, true,
         [](E& e) {
             e.putBothEntries(0, 1);
             return Expected{F::Kind_EntryInMetadata, 0, 0};
         }},
        {"a slot is in a table", In::All, true,
         [](E& e) {
             e.putBothEntries(0, e.get32(e.directoryEntry(1)));
             return Expected{F::Kind_EntryInMetadata, 0, 0};
         }},
        {"a slot is not aligned", In::Plain, true,
         [](E& e) {
             e.putBothEntries(0, e.get32(e.entry(0)) + 1);
             return Expected{F::Kind_EntryMisaligned, 0, 0};
         }},
        {"two grains of one table have one slot", In::All, true,
         [](E& e) {
             e.putBothEntries(5, e.get32(e.entry(1)));
             return Expected{F::Kind_SlotShared, 0, 5};
         }},
        {"two grains of two tables have one slot", In::All, true,
         [](E& e) {
             e.putBothEntries(512, e.get32(e.entry(1)));
             return Expected{F::Kind_SlotShared, 1, 512};
         }},
        {"a slot begins in another", In::Compressed, true,
         [](E& e) {
             e.putBothEntries(5, e.get32(e.entry(0)) + 1);
             return Expected{F::Kind_SlotsOverlap, 0, 5};
         }},
        {"a slot is too long", In::Compressed, true,
         [](E& e) {
             e.put16(e.slotSize(1), static_cast<uint16>(e.get16(e.slotSize(1)) + 1));
             return Expected{F::Kind_SlotsOverlap, 0, 2};
         }},
        {"the last slot reaches into the trail", In::Compressed, true,
         [](E& e) {
             e.put32(e.entry(514), static_cast<uint32>(e.trail() / 512));
             e.put32(e.redundantEntry(514), static_cast<uint32>(e.trail() / 512));
             e.put16(e.slotSize(514), 1);
             return Expected{F::Kind_EntryInMetadata, 1, 514};
         }},
        {"a slot size is 0", In::Compressed, true,
         [](E& e) {
             e.put16(e.slotSize(514), 0);
             return Expected{F::Kind_SlotSizeInvalid, 1, 514};
         }},
        {"a slot size is more than any record", In::Compressed, true,
         [](E& e) {
             e.put16(e.slotSize(0), 0xFFFF);
             return Expected{F::Kind_SlotSizeInvalid, 0, 0};
         }},
        {"a slot size is too small", In::Compressed, false,
         [](E& e) {
             e.put16(e.slotSize(0), static_cast<uint16>(e.get16(e.slotSize(0)) / 2));
             return Expected{F::Kind_RecordTooLong, 0, 0};
         }},
        {"a slot size without slot", In::Compressed, true,
         [](E& e) {
             e.put16(e.slotSize(7), 3);
             return Expected{F::Kind_SlotSizeWithoutSlot, 0, 7, false, F::Severity_Information};
         }},
        {"both copies of an entry are lost", In::Compressed, true,
         [](E& e) {
             e.putBothEntries(512, 0);
             return Expected{F::Kind_SlotSizeWithoutSlot, 1, 512, false, F::Severity_Information};
         }},
        {"no directory has a table", In::Compressed, true,
         [](E& e) {
             e.put32(e.directoryEntry(0), 0);
             e.put32(e.redundantDirectoryEntry(0), 0);
             return Expected{F::Kind_TablePositionInvalid, 0};
         }},
        {"the slot size directory lost a table", In::Compressed, true,
         [](E& e) {
             e.put32(e.slotSizeDirectoryEntry(0), 0);
             return Expected{F::Kind_TablePositionInvalid, 0};
         }},
        {"the slot size directory leads behind the end", In::Compressed, true,
         [](E& e) {
             e.put32(e.slotSizeDirectoryEntry(1), farSector);
             return Expected{F::Kind_TablePositionInvalid, 1};
         }},
        {"the slot size directory leads to a grain table", In::Compressed, true,
         [](E& e) {
             e.put32(e.slotSizeDirectoryEntry(0), e.get32(e.directoryEntry(0)));
             return Expected{F::Kind_TablePositionInvalid, 0};
         }},
        {"the slot size directory's marker is damaged", In::Compressed, true,
         [](E& e) {
             e.flip(e.slotSizeDirectoryMarker() + 12);
             return Expected{F::Kind_SlotSizesMissing};
         }},
        {"the slot size directory's marker has another size", In::Compressed, true,
         [](E& e) {
             e.put64(e.slotSizeDirectoryMarker(), 2);
             return Expected{F::Kind_SlotSizesMissing};
         }},
        {"a record is another grain's", In::Compressed, false,
         [](E& e) {
             e.put64(e.slot(1), e.get64(e.slot(2)));
             return Expected{F::Kind_RecordOfOtherGrain, 0, 1};
         }},
        {"two grains have each other's slots", In::Compressed, false,
         [](E& e) {
             const uint32 first = e.get32(e.entry(0));
             const uint16 size = e.get16(e.slotSize(0));
             e.putBothEntries(0, e.get32(e.entry(514)));
             e.put16(e.slotSize(0), e.get16(e.slotSize(514)));
             e.putBothEntries(514, first);
             e.put16(e.slotSize(514), size);
             return Expected{F::Kind_RecordOfOtherGrain, 1, 514};
         }},
        {"a record is longer than its slot", In::Compressed, false,
         [](E& e) {
             e.put32(e.slot(1) + 8, static_cast<uint32>(e.get16(e.slotSize(1)) * 512));
             return Expected{F::Kind_RecordTooLong, 0, 1};
         }},
        {"a record has 4 GiB", In::Compressed, false,
         [](E& e) {
             e.put32(e.slot(513) + 8, 0xFFFFFFFF);
             return Expected{F::Kind_RecordTooLong, 1, 513};
         }},
        {"a record is empty", In::Compressed, false,
         [](E& e) {
             e.put32(e.slot(5) + 8, 0);
             return Expected{F::Kind_RecordDamaged, 0, 5};
         }},
        {"a record is cut short", In::Compressed, false,
         [](E& e) {
             e.put32(e.slot(5) + 8, e.get32(e.slot(5) + 8) - 16);
             return Expected{F::Kind_RecordDamaged, 0, 5};
         }},
        {"a byte of the data has changed", In::Compressed, false,
         [](E& e) {
             e.flip(e.slot(514) + 1000);
             return Expected{F::Kind_RecordDamaged, 1, 514};
         }},
        {"the footer differs", In::Compressed, true,
         [](E& e) {
             e.flip(e.trail() + 512 + 64);
             return Expected{F::Kind_TrailDiffers};
         }},
        {"the footer's marker is damaged", In::Compressed, true,
         [](E& e) {
             e.flip(e.trail() + 12);
             return Expected{F::Kind_TrailDiffers};
         }},
        {"the end of the stream is not marked", In::Compressed, true,
         [](E& e) {
             e.flip(e.trail() + 1024 + 12);
             return Expected{F::Kind_TrailDiffers};
         }},
        {"the trail is cut off", In::Compressed, true,
         [](E& e) {
             e.bytes.resize(e.bytes.size() - 1536);
             return Expected{F::Kind_TrailDiffers};
         }},
        {"a grain was appended and not flushed", In::Compressed, true,
         [](E& e) {
             e.put64(e.trail(), e.get64(e.slot(2)));
             e.put32(e.trail() + 8, 40);
             return Expected{F::Kind_WriteInterrupted, -1, -1, false, F::Severity_Information};
         }},
        {"the header's capacity has changed", In::Compressed, true,
         [](E& e) {
             e.put64(12, e.get64(12) + 128);
             return Expected{F::Kind_TrailDiffers};
         }},
        {"the header's magic number is damaged", In::Compressed, true,
         [](E& e) {
             e.put32(0, 0x12345678);
             return Expected{F::Kind_HeaderInvalid};
         }},
        {"the header's grain directory is nowhere", In::Compressed, true,
         [](E& e) {
             e.put64(56, 0xFFFFFFFFFFFFFFFF);
             return Expected{F::Kind_HeaderInvalid};
         }},
        {"the header's grain directory is behind the end", In::All, true,
         [](E& e) {
             e.put64(56, farSector);
             return Expected{F::Kind_HeaderInvalid};
         }},
        {"the header's redundant grain directory is the other one", In::All, true,
         [](E& e) {
             e.put64(48, e.get64(56));
             return Expected{F::Kind_HeaderInvalid};
         }},
        {"the header's capacity cannot be", In::All, true,
         [](E& e) {
             e.put64(12, uint64{1} << 53);
             return Expected{F::Kind_HeaderInvalid};
         }},
        {"the header's grain size cannot be", In::All, true,
         [](E& e) {
             e.put64(20, 0);
             return Expected{F::Kind_HeaderInvalid};
         }},
        {"the header's overhead is behind the end", In::All, true,
         [](E& e) {
             e.put64(64, farSector);
             return Expected{F::Kind_HeaderInvalid};
         }},
        {"the header's line ends are altered", In::All, true,
         [](E& e) {
             e.put32(73, 0x0A0A200A);
             return Expected{F::Kind_HeaderInvalid};
         }},
        {"the header has a smaller capacity than the extent", In::All, true,
         [](E& e) {
             e.put64(12, e.get64(12) - 128);
             return Expected{F::Kind_ExtentMismatch};
         }},
    };
    return rows;
}

void PrintTo(const Expected& expected, std::ostream* out) {
    *out << getVMDKCheckKindName(expected.kind) << " severity " << expected.severity << " table "
         << expected.table << " grain " << expected.grain << (expected.isRepairable ? " repairable" : "");
}

MATCHER_P3(Tells, expected, uri, extentIndex, "") {
    const Expected& wanted = expected;
    return std::any_of(arg.begin(), arg.end(), [&, this](const Finding& finding) {
        return finding.kind == wanted.kind && finding.severity == wanted.severity && finding.uri == uri &&
               finding.extentIndex == extentIndex && finding.tableIndex == wanted.table &&
               (wanted.grain < 0 || finding.grainIndex == wanted.grain) &&
               finding.isRepairable == wanted.isRepairable && !finding.message.isEmpty();
    });
}

} // namespace

class CVMDKDiskCheckerDamageTest : public CheckTest, public ::testing::WithParamInterface<CheckedKind> {
protected:
    /// A header or descriptor that cannot be read leaves nothing to be checked.
    static bool isBeyondCheck(const Spoil& row, const CheckedKind& kind, std::size_t extent) {
        const bool isMain = extent == 0 && (!kind.isSplit || kind.isCompressed);
        return isMain && !kind.isCompressed && std::string(row.name) == "the header's line ends are altered";
    }
};

TEST_P(CVMDKDiskCheckerDamageTest, IsFoundWhateverItIs) {
    const CheckedKind& kind = GetParam();
    makeDisk(kind);
    const std::vector<String> names = extentNames();
    ASSERT_EQ(names.size() > 1, kind.isSplit);
    int tried = 0;
    for (const std::size_t index : std::set<std::size_t>{0, names.size() - 1}) {
        const std::string whole = getFile(names[index]);
        for (const Spoil& row : spoils()) {
            if ((row.in == In::Plain && kind.isCompressed) ||
                (row.in == In::Compressed && !kind.isCompressed) || isBeyondCheck(row, kind, index))
                continue;
            SCOPED_TRACE(std::string(row.name) + " in extent " + std::to_string(index));
            Expected expected{};
            spoil(names[index], [&](CExtentBytes& extent) { expected = row.change(extent); });
            const auto found = Tells(expected, uri(names[index]), static_cast<int64>(index));
            EXPECT_THAT(check(kind.password), found);
            if (row.isQuick) {
                EXPECT_THAT(quickCheck(), found);
            } else {
                EXPECT_THAT(withoutDeadSpace(quickCheck()), ::testing::IsEmpty());
            }
            putFile(names[index], whole);
            ++tried;
        }
    }
    EXPECT_GE(tried, 25);
    EXPECT_THAT(check(kind.password), ::testing::IsEmpty()) << "the disk should be whole again";
}

INSTANTIATE_TEST_SUITE_P(Kinds, CVMDKDiskCheckerDamageTest, ::testing::ValuesIn(checkedKinds()),
                         [](const auto& kind) {
                             std::string name = kind.param.name;
                             std::erase_if(name, [](char c) { return c == ',' || c == ' '; });
                             return name;
                         });

} // namespace tessel::test
