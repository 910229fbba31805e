#include "app/record_index.h"

#include <gtest/gtest.h>

namespace ProcMgr::App {
namespace {

struct Item {
    int32_t pid_ = 0;
    bool isDue_ = false;
    bool isEnded_ = false;
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
    due.AddEnded(two);
    due.AddEnded(two);
    using List = std::vector<Item*>;
    EXPECT_EQ(due.Begin(CheckPass::EXTRA), (List{&two}));
    EXPECT_EQ(due.GetPassed(CheckPass::EXTRA), (List{&two}));
    EXPECT_EQ(due.Begin(CheckPass::EXTRA), List());
    EXPECT_EQ(due.Begin(CheckPass::PERIODIC), (List{&one, &two}));
    due.Keep({&two});
    due.Drop(one);
    due.AddEnded(one);
    EXPECT_EQ(due.GetPassed(CheckPass::PERIODIC), (List{&two, &one}));
    due.Drop(one);
    EXPECT_EQ(due.Begin(CheckPass::EXTRA), List());
    EXPECT_EQ(due.Begin(CheckPass::PERIODIC), (List{&two}));
}

}  // namespace
}  // namespace ProcMgr::App
