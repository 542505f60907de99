// Transactions byte for byte: what the service answers to well-formed and to malformed requests.

#include <unistd.h>

#include "tests/support/sandbox.h"

namespace rux::test {
namespace {

/// A 32-bit number as parcels hold it, in hexadecimal.
std::string int32(uint32_t value) {
    char text[9];
    snprintf(text, sizeof(text), "%08x", __builtin_bswap32(value));
    return text;
}

/// An ASCII string as parcels hold it, in hexadecimal.
std::string string16(const std::string& text) {
    std::string hex = int32(static_cast<uint32_t>(text.size()));
    for (const char c : text) hex += int32(static_cast<unsigned char>(c)).substr(0, 4);
    hex += "0000";
    return hex.size() % 8 == 0 ? hex : hex + "0000";
}

std::string token(const std::string& descriptor = "tavo.rux.IRux") {
    return int32(0x42) + int32(0xffffffff) + int32(0x53595354) + string16(descriptor);
}

const std::string kOk = int32(0);
const std::string kNullPointer = int32(static_cast<uint32_t>(-4)) + string16("") + int32(0);
const std::string kBadType = "-2147483647";

class WireTest : public ServiceTest {
  protected:
    void expect(const std::string& code, const std::string& parcel, const std::string& status,
                const std::string& reply, int exit = 1) const {
        const Outcome outcome = ruxctl({"call", code, "--hex", "-"}, parcel);
        EXPECT_EQ(outcome.out, "status " + status + "\n" + reply + "\n") << code << " " << parcel;
        EXPECT_EQ(outcome.exit, exit) << outcome.err;
    }
};

TEST_F(WireTest, WellFormedRequestsAreAnsweredAsTheInterfaceSays) {
    expect("1", token() + string16("[]"), "0", kOk, 0);
    expect("2", token() + string16("[]"), "0", kOk + string16("{\"isEnd\":1}\n"), 0);
    expect("3", token() + string16("[]"), "0", kOk + string16("0,0"), 0);
    expect("4", token() + string16("[]"), "0", kOk + int32(0) + int32(0), 0);
    expect("5", token(), "0", kOk, 0);
    expect("6", token() + string16("[]"), "0", kOk, 0);
    expect("7", token(), "0", kOk, 0);
    EXPECT_EQ(logged("Rux_setRUXExceptRulesImp is empty"), 1);
    // The strict-mode policy and the work source may be anything.
    expect("4", int32(7) + int32(8) + token().substr(16) + string16("[]"), "0",
           kOk + int32(0) + int32(0), 0);
}

TEST_F(WireTest, WrongInterfaceTokensAreRefusedWithoutAReply) {
    for (const char* code : {"1", "2", "3", "4", "5", "6", "7"}) {
        expect(code, "", kBadType, "");
        expect(code, token("tavo.rux.IRuy") + string16("[]"), kBadType, "");
        expect(code, token("tavo.rux.IRux2") + string16("[]"), kBadType, "");
        expect(code, token().substr(0, 24), kBadType, "");
        expect(code, token().substr(0, token().size() - 8), kBadType, "");
        expect(code, int32(0) + int32(0) + int32(0x53595355) + string16("tavo.rux.IRux"), kBadType,
               "");
    }
}

TEST_F(WireTest, MissingStringsAreAnsweredWithTheNullPointerException) {
    const std::string broken[] = {
            "",                                  // absent
            int32(0xffffffff),                   // null
            int32(0xfffffffe),                   // of negative length
            int32(0x7fffffff) + "5b005d00",      // longer than the parcel
            int32(2) + "5b005d00",               // cut short
            int32(2) + "5b005d00" + "01000000",  // not terminated
            int32(2) + "5b005d00" + "0000",      // without its padding
            "02",                                // half a length
    };
    for (const char* code : {"1", "2", "3", "4", "6"}) {
        for (const std::string& argument : broken)
            expect(code, token() + argument, "0", kNullPointer);
    }
    EXPECT_EQ(log().find("[RUX-NATIVE]"), std::string::npos) << "a method was called";
}

TEST_F(WireTest, BytesBehindTheArgumentAreRefusedOrIgnored) {
    const std::string unread = "Parcel data not fully consumed, unread size: ";
    const std::string exception = int32(static_cast<uint32_t>(-2));
    for (const char* code : {"1", "2", "3", "4", "6"}) {
        expect(code, token() + string16("[]") + int32(0), "0",
               exception + string16(unread + "4") + int32(0));
        expect(code, token() + string16("[]") + "ff", "0",
               exception + string16(unread + "1") + int32(0));
    }
    EXPECT_EQ(log().find("[RUX-NATIVE]"), std::string::npos) << "a method was called";
    expect("5", token() + "ffffffffff", "0", kOk, 0);
    expect("7", token() + string16("x"), "0", kOk, 0);
}

TEST_F(WireTest, UnknownCodesAreLeftToThePlatform) {
    for (const char* code : {"0", "8", "4294967295"})
        expect(code, token() + string16("[]"), "-74", "");
    // Its own are the ping, the dump, the shell command, and the question for the interface.
    for (const uint32_t code : {0x5f504e47, 0x5f444d50, 0x5f434d44})
        expect(std::to_string(code), "", "0", "");
    expect(std::to_string(0x5f4e5446), "", "0", string16("tavo.rux.IRux"));
}

TEST_F(WireTest, TextOfAllPlanesSurvivesTheWay) {
    // Two-, three- and four-byte characters, NUL and control characters, in a space id and back.
    const Json space = Json::parse(R"("é€😀\u0001")");
    mkdir(sandbox.database(space.get<std::string>()).c_str(), 0700);
    const Json page = Json::parse(call(2, rule(space.get<std::string>(), {".*"}, Json::array())));
    EXPECT_TRUE(page.contains(space.get<std::string>())) << page;
}

TEST_F(WireTest, ClientSaysWhatWentWrong) {
    EXPECT_EQ(ruxctl({}).exit, 2);
    EXPECT_EQ(ruxctl({"call"}).exit, 2);
    EXPECT_EQ(ruxctl({"call", "x"}).exit, 2);
    EXPECT_EQ(ruxctl({"call", "1", "--hex", "abc"}).exit, 2);
    EXPECT_EQ(ruxctl({"call", "1", "--hex", "zz"}).exit, 2);
    EXPECT_EQ(ruxctl({"call", "1", "\xff"}).exit, 2);
    EXPECT_EQ(ruxctl({"stop", "restore"}).exit, 2);
    EXPECT_EQ(ruxctl({"scan", "--space", "s"}).exit, 2);
    EXPECT_EQ(ruxctl({"--help"}).exit, 0);
    EXPECT_NE(ruxctl({"call", "1"}).err.find("exception -4"), std::string::npos);
    EXPECT_NE(ruxctl({"scan", "--space", "s", "/no/such/dir"}).err.find("No such file"),
              std::string::npos);
    EXPECT_EQ(ruxctl({"list", "--space", "unknown"}).exit, 1);
    EXPECT_EQ(ruxctl({"setprop", "x", std::string(92, 'v')}).exit, 1);
    EXPECT_EQ(ruxctl({"setprop", "x", std::string(91, 'v')}).exit, 0);
    EXPECT_EQ(ruxctl({"getprop", "x"}).out, std::string(91, 'v') + "\n");
}

class StartUpTest : public ServiceTest {};

TEST_F(StartUpTest, LogsOneLineAndTouchesNothing) {
    const std::string text = log();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    EXPECT_EQ(logged(" D rux     : main:"), 1);
    EXPECT_EQ(logged(": RUXStarting rux\n"), 1);
    EXPECT_TRUE(run({"ls", "-A", sandbox.root() + "/data/local/zel"}).out.empty());
    EXPECT_NE(access((sandbox.root() + "/run/rux/properties").c_str(), F_OK), 0);
    EXPECT_EQ(statusOf(sandbox.root() + "/run/rux").st_mode & 07777, 0700U);
}

TEST_F(StartUpTest, EndsWithStatus255WhenTheNameIsTaken) {
    const Outcome second = run({ruxBinary()}, sandbox.root());
    EXPECT_EQ(second.exit, 255);
    EXPECT_NE(second.err.find(" E rux     : main:"), std::string::npos) << second.err;
    EXPECT_NE(second.err.find(": Couldn't register rux binder service!\n"), std::string::npos);
    EXPECT_EQ(ruxctl({"call", "5"}).exit, 0) << "the first one goes on";
    EXPECT_TRUE(run({"ls", "-A", sandbox.root() + "/data/local/zel"}).out.empty());

    kill();
    EXPECT_EQ(ruxctl({"call", "5"}).exit, 3);
    start();  // takes over what the killed one left
}

TEST_F(StartUpTest, EndsWithStatus255WhenTheRunDirectoryCannotBeHad) {
    Sandbox other;
    writeFile(other.root() + "/run", "a file where a directory should be");
    EXPECT_EQ(run({ruxBinary()}, other.root()).exit, 255);
}

}  // namespace
}  // namespace rux::test
