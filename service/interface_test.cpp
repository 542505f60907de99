// What the service takes from the platform's headers, with the types that the platform declares;
// and the order of the interface's virtual functions. Compiled against the headers at hand: a
// host's or a device's.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <type_traits>

#include "android-base/properties.h"
#include "android/log.h"
#include "binder/IPCThreadState.h"
#include "binder/IServiceManager.h"
#include "binder/Parcel.h"
#include "binder/ProcessState.h"
#include "binder/Stability.h"
#include "binder/Trace.h"
#include "service/RuxNativeService.h"

namespace {

using namespace android;  // NOLINT(google-build-using-namespace): its names are the subject
using binder::Status;

/// Whether the overload set that `&name` stands for has a function of exactly this type.
#define DECLARES(type, ...) \
    static_assert(std::is_same_v<decltype(static_cast<type>(__VA_ARGS__)), type>)

DECLARES(int (*)(int, const char*, const char*, ...), &__android_log_print);
static_assert(ANDROID_LOG_DEBUG == 3 && ANDROID_LOG_ERROR == 6);

DECLARES(std::string (*)(const std::string&, const std::string&), &base::GetProperty);
DECLARES(bool (*)(const std::string&, const std::string&), &base::SetProperty);

static_assert(std::is_same_v<status_t, int32_t>);
static_assert(OK == 0 && UNKNOWN_ERROR == INT32_MIN && BAD_TYPE == INT32_MIN + 1 &&
              FAILED_TRANSACTION == INT32_MIN + 2 && FDS_NOT_ALLOWED == INT32_MIN + 7 &&
              UNEXPECTED_NULL == INT32_MIN + 8);
static_assert(NO_MEMORY == -ENOMEM && BAD_VALUE == -EINVAL && NOT_ENOUGH_DATA == -ENODATA &&
              NAME_NOT_FOUND == -ENOENT && PERMISSION_DENIED == -EPERM &&
              ALREADY_EXISTS == -EEXIST && DEAD_OBJECT == -EPIPE &&
              UNKNOWN_TRANSACTION == -EBADMSG && INVALID_OPERATION == -ENOSYS);

static_assert(std::is_constructible_v<String16, const char*> &&
              !std::is_convertible_v<const char*, String16>);
static_assert(std::is_constructible_v<String16, const char16_t*>);
DECLARES(size_t (String16::*)() const, &String16::size);
DECLARES(const char16_t* (String16::*)() const, &String16::c_str);
DECLARES(bool (String16::*)(const String16&) const, &String16::operator==);

static_assert(std::is_same_v<decltype(sp<RuxNativeService>::make()), sp<RuxNativeService>>);
static_assert(std::is_convertible_v<sp<RuxNativeService>, sp<IBinder>>);
static_assert(std::is_same_v<decltype(std::declval<sp<IBinder>>() == nullptr), bool>);

static_assert(IBinder::FIRST_CALL_TRANSACTION == 1 && IBinder::FLAG_ONEWAY == 1);
DECLARES(status_t (IBinder::*)(uint32_t, const Parcel&, Parcel*, uint32_t), &IBinder::transact);
DECLARES(sp<IInterface> (IBinder::*)(const String16&), &IBinder::queryLocalInterface);
DECLARES(const String16& (IBinder::*)() const, &IBinder::getInterfaceDescriptor);
static_assert(std::is_base_of_v<IBinder, BBinder> && std::is_base_of_v<RefBase, IBinder> &&
              std::is_base_of_v<RefBase, IInterface> && std::is_base_of_v<RefBase, ProcessState> &&
              std::is_base_of_v<IInterface, IServiceManager>);

static_assert(!std::is_copy_constructible_v<Parcel> && !std::is_copy_assignable_v<Parcel>);
DECLARES(const uint8_t* (Parcel::*)() const, &Parcel::data);
DECLARES(size_t (Parcel::*)() const, &Parcel::dataSize);
DECLARES(size_t (Parcel::*)() const, &Parcel::dataAvail);
DECLARES(status_t (Parcel::*)(size_t), &Parcel::setDataSize);
DECLARES(void (Parcel::*)(size_t) const, &Parcel::setDataPosition);
DECLARES(status_t (Parcel::*)(const uint8_t*, size_t), &Parcel::setData);
DECLARES(status_t (Parcel::*)(const String16&), &Parcel::writeInterfaceToken);
DECLARES(bool (Parcel::*)(IBinder*) const, &Parcel::checkInterface);
DECLARES(Status (Parcel::*)() const, &Parcel::enforceNoDataAvail);
DECLARES(status_t (Parcel::*)(int32_t), &Parcel::writeInt32);
DECLARES(status_t (Parcel::*)(int64_t), &Parcel::writeInt64);
DECLARES(status_t (Parcel::*)(const std::string&), &Parcel::writeUtf8AsUtf16);
DECLARES(status_t (Parcel::*)(int32_t*) const, &Parcel::readInt32);
DECLARES(status_t (Parcel::*)(int64_t*) const, &Parcel::readInt64);
DECLARES(status_t (Parcel::*)(std::string*) const, &Parcel::readUtf8FromUtf16);

static_assert(Status::EX_NONE == 0 && Status::EX_BAD_PARCELABLE == -2 &&
              Status::EX_NULL_POINTER == -4);
DECLARES(Status (*)(), &Status::ok);
DECLARES(Status (*)(int32_t), &Status::fromExceptionCode);
DECLARES(Status (*)(int32_t, const char*), &Status::fromExceptionCode);
DECLARES(bool (Status::*)() const, &Status::isOk);
DECLARES(int32_t (Status::*)() const, &Status::exceptionCode);
DECLARES(status_t (Status::*)(Parcel*) const, &Status::writeToParcel);
DECLARES(status_t (Status::*)(Parcel*) const, &Status::writeOverParcel);
DECLARES(status_t (Status::*)(const Parcel&), &Status::readFromParcel);

DECLARES(void (*)(IBinder*), &internal::Stability::markCompilationUnit);
DECLARES(void (*)(uint64_t, const char*), &binder::os::trace_begin);
DECLARES(void (*)(uint64_t), &binder::os::trace_end);
static_assert(std::is_constructible_v<binder::ScopedTrace, uint64_t, const char*>);

static_assert(IServiceManager::DUMP_FLAG_PRIORITY_DEFAULT == 8);
DECLARES(sp<IServiceManager> (*)(), &defaultServiceManager);
DECLARES(status_t (IServiceManager::*)(const String16&, const sp<IBinder>&, bool, int),
         &IServiceManager::addService);
DECLARES(sp<IBinder> (IServiceManager::*)(const String16&) const, &IServiceManager::checkService);
DECLARES(sp<ProcessState> (*)(), &ProcessState::self);
DECLARES(status_t (ProcessState::*)(size_t), &ProcessState::setThreadPoolMaxThreadCount);
DECLARES(void (ProcessState::*)(), &ProcessState::startThreadPool);
DECLARES(IPCThreadState* (*)(), &IPCThreadState::self);
DECLARES(void (IPCThreadState::*)(bool), &IPCThreadState::joinThreadPool);
DECLARES(uid_t (IPCThreadState::*)() const, &IPCThreadState::getCallingUid);
DECLARES(pid_t (IPCThreadState::*)() const, &IPCThreadState::getCallingPid);

/// The place of a virtual function in its class's table, as a pointer to the function tells it: the
/// offset in bytes, with a mark (in its lowest bit, on Arm in that of the second word) that the
/// function is virtual. See the C++ ABI for Itanium and that for the Arm 64-bit architecture.
template <typename Function>
ptrdiff_t slotOf(Function function) {
    ptrdiff_t words[2] = {};
    static_assert(sizeof(function) == sizeof(words));
    memcpy(words, &function, sizeof(words));
#if defined(__aarch64__)
    EXPECT_EQ(words[1] & 1, 1) << "not virtual";
    return words[0] / static_cast<ptrdiff_t>(sizeof(void*));
#else
    EXPECT_EQ(words[0] & 1, 1) << "not virtual";
    return (words[0] - 1) / static_cast<ptrdiff_t>(sizeof(void*));
#endif
}

/// Reaches what only a derived class may name.
struct Interface : tavo::rux::IRux {
    static ptrdiff_t slotOfOnAsBinder() { return slotOf(&Interface::onAsBinder); }
};

TEST(InterfaceTest, VirtualFunctionsStandInTheOrderOfTheInterface) {
    using tavo::rux::BnRux;
    using tavo::rux::IRux;
    // The complete and the deleting destructor come first.
    EXPECT_EQ(Interface::slotOfOnAsBinder(), 2);
    EXPECT_EQ(slotOf(&IRux::getInterfaceDescriptor), 3);
    EXPECT_EQ(slotOf(&IRux::Rux_scanDuplicateFiles), 4);
    EXPECT_EQ(slotOf(&IRux::Rux_getDuplicateFiles), 5);
    EXPECT_EQ(slotOf(&IRux::Rux_compressDuplicateFiles), 6);
    EXPECT_EQ(slotOf(&IRux::Rux_restoreDuplicateFiles), 7);
    EXPECT_EQ(slotOf(&IRux::Rux_forceStopScanDuplicateFiles), 8);
    EXPECT_EQ(slotOf(&IRux::Rux_setRUXExceptRules), 9);
    EXPECT_EQ(slotOf(&IRux::Rux_stopCompressDuplicateFiles), 10);
    EXPECT_EQ(slotOf(&BnRux::queryLocalInterface), 11);
    EXPECT_EQ(slotOf(&BnRux::onTransact), 12);
    // The service adds none and moves none.
    EXPECT_EQ(slotOf(&RuxNativeService::Rux_scanDuplicateFiles), 4);
    EXPECT_EQ(slotOf(&RuxNativeService::Rux_stopCompressDuplicateFiles), 10);
    EXPECT_EQ(slotOf(&RuxNativeService::onTransact), 12);
}

TEST(InterfaceTest, AnswersForItsDescriptorAlone) {
    const auto service = sp<RuxNativeService>::make();
    const String16 descriptor("tavo.rux.IRux");
    EXPECT_EQ(service->getInterfaceDescriptor(), descriptor);
    EXPECT_EQ(service->queryLocalInterface(descriptor).get(),
              static_cast<IInterface*>(service.get()));
    for (const char* other : {"tavo.rux.IRu", "tavo.rux.IRux2", "tavo.rux.IRuy", ""})
        EXPECT_EQ(service->queryLocalInterface(String16(other)).get(), nullptr) << other;
}

}  // namespace
