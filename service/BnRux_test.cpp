#include "service/BnRux.h"

#include <gtest/gtest.h>

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

namespace tavo::rux {
namespace {

using android::Parcel;
using android::status_t;
using android::binder::Status;

/// A service whose methods note their names and answer with `status`.
class FakeService : public BnRux {
  public:
    Status Rux_scanDuplicateFiles(const std::string& request) override {
        return note("scan " + request);
    }
    Status Rux_getDuplicateFiles(const std::string& request, std::string* result) override {
        *result += "pages";
        return note("list " + request);
    }
    Status Rux_compressDuplicateFiles(const std::string& request, std::string* result) override {
        *result += "1,2";
        return note("compress " + request);
    }
    Status Rux_restoreDuplicateFiles(const std::string& request, int64_t* result) override {
        *result += 7;
        return note("restore " + request);
    }
    Status Rux_forceStopScanDuplicateFiles() override { return note("stop scan"); }
    Status Rux_setRUXExceptRules(const std::string& rules) override {
        return note("except " + rules);
    }
    Status Rux_stopCompressDuplicateFiles() override { return note("stop compress"); }

    Status status;
    std::string called;

  private:
    Status note(const std::string& call) {
        called = call;
        return status;
    }
};

/// A transaction whose request has the argument "x" or none.
status_t transact(FakeService& service, uint32_t code, bool withText, Parcel* reply) {
    Parcel request;
    request.writeInterfaceToken(android::String16("tavo.rux.IRux"));
    if (withText) request.writeUtf8AsUtf16(std::string("x"));
    return service.transact(code, request, reply);
}

TEST(BnRuxTest, CallsTheMethodOfEachCodeInsideItsTraceSection) {
    const struct {
        uint32_t code;
        const char* called;
        const char* method;
        size_t replySize;
    } expected[] = {
            {1, "scan x", "Rux_scanDuplicateFiles", 4},
            {2, "list x", "Rux_getDuplicateFiles", 4 + 4 + 12},
            {3, "compress x", "Rux_compressDuplicateFiles", 4 + 4 + 8},
            {4, "restore x", "Rux_restoreDuplicateFiles", 4 + 8},
            {5, "stop scan", "Rux_forceStopScanDuplicateFiles", 4},
            {6, "except x", "Rux_setRUXExceptRules", 4},
            {7, "stop compress", "Rux_stopCompressDuplicateFiles", 4},
    };
    const auto service = android::sp<FakeService>::make();
    for (const auto& [code, called, method, replySize] : expected) {
        traced.clear();
        Parcel reply;
        EXPECT_EQ(transact(*service, code, code != 5 && code != 7, &reply), android::OK);
        EXPECT_EQ(service->called, called);
        EXPECT_EQ(reply.dataSize(), replySize) << called;
        const std::string section = std::string("+AIDL::cpp::IRux::") + method + "::cppServer";
        EXPECT_EQ(traced, (std::vector<std::string>{section, "-"}));

        // With an exception there is no result.
        service->status = Status::fromExceptionCode(-8, "no");
        Parcel refusal;
        EXPECT_EQ(transact(*service, code, code != 5 && code != 7, &refusal), android::OK);
        EXPECT_EQ(refusal.dataSize(), 4U + 4 + 8 + 4) << called;
        service->status = Status::ok();
    }
}

TEST(BnRuxTest, ClosesTheSectionWhenTheArgumentIsMissingAndOpensNoneForStrangers) {
    const auto service = android::sp<FakeService>::make();
    for (const uint32_t code : {1U, 2U, 3U, 4U, 6U}) {
        traced.clear();
        Parcel reply;
        EXPECT_EQ(transact(*service, code, false, &reply), android::OK);
        EXPECT_EQ(traced.size(), 2U);
        EXPECT_EQ(service->transact(code, Parcel(), &reply), android::BAD_TYPE);
        EXPECT_EQ(traced.size(), 2U);
    }
    EXPECT_EQ(service->called, "");
}

}  // namespace
}  // namespace tavo::rux
