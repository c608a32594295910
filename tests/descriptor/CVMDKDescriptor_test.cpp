#include "tessel/CVMDKDescriptor.h"

#include "DescriptorText.h"
#include "ErrorMatchers.h"

#include <gmock/gmock.h>

namespace tessel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Shows the entries that stand behind the settings.
class COpenDescriptor : public CVMDKDescriptor {
public:
    using CVMDKDescriptor::CVMDKDescriptor;
    using CVMDKDescriptor::findValueEntry;
};

/// What kind of line it is, and what of it is looked at, as text.
std::string describeLine(std::string_view line) {
    const P<COpenDescriptor> descriptor(new COpenDescriptor(bytesOf(line)));
    TArray<P<CVMDKExtentInfo>> extents;
    descriptor->getExtentEntries(extents);
    if (!extents.empty())
        return "extent " + extents[0]->getFilename().toUTF8();
    TArray<String> lines;
    descriptor->getGenericLines(lines);
    if (!lines.empty())
        return "line " + lines[0].toUTF8();
    const std::string text = textOf(*descriptor);
    for (int equalsSign = 0; (equalsSign = String(text.c_str()).Find(L'=', equalsSign)) > 0; ++equalsSign) {
        const String name = String(text.c_str()).Left(equalsSign).trimmed();
        if (const auto entry = descriptor->findValueEntry(name))
            return "setting " + entry->getName().toUTF8() + " is " + (entry->getQuoted() ? "quoted " : "") +
                   entry->getValue().toUTF8();
    }
    return "nothing";
}

String valueOf(const CVMDKDescriptor& descriptor, const String& name) {
    String value = "left over";
    return descriptor.tryGetValue(name, value) ? "found " + value : "none" + value;
}

TArray<String> extentNamesOf(const CVMDKDescriptor& descriptor) {
    TArray<P<CVMDKExtentInfo>> extents;
    descriptor.getExtentEntries(extents);
    TArray<String> names;
    for (const auto& extent : extents)
        names.push_back(extent->getFilename());
    return names;
}

P<CVMDKExtentInfo> makeExtent(const String& name) {
    return new CVMDKExtentInfo("RW", 8, "SPARSE", name, -1);
}

} // namespace

// --- Parsing ---

