// What a device sees of the interface: the order of its virtual functions, the descriptor that it
// answers for, and the trace sections of its methods.

#include "service/RuxNativeService.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "binder/Parcel.h"
#include "binder/Trace.h"

namespace {

std::vector<std::string> traced;  // "+NAME" for a section that was opened, "-" for one closed

}  // namespace

// In place of the platform's: this program is linked with these.
namespace android::binder::os {

void trace_begin(uint64_t tag, const char* name) {
    EXPECT_EQ(tag, 0x1000000U);
    traced.push_back(std::string("+") + name);
}

void trace_end(uint64_t tag) {
    EXPECT_EQ(tag, 0x1000000U);
    traced.emplace_back("-");
}

}  // namespace android::binder::os

namespace {

using android::RuxNativeService;
using android::String16;

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
    const auto service = android::sp<RuxNativeService>::make();
    const String16 descriptor("tavo.rux.IRux");
    EXPECT_EQ(service->getInterfaceDescriptor(), descriptor);
    EXPECT_EQ(service->queryLocalInterface(descriptor).get(),
              static_cast<android::IInterface*>(service.get()));
    for (const char* other : {"tavo.rux.IRu", "tavo.rux.IRux2", "tavo.rux.IRuy", ""})
        EXPECT_EQ(service->queryLocalInterface(String16(other)).get(), nullptr) << other;
}

TEST(InterfaceTest, RunsEachMethodInsideItsTraceSection) {
    const auto service = android::sp<RuxNativeService>::make();
    const char* const methods[] = {"Rux_scanDuplicateFiles",          "Rux_getDuplicateFiles",
                                   "Rux_compressDuplicateFiles",      "Rux_restoreDuplicateFiles",
                                   "Rux_forceStopScanDuplicateFiles", "Rux_setRUXExceptRules",
                                   "Rux_stopCompressDuplicateFiles"};
    uint32_t code = 0;
    for (const char* method : methods) {
        ++code;
        const std::vector<std::string> section = {std::string("+AIDL::cpp::IRux::") + method +
                                                          "::cppServer",
                                                  "-"};
        for (const bool hasText : {true, false}) {  // without, most end before their method
            android::Parcel request;
            android::Parcel reply;
            request.writeInterfaceToken(String16("tavo.rux.IRux"));
            if (hasText && code != 5 && code != 7) request.writeUtf8AsUtf16(std::string("{"));
            traced.clear();
            EXPECT_EQ(service->transact(code, request, &reply), android::OK);
            EXPECT_EQ(traced, section);
        }
        traced.clear();
        android::Parcel reply;
        EXPECT_EQ(service->transact(code, android::Parcel(), &reply), android::BAD_TYPE);
        EXPECT_TRUE(traced.empty());
    }
}

}  // namespace
