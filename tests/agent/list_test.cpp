#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "agent/rtdc_list.h"

namespace {

int* make_int(int v) {
    int* p = static_cast<int*>(malloc(sizeof(int)));
    *p = v;
    return p;
}

std::vector<int> contents(List* list) {
    std::vector<int> out;
    for (ListItem* it = list->first; it; it = it->next) out.push_back(*static_cast<int*>(it->data));
    return out;
}

std::vector<int> iterate(List* list) {
    std::vector<int> out;
    void* data;
    GetFirstItem(list, &data);
    while (data) {
        out.push_back(*static_cast<int*>(data));
        GetNextItem(list, &data);
    }
    return out;
}

struct ListTest : ::testing::Test {
    List* list = nullptr;
    void SetUp() override { ASSERT_EQ(CreateList(&list), 1); }
    void TearDown() override { DestroyList(list); }
};

TEST_F(ListTest, AppendKeepsOrderAndFirstAppendSetsCursor) {
    int* a = make_int(1);
    AppendToList(&list, a);
    void* cur;
    GetCurrItem(list, &cur);
    EXPECT_EQ(cur, a);
    AppendToList(&list, make_int(2));
    AppendToList(&list, make_int(3));
    GetCurrItem(list, &cur);
    EXPECT_EQ(cur, a) << "appending after the first item must not move the cursor";
    EXPECT_EQ(contents(list), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(iterate(list), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(GetListCount(list), 3);
    EXPECT_EQ(GetListCount(nullptr), 0);
}

TEST_F(ListTest, IterationOnOneItemListEndsAfterFirst) {
    AppendToList(&list, make_int(7));
    void* data;
    GetFirstItem(list, &data);
    ASSERT_NE(data, nullptr);
    GetNextItem(list, &data);
    EXPECT_EQ(data, nullptr);
    GetNextItem(list, &data);
    EXPECT_EQ(data, nullptr) << "the cursor stays on the last item";
}

TEST_F(ListTest, InsertBeforeMovesCursorInsertAfterDoesNot) {
    InsertInList(list, make_int(5), 1);  // empty cursor: first, last and current
    EXPECT_EQ(contents(list), (std::vector<int>{5}));
    InsertInList(list, make_int(4), 1);
    void* cur;
    GetCurrItem(list, &cur);
    EXPECT_EQ(*static_cast<int*>(cur), 4);
    EXPECT_EQ(*static_cast<int*>(list->first->data), 4);
    InsertInList(list, make_int(9), 0);
    GetCurrItem(list, &cur);
    EXPECT_EQ(*static_cast<int*>(cur), 4) << "insert after leaves the cursor";
    EXPECT_EQ(contents(list), (std::vector<int>{4, 9, 5}));
    EXPECT_EQ(*static_cast<int*>(list->last->data), 5);
    EXPECT_EQ(list->last->next, nullptr);
    EXPECT_EQ(list->first->prev, nullptr);
}

TEST_F(ListTest, RemovingCursorItemMovesCursorToPredecessor) {
    int* a = make_int(1);
    int* b = make_int(2);
    int* c = make_int(3);
    AppendToList(&list, a);
    AppendToList(&list, b);
    AppendToList(&list, c);
    void* data;
    GetFirstItem(list, &data);
    GetNextItem(list, &data);  // cursor on b
    EXPECT_EQ(RemoveFromList(list, nullptr), 1);
    void* cur;
    GetCurrItem(list, &cur);
    EXPECT_EQ(cur, a);
    EXPECT_EQ(contents(list), (std::vector<int>{1, 3}));
    free(b);

    // Removing the first item while the cursor is on it leaves no cursor; the next step
    // restarts at the new first item.
    GetFirstItem(list, &data);
    EXPECT_EQ(RemoveFromList(list, a), 1);
    free(a);
    GetCurrItem(list, &cur);
    EXPECT_EQ(cur, nullptr);
    GetNextItem(list, &data);
    EXPECT_EQ(data, c);
    EXPECT_EQ(list->first, list->last);
}

TEST_F(ListTest, FindAndRemoveUseIdentityNotContent) {
    int* a = make_int(1);
    int* twin = make_int(1);
    AppendToList(&list, a);
    ListItem* item;
    EXPECT_EQ(FindInList(list, twin, &item), 0);
    EXPECT_EQ(item, nullptr);
    EXPECT_EQ(RemoveFromList(list, twin), 0);
    EXPECT_EQ(FindInList(list, a, &item), 1);
    EXPECT_EQ(item->data, a);
    free(twin);
    // The only item removed: the list is empty and a null-cursor removal is harmless.
    EXPECT_EQ(RemoveFromList(list, a), 1);
    free(a);
    EXPECT_EQ(list->first, nullptr);
    EXPECT_EQ(list->last, nullptr);
    EXPECT_EQ(RemoveFromList(list, nullptr), 0);
    EXPECT_EQ(GetListCount(list), 0);
}

TEST_F(ListTest, TraverseVisitsInOrder) {
    for (int i = 1; i <= 4; ++i) AppendToList(&list, make_int(i));
    std::vector<int> seen;
    TraverseList(
        list, [](void* d, void* arg) { static_cast<std::vector<int>*>(arg)->push_back(*static_cast<int*>(d)); },
        &seen);
    EXPECT_EQ(seen, (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(DestroyItem(nullptr), 0);
    EXPECT_EQ(DestroyList(nullptr), 0);
}

}  // namespace