TEST(CVMDKDescriptor, TellsLinesApart) {
    const struct {
        const char* line;
        const char* expected;
    } rows[] = {
        {"a=1", "setting a is 1"},
        {"  a  =  1  ", "setting a is 1"},
        {"\ta\t=\t1\t\r", "setting a is 1"},
        {"a=", "setting a is "},
        {"a=b=c", "setting a is b=c"},
        {"a=\"b\"", "setting a is quoted b"},
        {"a = \" b \" ", "setting a is quoted  b "},
        {"a=\"\"", "setting a is quoted "},
        {"a=\"", "setting a is quoted "},
        {"a=\"\"\"", "setting a is quoted \""},
        {"a=\"b\" c", "setting a is \"b\" c"},
        {"a=\"b", "setting a is \"b"},
        {"a=b\"", "setting a is b\""},
        {"a\tb=1", "setting a\tb is 1"},
        {"a#=1", "setting a# is 1"},
        {"# a=1", "line # a=1"},
        {"#a=1", "line #a=1"},
        {"#RW 8 SPARSE \"a.vmdk\"", "line #RW 8 SPARSE \"a.vmdk\""},
        {"  # a=1", "line   # a=1"},
        {"  #a=1", "setting #a is 1"},
        {"=1", "line =1"},
        {"  =1", "line   =1"},
        {"a b=1", "line a b=1"},
        {"no sign", "line no sign"},
        {"no sign\r", "line no sign\r"},
        {"RW 8 SPARSE \"a.vmdk\"", "extent a.vmdk"},
        {"RW 8 SPARSE \"a=b.vmdk\"", "extent a=b.vmdk"},
        {"RW 8 SPARSE \"a.vmdk\" a=b", "extent a.vmdk"},
        {"RW 2048 ZERO", "line RW 2048 ZERO"},
        {"RW 8 FLAT a.vmdk 0", "line RW 8 FLAT a.vmdk 0"},
        {"RW=8 SPARSE \"a.vmdk\"", "setting RW is 8 SPARSE \"a.vmdk\""},
        {"", "nothing"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(describeLine(row.line), row.expected) << row.line;
}

TEST(CVMDKDescriptor, TextSurvivesARoundTrip) {
    for (const char* const text : {
             "",
             "a=1\n",
             "\n",
             "\n\n",
             "\n\n\n",
             "a=1\n\n",
             "# only a comment\n",
             usualText,
             "Any Text\n\twith  odd \tblanks \n",
             "#CRLF comment\r\nno setting\r\n\r\n",
             "a=1\na=2\n",
             "A.b_c-d=1\n",
             "ddb.x = 1\nddb.x = \"1\"\n",
             "Ddb.x=1\n",
             " leading blank is no setting\n",
             "\xEF\xBB\xBF# byte order mark\n",
             "name=\"\xC3\xA4\xE4\xB8\xAD\xF0\x9F\x98\x80\"\n",
         })
        EXPECT_EQ(roundTrip(text), text);
}

// Also halves of characters, where a wide character is a half.
TEST(CVMDKDescriptor, AnyWideTextComesBackAsItWas) {
    const P<COpenDescriptor> descriptor(new COpenDescriptor(bytesOf("name=value\n")));
    for (const wchar_t* const text : {L"\x00E4\x4E2D", L"\U0001F600 \U0010FFFF", L"\xD83D", L"a\xDE00\xD83D",
                                      L"\xD83D\xDE00", L"\xFFFF"}) {
        descriptor->setValue("name", text, false, false);
        EXPECT_EQ(descriptor->getValue("name"), String(text));
    }
}

TEST(CVMDKDescriptor, RoundTripBringsSettingsAndExtentsIntoTheirForm) {
    const struct {
        const char* text;
        const char* expected;
    } rows[] = {
        {"a=1", "a=1\n"},
        {"# no line feed at the end", "# no line feed at the end\n"},
        {"\na=1", "\na=1\n"},
        {"# c\r\na=1\r\nRW  8 SPARSE \"x\"\r\nodd line\r\n\r\n",
         "# c\r\na=1\nRW 8 SPARSE \"x\"\nodd line\r\n\r\n"},
        {"a = \"1\"\n", "a=\"1\"\n"},
        {"ddb.a=1\nddb.b=\"1\"\n", "ddb.a = 1\nddb.b = \"1\"\n"},
        {"a=\"\n", "a=\"\"\n"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(roundTrip(row.text), row.expected) << row.text;
        EXPECT_EQ(roundTrip(row.expected), row.expected) << row.text;
    }
}

TEST(CVMDKDescriptor, ExtentLineWithoutAccessMayComeBackAsASettingAndIsSettledThen) {
    const char* const text = " = =type \"a.vmdk\" 0\n";
    const char* const written = " 0 =type \"a.vmdk\" 0\n";
    const char* const settled = "0=type \"a.vmdk\" 0\n";
    EXPECT_EQ(roundTrip(text), written);
    EXPECT_EQ(roundTrip(written), settled);
    EXPECT_EQ(roundTrip(settled), settled);
}

TEST(CVMDKDescriptor, BlankLinesAreKeptAllButTheOneBehindTheLastLineFeed) {
    const auto linesOf = [](const char* text) {
        TArray<String> lines;
        parseDescriptor(text)->getGenericLines(lines);
        return lines;
    };
    EXPECT_THAT(linesOf(""), IsEmpty());
    EXPECT_THAT(linesOf("\n"), ElementsAre(""));
    EXPECT_THAT(linesOf("\n\n"), ElementsAre("", ""));
    EXPECT_THAT(linesOf("\n\n#"), ElementsAre("", "", "#"));
    EXPECT_THAT(linesOf("\n \n"), ElementsAre("", " "));
    EXPECT_THAT(linesOf("\r\n\r\n"), ElementsAre("\r", "\r"));
}

TEST(CVMDKDescriptor, SettingLinesAreThoseThatReadAsSettings) {
    TArray<String> lines = {"kept"};
    parseDescriptor("# a=b\nversion=1\nRW\t2048\tSPARSE\t\"a=b.vmdk\"\nRW 256 SPARSE \"c=d.vmdk\"\n"
                    "createType=\"x\"\nno setting\nddb.a = \"b\"\n")
        ->getSettingLines(lines);
    EXPECT_THAT(lines, ElementsAre("kept", "version=1", "RW\t2048\tSPARSE\t\"a=b.vmdk\"", "createType=\"x\"",
                                   "ddb.a = \"b\""));
    lines.clear();
    CVMDKDescriptor().getSettingLines(lines);
    EXPECT_THAT(lines, IsEmpty());
}

TEST(CVMDKDescriptor, NewDescriptorHasNoLines) {
    EXPECT_EQ(textOf(CVMDKDescriptor()), "");
}

// --- Lookup ---

TEST(CVMDKDescriptor, NamesAreFoundInAnyCaseAndValuesKeepTheirs) {
    const P<CVMDKDescriptor> descriptor = parseDescriptor("CreateType=\"monolithicSparse\"\nM\xC3\x84RZ=x\n");
    EXPECT_EQ(descriptor->getValue("createtype"), "monolithicSparse");
    EXPECT_EQ(descriptor->getValue("CREATETYPE"), "monolithicSparse");
    EXPECT_EQ(descriptor->getValue(L"m\x00E4rz"), "x");
    EXPECT_TRUE(descriptor->hasValue("cReAtEtYpE"));
    EXPECT_FALSE(descriptor->hasValue("createTyp"));
}

TEST(CVMDKDescriptor, FirstOfSeveralEntriesCounts) {
    const P<CVMDKDescriptor> descriptor = parseDescriptor("a=1\nA=2\n");
    EXPECT_EQ(descriptor->getValue("A"), "1");
    descriptor->setValue("A", "3", true, true);
    EXPECT_EQ(textOf(*descriptor), "a=3\nA=2\n");
}

TEST(CVMDKDescriptor, MissingSettingIsEmptyOrAnError) {
    const P<CVMDKDescriptor> descriptor = parseDescriptor("# a=1\na b=2\nempty=\n");
    EXPECT_EQ(valueOf(*descriptor, "a"), "none");
    EXPECT_EQ(valueOf(*descriptor, "a b"), "none");
    EXPECT_EQ(valueOf(*descriptor, "empty"), "found ");
    EXPECT_LUM_ERROR(descriptor->getValue("a"), CError, -1, "VMDK descriptor value 'a' not found.");
    EXPECT_LUM_ERROR(descriptor->getValue(""), CError, -1, "VMDK descriptor value '' not found.");
    EXPECT_EQ(textOf(*descriptor), "# a=1\na b=2\nempty=\n");
}

// --- Changing ---

TEST(CVMDKDescriptor, ChangedSettingKeepsSpellingQuotesAndPlace) {
    const P<CVMDKDescriptor> descriptor =
        parseDescriptor("cid = fffffffe\ncreateType=y\nname=\"x\"\n# end\n");
    descriptor->setContentID(1);
    descriptor->setValue("CREATETYPE", "x", true, true);
    descriptor->setValue("name", "", false, false);
    EXPECT_EQ(textOf(*descriptor), "cid=00000001\ncreateType=x\nname=\"\"\n# end\n");
}

TEST(CVMDKDescriptor, NewSettingsGoBehindTheHeaderOrToTheEnd) {
    const P<CVMDKDescriptor> descriptor = parseDescriptor(usualText);
    descriptor->setValue("first", "1", false, true);
    descriptor->setValue("last", "2", false, false);
    descriptor->setValue("second", "3", true, true);
    descriptor->addGenericLine("# header", true);
    descriptor->addGenericLine("# end", false);
    const std::string text = textOf(*descriptor);
    EXPECT_NE(text.find("createType=\"twoGbMaxExtentSparse\"\nfirst=1\nsecond=\"3\"\n# header\n\n# Extent"),
              std::string::npos)
        << text;
    EXPECT_TRUE(text.ends_with("ddb.geometry.cylinders = \"261\"\nlast=2\n# end\n")) << text;
}

TEST(CVMDKDescriptor, HeaderEndsWithTheLastSettingAboveTheExtents) {
    const struct {
        const char* text;
        const char* expected;
    } rows[] = {
        {"", "new=1\n"},
        {"# comment\n", "new=1\n# comment\n"},
        {"# comment\na=1\n\n# more\n", "# comment\na=1\nnew=1\n\n# more\n"},
        {"a=1\n#\nb=2\n#\n", "a=1\n#\nb=2\nnew=1\n#\n"},
        {"RW 8 SPARSE \"x\"\na=1\n", "new=1\nRW 8 SPARSE \"x\"\na=1\n"},
        {"a=1\nRW 8 SPARSE \"x\"\nb=1\nRW 8 SPARSE \"y\"\n",
         "a=1\nnew=1\nRW 8 SPARSE \"x\"\nb=1\nRW 8 SPARSE \"y\"\n"},
        {"ddb.a = 1\n", "ddb.a = 1\nnew=1\n"},
    };
    for (const auto& row : rows) {
        const P<CVMDKDescriptor> descriptor = parseDescriptor(row.text);
        descriptor->setValue("new", "1", false, true);
        EXPECT_EQ(textOf(*descriptor), row.expected);
    }
}

TEST(CVMDKDescriptor, SettingsOfTheDiskDataBaseHaveBlanksAroundTheirSign) {
    CVMDKDescriptor descriptor;
    descriptor.setValue("a", "1", false, false);
    descriptor.setValue("b", "1", true, false);
    descriptor.setValue("ddb.a", "1", false, false);
    descriptor.setValue("ddb.b", "1", true, false);
    descriptor.setValue("DDB.c", "1", true, false);
    descriptor.setValue("ddb", "1", true, false);
    EXPECT_EQ(textOf(descriptor), "a=1\nb=\"1\"\nddb.a = 1\nddb.b = \"1\"\nDDB.c=\"1\"\nddb=\"1\"\n");
}

TEST(CVMDKDescriptor, ExtentsGoBehindTheFirstRunOfExtents) {
    const struct {
        const char* text;
        const char* expected;
    } rows[] = {
        {"", "RW 8 SPARSE \"1\"\nRW 8 SPARSE \"2\"\n"},
        {"a=1\n#\n", "a=1\n#\nRW 8 SPARSE \"1\"\nRW 8 SPARSE \"2\"\n"},
        {"RW 8 SPARSE \"x\"\n#\n", "RW 8 SPARSE \"x\"\nRW 8 SPARSE \"1\"\nRW 8 SPARSE \"2\"\n#\n"},
        {"RW 8 SPARSE \"x\"\nRW 8 SPARSE \"y\"\n#\nRW 8 SPARSE \"z\"\n",
         "RW 8 SPARSE \"x\"\nRW 8 SPARSE \"y\"\nRW 8 SPARSE \"1\"\nRW 8 SPARSE \"2\"\n#\nRW 8 SPARSE "
         "\"z\"\n"},
    };
    for (const auto& row : rows) {
        const P<CVMDKDescriptor> descriptor = parseDescriptor(row.text);
        descriptor->addExtentEntry(makeExtent("1").get());
        descriptor->addExtentEntry(makeExtent("2").get());
        EXPECT_EQ(textOf(*descriptor), row.expected);
    }
}

TEST(CVMDKDescriptor, ExtentsFindTheirPlaceAlsoBetweenOtherChanges) {
    CVMDKDescriptor descriptor;
    descriptor.setVersion(1);
    descriptor.addExtentEntry(makeExtent("1").get());
    descriptor.addGenericLine("# end", false);
    descriptor.addExtentEntry(makeExtent("2").get());
    descriptor.setContentID(1);
    descriptor.addExtentEntry(makeExtent("3").get());
    EXPECT_TRUE(descriptor.removeValue("version"));
    descriptor.addExtentEntry(makeExtent("4").get());
    descriptor.setEncodingUTF8();
    EXPECT_EQ(textOf(descriptor), "CID=00000001\nencoding=\"UTF-8\"\nRW 8 SPARSE \"1\"\nRW 8 SPARSE \"2\"\n"
                                  "RW 8 SPARSE \"3\"\nRW 8 SPARSE \"4\"\n# end\n");
}

TEST(CVMDKDescriptor, ExtentsAreAppendedToTheGivenList) {
    const P<CVMDKDescriptor> descriptor = parseDescriptor("RW 8 SPARSE \"x\"\na=1\nRW 8 SPARSE \"y\"\n");
    TArray<P<CVMDKExtentInfo>> extents{makeExtent("first")};
    descriptor->getExtentEntries(extents);
    ASSERT_EQ(extents.size(), 3U);
    EXPECT_EQ(extents[0]->getFilename(), "first");
    EXPECT_EQ(extents[2]->getFilename(), "y");
}

TEST(CVMDKDescriptor, RemovesTheFirstSettingOfAName) {
    const P<CVMDKDescriptor> descriptor = parseDescriptor("a=1\nb=2\nA=3\nRW 8 SPARSE \"x\"\nc=4\n");
    EXPECT_TRUE(descriptor->removeValue("A"));
    EXPECT_TRUE(descriptor->removeValue("c"));
    EXPECT_FALSE(descriptor->removeValue("c"));
    descriptor->setValue("new", "5", false, true);
    EXPECT_EQ(textOf(*descriptor), "b=2\nA=3\nnew=5\nRW 8 SPARSE \"x\"\n");
}

TEST(CVMDKDescriptor, EncodingIsDeclaredOnceAndKeepsItsQuotes) {
    const P<CVMDKDescriptor> descriptor = parseDescriptor("Encoding=latin1\na=1\n");
    descriptor->setEncodingUTF8();
    descriptor->setEncodingUTF8();
    EXPECT_EQ(textOf(*descriptor), "Encoding=UTF-8\na=1\n");
}

// --- What would break a line ---

TEST(CVMDKDescriptor, TextThatWouldBreakALineIsRefusedAndChangesNothing) {
    const char* const message = "A VMDK descriptor line must not hold a line feed, carriage return or NUL.";
    for (const wchar_t breaker : {L'\n', L'\r', L'\0'}) {
        const P<CVMDKDescriptor> descriptor = parseDescriptor("a=1\n");
        String text("x");
        text += breaker;
        EXPECT_INVALID_ARG_ERROR(descriptor->setValue("a", text, true, true), "CVMDKDescriptor::setValue",
                                 message, {{"text", text}});
        EXPECT_INVALID_ARG_ERROR(descriptor->setValue("b", text, true, false), "CVMDKDescriptor::setValue",
                                 message, {{"text", text}});
        EXPECT_INVALID_ARG_ERROR(descriptor->setValue(text, "b", true, false), "CVMDKDescriptor::setValue",
                                 message, {{"text", text}});
        EXPECT_INVALID_ARG_ERROR(descriptor->setParentFileNameHint(text), "CVMDKDescriptor::setValue",
                                 message, {{"text", text}});
        EXPECT_INVALID_ARG_ERROR(descriptor->addGenericLine(text, false), "CVMDKDescriptor::addGenericLine",
                                 message, {{"text", text}});
        EXPECT_INVALID_ARG_ERROR(descriptor->addExtentEntry(makeExtent(text).get()),
                                 "CVMDKDescriptor::addExtentEntry", message,
                                 {{"text", "RW 8 SPARSE \"" + text + "\""}});
        EXPECT_EQ(textOf(*descriptor), "a=1\n");
    }
}

// --- Copies ---

TEST(CVMDKDescriptor, CopyIsDeepAndKeepsThePlaceOfTheHeader) {
    const P<CVMDKDescriptor> original = parseDescriptor(usualText);
    const P<CVMDKDescriptor> copy(new CVMDKDescriptor(*original));
    EXPECT_EQ(textOf(*copy), usualText);

    copy->setContentID(1);
    copy->setValue("new", "1", false, true);
    copy->addExtentEntry(makeExtent("new.vmdk").get());
    EXPECT_EQ(textOf(*original), usualText);
    EXPECT_THAT(extentNamesOf(*copy), ElementsAre("disk-s00000.vmdk", "disk-s00001.vmdk", "new.vmdk"));
    EXPECT_NE(textOf(*copy).find("createType=\"twoGbMaxExtentSparse\"\nnew=1\n"), std::string::npos);

    original->setContentID(2);
    EXPECT_EQ(copy->getContentID(), 1U);
}

TEST(CVMDKDescriptor, CopyHoldsExtentsOfItsOwn) {
    const P<CVMDKDescriptor> original = parseDescriptor(usualText);
    const P<CVMDKDescriptor> copy(new CVMDKDescriptor(*original));
    TArray<P<CVMDKExtentInfo>> extents;
    original->getExtentEntries(extents);
    copy->getExtentEntries(extents);
    ASSERT_EQ(extents.size(), 4U);
    EXPECT_NE(extents[0], extents[2]);
    EXPECT_EQ(extents[0]->toString(), extents[2]->toString());
}

TEST(CVMDKDescriptor, AssignmentReplacesEverything) {
    const P<CVMDKDescriptor> target(new CVMDKDescriptor);
    target->addExtentEntry(makeExtent("x").get());
    *target = *parseDescriptor("# c\na=1\n# d\n");
    target->addExtentEntry(makeExtent("y").get());
    target->setValue("new", "1", false, true);
    EXPECT_EQ(textOf(*target), "# c\na=1\nnew=1\n# d\nRW 8 SPARSE \"y\"\n");
}

TEST(CVMDKDescriptor, AssignmentSurvivesItself) {
    const P<CVMDKDescriptor> descriptor = parseDescriptor(usualText);
    const CVMDKDescriptor& same = *descriptor;
    *descriptor = same;
    EXPECT_EQ(textOf(*descriptor), usualText);
    descriptor->setValue("new", "1", false, true);
    EXPECT_NE(textOf(*descriptor).find("createType=\"twoGbMaxExtentSparse\"\nnew=1\n"), std::string::npos);
}

TEST(CVMDKDescriptor, EachKindOfEntryIsClonedWithAllItsFields) {
    const P<CVMDKDescriptor::CNameValueEntry> setting(
        new CVMDKDescriptor::CNameValueEntry("ddb.Name", " v\"", true));
    const P<CVMDKDescriptorEntry> settingClone = setting->cloneDescriptorEntry();
    EXPECT_NE(settingClone.get(), setting.get());
    setting->setValue("changed");
    EXPECT_EQ(settingClone->toString(), "ddb.Name = \" v\"\"");
    auto* const clonedSetting = dynamic_cast<CVMDKDescriptor::CNameValueEntry*>(settingClone.get());
    ASSERT_TRUE(clonedSetting);
    EXPECT_EQ(clonedSetting->getName(), "ddb.Name");
    EXPECT_EQ(clonedSetting->getValue(), " v\"");
    EXPECT_TRUE(clonedSetting->getQuoted());

    const P<CVMDKDescriptor::CGenericEntry> line(new CVMDKDescriptor::CGenericEntry(" any \r"));
    const P<CVMDKDescriptorEntry> lineClone = line->cloneDescriptorEntry();
    EXPECT_NE(lineClone.get(), line.get());
    EXPECT_TRUE(dynamic_cast<CVMDKDescriptor::CGenericEntry*>(lineClone.get()));
    EXPECT_EQ(lineClone->toString(), " any \r");
}

// --- Texts come back as they were ---

TEST(CVMDKDescriptorTextTest, AnyCharactersAreKept) {
    const wchar_t odd[] = {
        L'a',
        0x7F,
        0x80,
        0x7FF,
        0x800,
        static_cast<wchar_t>(0xD800),
        static_cast<wchar_t>(0xFFFF),
#if WCHAR_MAX > 0xFFFF
        0x10FFFF,
        0x1FFFFF,
        0x200000,
        0x3FFFFFF,
        0x4000000,
        WCHAR_MAX,
        WCHAR_MIN,
#endif
        L'z',
        0
    };
    for (const String& text : {String(odd), String(), String("plain"), String(L"\xE4\xF6")}) {
        const P<CVMDKDescriptor::CNameValueEntry> setting(
            new CVMDKDescriptor::CNameValueEntry("name" + text, text, false));
        EXPECT_EQ(setting->getName(), "name" + text);
        EXPECT_EQ(setting->getValue(), text);
        EXPECT_TRUE(setting->hasName(("name" + text).Lower()));
        EXPECT_FALSE(setting->hasName("other"));
        setting->setValue("new" + text);
        EXPECT_EQ(setting->getValue(), "new" + text);
        EXPECT_EQ(setting->getName(), "name" + text);
        EXPECT_EQ(P<CVMDKDescriptorEntry>(new CVMDKDescriptor::CGenericEntry(text))->toString(), text);
        const P<CVMDKExtentInfo> extent(new CVMDKExtentInfo(text, 7, "t" + text, text + "f", 8));
        EXPECT_EQ(extent->getAccess(), text);
        EXPECT_EQ(extent->getType(), "t" + text);
        EXPECT_EQ(extent->getFilename(), text + "f");
    }
}

} // namespace tessel::test
