// Circular doubly linked lists: a head that points to itself when empty, records that begin with
// their links. No memory of its own; the caller locks.
#pragma once

struct lda_list_t {
    lda_list_t* next;
    lda_list_t* prev;
};

inline void lda_list_init(lda_list_t* head) {
    head->next = head;
    head->prev = head;
}

inline void lda_list_add_head(lda_list_t* head, lda_list_t* node) {
    node->next = head->next;
    node->prev = head;
    head->next->prev = node;
    head->next = node;
}

inline void lda_list_add_tail(lda_list_t* head, lda_list_t* node) {
    node->next = head;
    node->prev = head->prev;
    head->prev->next = node;
    head->prev = node;
}

// Takes `node` out of its list; its own links are left as they are.
inline void lda_list_unlink(lda_list_t* node) {
    node->prev->next = node->next;
    node->next->prev = node->prev;
}
