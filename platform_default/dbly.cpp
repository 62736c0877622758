// Doubly linked lists that end in null and begin at a head.
#include "platform/dbly.h"

void dbly_linkage_link(dbly_linkage_t *after, dbly_linkage_t *linkage) {
    if (after == nullptr || linkage == nullptr) return;
    linkage->next = after->next;
    linkage->prev = after;
    if (after->next != nullptr) after->next->prev = linkage;
    after->next = linkage;
}

void dbly_linkage_delink(dbly_linkage_t *linkage) {
    // Every member has something before it, so no prev means: a head, or not linked.
    if (linkage == nullptr || linkage->prev == nullptr) return;
    linkage->prev->next = linkage->next;
    if (linkage->next != nullptr) linkage->next->prev = linkage->prev;
    linkage->next = nullptr;
    linkage->prev = nullptr;
}
