#include "tessel/IDisk.h"

#include "DiskTest.h"

using namespace tessel;
using namespace tessel::test;

namespace {

class CThing : public CBase {};
class CDiskOfOnesOwn : public CBase, public IDisk {};

} // namespace

TEST(IDiskTest, TellsDisksFromOtherObjects) {
    const P<IBase> disk(new CDiskOfOnesOwn);
    const P<IBase> thing(new CThing);
    EXPECT_TRUE(castTo<IDisk>(disk));
    EXPECT_FALSE(castTo<IDisk>(thing));
}
