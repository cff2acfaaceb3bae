#include "agent/rtdc_list.h"

#include <cstdlib>

int CreateList(List** list) {
    *list = static_cast<List*>(calloc(1, sizeof(List)));
    return *list ? 1 : 0;
}

int CreateItem(void* data, ListItem** item) {
    *item = static_cast<ListItem*>(calloc(1, sizeof(ListItem)));
    if (!*item) return 0;
    (*item)->data = data;
    return 1;
}

int DestroyItem(ListItem* item) {
    if (!item) return 0;
    free(item->data);
    free(item);
    return 1;
}

int DestroyList(List* list) {
    if (!list) return 0;
    ListItem* item = list->first;
    while (item) {
        ListItem* next = item->next;
        DestroyItem(item);
        item = next;
    }
    free(list);
    return 1;
}

int AppendToList(List** list, void* data) {
    ListItem* item;
    if (!CreateItem(data, &item)) return 0;
    List* l = *list;
    l->count++;
    if (l->last) {
        l->last->next = item;
        item->prev = l->last;
    } else {
        l->first = item;
        l->current = item;
    }
    l->last = item;
    return 1;
}

int InsertInList(List* list, void* data, int before) {
    ListItem* item;
    if (!CreateItem(data, &item)) return 0;
    list->count++;
    ListItem* cur = list->current;
    if (!cur) {
        // An empty cursor makes the new item the whole list view: first, last and current.
        list->first = list->last = list->current = item;
        return 1;
    }
    if (before == 1) {
        item->next = cur;
        item->prev = cur->prev;
        if (cur->prev)
            cur->prev->next = item;
        else
            list->first = item;
        cur->prev = item;
        list->current = item;  // the cursor follows an insertion before, not after
    } else {
        item->prev = cur;
        item->next = cur->next;
        if (cur->next)
            cur->next->prev = item;
        else
            list->last = item;
        cur->next = item;
    }
    return 1;
}

void RemoveItem(List* list, ListItem* item) {
    if (!list || !item || list->count == 0) return;
    list->count--;
    if (list->current == item) list->current = item->prev;
    if (item->prev)
        item->prev->next = item->next;
    else
        list->first = item->next;
    if (item->next)
        item->next->prev = item->prev;
    else
        list->last = item->prev;
    free(item);
}

int RemoveFromList(List* list, void* data) {
    if (!list) return 0;
    ListItem* item = nullptr;
    if (!data) {
        item = list->current;
        if (!item) return 0;
    } else if (!FindInList(list, data, &item)) {
        return 0;
    }
    RemoveItem(list, item);
    return 1;
}

void GetFirstItem(List* list, void** data) {
    list->current = list->first;
    *data = list->current ? list->current->data : nullptr;
}

void GetNextItem(List* list, void** data) {
    *data = nullptr;
    if (list->current && list->current == list->last) return;
    if (!list->current) {
        if (!list->first) return;
        list->current = list->first;
    } else {
        list->current = list->current->next;
    }
    *data = list->current->data;
}

void GetCurrItem(List* list, void** data) { *data = list->current ? list->current->data : nullptr; }

void TraverseList(List* list, void (*fn)(void* data, void* arg), void* arg) {
    if (!list) return;
    for (ListItem* item = list->first; item; item = item->next) fn(item->data, arg);
}

int GetListCount(const List* list) { return list ? list->count : 0; }

int FindInList(List* list, void* data, ListItem** item) {
    *item = nullptr;
    if (!list) return 0;
    for (ListItem* it = list->first; it; it = it->next) {
        if (it->data == data) {
            *item = it;
            return 1;
        }
    }
    return 0;
}
