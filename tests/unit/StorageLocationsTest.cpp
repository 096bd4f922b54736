// SPDX-License-Identifier: Apache-2.0
//
// The table of locations, and which files have a status.
#include "StorageLocations.h"

#include <limits>

#include "StorageFixture.h"

namespace {

class StorageLocationsTest : public storagetest::StorageFixture {};

TEST_F(StorageLocationsTest, EachLocationHasItsDirectory)
{
    const char* const expected[] = {"/tmp/vpn/main/", "/tmp/vpn/",        "/tmp/vpn/user/", "/tmp/vpn/profile/",
                                    "/tmp/vpn/l10n/", "/tmp/vpn/script/", "/tmp/vpn/temp/"};
    for (int location = 0; location < 7; ++location) {
        EXPECT_STREQ(expected[location], wfoal::locationToStr(static_cast<KEST_FileLocation>(location)));
    }
}

TEST_F(StorageLocationsTest, AnyOtherValueIsAnInvalidLocation)
{
    for (const int location : {7, 8, 255, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        EXPECT_STREQ("Invalid Location", wfoal::locationToStr(static_cast<KEST_FileLocation>(location)));
    }
}

TEST_F(StorageLocationsTest, PathIsDirectoryAndNameWithNothingBetween)
{
    EXPECT_EQ("/tmp/vpn/l10n/de.mo", wfoal::storagePath(LOCATION_L10N, "de.mo"));
    EXPECT_EQ("/tmp/vpn//a/../b", wfoal::storagePath(LOCATION_ROOT, "/a/../b"));
    EXPECT_EQ("Invalid Locationf", wfoal::storagePath(static_cast<KEST_FileLocation>(7), "f"));
}

TEST_F(StorageLocationsTest, FilesOfTwoGiBHaveNoStatus)
{
    struct stat status;
    storagetest::putSparseFile("f", 0x7fffffff);
    EXPECT_TRUE(wfoal::fileStatus("f", status));
    EXPECT_EQ(0x7fffffff, status.st_size);
    storagetest::putSparseFile("f", 0x80000000);
    EXPECT_FALSE(wfoal::fileStatus("f", status));
    EXPECT_EQ(0, status.st_size);
    EXPECT_EQ(0u, status.st_mode);
}

}  // namespace
