#include "platform/format.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>

namespace qvk {
namespace {

TEST(Format, ConversionsFollowTheLengthModifierAndOtherTextStands) {
    EXPECT_EQ(Format("uid: %u euid: %u", -1, 0), "uid: 4294967295 euid: 0");
    EXPECT_EQ(Format("%08lx", std::int64_t{-536870208}), "ffffffffe00002c0");
    EXPECT_EQ(Format("%08x", 0x1058), "00001058");
    EXPECT_EQ(Format("%04x/%04x", 0x12d1, 0x1001), "12d1/1001");
    EXPECT_EQ(Format("%d %hhd %ld", std::int64_t{0x100000005}, 0x1ff, std::int64_t{-7}), "5 -1 -7");
    EXPECT_EQ(Format("%5.1f|%-3s|%c|%%", 2.25, "a", 'x'), "  2.2|a  |x|%");
    // Text that is no conversion stands.
    EXPECT_EQ(Format("100%"), "100%");
    EXPECT_EQ(Format("%y", 1), "%y");
}

TEST(Format, FieldsBeyondTheBoundStandAsWrittenAndKeepTheArgumentsInStep) {
    EXPECT_EQ(Format("%4096s|", "a").size(), 4097u);
    EXPECT_EQ(Format("%2000000000s|%s", "a", "b"), "%2000000000s|b");
    EXPECT_EQ(Format("%.4097f|%-4097@|%d", 1.5, Value(1), 7), "%.4097f|%-4097@|7");
    EXPECT_EQ(Format("%*d|%.*s|%.*s|%.*s", -2000000000, 1, -1, "abc", 0, "abc", 5000, "abc"), "%*d|abc||%.*s");
    EXPECT_EQ(Format("%*5000d|%d", 7, 8), "%*5000d|8");
}

TEST(Format, ObjectsAndNullsPrintAsFoundationDoes) {
    Value dict(Dictionary{{"idVendor", Value(4817)}, {"IOProviderClass", Value("IOUSBDevice")}});
    EXPECT_EQ(Format("%@", dict), "{\n    IOProviderClass = IOUSBDevice;\n    idVendor = 4817;\n}");
    EXPECT_EQ(Format("%@ -> %@", std::string("/a b"), nullptr), "/a b -> (null)");
    EXPECT_EQ(Format("Build %s", static_cast<const char*>(nullptr)), "Build (null)");
    EXPECT_EQ(Format("%@", std::optional<std::string>()), "(null)");
}

TEST(Format, NestedContainersKeepFoundationIndentation) {
    Value v(Dictionary{{"Product", Value(Array{Value("0x1001"), Value(3)})}, {"e", Value(Array{})}});
    EXPECT_EQ(v.Description(), "{\n    Product =     (\n        0x1001,\n        3\n    );\n    e =     (\n    );\n}");
    Value list(Array{Value(Dictionary{{"a", Value(true)}}), Value("x\"y\xc3\xa9")});
    EXPECT_EQ(list.Description(), "(\n        {\n        a = 1;\n    },\n    \"x\\\"y\\U00e9\"\n)");
    Set set;
    set.Add(Value("Foo"));
    set.Add(Value("Foo"));
    EXPECT_EQ(Value(set).Description(), "{(\n    Foo\n)}");
}

TEST(Value, RealsBecomeIntegersWithinRange) {
    std::int64_t n = 1;
    EXPECT_TRUE(Value(2.9).GetInteger(n));
    EXPECT_EQ(n, 2);
    EXPECT_TRUE(Value(std::nan("")).GetInteger(n));
    EXPECT_EQ(n, 0);
    EXPECT_TRUE(Value(1e300).GetInteger(n));
    EXPECT_EQ(n, INT64_MAX);
    EXPECT_FALSE(Value("7").GetInteger(n));
}

}  // namespace
}  // namespace qvk
