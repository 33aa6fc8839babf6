// SPDX-License-Identifier: GPL-2.0
//
// Intrusive doubly linked lists. A record embeds a list_link for each list that it can be in;
// the list owns nothing, and its users guard it with a lock.
#pragma once

#include <bit>
#include <cstddef>

// The record that contains field, given which of its members field is.
template<class Owner, class Field>
Owner *container_of(Field *field, Field Owner::*member)
{
    // A pointer to a data member is the member's offset (Itanium C++ ABI, 2.3).
    const auto offset = std::bit_cast<std::ptrdiff_t>(member);
    return reinterpret_cast<Owner *>(reinterpret_cast<char *>(field) - offset);
}

// Linked to itself when in no list.
struct list_link {
    list_link *prev;
    list_link *next;

    constexpr list_link() : prev(this), next(this) {}
    list_link(const list_link &) = delete;
    list_link &operator=(const list_link &) = delete;

    [[nodiscard]] bool linked() const { return next != this; }

    void unlink()
    {
        prev->next = next;
        next->prev = prev;
        prev = next = this;
    }

    void insert_before(list_link &successor)
    {
        prev = successor.prev;
        next = &successor;
        prev->next = this;
        successor.prev = this;
    }
};

// Most records have one link, named list.
template<class T>
struct by_list {
    static constexpr list_link T::*member() { return &T::list; }
};

template<class T, class Link = by_list<T>>
class intrusive_list
{
  public:
    [[nodiscard]] bool empty() const { return !head_.linked(); }
    [[nodiscard]] T *front() { return at(head_.next); }
    [[nodiscard]] T *back() { return at(head_.prev); }

    // The record after this one, which must be in the list; null at the end.
    [[nodiscard]] T *next(T &record) { return at(link(record).next); }

    // The record must be in no list through this link.
    void push_front(T &record) { link(record).insert_before(*head_.next); }
    void push_back(T &record) { link(record).insert_before(head_); }

    // Whether the record is in any list through this link.
    [[nodiscard]] static bool is_linked(T &record) { return link(record).linked(); }
    static void unlink(T &record) { link(record).unlink(); }

    // Unlinks and returns the first record; null if there is none.
    T *pop_front()
    {
        T *record = front();
        if (record != nullptr)
            unlink(*record);
        return record;
    }

    // Appends all records of another list, in order, which is then empty. Costs the same however
    // many there are.
    void take(intrusive_list &other)
    {
        if (other.empty())
            return;
        list_link *const first = other.head_.next;
        list_link *const last = other.head_.prev;
        other.head_.prev = other.head_.next = &other.head_;
        first->prev = head_.prev;
        last->next = &head_;
        head_.prev->next = first;
        head_.prev = last;
    }

    // Calls visit for every record in order; visit may unlink the record it is given.
    template<class Visit>
    void for_each(Visit visit)
    {
        for (list_link *at_link = head_.next, *after; at_link != &head_; at_link = after) {
            after = at_link->next;
            visit(*container_of(at_link, Link::member()));
        }
    }

  private:
    list_link head_;

    static list_link &link(T &record) { return record.*Link::member(); }
    T *at(list_link *position)
    {
        return position == &head_ ? nullptr : container_of(position, Link::member());
    }
};
