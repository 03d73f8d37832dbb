// Circular doubly linked lists: a head that points to itself when empty, records that begin with
// their links. Allocates no memory; the caller locks.
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

// Removes `node` from its list and leaves its own links unchanged.
inline void lda_list_unlink(lda_list_t* node) {
    node->prev->next = node->next;
    node->next->prev = node->prev;
}

// The record that begins with these links.
template <class Record>
Record* lda_list_record(lda_list_t* link) {
    return reinterpret_cast<Record*>(link);
}

// The records of a list, front to back: for (lda_intf_t& record : lda_records<lda_intf_t>(&head)).
// The body may unlink any record but its own.
template <class Record>
class lda_records {
 public:
    class iterator {
     public:
        explicit iterator(lda_list_t* link) : link_(link) {}
        Record& operator*() const { return *lda_list_record<Record>(link_); }
        iterator& operator++() {
            link_ = link_->next;
            return *this;
        }
        bool operator!=(const iterator& other) const { return link_ != other.link_; }

     private:
        lda_list_t* link_;
    };

    explicit lda_records(lda_list_t* head) : head_(head) {}
    iterator begin() const { return iterator(head_->next); }
    iterator end() const { return iterator(head_); }

 private:
    lda_list_t* head_;
};
