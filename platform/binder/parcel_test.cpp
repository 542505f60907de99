#include "binder/Parcel.h"

#include <gtest/gtest.h>

#include "binder/Binder.h"
#include "binder/IServiceManager.h"
#include "binder/Status.h"

namespace android {
namespace {

TEST(ParcelTest, HoldsWholeTextsOnly) {
    Parcel parcel;
    EXPECT_EQ(parcel.writeUtf8AsUtf16(std::string("\xc0\xaf")), BAD_VALUE);
    EXPECT_EQ(parcel.dataSize(), 0U);
    // Lone surrogates stand for nothing.
    const uint8_t lone[] = {3, 0, 0, 0, 0x00, 0xdc, 'x', 0, 0x00, 0xd8, 0, 0};
    parcel.setData(lone, sizeof(lone));
    std::string text;
    EXPECT_EQ(parcel.readUtf8FromUtf16(&text), OK);
    EXPECT_EQ(text, "x");
    EXPECT_EQ(parcel.readUtf8FromUtf16(&text), UNEXPECTED_NULL);
}

TEST(BinderTest, NamesThatAreNoFilesAreNoServices) {
    const sp<IBinder> service = sp<BBinder>::make();
    for (const char* name : {"", "a/b", "..", ".hidden"}) {
        EXPECT_EQ(defaultServiceManager()->addService(String16(name), service), BAD_VALUE) << name;
        EXPECT_TRUE(defaultServiceManager()->checkService(String16(name)) == nullptr) << name;
    }
}

}  // namespace
}  // namespace android
