#include <gtest/gtest.h>

#include <cstring>

#include "core/events.h"

namespace {

EventData Event(uint32_t code, uint32_t param = 0) {
    EventData e;
    std::memset(&e, 0, sizeof e);
    e.eventCode = code;
    e.eventParam = param;
    return e;
}

TEST(EventTables, RefreshByCodeAndParam) {
    struct Case {
        uint32_t code, param;
        bool refresh;
    } cases[] = {
        {1, 0, true},    {106, 0, true},  {108, 5, true},  {216, 0, true}, {2, 0, false}, {217, 0, false},
        {71, 2, true},   {71, 3, false},  {72, 2, true},   {72, 0, false}, {19, 24, true}, {19, 23, false},
        {0, 0, false},   {62, 0, true},   {154, 0, true},  {155, 0, false},
    };
    for (const Case& c : cases)
        EXPECT_EQ(IsEventNeedRefresh(Event(c.code, c.param)), c.refresh) << c.code << "/" << c.param;
}

TEST(EventTables, NotificationsByCode) {
    struct Case {
        uint32_t code;
        bool notified;
        VDS_NOTIFICATION_TARGET_TYPE type;
        ULONG event;
    } cases[] = {
        {71, true, VDS_NTT_CONTROLLER, VDS_NF_CONTROLLER_DEPART}, {72, true, VDS_NTT_CONTROLLER, VDS_NF_CONTROLLER_ARRIVE},
        {106, true, VDS_NTT_LUN, VDS_NF_LUN_ARRIVE},              {108, true, VDS_NTT_LUN, VDS_NF_LUN_DEPART},
        {103, true, VDS_NTT_LUN, VDS_NF_LUN_MODIFY},              {105, true, VDS_NTT_LUN, VDS_NF_LUN_MODIFY},
        {8, true, VDS_NTT_DRIVE, VDS_NF_DRIVE_DEPART},            {62, true, VDS_NTT_DRIVE, VDS_NF_DRIVE_DEPART},
        {19, false, VDS_NTT_UNKNOWN, 0},                          {107, false, VDS_NTT_UNKNOWN, 0},
    };
    for (const Case& c : cases) {
        VDS_NOTIFICATION_TARGET_TYPE type = VDS_NTT_UNKNOWN;
        ULONG ev = 0;
        EXPECT_EQ(NotificationKind(c.code, &type, &ev), c.notified) << c.code;
        if (c.notified) {
            EXPECT_EQ(type, c.type) << c.code;
            EXPECT_EQ(ev, c.event) << c.code;
        }
    }
}

TEST(EventTables, SameEventIgnoresOnlySequenceAndDescription) {
    EventData a = Event(106);
    std::memcpy(a.partitionSerial, "PART-SERIAL-0001", 16);
    EventData b = a;
    b.sequenceNumber = 77;
    std::strcpy(b.description, "another text");
    EXPECT_TRUE(IsSameEvent(a, b));
    // Every compared part tells two events apart, the repeat counter among them.
    auto differs = [&](auto mutate) {
        EventData c = a;
        mutate(c);
        return !IsSameEvent(a, c);
    };
    EXPECT_TRUE(differs([](EventData& e) { e.duplicateCount = 1; }));
    EXPECT_TRUE(differs([](EventData& e) { e.owner = 1; }));
    EXPECT_TRUE(differs([](EventData& e) { e.word4 = 1; }));
    EXPECT_TRUE(differs([](EventData& e) { e.errorcode = 1; }));
    EXPECT_TRUE(differs([](EventData& e) { e.bytes16[1] = 1; }));
    EXPECT_TRUE(differs([](EventData& e) { e.controllerHandle = 1; }));
    EXPECT_TRUE(differs([](EventData& e) { e.words44[2] = 1; }));
    EXPECT_TRUE(differs([](EventData& e) { e.driveSerial[31] = 1; }));
    EXPECT_TRUE(differs([](EventData& e) { e.partitionSerial[0] = 'X'; }));
    EXPECT_TRUE(differs([](EventData& e) { e.spans120[0] = 1; }));
    EXPECT_TRUE(differs([](EventData& e) { e.word140 = 1; }));
}

}  // namespace
