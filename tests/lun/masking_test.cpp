// The unmasking-list parser, the initiator name test and the unit-number choice.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lun/masking.h"

namespace {

struct NameCase {
    const char* name;
    bool ok;
};

class ValidateIqn : public ::testing::TestWithParam<NameCase> {};

TEST_P(ValidateIqn, AcceptsOnlyIqnAndEuiNames) { EXPECT_EQ(validate_iqn(GetParam().name), GetParam().ok); }

INSTANTIATE_TEST_SUITE_P(
    Names, ValidateIqn,
    ::testing::Values(NameCase{"iqn.2004-01.com.x", true}, NameCase{"IQN.2004-01.com.x", true},
                      NameCase{"iQn.1991-05.com.microsoft:host-1.example.com", true},
                      NameCase{"iqn.2004-01.com.x-y.z:a:b.c-d", true}, NameCase{"iqn.2004-1.com.x", false},
                      NameCase{"iqn.204-01.com.x", false}, NameCase{"iqn.2004-01com.x", false},
                      NameCase{"iqn.2004-01.", false}, NameCase{"iqn.2004-01.com..x", false},
                      NameCase{"iqn.2004-01.com.x.", false}, NameCase{"iqn.2004-01.com.x:", false},
                      NameCase{"iqn.2004-01.com_x", false}, NameCase{"iqn.2004-01.com.x:a b", false},
                      NameCase{"iqn.2004-01.-com", false}, NameCase{"eui.0123456789ABCDEF", true},
                      NameCase{"EUI.0123456789abcdef", true}, NameCase{"eui.0123456789ABCDE", false},
                      NameCase{"eui.0123456789ABCDEF0", false}, NameCase{"eui.0123456789ABCDEG", false},
                      NameCase{"0123456789ABCDEF", false}, NameCase{"", false}, NameCase{"*", false},
                      NameCase{"iqn.2004-01.com.x\xff", false}));

TEST(ValidateIqnLength, TheLongestNameAViewHoldsPassesOneMoreFails) {
    std::string base = "iqn.2004-01.com.x:";
    std::string fits = base + std::string(kMaxInitiatorNameChars - base.size(), 'a');
    ASSERT_EQ(fits.size(), kMaxInitiatorNameChars);
    EXPECT_TRUE(validate_iqn(fits));
    EXPECT_FALSE(validate_iqn(fits + "a"));
    EXPECT_FALSE(validate_iqn(base + std::string(100000, 'a')));
}

struct ListCase {
    const char* list;
    bool ok;
    std::vector<std::string> names;
};

class ParseList : public ::testing::TestWithParam<ListCase> {};

TEST_P(ParseList, SplitsValidatesAndDropsRepeats) {
    std::vector<std::string> names{"left over"};
    EXPECT_EQ(ParseUnmaskingList(GetParam().list, true, &names), GetParam().ok);
    if (GetParam().ok) EXPECT_EQ(names, GetParam().names);
}

INSTANTIATE_TEST_SUITE_P(
    Lists, ParseList,
    ::testing::Values(ListCase{"", true, {}}, ListCase{"*", true, {}},
                      ListCase{"iqn.2004-01.com.x", true, {"iqn.2004-01.com.x"}},
                      ListCase{"iqn.2004-01.com.x;", true, {"iqn.2004-01.com.x"}},
                      ListCase{"iqn.2004-01.com.x;eui.0123456789ABCDEF", true,
                               {"iqn.2004-01.com.x", "eui.0123456789ABCDEF"}},
                      ListCase{"iqn.2004-01.com.x;iqn.2004-01.com.y;iqn.2004-01.com.x", true,
                               {"iqn.2004-01.com.x", "iqn.2004-01.com.y"}},
                      ListCase{"iqn.2004-01.com.x;;iqn.2004-01.com.y", false, {}},
                      ListCase{";iqn.2004-01.com.x", false, {}}, ListCase{";", false, {}},
                      ListCase{"*;iqn.2004-01.com.x", false, {}}, ListCase{"iqn.2004-01.com.x;*", false, {}},
                      ListCase{"iqn.2004-01.com.x;;", false, {}}, ListCase{"**", false, {}}));

TEST(ParseListUnvalidated, TakesTheStoredListAsItIs) {
    std::vector<std::string> names;
    EXPECT_TRUE(ParseUnmaskingList("host a;host b;host a", false, &names));
    EXPECT_EQ(names, (std::vector<std::string>{"host a", "host b"}));
}

TEST(ParseListLong, TakesManyNamesAndKeepsTheirOrder) {
    std::string list;
    for (int i = 0; i < 129; ++i) list += "iqn.2004-01.com.h" + std::to_string(i) + ";";
    std::vector<std::string> names;
    ASSERT_TRUE(ParseUnmaskingList(list, true, &names));
    ASSERT_EQ(names.size(), 129u);
    EXPECT_EQ(names.front(), "iqn.2004-01.com.h0");
    EXPECT_EQ(names.back(), "iqn.2004-01.com.h128");
}

TEST(ListForm, ThreeForms) {
    EXPECT_EQ(FormOfUnmaskingList(""), UnmaskForm::kNone);
    EXPECT_EQ(FormOfUnmaskingList("*"), UnmaskForm::kAll);
    EXPECT_EQ(FormOfUnmaskingList("*;"), UnmaskForm::kNamed);
    EXPECT_EQ(FormOfUnmaskingList("iqn.2004-01.com.x"), UnmaskForm::kNamed);
}

struct UnitCase {
    std::vector<uint32_t> used;
    uint32_t first, limit;
    int32_t expected;
};

class UnitNumber : public ::testing::TestWithParam<UnitCase> {};

TEST_P(UnitNumber, LowestFreeFromTheStart) {
    EXPECT_EQ(FirstFreeUnitNumber(GetParam().used, GetParam().first, GetParam().limit), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Choices, UnitNumber,
                         ::testing::Values(UnitCase{{}, 1, 128, 1}, UnitCase{{1, 2, 4}, 1, 128, 3},
                                           UnitCase{{0, 1, 0xFFFF}, 0, 128, 2}, UnitCase{{5}, 5, 7, 6},
                                           UnitCase{{5, 6}, 5, 7, -1}, UnitCase{{}, 3, 3, -1},
                                           UnitCase{{}, 10, 4, -1}, UnitCase{{1, 1, 1, 2}, 1, 4, 3}));

}  // namespace
