#include "binder/Parcel.h"

#include <gtest/gtest.h>

#include "binder/Binder.h"
#include "binder/IServiceManager.h"
#include "binder/Status.h"

namespace android {
namespace {

std::string bytesOf(const Parcel& parcel) {
    std::string hex;
    for (size_t i = 0; i < parcel.dataSize(); ++i) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02x", parcel.data()[i]);
        hex += digits;
    }
    return hex;
}

TEST(ParcelTest, HoldsThePlatformsBytes) {
    Parcel parcel;
    parcel.writeInt32(-2);
    parcel.writeInt64(0x0102030405060708);
    EXPECT_EQ(bytesOf(parcel), "feffffff0807060504030201");
    Parcel text;
    EXPECT_EQ(text.writeUtf8AsUtf16(std::string("a\xe2\x82\xac\xf0\x9f\x98\x80")), OK);
    EXPECT_EQ(bytesOf(text), "040000006100ac203dd800de00000000");
    EXPECT_EQ(text.writeUtf8AsUtf16(std::string("\xc0\xaf")), BAD_VALUE);
    Parcel token;
    token.writeInterfaceToken(String16("ab"));
    EXPECT_EQ(bytesOf(token),
              "00000000ffffffff5453595302000000610062000000"
              "0000");
}

TEST(ParcelTest, ReadsBackWhatWasWrittenAndNothingElse) {
    const std::string written("\xc3\xa9\0\xf4\x8f\xbf\xbf", 7);
    Parcel parcel;
    parcel.writeUtf8AsUtf16(written);
    parcel.writeInt64(INT64_MIN);
    parcel.setDataPosition(0);
    std::string text;
    int64_t number = 0;
    EXPECT_EQ(parcel.readUtf8FromUtf16(&text), OK);
    EXPECT_EQ(text, written);
    EXPECT_EQ(parcel.enforceNoDataAvail().exceptionCode(), binder::Status::EX_BAD_PARCELABLE);
    EXPECT_EQ(parcel.readInt64(&number), OK);
    EXPECT_EQ(number, INT64_MIN);
    EXPECT_TRUE(parcel.enforceNoDataAvail().isOk());
    EXPECT_EQ(parcel.readInt64(&number), NOT_ENOUGH_DATA);
    EXPECT_EQ(parcel.readUtf8FromUtf16(&text), UNEXPECTED_NULL);
    // Lone surrogates stand for nothing.
    const uint8_t lone[] = {3, 0, 0, 0, 0x00, 0xdc, 'x', 0, 0x00, 0xd8, 0, 0};
    parcel.setData(lone, sizeof(lone));
    EXPECT_EQ(parcel.readUtf8FromUtf16(&text), OK);
    EXPECT_EQ(text, "x");
}

TEST(ParcelTest, CarriesStatusesWithTheirMessages) {
    Parcel parcel;
    binder::Status::ok().writeToParcel(&parcel);
    EXPECT_EQ(bytesOf(parcel), "00000000");
    binder::Status::fromExceptionCode(-4, "m").writeOverParcel(&parcel);
    EXPECT_EQ(bytesOf(parcel), "fcffffff010000006d00000000000000");
    parcel.setDataPosition(0);
    binder::Status status;
    EXPECT_EQ(status.readFromParcel(parcel), OK);
    EXPECT_EQ(status.exceptionCode(), binder::Status::EX_NULL_POINTER);
    EXPECT_STREQ(status.exceptionMessage().c_str(), "m");
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
