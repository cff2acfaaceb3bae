// Doubly linked list of untyped data pointers with a built-in cursor. Data handed to a
// list is malloc-allocated plain data: DestroyItem/DestroyList free it with free(), while
// RemoveItem/RemoveFromList free only the item. No locking inside: callers hold the mutex
// that guards their list.
#pragma once

#include <cstdint>

struct ListItem {
    ListItem* prev;
    ListItem* next;
    void* data;
};

struct List {
    ListItem* first;
    ListItem* last;
    ListItem* current;  // the cursor
    int32_t count;
};

int CreateList(List** list);
int CreateItem(void* data, ListItem** item);
int DestroyItem(ListItem* item);
int DestroyList(List* list);
int AppendToList(List** list, void* data);
int InsertInList(List* list, void* data, int before);
void RemoveItem(List* list, ListItem* item);
int RemoveFromList(List* list, void* data);
void GetFirstItem(List* list, void** data);
void GetNextItem(List* list, void** data);
void GetCurrItem(List* list, void** data);
void TraverseList(List* list, void (*fn)(void* data, void* arg), void* arg);
int GetListCount(const List* list);
int FindInList(List* list, void* data, ListItem** item);
