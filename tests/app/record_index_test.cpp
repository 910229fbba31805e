#include "app/record_index.h"

#include <gtest/gtest.h>

namespace ProcMgr::App {
namespace {

struct Item {
    int32_t pid_ = 0;
    bool isDue_ = false;
};

TEST(RecordIndexTest, AReusedPidBelongsToTheProcessThatWasForkedLast) {
    ProcessIndex<Item> index;
    Item lost{7};  // its exit was collected by another part of the process
    Item next{7};
    for (Item* item : {&lost, &next}) {
        index.Reserve();
        index.Add(*item);
    }
    EXPECT_EQ(index.Take(7), &next);
    EXPECT_EQ(index.Take(7), nullptr);
    EXPECT_TRUE(index.IsEmpty());
}

TEST(RecordIndexTest, ARecordIsListedOnceUntilItIsDropped) {
    DueRecords<Item> due;
    Item one;
    Item two;
    due.Reserve(2);
    due.Add(one);
    due.Add(two);
    due.Add(one);
    EXPECT_EQ(due.GetList(), (std::vector<Item*>{&one, &two}));
    due.Keep({&two});
    due.Drop(one);
    due.Add(one);
    EXPECT_EQ(due.GetList(), (std::vector<Item*>{&two, &one}));
    due.Drop(two);
    EXPECT_EQ(due.GetList(), (std::vector<Item*>{&one}));
}

}  // namespace
}  // namespace ProcMgr::App
