// SPDX-License-Identifier: MIT
// src/sessions/llist.h: singly linked list of untyped pointers with a head node. Not locked: whoever shares
// a list locks it.
#pragma once

struct llist {
    void *data;  // NULL in the head node; never owned by the list
    llist *next; // NULL at the end
};

llist *NewLList();                               // a head node, or NULL when memory is exhausted
void FreeLList(llist *list);                     // releases the head node only; empty the list first
int AddToList(llist *list, void *element);       // 1 appended at the end, 0 no list or no memory
void RemoveFromList(llist *list, void *element); // unlinks the first node that holds `element`, if one does
int GetListLens(const llist *list);              // number of elements, 0 for NULL
