// SPDX-License-Identifier: MIT
#include "sessions/llist.h"

#include <new>

llist *NewLList()
{
    return new (std::nothrow) llist{nullptr, nullptr};
}

void FreeLList(llist *list)
{
    delete list;
}

int AddToList(llist *list, void *element)
{
    if (list == nullptr)
        return 0;
    llist *const node = new (std::nothrow) llist{element, nullptr};
    if (node == nullptr)
        return 0;
    llist *last = list;
    while (last->next != nullptr)
        last = last->next;
    last->next = node;
    return 1;
}

void RemoveFromList(llist *list, void *element)
{
    if (list == nullptr)
        return;
    for (llist *before = list; before->next != nullptr; before = before->next) {
        llist *const node = before->next;
        if (node->data != element)
            continue;
        before->next = node->next;
        delete node;
        return;
    }
}

int GetListLens(const llist *list)
{
    int count = 0;
    for (const llist *node = list; node != nullptr && node->next != nullptr; node = node->next)
        ++count;
    return count;
}
